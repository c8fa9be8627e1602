// Query handling on a session whose switch connection is a real loopback
// TCP pair: acknowledgements, GET replies and SET queries, read back from
// the switch's end and compared with messages written by hand.
#include "engine_harness.h"

namespace {

using namespace engine_test;

const Bytes kKey = {'d', 'o', 'm', 'a', 'i', 'n', '-', 'k', 'e', 'y'};
const Bytes kNonceKey = hex("10 11 12 13 14 15 16 17 18 19 1a 1b 1c 1d 1e 1f 20 21 22 23");
constexpr uint16_t kCollect = CV_ACTION_KVQR_CORVANE_QUERY_COLLECT;
constexpr uint16_t kSet = CV_ACTION_KVQR_CORVANE_QUERY_SET;

T switch_reply_to() { return reply_to("127.0.0.2", 0x2345); }

class QueryTest : public ::testing::Test {
protected:
    Endpoint ep{kKey};
    svc_session *s = ep.s;

    void SetUp() override {
        set_identity();
        ep.key_nonce(kNonceKey);  // as the handshake would have
        ep.connect_switch();
    }
    void set_identity() {
        ASSERT_EQ(0, ohmara_svc_configIdentity(s, "dom", "lab-7", "sensor", "a,b", "meter", 50));
    }
    // A signed query from the switch as the engine receives it.
    static EventPtr query(uint8_t cls, uint16_t action, uint32_t seq, const std::vector<T> &tlvs,
                          uint8_t pri = 100) {
        return decoded(message(CV_SHIPMENT_SEND, cls, action, seq, tlvs, kNonceKey, kSwitchId, pri),
                       kNonceKey);
    }
    Bytes device_header() const { return Builder().s(kId).h("00000010").raw(ep.reply_to()).b; }
    // The TLVs every GET reply starts with (6 of them).
    Bytes fixed_reply_tlvs() const {
        return Builder()
            .h("00000008 0000000f 00000000").s("dom")
            .h("00000009 00000011 00000000").s("lab-7")
            .h("00000007 00000012 00000000").s("sensor")
            .h("00000010 0000000d 00000000 32")
            .h("00000001 00000030 00000000").s(kId).h("00000001")
            .h("00000017 0000001c 00000000").raw(ep.reply_to())
            .b;
    }
    // The whole expected message around the TLV bytes, signed by OpenSSL.
    static Bytes want(uint32_t seq, int8_t shipment, uint8_t pri, uint8_t cls, uint16_t action,
                      uint8_t comm, uint16_t count, const Bytes &tlvs) {
        Builder b;
        b.h("00 02 00 00 00 00 00 00 00").raw(be(0x10 | comm, 1)).h("00 14").raw(Bytes(20, 0));
        b.raw(be(seq, 4)).s(kId).h("01").raw({static_cast<uint8_t>(shipment), pri, 10, 17, cls});
        b.raw(be(action, 2)).raw(be(static_cast<uint32_t>(tlvs.size()), 2)).raw(be(count, 2)).raw(tlvs);
        sign(b.b, kNonceKey);
        return b.b;
    }
};

TEST_F(QueryTest, AcknowledgementCopiesTheQueryHeader) {
    struct Case {
        int32_t shipment;
        uint32_t power_source, seq;
        uint8_t cls, pri;
        uint16_t action;
        const char *logged;
    } cases[] = {
        {-1, 0, 0x01020304, CV_CLASS_QUERY, 100, kSet, "WILL"},
        {-2, 0, 7, CV_CLASS_QUERY, 100, kSet, "WONT"},
        {-1, 1, 0xfffffffe, CV_CLASS_AGGREGATE, 3, 0x0102, "WILL"},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.shipment);
        s->power_source = c.power_source;
        EventPtr q = query(c.cls, c.action, c.seq, {switch_reply_to()}, c.pri);
        LogCapture cap(0);
        omr_sendAcknowledgement(s, q.get(), c.shipment);
        Bytes tlvs = Builder()
                         .h("00000008 0000000f 00000000").s("dom")
                         .h("00000017 0000001c 00000000").raw(ep.reply_to())
                         .h("00000001 00000030 00000000").s(kId).h("00000001")
                         .h("8000002a 00000048 00000000").raw(device_header()).h("00000001 00000000")
                         .b;
        EXPECT_EQ(ep.read_message(), want(c.seq, static_cast<int8_t>(c.shipment), c.pri, c.cls,
                                          c.action, c.power_source ? 4 : 1, 4, tlvs));
        EXPECT_TRUE(cap.has(1, "omr_sendAcknowledgement", std::string("sent acknowledgement ") + c.logged));
    }
    // Any other shipment is refused.
    EventPtr q = query(CV_CLASS_QUERY, kCollect, 9, {switch_reply_to()});
    for (int32_t shipment : {0, 1, 2, -3, -4}) {
        LogCapture cap(0);
        omr_sendAcknowledgement(s, q.get(), shipment);
        EXPECT_TRUE(cap.has(3, "omr_sendAcknowledgement",
                            "won't send unexpected acknowledgement type " + std::to_string(shipment)));
        EXPECT_TRUE(ep.nothing_sent()) << shipment;
    }
}

