// Record codecs, each composed from the field codecs in wire order.
#include <stdlib.h>
#include <string.h>

#include <omsdk/codec.h>

#include "codec/codec_impl.h"
#include "common/api.h"

namespace omsdk {
namespace codec {

// Every reader below works on a copy of `r` and commits it only when the
// whole record decoded, so a failed record consumes nothing.

int32_t read_alarm(reader &r, cv_alarm *out) {
    reader t = r;
    cv_alarm a;
    memset(&a, 0, sizeof a);
    int32_t st = read_int(t, &a.seconds);
    if (st == kOk) st = read_int(t, &a.param2);
    if (st == kOk) st = read_int(t, &a.param1);
    if (st == kOk) st = read_int(t, &a.id);
    if (st == kOk) st = read_int(t, &a.operation);
    if (st != kOk) return st;
    *out = a;
    r = t;
    return kOk;
}

int32_t read_recurrence(reader &r, cv_recurrence *out) {
    reader t = r;
    cv_recurrence rec;
    memset(&rec, 0, sizeof rec);
    int32_t st = read_string(t, &rec.text);
    if (st == kOk) st = read_int(t, &rec.first);
    if (st == kOk) st = read_int(t, &rec.second);
    if (st == kOk) st = read_int(t, &rec.flag);
    if (st != kOk) {
        free(rec.text);
        return st;
    }
    *out = rec;
    r = t;
    return kOk;
}

int32_t read_neighbor(reader &r, cv_neighbor *out) {
    reader t = r;
    cv_neighbor nb;
    memset(&nb, 0, sizeof nb);  // the fields that do not travel stay zero
    int32_t st = read_id(t, nb.id);
    if (st == kOk) st = read_string(t, &nb.name);
    if (st == kOk) st = read_blob(t, &nb.blob, &nb.blob_len);
    if (st == kOk) st = read_int(t, &nb.flag);
    if (st != kOk) {
        free(nb.name);
        free(nb.blob);
        return st;
    }
    *out = nb;
    r = t;
    return kOk;
}

int32_t read_deviceheader(reader &r, cv_device_header *out) {
    reader t = r;
    cv_device_header dh;
    memset(&dh, 0, sizeof dh);
    int32_t st = read_id(t, dh.id);
    if (st == kOk) st = read_blob(t, &dh.blob, &dh.blob_len);
    if (st != kOk) return st;  // read_blob leaves nothing allocated on failure
    *out = dh;
    r = t;
    return kOk;
}

int32_t read_usage_cmn_hdr(reader &r, cv_usage_cmn_hdr *out) {
    reader t = r;
    cv_usage_cmn_hdr h;
    memset(&h, 0, sizeof h);
    int32_t st = read_int(t, &h.version);
    if (st == kOk) st = read_int(t, &h.caliber);
    if (st == kOk) st = read_string(t, &h.name);
    if (st == kOk) st = read_string(t, &h.role);
    if (st == kOk) st = read_int(t, &h.units);
    if (st == kOk) st = read_int(t, &h.level);
    if (st == kOk) st = read_int(t, &h.importance);
    if (st == kOk) st = read_string(t, &h.keywords);
    if (st != kOk) {
        free(h.name);
        free(h.role);
        free(h.keywords);
        return st;
    }
    *out = h;
    r = t;
    return kOk;
}

int32_t read_sender_id(reader &r, cv_sender_id *out) {
    reader t = r;
    cv_sender_id sid;
    int32_t st = read_id(t, sid.id);
    if (st == kOk) st = read_int(t, &sid.value);
    if (st != kOk) return st;
    *out = sid;
    r = t;
    return kOk;
}

int32_t read_event_id(reader &r, cv_event_id *out) {
    // Receivers have always taken the id from the number's own position,
    // so the id starts with the number's four bytes and the last four
    // bytes on the wire are not used; 36 bytes are consumed all the same.
    const uint8_t *at = r.take(4 + CV_CORVANE_ID_SIZE);
    if (at == nullptr) return kShort;
    out->number = get_be<uint32_t>(at);
    memcpy(out->id, at, CV_CORVANE_ID_SIZE);
    return kOk;
}

}  // namespace codec
}  // namespace omsdk

using omsdk::codec::clamp32;
using omsdk::codec::dup_text;
using omsdk::codec::kBadArgument;
using omsdk::codec::kNoMemory;
using omsdk::codec::kOk;
using omsdk::codec::reader;
using omsdk::codec::run_decoder;
using omsdk::codec::run_ptr_decoder;
using omsdk::codec::string_field_size;

namespace {

void set_status(int32_t *status, int32_t value) {
    if (status != nullptr) *status = value;
}

// Flat records (no owned pointers) clone with one copy.
template <typename T>
T *clone_flat(const T *src, int32_t *status) {
    set_status(status, kOk);
    if (src == nullptr) return nullptr;
    return static_cast<T *>(omsdk::codec::copy_block(src, sizeof(T), sizeof(T), status));
}

}  // namespace

