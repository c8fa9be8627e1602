// Discovery events as they arrive on the wire (content, order, signature,
// destination, the pending client request they carry) and the switch's
// answers delivered through intake: handshake, nonce key, alarm answers.
#include "engine_harness.h"

namespace {

using namespace engine_test;

const Bytes kKey = {'t', 'h', 'e', '-', 's', 'h', 'a', 'r', 'e', 'd', '-', 'k', 'e', 'y',
                    '-', 'o', 'f', '-', 'a', 'l', 'l', '!'};  // 22 bytes: read as 20
const Bytes kKey20(kKey.begin(), kKey.begin() + 20);
constexpr uint32_t kLocal = 0x11223344;
constexpr uint32_t kRemote = 0xA0B0C0D0;
constexpr uint8_t kUpdate = CV_ACTION_KVQR_CORVANE_DISCOVERY_DISCOVERY_UPDATE;
using Strings = std::vector<std::string>;

TEST(DiscoverySend, ByteForByteBroadcastWhileUpUnicastWhileActive) {
    struct Case {
        bool active;
        uint8_t action;
        uint32_t seq, mains;
        const char *security, *event;  // the headers before and after the identifier
        std::string active_tlvs, update_tlvs;  // after reply-to; after the nanny vector
        const char *logged;
    } cases[] = {
        {false, kUpdate, 0x01020304, 0, "00 02 0000 00000000 00 11 0014",
         "01 00 64 0a 11 0e 000a 0148 000f", "",
         std::string("0000000d 0000000e 00000000 1234 0000000c 0000000d 00000000 03 "
                     "00000026 00000010 00000000 01020304 00000027 00000022 00000000") +
             kUsageVectorHex + "00000024 00000038 00000000" + kDeltaVectorHex +
             "0000000e 0000000d 00000000 37 00000010 0000000d 00000000 2a "
             "00000033 00000010 00000000 00000007",
         "broadcast 408 bytes to 255.255.255.255:"},
        {true, CV_ACTION_KVQR_CORVANE_DISCOVERY_KEEPALIVE, 500, 1, "00 02 0000 00000000 00 14 0014",
         "01 00 64 0a 11 0e 000b 00c3 0009",
         "0000002f 00000010 00000000 0a1b2c3d 00000032 0000001a 00000000 0000012c 22 11 00000007 00000001",
         "", "unicast 275 bytes to 127.0.0.1:"},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.logged);
        Endpoint ep(kKey);
        c.active ? ep.active() : ep.up();
        ohmara_svc_configPowerSource(ep.s, c.mains);  // mains: comm 4, else 1
        ep.s->local_nonce = 0x0A1B2C3D;
        ep.queue(0, 7, 300, 0x11, 0x22);  // carried only while ACTIVE
        dev().level = 55;
        dev().next_seq = c.seq;
        LogCapture cap(OHMARA_LOG_INFO);
        ASSERT_EQ(sendDiscoveryEvent(ep.s, c.action), 0);

        Bytes got;
        ASSERT_TRUE(recv_datagram(c.active ? ep.parent : ep.bcast, &got));
        EXPECT_TRUE(nothing_pending(c.active ? ep.bcast : ep.parent));
        Builder b;
        b.h(c.security).raw(Bytes(20, 0)).raw(be(c.seq, 4)).s(kId).h(c.event);
        b.h("00000008 0000000f 00000000").s("dom");
        b.h("00000017 0000001c 00000000").raw(ep.reply_to()).h(c.active_tlvs.c_str());
        b.h("00000009 0000000e 00000000").s("nm").h("00000007 0000000e 00000000").s("rl");
        b.h("0000000a 00000012 00000000").s("k1,k2").h("00 00000022 00000010 00000000 00000000");
        b.h(c.update_tlvs.c_str()).h("00000001 00000030 00000000").s(kId).h("00000001");
        sign(b.b, kKey);
        EXPECT_EQ(got, b.b);
        const uint16_t port = c.active ? ep.parent_port : ep.port;
        EXPECT_TRUE(cap.has(OHMARA_LOG_INFO, "sendDiscoveryEvent", c.logged + std::to_string(port)))
            << cap.dump();
        // Carried, not consumed: the request waits in its slot for the answer.
        EXPECT_EQ(ep.s->pending_seq, c.active ? 500u : 0u);
        EXPECT_NE(ep.s->pending_head, nullptr);
    }
}

