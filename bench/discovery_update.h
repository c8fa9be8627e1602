// SPDX-License-Identifier: Apache-2.0
// The discovery update an attached endpoint sends, in its order, with short
// identity strings: domain, reply-to, nonce, (an alarm,) name, role,
// keywords, nanny vector, usage, units, caliber, usage vector, delta
// vector, level, importance, usage category, identifier. Shared by the
// codec benchmark and the fuzz seed corpus.
#ifndef OMSDK_BENCH_DISCOVERY_UPDATE_H
#define OMSDK_BENCH_DISCOVERY_UPDATE_H

#include <string.h>

#include <omsdk/enums.h>
#include <omsdk/event.h>

// A new event holding the update from `sender` (32 bytes); null when an
// event or a TLV cannot be had.
inline cv_event *make_discovery_update(const uint8_t *sender, bool with_alarm) {
    static const char domain[] = "lab-east", name[] = "ep-0042", role[] = "sensor",
                      keywords[] = "floor2,rack7";
    static const uint8_t reply_to[16] = {2, 0, 0x1f, 0x90, 127, 0, 0, 1};
    static const uint16_t usage_vector[CV_VECTOR_LEN] = {10, 20, 30, 40,  50, 60,
                                                         70, 80, 90, 100, 110};
    static const int32_t delta_vector[CV_VECTOR_LEN] = {-5, 4, -3, 2, -1, 0, 1, -2, 3, -4, 5};
    const uint32_t nonce = 0x2545f491, nanny = 0x41, caliber = 1, category = 1;
    const uint16_t usage = 1250;
    const uint8_t units = 0, level = 10, importance = 50;
    const cv_alarm alarm = {30, 2, 1, {0, 0}, 5, 1};
    cv_sender_id sid;
    memcpy(sid.id, sender, sizeof sid.id);
    sid.value = 1;
    const struct {
        uint32_t type, length;
        const void *value;
    } tlvs[] = {
        {CV_CORVANE_TLV_TYPE_DOMAIN, 12 + sizeof domain, domain},
        {CV_CORVANE_TLV_TYPE_REPLY_TO, 12 + sizeof reply_to, reply_to},
        {CV_CORVANE_TLV_TYPE_NONCE, 16, &nonce},
        {CV_CORVANE_TLV_TYPE_ALARM, 12 + sizeof alarm, &alarm},
        {CV_CORVANE_TLV_TYPE_NAME, 12 + sizeof name, name},
        {CV_CORVANE_TLV_TYPE_ROLE, 12 + sizeof role, role},
        {CV_CORVANE_TLV_TYPE_KEYWORDS, 12 + sizeof keywords, keywords},
        {CV_CORVANE_TLV_TYPE_NANNY_VECTOR, 16, &nanny},
        {CV_CORVANE_TLV_TYPE_USAGE, 14, &usage},
        {CV_CORVANE_TLV_TYPE_UNITS, 13, &units},
        {CV_CORVANE_TLV_TYPE_USAGE_CALIBER, 16, &caliber},
        {CV_CORVANE_TLV_TYPE_USAGE_VECTOR, 12 + sizeof usage_vector, usage_vector},
        {CV_CORVANE_TLV_TYPE_DELTA_VECTOR, 12 + sizeof delta_vector, delta_vector},
        {CV_CORVANE_TLV_TYPE_LEVEL_CURRENT, 13, &level},
        {CV_CORVANE_TLV_TYPE_IMPORTANCE, 13, &importance},
        {CV_CORVANE_TLV_TYPE_USAGE_CATEGORY, 16, &category},
        {CV_CORVANE_TLV_TYPE_OHMRZ_ID, 12 + sizeof sid, &sid},
    };
    cv_event *ev = corvane_create_my_packet();
    for (const auto &t : tlvs) {
        if (ev == nullptr) break;
        if (t.type == CV_CORVANE_TLV_TYPE_ALARM && !with_alarm) continue;
        if (cv_add_tlv(ev, t.type, t.length, t.value) != 0) {
            corvane_try_gc(ev);
            ev = nullptr;
        }
    }
    return ev;
}

#endif
