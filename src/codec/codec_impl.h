// SPDX-License-Identifier: Apache-2.0
// Internal building blocks of the value codecs: a bounded reader over
// received bytes, the field codecs, and the two templates every codec is
// made of: `flat` (one integer or an array of them) and `record` (a struct
// described once as its list of fields in wire order, from which size, pack,
// bounded unpack, deep copy and release are all generated).
#ifndef OMSDK_CODEC_CODEC_IMPL_H
#define OMSDK_CODEC_CODEC_IMPL_H

#include <stddef.h>
#include <stdint.h>
#include <stdlib.h>
#include <string.h>

#include <omsdk/wire_types.h>

#include "codec/arena.h"
#include "codec/byte_order.h"

namespace omsdk {
namespace codec {

// Decoder status codes.
constexpr int32_t kOk = 0;
constexpr int32_t kNoMemory = 1;
constexpr int32_t kBadArgument = 4;
constexpr int32_t kShort = 8;

inline void set_status(int32_t *status, int32_t value) {
    if (status != nullptr) *status = value;
}

// A window over received bytes. Every read checks `left` first, so no
// decoder can look past the bytes it was given. What is decoded goes to
// `mem` (the heap when null); with `views`, bare blobs are not copied but
// point into the bytes read, which their owner keeps for as long.
struct reader {
    const uint8_t *p;
    uint32_t left;
    uint32_t used;
    arena *mem = nullptr;
    bool views = false;

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

template <typename T>
inline int32_t read_int(reader &r, T *out) {
    const uint8_t *at = r.take(static_cast<uint32_t>(sizeof(T)));
    if (at == nullptr) return kShort;
    *out = get_be<T>(at);
    return kOk;
}

// Length-prefixed text; a negative or oversized prefix is kShort and
// nothing is allocated.
int32_t read_string(reader &r, char **out);
// Exactly `len` bytes as a NUL-terminated text.
int32_t read_text(reader &r, uint32_t len, char **out);
// Length-prefixed blob; a zero length gives a null pointer.
int32_t read_blob(reader &r, void **out, uint32_t *len);
// Exactly `len` bytes as a blob; zero gives a null pointer.
int32_t read_bytes(reader &r, uint32_t len, void **out);

// Wire size of a length-prefixed text (nothing at all for null).
inline uint64_t string_field_size(const char *text) {
    return text != nullptr ? 4u + static_cast<uint64_t>(strlen(text)) : 0u;
}

inline uint32_t clamp32(uint64_t n) {
    return n > UINT32_MAX ? UINT32_MAX : static_cast<uint32_t>(n);
}

// strdup that passes null through; false only when memory runs out.
inline bool dup_text(const char *src, char **dst, arena *mem = nullptr) {
    *dst = nullptr;
    if (src == nullptr) return true;
    const size_t n = strlen(src) + 1;
    *dst = static_cast<char *>(mem_alloc(mem, n, false));
    if (*dst == nullptr) return false;
    memcpy(*dst, src, n);
    return true;
}

// A length-prefixed text (nothing at all for null) and a length-prefixed
// blob (zeros for a null pointer). Inlined even where the caller is compiled
// for size: a device header is packed several times per answer.
__attribute__((always_inline)) inline uint32_t pack_string(uint8_t *dst, const char *text) {
    if (text == nullptr) return 0;
    const size_t len = strlen(text);
    const uint32_t n = put_be<int32_t>(dst, static_cast<int32_t>(len));
    memcpy(dst + n, text, len);  // NOLINT(bugprone-not-null-terminated-result): length-prefixed
    return n + static_cast<uint32_t>(len);
}
__attribute__((always_inline)) inline uint32_t pack_blob(uint8_t *dst, const void *ptr,
                                                         uint32_t len) {
    const uint32_t n = put_be<uint32_t>(dst, len);
    if (ptr != nullptr)
        memcpy(dst + n, ptr, len);
    else
        memset(dst + n, 0, len);
    return n + len;
}

// Copy of `len` bytes into a zeroed block of at least `alloc` bytes;
// null for a zero-sized result.
void *copy_block(const void *src, uint32_t len, uint32_t alloc, int32_t *status,
                 arena *mem = nullptr);

// Deep copy of a record into a new block of `size` bytes by its `copy`;
// null (status kNoMemory, nothing kept from the heap) when memory runs out,
// null (status kOk) for a null source. One copy for every record.
void *clone_record(const void *src, size_t size, bool (*copy)(void *, const void *, arena *),
                   int32_t *status, arena *mem);

// Runs a field decoder over the caller's (src, remaining) and reports
// through the exported (consumed, remaining, status) convention.
template <typename F>
inline void run_decoder(const uint8_t *src, uint32_t *consumed, int32_t *remaining, int32_t *status,
                        F &&decode) {
    reader r(src, reader::budget(remaining));
    int32_t st = decode(r);
    if (st == kOk) {
        if (remaining != nullptr) *remaining -= static_cast<int32_t>(r.used);
        if (consumed != nullptr) *consumed = r.used;
    } else if (consumed != nullptr) {
        *consumed = 0;
    }
    set_status(status, st);
}

// Same, allocating a zeroed value of `alloc` bytes first; `min_wire` is
// checked before allocating. A failed decoder has released what it owned
// inside the value; the block itself is freed here.
template <typename T, typename F>
inline T *run_ptr_decoder(const uint8_t *src, uint32_t *consumed, int32_t *remaining,
                          int32_t *status, size_t alloc, uint32_t min_wire, F &&decode) {
    if (consumed != nullptr) *consumed = 0;
    if (src == nullptr || reader::budget(remaining) < min_wire) {
        set_status(status, kShort);
        return nullptr;
    }
    T *value = static_cast<T *>(calloc(1, alloc));
    if (value == nullptr) {
        set_status(status, kNoMemory);
        return nullptr;
    }
    int32_t st = kOk;
    run_decoder(src, consumed, remaining, &st, [&](reader &r) { return decode(r, value); });
    set_status(status, st);
    if (st != kOk) {
        free(value);
        return nullptr;
    }
    return value;
}

// The two above for the integer, vector and record codecs, one copy for
// all of them: `decode` reads one value into `out`.
using block_decoder = int32_t (*)(reader &r, void *out);
void run_block_decoder(const uint8_t *src, uint32_t *consumed, int32_t *remaining, int32_t *status,
                       block_decoder decode, void *out);
void *run_new_block_decoder(const uint8_t *src, uint32_t *consumed, int32_t *remaining,
                            int32_t *status, size_t alloc, uint32_t min_wire, block_decoder decode);

// Runs a decoder that allocates what it decodes (a text or a blob) and
// hands the result over.
template <typename P, typename F>
inline P take_decoded(const uint8_t *src, uint32_t *consumed, int32_t *remaining, int32_t *status,
                      F &&decode) {
    P got = nullptr;
    run_decoder(src, consumed, remaining, status, [&](reader &r) { return decode(r, &got); });
    return got;
}

// Stores a decoded pointer where the caller asked for it, or frees it.
template <typename P>
inline void give(P *dst, P value) {
    if (dst != nullptr)
        *dst = value;
    else
        free(value);
}

// One integer (N == 1) or an array of N big-endian integers: the ids are
// arrays of bytes, the vectors arrays of int32 or uint16. `Alloc` is the
// size of a decoded block, which may leave room beyond the values.
template <typename T, size_t N = 1, size_t Alloc = N * sizeof(T)>
struct flat {
    using value_type = T;
    static constexpr uint32_t min_wire = static_cast<uint32_t>(N * sizeof(T));
    static constexpr size_t alloc = Alloc;