TEST(DiscoverySend, TlvOrderAndDestinationByStatusActionAndNanny) {
    constexpr int32_t kUp = OHMARA_STATUS_UP, kActive = OHMARA_STATUS_ACTIVE;
    struct Case {
        const char *name;
        int32_t status;  // unicast unless UP
        uint8_t action;
        uint32_t nanny;
        std::vector<uint32_t> types;
    } cases[] = {
        {"up update", kUp, 10, 0, {8, 23, 9, 7, 10, 34, 13, 12, 38, 39, 36, 14, 16, 51, 1}},
        {"up update, no metering", kUp, 10, 0x20, {8, 23, 9, 7, 10, 34, 14, 16, 51, 1}},
        {"up update, other bits", kUp, 10, 0x40, {8, 23, 9, 7, 10, 34, 13, 12, 38, 39, 36, 14, 16, 51, 1}},
        {"up keepalive", kUp, 11, 0, {8, 23, 9, 7, 10, 34, 1}},
        {"up delete", kUp, 12, 0, {8, 23, 9, 7, 10, 34, 1}},
        {"active update", kActive, 10, 0, {8, 23, 47, 9, 7, 10, 34, 13, 12, 38, 39, 36, 14, 16, 51, 1}},
        {"active update, no metering", kActive, 10, 0x20, {8, 23, 47, 9, 7, 10, 34, 14, 16, 51, 1}},
        {"active keepalive", kActive, 11, 0, {8, 23, 47, 9, 7, 10, 34, 1}},
        {"shutdown delete", OHMARA_STATUS_SHUTDOWN, 12, 0, {8, 23, 9, 7, 10, 34, 1}},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.name);
        Endpoint ep(kKey);
        c.status == kUp ? ep.up() : ep.active();
        if (c.status == OHMARA_STATUS_SHUTDOWN) om_setStatusShutdown(ep.s);
        ep.s->nanny_bits = c.nanny;
        dev().next_seq = 77;
        ASSERT_EQ(sendDiscoveryEvent(ep.s, c.action), 0);
        EXPECT_EQ(dev().calls, 8);  // every value callback and the sequence, whatever the action

        Bytes got;
        ASSERT_TRUE(recv_datagram(c.status != kUp ? ep.parent : ep.bcast, &got));
        EXPECT_TRUE(nothing_pending(c.status != kUp ? ep.bcast : ep.parent));
        std::vector<uint32_t> types;
        for (const WireTlv &t : wire_tlvs(got)) types.push_back(t.type);
        EXPECT_EQ(types, c.types);
        EXPECT_EQ(Bytes(got.begin() + 32, got.begin() + 36), hex("0000004d"));
        EXPECT_EQ(Bytes(got.begin() + 69, got.begin() + 76), Bytes({0, 100, 10, 17, 14, 0, c.action}));
        EXPECT_TRUE(signed_with(got, kKey));
    }
}

TEST(DiscoverySend, EachRequestKindIsCarriedAsItsAlarmValue) {
    struct Case {
        const char *name;
        uint32_t type, id, seconds;
        uint8_t p1, p2;
        const char *alarm_hex;  // null: no alarm TLV
    } cases[] = {
        {"alarm set", 0, 12, 0x01020304, 0xA1, 0xB2, "01020304 b2 a1 0000000c 00000001"},
        {"alarm clear-all", 1, 0xFFFFFFFF, 0, 0, 0, "00000000 00 00 ffffffff 00000004"},
        {"clear-all, stray id", 1, 5, 0, 0, 0, "00000000 00 00 ffffffff 00000004"},
        {"discovery refresh", 2, 13, 0, 0, 0, nullptr},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.name);
        Endpoint ep(kKey);
        ep.active();
        ep.queue(c.type, static_cast<int32_t>(c.id), c.seconds, c.p1, c.p2);
        dev().next_seq = 900;
        ASSERT_EQ(sendDiscoveryEvent(ep.s, kUpdate), 0);
        Bytes got;
        ASSERT_TRUE(recv_datagram(ep.parent, &got));
        auto tlvs = wire_tlvs(got);
        ASSERT_GT(tlvs.size(), 3u);
        // Right after the nonce, if at all.
        EXPECT_EQ(find_tlv(tlvs, CV_CORVANE_TLV_TYPE_ALARM), c.alarm_hex ? &tlvs[3] : nullptr);
        if (c.alarm_hex) { EXPECT_EQ(tlvs[3].value, hex(c.alarm_hex)); }
        // Every kind counts as the outstanding request.
        EXPECT_EQ(ep.s->pending_seq, 900u);
        EXPECT_EQ(ep.s->pending_id, static_cast<int32_t>(c.id));
        EXPECT_NE(ep.s->pending_head, nullptr);
    }
}

