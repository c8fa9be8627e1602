// Acknowledgements and GET replies, read back from the switch's end of the
// connection and compared byte for byte with messages written by hand.
#include "query_fixture.h"

namespace query_test {
namespace {

using omsdk_test::LogCapture;

constexpr uint16_t kCollect = CV_ACTION_KVQR_CORVANE_QUERY_COLLECT;

// The TLVs every GET reply starts with, for the fixture's identity.
Bytes fixed_reply_tlvs(const Bytes &reply_to) {
    return Builder()
        .h("00000008 0000000f 00000000").s("dom")
        .h("00000009 00000011 00000000").s("lab-7")
        .h("00000007 00000012 00000000").s("sensor")
        .h("00000010 0000000d 00000000 32")
        .h("00000001 00000030 00000000").s(kId).h("00000001")
        .h("00000017 0000001c 00000000").raw(reply_to)
        .b;
}
constexpr uint16_t kFixedCount = 6;

TEST_F(QueryTest, AcknowledgementCopiesTheQueryHeader) {
    struct Case {
        int32_t shipment;
        uint32_t power_source;
        uint8_t cls, pri;
        uint16_t action;
        uint32_t seq;
        const char *logged;
    } cases[] = {
        {-1, 0, CV_CLASS_QUERY, 100, CV_ACTION_KVQR_CORVANE_QUERY_SET, 0x01020304, "WILL"},
        {-2, 0, CV_CLASS_QUERY, 100, CV_ACTION_KVQR_CORVANE_QUERY_SET, 7, "WONT"},
        {-1, 1, CV_CLASS_AGGREGATE, 3, 0x0102, 0xfffffffe, "WILL"},
    };
    for (const Case &c : cases) {
        s->power_source = c.power_source;
        EventPtr q = query(c.cls, c.action, c.seq, {switch_reply_to()}, c.pri);
        LogCapture cap(0);
        omr_sendAcknowledgement(s, q.get(), c.shipment);
        Bytes tlvs = Builder()
                         .h("00000008 0000000f 00000000").s("dom")
                         .h("00000017 0000001c 00000000").raw(reply_to_bytes())
                         .h("00000001 00000030 00000000").s(kId).h("00000001")
                         .h("8000002a 00000048 00000000").raw(device_header())
                         .h("00000001 00000000")
                         .b;
        Bytes want = message(c.seq, static_cast<int8_t>(c.shipment), c.pri, c.cls, c.action,
                             c.power_source ? 4 : 1, 4, tlvs);
        EXPECT_EQ(read_message(), want) << c.shipment;
        EXPECT_TRUE(cap.has(1, "omr_sendAcknowledgement",
                            std::string("sent acknowledgement ") + c.logged));
    }
}

TEST_F(QueryTest, UnexpectedAcknowledgementShipmentSendsNothing) {
    EventPtr q = query(CV_CLASS_QUERY, kCollect, 9, {switch_reply_to()});
    for (int32_t shipment : {0, 1, 2, -3, -4}) {
        LogCapture cap(0);
        omr_sendAcknowledgement(s, q.get(), shipment);
        EXPECT_TRUE(cap.has(3, "omr_sendAcknowledgement",
                            "won't send unexpected acknowledgement type " + std::to_string(shipment)));
        EXPECT_TRUE(nothing_sent()) << shipment;
    }
}

// One row per attribute a GET may name: the aggregate TLV it is answered
// with (after the device header: entry count, entry id 1, value).
struct GetRow {
    uint32_t asked;
    const char *reply_head;  // type word, length, qualifier
    const char *entry;       // count, id, value (hex)
    const char *logged;
    bool combo;
};

const GetRow kGetRows[] = {
    {7, "80000007 00000052 00000000", "00000001 00000001 00000006 73656e736f72", "role query reply", false},
    {9, "80000009 00000051 00000000", "00000001 00000001 00000005 6c61622d37", "name query reply", false},
    {10, "8000000a 00000050 00000000", "00000001 00000001 00000004 612c6200", "keywords query reply", false},
    {12, "8000000c 00000049 00000000", "00000001 00000001 03", "units query reply", false},
    {13, "8000000d 0000004a 00000000", "00000001 00000001 1234", "usage query reply", false},
    {14, "8000000e 00000049 00000000", "00000001 00000001 2a", "level query reply", false},
    {16, "80000011 00000049 00000000", "00000001 00000001 32", "importance query reply", false},
    {17, "80000011 00000049 00000000", "00000001 00000001 32", "importance query reply", false},
    {36, "80000024 00000074 00000000",
     "00000001 00000001 ffffffff 00000000 00000001 00000100 00010000 fffffffe 00000007 00000008 "
     "00000009 0000000a 7fffffff",
     "delta vector query reply", false},
    {38, "80000026 0000004c 00000000", "00000001 00000001 01020304", "caliber query reply", false},
    {39, "80000027 0000005e 00000000",
     "00000001 00000001 0100 0101 0102 0103 0104 0105 0106 0107 0108 0109 010a",
     "usage vector query reply", false},
    {43, "8000002b 0000006f 00000000", "1234", "usage query reply", true},
    {44, "8000002c 00000083 00000000", "0100 0101 0102 0103 0104 0105 0106 0107 0108 0109 010a",
     "usage vector query reply", true},
    {45, "8000002d 00000099 00000000",
     "ffffffff 00000000 00000001 00000100 00010000 fffffffe 00000007 00000008 00000009 0000000a "
     "7fffffff",
     "delta vector query reply", true},
    {48, "80000030 00000051 00000000", "00000001 00000001 00000005 6d65746572", "device type query reply", false},
    {51, "80000033 0000004c 00000000", "00000001 00000001 00000007", "category query reply", false},
};

// Entry count, entry id 1 and the usage common header of the fixture:
// version 1, caliber, name, role, units, level, importance, keywords.
const char kComboEntryHead[] =
    "00000001 00000001 00000001 01020304 00000005 6c61622d37 00000006 73656e736f72 03 2a 32 "
    "00000003 612c62";

TEST_F(QueryTest, GetRepliesOneAggregateEntryPerAttribute) {
    uint32_t seq = 100;
    for (const GetRow &row : kGetRows) {
        ++seq;
        EventPtr q = query(CV_CLASS_QUERY, kCollect, seq,
                           {switch_reply_to(), own_identity(), none(row.asked)});
        LogCapture cap(0);
        omr_processQueryMsg(s, q.get());

        Bytes ack = read_message();
        ASSERT_EQ(ack.size() > 69, true) << row.asked;
        EXPECT_EQ(static_cast<int8_t>(ack[69]), -1);

        Bytes tlvs = fixed_reply_tlvs(reply_to_bytes());
        Builder agg;
        agg.h(row.reply_head).raw(device_header());
        if (row.combo) agg.h(kComboEntryHead);
        agg.h(row.entry);
        tlvs.insert(tlvs.end(), agg.b.begin(), agg.b.end());
        Bytes want = message(seq, 1, 100, CV_CLASS_QUERY, kCollect, 1, kFixedCount + 1, tlvs);
        Bytes got = read_message();
        EXPECT_EQ(got, want) << "type " << row.asked;
        EXPECT_TRUE(cap.has(1, "omr_createGetQueryResponseTlvs", row.logged)) << row.asked;
        EXPECT_TRUE(cap.has(2, "omr_processQueryMsg", "query request from 127.0.0.2"));
        EXPECT_TRUE(cap.has(1, "omr_processQueryMsg", "host seq " + std::to_string(seq)));
        EXPECT_TRUE(cap.has(2, "omr_processQueryMsg",
                            "Sent " + std::to_string(want.size()) + " bytes of packet with total size " +
                                std::to_string(want.size()) + " to 127.0.0.2"))
            << cap.dump();
    }
    EXPECT_TRUE(nothing_sent());
}

TEST_F(QueryTest, NannyBitWithholdsMeteredValuesOnly) {
    ASSERT_EQ(0, ohmara_svc_setNannyFunctionBit(s, 0, 1));
    ASSERT_EQ(s->nanny_bits & 0x20u, 0x20u);
    EventPtr q = query(CV_CLASS_QUERY, kCollect, 11,
                       {switch_reply_to(), own_identity(), none(12), none(13), none(36), none(38),
                        none(39), none(14), none(43)});
    omr_processQueryMsg(s, q.get());
    read_message();  // the acknowledgement
    Bytes tlvs = Builder()
                     .raw(fixed_reply_tlvs(reply_to_bytes()))
                     .h("8000000e 00000049 00000000").raw(device_header()).h("00000001 00000001 2a")
                     .h("8000002b 0000006f 00000000").raw(device_header()).h(kComboEntryHead).h("1234")
                     .b;
    EXPECT_EQ(read_message(), message(11, 1, 100, CV_CLASS_QUERY, kCollect, 1, kFixedCount + 2, tlvs));
}

TEST_F(QueryTest, RepeatedTypesAnswerTwiceUnknownTypesNotAtAll) {
    // Level twice: two entries in one aggregate TLV for this device. Domain,
    // reply-to, the unanswered importance variant and an unknown type: none.
    EventPtr q = query(CV_CLASS_AGGREGATE, 3, 12,
                       {switch_reply_to(), own_identity(), none(14), none(8), none(18), none(60),
                        none(14)});
    omr_processQueryMsg(s, q.get());
    EXPECT_EQ(static_cast<int8_t>(read_message().at(69)), -1);
    Bytes tlvs = Builder()
                     .raw(fixed_reply_tlvs(reply_to_bytes()))
                     .h("8000000e 0000004e 00000000").raw(device_header())
                     .h("00000002 00000001 2a 00000001 2a")
                     .b;
    EXPECT_EQ(read_message(), message(12, 1, 100, CV_CLASS_AGGREGATE, 3, 1, kFixedCount + 1, tlvs));
}

TEST_F(QueryTest, QueriesThatAreNotAnsweredSendNothing) {
    struct Case {
        const char *what;
        uint8_t cls;
        std::vector<QTlv> tlvs;
        int level;
        const char *func;
        const char *logged;
    } cases[] = {
        {"no reply-to", CV_CLASS_QUERY, {own_identity(), none(14)}, 1, "omr_processQueryMsg",
         "bad packet, does not contain replyto tlv"},
        {"reply-to without value", CV_CLASS_QUERY, {none(23), own_identity()}, 1,
         "omr_processQueryMsg", "bad packet, does not contain replyto tlv"},
        {"filtered: other name", CV_CLASS_QUERY, {switch_reply_to(), text(9, "pump*", 1)}, 1,
         "omr_processQueryMsg", "skipping query "},
        {"filtered: category 7 without selector", CV_CLASS_QUERY, {switch_reply_to(), none(14)}, 1,
         "omr_processQueryMsg", "skipping query "},
        {"wrong class", CV_CLASS_NOTIFY, {switch_reply_to(), own_identity()}, 1,
         "omr_processQueryMsg", "dropping message with class=12 action=11"},
    };
    for (const Case &c : cases) {
        EventPtr q = query(c.cls, kCollect, 20, c.tlvs);
        LogCapture cap(0);
        omr_processQueryMsg(s, q.get());
        EXPECT_TRUE(cap.has(static_cast<uint32_t>(c.level), c.func, c.logged)) << c.what << "\n"
                                                                                 << cap.dump();
        EXPECT_TRUE(nothing_sent()) << c.what;
    }
}

}  // namespace
}  // namespace query_test
