// SPDX-License-Identifier: Apache-2.0
// Byte helpers shared by the fuzz targets and their seed maker: big-endian
// fields, and the repair of a mutant's framing so that it gets past the
// size checks.
#ifndef OMSDK_FUZZ_FRAMING_H
#define OMSDK_FUZZ_FRAMING_H

#include <stddef.h>
#include <stdint.h>

#include <omsdk/wire_types.h>

namespace fuzz_wire {

inline void put_be16(uint8_t *p, uint32_t v) {
    p[0] = static_cast<uint8_t>(v >> 8);
    p[1] = static_cast<uint8_t>(v);
}

inline void put_be32(uint8_t *p, uint32_t v) {
    put_be16(p, v >> 16);
    put_be16(p + 2, v);
}

inline uint32_t get_be32(const uint8_t *p) {
    return (uint32_t{p[0]} << 24) | (uint32_t{p[1]} << 16) | (uint32_t{p[2]} << 8) | p[3];
}

// Makes the TLV byte count, the TLV lengths and count agree with the bytes
// (the digest is left alone); returns the (possibly shortened) size.
inline size_t repair_framing(uint8_t *data, size_t size) {
    if (size < CV_PDU_FIXED_SIZE) return size;
    size_t at = CV_PDU_FIXED_SIZE;
    uint32_t count = 0;
    while (size - at >= CV_TLV_HEADER_SIZE) {
        const size_t left = size - at;
        uint32_t length = get_be32(data + at + 4);
        if (length < CV_TLV_HEADER_SIZE || length > left) {
            length = static_cast<uint32_t>(left);
            put_be32(data + at + 4, length);
        }
        at += length;
        ++count;
    }
    size = at;  // drop a tail too short for a TLV header
    put_be16(data + 76, static_cast<uint32_t>(size - CV_PDU_FIXED_SIZE));
    put_be16(data + 78, count);
    return size;
}

}  // namespace fuzz_wire

#endif