/* alarm: uint32, uint8, uint8, int32, int32 (14 bytes) */

OMSDK_API uint32_t om_pack_alarm(uint8_t *dst, const cv_alarm *alarm) {
    if (alarm == nullptr) return 0;
    uint32_t n = om_pack_uint32(dst, alarm->seconds);
    n += om_pack_uint8(dst + n, alarm->param2);
    n += om_pack_uint8(dst + n, alarm->param1);
    n += om_pack_int32(dst + n, alarm->id);
    n += om_pack_int32(dst + n, alarm->operation);
    return n;
}

OMSDK_API void om_unpack_alarm(const uint8_t *src, cv_alarm *dst, uint32_t *consumed,
                               int32_t *remaining, int32_t *status) {
    run_decoder(src, consumed, remaining, status,
                [dst](reader &r) { return omsdk::codec::read_alarm(r, dst); });
}

OMSDK_API cv_alarm *om_unpack_alarm_ptr(const uint8_t *src, uint32_t *consumed,
                                        int32_t *remaining, int32_t *status) {
    return run_ptr_decoder<cv_alarm>(src, consumed, remaining, status, sizeof(cv_alarm), 14,
                                     [](reader &r, cv_alarm *v) {
                                         return omsdk::codec::read_alarm(r, v);
                                     });
}

OMSDK_API uint32_t om_get_alarm_size(const cv_alarm *alarm) { return alarm != nullptr ? 14 : 0; }

OMSDK_API cv_alarm *om_clone_alarm(const cv_alarm *alarm, int32_t *status) {
    return clone_flat(alarm, status);
}

/* recurrence: string, uint8, uint8, boolean */

OMSDK_API uint32_t om_pack_recurrence(uint8_t *dst, const cv_recurrence *rec) {
    if (rec == nullptr) return 0;
    uint32_t n = om_pack_string(dst, rec->text);
    n += om_pack_uint8(dst + n, rec->first);
    n += om_pack_uint8(dst + n, rec->second);
    n += om_pack_boolean(dst + n, rec->flag);
    return n;
}

OMSDK_API void om_unpack_recurrence(const uint8_t *src, cv_recurrence *dst, uint32_t *consumed,
                                    int32_t *remaining, int32_t *status) {
    run_decoder(src, consumed, remaining, status,
                [dst](reader &r) { return omsdk::codec::read_recurrence(r, dst); });
}

OMSDK_API cv_recurrence *om_unpack_recurrence_ptr(const uint8_t *src, uint32_t *consumed,
                                                  int32_t *remaining, int32_t *status) {
    return run_ptr_decoder<cv_recurrence>(src, consumed, remaining, status,
                                          sizeof(cv_recurrence), 10,
                                          [](reader &r, cv_recurrence *v) {
                                              return omsdk::codec::read_recurrence(r, v);
                                          });
}

OMSDK_API uint32_t om_get_recurrence_size(const cv_recurrence *rec) {
    if (rec == nullptr) return 0;
    return clamp32(string_field_size(rec->text) + 6);
}

OMSDK_API cv_recurrence *om_clone_recurrence(const cv_recurrence *rec, int32_t *status) {
    set_status(status, kOk);
    if (rec == nullptr) return nullptr;
    cv_recurrence *copy = static_cast<cv_recurrence *>(malloc(sizeof *copy));
    if (copy != nullptr) {
        *copy = *rec;
        if (dup_text(rec->text, &copy->text)) return copy;
        free(copy);
    }
    set_status(status, kNoMemory);
    return nullptr;
}

OMSDK_API void om_free_recurrence_ptr(cv_recurrence *rec) {
    if (rec == nullptr) return;
    free(rec->text);
    free(rec);
}

/* neighbor: corvane id, string, void, boolean */

OMSDK_API uint32_t om_pack_neighbor(uint8_t *dst, const cv_neighbor *nb) {
    if (nb == nullptr) return 0;
    uint32_t n = om_pack_corvane_id(dst, nb->id);
    n += om_pack_string(dst + n, nb->name);
    n += om_pack_void(dst + n, nb->blob, nb->blob_len);
    n += om_pack_boolean(dst + n, nb->flag);
    return n;
}

OMSDK_API void om_unpack_neighbor(const uint8_t *src, cv_neighbor *dst, uint32_t *consumed,
                                  int32_t *remaining, int32_t *status) {
    run_decoder(src, consumed, remaining, status,
                [dst](reader &r) { return omsdk::codec::read_neighbor(r, dst); });
}