// Entry count, entry id 1 and the usage common header: version 1,
// caliber, name, role, units, level, importance, keywords.
const char kComboEntryHead[] =
    "00000001 00000001 00000001 01020304 00000005 6c61622d37 00000006 73656e736f72 03 2a 32 "
    "00000003 612c62";

TEST_F(QueryTest, GetRepliesOneAggregateEntryPerAttribute) {
    // Per attribute asked: the aggregate TLV's type and length, and after
    // the device header its entries (count, id 1, value).
    const std::string kOne = "00000001 00000001", kCombo = kComboEntryHead;
    const struct {
        uint32_t asked;
        const char *reply_head;
        std::string entry;
        const char *logged;
    } rows[] = {
        {7, "80000007 00000052", kOne + "00000006 73656e736f72", "role"},
        {9, "80000009 00000051", kOne + "00000005 6c61622d37", "name"},
        {10, "8000000a 00000050", kOne + "00000004 612c6200", "keywords"},
        {12, "8000000c 00000049", kOne + "03", "units"},
        {13, "8000000d 0000004a", kOne + "1234", "usage"},
        {14, "8000000e 00000049", kOne + "2a", "level"},
        {16, "80000011 00000049", kOne + "32", "importance"},
        {17, "80000011 00000049", kOne + "32", "importance"},
        {36, "80000024 00000074", kOne + kDeltaVectorHex, "delta vector"},
        {38, "80000026 0000004c", kOne + "01020304", "caliber"},
        {39, "80000027 0000005e", kOne + kUsageVectorHex, "usage vector"},
        {43, "8000002b 0000006f", kCombo + "1234", "usage"},
        {44, "8000002c 00000083", kCombo + kUsageVectorHex, "usage vector"},
        {45, "8000002d 00000099", kCombo + kDeltaVectorHex, "delta vector"},
        {48, "80000030 00000051", kOne + "00000005 6d65746572", "device type"},
        {51, "80000033 0000004c", kOne + "00000007", "category"},
    };
    uint32_t seq = 100;
    for (const auto &row : rows) {
        SCOPED_TRACE(row.asked);
        EventPtr q =
            query(CV_CLASS_QUERY, kCollect, ++seq, {switch_reply_to(), identity(), none(row.asked)});
        LogCapture cap(0);
        omr_processQueryMsg(s, q.get());
        Bytes ack = ep.read_message();
        ASSERT_GT(ack.size(), 69u);
        EXPECT_EQ(static_cast<int8_t>(ack[69]), -1);

        Builder agg;
        agg.raw(fixed_reply_tlvs()).h(row.reply_head).h("00000000").raw(device_header());
        Bytes w = want(seq, 1, 100, CV_CLASS_QUERY, kCollect, 1, 7, agg.h(row.entry.c_str()).b);
        EXPECT_EQ(ep.read_message(), w);
        EXPECT_TRUE(cap.has(1, "omr_createGetQueryResponseTlvs", std::string(row.logged) + " query reply"));
        EXPECT_TRUE(cap.has(2, "omr_processQueryMsg", "query request from 127.0.0.2"));
        EXPECT_TRUE(cap.has(1, "omr_processQueryMsg", "host seq " + std::to_string(seq)));
        const std::string n = std::to_string(w.size());
        EXPECT_TRUE(cap.has(2, "omr_processQueryMsg",
                            "Sent " + n + " bytes of packet with total size " + n + " to 127.0.0.2"))
            << cap.dump();
    }
    EXPECT_TRUE(ep.nothing_sent());
}

