// The switch against a real endpoint session driven by hand on loopback:
// the test thread plays the endpoint's service loop one turn at a time
// (send a discovery event, accept one connection, process its message).
#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <atomic>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include <omsdk.h>
#include <omsdk/reception.h>

#include "hand_pdu.h"
#include "switch.h"
#include "switch_endpoint.h"

using hand_pdu::Bytes;
using omsdk_tools::EndpointState;
using omsdk_tools::QueryResult;
using omsdk_tools::Switch;
using omsdk_tools::SwitchConfig;
using omsdk_tools::SwitchEvent;
using switch_test::Endpoint;
using switch_test::kId;

namespace {

constexpr char kSwitchId[] = "fedcba9876543210fedcba9876543210";
constexpr uint32_t kSwitchNonce = 0x5eed1234;

SwitchConfig switch_config(const Bytes &secret) {
    SwitchConfig c;
    c.bind_addr = htonl(INADDR_ANY);
    c.port = 0;  // a free port per test
    c.secret = secret;
    c.source_addr = inet_addr("127.0.0.2");
    c.switch_id = kSwitchId;
    c.nonce = kSwitchNonce;
    c.io_timeout_ms = 2000;
    return c;
}

struct Recorder {
    std::vector<SwitchEvent::Kind> kinds;
    std::vector<std::string> errors;
    std::vector<std::string> keys;  // nonce keys at handshakes
    std::vector<int> alarm_status;
    void operator()(const SwitchEvent &ev) {
        kinds.push_back(ev.kind);
        if (ev.kind == SwitchEvent::Kind::Error) errors.push_back(ev.text);
        if (ev.kind == SwitchEvent::Kind::HandshakeDone) keys.push_back(ev.text);
        if (ev.kind == SwitchEvent::Kind::AlarmAnswered) alarm_status.push_back(ev.alarm_status);
    }
    size_t count(SwitchEvent::Kind k) const {
        size_t n = 0;
        for (SwitchEvent::Kind x : kinds) n += x == k;
        return n;
    }
};

class SwitchTest : public ::testing::Test {
protected:
    // The endpoint's own log lines are not what these tests look at.
    void SetUp() override {
        old_level_ = getLogLevel();
        setLogLevel(OHMARA_LOG_FATAL);
    }
    void TearDown() override {
        ep.reset();
        sw.reset();
        setLogLevel(old_level_);
    }
    uint32_t old_level_ = 0;

    void start(const Bytes &switch_secret, const Bytes &endpoint_key) {
        sw.reset(new Switch(switch_config(switch_secret)));
        sw->set_observer([this](const SwitchEvent &ev) { rec(ev); });
        std::string why;
        ASSERT_TRUE(sw->start(&why)) << why;
        ASSERT_NE(sw->udp_port(), 0);
        ep.reset(new Endpoint(sw->udp_port(), endpoint_key));
        ASSERT_NE(ep->s, nullptr);
    }

    const omsdk_tools::EndpointInfo *info() const { return sw->find(kId); }
    bool in_state(EndpointState st) const { return info() != nullptr && info()->state == st; }

    // Broadcast discovery, acknowledgement, unicast update with the
    // endpoint's nonce: both sides keyed.
    void handshake() {
        ASSERT_EQ(sendDiscoveryEvent(ep->s, 10), 0);
        ASSERT_TRUE(sw->wait_for([&] { return in_state(EndpointState::Acknowledged); }, 2000));
        ASSERT_TRUE(ep->serve_one());
        ASSERT_EQ(ep->status(), OHMARA_STATUS_ACTIVE);
        ASSERT_TRUE(sw->wait_for([&] { return in_state(EndpointState::Active); }, 2000));
        ep->drain();  // the acknowledgement of that update
    }

    // Runs the query on a thread of its own while this thread serves the
    // endpoint.
    QueryResult on_thread(const std::function<QueryResult()> &q) {
        QueryResult r;
        std::thread t([&] { r = q(); });
        ep->serve_one();
        t.join();
        return r;
    }