OMSDK_API cv_neighbor *om_unpack_neighbor_ptr(const uint8_t *src, uint32_t *consumed,
                                              int32_t *remaining, int32_t *status) {
    return run_ptr_decoder<cv_neighbor>(src, consumed, remaining, status, sizeof(cv_neighbor),
                                        44, [](reader &r, cv_neighbor *v) {
                                            return omsdk::codec::read_neighbor(r, v);
                                        });
}

OMSDK_API uint32_t om_get_neighbor_size(const cv_neighbor *nb) {
    if (nb == nullptr) return 0;
    return clamp32(CV_CORVANE_ID_SIZE + string_field_size(nb->name) + 4u +
                   static_cast<uint64_t>(nb->blob_len) + 4u);
}

OMSDK_API cv_neighbor *om_clone_neighbor(const cv_neighbor *nb, int32_t *status) {
    set_status(status, kOk);
    if (nb == nullptr) return nullptr;
    cv_neighbor *copy = static_cast<cv_neighbor *>(malloc(sizeof *copy));
    if (copy == nullptr) {
        set_status(status, kNoMemory);
        return nullptr;
    }
    *copy = *nb;
    copy->blob = nullptr;
    int32_t st = kOk;
    if (!dup_text(nb->name, &copy->name)) st = kNoMemory;
    if (st == kOk && nb->blob != nullptr)
        copy->blob = omsdk::codec::copy_block(nb->blob, nb->blob_len, 0, &st);
    if (st != kOk) {
        om_free_neighbor_ptr(copy);
        set_status(status, st);
        return nullptr;
    }
    return copy;
}

OMSDK_API void om_free_neighbor_ptr(cv_neighbor *nb) {
    if (nb == nullptr) return;
    free(nb->name);
    free(nb->blob);
    free(nb);
}

/* device header: corvane id, void */

OMSDK_API uint32_t om_pack_deviceheader(uint8_t *dst, const cv_device_header *dh) {
    if (dh == nullptr) return 0;
    uint32_t n = om_pack_corvane_id(dst, dh->id);
    n += om_pack_void(dst + n, dh->blob, dh->blob_len);
    return n;
}

OMSDK_API void om_unpack_deviceheader(const uint8_t *src, cv_device_header *dst,
                                      uint32_t *consumed, int32_t *remaining, int32_t *status) {
    run_decoder(src, consumed, remaining, status,
                [dst](reader &r) { return omsdk::codec::read_deviceheader(r, dst); });
}

OMSDK_API cv_device_header *om_unpack_deviceheader_ptr(const uint8_t *src, uint32_t *consumed,
                                                       int32_t *remaining, int32_t *status) {
    return run_ptr_decoder<cv_device_header>(src, consumed, remaining, status,
                                             sizeof(cv_device_header), 36,
                                             [](reader &r, cv_device_header *v) {
                                                 return omsdk::codec::read_deviceheader(r, v);
                                             });
}

OMSDK_API uint32_t om_get_deviceheader_size(const cv_device_header *dh) {
    if (dh == nullptr) return 0;
    return clamp32(CV_CORVANE_ID_SIZE + 4u + static_cast<uint64_t>(dh->blob_len));
}

OMSDK_API void om_clone_deviceheader(cv_device_header *dst, const cv_device_header *src,
                                     int32_t *status) {
    if (dst == nullptr || src == nullptr) {
        set_status(status, kBadArgument);
        return;
    }
    int32_t st = kOk;
    memcpy(dst->id, src->id, CV_CORVANE_ID_SIZE);
    dst->blob = src->blob != nullptr
                    ? omsdk::codec::copy_block(src->blob, src->blob_len, 0, &st)
                    : nullptr;
    dst->blob_len = st == kOk ? src->blob_len : 0;
    set_status(status, st);
}

OMSDK_API void om_free_deviceheader(cv_device_header *dh) {
    if (dh == nullptr) return;
    free(dh->blob);
    dh->blob = nullptr;
}

/* usage common header: uint32, int32, string, string, int8, uint8, uint8,
 * string */

OMSDK_API uint32_t om_pack_usage_cmn_hdr(uint8_t *dst, const cv_usage_cmn_hdr *hdr) {
    if (hdr == nullptr) return 0;
    uint32_t n = om_pack_uint32(dst, hdr->version);
    n += om_pack_int32(dst + n, hdr->caliber);
    n += om_pack_string(dst + n, hdr->name);
    n += om_pack_string(dst + n, hdr->role);
    n += om_pack_int8(dst + n, hdr->units);
    n += om_pack_uint8(dst + n, hdr->level);
    n += om_pack_uint8(dst + n, hdr->importance);
    n += om_pack_string(dst + n, hdr->keywords);
    return n;
}

