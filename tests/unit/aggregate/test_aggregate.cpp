// Aggregate TLVs: finding by device, appending entries, entry builders.
#include <gtest/gtest.h>

#include <malloc.h>
#include <stdlib.h>

#include <omsdk/aggregate.h>
#include <omsdk/codec.h>
#include <omsdk/enums.h>

#include "wire_test_util.h"

using namespace wire_test;

namespace {

struct Devices {
    uint8_t blob[4] = {1, 2, 3, 4};
    cv_device_header a, b;
    Devices() {
        memset(&a, 0, sizeof a);
        memset(&b, 0, sizeof b);
        memset(a.id, 'a', 32);
        memset(b.id, 'a', 32);
        b.id[31] = 'b';  // differs in the last byte only
        a.blob = b.blob = blob;
        a.blob_len = b.blob_len = 4;
    }
};

const cv_aggr_block *block_of(const cv_tlv *t) {
    return static_cast<const cv_aggr_block *>(t->value);
}
const cv_aggr_entry *entry(const cv_tlv *t, uint32_t i) {
    return static_cast<const cv_aggr_entry *>(block_of(t)->entries[i]);
}

TEST(Aggregate, OneTlvPerDeviceAndType) {
    EventPtr ev(corvane_create_my_packet());
    Devices d;
    uint8_t level = 9;
    ASSERT_EQ(0, cv_add_aggr_type_tlv(ev.get(), CV_CORVANE_TLV_TYPE_LEVEL_CURRENT, &level, 1, &d.a,
                                      nullptr));
    ASSERT_EQ(0, cv_add_aggr_type_tlv(ev.get(), CV_CORVANE_TLV_TYPE_LEVEL_CURRENT, &level, 2, &d.b,
                                      nullptr));
    level = 10;
    ASSERT_EQ(0, cv_add_aggr_type_tlv(ev.get(), CV_CORVANE_TLV_TYPE_LEVEL_CURRENT, &level, 3, &d.a,
                                      nullptr));
    ASSERT_EQ(2, ev->pak->tlv_count);
    const cv_tlv *first = ev->tlvs[0], *second = ev->tlvs[1];
    EXPECT_EQ(0x8000000eu, first->type);
    EXPECT_EQ(0x8000000eu, second->type);
    EXPECT_EQ(60u, first->length);
    EXPECT_EQ(0, memcmp(d.a.id, block_of(first)->dh.id, 32));
    EXPECT_EQ(0, memcmp(d.b.id, block_of(second)->dh.id, 32));
    EXPECT_NE(static_cast<void *>(d.blob), block_of(first)->dh.blob);  // a copy
    EXPECT_EQ(0, memcmp(d.blob, block_of(first)->dh.blob, 4));
    ASSERT_EQ(2u, block_of(first)->count);
    ASSERT_EQ(1u, block_of(second)->count);
    EXPECT_EQ(1u, entry(first, 0)->id);
    EXPECT_EQ(3u, entry(first, 1)->id);
    EXPECT_EQ(10, *static_cast<uint8_t *>(entry(first, 1)->value));
    EXPECT_EQ(2u, entry(second, 0)->id);

    EXPECT_EQ(second, cv_get_next_tlv_by_dh(ev.get(), CV_CORVANE_TLV_TYPE_LEVEL_CURRENT, &d.b, 0));
    EXPECT_EQ(nullptr, cv_get_next_tlv_by_dh(ev.get(), CV_CORVANE_TLV_TYPE_USAGE, &d.a, 0));
    EXPECT_EQ(nullptr, cv_get_next_tlv_by_dh(ev.get(), CV_CORVANE_TLV_TYPE_USAGE, nullptr, 1));
    EXPECT_EQ(2, ev->pak->tlv_count);
}

TEST(Aggregate, EntryArrayGrowsInSixteens) {
    EventPtr ev(corvane_create_my_packet());
    Devices d;
    for (uint32_t i = 0; i < 17; ++i) {
        uint16_t usage = static_cast<uint16_t>(1000 + i);
        ASSERT_EQ(
            0, cv_add_aggr_type_tlv(ev.get(), CV_CORVANE_TLV_TYPE_USAGE, &usage, i, &d.a, nullptr));
        const cv_aggr_block *b = block_of(ev->tlvs[0]);
        size_t room = i < 16 ? 16 : 32;
        EXPECT_GE(malloc_usable_size(b->entries), room * sizeof(void *)) << i + 1 << " entries";
    }
    ASSERT_EQ(1, ev->pak->tlv_count);
    ASSERT_EQ(17u, block_of(ev->tlvs[0])->count);
    for (uint32_t i = 0; i < 17; ++i) {
        EXPECT_EQ(i, entry(ev->tlvs[0], i)->id);
        EXPECT_EQ(1000 + i, *static_cast<uint16_t *>(entry(ev->tlvs[0], i)->value));
    }
}

TEST(Aggregate, UnsupportedTypeLeavesAnEmptyAggregate) {
    EventPtr ev(corvane_create_my_packet());
    Devices d;
    uint8_t v = 5;
    EXPECT_EQ(1, cv_add_aggr_type_tlv(ev.get(), CV_CORVANE_TLV_TYPE_LEVEL_PROVISIONED, &v, 1, &d.a,
                                      nullptr));
    ASSERT_EQ(1, ev->pak->tlv_count);
    EXPECT_EQ(0x8000000fu, ev->tlvs[0]->type);
    EXPECT_EQ(0u, block_of(ev->tlvs[0])->count);
    // A combo type without its common header fails the same way.
    EXPECT_EQ(
        1, cv_add_aggr_type_tlv(ev.get(), CV_CORVANE_TLV_TYPE_USAGE_REPORT, &v, 1, &d.a, nullptr));
    EXPECT_EQ(0u, block_of(ev->tlvs[1])->count);
}

TEST(Aggregate, NoTlvToBeHad) {
    EventPtr ev(corvane_create_my_packet());
    uint8_t v = 5;
    EXPECT_EQ(0, cv_aggr_ack(ev.get(), 1, nullptr));  // its entry is not leaked
    EXPECT_EQ(0, cv_add_aggr_type_tlv(ev.get(), CV_CORVANE_TLV_TYPE_LEVEL_CURRENT, &v, 1, nullptr,
                                      nullptr));
    ev->ready = 0;
    Devices d;
    EXPECT_EQ(0, cv_aggr_ack(ev.get(), 1, &d.a));
    EXPECT_EQ(0, ev->pak->tlv_count);
}

TEST(Aggregate, AcknowledgementEntries) {
    EventPtr ev(corvane_create_my_packet());
    Devices d;
    ASSERT_EQ(0, cv_aggr_ack(ev.get(), 0, &d.a));
    ASSERT_EQ(0, cv_aggr_ack(ev.get(), 7, &d.a));
    ASSERT_EQ(1, ev->pak->tlv_count);
    EXPECT_EQ(0x8000002au, ev->tlvs[0]->type);
    ASSERT_EQ(2u, block_of(ev->tlvs[0])->count);
    EXPECT_EQ(7u, entry(ev->tlvs[0], 1)->id);
    EXPECT_EQ(nullptr, entry(ev->tlvs[0], 1)->value);
}

TEST(AggregateEntries, PlainValuesByType) {
    const uint8_t bytes[44] = {0x11, 0x22, 0x33, 0x44, 0x55, 0x66, 0x77, 0x88, 0x99, 0xaa, 0xbb,
                               0xcc, 0xdd, 0xee, 0xff, 0x01, 0x02, 0x03, 0x04, 0x05, 0x06, 0x07,
                               0x08, 0x09, 0x0a, 0x0b, 0x0c, 0x0d, 0x0e, 0x0f, 0x10, 0x12, 0x13,
                               0x14, 0x15, 0x16, 0x17, 0x18, 0x19, 0x1a, 0x1b, 0x1c, 0x1d, 0x1e};
    struct Row {
        uint32_t type;
        uint32_t len;  // 0: not supported
    } rows[] = {{12, 1},  {14, 1},  {16, 1}, {17, 1}, {13, 2}, {38, 4}, {51, 4},
                {39, 22}, {36, 44}, {0, 0},  {1, 0},  {3, 0},  {11, 0}, {15, 0},
                {18, 0},  {23, 0},  {42, 0}, {43, 0}, {47, 0}};
    for (const Row &r : rows) {
        for (uint32_t flag : {0u, CV_TLV_AGGREGATE_FLAG}) {
            SCOPED_TRACE(testing::Message() << "type " << r.type << " flag " << flag);
            cv_aggr_entry e;
            memset(&e, 0, sizeof e);
            int32_t ok = cv_populate_aggr_tlv_data(&e, r.type | flag, bytes, 33);
            EXPECT_EQ(33u, e.id);
            EXPECT_EQ(r.len != 0 ? 1 : 0, ok);
            if (ok) {
                EXPECT_EQ(r.len, e.len);
                ASSERT_NE(nullptr, e.value);
                EXPECT_NE(static_cast<const void *>(bytes), e.value);
                EXPECT_EQ(0, memcmp(bytes, e.value, r.len));
            } else {
                EXPECT_EQ(nullptr, e.value);
            }
            free(e.value);
        }
    }
}

TEST(AggregateEntries, TextValuesCountTheTerminatorForKeywordsOnly) {
    struct Row {
        uint32_t type;
        uint32_t len;
    } rows[] = {{7, 5}, {9, 5}, {48, 5}, {10, 6}};
    for (const Row &r : rows) {
        cv_aggr_entry e;
        memset(&e, 0, sizeof e);
        ASSERT_EQ(1, cv_populate_aggr_tlv_data(&e, r.type, "a,b,c", 1)) << r.type;
        EXPECT_EQ(r.len, e.len) << r.type;
        EXPECT_STREQ("a,b,c", static_cast<char *>(e.value));
        free(e.value);
    }
}

TEST(AggregateEntries, ComboValuesCarryACopyOfTheCommonHeader) {
    char name[] = "n", role[] = "r", keywords[] = "k";
    const cv_usage_cmn_hdr hdr = {1, -2, name, role, -3, 4, 5, keywords};
    const uint8_t bytes[44] = {9, 8, 7, 6, 5, 4, 3, 2, 1};
    struct Row {
        uint32_t type;
        size_t len;
    } rows[] = {{43, 2}, {44, 22}, {45, 44}, {13, 0}, {39, 0}};
    for (const Row &r : rows) {
        SCOPED_TRACE(r.type);
        cv_combo_entry e;
        memset(&e, 0, sizeof e);
        int32_t ok = cv_populate_combo_tlv_data(&e, r.type, bytes, 4, &hdr);
        EXPECT_EQ(4u, e.id);
        ASSERT_EQ(r.len != 0 ? 1 : 0, ok);
        if (!ok) {
            EXPECT_EQ(nullptr, e.value);
            continue;  // the header copy is released (leak checkers)
        }
        EXPECT_EQ(0, memcmp(bytes, e.value, r.len));
        EXPECT_NE(name, e.hdr.name);
        EXPECT_STREQ("n", e.hdr.name);
        EXPECT_STREQ("r", e.hdr.role);
        EXPECT_STREQ("k", e.hdr.keywords);
        EXPECT_EQ(-2, e.hdr.caliber);
        EXPECT_EQ(-3, e.hdr.units);
        EXPECT_EQ(4, e.hdr.level);
        EXPECT_EQ(5, e.hdr.importance);
        om_free_usage_cmn_hdr(&e.hdr);
        free(e.value);
    }
    cv_combo_entry e;
    memset(&e, 0, sizeof e);
    EXPECT_EQ(0, cv_populate_combo_tlv_data(&e, 43, bytes, 4, nullptr));
}

}  // namespace
