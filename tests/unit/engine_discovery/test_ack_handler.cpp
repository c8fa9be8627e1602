// The switch's acknowledgements and discovery messages, delivered as signed
// messages through intake: handshake, nonce key, alarm answers.
#include <arpa/inet.h>

#include <gtest/gtest.h>

#include "crypto/hmac_internal.h"
#include "engine_harness.h"
#include "log_capture.h"

namespace {

using engine_test::Endpoint;
using engine_test::dev;
using wire_test::Bytes;

const Bytes kKey = {'t', 'h', 'e', '-', 's', 'h', 'a', 'r', 'e', 'd', '-', 'k', 'e', 'y',
                    '-', 'o', 'f', '-', 'a', 'l', 'l', '!'};  // 22 bytes: read as 20
constexpr uint32_t kLocal = 0x11223344;
constexpr uint32_t kRemote = 0xA0B0C0D0;

// An ACK_WILL for a discovery event, as the switch sends it, from its
// address 127.0.0.1 at the parent listener's port.
Bytes ack_will(const Endpoint &ep, uint32_t seq, const std::function<void(cv_event *)> &more,
               int8_t shipment = CV_SHIPMENT_ACK_WILL, uint8_t cls = CV_CLASS_DISCOVERY) {
    return engine_test::message(
        shipment, cls, CV_ACTION_KVQR_CORVANE_DISCOVERY_DISCOVERY_UPDATE, seq,
        [&](cv_event *ev) {
            engine_test::add_reply_to(ev, "127.0.0.1", ep.parent_port);
            if (more) more(ev);
        },
        ep.secret);
}

Bytes nonce_ctx_key(const svc_session *s) {
    if (s->nonce_ctx.key == nullptr) return Bytes();
    return Bytes(s->nonce_ctx.key, s->nonce_ctx.key + s->nonce_ctx.key_len);
}

// A class 13 message is accepted (and warned about) only when it carries a
// valid digest: proof of the key the nonce context holds.
bool accepts_with(Endpoint &ep, const Bytes &key, uint32_t seq) {
    omsdk_test::LogCapture cap(OHMARA_LOG_WARN);
    engine_test::deliver(ep.s, engine_test::message(CV_SHIPMENT_SEND, CV_CLASS_REPLY, 10, seq,
                                                    nullptr, key));
    return cap.contains("unexpected event type 13");
}

TEST(AckHandling, HandshakeAttachesKeysAndAnnouncesOwnNonce) {
    Endpoint ep(kKey);
    ASSERT_NE(ep.s, nullptr);
    ep.up();
    ep.s->local_nonce = kLocal;
    dev().next_seq = 61;
    omsdk_test::LogCapture cap(OHMARA_LOG_INFO);
    testing::internal::CaptureStdout();

    engine_test::deliver(ep.s, ack_will(ep, 60, [](cv_event *ev) {
        engine_test::add_nonce(ev, kRemote);
    }));

    std::string out = testing::internal::GetCapturedStdout();
    EXPECT_NE(out.find("@@@@@@@@@@@@@@@ omr_processAcknowledgementMsg hmac_shainit nonce_context="),
              std::string::npos);
    EXPECT_EQ(ohmara_svc_getStatus(ep.s), OHMARA_STATUS_ACTIVE);
    EXPECT_EQ(dev().statuses, std::vector<int32_t>({OHMARA_STATUS_ACTIVE}));
    EXPECT_EQ(ntohs(ep.s->parent_addr.sin_port), ep.parent_port);
    EXPECT_EQ(ep.s->parent_addr.sin_addr.s_addr, inet_addr("127.0.0.1"));
    EXPECT_EQ(ep.s->last_ack_time, engine_test::kNow);
    EXPECT_TRUE(cap.has(OHMARA_LOG_INFO, "omr_processAcknowledgementMsg",
                        "*Successfully CONNECTED to 127.0.0.1, changing status from UP to "
                        "ACTIVE."));
    EXPECT_TRUE(cap.has(OHMARA_LOG_INFO, "omr_processAcknowledgementMsg", "status: ACTIVE"));

    // The immediate update went unicast to the switch, with our nonce.
    Bytes got;
    ASSERT_TRUE(engine_test::recv_datagram(ep.parent, &got));
    EXPECT_TRUE(engine_test::nothing_pending(ep.parent));
    EXPECT_TRUE(engine_test::nothing_pending(ep.bcast));
    EXPECT_TRUE(engine_test::signed_with(got, kKey));
    auto tlvs = engine_test::wire_tlvs(got);
    const engine_test::WireTlv *nonce = engine_test::find_tlv(tlvs, CV_CORVANE_TLV_TYPE_NONCE);
    ASSERT_NE(nonce, nullptr);
    EXPECT_EQ(nonce->value, wire_test::hex("11223344"));
    EXPECT_EQ(got[75], CV_ACTION_KVQR_CORVANE_DISCOVERY_DISCOVERY_UPDATE);

    // The nonce key: HMAC keyed with the seed over the first 20 key bytes.
    Bytes secret20(kKey.begin(), kKey.begin() + 20);
    Bytes expected = engine_test::nonce_key(kLocal, kRemote, secret20);
    EXPECT_EQ(nonce_ctx_key(ep.s), expected);
    EXPECT_TRUE(accepts_with(ep, expected, 1));
    EXPECT_FALSE(accepts_with(ep, kKey, 2));
}

TEST(AckHandling, NonceRulesSameNonceNothingChangedNonceRekeys) {
    Endpoint ep(kKey);
    ASSERT_NE(ep.s, nullptr);
    ep.up();
    ep.s->local_nonce = kLocal;
    Bytes got;
    Bytes secret20(kKey.begin(), kKey.begin() + 20);

    engine_test::deliver(ep.s, ack_will(ep, 1, [](cv_event *ev) {
        engine_test::add_nonce(ev, kRemote);
    }));
    ASSERT_TRUE(engine_test::recv_datagram(ep.parent, &got));
    const Bytes first = nonce_ctx_key(ep.s);
    ASSERT_EQ(first, engine_test::nonce_key(kLocal, kRemote, secret20));

    // The same nonce again: no key derivation, no extra update.
    {
        omsdk_test::LogCapture cap(OHMARA_LOG_DEBUG);
        engine_test::deliver(ep.s, ack_will(ep, 2, [](cv_event *ev) {
            engine_test::add_nonce(ev, kRemote);
        }));
        EXPECT_TRUE(engine_test::nothing_pending(ep.parent));
        EXPECT_EQ(nonce_ctx_key(ep.s), first);
        EXPECT_TRUE(cap.has(OHMARA_LOG_DEBUG, "omr_processAcknowledgementMsg",
                            "NONCE (local=11223344, remote=a0b0c0d0)[b192f394]\n"))
            << cap.dump();
        EXPECT_FALSE(cap.contains("NONCE (local=11223344, remote=a0b0c0d0)\n"));
    }
    // No nonce at all: nothing derived either.
    engine_test::deliver(ep.s, ack_will(ep, 3, nullptr));
    EXPECT_TRUE(engine_test::nothing_pending(ep.parent));
    EXPECT_EQ(nonce_ctx_key(ep.s), first);

    // A changed nonce: a new key and exactly one immediate update.
    engine_test::deliver(ep.s, ack_will(ep, 4, [](cv_event *ev) {
        engine_test::add_nonce(ev, 0x01010101);
    }));
    ASSERT_TRUE(engine_test::recv_datagram(ep.parent, &got));
    EXPECT_TRUE(engine_test::nothing_pending(ep.parent));
    EXPECT_NE(engine_test::find_tlv(engine_test::wire_tlvs(got), CV_CORVANE_TLV_TYPE_NONCE),
              nullptr);
    Bytes second = engine_test::nonce_key(kLocal, 0x01010101, secret20);
    EXPECT_EQ(nonce_ctx_key(ep.s), second);
    EXPECT_TRUE(accepts_with(ep, second, 10));
    EXPECT_FALSE(accepts_with(ep, first, 11));
}

TEST(AckHandling, SecretLengthUsedForTheNonceKey) {
    struct Case {
        const char *name;
        Bytes key;     // given at creation, empty for none
        Bytes secret;  // what the derivation must read
    };
    const Bytes id(engine_test::kId, engine_test::kId + 32);
    Bytes five = {'a', 'b', 'c', 'd', 'e'};
    Bytes five_padded = five;
    five_padded.resize(20, 0);
    const Case cases[] = {
        {"no key: the identifier, 32 bytes", Bytes(), id},
        {"short key zero-padded to 20", five, five_padded},
        {"long key cut to 20", kKey, Bytes(kKey.begin(), kKey.begin() + 20)},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.name);
        Endpoint ep(c.key);
        ASSERT_NE(ep.s, nullptr);
        ep.up();
        ep.s->local_nonce = kLocal;
        engine_test::deliver(ep.s, ack_will(ep, 1, [](cv_event *ev) {
            engine_test::add_nonce(ev, kRemote);
        }));
        Bytes got;
        ASSERT_TRUE(engine_test::recv_datagram(ep.parent, &got));
        EXPECT_TRUE(engine_test::signed_with(got, ep.secret));
        Bytes expected = engine_test::nonce_key(kLocal, kRemote, c.secret);
        EXPECT_EQ(nonce_ctx_key(ep.s), expected);
        EXPECT_TRUE(accepts_with(ep, expected, 5));
    }
}

