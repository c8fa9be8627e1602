// Building events: TLV lists, look-ups, id comparison and freeing.
#include <gtest/gtest.h>

#include <stdlib.h>

#include <omsdk/enums.h>
#include <omsdk/pdu.h>

#include "log_capture.h"
#include "wire_test_util.h"

using namespace wire_test;

namespace {

TEST(Event, CreatedEmptyAndReady) {
    EventPtr ev(corvane_create_my_packet());
    ASSERT_TRUE(ev);
    EXPECT_EQ(1u, ev->ready);
    EXPECT_EQ(257u, ev->state);
    EXPECT_EQ(0u, ev->raw_present);
    EXPECT_EQ(nullptr, ev->raw);
    EXPECT_EQ(10, ev->pak->type);
    EXPECT_EQ(17, ev->pak->app);
    EXPECT_EQ(1, ev->pak->ver);
    EXPECT_EQ(0, ev->pak->tlv_count);
}

TEST(Event, SetCommonHeaderDropsAPreviousMessage) {
    EventPtr ev(corvane_create_my_packet());
    ASSERT_EQ(0, omr_createPdu(ev.get(), 1, 0, 14, 10, nullptr, 1, nullptr, 1));
    ASSERT_NE(nullptr, ev->raw);
    ev->pak->type = 0;
    ASSERT_EQ(0, cv_set_common_hdr(ev.get()));
    EXPECT_EQ(nullptr, ev->raw);
    EXPECT_EQ(0u, ev->raw_len);
    EXPECT_EQ(0u, ev->raw_present);
    EXPECT_EQ(10, ev->pak->type);
}

TEST(Event, ArrayGrowsBySixteen) {
    EventPtr ev(corvane_create_my_packet());
    const int32_t expected_capacity[] = {16, 16, 32};
    const int counts[] = {1, 16, 17};
    int added = 0;
    for (int step = 0; step < 3; ++step) {
        for (; added < counts[step]; ++added) {
            uint8_t v = static_cast<uint8_t>(added);
            ASSERT_EQ(0, cv_add_tlv(ev.get(), CV_CORVANE_TLV_TYPE_LEVEL_CURRENT, 13, &v));
        }
        EXPECT_EQ(expected_capacity[step], ev->tlv_capacity) << added << " TLVs";
    }
    ASSERT_EQ(17, ev->pak->tlv_count);
    for (int i = 0; i < 17; ++i) EXPECT_EQ(i, *static_cast<uint8_t *>(ev->tlvs[i]->value));
}

TEST(Event, ValuesAreDeepCopiedAndHeaderOnlyTlvHasNone) {
    EventPtr ev(corvane_create_my_packet());
    char text[] = "lab";
    ASSERT_EQ(0, cv_add_tlv(ev.get(), CV_CORVANE_TLV_TYPE_NAME, 16, text));
    text[0] = 'X';
    uint32_t nonce = 0xdeadbeef;
    ASSERT_EQ(0, cv_add_tlv(ev.get(), CV_CORVANE_TLV_TYPE_NONCE, 16, &nonce));
    ASSERT_EQ(0, cv_add_tlv(ev.get(), 42, 12, &nonce));
    ASSERT_EQ(3, ev->pak->tlv_count);
    EXPECT_STREQ("lab", static_cast<char *>(ev->tlvs[0]->value));
    EXPECT_NE(static_cast<void *>(&nonce), ev->tlvs[1]->value);
    EXPECT_EQ(0xdeadbeefu, *static_cast<uint32_t *>(ev->tlvs[1]->value));
    EXPECT_EQ(nullptr, ev->tlvs[2]->value);
    EXPECT_EQ(12u, ev->tlvs[2]->length);
    EXPECT_EQ(0u, ev->tlvs[0]->qualifier);
}

TEST(Event, RefusesImpossibleAdditions) {
    EventPtr ev(corvane_create_my_packet());
    uint8_t v = 1;
    EXPECT_NE(0, cv_add_tlv(nullptr, 14, 13, &v));
    EXPECT_NE(0, cv_add_tlv(ev.get(), 14, 11, &v));
    EXPECT_NE(0, cv_add_tlv(ev.get(), 14, 13, nullptr));
    EXPECT_EQ(0, ev->pak->tlv_count);
}

TEST(Event, LookupsByTypeQualifierAndIndex) {
    EventPtr ev(corvane_create_my_packet());
    uint8_t a = 1, b = 2, c = 3;
    ASSERT_EQ(0, cv_add_tlv(ev.get(), CV_CORVANE_TLV_TYPE_LEVEL_CURRENT, 13, &a));
    ASSERT_EQ(0, cv_add_tlv_common(ev.get(), CV_CORVANE_TLV_TYPE_IMPORTANCE, 13, &b, 1));
    ASSERT_EQ(0, cv_add_tlv(ev.get(), CV_CORVANE_TLV_TYPE_IMPORTANCE, 13, &c));
    ASSERT_EQ(0, cv_add_tlv_common(ev.get(), CV_CORVANE_TLV_TYPE_IMPORTANCE, 13, &a, 1));

    EXPECT_EQ(ev->tlvs[1], cv_get_next_tlv(ev.get(), CV_CORVANE_TLV_TYPE_IMPORTANCE));
    EXPECT_EQ(nullptr, cv_get_next_tlv(ev.get(), CV_CORVANE_TLV_TYPE_NAME));

    struct Case {
        int32_t start;
        uint32_t qualifier;
        int32_t found_at;
    };
    const Case cases[] = {{0, 0, 2}, {2, 0, 2},  {3, 0, -1}, {0, 1, 1},
                          {2, 1, 3}, {4, 0, -1}, {4, 1, -1}, {-1, 0, -1}};
    for (const Case &k : cases) {
        SCOPED_TRACE(testing::Message() << "start " << k.start << " qualifier " << k.qualifier);
        int32_t index = k.start;
        uint32_t len = 99;
        void *v = cv_get_next_tlv_value(ev.get(), &index, CV_CORVANE_TLV_TYPE_IMPORTANCE, &len,
                                        k.qualifier);
        EXPECT_EQ(k.found_at, index);
        if (k.found_at < 0) {
            EXPECT_EQ(nullptr, v);
        } else {
            EXPECT_EQ(ev->tlvs[k.found_at]->value, v);
            EXPECT_EQ(1u, len);
        }
        if (k.qualifier == 0) {
            int32_t again = k.start;
            EXPECT_EQ(v, cv_get_tlv_value(ev.get(), &again, CV_CORVANE_TLV_TYPE_IMPORTANCE, &len));
            EXPECT_EQ(k.found_at, again);
        }
    }
    ev->ready = 0;
    int32_t index = 0;
    EXPECT_EQ(nullptr, cv_get_tlv_value(ev.get(), &index, CV_CORVANE_TLV_TYPE_IMPORTANCE, nullptr));
    EXPECT_EQ(-1, index);
    EXPECT_EQ(nullptr, cv_get_next_tlv(ev.get(), CV_CORVANE_TLV_TYPE_IMPORTANCE));
}

TEST(Event, IdComparisonGivesTheFirstByteDifference) {
    uint8_t a[32], b[32];
    memset(a, 0x30, sizeof a);
    memset(b, 0x30, sizeof b);
    EXPECT_EQ(0, corvane_id_cmp(a, b));
    b[31] = 0x31;
    EXPECT_EQ(-1, corvane_id_cmp(a, b));
    a[5] = 0xff;
    b[5] = 0x00;
    EXPECT_EQ(255, corvane_id_cmp(a, b));
    EXPECT_EQ(-255, corvane_id_cmp(b, a));
}

TEST(Event, TotalSizeSumsEncodedTlvs) {
    EventPtr ev(corvane_create_my_packet());
    uint16_t usage = 5;
    ASSERT_EQ(0, cv_add_tlv(ev.get(), CV_CORVANE_TLV_TYPE_NAME, 16, "abc"));  // 12 + 3 on the wire
    ASSERT_EQ(0, cv_add_tlv(ev.get(), CV_CORVANE_TLV_TYPE_USAGE, 14, &usage));
    ASSERT_EQ(0, cv_add_tlv(ev.get(), 37, 12, nullptr));
    EXPECT_EQ(15u + 14u + 12u, om_get_total_tlvs_data_size(ev.get()));
    uint32_t bytes = 0;
    ASSERT_EQ(0, cv_pack_event(ev.get(), &bytes));
    EXPECT_EQ(41u, bytes);
    EXPECT_EQ(41, ev->pak->tlv_bytes);
    ASSERT_NE(nullptr, ev->sec);
}

TEST(EventFree, CleanupFreesOnlyReplies) {
    omsdk_test::LogCapture cap(0);
    cv_event *ev = corvane_create_my_packet();
    uint8_t v = 3;
    ASSERT_EQ(0, cv_add_tlv(ev, CV_CORVANE_TLV_TYPE_LEVEL_CURRENT, 13, &v));
    cv_cleanup_event(ev);  // state 257: left alone
    EXPECT_EQ(1, ev->pak->tlv_count);
    EXPECT_EQ(0u, cap.lines().size());

    ev->state = CV_EVENT_STATE_REPLY;
    ASSERT_EQ(0, omr_createPdu(ev, 1, 1, 10, 11, nullptr, 1, nullptr, 1));
    cap.clear();
    cv_cleanup_event(ev);  // leak checkers see everything freed
    char expected[64];
    snprintf(expected, sizeof expected, "Rply freed (%p)", static_cast<void *>(ev));
    EXPECT_TRUE(cap.has(OHMARA_LOG_TRACE, "corvane_free_rply", expected));
}

TEST(EventFree, GarbageCollectionFreesEverything) {
    omsdk_test::LogCapture cap(0);
    cv_event *ev = corvane_create_my_packet();
    ASSERT_EQ(0, cv_add_tlv(ev, CV_CORVANE_TLV_TYPE_NAME, 16, "abc"));
    ASSERT_EQ(0, omr_createPdu(ev, 1, 1, 10, 11, nullptr, 1, nullptr, 1));
    cap.clear();
    char raw[80], gc[80];
    snprintf(raw, sizeof raw, "free raw (T 95) %p", static_cast<void *>(ev->raw));
    snprintf(gc, sizeof gc, "\n[OHMRZ]:released event %p", static_cast<void *>(ev));
    corvane_try_gc(ev);
    EXPECT_TRUE(cap.has(OHMARA_LOG_TRACE, "cv_free_data", raw)) << cap.dump();
    EXPECT_TRUE(cap.has(OHMARA_LOG_TRACE, "corvane_try_gc", gc)) << cap.dump();
    corvane_try_gc(nullptr);
    omsdk::event_release(nullptr);
}

TEST(EventFree, FreeDataMarksAbsentBuffer) {
    omsdk_test::LogCapture cap(0);
    cv_event *ev = corvane_create_my_packet();
    cv_free_data(ev);
    EXPECT_TRUE(cap.has(OHMARA_LOG_TRACE, "cv_free_data", "free raw (F 0) (nil)")) << cap.dump();
    EXPECT_EQ(nullptr, ev->pak);
    EXPECT_EQ(0u, ev->ready);
    omsdk::event_release(ev);
}

}  // namespace