TEST(DiscoverySend, RequestWaitsWhileUpAndIsDroppedOnTheSecondEventAfterIt) {
    Endpoint ep(kKey);
    ep.up();
    ep.queue(0, 21, 60, 1, 2);
    dev().next_seq = 0xFFFFFFF0u;
    LogCapture cap(OHMARA_LOG_WARN);
    Bytes got;
    ASSERT_EQ(sendDiscoveryEvent(ep.s, kUpdate), 0);  // UP: not carried
    ASSERT_TRUE(recv_datagram(ep.bcast, &got));
    EXPECT_FALSE(has_tlv(got, CV_CORVANE_TLV_TYPE_ALARM));
    EXPECT_EQ(ep.s->pending_seq, 0u);

    om_setStatusActive(ep.s);
    ep.s->parent_addr = inet("127.0.0.1", ep.parent_port);
    // N carries it, N+1 still waits without sending it again, N+2 gives up.
    for (int n = 0; n < 3; ++n) {
        SCOPED_TRACE(n);
        ASSERT_EQ(sendDiscoveryEvent(ep.s, kUpdate), 0);
        ASSERT_TRUE(recv_datagram(ep.parent, &got));
        EXPECT_EQ(has_tlv(got, CV_CORVANE_TLV_TYPE_ALARM), n == 0);
        EXPECT_EQ(ep.s->pending_head != nullptr, n < 2);
        EXPECT_EQ(ep.s->pending_seq, n < 2 ? 0xFFFFFFF1u : 0u);
        EXPECT_EQ(cap.contains("Dropping request"), n == 2);
        EXPECT_EQ(dev().alarm_replies, n == 2 ? Strings{"21 0 0"} : Strings{});
    }
    EXPECT_TRUE(cap.has(OHMARA_LOG_WARN, "sendDiscoveryEvent",
                        "no response to Wake Up request.  Dropping request"));

    // The slot is free again: the next request rides on the next event.
    ep.queue(2, 22);
    ASSERT_EQ(sendDiscoveryEvent(ep.s, kUpdate), 0);
    EXPECT_EQ(ep.s->pending_seq, 0xFFFFFFF4u);
    EXPECT_EQ(ep.s->pending_id, 22);
}

// An ACK_WILL for a discovery update from the switch at the parent listener.
Bytes ack_will(const Endpoint &ep, uint32_t seq, std::vector<T> more = {}) {
    more.insert(more.begin(), reply_to("127.0.0.1", ep.parent_port));
    return message(CV_SHIPMENT_ACK_WILL, CV_CLASS_DISCOVERY, kUpdate, seq, more, ep.secret);
}

Bytes nonce_ctx_key(const svc_session *s) {
    const uint8_t *k = s->nonce_ctx.key;
    return k ? Bytes(k, k + s->nonce_ctx.key_len) : Bytes();
}

// A class 13 message is accepted (and warned about) only with a valid
// digest: proof of the key the nonce context holds.
bool accepts_with(Endpoint &ep, const Bytes &key, uint32_t seq) {
    LogCapture cap(OHMARA_LOG_WARN);
    deliver(ep.s, message(CV_SHIPMENT_SEND, CV_CLASS_REPLY, 10, seq, nullptr, key));
    return cap.contains("unexpected event type 13");
}