TEST(AckHandling, AcknowledgementsThatChangeNothing) {
    struct Case {
        const char *name;
        int8_t shipment;
        uint8_t cls;
        bool reply_to;
        const char *debug;  // expected DEBUG line, or null
    };
    const Case cases[] = {
        {"WONT for discovery", CV_SHIPMENT_ACK_WONT, CV_CLASS_DISCOVERY, true,
         "127.0.0.1 NAK discovery"},
        {"WONT for a query", CV_SHIPMENT_ACK_WONT, CV_CLASS_QUERY, true, "127.0.0.1 NAK"},
        {"WILL for a query", CV_SHIPMENT_ACK_WILL, CV_CLASS_QUERY, true, nullptr},
        {"ILL", CV_SHIPMENT_ACK_ILL, CV_CLASS_DISCOVERY, true, nullptr},
        {"no reply-to", CV_SHIPMENT_ACK_WILL, CV_CLASS_DISCOVERY, false,
         "bad packet; reply_to tlv is missing"},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.name);
        Endpoint ep(kKey);
        ASSERT_NE(ep.s, nullptr);
        ep.up();
        Bytes key = ep.secret;
        if (c.cls != CV_CLASS_DISCOVERY) {
            // Other classes are checked with the nonce context: give it a
            // key the test knows.
            omsdk::hmac_release(&ep.s->nonce_ctx);
            hmac_shainit(&ep.s->nonce_ctx, kKey.data(), static_cast<uint16_t>(kKey.size()));
            key = kKey;
        }
        Bytes msg = engine_test::message(
            c.shipment, c.cls, 10, 9,
            [&](cv_event *ev) {
                if (c.reply_to) engine_test::add_reply_to(ev, "127.0.0.1", ep.parent_port);
                engine_test::add_nonce(ev, kRemote);
            },
            key);
        omsdk_test::LogCapture cap(OHMARA_LOG_DEBUG);
        engine_test::deliver(ep.s, msg);
        EXPECT_EQ(ohmara_svc_getStatus(ep.s), OHMARA_STATUS_UP);
        EXPECT_EQ(ep.s->last_ack_time, 0);
        EXPECT_EQ(ep.s->parent_addr.sin_port, 0);
        EXPECT_EQ(ep.s->remote_nonce, 0u);
        EXPECT_TRUE(engine_test::nothing_pending(ep.parent));
        EXPECT_TRUE(engine_test::nothing_pending(ep.bcast));
        if (c.debug != nullptr) {
            EXPECT_TRUE(cap.has(OHMARA_LOG_DEBUG, "omr_processAcknowledgementMsg", c.debug))
                << cap.dump();
        }
    }
}