    static uint64_t wire_size(const T *) { return min_wire; }
    static uint32_t pack(uint8_t *dst, const T *v) {
        if (v == nullptr) return 0;
        for (size_t i = 0; i < N; ++i) {
            T e;
            // Values need not be aligned for T.
            memcpy(&e, reinterpret_cast<const uint8_t *>(v) + i * sizeof(T), sizeof e);
            put_be<T>(dst + i * sizeof(T), e);
        }
        return min_wire;
    }
    static int32_t read(reader &r, T *out) {
        const uint8_t *at = r.take(min_wire);
        if (at == nullptr) return kShort;
        for (size_t i = 0; i < N; ++i) out[i] = get_be<T>(at + i * sizeof(T));
        return kOk;
    }
    static T *clone(const T *v, int32_t *status, arena *mem = nullptr) {
        set_status(status, kOk);
        if (v == nullptr) return nullptr;
        return static_cast<T *>(copy_block(v, min_wire, min_wire, status, mem));
    }
    static void free_ptr(T *v) { free(v); }

    // The exported decoder shapes. A failed decode leaves *dst untouched; a
    // null dst only consumes.
    static int32_t read_whole(reader &r, void *dst) {
        T v[N];
        const int32_t st = read(r, v);
        if (st == kOk && dst != nullptr) memcpy(dst, v, sizeof v);
        return st;
    }
    static int32_t read_into(reader &r, void *out) { return read(r, static_cast<T *>(out)); }
    static void unpack(const uint8_t *src, T *dst, uint32_t *consumed, int32_t *remaining,
                       int32_t *status) {
        run_block_decoder(src, consumed, remaining, status, read_whole, dst);
    }
    static T *unpack_ptr(const uint8_t *src, uint32_t *consumed, int32_t *remaining,
                         int32_t *status) {
        return static_cast<T *>(
            run_new_block_decoder(src, consumed, remaining, status, Alloc, min_wire, read_into));
    }
};

// Fields of a record, each naming its member(s). Every field knows its
// wire size, how to pack and read itself, and what it owns: `detach` drops
// owned pointers from a shallow copy, `dup` gives the copy its own,
// `release` frees them.
template <typename M>
struct member_of;
template <typename C, typename T>
struct member_of<T C::*> {
    using record = C;
    using type = T;
};

template <auto M>
struct plain_field {  // nothing owned
    using R = typename member_of<decltype(M)>::record;
    static void detach(R &) {}
    static bool dup(R &, const R &, arena *) { return true; }
    static void release(R &) {}
};

template <auto M>
struct int_field : plain_field<M> {
    using R = typename member_of<decltype(M)>::record;
    using T = typename member_of<decltype(M)>::type;
    static constexpr uint32_t min_wire = sizeof(T);
    static uint64_t size(const R &) { return sizeof(T); }
    static uint32_t pack(uint8_t *dst, const R &v) { return put_be<T>(dst, v.*M); }
    static int32_t read(reader &r, R &v) { return read_int(r, &(v.*M)); }
};

template <auto M>
struct id_field : plain_field<M> {
    using R = typename member_of<decltype(M)>::record;
    static constexpr uint32_t min_wire = CV_CORVANE_ID_SIZE;
    static uint64_t size(const R &) { return CV_CORVANE_ID_SIZE; }
    static uint32_t pack(uint8_t *dst, const R &v) {
        memcpy(dst, v.*M, CV_CORVANE_ID_SIZE);
        return CV_CORVANE_ID_SIZE;
    }
    static int32_t read(reader &r, R &v) {
        const uint8_t *at = r.take(CV_CORVANE_ID_SIZE);
        if (at == nullptr) return kShort;
        memcpy(v.*M, at, CV_CORVANE_ID_SIZE);
        return kOk;
    }
};

// An id that receivers have always read from the position of the 4-byte
// number before it: the id starts with the number's bytes and its own last
// four bytes on the wire go unused, though all 32 are consumed.
template <auto M>
struct echo_id_field : id_field<M> {
    using R = typename member_of<decltype(M)>::record;
    static int32_t read(reader &r, R &v) {
        const uint8_t *at = r.take(CV_CORVANE_ID_SIZE);
        if (at == nullptr) return kShort;
        memcpy(v.*M, at - 4, CV_CORVANE_ID_SIZE);
        return kOk;
    }
};

// A length-prefixed text; null packs to nothing.
template <auto M>
struct text_field {
    using R = typename member_of<decltype(M)>::record;
    static constexpr uint32_t min_wire = 4;
    static uint64_t size(const R &v) { return string_field_size(v.*M); }
    static uint32_t pack(uint8_t *dst, const R &v) { return pack_string(dst, v.*M); }
    static int32_t read(reader &r, R &v) { return read_string(r, &(v.*M)); }
    static void detach(R &v) { v.*M = nullptr; }
    static bool dup(R &dst, const R &src, arena *mem) { return dup_text(src.*M, &(dst.*M), mem); }
    static void release(R &v) {
        free(v.*M);
        v.*M = nullptr;
    }
};

// A length-prefixed blob held as (pointer P, length L); a null pointer
// packs as L zero bytes.
template <auto P, auto L>
struct blob_field {
    using R = typename member_of<decltype(P)>::record;
    static constexpr uint32_t min_wire = 4;
    static uint64_t size(const R &v) { return 4u + static_cast<uint64_t>(v.*L); }
    static uint32_t pack(uint8_t *dst, const R &v) { return pack_blob(dst, v.*P, v.*L); }
    static int32_t read(reader &r, R &v) { return read_blob(r, &(v.*P), &(v.*L)); }
    static void detach(R &v) { v.*P = nullptr; }
    static bool dup(R &dst, const R &src, arena *mem) {
        int32_t st = kOk;
        if (src.*P != nullptr) dst.*P = copy_block(src.*P, src.*L, 0, &st, mem);
        return st == kOk;
    }
    static void release(R &v) {
        free(v.*P);
        v.*P = nullptr;
    }
};

// A record codec from its fields in wire order.
template <typename R, typename... F>
struct record {
    using value_type = R;
    static constexpr uint32_t min_wire = (0u + ... + F::min_wire);
    static constexpr size_t alloc = sizeof(R);

