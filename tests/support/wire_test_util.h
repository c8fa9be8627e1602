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

inline Bytes cat(std::initializer_list<Bytes> parts) {
    Bytes out;
    for (const Bytes &p : parts) out.insert(out.end(), p.begin(), p.end());
    return out;
}

// Appends pieces of an expected message.
struct Builder {
    Bytes b;
    Builder &raw(const Bytes &x) {
        b.insert(b.end(), x.begin(), x.end());
        return *this;
    }
    Builder &h(const char *text) { return raw(hex(text)); }
    Builder &s(const char *text) { return raw(Bytes(text, text + strlen(text))); }
};

// HMAC-SHA1 by OpenSSL, independent of the library's own.
inline Bytes openssl_hmac(const Bytes &key, const uint8_t *data, size_t len) {
    Bytes out(EVP_MAX_MD_SIZE);
    unsigned int n = 0;
    HMAC(EVP_sha1(), key.data(), static_cast<int>(key.size()), data, len, out.data(), &n);
    out.resize(n);
    return out;
}

// Stores the digest over bytes 32.. at 12..31 of an expected message.
inline void sign(Bytes &msg, const Bytes &key) {
    Bytes d = openssl_hmac(key, msg.data() + 32, msg.size() - 32);
    memcpy(msg.data() + 12, d.data(), d.size());
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

inline Bytes raw_of(const cv_event *ev) { return Bytes(ev->raw, ev->raw + ev->raw_len); }

// A received copy of the bytes, unpacked with the key; result in *rc.
inline EventPtr receive(const Bytes &msg, const hmac_sha_ctx *key, int32_t *rc) {
    EventPtr ev(cv_mkevent_from_rawbuffer(static_cast<int32_t>(msg.size()), msg.data()));
    *rc = ev ? cv_unpack_event(ev.get(), key) : -100;
    return ev;
}

}  // namespace wire_test

#endif