TEST_F(QueryTest, NannyBitWithholdsMeteredValuesOnly) {
    ASSERT_EQ(0, ohmara_svc_setNannyFunctionBit(s, 0, 1));
    ASSERT_EQ(s->nanny_bits & 0x20u, 0x20u);
    EventPtr q = query(CV_CLASS_QUERY, kCollect, 11,
                       {switch_reply_to(), identity(), none(12), none(13), none(36), none(38),
                        none(39), none(14), none(43)});
    omr_processQueryMsg(s, q.get());
    ep.read_message();  // the acknowledgement
    Bytes tlvs = Builder()
                     .raw(fixed_reply_tlvs())
                     .h("8000000e 00000049 00000000").raw(device_header()).h("00000001 00000001 2a")
                     .h("8000002b 0000006f 00000000").raw(device_header()).h(kComboEntryHead).h("1234")
                     .b;
    EXPECT_EQ(ep.read_message(), want(11, 1, 100, CV_CLASS_QUERY, kCollect, 1, 8, tlvs));
}

TEST_F(QueryTest, RepeatedTypesAnswerTwiceUnknownTypesNotAtAll) {
    // Level twice: two entries in one aggregate TLV. Domain, reply-to, the
    // unanswered importance variant and an unknown type: none.
    EventPtr q = query(CV_CLASS_AGGREGATE, 3, 12,
                       {switch_reply_to(), identity(), none(14), none(8), none(18), none(60), none(14)});
    omr_processQueryMsg(s, q.get());
    EXPECT_EQ(static_cast<int8_t>(ep.read_message().at(69)), -1);
    Bytes tlvs = Builder()
                     .raw(fixed_reply_tlvs())
                     .h("8000000e 0000004e 00000000").raw(device_header())
                     .h("00000002 00000001 2a 00000001 2a")
                     .b;
    EXPECT_EQ(ep.read_message(), want(12, 1, 100, CV_CLASS_AGGREGATE, 3, 1, 7, tlvs));
}

TEST_F(QueryTest, QueriesThatAreNotAnsweredSendNothing) {
    struct Case {
        const char *what;
        uint8_t cls;
        std::vector<T> tlvs;
        const char *logged;  // at DEBUG
    } cases[] = {
        {"no reply-to", CV_CLASS_QUERY, {identity(), none(14)}, "bad packet, does not contain replyto tlv"},
        {"reply-to without value", CV_CLASS_QUERY, {none(23), identity()},
         "bad packet, does not contain replyto tlv"},
        {"filtered: other name", CV_CLASS_QUERY, {switch_reply_to(), text(9, "pump*", 1)},
         "skipping query "},
        {"filtered: category 7, no selector", CV_CLASS_QUERY, {switch_reply_to(), none(14)},
         "skipping query "},
        {"wrong class", CV_CLASS_NOTIFY, {switch_reply_to(), identity()},
         "dropping message with class=12 action=11"},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.what);
        EventPtr q = query(c.cls, kCollect, 20, c.tlvs);
        LogCapture cap(0);
        omr_processQueryMsg(s, q.get());
        EXPECT_TRUE(cap.has(1, "omr_processQueryMsg", c.logged)) << cap.dump();
        EXPECT_TRUE(ep.nothing_sent());
    }
}

T raw_text(uint32_t type, const char *t) { return {type, Bytes(t, t + strlen(t))}; }

