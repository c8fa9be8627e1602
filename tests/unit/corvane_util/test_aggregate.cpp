// SPDX-License-Identifier: Apache-2.0
// Aggregate TLVs: finding by device, appending entries, entry builders.
#include <gtest/gtest.h>

#include <stdlib.h>

#include <string>
#include <tuple>

#include <omsdk/aggregate.h>
#include <omsdk/codec.h>
#include <omsdk/enums.h>

#include "wire_test_util.h"

using namespace wire_test;

namespace {

const cv_aggr_block *block_of(const cv_tlv *t) {
    return static_cast<const cv_aggr_block *>(t->value);
}
const cv_aggr_entry *entry(const cv_tlv *t, uint32_t i) {
    return static_cast<const cv_aggr_entry *>(block_of(t)->entries[i]);
}
int32_t add(const EventPtr &ev, uint32_t type, const void *v, uint32_t id, cv_device_header *dh) {
    return cv_add_aggr_type_tlv(ev.get(), type, v, id, dh, nullptr);
}

TEST(Aggregate, OneTlvPerDeviceAndType) {
    EventPtr ev(corvane_create_my_packet());
    uint8_t blob[4] = {1, 2, 3, 4};
    cv_device_header a = {{0}, 4, blob}, b = a;  // ids differ in the last byte only
    memset(a.id, 'a', 32);
    memset(b.id, 'a', 31);
    b.id[31] = 'b';
    const uint8_t nine = 9, ten = 10;
    ASSERT_EQ(0, add(ev, CV_CORVANE_TLV_TYPE_LEVEL_CURRENT, &nine, 1, &a));
    ASSERT_EQ(0, add(ev, CV_CORVANE_TLV_TYPE_LEVEL_CURRENT, &nine, 2, &b));
    ASSERT_EQ(0, add(ev, CV_CORVANE_TLV_TYPE_LEVEL_CURRENT, &ten, 3, &a));
    ASSERT_EQ(0, cv_aggr_ack(ev.get(), 0, &a));
    ASSERT_EQ(0, cv_aggr_ack(ev.get(), 7, &a));
    ASSERT_EQ(3, ev->pak->tlv_count);
    const cv_tlv *first = ev->tlvs[0], *second = ev->tlvs[1], *ack = ev->tlvs[2];
    EXPECT_EQ(std::make_tuple(first->type, second->type, ack->type, first->length),
              std::make_tuple(0x8000000eu, 0x8000000eu, 0x8000002au, 60u));
    EXPECT_EQ(0, memcmp(a.id, block_of(first)->dh.id, 32));
    EXPECT_EQ(0, memcmp(b.id, block_of(second)->dh.id, 32));
    EXPECT_NE(static_cast<void *>(blob), block_of(first)->dh.blob);  // a copy
    EXPECT_EQ(0, memcmp(blob, block_of(first)->dh.blob, 4));
    ASSERT_EQ(
        std::make_tuple(2u, 1u, 2u),
        std::make_tuple(block_of(first)->count, block_of(second)->count, block_of(ack)->count));
    EXPECT_EQ(std::make_tuple(1u, 3u, 2u, 7u),
              std::make_tuple(entry(first, 0)->id, entry(first, 1)->id, entry(second, 0)->id,
                              entry(ack, 1)->id));
    EXPECT_EQ(10, *static_cast<uint8_t *>(entry(first, 1)->value));
    EXPECT_EQ(nullptr, entry(ack, 1)->value);  // acknowledgements carry ids only
    EXPECT_EQ(second, cv_get_next_tlv_by_dh(ev.get(), CV_CORVANE_TLV_TYPE_LEVEL_CURRENT, &b, 0));
    EXPECT_EQ(nullptr, cv_get_next_tlv_by_dh(ev.get(), CV_CORVANE_TLV_TYPE_USAGE, &a, 0));
    EXPECT_EQ(nullptr, cv_get_next_tlv_by_dh(ev.get(), CV_CORVANE_TLV_TYPE_USAGE, nullptr, 1));
    // Past 16 entries the array grows (the sanitizer build checks the bound).
    for (uint32_t i = 0; i < 17; ++i) {
        const uint16_t usage = static_cast<uint16_t>(1000 + i);
        ASSERT_EQ(0, add(ev, CV_CORVANE_TLV_TYPE_USAGE, &usage, i, &a));
    }
    ASSERT_EQ(17u, block_of(ev->tlvs[3])->count);
    for (uint32_t i = 0; i < 17; ++i)
        EXPECT_EQ(1000 + i, *static_cast<uint16_t *>(entry(ev->tlvs[3], i)->value));
    // An unsupported type, or a combo type without its common header, fails
    // and leaves an empty aggregate.
    EXPECT_EQ(1, add(ev, CV_CORVANE_TLV_TYPE_LEVEL_PROVISIONED, &nine, 1, &a));
    EXPECT_EQ(1, add(ev, CV_CORVANE_TLV_TYPE_USAGE_REPORT, &nine, 1, &a));
    ASSERT_EQ(6, ev->pak->tlv_count);
    EXPECT_EQ(std::make_tuple(0x8000000fu, 0u, 0u),
              std::make_tuple(ev->tlvs[4]->type, block_of(ev->tlvs[4])->count,
                              block_of(ev->tlvs[5])->count));
    // Without a device, or on an event not ready, no TLV and no leak.
    EXPECT_EQ(0, cv_aggr_ack(ev.get(), 1, nullptr));
    EXPECT_EQ(0, add(ev, CV_CORVANE_TLV_TYPE_LEVEL_CURRENT, &nine, 1, nullptr));
    ev->ready = 0;
    EXPECT_EQ(0, cv_aggr_ack(ev.get(), 1, &a));
    EXPECT_EQ(6, ev->pak->tlv_count);
}

// {type, value, length kept (0: refused)}; keyword lists alone count their
// terminator; the aggregate flag makes no difference.
TEST(AggregateEntries, PlainValuesByType) {
    uint8_t bytes[44];
    for (int i = 0; i < 44; ++i) bytes[i] = static_cast<uint8_t>(0x11 * (i + 1));
    const char *text = "a,b,c";
    const struct {
        uint32_t type;
        const void *value;
        uint32_t len;
    } rows[] = {{12, bytes, 1}, {14, bytes, 1}, {16, bytes, 1},  {17, bytes, 1},  {13, bytes, 2},
                {38, bytes, 4}, {51, bytes, 4}, {39, bytes, 22}, {36, bytes, 44}, {7, text, 5},
                {9, text, 5},   {48, text, 5},  {10, text, 6},   {0, bytes, 0},   {1, bytes, 0},
                {3, bytes, 0},  {11, text, 0},  {15, bytes, 0},  {18, bytes, 0},  {23, bytes, 0},
                {42, bytes, 0}, {43, bytes, 0}, {47, bytes, 0},  {14, nullptr, 0}};
    for (const auto &r : rows) {
        for (uint32_t flag : {0u, CV_TLV_AGGREGATE_FLAG}) {
            SCOPED_TRACE(testing::Message() << "type " << r.type << " flag " << flag);
            cv_aggr_entry e = {0, 0, nullptr};
            const int32_t ok = cv_populate_aggr_tlv_data(&e, r.type | flag, r.value, 33);
            EXPECT_EQ(std::make_tuple(r.len != 0 ? 1 : 0, 33u, r.len, r.len != 0),
                      std::make_tuple(ok, e.id, e.len, e.value != nullptr));
            if (r.len != 0 && e.value != nullptr) {
                EXPECT_NE(r.value, e.value);
                EXPECT_EQ(0, memcmp(r.value, e.value, r.len));
            }
            free(e.value);
        }
    }
}

// Combo entries (43..45) carry a copy of the common header; other types and
// a missing header are refused, the header copy released.
TEST(AggregateEntries, ComboValuesCarryACopyOfTheCommonHeader) {
    char name[] = "n", role[] = "r", keywords[] = "k";
    const cv_usage_cmn_hdr hdr = {1, -2, name, role, -3, 4, 5, keywords};
    const uint8_t bytes[44] = {9, 8, 7, 6, 5, 4, 3, 2, 1};
    for (const auto &r : {std::make_pair(43u, 2u), {44u, 22u}, {45u, 44u}, {13u, 0u}}) {
        SCOPED_TRACE(r.first);
        cv_combo_entry e = {};
        ASSERT_EQ(r.second != 0 ? 1 : 0, cv_populate_combo_tlv_data(&e, r.first, bytes, 4, &hdr));
        EXPECT_EQ(std::make_tuple(4u, r.second != 0), std::make_tuple(e.id, e.value != nullptr));
        if (r.second == 0) continue;
        EXPECT_EQ(0, memcmp(bytes, e.value, r.second));
        EXPECT_NE(name, e.hdr.name);
        uint8_t a[64], b[64];  // the same header
        EXPECT_EQ(Bytes(a, a + om_pack_usage_cmn_hdr(a, &hdr)),
                  Bytes(b, b + om_pack_usage_cmn_hdr(b, &e.hdr)));
        om_free_usage_cmn_hdr(&e.hdr);
        free(e.value);
    }
    cv_combo_entry e = {};
    EXPECT_EQ(0, cv_populate_combo_tlv_data(&e, 43, bytes, 4, nullptr));
}

}  // namespace
