// Big-endian integers read and written byte by byte (no alignment needed).
#ifndef OMSDK_PDU_WIRE_BYTES_H
#define OMSDK_PDU_WIRE_BYTES_H

#include <stdint.h>

namespace omsdk {

inline uint16_t get_be16(const uint8_t *p) { return static_cast<uint16_t>((p[0] << 8) | p[1]); }
inline uint32_t get_be32(const uint8_t *p) {
    return (uint32_t{p[0]} << 24) | (uint32_t{p[1]} << 16) | (uint32_t{p[2]} << 8) | p[3];
}
inline void put_be16(uint8_t *p, uint16_t v) {
    p[0] = static_cast<uint8_t>(v >> 8);
    p[1] = static_cast<uint8_t>(v);
}
inline void put_be32(uint8_t *p, uint32_t v) {
    p[0] = static_cast<uint8_t>(v >> 24);
    p[1] = static_cast<uint8_t>(v >> 16);
    p[2] = static_cast<uint8_t>(v >> 8);
    p[3] = static_cast<uint8_t>(v);
}

// Offsets within a wire event header.
constexpr unsigned kHdrTlvBytes = 44;
constexpr unsigned kHdrTlvCount = 46;

}  // namespace omsdk

#endif
