// Internal building blocks of the value codecs: a bounded reader over
// received bytes and the field decoders the records are composed from.
#ifndef OMSDK_CODEC_CODEC_IMPL_H
#define OMSDK_CODEC_CODEC_IMPL_H

#include <stddef.h>
#include <stdint.h>
#include <stdlib.h>
#include <string.h>

#include <type_traits>

#include <omsdk/wire_types.h>

namespace omsdk {
namespace codec {

// Decoder status codes.
constexpr int32_t kOk = 0;
constexpr int32_t kNoMemory = 1;
constexpr int32_t kBadArgument = 4;
constexpr int32_t kShort = 8;

// A window over received bytes. Every read checks `left` first, so no
// decoder can look past the bytes it was given.
struct reader {
    const uint8_t *p;
    uint32_t left;
    uint32_t used;

    reader(const uint8_t *src, uint32_t n) : p(src), left(src != nullptr ? n : 0), used(0) {}

    // Bytes of a caller's signed `remaining`; negative counts as none.
    static uint32_t budget(const int32_t *remaining) {
        return (remaining != nullptr && *remaining > 0) ? static_cast<uint32_t>(*remaining) : 0;
    }

    const uint8_t *take(uint32_t n) {
        if (left < n) return nullptr;
        const uint8_t *at = p;
        p += n;
        left -= n;
        used += n;
        return at;
    }
};

// Big-endian integers, byte by byte: no alignment assumptions, no shifts
// of signed values. The usual widths are spelled out, which compilers turn
// into one load or store and a byte swap.
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

template <typename T>
inline int32_t read_int(reader &r, T *out) {
    const uint8_t *at = r.take(static_cast<uint32_t>(sizeof(T)));
    if (at == nullptr) return kShort;
    *out = get_be<T>(at);
    return kOk;
}

int32_t read_id(reader &r, uint8_t *out);
// Length-prefixed text; a negative or oversized prefix is kShort and
// nothing is allocated.
int32_t read_string(reader &r, char **out);
// Exactly `len` bytes as a NUL-terminated text.
int32_t read_text(reader &r, uint32_t len, char **out);
// Length-prefixed blob; a zero length gives a null pointer.
int32_t read_blob(reader &r, void **out, uint32_t *len);
// Exactly `len` bytes as a blob; zero gives a null pointer.
int32_t read_bytes(reader &r, uint32_t len, void **out);
int32_t read_delta_vector(reader &r, int32_t *out);
int32_t read_usage_vector(reader &r, uint16_t *out);

// Records decode into caller storage; on failure nothing they allocated
// survives and their pointers are null.
int32_t read_alarm(reader &r, cv_alarm *out);
int32_t read_recurrence(reader &r, cv_recurrence *out);
int32_t read_neighbor(reader &r, cv_neighbor *out);
int32_t read_deviceheader(reader &r, cv_device_header *out);
int32_t read_usage_cmn_hdr(reader &r, cv_usage_cmn_hdr *out);
int32_t read_sender_id(reader &r, cv_sender_id *out);
int32_t read_event_id(reader &r, cv_event_id *out);

// Wire size of a length-prefixed text (nothing at all for null).
inline uint64_t string_field_size(const char *text) {
    return text != nullptr ? 4u + static_cast<uint64_t>(strlen(text)) : 0u;
}

inline uint32_t clamp32(uint64_t n) {
    return n > UINT32_MAX ? UINT32_MAX : static_cast<uint32_t>(n);
}

// strdup that passes null through; false only when memory runs out.
inline bool dup_text(const char *src, char **dst) {
    *dst = nullptr;
    if (src == nullptr) return true;
    *dst = strdup(src);
    return *dst != nullptr;
}

// Heap copy of `len` bytes into a zeroed block of at least `alloc` bytes;
// null for a zero-sized result.
void *copy_block(const void *src, uint32_t len, uint32_t alloc, int32_t *status);

// Runs a field decoder over the caller's (src, remaining) and reports
// through the exported (consumed, remaining, status) convention.
template <typename F>
inline void run_decoder(const uint8_t *src, uint32_t *consumed, int32_t *remaining,
                        int32_t *status, F &&decode) {
    reader r(src, reader::budget(remaining));
    int32_t st = decode(r);
    if (st == kOk) {
        if (remaining != nullptr) *remaining -= static_cast<int32_t>(r.used);
        if (consumed != nullptr) *consumed = r.used;
    } else if (consumed != nullptr) {
        *consumed = 0;
    }
    if (status != nullptr) *status = st;
}

// Same, allocating a zeroed value of `alloc` bytes first; `min_wire` is
// checked before allocating. `release` undoes what the decoder owns inside
// the value (the block itself is freed here).
template <typename T, typename F>
inline T *run_ptr_decoder(const uint8_t *src, uint32_t *consumed, int32_t *remaining,
                          int32_t *status, size_t alloc, uint32_t min_wire, F &&decode) {
    if (consumed != nullptr) *consumed = 0;
    if (src == nullptr || reader::budget(remaining) < min_wire) {
        if (status != nullptr) *status = kShort;
        return nullptr;
    }
    T *value = static_cast<T *>(calloc(1, alloc));
    if (value == nullptr) {
        if (status != nullptr) *status = kNoMemory;
        return nullptr;
    }
    int32_t st = kOk;
    run_decoder(src, consumed, remaining, &st, [&](reader &r) { return decode(r, value); });
    if (status != nullptr) *status = st;
    if (st != kOk) {
        free(value);
        return nullptr;
    }
    return value;
}

}  // namespace codec
}  // namespace omsdk

#endif
