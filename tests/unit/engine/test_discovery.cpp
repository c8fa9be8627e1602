// SPDX-License-Identifier: Apache-2.0
// Discovery events byte for byte by status, action and nanny bits, the
// pending request they carry, and the outgoing message builder's failure latch.
#include "engine/message.h"
#include "fixture.h"

namespace {

using namespace engine_test;

constexpr uint8_t kUpdate = 10, kKeepalive = 11, kDelete = 12;

std::string dest(const Sent &m) {
    return std::string(inet_ntoa(m.to.sin_addr)) + ":" + std::to_string(ntohs(m.to.sin_port));
}

const std::string kSelf = std::string("00000017 0000001c 00000000") + kSelfHex;
const std::string kNameRole =
    "00000009 00000011 00000000 6c61622d37 00000007 00000012 00000000 73656e736f72 ";
const std::string kKeywords = "0000000a 00000010 00000000 612c6200 ";  // sent NUL-terminated
const std::string kNanny = "00000022 00000010 00000000 00000000 ",
                  kDomain = "00000008 0000000f 00000000 646f6d ";
const std::string kSender = std::string("00000001 00000030 00000000") + kIdHex + "00000001";

TEST(Discovery, ByteForByte) {
    // status: 0 UP, 1 ACTIVE, 2 shutting down
    const std::tuple<const char *, int32_t, bool, uint8_t, uint32_t, uint32_t, uint32_t, uint16_t,
                     std::string, const char *>
        cases[] = {
            {"update while UP: broadcast, metered block", 0, false, kUpdate, 0x01020304, 0, 0, 15,
             kDomain + kSelf + kNameRole + kKeywords + kNanny +
                 "0000000d 0000000e 00000000 1234 0000000c 0000000d 00000000 03 00000026 00000010 00000000 01020304 "
                 "00000027 00000022 00000000" +
                 kUsageVectorHex + "00000024 00000038 00000000" + kDeltaVectorHex +
                 "0000000e 0000000d 00000000 2a 00000010 0000000d 00000000 32 00000033 00000010 00000000 00000007" +
                 kSender,
             "255.255.255.255:8738"},
            {"keepalive while ACTIVE: unicast, nonce and alarm, mains", 1, false, kKeepalive, 500,
             1, 0, 9,
             kDomain + kSelf +
                 "0000002f 00000010 00000000 0a1b2c3d 00000032 0000001a 00000000 0000012c 22 11 "
                 "00000007 00000001" +
                 kNameRole + kKeywords + kNanny + kSender,
             "127.0.0.3:13107"},
            {"update while UP, metered block withheld", 0, false, kUpdate, 8, 0, 0x20, 10,
             kDomain + kSelf + kNameRole + kKeywords + "00000022 00000010 00000000 00000020" +
                 "0000000e 0000000d 00000000 2a 00000010 0000000d 00000000 32 00000033 00000010 00000000 00000007" +
                 kSender,
             "255.255.255.255:8738"},
            {"delete while shutting down: no nonce; unset domain and keywords left out", 2, true,
             kDelete, 9, 0, 0, 5, kSelf + kNameRole + kNanny + kSender, "127.0.0.3:13107"},
        };
    for (const auto &[what, status, unset_texts, action, seq, mains, nanny, count, body, to] :
         cases) {
        SCOPED_TRACE(what);
        World w;
        if (status > 0) w.active();
        if (status > 1) om_setStatusShutdown(w.s);
        w.s->nanny_bits = nanny;
        if (unset_texts)
            free(w.s->domain), free(w.s->keywords), w.s->domain = w.s->keywords = nullptr;
        ohmara_svc_configPowerSource(w.s, mains);
        w.s->local_nonce = 0x0A1B2C3D;
        w.queue(OMSDK_REQ_ALARM_SET, 7, 300, 0x11, 0x22);  // carried only while ACTIVE
        dev().next_seq = seq;
        LogCapture cap(OHMARA_LOG_INFO);
        ASSERT_EQ(sendDiscoveryEvent(w.s, action), 0);
        auto out = w.take();
        ASSERT_EQ(out.size(), 1u);
        const Bytes want = from_endpoint(seq, 0, 100, CV_CLASS_DISCOVERY, action, count, body, kKey,
                                         mains ? 4 : 1);
        EXPECT_EQ(out[0].bytes, want);
        EXPECT_TRUE(out[0].datagram);
        EXPECT_EQ(dest(out[0]), to);
        EXPECT_TRUE(cap.has(OHMARA_LOG_INFO, "sendDiscoveryEvent",
                            (status ? "unicast " : "broadcast ") + std::to_string(want.size()) +
                                " bytes to " + to));
        EXPECT_EQ(dev().calls, 8);  // every value callback and the sequence, whatever the action
        EXPECT_EQ(w.s->pending_seq,
                  status == 1 ? 500u : 0u);  // carried: now waiting for its answer
    }
}

TEST(Discovery, PendingRequestRidesOnceAndIsGivenUpTwoEventsLater) {
    const std::tuple<uint32_t, int32_t, const char *> cases[] = {
        {OMSDK_REQ_ALARM_SET, 12, "01020304 b2 a1 0000000c 00000001"},  // alarm: null for none
        {OMSDK_REQ_ALARM_CLEAR_ALL, 5, "01020304 b2 a1 ffffffff 00000004"},
        {OMSDK_REQ_DISCOVERY_REFRESH, 13, nullptr}};
    for (const auto &[type, id, alarm] : cases) {
        SCOPED_TRACE(type);
        World w;
        w.queue(type, id, 0x01020304, 0xA1, 0xB2);
        dev().next_seq = 0xFFFFFFF0u;
        ASSERT_EQ(sendDiscoveryEvent(w.s, kUpdate), 0);  // UP: not carried
        EXPECT_EQ(w.s->pending_seq, 0u);
        w.active();
        LogCapture cap(OHMARA_LOG_WARN);
        for (int n = 0; n < 3; ++n) {  // N carries it, N+1 waits, N+2 gives up
            ASSERT_EQ(sendDiscoveryEvent(w.s, kUpdate), 0);
            EXPECT_EQ(w.s->pending_head != nullptr, n < 2) << n;
            EXPECT_EQ(w.s->pending_seq, n < 2 ? 0xFFFFFFF1u : 0u) << n;
            EXPECT_EQ(dev().alarm_replies.size(), n < 2 ? 0u : 1u);
        }
        EXPECT_EQ(dev().alarm_replies,
                  Strings{std::to_string(id) + " " + std::to_string(type) + " 0"});
        EXPECT_TRUE(cap.has(OHMARA_LOG_WARN, "sendDiscoveryEvent",
                            "no response to Wake Up request.  Dropping request"));
        auto out = w.take();
        ASSERT_EQ(out.size(), 4u);
        const auto carrier = parse(out[1].bytes);  // the alarm right after the nonce, if any
        EXPECT_EQ(carrier.at(3).type == 50 ? carrier[3].value : Bytes(),
                  alarm ? hex(alarm) : Bytes());
        for (int n : {0, 2, 3}) EXPECT_EQ(parse(out[n].bytes).size(), n ? 16u : 15u) << n;
    }
}

// The outgoing message builder latches its first failure: nothing half-built is signed or sent.
TEST(Message, FirstFailureIsLatchedAndNothingIsSent) {
    World w;
    omsdk::message m(w.s);
    ASSERT_TRUE(m.created());
    EXPECT_EQ(m.send_reply(), -1);  // not signed yet
    m.add_domain(true).add_value(CV_CORVANE_TLV_TYPE_NAME, nullptr, 4).add_sender_id();
    EXPECT_FALSE(m.ok());
    EXPECT_EQ(m.event()->pak->tlv_count, 1);  // nothing added after the failure
    EXPECT_FALSE(m.sign(100, 0, CV_CLASS_DISCOVERY, 10, 1, &w.s->key_ctx));
    EXPECT_EQ(m.send_reply(), -1);
    EXPECT_EQ(m.send_datagram(&w.s->bcast_addr), -1);
    EXPECT_TRUE(w.take().empty());
}

}  // namespace
