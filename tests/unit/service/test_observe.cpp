// SPDX-License-Identifier: Apache-2.0
// Observing a running endpoint: the test switch (127.0.0.2) and hand-made
// messages send a known mix, and every counter, every rejection event and
// the capture's packet count must match it exactly, under both profiles.
// A second thread reads the counters all along (the thread-sanitizer build
// runs this too).
#include <gtest/gtest.h>

#include <atomic>
#include <map>
#include <set>
#include <thread>

#include "live.h"
#include "engine/discovery.h"
#include "transport/reception.h"

namespace {

using namespace ep_test;
using loop_net::wait_until;

struct Seen {
    std::mutex mu;
    std::map<int32_t, int> reasons;  // rejections by reason
    std::vector<int32_t> statuses;
    std::set<std::thread::id> threads;  // where the callback ran
    int foreign_peer = 0;               // rejections not from 127.0.0.2
};

void on_event(void *ctx, const ohmara_event *ev) {
    Seen *seen = static_cast<Seen *>(ctx);
    std::lock_guard<std::mutex> g(seen->mu);
    seen->threads.insert(std::this_thread::get_id());
    if (ev->kind == OHMARA_EVENT_STATUS_CHANGED) seen->statuses.push_back(ev->status);
    if (ev->kind != OHMARA_EVENT_REJECTED) return;
    ++seen->reasons[ev->reason];
    if (ev->peer != inet_addr("127.0.0.2") || ev->text == nullptr || ev->text[0] == '\0')
        ++seen->foreign_peer;
}

// The pcapng file's packet blocks and whether a comment text is in it.
size_t packet_blocks(const std::string &path, const char *comment, bool *has_comment) {
    FILE *f = fopen(path.c_str(), "rb");
    std::vector<uint8_t> b;
    for (int c; f != nullptr && (c = fgetc(f)) != EOF;) b.push_back(uint8_t(c));
    if (f != nullptr) fclose(f);
    size_t n = 0;
    for (size_t at = 0; at + 8 <= b.size();) {
        uint32_t type, len;
        memcpy(&type, &b[at], 4), memcpy(&len, &b[at + 4], 4);
        if (len < 12 || at + len > b.size()) return SIZE_MAX;
        n += type == 6;
        at += len;
    }
    *has_comment = std::search(b.begin(), b.end(), comment, comment + strlen(comment)) != b.end();
    return n;
}

class Observe : public ::testing::TestWithParam<uint32_t> {};

TEST_P(Observe, EveryCounterEventAndPacketOfAKnownMix) {
    QuietLog quiet;
    live_test::Live l(text("observe-secret"), live_test::Mode::Startup, GetParam());
    svc_session *s = l.s;
    ASSERT_NE(s, nullptr);
    omsdk_tools::Switch &sw = *l.sw;
    int switch_sent = 0;
    sw.set_observer([&](const omsdk_tools::SwitchEvent &ev) {
        switch_sent += ev.kind == omsdk_tools::SwitchEvent::Kind::Sent;
    });
    Seen seen;
    ASSERT_EQ(ohmara_svc_setEventCallback(s, on_event, &seen), 0);
    const std::string path = testing::TempDir() + "observe-" + std::to_string(getpid()) + ".pcapng";
    ASSERT_EQ(ohmara_svc_startCapture(s, path.c_str(), 0), 0);
    omsdk::set_receive_timeout_ms(300);
    const uint16_t port = l.port;

    ASSERT_TRUE(l.start());
    const std::thread::id loop_id = l.loop.get_id();
    std::atomic<bool> reader_ok{true};
    std::thread reader([&] {  // any thread, while the loop runs
        uint64_t last = 0;
        while (!l.done) {
            ohmara_counters k{};
            if (ohmara_svc_getCounters(s, &k, sizeof k) == 0 && k.messages_received < last)
                reader_ok = false;
            last = k.messages_received;
        }
    });
    auto stop = [&] { l.stop(), reader.join(); };

    ASSERT_TRUE(sw.wait_for([&] { return sw.count_in(omsdk_tools::EndpointState::Active); }, 3000))
        << (stop(), "no handshake");
    const omsdk_tools::EndpointInfo *ep = sw.find(kId);
    // Queries: a GET, a SET taken, a SET refused (importance 0), a filtered GET.
    omsdk_tools::SetItem level, zero;
    level.type = CV_CORVANE_TLV_TYPE_LEVEL_CURRENT, level.num = 3;
    zero.type = CV_CORVANE_TLV_TYPE_IMPORTANCE, zero.num = 0;
    omsdk_tools::Selectors nobody;
    nobody.names = {"nobody"};
    EXPECT_TRUE(sw.get(kId, {CV_CORVANE_TLV_TYPE_LEVEL_CURRENT}, {}).replied);
    EXPECT_TRUE(sw.set(kId, {level}, {}).will());
    EXPECT_EQ(sw.set(kId, {zero}, {}).ack_shipment, CV_SHIPMENT_ACK_WONT);
    EXPECT_TRUE(sw.get(kId, {CV_CORVANE_TLV_TYPE_LEVEL_CURRENT}, nobody).silent);
    // An alarm request, answered by the switch.
    EXPECT_EQ(ohmara_svc_alarmAdd(s, 30, 1, 2), 0);
    EXPECT_TRUE(sw.wait_for([] { return app().copy(app().replies).size() == 1; }, 3000));

    // Hand-made messages under the switch's identifier, one per rejection.
    const Bytes &key = ep->nonce_key;
    auto notify = [&](const Bytes &k) {
        return message(sw.take_seq(), kSwitchId, 0, 100, CV_CLASS_NOTIFY, 1, {}, k);
    };
    const Bytes unexpected = notify(key);
    Bytes bad_header = notify(key), oversized = notify(key);
    bad_header[9] = 0xF1;                        // no such mode
    oversized[76] = 0x06, oversized[77] = 0x00;  // announces 1536 TLV bytes
    oversized.resize(80);
    const struct {
        Bytes msg;
        bool hold;
    } sends[] = {
        {unexpected, false},                   // unexpected class
        {unexpected, false},                   // the same again: stale sequence number
        {notify(text("not the key")), false},  // bad digest
        {bad_header, false},                   // bad security header
        {frame(kSwitchId, sw.take_seq(), 0, 100, CV_CLASS_QUERY, 11, 1, 5, {}, key), false},
        {oversized, false},                                        // malformed (above), oversized
        {Bytes(oversized.begin(), oversized.begin() + 20), true},  // receive time-out
    };
    sw.run_for(200);  // the last acknowledgements of updates
    for (const auto &m : sends) EXPECT_TRUE(loop_net::exchange("127.0.0.2", port, m.msg, m.hold));
    // Once ACTIVE another host is refused, unread.
    EXPECT_TRUE(loop_net::exchange("127.0.0.3", port, notify(key)));

    const size_t kSends = sizeof sends / sizeof sends[0];
    const uint64_t received = uint64_t(switch_sent) + kSends;
    ohmara_counters k{};
    wait_until([&] {
        ohmara_svc_getCounters(s, &k, sizeof k);
        return k.messages_received >= received && k.connections_refused >= 1;
    });
    ASSERT_EQ(ohmara_svc_stopCapture(s), 0);
    ohmara_counters part{};
    part.set_refused = 77;  // a shorter struct: only what fits is written
    ASSERT_EQ(ohmara_svc_getCounters(s, &part, offsetof(ohmara_counters, set_refused)), 0);
    const uint64_t heard_switch = ep->updates;
    const uint32_t switch_ip = ntohl(inet_addr("127.0.0.2"));
    stop();

    const struct {
        const char *what;
        uint64_t got, want;
    } rows[] = {
        {"discovery_sent", k.discovery_sent, heard_switch},
        {"connections_accepted", k.connections_accepted, received},
        {"connections_refused", k.connections_refused, 1},
        {"messages_received", k.messages_received, received},
        {"messages_accepted", k.messages_accepted, received - 8},
        {"bad_security_header", k.rejected_bad_security_header, 1},
        {"bad_digest", k.rejected_bad_digest, 1},
        {"malformed", k.rejected_malformed, 1},
        {"stale_sequence", k.rejected_stale_sequence, 1},
        {"filtered", k.rejected_filtered, 1},
        {"oversized", k.rejected_oversized, 1},
        {"receive_timeout", k.rejected_receive_timeout, 1},
        {"unexpected_class", k.rejected_unexpected_class, 1},
        {"get_answered", k.get_answered, 1},
        {"set_accepted", k.set_accepted, 1},
        {"set_refused", k.set_refused, 1},
        {"acks_sent", k.acks_sent, 3},
        {"alarms_sent", k.alarms_sent, 1},
        {"alarms_answered", k.alarms_answered, 1},
        {"handshakes_completed", k.handshakes_completed, 1},
        {"seconds_since_switch_heard", k.seconds_since_switch_heard > 2 ? 99u : 0u, 0},
        {"parent_address", k.parent_address, switch_ip},
        {"parent_port", k.parent_port, sw.udp_port()},
        {"short struct: last field copied", part.acks_sent + part.get_answered, 0 + 1},
        {"short struct: nothing past it", part.set_refused, 77},
    };
    for (const auto &r : rows) EXPECT_EQ(r.got, r.want) << r.what;
    EXPECT_TRUE(reader_ok);

    // One event per rejection, with its reason, from the connection's peer.
    std::map<int32_t, int> want;
    for (int32_t reason = 1; reason < OHMARA_REASON_COUNT; ++reason) want[reason] = 1;
    EXPECT_EQ(seen.reasons, want);
    EXPECT_EQ(seen.foreign_peer, 0);
    EXPECT_EQ(seen.statuses, (std::vector<int32_t>{OHMARA_STATUS_INITIALIZING, OHMARA_STATUS_UP,
                                                   OHMARA_STATUS_ACTIVE, OHMARA_STATUS_SHUTDOWN,
                                                   OHMARA_STATUS_DOWN}));
    EXPECT_EQ(seen.threads, std::set<std::thread::id>{loop_id});  // shutdown's event too

    // Every message read (all but the two never whole), every datagram and
    // every reply flush (one per acknowledgement) is a packet.
    bool mismatch = false;
    EXPECT_EQ(packet_blocks(path, "digest mismatch", &mismatch),
              received - 2 + k.discovery_sent + k.acks_sent);
    EXPECT_TRUE(mismatch);
    remove(path.c_str());
}

INSTANTIATE_TEST_SUITE_P(Profiles, Observe,
                         ::testing::Values(OHMARA_PROFILE_REFERENCE, OHMARA_PROFILE_HARDENED));

}  // namespace
