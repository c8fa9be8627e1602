// GET queries end to end: filter, acknowledgement, and the reply with one
// aggregate entry per attribute asked for, compared byte for byte.
#include "fixture.h"

namespace {

using namespace engine_test;

constexpr uint16_t kCollect = CV_ACTION_KVQR_CORVANE_QUERY_COLLECT;

const std::string kDevice =
    std::string(kIdHex) + "00000010" + kSelfHex;  // device header of every entry
// The TLVs every reply starts with: domain, name, role, importance, sender, reply-to.
const std::string kFixed =
    std::string("00000008 0000000f 00000000 646f6d 00000009 00000011 00000000 6c61622d37 "
                "00000007 00000012 00000000 73656e736f72 00000010 0000000d 00000000 32 "
                "00000001 00000030 00000000") +
    kIdHex + "00000001 00000017 0000001c 00000000" + kSelfHex;
// Entry count, entry id 1 and the usage common header: version 1, caliber,
// name, role, units, level, importance, keywords.
const std::string kOne = "00000001 00000001 ";
const std::string kCombo =
    kOne + "00000001 01020304 00000005 6c61622d37 00000006 73656e736f72 03 2a 32 00000003 612c62";

// Delivers a GET asking for `types`; returns what was sent.
std::vector<Sent> get(World &w, uint32_t seq, std::vector<Tlv> list) {
    w.deliver(from_switch(0, CV_CLASS_QUERY, kCollect, seq, list, kNonceKey));
    return w.take();
}
Bytes reply(uint32_t seq, uint16_t count, const std::string &aggregates) {
    return from_endpoint(seq, 1, 100, CV_CLASS_QUERY, kCollect, count, kFixed + aggregates);
}

TEST(Get, OneAggregateEntryPerAttribute) {
    // Per type asked: the aggregate TLV, the reply text logged, callbacks beyond the 3 of the
    // common header.
    const struct {
        uint32_t asked;
        std::string tlv;
        const char *logged;
        int calls;
    } rows[] = {
        {7, "80000007 00000052 00000000" + kDevice + kOne + "00000006 73656e736f72", "role", 0},
        {9, "80000009 00000051 00000000" + kDevice + kOne + "00000005 6c61622d37", "name", 0},
        {10, "8000000a 00000050 00000000" + kDevice + kOne + "00000004 612c6200", "keywords", 0},
        {12, "8000000c 00000049 00000000" + kDevice + kOne + "03", "units", 1},
        {13, "8000000d 0000004a 00000000" + kDevice + kOne + "1234", "usage", 1},
        {14, "8000000e 00000049 00000000" + kDevice + kOne + "2a", "level", 1},
        {16, "80000011 00000049 00000000" + kDevice + kOne + "32", "importance", 0},
        {17, "80000011 00000049 00000000" + kDevice + kOne + "32", "importance", 0},
        {36, "80000024 00000074 00000000" + kDevice + kOne + kDeltaVectorHex, "delta vector", 1},
        {38, "80000026 0000004c 00000000" + kDevice + kOne + "01020304", "caliber", 1},
        {39, "80000027 0000005e 00000000" + kDevice + kOne + kUsageVectorHex, "usage vector", 1},
        {43, "8000002b 0000006f 00000000" + kDevice + kCombo + "1234", "usage", 1},
        {44, "8000002c 00000083 00000000" + kDevice + kCombo + kUsageVectorHex, "usage vector", 1},
        {45, "8000002d 00000099 00000000" + kDevice + kCombo + kDeltaVectorHex, "delta vector", 1},
        {48, "80000030 00000051 00000000" + kDevice + kOne + "00000005 6d65746572", "device type",
         0},
        {51, "80000033 0000004c 00000000" + kDevice + kOne + "00000007", "category", 1},
    };
    World w;
    uint32_t seq = 100;
    for (const auto &row : rows) {
        SCOPED_TRACE(row.asked);
        dev().calls = 0;
        LogCapture cap(0);
        auto out = get(w, ++seq, {switch_reply_to(), identity(), ask(row.asked)});
        ASSERT_EQ(out.size(), 2u);
        EXPECT_EQ(static_cast<int8_t>(out[0].bytes.at(69)), -1);  // acknowledged WILL first
        const Bytes want = reply(seq, 7, row.tlv);
        EXPECT_EQ(out[1].bytes, want);
        EXPECT_FALSE(out[1].datagram);
        EXPECT_EQ(dev().calls, 3 + row.calls);
        EXPECT_TRUE(
            cap.has(1, "omr_createGetQueryResponseTlvs", std::string(row.logged) + " query reply"));
        const std::string n = std::to_string(want.size());
        EXPECT_TRUE(
            cap.has(2, "omr_processQueryMsg",
                    "Sent " + n + " bytes of packet with total size " + n + " to 127.0.0.2"));
    }
}

TEST(Get, NannyBitWithholdsMeteredValuesOnly) {
    World w;
    ASSERT_EQ(0, ohmara_svc_setNannyFunctionBit(w.s, 0, 1));
    ASSERT_EQ(w.s->nanny_bits & 0x20u, 0x20u);
    auto out = get(w, 11,
                   {switch_reply_to(), identity(), ask(12), ask(13), ask(36), ask(38), ask(39),
                    ask(14), ask(43)});
    ASSERT_EQ(out.size(), 2u);
    EXPECT_EQ(out[1].bytes, reply(11, 8,
                                  "8000000e 00000049 00000000" + kDevice + kOne +
                                      "2a 8000002b 0000006f 00000000" + kDevice + kCombo + "1234"));
}

TEST(Get, RepeatsAnswerTwiceUnknownTypesNotAtAll) {
    World w;  // level twice: two entries; domain, importance_e and an unknown type: none
    auto out =
        get(w, 12, {switch_reply_to(), identity(), ask(14), ask(8), ask(18), ask(60), ask(14)});
    ASSERT_EQ(out.size(), 2u);
    EXPECT_EQ(
        out[1].bytes,
        reply(12, 7, "8000000e 0000004e 00000000" + kDevice + "00000002 00000001 2a 00000001 2a"));
}

TEST(Get, QueriesThatAreNotAnsweredSendNothing) {
    const char *kNoReplyTo = "bad packet, does not contain replyto tlv", *kSkip = "skipping query ";
    struct Case {
        const char *what;
        uint8_t cls;
        std::vector<Tlv> list;
        const char *logged;
    } cases[] = {{"no reply-to", CV_CLASS_QUERY, {identity(), ask(14)}, kNoReplyTo},
                 {"reply-to without value", CV_CLASS_QUERY, {ask(23), identity()}, kNoReplyTo},
                 {"other name", CV_CLASS_QUERY, {switch_reply_to(), {9, txt("pump*"), 1}}, kSkip},
                 {"category 7, no selector", CV_CLASS_QUERY, {switch_reply_to(), ask(14)}, kSkip},
                 {"wrong class",
                  CV_CLASS_NOTIFY,
                  {switch_reply_to(), identity()},
                  "dropping message with class=12 action=11"}};
    for (const Case &c : cases) {
        SCOPED_TRACE(c.what);
        World w;
        EventPtr q = World::decoded(from_switch(0, c.cls, kCollect, 20, c.list, kNonceKey));
        LogCapture cap(0);
        omr_processQueryMsg(w.s, q.get());
        EXPECT_TRUE(cap.has(1, "omr_processQueryMsg", c.logged)) << cap.dump();
        EXPECT_TRUE(w.take().empty());
    }
}

}  // namespace