OMSDK_API void om_unpack_usage_cmn_hdr(const uint8_t *src, cv_usage_cmn_hdr *dst,
                                       uint32_t *consumed, int32_t *remaining, int32_t *status) {
    run_decoder(src, consumed, remaining, status,
                [dst](reader &r) { return omsdk::codec::read_usage_cmn_hdr(r, dst); });
}

OMSDK_API cv_usage_cmn_hdr *om_unpack_usage_cmn_hdr_ptr(const uint8_t *src, uint32_t *consumed,
                                                        int32_t *remaining, int32_t *status) {
    return run_ptr_decoder<cv_usage_cmn_hdr>(src, consumed, remaining, status,
                                             sizeof(cv_usage_cmn_hdr), 23,
                                             [](reader &r, cv_usage_cmn_hdr *v) {
                                                 return omsdk::codec::read_usage_cmn_hdr(r, v);
                                             });
}

OMSDK_API uint32_t om_get_usage_cmn_hdr_size(const cv_usage_cmn_hdr *hdr) {
    if (hdr == nullptr) return 0;
    return clamp32(11u + string_field_size(hdr->name) + string_field_size(hdr->role) +
                   string_field_size(hdr->keywords));
}

OMSDK_API void om_clone_usage_cmn_hdr(cv_usage_cmn_hdr *dst, const cv_usage_cmn_hdr *src,
                                      int32_t *status) {
    if (dst == nullptr || src == nullptr) {
        set_status(status, kBadArgument);
        return;
    }
    cv_usage_cmn_hdr h = *src;
    h.name = h.role = h.keywords = nullptr;
    if (!dup_text(src->name, &h.name) || !dup_text(src->role, &h.role) ||
        !dup_text(src->keywords, &h.keywords)) {
        om_free_usage_cmn_hdr(&h);
        set_status(status, kNoMemory);
        return;
    }
    *dst = h;
    set_status(status, kOk);
}

OMSDK_API void om_free_usage_cmn_hdr(cv_usage_cmn_hdr *hdr) {
    if (hdr == nullptr) return;
    free(hdr->name);
    free(hdr->role);
    free(hdr->keywords);
    hdr->name = hdr->role = hdr->keywords = nullptr;
}

/* sender id: corvane id, uint32 */

OMSDK_API uint32_t om_pack_sender_id(uint8_t *dst, const cv_sender_id *sid) {
    if (sid == nullptr) return 0;
    uint32_t n = om_pack_corvane_id(dst, sid->id);
    return n + om_pack_uint32(dst + n, sid->value);
}

OMSDK_API void om_unpack_sender_id(const uint8_t *src, cv_sender_id *dst, uint32_t *consumed,
                                   int32_t *remaining, int32_t *status) {
    run_decoder(src, consumed, remaining, status,
                [dst](reader &r) { return omsdk::codec::read_sender_id(r, dst); });
}

OMSDK_API cv_sender_id *om_unpack_sender_id_ptr(const uint8_t *src, uint32_t *consumed,
                                                int32_t *remaining, int32_t *status) {
    return run_ptr_decoder<cv_sender_id>(src, consumed, remaining, status, sizeof(cv_sender_id),
                                         36, [](reader &r, cv_sender_id *v) {
                                             return omsdk::codec::read_sender_id(r, v);
                                         });
}

OMSDK_API uint32_t om_get_sender_id_size(const cv_sender_id *sid) {
    return sid != nullptr ? 36 : 0;
}

OMSDK_API cv_sender_id *om_clone_sender_id(const cv_sender_id *sid, int32_t *status) {
    return clone_flat(sid, status);
}

/* event id: uint32, corvane id */

OMSDK_API uint32_t om_pack_event_id(uint8_t *dst, const cv_event_id *eid) {
    if (eid == nullptr) return 0;
    uint32_t n = om_pack_uint32(dst, eid->number);
    return n + om_pack_corvane_id(dst + n, eid->id);
}

OMSDK_API void om_unpack_event_id(const uint8_t *src, cv_event_id *dst, uint32_t *consumed,
                                  int32_t *remaining, int32_t *status) {
    run_decoder(src, consumed, remaining, status,
                [dst](reader &r) { return omsdk::codec::read_event_id(r, dst); });
}

OMSDK_API cv_event_id *om_unpack_event_id_ptr(const uint8_t *src, uint32_t *consumed,
                                              int32_t *remaining, int32_t *status) {
    return run_ptr_decoder<cv_event_id>(src, consumed, remaining, status, sizeof(cv_event_id), 36,
                                        [](reader &r, cv_event_id *v) {
                                            return omsdk::codec::read_event_id(r, v);
                                        });
}

OMSDK_API uint32_t om_get_event_id_size(const cv_event_id *eid) {
    return eid != nullptr ? 36 : 0;
}

OMSDK_API cv_event_id *om_clone_event_id(const cv_event_id *eid, int32_t *status) {
    return clone_flat(eid, status);
}
