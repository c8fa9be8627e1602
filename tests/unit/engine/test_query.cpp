// SPDX-License-Identifier: Apache-2.0
// Queries end to end: a GET's filter, acknowledgement and reply with one
// aggregate entry per attribute asked for, byte for byte; a SET's limits.
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
    const std::tuple<uint32_t, std::string, const char *, int> rows[] = {
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
    for (const auto &[asked, tlv, logged, calls] : rows) {
        SCOPED_TRACE(asked);
        dev().calls = 0;
        LogCapture cap(0);
        auto out = get(w, ++seq, {switch_reply_to(), identity(), ask(asked)});
        ASSERT_EQ(out.size(), 2u);
        EXPECT_EQ(static_cast<int8_t>(out[0].bytes.at(69)), -1);  // acknowledged WILL first
        const Bytes want = reply(seq, 7, tlv);
        EXPECT_EQ(out[1].bytes, want);
        EXPECT_FALSE(out[1].datagram);
        EXPECT_EQ(dev().calls, 3 + calls);
        EXPECT_TRUE(
            cap.has(1, "omr_createGetQueryResponseTlvs", logged + std::string(" query reply")));
        const std::string n = std::to_string(want.size());
        EXPECT_TRUE(
            cap.has(2, "omr_processQueryMsg",
                    "Sent " + n + " bytes of packet with total size " + n + " to 127.0.0.2"));
    }
}

TEST(Get, RepeatsTwiceUnknownTypesNeverMeteredValuesNotUnderTheNannyBit) {
    World w;  // level twice: two entries; domain, importance_e and an unknown type: none
    auto out =
        get(w, 12, {switch_reply_to(), identity(), ask(14), ask(8), ask(18), ask(60), ask(14)});
    ASSERT_EQ(out.size(), 2u);
    EXPECT_EQ(
        out[1].bytes,
        reply(12, 7, "8000000e 0000004e 00000000" + kDevice + "00000002 00000001 2a 00000001 2a"));
    ASSERT_EQ(0, ohmara_svc_setNannyFunctionBit(w.s, 0, 1));
    ASSERT_EQ(w.s->nanny_bits & 0x20u, 0x20u);
    out = get(w, 13,
              {switch_reply_to(), identity(), ask(12), ask(13), ask(36), ask(38), ask(39), ask(14),
               ask(43)});
    ASSERT_EQ(out.size(), 2u);
    EXPECT_EQ(out[1].bytes, reply(13, 8,
                                  "8000000e 00000049 00000000" + kDevice + kOne +
                                      "2a 8000002b 0000006f 00000000" + kDevice + kCombo + "1234"));
}

TEST(Get, QueriesThatAreNotAnsweredSendNothing) {
    const char *kNoReplyTo = "bad packet, does not contain replyto tlv", *kSkip = "skipping query ",
               *kClass = "dropping message with class=12 action=11";
    const std::tuple<const char *, uint8_t, std::vector<Tlv>, const char *> cases[] = {
        {"no reply-to", CV_CLASS_QUERY, {identity(), ask(14)}, kNoReplyTo},
        {"reply-to without value", CV_CLASS_QUERY, {ask(23), identity()}, kNoReplyTo},
        {"other name", CV_CLASS_QUERY, {switch_reply_to(), {9, text("pump*"), 1}}, kSkip},
        {"category 7, no selector", CV_CLASS_QUERY, {switch_reply_to(), ask(14)}, kSkip},
        {"wrong class", CV_CLASS_NOTIFY, {switch_reply_to(), identity()}, kClass}};
    for (const auto &[what, cls, list, logged] : cases) {
        SCOPED_TRACE(what);
        World w;
        EventPtr q = World::decoded(from_switch(0, cls, kCollect, 20, list, kNonceKey));
        LogCapture cap(0);
        omr_processQueryMsg(w.s, q.get());
        EXPECT_TRUE(cap.has(1, "omr_processQueryMsg", logged)) << cap.dump();
        EXPECT_TRUE(w.take().empty());
    }
}

Tlv str(uint32_t type, const char *t, uint32_t qualifier = 0) { return {type, text(t), qualifier}; }
Tlv u8(uint32_t type, uint8_t v) { return {type, {v}}; }

