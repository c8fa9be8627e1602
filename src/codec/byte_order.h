// SPDX-License-Identifier: Apache-2.0
// Big-endian integers, byte by byte: no alignment assumptions, no shifts of
// signed values. The usual widths are spelled out, which compilers turn into
// one load or store and a byte swap. The one set of byte-order helpers for
// the codecs, the message framing and the dumps.
#ifndef OMSDK_CODEC_BYTE_ORDER_H
#define OMSDK_CODEC_BYTE_ORDER_H

#include <stddef.h>
#include <stdint.h>
#include <string.h>

#include <type_traits>

namespace omsdk {

template <typename T>
inline uint32_t put_be(uint8_t *dst, T value) {
    static_assert(std::is_integral<T>::value, "integers only");
    using U = typename std::make_unsigned<T>::type;
    U u = static_cast<U>(value);
    if constexpr (sizeof(U) == 1) {
        dst[0] = u;
    } else if constexpr (sizeof(U) == 2) {
        dst[0] = static_cast<uint8_t>(u >> 8);
        dst[1] = static_cast<uint8_t>(u);
    } else if constexpr (sizeof(U) == 4) {
        dst[0] = static_cast<uint8_t>(u >> 24);
        dst[1] = static_cast<uint8_t>(u >> 16);
        dst[2] = static_cast<uint8_t>(u >> 8);
        dst[3] = static_cast<uint8_t>(u);
    } else {
        for (size_t i = sizeof(T); i-- > 0;) {
            dst[i] = static_cast<uint8_t>(u & 0xFFu);
            u = static_cast<U>(u >> 8);
        }
    }
    return static_cast<uint32_t>(sizeof(T));
}

template <typename T>
inline T get_be(const uint8_t *src) {
    static_assert(std::is_integral<T>::value, "integers only");
    using U = typename std::make_unsigned<T>::type;
    U u;
    if constexpr (sizeof(U) == 1) {
        u = src[0];
    } else if constexpr (sizeof(U) == 2) {
        u = static_cast<U>((src[0] << 8) | src[1]);
    } else if constexpr (sizeof(U) == 4) {
        u = (U{src[0]} << 24) | (U{src[1]} << 16) | (U{src[2]} << 8) | U{src[3]};
    } else {
        uint64_t acc = 0;
        for (size_t i = 0; i < sizeof(T); ++i) acc = (acc << 8) | src[i];
        u = static_cast<U>(acc);
    }
    T out;
    memcpy(&out, &u, sizeof out);  // two's complement reinterpretation
    return out;
}

// The header fields the trace dumps read.
inline uint16_t get_be16(const uint8_t *p) { return get_be<uint16_t>(p); }

// Offsets within a wire event header.
constexpr unsigned kHdrTlvBytes = 44;
constexpr unsigned kHdrTlvCount = 46;

}  // namespace omsdk

#endif