    static uint64_t wire_size(const R *v) { return v != nullptr ? (0u + ... + F::size(*v)) : 0u; }
    static uint32_t size(const R *v) { return clamp32(wire_size(v)); }
    static uint32_t pack(uint8_t *dst, const R *v) {
        if (v == nullptr) return 0;
        uint32_t n = 0;
        ((n += F::pack(dst + n, *v)), ...);
        return n;
    }
    // All or nothing: on failure the reader has not moved, *out is untouched
    // and nothing allocated from the heap survives. Members that do not
    // travel are zero.
    static int32_t read(reader &r, R *out) {
        reader t = r;
        R v;
        memset(&v, 0, sizeof v);
        int32_t st = kOk;
        ((st = st == kOk ? F::read(t, v) : st), ...);
        if (st != kOk) {
            if (r.mem == nullptr) release(v);
            return st;
        }
        *out = v;
        r = t;
        return kOk;
    }
    static void release(R &v) { (F::release(v), ...); }
    // Deep copy into *dst; false when memory runs out (nothing kept from
    // the heap then).
    static bool copy(R *dst, const R &src, arena *mem = nullptr) {
        R v = src;
        (F::detach(v), ...);
        bool ok = true;
        ((ok = ok && F::dup(v, src, mem)), ...);
        if (!ok) {
            if (mem == nullptr) release(v);
            return false;
        }
        *dst = v;
        return true;
    }
    static bool copy_into(void *dst, const void *src, arena *mem) {
        return copy(static_cast<R *>(dst), *static_cast<const R *>(src), mem);
    }
    static R *clone(const R *src, int32_t *status, arena *mem = nullptr) {
        return static_cast<R *>(clone_record(src, sizeof(R), copy_into, status, mem));
    }
    static void free_ptr(R *v) {
        if (v == nullptr) return;
        release(*v);
        free(v);
    }