// Then the same nonce again or none: no re-key, no update; a changed
// nonce: a new key and exactly one immediate update.
TEST(AckHandling, HandshakeDerivesNonceKeyAndRekeysOnlyOnAChangedNonce) {
    const Bytes five = {'a', 'b', 'c', 'd', 'e'};
    Bytes five20 = five;
    five20.resize(20, 0);
    struct Case {
        const char *name;
        Bytes key;     // given at creation, empty for none
        Bytes secret;  // what the derivation must read
    } cases[] = {
        {"long key cut to 20", kKey, kKey20},
        {"short key zero-padded to 20", five, five20},
        {"no key: the identifier, 32 bytes", Bytes(), Bytes(kId, kId + 32)},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.name);
        Endpoint ep(c.key);
        ep.up();
        ep.s->local_nonce = kLocal;
        LogCapture cap(OHMARA_LOG_INFO);
        testing::internal::CaptureStdout();
        deliver(ep.s, ack_will(ep, 60, {nonce(kRemote)}));
        EXPECT_NE(testing::internal::GetCapturedStdout().find(
                      "@@@@@@@@@@@@@@@ omr_processAcknowledgementMsg hmac_shainit nonce_context="),
                  std::string::npos);
        EXPECT_EQ(ohmara_svc_getStatus(ep.s), OHMARA_STATUS_ACTIVE);
        EXPECT_EQ(dev().statuses, std::vector<int32_t>({OHMARA_STATUS_ACTIVE}));
        EXPECT_EQ(ntohs(ep.s->parent_addr.sin_port), ep.parent_port);
        EXPECT_EQ(ep.s->parent_addr.sin_addr.s_addr, inet_addr("127.0.0.1"));
        EXPECT_EQ(ep.s->last_ack_time, kNow);
        EXPECT_TRUE(cap.has(OHMARA_LOG_INFO, "omr_processAcknowledgementMsg",
                            "*Successfully CONNECTED to 127.0.0.1, changing status from UP to ACTIVE."));
        EXPECT_TRUE(cap.has(OHMARA_LOG_INFO, "omr_processAcknowledgementMsg", "status: ACTIVE"));

        Bytes got;  // one immediate update, unicast, carrying our nonce
        ASSERT_TRUE(recv_datagram(ep.parent, &got));
        EXPECT_TRUE(nothing_pending(ep.parent));
        EXPECT_TRUE(nothing_pending(ep.bcast));
        EXPECT_TRUE(signed_with(got, ep.secret));
        EXPECT_EQ(got[75], kUpdate);
        EXPECT_EQ(tlv_value(got, CV_CORVANE_TLV_TYPE_NONCE), hex("11223344"));
        const Bytes first = nonce_key(kLocal, kRemote, c.secret);
        EXPECT_EQ(nonce_ctx_key(ep.s), first);
        EXPECT_TRUE(accepts_with(ep, first, 1));
        EXPECT_FALSE(accepts_with(ep, ep.secret, 2));

        LogCapture dbg(OHMARA_LOG_DEBUG);
        deliver(ep.s, ack_will(ep, 61, {nonce(kRemote)}));
        deliver(ep.s, ack_will(ep, 62));
        EXPECT_TRUE(nothing_pending(ep.parent));
        EXPECT_EQ(nonce_ctx_key(ep.s), first);
        EXPECT_TRUE(dbg.has(OHMARA_LOG_DEBUG, "omr_processAcknowledgementMsg",
                            "NONCE (local=11223344, remote=a0b0c0d0)[b192f394]\n"))
            << dbg.dump();
        EXPECT_FALSE(dbg.contains("NONCE (local=11223344, remote=a0b0c0d0)\n"));

        deliver(ep.s, ack_will(ep, 63, {nonce(0x01010101)}));
        ASSERT_TRUE(recv_datagram(ep.parent, &got));
        EXPECT_TRUE(nothing_pending(ep.parent));
        EXPECT_TRUE(has_tlv(got, CV_CORVANE_TLV_TYPE_NONCE));
        const Bytes second = nonce_key(kLocal, 0x01010101, c.secret);
        EXPECT_EQ(nonce_ctx_key(ep.s), second);
        EXPECT_TRUE(accepts_with(ep, second, 10));
        EXPECT_FALSE(accepts_with(ep, first, 11));
    }
}

TEST(AckHandling, AcknowledgementsThatChangeNothing) {
    struct Case {
        const char *name;
        int8_t shipment;
        uint8_t cls;
        bool reply_to, shutdown;
        const char *debug;  // expected DEBUG line, or null
    } cases[] = {
        {"WONT for discovery", CV_SHIPMENT_ACK_WONT, CV_CLASS_DISCOVERY, true, false,
         "127.0.0.9 NAK discovery"},
        {"WONT for a query", CV_SHIPMENT_ACK_WONT, CV_CLASS_QUERY, true, false, "127.0.0.9 NAK"},
        {"WILL for a query", CV_SHIPMENT_ACK_WILL, CV_CLASS_QUERY, true, false, nullptr},
        {"ILL", CV_SHIPMENT_ACK_ILL, CV_CLASS_DISCOVERY, true, false, nullptr},
        {"no reply-to", CV_SHIPMENT_ACK_WILL, CV_CLASS_DISCOVERY, false, false,
         "bad packet; reply_to tlv is missing"},
        // While shutting down a WILL only refreshes the last-heard time.
        {"WILL while shutting down", CV_SHIPMENT_ACK_WILL, CV_CLASS_DISCOVERY, true, true, nullptr},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.name);
        Endpoint ep(kKey);
        c.shutdown ? ep.active() : ep.up();
        if (c.shutdown) om_setStatusShutdown(ep.s);
        const int32_t status = ohmara_svc_getStatus(ep.s);
        const uint16_t parent_port = ep.s->parent_addr.sin_port;
        Bytes key = ep.secret;
        if (c.cls != CV_CLASS_DISCOVERY) ep.key_nonce(key = kKey);  // checked with the nonce context
        std::vector<T> tlvs = {nonce(kRemote)};
        if (c.reply_to) tlvs.push_back(reply_to("127.0.0.9", 4000));
        LogCapture cap(OHMARA_LOG_DEBUG);
        deliver(ep.s, message(c.shipment, c.cls, 10, 9, tlvs, key));
        EXPECT_EQ(ohmara_svc_getStatus(ep.s), status);
        EXPECT_EQ(ep.s->last_ack_time, c.shutdown ? kNow : 0);
        EXPECT_EQ(ep.s->parent_addr.sin_port, parent_port);
        EXPECT_EQ(ep.s->remote_nonce, 0u);
        EXPECT_TRUE(nothing_pending(ep.parent));
        EXPECT_TRUE(nothing_pending(ep.bcast));
        if (c.debug != nullptr) {
            EXPECT_TRUE(cap.has(OHMARA_LOG_DEBUG, "omr_processAcknowledgementMsg", c.debug))
                << cap.dump();
        }
    }
}

