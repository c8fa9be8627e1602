// Field codecs: fixed-width integers, corvane ids, texts, blobs, vectors.
#include <stdlib.h>
#include <string.h>

#include <omsdk/codec.h>

#include "codec/codec_impl.h"
#include "common/api.h"

namespace omsdk {
namespace codec {

int32_t read_id(reader &r, uint8_t *out) {
    const uint8_t *at = r.take(CV_CORVANE_ID_SIZE);
    if (at == nullptr) return kShort;
    memcpy(out, at, CV_CORVANE_ID_SIZE);
    return kOk;
}

namespace {

// Length prefix of a text or blob: negative or beyond the bytes that
// follow is malformed; the reader is left untouched then.
int32_t read_length_prefix(reader &r, uint32_t *len) {
    reader probe = r;
    int32_t n = 0;
    if (read_int(probe, &n) != kOk || n < 0 || static_cast<uint32_t>(n) > probe.left)
        return kShort;
    r = probe;
    *len = static_cast<uint32_t>(n);
    return kOk;
}

}  // namespace

int32_t read_text(reader &r, uint32_t len, char **out) {
    *out = nullptr;
    if (r.left < len) return kShort;
    char *text = static_cast<char *>(malloc(static_cast<size_t>(len) + 1));
    if (text == nullptr) return kNoMemory;
    memcpy(text, r.take(len), len);
    text[len] = '\0';
    *out = text;
    return kOk;
}

int32_t read_string(reader &r, char **out) {
    *out = nullptr;
    reader probe = r;
    uint32_t len = 0;
    int32_t st = read_length_prefix(probe, &len);
    if (st == kOk) st = read_text(probe, len, out);
    if (st == kOk) r = probe;
    return st;
}

int32_t read_bytes(reader &r, uint32_t len, void **out) {
    *out = nullptr;
    if (r.left < len) return kShort;
    if (len == 0) return kOk;
    void *blob = malloc(len);
    if (blob == nullptr) return kNoMemory;
    memcpy(blob, r.take(len), len);
    *out = blob;
    return kOk;
}

int32_t read_blob(reader &r, void **out, uint32_t *len) {
    *out = nullptr;
    *len = 0;
    reader probe = r;
    uint32_t n = 0;
    int32_t st = read_length_prefix(probe, &n);
    if (st == kOk) st = read_bytes(probe, n, out);
    if (st != kOk) return st;
    r = probe;
    *len = n;
    return kOk;
}

int32_t read_delta_vector(reader &r, int32_t *out) {
    const uint8_t *at = r.take(CV_VECTOR_LEN * 4);
    if (at == nullptr) return kShort;
    for (size_t i = 0; i < CV_VECTOR_LEN; ++i) out[i] = get_be<int32_t>(at + 4 * i);
    return kOk;
}

int32_t read_usage_vector(reader &r, uint16_t *out) {
    const uint8_t *at = r.take(CV_VECTOR_LEN * 2);
    if (at == nullptr) return kShort;
    for (size_t i = 0; i < CV_VECTOR_LEN; ++i) out[i] = get_be<uint16_t>(at + 2 * i);
    return kOk;
}

void *copy_block(const void *src, uint32_t len, uint32_t alloc, int32_t *status) {
    if (status != nullptr) *status = kOk;
    size_t size = len > alloc ? len : alloc;
    if (size == 0) return nullptr;
    // Only the part that the source does not cover needs zeroing.
    void *copy = src != nullptr && len >= alloc ? malloc(size) : calloc(1, size);
    if (copy == nullptr) {
        if (status != nullptr) *status = kNoMemory;
        return nullptr;
    }
    if (src != nullptr && len != 0) memcpy(copy, src, len);
    return copy;
}

namespace {

// The whole family of one fixed-width integer codec.
template <typename T>
struct int_codec {
    static uint32_t pack(uint8_t *dst, T value) { return put_be<T>(dst, value); }