TEST(AckHandling, WillWhileShuttingDownOnlyRefreshesLastHeard) {
    Endpoint ep(kKey);
    ASSERT_NE(ep.s, nullptr);
    ep.active();
    om_setStatusShutdown(ep.s);
    const uint16_t parent_before = ep.s->parent_addr.sin_port;
    engine_test::deliver(ep.s, engine_test::message(
                                   CV_SHIPMENT_ACK_WILL, CV_CLASS_DISCOVERY, 10, 5,
                                   [](cv_event *ev) {
                                       engine_test::add_reply_to(ev, "127.0.0.9", 4000);
                                       engine_test::add_nonce(ev, kRemote);
                                   },
                                   ep.secret));
    EXPECT_EQ(ohmara_svc_getStatus(ep.s), OHMARA_STATUS_SHUTDOWN);
    EXPECT_EQ(ep.s->parent_addr.sin_port, parent_before);
    EXPECT_EQ(ep.s->remote_nonce, 0u);
    EXPECT_EQ(ep.s->last_ack_time, engine_test::kNow);
    EXPECT_TRUE(engine_test::nothing_pending(ep.parent));
}

TEST(AckHandling, AlarmAnswerStatusTable) {
    struct Case {
        int32_t status;
        int32_t ok;  // -1: no callback
        const char *line;
    };
    const Case cases[] = {
        {2, 1, "alarm_status 'Ok' (2)"},        {5, 1, "alarm_status 'Ok' (5)"},
        {3, 0, "alarm_status 'Failed' (3)"},    {6, 0, "alarm_status 'Failed' (6)"},
        {7, 0, "alarm_status 'Failed' (7)"},    {4, -1, "unexpected alarm_status (4)"},
        {1, -1, "unexpected alarm_status (1)"}, {8, -1, "unexpected alarm_status (8)"},
        {-3, -1, "unexpected alarm_status (-3)"},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.line);
        Endpoint ep(kKey);
        ASSERT_NE(ep.s, nullptr);
        ep.active();
        ep.queue(0, 9, 60, 1, 2);
        ep.s->pending_seq = 40;
        ep.s->pending_id = 9;
        omsdk_test::LogCapture cap(OHMARA_LOG_DEBUG);
        engine_test::deliver(ep.s, ack_will(ep, 40, [&](cv_event *ev) {
            engine_test::add_alarm_answer(ev, 8, 2);  // an older request
            engine_test::add_alarm_answer(ev, 9, c.status);
        }));
        EXPECT_TRUE(cap.contains(c.line)) << cap.dump();
        EXPECT_TRUE(cap.has(OHMARA_LOG_DEBUG, "omr_processAcknowledgementMsg",
                            "deleted request 8"));
        EXPECT_TRUE(cap.has(OHMARA_LOG_DEBUG, "omr_processAcknowledgementMsg",
                            "got alarm answer 9"));
        if (c.ok < 0) {
            EXPECT_TRUE(dev().alarm_replies.empty());
        } else {
            ASSERT_EQ(dev().alarm_replies.size(), 1u);
            EXPECT_EQ(dev().alarm_replies[0].id, 9);
            EXPECT_EQ(dev().alarm_replies[0].type, 0u);
            EXPECT_EQ(dev().alarm_replies[0].ok, c.ok);
        }
        // Answered in every case: the slot is free, nothing outstanding.
        EXPECT_EQ(ep.s->pending_head, nullptr);
        EXPECT_EQ(ep.s->pending_seq, 0u);
        EXPECT_EQ(ep.s->last_ack_time, engine_test::kNow);
    }
}

