// Messages written byte by byte from the wire layout, signed with
// OpenSSL's HMAC, for tests of the switch side.
#ifndef OMSDK_TEST_HAND_PDU_H
#define OMSDK_TEST_HAND_PDU_H

#include <ctype.h>
#include <stdint.h>
#include <string.h>

#include <openssl/evp.h>
#include <openssl/hmac.h>

#include <string>
#include <vector>

namespace hand_pdu {

using Bytes = std::vector<uint8_t>;

inline Bytes hex(const char *text) {
    Bytes out;
    int hi = -1;
    for (const char *p = text; *p != '\0'; ++p) {
        if (isspace(static_cast<unsigned char>(*p))) continue;
        int v = isdigit(static_cast<unsigned char>(*p)) ? *p - '0' : tolower(*p) - 'a' + 10;
        if (hi < 0) {
            hi = v;
        } else {
            out.push_back(static_cast<uint8_t>(hi << 4 | v));
            hi = -1;
        }
    }
    return out;
}

inline Bytes text(const char *t) { return Bytes(t, t + strlen(t)); }

inline Bytes cat(std::initializer_list<Bytes> parts) {
    Bytes out;
    for (const Bytes &p : parts) out.insert(out.end(), p.begin(), p.end());
    return out;
}

inline Bytes be16(uint32_t v) {
    return {static_cast<uint8_t>(v >> 8), static_cast<uint8_t>(v)};
}

inline Bytes be32(uint32_t v) {
    return {static_cast<uint8_t>(v >> 24), static_cast<uint8_t>(v >> 16),
            static_cast<uint8_t>(v >> 8), static_cast<uint8_t>(v)};
}

inline Bytes openssl_hmac(const Bytes &key, const uint8_t *data, size_t len) {
    Bytes out(EVP_MAX_MD_SIZE);
    unsigned int n = 0;
    HMAC(EVP_sha1(), key.data(), static_cast<int>(key.size()), data, len, out.data(), &n);
    out.resize(n);
    return out;
}

// A TLV: type word, whole length (header included), third word 0, value.
inline Bytes tlv(uint32_t type_word, const Bytes &value, uint32_t qualifier = 0) {
    return cat({be32(type_word), be32(static_cast<uint32_t>(12 + value.size())), be32(qualifier),
                value});
}

// A whole message: security header (enc 2, auth 1, comm 1, digest length
// 20), the digest over everything from the event header on, the event
// header (version 1, type 10, application 17) and the TLVs.
inline Bytes message(uint32_t seq, const char *id32, int8_t shipment, uint8_t pri, uint8_t cls,
                     uint16_t action, const std::vector<Bytes> &tlvs, const Bytes &key) {
    Bytes body;
    for (const Bytes &t : tlvs) body.insert(body.end(), t.begin(), t.end());
    Bytes msg = cat({hex("00 02 0000 00000000 00 11 0014"), Bytes(20, 0), be32(seq),
                     Bytes(id32, id32 + 32),
                     Bytes{0x01, static_cast<uint8_t>(shipment), pri, 0x0a, 0x11, cls},
                     be16(action), be16(static_cast<uint32_t>(body.size())),
                     be16(static_cast<uint32_t>(tlvs.size())), body});
    Bytes d = openssl_hmac(key, msg.data() + 32, msg.size() - 32);
    memcpy(msg.data() + 12, d.data(), 20);
    return msg;
}

}  // namespace hand_pdu

#endif
