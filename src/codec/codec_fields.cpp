// SPDX-License-Identifier: Apache-2.0
// Field codecs: the readers of texts and blobs, and the exported codecs of
// texts and blobs.
#include <stdlib.h>
#include <string.h>

#include <omsdk/codec.h>

#include "codec/codec_impl.h"
#include "common/api.h"

namespace omsdk {
namespace codec {

namespace {

// Length prefix of a text or blob: negative or beyond the bytes that
// follow is malformed; the reader is left untouched then.
int32_t read_length_prefix(reader &r, uint32_t *len) {
    reader probe = r;
    int32_t n = 0;
    if (read_int(probe, &n) != kOk || n < 0 || static_cast<uint32_t>(n) > probe.left) return kShort;
    r = probe;
    *len = static_cast<uint32_t>(n);
    return kOk;
}

}  // namespace

int32_t read_text(reader &r, uint32_t len, char **out) {
    *out = nullptr;
    if (r.left < len) return kShort;
    char *text = static_cast<char *>(mem_alloc(r.mem, static_cast<size_t>(len) + 1, false));
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
    if (r.views) {
        *out = const_cast<uint8_t *>(r.take(len));
        return kOk;
    }
    void *blob = mem_alloc(r.mem, len, false);
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

void *copy_block(const void *src, uint32_t len, uint32_t alloc, int32_t *status, arena *mem) {
    set_status(status, kOk);
    size_t size = len > alloc ? len : alloc;
    if (size == 0) return nullptr;
    // Only the part that the source does not cover needs zeroing.
    void *copy = mem_alloc(mem, size, !(src != nullptr && len >= alloc));
    if (copy == nullptr) {
        set_status(status, kNoMemory);
        return nullptr;
    }
    if (src != nullptr && len != 0) memcpy(copy, src, len);
    return copy;
}

void *clone_record(const void *src, size_t size, bool (*copy)(void *, const void *, arena *),
                   int32_t *status, arena *mem) {
    set_status(status, kOk);
    if (src == nullptr) return nullptr;
    void *c = mem_alloc(mem, size, false);
    if (c != nullptr && copy(c, src, mem)) return c;
    mem_free(mem, c);
    set_status(status, kNoMemory);
    return nullptr;
}

void run_block_decoder(const uint8_t *src, uint32_t *consumed, int32_t *remaining, int32_t *status,
                       block_decoder decode, void *out) {
    run_decoder(src, consumed, remaining, status, [&](reader &r) { return decode(r, out); });
}

void *run_new_block_decoder(const uint8_t *src, uint32_t *consumed, int32_t *remaining,
                            int32_t *status, size_t alloc, uint32_t min_wire,
                            block_decoder decode) {
    return run_ptr_decoder<void>(src, consumed, remaining, status, alloc, min_wire, decode);
}

}  // namespace codec
}  // namespace omsdk

namespace oc = omsdk::codec;

// Texts and blobs: the length-prefixed forms and the bare ones whose length
// the TLV header gives.

OMSDK_API uint32_t om_pack_string(uint8_t *dst, const char *text) {
    return oc::pack_string(dst, text);
}

OMSDK_API uint32_t om_pack_string_tlv(uint8_t *dst, const char *text) {
    if (text == nullptr) return 0;
    size_t len = strlen(text);
    memcpy(dst, text, len);  // NOLINT(bugprone-not-null-terminated-result): wire text has none
    return static_cast<uint32_t>(len);
}

OMSDK_API uint32_t om_pack_void(uint8_t *dst, const void *ptr, uint32_t len) {
    return oc::pack_blob(dst, ptr, len);
}

OMSDK_API uint32_t om_pack_void_tlv(uint8_t *dst, const void *ptr, uint32_t len) {
    if (ptr != nullptr && len != 0) memcpy(dst, ptr, len);
    return len;
}

OMSDK_API char *om_unpack_string_ptr(const uint8_t *src, uint32_t *consumed, int32_t *remaining,
                                     int32_t *status) {
    return oc::take_decoded<char *>(src, consumed, remaining, status, oc::read_string);
}

OMSDK_API void om_unpack_string(const uint8_t *src, char **dst, uint32_t *consumed,
                                int32_t *remaining, int32_t *status) {
    oc::give(dst, om_unpack_string_ptr(src, consumed, remaining, status));
}

OMSDK_API void *om_unpack_void_ptr(const uint8_t *src, uint32_t *len_out, uint32_t *consumed,
                                   int32_t *remaining, int32_t *status) {
    uint32_t len = 0;
    void *blob = oc::take_decoded<void *>(
        src, consumed, remaining, status,
        [&len](oc::reader &r, void **out) { return oc::read_blob(r, out, &len); });
    if (len_out != nullptr) *len_out = len;
    return blob;
}

OMSDK_API void om_unpack_void(const uint8_t *src, void **dst, uint32_t *len_out, uint32_t *consumed,
                              int32_t *remaining, int32_t *status) {
    oc::give(dst, om_unpack_void_ptr(src, len_out, consumed, remaining, status));
}

// A bare text or blob: exactly `len` bytes, the TLV header having said so.
// The arguments are types, which cannot take parentheses.
// NOLINTBEGIN(bugprone-macro-parentheses)
#define OM_BARE_DECODERS(name, P, read)                                                           \
    OMSDK_API P om_unpack_##name##_ptr(const uint8_t *src, uint32_t len, uint32_t *consumed,      \
                                       int32_t *remaining, int32_t *status) {                     \
        return oc::take_decoded<P>(src, consumed, remaining, status,                              \
                                   [len](oc::reader &r, P *out) { return read(r, len, out); });   \
    }                                                                                             \
    OMSDK_API void om_unpack_##name(const uint8_t *src, P *dst, uint32_t len, uint32_t *consumed, \
                                    int32_t *remaining, int32_t *status) {                        \
        oc::give(dst, om_unpack_##name##_ptr(src, len, consumed, remaining, status));             \
    }
// NOLINTEND(bugprone-macro-parentheses)

OM_BARE_DECODERS(string_tlv, char *, oc::read_text)
OM_BARE_DECODERS(void_tlv, void *, oc::read_bytes)

#undef OM_BARE_DECODERS

OMSDK_API char *om_clone_string(const char *text, int32_t *status) {
    char *copy = nullptr;
    bool ok = oc::dup_text(text, &copy);
    oc::set_status(status, ok ? oc::kOk : oc::kNoMemory);
    return copy;
}

OMSDK_API void *om_clone_void(const void *ptr, uint32_t len, int32_t *status) {
    oc::set_status(status, oc::kOk);
    return ptr != nullptr ? oc::copy_block(ptr, len, 0, status) : nullptr;
}

OMSDK_API void om_free_ptr(void *ptr) { free(ptr); }
