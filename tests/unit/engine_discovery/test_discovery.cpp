// Discovery events as they arrive on the wire: content, order, signature,
// destination, and the pending client request they carry.
#include <arpa/inet.h>

#include <gtest/gtest.h>

#include "engine_harness.h"
#include "log_capture.h"

namespace {

using engine_test::Endpoint;
using engine_test::dev;
using wire_test::Builder;
using wire_test::Bytes;

const Bytes kKey = {'s', 'h', 'a', 'r', 'e', 'd', '-', 's', 'e', 'c', 'r', 'e',
                    't', '-', 'o', 'f', '-', 'd', 'o', 'm', 'a', 'i', 'n'};

void set_device_values() {
    dev().units = 3;
    dev().usage = 0x0102;
    dev().caliber = 0x0A0B0C0D;
    dev().category = 7;
    dev().level = 55;
    for (int i = 0; i < 11; ++i) {
        dev().usage_vector[i] = static_cast<uint16_t>(0x0100 + i);
        dev().delta_vector[i] = i - 5;
    }
}

// The common tail of every discovery event: name, role, keywords, nanny.
Builder &identity_tlvs(Builder &b, const char *nanny_hex) {
    return b.h("00000009 0000000e 00000000").s("nm")
        .h("00000007 0000000e 00000000").s("rl")
        .h("0000000a 00000012 00000000").s("k1,k2").h("00")
        .h("00000022 00000010 00000000").h(nanny_hex);
}

Builder &own_id_tlv(Builder &b) {
    return b.h("00000001 00000030 00000000").s(engine_test::kId).h("00000001");
}

TEST(DiscoverySend, UpdateWhileUpIsBroadcastByteForByte) {
    Endpoint ep(kKey);
    ASSERT_NE(ep.s, nullptr);
    ep.up();
    set_device_values();
    dev().next_seq = 0x01020304;
    omsdk_test::LogCapture cap(OHMARA_LOG_INFO);

    ASSERT_EQ(sendDiscoveryEvent(ep.s, CV_ACTION_KVQR_CORVANE_DISCOVERY_DISCOVERY_UPDATE), 0);

    Bytes got;
    ASSERT_TRUE(engine_test::recv_datagram(ep.bcast, &got));
    Builder b;
    b.h("00 02 0000 00000000 00 11 0014")
        .h("0000000000000000000000000000000000000000")
        .h("01020304").s(engine_test::kId)
        .h("01 00 64 0a 11 0e 000a 0148 000f")
        .h("00000008 0000000f 00000000").s("dom")
        .h("00000017 0000001c 00000000").raw(ep.reply_to());
    identity_tlvs(b, "00000000")
        .h("0000000d 0000000e 00000000 0102")
        .h("0000000c 0000000d 00000000 03")
        .h("00000026 00000010 00000000 0a0b0c0d")
        .h("00000027 00000022 00000000")
        .h("0100 0101 0102 0103 0104 0105 0106 0107 0108 0109 010a")
        .h("00000024 00000038 00000000")
        .h("fffffffb fffffffc fffffffd fffffffe ffffffff 00000000")
        .h("00000001 00000002 00000003 00000004 00000005")
        .h("0000000e 0000000d 00000000 37")
        .h("00000010 0000000d 00000000 2a")
        .h("00000033 00000010 00000000 00000007");
    own_id_tlv(b);
    wire_test::sign(b.b, kKey);
    EXPECT_EQ(got, b.b);
    EXPECT_TRUE(cap.has(OHMARA_LOG_INFO, "sendDiscoveryEvent",
                        "broadcast 408 bytes to 255.255.255.255:" + std::to_string(ep.port)))
        << cap.dump();
    EXPECT_TRUE(engine_test::nothing_pending(ep.parent));
}

TEST(DiscoverySend, ActiveKeepaliveCarriesNonceAndAlarmByUnicast) {
    Endpoint ep(kKey);
    ASSERT_NE(ep.s, nullptr);
    ep.active();
    ohmara_svc_configPowerSource(ep.s, 1);
    ep.s->local_nonce = 0x0A1B2C3D;
    ep.queue(0, 7, 300, 0x11, 0x22);
    dev().next_seq = 500;
    omsdk_test::LogCapture cap(OHMARA_LOG_INFO);

    ASSERT_EQ(sendDiscoveryEvent(ep.s, CV_ACTION_KVQR_CORVANE_DISCOVERY_KEEPALIVE), 0);

    Bytes got;
    ASSERT_TRUE(engine_test::recv_datagram(ep.parent, &got));
    Builder b;
    b.h("00 02 0000 00000000 00 14 0014")
        .h("0000000000000000000000000000000000000000")
        .h("000001f4").s(engine_test::kId)
        .h("01 00 64 0a 11 0e 000b 00c3 0009")
        .h("00000008 0000000f 00000000").s("dom")
        .h("00000017 0000001c 00000000").raw(ep.reply_to())
        .h("0000002f 00000010 00000000 0a1b2c3d")
        .h("00000032 0000001a 00000000 0000012c 22 11 00000007 00000001");
    identity_tlvs(b, "00000000");
    own_id_tlv(b);
    wire_test::sign(b.b, kKey);
    EXPECT_EQ(got, b.b);
    EXPECT_TRUE(cap.has(OHMARA_LOG_INFO, "sendDiscoveryEvent",
                        "unicast 275 bytes to 127.0.0.1:" + std::to_string(ep.parent_port)))
        << cap.dump();
    EXPECT_TRUE(engine_test::nothing_pending(ep.bcast));
    // Carried, not consumed: the request waits in its slot for the answer.
    EXPECT_EQ(ep.s->pending_seq, 500u);
    EXPECT_EQ(ep.s->pending_id, 7);
    ASSERT_NE(ep.s->pending_head, nullptr);
}

struct OrderCase {
    const char *name;
    int32_t status;  // how far the session is taken
    uint8_t action;
    uint32_t nanny;
    bool unicast;
    std::vector<uint32_t> types;
};

TEST(DiscoverySend, TlvOrderAndDestinationByStatusActionAndNanny) {
    const std::vector<OrderCase> cases = {
        {"up update", OHMARA_STATUS_UP, 10, 0, false,
         {8, 23, 9, 7, 10, 34, 13, 12, 38, 39, 36, 14, 16, 51, 1}},
        {"up update, no metering", OHMARA_STATUS_UP, 10, 0x20, false,
         {8, 23, 9, 7, 10, 34, 14, 16, 51, 1}},
        {"up update, other nanny bits", OHMARA_STATUS_UP, 10, 0x40, false,
         {8, 23, 9, 7, 10, 34, 13, 12, 38, 39, 36, 14, 16, 51, 1}},
        {"up keepalive", OHMARA_STATUS_UP, 11, 0, false, {8, 23, 9, 7, 10, 34, 1}},
        {"up delete", OHMARA_STATUS_UP, 12, 0, false, {8, 23, 9, 7, 10, 34, 1}},
        {"active update", OHMARA_STATUS_ACTIVE, 10, 0, true,
         {8, 23, 47, 9, 7, 10, 34, 13, 12, 38, 39, 36, 14, 16, 51, 1}},
        {"active update, no metering", OHMARA_STATUS_ACTIVE, 10, 0x20, true,
         {8, 23, 47, 9, 7, 10, 34, 14, 16, 51, 1}},
        {"active keepalive", OHMARA_STATUS_ACTIVE, 11, 0, true, {8, 23, 47, 9, 7, 10, 34, 1}},
        {"shutdown delete", OHMARA_STATUS_SHUTDOWN, 12, 0, true, {8, 23, 9, 7, 10, 34, 1}},
    };
    for (const OrderCase &c : cases) {
        SCOPED_TRACE(c.name);
        Endpoint ep(kKey);
        ASSERT_NE(ep.s, nullptr);
        if (c.status == OHMARA_STATUS_UP) ep.up();
        if (c.status == OHMARA_STATUS_ACTIVE || c.status == OHMARA_STATUS_SHUTDOWN) ep.active();
        if (c.status == OHMARA_STATUS_SHUTDOWN) om_setStatusShutdown(ep.s);
        ep.s->nanny_bits = c.nanny;
        dev().next_seq = 77;

        ASSERT_EQ(sendDiscoveryEvent(ep.s, c.action), 0);
        // Every value callback and the sequence number, whatever the action.
        EXPECT_EQ(dev().calls, 8);

        Bytes got;
        ASSERT_TRUE(engine_test::recv_datagram(c.unicast ? ep.parent : ep.bcast, &got));
        EXPECT_TRUE(engine_test::nothing_pending(c.unicast ? ep.bcast : ep.parent));
        EXPECT_EQ(engine_test::types_of(engine_test::wire_tlvs(got)), c.types);
        ASSERT_GE(got.size(), 80u);
        EXPECT_EQ(got[69], 0x00);  // SEND
        EXPECT_EQ(got[70], 100);
        EXPECT_EQ(got[73], CV_CLASS_DISCOVERY);
        EXPECT_EQ(got[74], 0);
        EXPECT_EQ(got[75], c.action);
        EXPECT_EQ(Bytes(got.begin() + 32, got.begin() + 36), wire_test::hex("0000004d"));
        EXPECT_TRUE(engine_test::signed_with(got, kKey));
    }
}

TEST(DiscoverySend, WithoutKeyTheIdentifierSignsAndMainsPowerSetsComm4) {
    Endpoint ep;
    ASSERT_NE(ep.s, nullptr);
    ep.up();
    ohmara_svc_configPowerSource(ep.s, 1);
    ASSERT_EQ(sendDiscoveryEvent(ep.s, 11), 0);
    Bytes got;
    ASSERT_TRUE(engine_test::recv_datagram(ep.bcast, &got));
    ASSERT_GE(got.size(), 80u);
    EXPECT_EQ(Bytes(got.begin(), got.begin() + 12),
              wire_test::hex("00 02 0000 00000000 00 14 0014"));
    EXPECT_TRUE(engine_test::signed_with(got, Bytes(engine_test::kId, engine_test::kId + 32)));
    EXPECT_FALSE(engine_test::signed_with(got, kKey));
}

TEST(DiscoverySend, FailedBroadcastIsOnlyLogged) {
    // DOWN: broadcast was never switched on, so the kernel refuses the send.
    Endpoint ep(kKey);
    ASSERT_NE(ep.s, nullptr);
    omsdk_test::LogCapture cap(OHMARA_LOG_INFO);
    EXPECT_EQ(sendDiscoveryEvent(ep.s, 10), 0);
    EXPECT_TRUE(cap.has(OHMARA_LOG_INFO, "sendDiscoveryEvent",
                        "broadcast -1 bytes to 255.255.255.255:" + std::to_string(ep.port)))
        << cap.dump();
    EXPECT_TRUE(engine_test::nothing_pending(ep.bcast));
}

struct RequestCase {
    const char *name;
    uint32_t type;
    int32_t id;
    uint32_t seconds;
    uint8_t p1, p2;
    const char *alarm_hex;  // expected alarm value, null when no TLV
};

TEST(DiscoverySend, EachRequestKindIsCarriedAsItsAlarmValue) {
    const RequestCase cases[] = {
        {"alarm set", 0, 12, 0x01020304, 0xA1, 0xB2, "01020304 b2 a1 0000000c 00000001"},
        {"alarm clear-all", 1, -1, 0, 0, 0, "00000000 00 00 ffffffff 00000004"},
        // The record's id does not matter for clear-all.
        {"clear-all, stray id", 1, 5, 0, 0, 0, "00000000 00 00 ffffffff 00000004"},
        {"discovery refresh", 2, 13, 0, 0, 0, nullptr},
    };
    for (const RequestCase &c : cases) {
        SCOPED_TRACE(c.name);
        Endpoint ep(kKey);
        ASSERT_NE(ep.s, nullptr);
        ep.active();
        ep.queue(c.type, c.id, c.seconds, c.p1, c.p2);
        dev().next_seq = 900;
        ASSERT_EQ(sendDiscoveryEvent(ep.s, 10), 0);
        Bytes got;
        ASSERT_TRUE(engine_test::recv_datagram(ep.parent, &got));
        auto tlvs = engine_test::wire_tlvs(got);
        const engine_test::WireTlv *alarm = engine_test::find_tlv(tlvs, CV_CORVANE_TLV_TYPE_ALARM);
        if (c.alarm_hex == nullptr) {
            EXPECT_EQ(alarm, nullptr);
        } else {
            ASSERT_NE(alarm, nullptr);
            EXPECT_EQ(alarm->value, wire_test::hex(c.alarm_hex));
            // Right after the nonce.
            EXPECT_EQ(tlvs[3].type, uint32_t{CV_CORVANE_TLV_TYPE_ALARM});
        }
        // Every kind counts as the outstanding request.
        EXPECT_EQ(ep.s->pending_seq, 900u);
        EXPECT_EQ(ep.s->pending_id, c.id);
        EXPECT_NE(ep.s->pending_head, nullptr);
    }
}

TEST(DiscoverySend, RequestWaitsWhileUpAndIsCarriedOnceActive) {
    Endpoint ep(kKey);
    ASSERT_NE(ep.s, nullptr);
    ep.up();
    ep.queue(0, 3, 60, 1, 2);
    dev().next_seq = 10;
    ASSERT_EQ(sendDiscoveryEvent(ep.s, 10), 0);
    Bytes got;
    ASSERT_TRUE(engine_test::recv_datagram(ep.bcast, &got));
    EXPECT_EQ(engine_test::find_tlv(engine_test::wire_tlvs(got), CV_CORVANE_TLV_TYPE_ALARM),
              nullptr);
    EXPECT_EQ(ep.s->pending_seq, 0u);

    om_setStatusActive(ep.s);
    ep.s->parent_addr.sin_family = AF_INET;
    ep.s->parent_addr.sin_port = htons(ep.parent_port);
    ep.s->parent_addr.sin_addr.s_addr = inet_addr("127.0.0.1");
    ASSERT_EQ(sendDiscoveryEvent(ep.s, 10), 0);
    ASSERT_TRUE(engine_test::recv_datagram(ep.parent, &got));
    EXPECT_NE(engine_test::find_tlv(engine_test::wire_tlvs(got), CV_CORVANE_TLV_TYPE_ALARM),
              nullptr);
    EXPECT_EQ(ep.s->pending_seq, 11u);
}

TEST(DiscoverySend, UnansweredRequestIsDroppedOnTheSecondFollowingEvent) {
    Endpoint ep(kKey);
    ASSERT_NE(ep.s, nullptr);
    ep.active();
    ep.queue(0, 21, 60, 1, 2);
    dev().next_seq = 0xFFFFFFF0u;
    omsdk_test::LogCapture cap(OHMARA_LOG_WARN);
    Bytes got;

    ASSERT_EQ(sendDiscoveryEvent(ep.s, 10), 0);  // N carries it
    ASSERT_TRUE(engine_test::recv_datagram(ep.parent, &got));
    EXPECT_NE(engine_test::find_tlv(engine_test::wire_tlvs(got), 50), nullptr);

    ASSERT_EQ(sendDiscoveryEvent(ep.s, 10), 0);  // N+1: not sent again, still waiting
    ASSERT_TRUE(engine_test::recv_datagram(ep.parent, &got));
    EXPECT_EQ(engine_test::find_tlv(engine_test::wire_tlvs(got), 50), nullptr);
    EXPECT_NE(ep.s->pending_head, nullptr);
    EXPECT_TRUE(dev().alarm_replies.empty());
    EXPECT_FALSE(cap.contains("Dropping request"));

    ASSERT_EQ(sendDiscoveryEvent(ep.s, 10), 0);  // N+2: given up
    ASSERT_TRUE(engine_test::recv_datagram(ep.parent, &got));
    EXPECT_EQ(engine_test::find_tlv(engine_test::wire_tlvs(got), 50), nullptr);
    EXPECT_TRUE(cap.has(OHMARA_LOG_WARN, "sendDiscoveryEvent",
                        "no response to Wake Up request.  Dropping request"));
    ASSERT_EQ(dev().alarm_replies.size(), 1u);
    EXPECT_EQ(dev().alarm_replies[0].id, 21);
    EXPECT_EQ(dev().alarm_replies[0].type, 0u);
    EXPECT_EQ(dev().alarm_replies[0].ok, 0);
    EXPECT_EQ(ep.s->pending_head, nullptr);
    EXPECT_EQ(ep.s->pending_seq, 0u);

    // The slot is free again: the next request rides on the next event.
    ep.queue(2, 22, 0, 0, 0);
    ASSERT_EQ(sendDiscoveryEvent(ep.s, 10), 0);
    ASSERT_TRUE(engine_test::recv_datagram(ep.parent, &got));
    EXPECT_EQ(ep.s->pending_seq, 0xFFFFFFF3u);
    EXPECT_EQ(ep.s->pending_id, 22);
}

TEST(DiscoverySend, RequestSlotOperations) {
    Endpoint ep(kKey);
    ASSERT_NE(ep.s, nullptr);
    EXPECT_EQ(om_getQueueRequest(ep.s), nullptr);
    ep.queue(1, -1, 0, 0, 0);
    omsdk_test::LogCapture cap(OHMARA_LOG_DEBUG);
    async_request *r = om_getQueueRequest(ep.s);
    EXPECT_EQ(r, ep.s->pending_head);
    EXPECT_TRUE(cap.has(OHMARA_LOG_DEBUG, "om_getQueueRequest",
                        "Client has requested an alarm in 0 seconds"));
    EXPECT_EQ(om_dequeueLevelEvent(ep.s), 1u);
    EXPECT_EQ(ep.s->pending_head, nullptr);
}

}  // namespace
