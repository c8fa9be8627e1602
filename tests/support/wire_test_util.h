// SPDX-License-Identifier: Apache-2.0
// Test helpers for message bytes: hand-written expectations, an independent
// HMAC-SHA1, keyed contexts and event ownership.
#ifndef OMSDK_TEST_WIRE_TEST_UTIL_H
#define OMSDK_TEST_WIRE_TEST_UTIL_H

#include <ctype.h>
#include <stdint.h>
#include <stdlib.h>
#include <string.h>

#include <openssl/evp.h>
#include <openssl/hmac.h>

#include <string>
#include <vector>

#include <omsdk/event.h>
#include <omsdk/hmac.h>

#include "corvane_util/event_internal.h"

namespace wire_test {

using Bytes = std::vector<uint8_t>;

// Expected bytes written by hand: hex pairs; blanks and '|' separate,
// "32x44" stands for 32 bytes of 0x44.
inline Bytes hex(const char *text) {
    Bytes out;
    int hi = -1;
    for (const char *p = text; *p != '\0'; ++p) {
        if (isspace(static_cast<unsigned char>(*p)) || *p == '|') continue;
        char *end = nullptr;
        unsigned long n = hi < 0 ? strtoul(p, &end, 10) : 0;
        if (end != nullptr && end != p && *end == 'x') {
            std::string byte(end + 1, 2);
            out.insert(out.end(), n, static_cast<uint8_t>(strtoul(byte.c_str(), nullptr, 16)));
            p = end + 2;
            continue;
        }
        int v = isdigit(static_cast<unsigned char>(*p)) ? *p - '0' : tolower(*p) - 'a' + 10;
        if (hi >= 0) out.push_back(static_cast<uint8_t>(hi << 4 | v));
        hi = hi < 0 ? v : -1;
    }
    return out;
}

inline Bytes cat(const std::vector<Bytes> &parts) {
    Bytes out;
    for (const Bytes &p : parts) out.insert(out.end(), p.begin(), p.end());
    return out;
}
inline Bytes text(const std::string &t) { return Bytes(t.begin(), t.end()); }  // without NUL
inline Bytes be(uint32_t v, int n) {  // n bytes, big-endian
    const Bytes b = {uint8_t(v >> 24), uint8_t(v >> 16), uint8_t(v >> 8), uint8_t(v)};
    return Bytes(b.end() - n, b.end());
}
inline Bytes be16(uint32_t v) { return be(v, 2); }
inline Bytes be32(uint32_t v) { return be(v, 4); }
// A TLV: type word, whole length (header included), qualifier, value.
inline Bytes tlv(uint32_t type, const Bytes &value, uint32_t qualifier = 0) {
    return cat({be32(type), be32(uint32_t(12 + value.size())), be32(qualifier), value});
}

// HMAC-SHA1 by OpenSSL, independent of the library's own.
inline Bytes openssl_hmac(const Bytes &key, const uint8_t *data, size_t len) {
    Bytes out(EVP_MAX_MD_SIZE);
    unsigned int n = 0;
    HMAC(EVP_sha1(), key.data(), static_cast<int>(key.size()), data, len, out.data(), &n);
    out.resize(n);
    return out;
}

inline Bytes openssl_hmac(const Bytes &key, const Bytes &data) {
    return openssl_hmac(key, data.data(), data.size());
}

// Stores the digest over bytes 32.. at 12..31 of an expected message.
inline void sign(Bytes &msg, const Bytes &key) {
    Bytes d = openssl_hmac(key, msg.data() + 32, msg.size() - 32);
    memcpy(msg.data() + 12, d.data(), d.size());
}

// A whole message: security header (comm in the low nibble of byte 9), the
// digest over bytes 32.. by OpenSSL, the event header (version 1, type 10,
// application 17), then the body.
inline Bytes frame(const char *id, uint32_t seq, int8_t shipment, uint8_t pri, uint8_t cls,
                   uint16_t action, uint8_t comm, uint16_t count, const Bytes &body,
                   const Bytes &key) {
    Bytes m = cat({hex("00 02 00 00 00 00 00 00 00"), be(0x10 | comm, 1), hex("00 14 20x00"),
                   be32(seq), text(id), hex("01"), Bytes{uint8_t(shipment), pri, 10, 17, cls},
                   be16(action), be16(uint32_t(body.size())), be16(count), body});
    sign(m, key);
    return m;
}

// A keyed HMAC context, spent on destruction.
struct KeyCtx {
    hmac_sha_ctx ctx;
    explicit KeyCtx(const Bytes &key) {
        memset(&ctx, 0, sizeof ctx);
        hmac_shainit(&ctx, key.data(), static_cast<uint16_t>(key.size()));
    }
    ~KeyCtx() {
        uint8_t out[OHMARA_SHA1_DIGEST_SIZE];
        hmac_shafinal(out, &ctx);
    }
    KeyCtx(const KeyCtx &) = delete;
    KeyCtx &operator=(const KeyCtx &) = delete;
};

using EventPtr = omsdk::owned_event;

// A received copy of the bytes, unpacked with the key; result in *rc.
inline EventPtr receive(const Bytes &msg, const hmac_sha_ctx *key, int32_t *rc) {
    EventPtr ev(cv_mkevent_from_rawbuffer(static_cast<int32_t>(msg.size()), msg.data()));
    *rc = ev ? cv_unpack_event(ev.get(), key) : -100;
    return ev;
}

}  // namespace wire_test

#endif