TEST(AckHandling, AlarmAnswerForAnotherEventOrRequestLeavesItPending) {
    struct Case {
        const char *name;
        uint32_t seq;
        int32_t id;
    };
    const Case cases[] = {
        {"sequence number of another event", 41, 9},
        {"answer for another request", 40, 10},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.name);
        Endpoint ep(kKey);
        ASSERT_NE(ep.s, nullptr);
        ep.active();
        ep.queue(2, 9, 0, 0, 0);
        ep.s->pending_seq = 40;
        ep.s->pending_id = 9;
        engine_test::deliver(ep.s, ack_will(ep, c.seq, [&](cv_event *ev) {
            engine_test::add_alarm_answer(ev, c.id, 2);
        }));
        EXPECT_TRUE(dev().alarm_replies.empty());
        EXPECT_NE(ep.s->pending_head, nullptr);
        EXPECT_EQ(ep.s->pending_seq, 40u);
        EXPECT_EQ(ep.s->last_ack_time, engine_test::kNow);
    }
}

TEST(DiscoveryHandling, DeleteSendsActiveBackToUpOthersChangeNothing) {
    struct Case {
        uint16_t action;
        int32_t status_after;
    };
    const Case cases[] = {
        {9, OHMARA_STATUS_ACTIVE},
        {10, OHMARA_STATUS_ACTIVE},
        {11, OHMARA_STATUS_ACTIVE},
        {12, OHMARA_STATUS_UP},
        {13, OHMARA_STATUS_ACTIVE},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.action);
        Endpoint ep(kKey);
        ASSERT_NE(ep.s, nullptr);
        ep.active();
        dev().statuses.clear();
        omsdk_test::LogCapture cap(OHMARA_LOG_DEBUG);
        engine_test::deliver(ep.s, engine_test::message(
                                       CV_SHIPMENT_SEND, CV_CLASS_DISCOVERY, c.action, 3,
                                       [&](cv_event *ev) {
                                           engine_test::add_reply_to(ev, "127.0.0.1", 5000);
                                       },
                                       ep.secret));
        EXPECT_EQ(ohmara_svc_getStatus(ep.s), c.status_after);
        EXPECT_TRUE(cap.has(OHMARA_LOG_DEBUG, "omr_processDiscoveryMsg",
                            "127.0.0.1 discovery event"));
        if (c.action == 12) {
            EXPECT_EQ(dev().statuses, std::vector<int32_t>({OHMARA_STATUS_UP}));
            EXPECT_TRUE(cap.has(OHMARA_LOG_DEBUG, "omr_processDiscoveryMsg",
                                "*Received discovery delete, restarting discovery process..."));
        } else {
            EXPECT_TRUE(dev().statuses.empty());
        }
        // Nothing is answered to a discovery message.
        EXPECT_TRUE(engine_test::nothing_pending(ep.parent));
        EXPECT_TRUE(engine_test::nothing_pending(ep.bcast));
    }
}

}  // namespace