    static void unpack(const uint8_t *src, T *dst, uint32_t *consumed, int32_t *remaining,
                       int32_t *status) {
        run_decoder(src, consumed, remaining, status, [dst](reader &r) {
            T v{};
            int32_t st = read_int(r, &v);
            if (st == kOk && dst != nullptr) *dst = v;
            return st;
        });
    }

    static T *unpack_ptr(const uint8_t *src, uint32_t *consumed, int32_t *remaining,
                         int32_t *status) {
        return run_ptr_decoder<T>(src, consumed, remaining, status, sizeof(T), sizeof(T),
                                  [](reader &r, T *v) { return read_int(r, v); });
    }

    static T *clone(const T *value, int32_t *status) {
        if (value == nullptr) {
            if (status != nullptr) *status = kOk;
            return nullptr;
        }
        return static_cast<T *>(copy_block(value, sizeof(T), sizeof(T), status));
    }
};

}  // namespace
}  // namespace codec
}  // namespace omsdk

using omsdk::codec::int_codec;
using omsdk::codec::kNoMemory;
using omsdk::codec::kOk;
using omsdk::codec::kShort;
using omsdk::codec::reader;
using omsdk::codec::run_decoder;
using omsdk::codec::run_ptr_decoder;

#define OM_INT_DECODERS(name, T)                                                              \
    OMSDK_API void om_unpack_##name(const uint8_t *src, T *dst, uint32_t *consumed,           \
                                    int32_t *remaining, int32_t *status) {                    \
        int_codec<T>::unpack(src, dst, consumed, remaining, status);                          \
    }                                                                                         \
    OMSDK_API T *om_unpack_##name##_ptr(const uint8_t *src, uint32_t *consumed,               \
                                        int32_t *remaining, int32_t *status) {                \
        return int_codec<T>::unpack_ptr(src, consumed, remaining, status);                    \
    }                                                                                         \
    OMSDK_API T *om_clone_##name(const T *value, int32_t *status) {                           \
        return int_codec<T>::clone(value, status);                                            \
    }

#define OM_INT_CODEC(name, T)                                                                 \
    OMSDK_API uint32_t om_pack_##name(uint8_t *dst, T value) {                                \
        return int_codec<T>::pack(dst, value);                                                \
    }                                                                                         \
    OM_INT_DECODERS(name, T)

OM_INT_CODEC(uint8, uint8_t)
OM_INT_CODEC(uint16, uint16_t)
OM_INT_CODEC(uint32, uint32_t)
OM_INT_CODEC(int32, int32_t)
OM_INT_CODEC(long, int32_t)
OM_INT_CODEC(boolean, int32_t)
OM_INT_DECODERS(int8, int8_t)

// A signed byte travels exactly as the unsigned one.
OMSDK_API uint32_t om_pack_int8(uint8_t *dst, int8_t value) {
    return om_pack_uint8(dst, static_cast<uint8_t>(value));
}

OMSDK_API uint32_t om_pack_corvane_id(uint8_t *dst, const uint8_t *id) {
    memcpy(dst, id, CV_CORVANE_ID_SIZE);
    return CV_CORVANE_ID_SIZE;
}

OMSDK_API void om_unpack_corvane_id(const uint8_t *src, uint8_t *dst, uint32_t *consumed,
                                    int32_t *remaining, int32_t *status) {
    run_decoder(src, consumed, remaining, status,
                [dst](reader &r) { return omsdk::codec::read_id(r, dst); });
}

OMSDK_API uint8_t *om_unpack_corvane_id_ptr(const uint8_t *src, uint32_t *consumed,
                                            int32_t *remaining, int32_t *status) {
    return run_ptr_decoder<uint8_t>(src, consumed, remaining, status, CV_CORVANE_ID_SIZE,
                                    CV_CORVANE_ID_SIZE, [](reader &r, uint8_t *v) {
                                        return omsdk::codec::read_id(r, v);
                                    });
}

