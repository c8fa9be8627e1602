// SPDX-License-Identifier: Apache-2.0
// The exported codecs of integers, ids, vectors and records: one-line
// instantiations of the flat and record templates (codec_impl.h, where each
// record is its list of fields).
#include <stdlib.h>
#include <string.h>

#include <omsdk/codec.h>

#include "codec/codec_impl.h"
#include "common/api.h"

namespace oc = omsdk::codec;

// Decoding into caller storage and into a new block, and cloning.
// The arguments are types, which cannot take parentheses.
// NOLINTBEGIN(bugprone-macro-parentheses)
#define OM_DECODERS(name, T, C)                                                     \
    OMSDK_API void om_unpack_##name(const uint8_t *src, T *dst, uint32_t *consumed, \
                                    int32_t *remaining, int32_t *status) {          \
        C::unpack(src, dst, consumed, remaining, status);                           \
    }                                                                               \
    OMSDK_API T *om_unpack_##name##_ptr(const uint8_t *src, uint32_t *consumed,     \
                                        int32_t *remaining, int32_t *status) {      \
        return C::unpack_ptr(src, consumed, remaining, status);                     \
    }
// NOLINTEND(bugprone-macro-parentheses)
#define OM_CLONE(name, T, C) \
    OMSDK_API T *om_clone_##name(const T *v, int32_t *status) { return C::clone(v, status); }

#define OM_SIZE(name, T, C) \
    OMSDK_API uint32_t om_get_##name##_size(const T *v) { return C::size(v); }
// Integers pack by value, ids, vectors and records by pointer.
#define OM_INT_CODEC(name, T)                                                                 \
    OMSDK_API uint32_t om_pack_##name(uint8_t *dst, T v) { return omsdk::put_be<T>(dst, v); } \
    OM_DECODERS(name, T, oc::flat<T>)                                                         \
    OM_CLONE(name, T, oc::flat<T>)
#define OM_CODEC(name, T, C)                                                                \
    OMSDK_API uint32_t om_pack_##name(uint8_t *dst, const T *v) { return C::pack(dst, v); } \
    OM_DECODERS(name, T, C)

OM_INT_CODEC(uint8, uint8_t)
OM_INT_CODEC(uint16, uint16_t)
OM_INT_CODEC(uint32, uint32_t)
OM_INT_CODEC(int32, int32_t)
OM_INT_CODEC(long, int32_t)
OM_INT_CODEC(boolean, int32_t)
OM_INT_CODEC(int8, int8_t)  // a signed byte travels exactly as the unsigned one

OM_CODEC(corvane_id, uint8_t, oc::id_codec)
OM_CODEC(delta_vector, int32_t, oc::delta_vector_codec)
OM_CODEC(usage_vector, uint16_t, oc::usage_vector_codec)
OM_CODEC(alarm, cv_alarm, oc::alarm_codec)
OM_CODEC(recurrence, cv_recurrence, oc::recurrence_codec)
OM_CODEC(neighbor, cv_neighbor, oc::neighbor_codec)
OM_CODEC(deviceheader, cv_device_header, oc::deviceheader_codec)
OM_CODEC(usage_cmn_hdr, cv_usage_cmn_hdr, oc::usage_cmn_hdr_codec)
OM_CODEC(sender_id, cv_sender_id, oc::sender_id_codec)
OM_CODEC(event_id, cv_event_id, oc::event_id_codec)

OM_CLONE(corvane_id, uint8_t, oc::id_codec)
OM_CLONE(delta_vector, int32_t, oc::delta_vector_codec)
OM_CLONE(usage_vector, uint16_t, oc::usage_vector_codec)
OM_CLONE(alarm, cv_alarm, oc::alarm_codec)
OM_CLONE(recurrence, cv_recurrence, oc::recurrence_codec)
OM_CLONE(neighbor, cv_neighbor, oc::neighbor_codec)
OM_CLONE(sender_id, cv_sender_id, oc::sender_id_codec)
OM_CLONE(event_id, cv_event_id, oc::event_id_codec)

OM_SIZE(alarm, cv_alarm, oc::alarm_codec)
OM_SIZE(recurrence, cv_recurrence, oc::recurrence_codec)
OM_SIZE(neighbor, cv_neighbor, oc::neighbor_codec)
OM_SIZE(deviceheader, cv_device_header, oc::deviceheader_codec)
OM_SIZE(usage_cmn_hdr, cv_usage_cmn_hdr, oc::usage_cmn_hdr_codec)
OM_SIZE(sender_id, cv_sender_id, oc::sender_id_codec)
OM_SIZE(event_id, cv_event_id, oc::event_id_codec)

#undef OM_CODEC
#undef OM_INT_CODEC
#undef OM_SIZE
#undef OM_CLONE
#undef OM_DECODERS

OMSDK_API void om_free_recurrence_ptr(cv_recurrence *rec) { oc::recurrence_codec::free_ptr(rec); }

OMSDK_API void om_free_neighbor_ptr(cv_neighbor *nb) { oc::neighbor_codec::free_ptr(nb); }

// The headers inside aggregates are copied into and freed from storage
// their owner holds.

OMSDK_API void om_clone_usage_cmn_hdr(cv_usage_cmn_hdr *dst, const cv_usage_cmn_hdr *src,
                                      int32_t *status) {
    if (dst == nullptr || src == nullptr)
        oc::set_status(status, oc::kBadArgument);
    else
        oc::set_status(status, oc::usage_cmn_hdr_codec::copy(dst, *src) ? oc::kOk : oc::kNoMemory);
}

OMSDK_API void om_free_usage_cmn_hdr(cv_usage_cmn_hdr *hdr) {
    if (hdr != nullptr) oc::usage_cmn_hdr_codec::release(*hdr);
}

// Unlike the other copies, a device header that runs out of memory is left
// with its id and no blob.
OMSDK_API void om_clone_deviceheader(cv_device_header *dst, const cv_device_header *src,
                                     int32_t *status) {
    if (dst == nullptr || src == nullptr) {
        oc::set_status(status, oc::kBadArgument);
        return;
    }
    int32_t st = oc::kOk;
    memcpy(dst->id, src->id, CV_CORVANE_ID_SIZE);
    dst->blob = src->blob != nullptr ? oc::copy_block(src->blob, src->blob_len, 0, &st) : nullptr;
    dst->blob_len = st == oc::kOk ? src->blob_len : 0;
    oc::set_status(status, st);
}

OMSDK_API void om_free_deviceheader(cv_device_header *dh) {
    if (dh != nullptr) oc::deviceheader_codec::release(*dh);
}