TEST_F(QueryTest, SetAppliesEachAttributeWithinItsLimits) {
    const char kStart[] = "sensor|lab-7|a,b|50";  // role|name|keywords|importance; level 42
    const struct {
        const char *what;
        std::vector<T> tlvs;
        int32_t result;
        const char *state;  // afterwards, as kStart
        std::vector<uint8_t> levels_set;
        std::vector<int32_t> modified;
        uint32_t log_level;
        const char *logged;
        int32_t set_level_result = 0;
    } rows[] = {
        {"role with a blank", {text(7, "pump room")}, 0, "pump room|lab-7|a,b|50", {}, {2}, 2,
         "changed role to pump room"},
        {"role request logged", {text(7, "valve")}, 0, "valve|lab-7|a,b|50", {}, {2}, 1, "set role valve request"},
        {"role refused", {text(7, "bad*")}, -1, kStart, {}, {}, 3, "failed to set role"},
        {"role default", {none(7)}, 0, "Endpoint|lab-7|a,b|50", {}, {2}, 2, "changed role to Endpoint"},
        {"name", {text(9, "lab-9")}, 0, "sensor|lab-9|a,b|50", {}, {4}, 2, "changed name to lab-9"},
        {"name with a blank refused", {text(9, "a b")}, -1, kStart, {}, {}, 3, "failed to set name"},
        {"name default", {none(9)}, 0, "sensor|Endpoint@127.0.0.1|a,b|50", {}, {4}, 2,
         "changed name to Endpoint@127.0.0.1"},
        {"keywords without terminator", {raw_text(10, "x,y")}, 0, "sensor|lab-7|x,y|50", {}, {5}, 1,
         "set keywords x,y request"},
        {"keywords refused", {raw_text(10, "x y")}, -1, kStart, {}, {}, 3,
         "Failed to set KEYWORDS attribute to x y -- invalid or no characters defined."},
        {"keywords cleared", {none(10)}, 0, "sensor|lab-7||50", {}, {5}, 2, "Clearing keywords by request."},
        {"level", {u8(14, 77)}, 0, kStart, {77}, {9}, 2, "changed level from 42 to 77"},
        {"level default", {none(14)}, 0, kStart, {10}, {9}, 1, "set level 10 request"},
        {"level refused by the application", {u8(14, 77)}, -1, kStart, {77}, {}, 3, "failed to set level", -1},
        {"importance 100", {u8(16, 100)}, 0, "sensor|lab-7|a,b|100", {}, {10}, 2, "changed importance to 100"},
        {"importance 0", {u8(16, 0)}, -1, kStart, {}, {}, 3, "failed to set importance to 0"},
        {"importance 101", {u8(17, 101)}, -1, kStart, {}, {}, 3, "failed to set importance to 101"},
        {"importance default", {none(16)}, 0, "sensor|lab-7|a,b|1", {}, {10}, 1, "set importance 1 request"},
        {"importance_i", {u8(17, 9)}, 0, "sensor|lab-7|a,b|9", {}, {10}, 2, "changed importance to 9"},
        {"domain ignored", {text(8, "other")}, 0, kStart, {}, {}, 1, "count 0, type 8, len 6, tag 0"},
        {"tagged TLV skipped", {text(7, "zzz", 1)}, 0, kStart, {}, {}, 1, "count 0, type 7, len 4, tag 1"},
        {"first change stays when the second fails", {u8(16, 20), text(7, "bad*")}, -1, "sensor|lab-7|a,b|20",
         {}, {10}, 3, "failed to set role"},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.what);
        set_identity();
        dev() = Device();
        dev().set_level_result = row.set_level_result;
        EventPtr q = query(CV_CLASS_QUERY, kSet, 30, row.tlvs);
        LogCapture cap(0);
        EXPECT_EQ(omr_doSetQuery(s, q.get()), row.result);
        EXPECT_EQ(std::string(s->role) + "|" + s->name + "|" + s->keywords + "|" + std::to_string(s->importance),
                  row.state);
        EXPECT_EQ(dev().levels_set, row.levels_set);
        EXPECT_EQ(dev().modified, row.modified);
        EXPECT_TRUE(cap.has(row.log_level, "omr_doSetQuery", row.logged)) << cap.dump();
    }
}

TEST_F(QueryTest, SetIsAcknowledgedAndAnnouncedOnlyWhenAccepted) {
    ep.active();  // discovery updates go unicast to the parent listener
    struct Case { T tlv; int8_t shipment; const char *logged; } cases[] = {
        {text(7, "valve"), -1, "ack WILL (set)"}, {u8(16, 0), -2, "nak WON'T (set)"}};
    for (const Case &c : cases) {
        SCOPED_TRACE(c.logged);
        EventPtr q = query(CV_CLASS_QUERY, kSet, 0x0a0b0c0d, {switch_reply_to(), identity(), c.tlv});
        LogCapture cap(0);
        omr_processQueryMsg(s, q.get());
        EXPECT_TRUE(cap.has(1, "omr_processQueryMsg", c.logged));
        Bytes ack = ep.read_message();
        ASSERT_GE(ack.size(), 80u);
        EXPECT_EQ(static_cast<int8_t>(ack[69]), c.shipment);
        EXPECT_EQ(Bytes(ack.begin() + 32, ack.begin() + 36), hex("0a 0b 0c 0d"));
        EXPECT_EQ(Bytes(ack.begin() + 73, ack.begin() + 76), hex("0a 000a"));
        EXPECT_TRUE(signed_with(ack, kNonceKey));
        EXPECT_TRUE(ep.nothing_sent()) << "a SET gets no reply message";

        // Only then an update, signed with the domain key, carrying the new role.
        Bytes update;
        ASSERT_EQ(recv_datagram(ep.parent, &update, 200), c.shipment == -1);
        if (c.shipment == -2) continue;
        EXPECT_TRUE(signed_with(update, kKey));
        EXPECT_EQ(Bytes(update.begin() + 73, update.begin() + 76), hex("0e 000a"));
        EXPECT_EQ(tlv_value(update, CV_CORVANE_TLV_TYPE_ROLE), Bytes({'v', 'a', 'l', 'v', 'e'}));
    }
}

}  // namespace