TEST(Set, EachAttributeWithinItsLimits) {
    // State as role|name|keywords|importance (null: unchanged); level 42, the device refuses >100.
    // A refusal logs a warning (3) and is answered WONT alone; else WILL, then an update.
    // level_set and modified: -1 and 0 for none.
    const std::tuple<std::vector<Tlv>, const char *, int, int, uint32_t, const char *> rows[] = {
        {{str(7, "pump room")}, "pump room|lab-7|a,b|50", -1, 2, 2, "changed role to pump room"},
        {{str(7, "valve")}, "valve|lab-7|a,b|50", -1, 2, 1, "set role valve request"},
        {{str(7, "bad*")}, nullptr, -1, 0, 3, "failed to set role"},
        {{ask(7)}, "Endpoint|lab-7|a,b|50", -1, 2, 2, "changed role to Endpoint"},
        {{str(9, "lab-9")}, "sensor|lab-9|a,b|50", -1, 4, 2, "changed name to lab-9"},
        {{str(9, "a b")}, nullptr, -1, 0, 3, "failed to set name"},
        {{ask(9)},
         "sensor|Endpoint@127.0.0.1|a,b|50",
         -1,
         4,
         1,
         "set name Endpoint@127.0.0.1 request"},
        {{str(10, "x,y")}, "sensor|lab-7|x,y|50", -1, 5, 1, "set keywords x,y request"},
        {{str(10, "x y")},
         nullptr,
         -1,
         0,
         3,
         "Failed to set KEYWORDS attribute to x y -- invalid or no characters defined."},
        {{ask(10)}, "sensor|lab-7||50", -1, 5, 2, "Clearing keywords by request."},
        {{u8(14, 77)}, nullptr, 77, 9, 2, "changed level from 42 to 77"},
        {{ask(14)}, nullptr, 10, 9, 1, "set level 10 request"},
        {{u8(14, 200)}, nullptr, 200, 0, 3, "failed to set level"},
        {{u8(16, 100)}, "sensor|lab-7|a,b|100", -1, 10, 2, "changed importance to 100"},
        {{u8(16, 0)}, nullptr, -1, 0, 3, "failed to set importance to 0"},
        {{u8(17, 101)}, nullptr, -1, 0, 3, "failed to set importance to 101"},
        {{ask(16)}, "sensor|lab-7|a,b|1", -1, 10, 1, "set importance 1 request"},
        {{u8(17, 9)}, "sensor|lab-7|a,b|9", -1, 10, 2, "changed importance to 9"},
        {{str(8, "other")}, nullptr, -1, 0, 1, "count 2, type 8, len 6, tag 0"},   // domain
        {{str(7, "zzz", 1)}, nullptr, -1, 0, 1, "count 2, type 7, len 4, tag 1"},  // skipped
        {{u8(16, 20), str(7, "bad*")}, "sensor|lab-7|a,b|20", -1, 10, 3, "failed to set role"},
    };
    for (const auto &[list, state, level_set, modified, log_level, logged] : rows) {
        SCOPED_TRACE(logged);
        World w;
        w.active();
        std::vector<Tlv> all = {switch_reply_to(), identity()};
        all.insert(all.end(), list.begin(), list.end());
        LogCapture cap(0);
        w.deliver(from_switch(0, CV_CLASS_QUERY, 10, 30, all, kNonceKey));
        const svc_session *s = w.s;
        EXPECT_EQ(std::string(s->role) + "|" + s->name + "|" + s->keywords + "|" +
                      std::to_string(s->importance),
                  state ? state : "sensor|lab-7|a,b|50");
        EXPECT_EQ(dev().levels_set, level_set < 0 ? Bytes() : Bytes{uint8_t(level_set)});
        EXPECT_EQ(dev().modified,
                  modified ? std::vector<int32_t>{modified} : std::vector<int32_t>{});
        EXPECT_TRUE(cap.has(log_level, "omr_doSetQuery", logged)) << cap.dump();
        const bool ok = log_level != 3;
        auto out = w.take();
        ASSERT_EQ(out.size(), ok ? 2u : 1u);
        EXPECT_EQ(static_cast<int8_t>(out[0].bytes.at(69)), ok ? -1 : -2);
        EXPECT_EQ(ok ? parse(out[1].bytes).at(4).value : Bytes(), ok ? text(s->role) : Bytes());
    }
}

}  // namespace