OMSDK_API uint8_t *om_clone_corvane_id(const uint8_t *id, int32_t *status) {
    if (id == nullptr) {
        if (status != nullptr) *status = kOk;
        return nullptr;
    }
    return static_cast<uint8_t *>(
        omsdk::codec::copy_block(id, CV_CORVANE_ID_SIZE, CV_CORVANE_ID_SIZE, status));
}

OMSDK_API uint32_t om_pack_string(uint8_t *dst, const char *text) {
    if (text == nullptr) return 0;
    size_t len = strlen(text);
    uint32_t n = omsdk::codec::put_be<int32_t>(dst, static_cast<int32_t>(len));
    memcpy(dst + n, text, len);
    return n + static_cast<uint32_t>(len);
}

OMSDK_API uint32_t om_pack_string_tlv(uint8_t *dst, const char *text) {
    if (text == nullptr) return 0;
    size_t len = strlen(text);
    memcpy(dst, text, len);
    return static_cast<uint32_t>(len);
}

OMSDK_API void om_unpack_string(const uint8_t *src, char **dst, uint32_t *consumed,
                                int32_t *remaining, int32_t *status) {
    char *text = nullptr;
    run_decoder(src, consumed, remaining, status,
                [&text](reader &r) { return omsdk::codec::read_string(r, &text); });
    if (dst != nullptr)
        *dst = text;
    else
        free(text);
}

OMSDK_API char *om_unpack_string_ptr(const uint8_t *src, uint32_t *consumed, int32_t *remaining,
                                     int32_t *status) {
    char *text = nullptr;
    om_unpack_string(src, &text, consumed, remaining, status);
    return text;
}

OMSDK_API void om_unpack_string_tlv(const uint8_t *src, char **dst, uint32_t len,
                                    uint32_t *consumed, int32_t *remaining, int32_t *status) {
    char *text = nullptr;
    run_decoder(src, consumed, remaining, status,
                [&text, len](reader &r) { return omsdk::codec::read_text(r, len, &text); });
    if (dst != nullptr)
        *dst = text;
    else
        free(text);
}

OMSDK_API char *om_unpack_string_tlv_ptr(const uint8_t *src, uint32_t len, uint32_t *consumed,
                                         int32_t *remaining, int32_t *status) {
    char *text = nullptr;
    om_unpack_string_tlv(src, &text, len, consumed, remaining, status);
    return text;
}

OMSDK_API char *om_clone_string(const char *text, int32_t *status) {
    char *copy = nullptr;
    bool ok = omsdk::codec::dup_text(text, &copy);
    if (status != nullptr) *status = ok ? kOk : kNoMemory;
    return copy;
}

OMSDK_API uint32_t om_pack_void(uint8_t *dst, const void *ptr, uint32_t len) {
    uint32_t n = omsdk::codec::put_be<uint32_t>(dst, len);
    if (ptr != nullptr)
        memcpy(dst + n, ptr, len);
    else
        memset(dst + n, 0, len);
    return n + len;
}

OMSDK_API uint32_t om_pack_void_tlv(uint8_t *dst, const void *ptr, uint32_t len) {
    if (ptr != nullptr && len != 0) memcpy(dst, ptr, len);
    return len;
}

OMSDK_API void om_unpack_void(const uint8_t *src, void **dst, uint32_t *len_out,
                              uint32_t *consumed, int32_t *remaining, int32_t *status) {
    void *blob = nullptr;
    uint32_t len = 0;
    run_decoder(src, consumed, remaining, status,
                [&](reader &r) { return omsdk::codec::read_blob(r, &blob, &len); });
    if (len_out != nullptr) *len_out = len;
    if (dst != nullptr)
        *dst = blob;
    else
        free(blob);
}

OMSDK_API void *om_unpack_void_ptr(const uint8_t *src, uint32_t *len_out, uint32_t *consumed,
                                   int32_t *remaining, int32_t *status) {
    void *blob = nullptr;
    om_unpack_void(src, &blob, len_out, consumed, remaining, status);
    return blob;
}