    static int32_t read_into(reader &r, void *out) { return read(r, static_cast<R *>(out)); }
    static void unpack(const uint8_t *src, R *dst, uint32_t *consumed, int32_t *remaining,
                       int32_t *status) {
        run_block_decoder(src, consumed, remaining, status, read_into, dst);
    }
    static R *unpack_ptr(const uint8_t *src, uint32_t *consumed, int32_t *remaining,
                         int32_t *status) {
        return static_cast<R *>(run_new_block_decoder(src, consumed, remaining, status, sizeof(R),
                                                      min_wire, read_into));
    }
};

// The value codecs.
using u8_codec = flat<uint8_t>;
using i8_codec = flat<int8_t>;
using u16_codec = flat<uint16_t>;
using u32_codec = flat<uint32_t>;
using i32_codec = flat<int32_t>;
using id_codec = flat<uint8_t, CV_CORVANE_ID_SIZE>;
using delta_vector_codec = flat<int32_t, CV_VECTOR_LEN>;
// A decoded usage vector gets a block of twice its size (room for 22
// values), which is what receivers of this value expect.
using usage_vector_codec = flat<uint16_t, CV_VECTOR_LEN, 2 * sizeof(cv_usage_vector)>;

using alarm_codec =
    record<cv_alarm, int_field<&cv_alarm::seconds>, int_field<&cv_alarm::param2>,
           int_field<&cv_alarm::param1>, int_field<&cv_alarm::id>, int_field<&cv_alarm::operation>>;
using recurrence_codec =
    record<cv_recurrence, text_field<&cv_recurrence::text>, int_field<&cv_recurrence::first>,
           int_field<&cv_recurrence::second>, int_field<&cv_recurrence::flag>>;
using neighbor_codec =
    record<cv_neighbor, id_field<&cv_neighbor::id>, text_field<&cv_neighbor::name>,
           blob_field<&cv_neighbor::blob, &cv_neighbor::blob_len>, int_field<&cv_neighbor::flag>>;
using deviceheader_codec = record<cv_device_header, id_field<&cv_device_header::id>,
                                  blob_field<&cv_device_header::blob, &cv_device_header::blob_len>>;
using usage_cmn_hdr_codec =
    record<cv_usage_cmn_hdr, int_field<&cv_usage_cmn_hdr::version>,
           int_field<&cv_usage_cmn_hdr::caliber>, text_field<&cv_usage_cmn_hdr::name>,
           text_field<&cv_usage_cmn_hdr::role>, int_field<&cv_usage_cmn_hdr::units>,
           int_field<&cv_usage_cmn_hdr::level>, int_field<&cv_usage_cmn_hdr::importance>,
           text_field<&cv_usage_cmn_hdr::keywords>>;
using sender_id_codec =
    record<cv_sender_id, id_field<&cv_sender_id::id>, int_field<&cv_sender_id::value>>;
using event_id_codec =
    record<cv_event_id, int_field<&cv_event_id::number>, echo_id_field<&cv_event_id::id>>;

}  // namespace codec
}  // namespace omsdk

#endif