TEST(AckHandling, AlarmAnswers) {
    constexpr int32_t kNoCallback = -1, kNotAnswered = -2;
    struct Case {
        uint32_t seq;
        int32_t id, status, ok;
        const char *line;
    } cases[] = {
        {40, 9, 2, 1, "alarm_status 'Ok' (2)"},      {40, 9, 5, 1, "alarm_status 'Ok' (5)"},
        {40, 9, 3, 0, "alarm_status 'Failed' (3)"},  {40, 9, 6, 0, "alarm_status 'Failed' (6)"},
        {40, 9, 7, 0, "alarm_status 'Failed' (7)"},
        {40, 9, 4, kNoCallback, "unexpected alarm_status (4)"},
        {40, 9, 1, kNoCallback, "unexpected alarm_status (1)"},
        {40, 9, 8, kNoCallback, "unexpected alarm_status (8)"},
        {40, 9, -3, kNoCallback, "unexpected alarm_status (-3)"},
        {41, 9, 2, kNotAnswered, "got alarm answer 9"},  // another event's sequence number
        {40, 10, 2, kNotAnswered, "deleted request 10"},  // an answer for another request
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.line);
        Endpoint ep(kKey);
        ep.active();
        ep.queue(0, 9, 60, 1, 2);
        ep.s->pending_seq = 40;
        ep.s->pending_id = 9;
        LogCapture cap(OHMARA_LOG_DEBUG);
        // An answer to an older request comes first.
        deliver(ep.s, ack_will(ep, c.seq, {alarm_answer(8, 2), alarm_answer(c.id, c.status)}));
        EXPECT_TRUE(cap.contains(c.line)) << cap.dump();
        EXPECT_TRUE(cap.has(OHMARA_LOG_DEBUG, "omr_processAcknowledgementMsg", "deleted request 8"));
        EXPECT_EQ(dev().alarm_replies, c.ok >= 0 ? Strings{"9 0 " + std::to_string(c.ok)} : Strings{});
        EXPECT_EQ(ep.s->pending_head != nullptr, c.ok == kNotAnswered);
        EXPECT_EQ(ep.s->pending_seq, c.ok == kNotAnswered ? 40u : 0u);
        EXPECT_EQ(ep.s->last_ack_time, kNow);
    }
}

TEST(DiscoveryHandling, DeleteSendsActiveBackToUpOthersChangeNothing) {
    for (uint16_t action : {9, 10, 11, 12, 13}) {
        SCOPED_TRACE(action);
        Endpoint ep(kKey);
        ep.active();
        LogCapture cap(OHMARA_LOG_DEBUG);
        deliver(ep.s, message(CV_SHIPMENT_SEND, CV_CLASS_DISCOVERY, action, 3,
                              {reply_to("127.0.0.1", 5000)}, ep.secret));
        EXPECT_TRUE(cap.has(OHMARA_LOG_DEBUG, "omr_processDiscoveryMsg", "127.0.0.1 discovery event"));
        const bool del = action == 12;
        EXPECT_EQ(ohmara_svc_getStatus(ep.s), del ? OHMARA_STATUS_UP : OHMARA_STATUS_ACTIVE);
        EXPECT_EQ(dev().statuses, del ? std::vector<int32_t>{OHMARA_STATUS_UP} : std::vector<int32_t>{});
        EXPECT_EQ(cap.has(OHMARA_LOG_DEBUG, "omr_processDiscoveryMsg",
                          "*Received discovery delete, restarting discovery process..."),
                  del);
        // Nothing is answered to a discovery message.
        EXPECT_TRUE(nothing_pending(ep.parent));
        EXPECT_TRUE(nothing_pending(ep.bcast));
    }
}

}  // namespace