    Recorder rec;
    std::unique_ptr<Switch> sw;
    std::unique_ptr<Endpoint> ep;
};

TEST_F(SwitchTest, HandshakeDerivesTheEndpointsKey) {
    const Bytes secret = hand_pdu::text("lab-secret");
    start(secret, secret);
    handshake();

    const omsdk_tools::EndpointInfo *e = info();
    ASSERT_NE(e, nullptr);
    EXPECT_EQ(e->name, "lamp-1");
    EXPECT_EQ(e->role, "light");
    EXPECT_EQ(e->domain, "dom");
    EXPECT_EQ(e->keywords, "floor2,desk");
    EXPECT_EQ(e->importance, 40);
    EXPECT_EQ(e->level, 4);
    EXPECT_EQ(ntohs(e->listener.sin_port), ntohs(ep->s->self_addr.sin_port));
    EXPECT_EQ(e->listener.sin_addr.s_addr, inet_addr("127.0.0.1"));
    EXPECT_EQ(e->endpoint_nonce, ep->s->local_nonce);

    // The endpoint recorded the switch's reply-to address: where the switch
    // hears its unicast updates.
    EXPECT_EQ(ep->s->parent_addr.sin_addr.s_addr, inet_addr("127.0.0.2"));
    EXPECT_EQ(ntohs(ep->s->parent_addr.sin_port), sw->udp_port());

    // Same key on both sides, and the one derived independently.
    Bytes data = secret;
    data.resize(20, 0);
    const Bytes want = hand_pdu::openssl_hmac(hand_pdu::be32(kSwitchNonce ^ ep->s->local_nonce),
                                              data.data(), data.size());
    EXPECT_EQ(e->nonce_key, want);
    ASSERT_EQ(ep->s->nonce_ctx.key_len, 20u);
    EXPECT_EQ(Bytes(ep->s->nonce_ctx.key, ep->s->nonce_ctx.key + 20), want);
    ASSERT_EQ(rec.keys.size(), 1u);
    EXPECT_EQ(rec.keys[0], omsdk_tools::to_hex(want));
    EXPECT_TRUE(rec.errors.empty()) << rec.errors[0];
}

TEST_F(SwitchTest, EveryUpdateIsAcknowledgedWithoutRekeying) {
    start(Bytes(), Bytes());  // no secret: the endpoint's identifier is the key
    handshake();
    const Bytes key = info()->nonce_key;
    const uint32_t updates = info()->updates;

    ep->s->last_ack_time = 0;
    ASSERT_EQ(sendDiscoveryEvent(ep->s, 11), 0);  // keepalive, unicast now
    ASSERT_TRUE(sw->wait_for([&] { return info()->updates == updates + 1; }, 2000));
    ASSERT_TRUE(ep->serve_one());
    EXPECT_NE(ep->s->last_ack_time, 0);  // the acknowledgement refreshed it
    EXPECT_EQ(ep->status(), OHMARA_STATUS_ACTIVE);
    EXPECT_EQ(ep->drain(), 0);           // same nonce: no extra update to answer
    EXPECT_EQ(info()->nonce_key, key);
    EXPECT_EQ(rec.count(SwitchEvent::Kind::HandshakeDone), 1u);

    const Bytes want = hand_pdu::openssl_hmac(hand_pdu::be32(kSwitchNonce ^ ep->s->local_nonce),
                                              reinterpret_cast<const uint8_t *>(kId), 32);
    EXPECT_EQ(key, want);
}

TEST_F(SwitchTest, DiscoveryWithTheWrongSecretIsDropped) {
    start(hand_pdu::text("switch-secret"), hand_pdu::text("other-secret"));
    ASSERT_EQ(sendDiscoveryEvent(ep->s, 10), 0);
    ASSERT_TRUE(sw->wait_for([&] { return !rec.errors.empty(); }, 2000));
    EXPECT_NE(rec.errors[0].find("digest mismatch"), std::string::npos) << rec.errors[0];
    EXPECT_EQ(info(), nullptr);
    EXPECT_FALSE(ep->serve_one(200));  // nothing was acknowledged
    EXPECT_EQ(ep->status(), OHMARA_STATUS_UP);
}

TEST_F(SwitchTest, GetReadsAttributesFromTheReply) {
    const Bytes secret = hand_pdu::text("k");
    start(secret, secret);
    handshake();
    QueryResult r = on_thread([&] {
        return sw->get(kId, {14, 13, 12, 9, 16, 39, 43}, omsdk_tools::Selectors());
    });
    ASSERT_TRUE(r.error.empty()) << r.error;
    ASSERT_TRUE(r.will());
    ASSERT_TRUE(r.replied);
    EXPECT_EQ(r.ack.hdr.seq, r.reply.hdr.seq);
    struct Want {
        uint32_t type;
        int64_t num;
    } nums[] = {{14, 4}, {13, 120}, {12, 2}, {17, 40}, {43, 120}};
    for (const Want &w : nums) {
        auto v = r.values_of(w.type);
        ASSERT_EQ(v.size(), 1u) << w.type;
        EXPECT_EQ(v[0].num, w.num) << w.type;
    }
    ASSERT_EQ(r.values_of(9).size(), 1u);
    EXPECT_EQ(r.values_of(9)[0].text, "lamp-1");
    auto vec = r.values_of(39);
    ASSERT_EQ(vec.size(), 1u);
    EXPECT_EQ(vec[0].list, (std::vector<int64_t>{1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11}));
    // The combo entry carries the device's common header.
    for (const omsdk_tools::QueryValue &v : r.values) {
        if (v.type != 43) continue;
        EXPECT_EQ(v.entry.common.name, "lamp-1");
        EXPECT_EQ(v.entry.common.units, 2);
        EXPECT_EQ(v.entry.common.level, 4);
    }
}

TEST_F(SwitchTest, AQueryRefusedForANewPeerAddressGoesAgainOnce) {
    const Bytes secret = hand_pdu::text("k");
    start(secret, secret);
    handshake();
    // The endpoint expects another peer: it resets the first connection
    // unread and takes the next one from the same address.
    ep->s->peer_addr.s_addr = inet_addr("127.0.0.3");
    std::atomic<int> sent{0};
    sw->set_observer([&](const SwitchEvent &ev) {
        if (ev.kind == SwitchEvent::Kind::Sent) ++sent;
    });
    // Each connection is served only once the query is in it, so that the
    // refused one is closed with the query unread.
    auto wait_sent = [&](int n) {
        for (int i = 0; i < 400 && sent.load() < n; ++i) poll(nullptr, 0, 5);
        return sent.load() >= n;
    };
    QueryResult r;
    std::thread t([&] { r = sw->get(kId, {14}, {}); });
    const bool first_sent = wait_sent(1);
    const bool first = ep->serve_one();
    const bool second_sent = wait_sent(2);
    const bool second = ep->serve_one();
    t.join();
    ASSERT_TRUE(first_sent);
    EXPECT_FALSE(first);
    ASSERT_TRUE(second_sent);
    EXPECT_TRUE(second);
    EXPECT_TRUE(r.error.empty()) << r.error;
    ASSERT_TRUE(r.replied);
    EXPECT_EQ(r.values_of(14).at(0).num, 4);
}

TEST_F(SwitchTest, SelectorsDecideWhetherTheEndpointAnswers) {
    const Bytes secret = hand_pdu::text("k");
    start(secret, secret);
    handshake();
    struct Case {
        const char *what;
        omsdk_tools::Selectors sel;
        bool answers;
    };
    std::vector<Case> cases;
    auto add = [&](const char *what, bool answers, auto fill) {
        omsdk_tools::Selectors s;
        fill(s);
        cases.push_back({what, s, answers});
    };
    add("name prefix", true, [](omsdk_tools::Selectors &s) { s.names = {"lamp*"}; });
    add("other name", false, [](omsdk_tools::Selectors &s) { s.names = {"lamp"}; });
    add("role", true, [](omsdk_tools::Selectors &s) { s.roles = {"light"}; });
    add("keyword", true, [](omsdk_tools::Selectors &s) { s.keywords = {"x", "desk"}; });
    add("missing keyword", false, [](omsdk_tools::Selectors &s) { s.keywords = {"floor"}; });
    add("category", false, [](omsdk_tools::Selectors &s) { s.categories = {0}; });
    add("own id", true, [](omsdk_tools::Selectors &s) { s.ids = {kId}; s.names = {"x"}; });
    add("other id", false, [](omsdk_tools::Selectors &s) {
        s.ids = {"ffffffffffffffffffffffffffffffff"};
    });
    add("priority below importance", false, [](omsdk_tools::Selectors &s) { s.priority = 39; });
    add("priority at importance", true, [](omsdk_tools::Selectors &s) { s.priority = 40; });
    for (const Case &c : cases) {
        QueryResult r = on_thread([&] { return sw->get(kId, {14}, c.sel); });
        EXPECT_TRUE(r.error.empty()) << c.what << ": " << r.error;
        EXPECT_EQ(r.silent, !c.answers) << c.what;
        EXPECT_EQ(r.will(), c.answers) << c.what;
    }
}

TEST_F(SwitchTest, SetIsAcknowledgedAndAnnounced) {
    const Bytes secret = hand_pdu::text("k");
    start(secret, secret);
    handshake();
    omsdk_tools::SetItem level, name, role;
    std::string why;
    ASSERT_TRUE(omsdk_tools::parse_set_item("level=7", &level, &why));
    ASSERT_TRUE(omsdk_tools::parse_set_item("name=lamp-7", &name, &why));
    ASSERT_TRUE(omsdk_tools::parse_set_item("role=desk light", &role, &why));
    QueryResult r = on_thread([&] { return sw->set(kId, {level, name, role}, {}); });
    ASSERT_TRUE(r.error.empty()) << r.error;
    EXPECT_TRUE(r.will());
    EXPECT_FALSE(r.replied);
    EXPECT_EQ(switch_test::dev().set_levels, std::vector<int32_t>{7});
    EXPECT_STREQ(ep->s->name, "lamp-7");
    EXPECT_STREQ(ep->s->role, "desk light");
    // The endpoint announces the new values at once.
    ASSERT_TRUE(sw->wait_for([&] { return info()->level == 7; }, 2000));
    EXPECT_EQ(info()->name, "lamp-7");
    EXPECT_EQ(info()->role, "desk light");
    ep->drain();

    omsdk_tools::SetItem bad;
    ASSERT_TRUE(omsdk_tools::parse_set_item("importance=0", &bad, &why));
    r = on_thread([&] { return sw->set(kId, {bad}, {}); });
    ASSERT_TRUE(r.acknowledged) << r.error;
    EXPECT_EQ(r.ack_shipment, -2);  // ACK_WONT
    EXPECT_EQ(ep->s->importance, 40u);
}

TEST_F(SwitchTest, AlarmRequestsAreAnsweredPerMode) {
    const Bytes secret = hand_pdu::text("k");
    start(secret, secret);
    handshake();
    struct Case {
        omsdk_tools::AlarmMode mode;
        int32_t id;
        int status;        // what the switch answered
        int32_t callback;  // the endpoint's result, -1 for none
    } cases[] = {{omsdk_tools::AlarmMode::Ok, 7, 2, 1},
                 {omsdk_tools::AlarmMode::Failed, 8, 3, 0},
                 {omsdk_tools::AlarmMode::Ignore, 9, 0, -1}};
    for (const Case &c : cases) {
        sw->set_alarm_mode(c.mode);
        switch_test::dev().alarm_replies.clear();
        rec.alarm_status.clear();
        ep->s->pending_seq = 0;
        ep->queue_alarm(0, c.id, 30, 1, 2);
        const uint32_t updates = info()->updates;
        ASSERT_EQ(sendDiscoveryEvent(ep->s, 10), 0);
        ASSERT_TRUE(sw->wait_for([&] { return info()->updates == updates + 1; }, 2000));
        ASSERT_TRUE(ep->serve_one());
        ASSERT_EQ(rec.alarm_status.size(), 1u);
        EXPECT_EQ(rec.alarm_status[0], c.status);
        if (c.callback < 0) {
            EXPECT_TRUE(switch_test::dev().alarm_replies.empty());
            EXPECT_NE(ep->s->pending_head, nullptr);  // still waiting for an answer
        } else {
            ASSERT_EQ(switch_test::dev().alarm_replies.size(), 1u);
            EXPECT_EQ(switch_test::dev().alarm_replies[0].id, c.id);
            EXPECT_EQ(switch_test::dev().alarm_replies[0].ok, c.callback);
            EXPECT_EQ(ep->s->pending_head, nullptr);
        }
    }
}

TEST_F(SwitchTest, DeleteSendsTheEndpointBackToDiscovery) {
    const Bytes secret = hand_pdu::text("k");
    start(secret, secret);
    handshake();
    std::string why;
    ASSERT_TRUE(sw->send_delete(kId, &why)) << why;
    EXPECT_TRUE(in_state(EndpointState::Deleted));
    ASSERT_TRUE(ep->serve_one());
    EXPECT_EQ(ep->status(), OHMARA_STATUS_UP);
    // Heard again, it is handshaken again.
    ep->s->remote_nonce = 0;
    handshake();
    EXPECT_EQ(rec.count(SwitchEvent::Kind::HandshakeDone), 2u);
}

TEST_F(SwitchTest, QueriesNeedAHandshake) {
    start(Bytes(), Bytes());
    QueryResult r = sw->get(kId, {14}, {});
    EXPECT_FALSE(r.sent);
    EXPECT_NE(r.error.find("unknown endpoint"), std::string::npos) << r.error;
    ASSERT_EQ(sendDiscoveryEvent(ep->s, 10), 0);
    ASSERT_TRUE(sw->wait_for([&] { return in_state(EndpointState::Acknowledged); }, 2000));
    r = sw->get(kId, {14}, {});
    EXPECT_FALSE(r.sent);
    EXPECT_NE(r.error.find("handshake"), std::string::npos) << r.error;
    ep->drain();
}

}  // namespace