OMSDK_API void om_unpack_void_tlv(const uint8_t *src, void **dst, uint32_t len,
                                  uint32_t *consumed, int32_t *remaining, int32_t *status) {
    void *blob = nullptr;
    run_decoder(src, consumed, remaining, status,
                [&](reader &r) { return omsdk::codec::read_bytes(r, len, &blob); });
    if (dst != nullptr)
        *dst = blob;
    else
        free(blob);
}

OMSDK_API void *om_unpack_void_tlv_ptr(const uint8_t *src, uint32_t len, uint32_t *consumed,
                                       int32_t *remaining, int32_t *status) {
    void *blob = nullptr;
    om_unpack_void_tlv(src, &blob, len, consumed, remaining, status);
    return blob;
}

OMSDK_API void *om_clone_void(const void *ptr, uint32_t len, int32_t *status) {
    if (ptr == nullptr) {
        if (status != nullptr) *status = kOk;
        return nullptr;
    }
    return omsdk::codec::copy_block(ptr, len, 0, status);
}

OMSDK_API uint32_t om_pack_delta_vector(uint8_t *dst, const int32_t *vec) {
    uint32_t n = 0;
    for (size_t i = 0; i < CV_VECTOR_LEN; ++i) n += omsdk::codec::put_be(dst + n, vec[i]);
    return n;
}

OMSDK_API void om_unpack_delta_vector(const uint8_t *src, int32_t *dst, uint32_t *consumed,
                                      int32_t *remaining, int32_t *status) {
    run_decoder(src, consumed, remaining, status,
                [dst](reader &r) { return omsdk::codec::read_delta_vector(r, dst); });
}

OMSDK_API int32_t *om_unpack_delta_vector_ptr(const uint8_t *src, uint32_t *consumed,
                                              int32_t *remaining, int32_t *status) {
    return run_ptr_decoder<int32_t>(src, consumed, remaining, status, sizeof(cv_delta_vector),
                                    sizeof(cv_delta_vector), [](reader &r, int32_t *v) {
                                        return omsdk::codec::read_delta_vector(r, v);
                                    });
}

OMSDK_API int32_t *om_clone_delta_vector(const int32_t *vec, int32_t *status) {
    if (vec == nullptr) {
        if (status != nullptr) *status = kOk;
        return nullptr;
    }
    return static_cast<int32_t *>(omsdk::codec::copy_block(vec, sizeof(cv_delta_vector),
                                                           sizeof(cv_delta_vector), status));
}

OMSDK_API uint32_t om_pack_usage_vector(uint8_t *dst, const uint16_t *vec) {
    uint32_t n = 0;
    for (size_t i = 0; i < CV_VECTOR_LEN; ++i) n += omsdk::codec::put_be(dst + n, vec[i]);
    return n;
}

OMSDK_API void om_unpack_usage_vector(const uint8_t *src, uint16_t *dst, uint32_t *consumed,
                                      int32_t *remaining, int32_t *status) {
    run_decoder(src, consumed, remaining, status,
                [dst](reader &r) { return omsdk::codec::read_usage_vector(r, dst); });
}

OMSDK_API uint16_t *om_unpack_usage_vector_ptr(const uint8_t *src, uint32_t *consumed,
                                               int32_t *remaining, int32_t *status) {
    // A decoded usage vector gets a block of twice its size (room for 22
    // values), which is what receivers of this value expect.
    return run_ptr_decoder<uint16_t>(src, consumed, remaining, status,
                                     2 * sizeof(cv_usage_vector), sizeof(cv_usage_vector),
                                     [](reader &r, uint16_t *v) {
                                         return omsdk::codec::read_usage_vector(r, v);
                                     });
}

OMSDK_API uint16_t *om_clone_usage_vector(const uint16_t *vec, int32_t *status) {
    if (vec == nullptr) {
        if (status != nullptr) *status = kOk;
        return nullptr;
    }
    return static_cast<uint16_t *>(omsdk::codec::copy_block(vec, sizeof(cv_usage_vector),
                                                            sizeof(cv_usage_vector), status));
}

OMSDK_API void om_free_ptr(void *ptr) {
    if (ptr != nullptr) free(ptr);
}
