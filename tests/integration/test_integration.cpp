// SPDX-License-Identifier: Apache-2.0
// End to end: one endpoint (127.0.0.1) against the test switch, run both
// ways: ohmara_svc_startup on a thread of its own, and turns made by a poll()
// loop on a thread (ohmara_svc_open, _getWait, _turn, _close). The switch which hears its
// broadcasts on 0.0.0.0 at a port of its own and connects from 127.0.0.2. Its life, client
// requests, and what a connection may bring besides proper messages. The
// library's clock is moved by the test, never waited for.
#include <gtest/gtest.h>

#include <poll.h>

#include <thread>

#include "live.h"
#include "transport/reception.h"

namespace {

using namespace live_test;
using loop_net::exchange;
using loop_net::set_now;
using loop_net::wait_until;
using omsdk_tools::DecodedPdu;
using omsdk_tools::QueryResult;
constexpr time_t kStart = 1800000000;
const Bytes kSecret = text("shared-secret");

// The switch's observer runs on the test's thread only; the clock moves
// between two passes, never during one.
struct World : live_test::Live {
    explicit World(Mode m) : Live(kSecret, m) {
        omsdk::clock_set_source(loop_net::test_clock);
        omsdk::clock_set_offset(0);
        set_now(kStart);
        sw->set_observer([this](const omsdk_tools::SwitchEvent &ev) {
            if (ev.pdu != nullptr && ev.kind == omsdk_tools::SwitchEvent::Kind::Received &&
                ev.pdu->hdr.cls == CV_CLASS_DISCOVERY && ev.pdu->hdr.shipment == CV_SHIPMENT_SEND)
                heard.push_back(*ev.pdu);
        });
    }
    ~World() {
        if (loop.joinable()) stop();
        omsdk::clock_set_source(nullptr);
    }
    bool ok() const { return s != nullptr; }
    const omsdk_tools::EndpointInfo *endpoint() { return sw->find(kId); }
    bool poke() { return exchange("127.0.0.2", port, Bytes()); }
    // Waits until the loop waits again: what comes next gets a pass of its own.
    bool idle(const omsdk_test::LogCapture &cap) {
        return poke() && wait_until([&] {
                   if (mode == Mode::Turns) return waiting.load();
                   auto lines = cap.lines();
                   return !lines.empty() &&
                          lines.back().text.rfind("waitfor_tcp_connect: wait for ", 0) == 0;
               });
    }
    bool tick(time_t seconds) { return poke() && (loop_net::advance(seconds), poke()); }
    bool hear(size_t n) {
        return sw->wait_for([&] { return heard.size() >= n; }, 3000);
    }
    std::vector<DecodedPdu> heard;  // discovery events the switch heard
};

using omsdk_test::LogCapture;
constexpr uint32_t kLevel = CV_CORVANE_TLV_TYPE_LEVEL_CURRENT, kNonce = CV_CORVANE_TLV_TYPE_NONCE;

int64_t num(const QueryResult &r, uint32_t type) {
    auto v = r.values_of(type);
    return v.empty() ? -1 : v[0].num;
}
omsdk_tools::SetItem item(const char *text) {
    omsdk_tools::SetItem it;
    std::string why;
    EXPECT_TRUE(omsdk_tools::parse_set_item(text, &it, &why)) << why;
    return it;
}
std::vector<int32_t> statuses() { return app().copy(app().statuses); }

// Both ways see the same bytes: every test runs in both.
class Both : public ::testing::TestWithParam<Mode> {};
INSTANTIATE_TEST_SUITE_P(Mode, Both, ::testing::Values(Mode::Startup, Mode::Turns),
                         [](const auto &i) {
                             return std::string(i.param == Mode::Startup ? "Startup" : "Turns");
                         });

#define START(w)         \
    World w(GetParam()); \
    ASSERT_TRUE(w.ok() && w.start())

TEST_P(Both, LifecycleStartupHandshakeQueriesDeleteAndShutdown) {
    LogCapture cap(OHMARA_LOG_DEBUG);
    START(w);
    EXPECT_EQ(app().listen_port.load(), w.port);

    // Acknowledged: ACTIVE on both sides, with a key the GET below proves.
    ASSERT_TRUE(w.attached());
    const Bytes key = w.endpoint()->nonce_key;

    // GET: acknowledged WILL, then the reply.
    QueryResult g = w.sw->get(kId, {kLevel, 13}, {});
    ASSERT_TRUE(g.will() && g.replied && g.error.empty()) << g.error;
    EXPECT_EQ(std::vector<int64_t>({num(g, kLevel), num(g, 13)}),
              std::vector<int64_t>({4, 120}));  // level, usage

    // SET: WILL, the application is told, and an update shows the values.
    const size_t before_set = w.heard.size();
    QueryResult st = w.sw->set(kId, {item("level=3"), item("role=desk light")}, {});
    EXPECT_TRUE(st.will() && !st.replied) << st.error;
    EXPECT_EQ(app().copy(app().levels_set), std::vector<int32_t>({3}));
    ASSERT_TRUE(w.hear(before_set + 1));
    ASSERT_NE(w.heard.back().find(kLevel), nullptr);
    EXPECT_EQ(w.heard.back().find(kLevel)->value.num, 3);
    EXPECT_EQ(w.endpoint()->role, "desk light");

    // A delete: UP, broadcasting when the retry interval has passed.
    std::string why;
    ASSERT_TRUE(w.sw->send_delete(kId, &why)) << why;
    ASSERT_TRUE(wait_until([&] { return w.status() == OHMARA_STATUS_UP; }));
    const size_t before_retry = w.heard.size();
    ASSERT_TRUE(w.tick(30));
    ASSERT_TRUE(w.hear(before_retry + 1));
    EXPECT_EQ(w.heard[before_retry].find(kNonce), nullptr);
    ASSERT_TRUE(wait_until([&] { return w.status() == OHMARA_STATUS_ACTIVE; }));
    // Same nonces, same key: the nonce rides on the next periodic update.
    ASSERT_TRUE(w.tick(180));
    ASSERT_TRUE(w.attached());
    EXPECT_EQ(w.level(), 3);
    EXPECT_EQ(w.endpoint()->nonce_key, key);

    // Shutdown from this thread: one update, then the shutdown event.
    ASSERT_TRUE(w.idle(cap));
    const size_t before_stop = w.heard.size();
    EXPECT_EQ(w.stop(), 0);
    EXPECT_EQ(w.rc, 0);
    ASSERT_TRUE(w.hear(before_stop + 2));
    EXPECT_EQ(w.heard[before_stop].hdr.action, CV_ACTION_KVQR_CORVANE_DISCOVERY_DISCOVERY_UPDATE);
    EXPECT_EQ(w.heard[before_stop + 1].hdr.action, CV_ACTION_KVQR_CORVANE_DISCOVERY_DELETE);
    EXPECT_EQ(w.endpoint()->state, omsdk_tools::EndpointState::Left);
    EXPECT_EQ(statuses(), std::vector<int32_t>({2, 1, 3, 1, 3, 4, 0}));
}

// Every query answered while application threads make requests and read
// the session (the thread-sanitizer build runs this); no descriptor left
// behind (leaks: the sanitizer's).
TEST_P(Both, SoakTwoThousandQueriesWhileTheApplicationCalls) {
    QuietLog quiet(OHMARA_LOG_WARN);
    START(w);
    ASSERT_TRUE(w.attached());
    const std::vector<uint32_t> types = {kLevel, 13, 12, 9, 7};
    int failed = 0;
    auto run = [&](int count) {
        for (int i = 0; i < count; ++i) {
            QueryResult r = w.sw->get(kId, types, {});
            failed += !r.replied || r.values.size() != types.size();
        }
    };
    run(100);               // warm-up
    ASSERT_TRUE(w.poke());  // the loop holds no connection now
    const auto fds = open_fds();
    std::atomic<bool> stop{false};
    std::atomic<int> accepted{0}, bad_reads{0};
    std::vector<std::thread> apps;
    for (int t = 0; t < 2; ++t)
        apps.emplace_back([&, t] {
            while (!stop) {
                // A refresh holds the request slot until the clock moves: once an alarm
                // has been answered.
                const bool refresh = t == 1 && !app().copy(app().replies).empty();
                accepted += (refresh ? ohmara_svc_discoveryRefresh(w.s)
                                     : ohmara_svc_alarmAdd(w.s, 60, 1, 2)) == 0;
                const int32_t st = ohmara_svc_getStatus(w.s);
                uint32_t len = 0, copied = 0;
                const void *name = ohmara_svc_getAttribute(w.s, OHMARA_ATTR_NAME, &len);
                char copy[16];
                bad_reads += st != OHMARA_STATUS_ACTIVE || name == nullptr || len != 7 ||
                             memcmp(name, "lamp-1", 7) != 0 ||
                             ohmara_svc_copyAttribute(w.s, OHMARA_ATTR_NAME, copy, sizeof copy,
                                                      &copied) != 0 ||
                             copied != 7 || memcmp(copy, "lamp-1", 7) != 0;
                std::this_thread::sleep_for(std::chrono::milliseconds(2));
            }
        });
    run(1000);
    EXPECT_TRUE(w.sw->wait_for([] { return !app().copy(app().replies).empty(); }, 3000));
    run(1000);
    stop = true;
    for (std::thread &a : apps) a.join();
    ASSERT_TRUE(w.poke());
    EXPECT_EQ(failed, 0);
    EXPECT_EQ(bad_reads, 0);
    EXPECT_GT(accepted, 0);
    for (const Reply &r : app().copy(app().replies)) EXPECT_EQ(std::get<2>(r), 1) << std::get<0>(r);
    EXPECT_EQ(open_fds(), fds);
    EXPECT_EQ(w.status(), OHMARA_STATUS_ACTIVE);
}

}  // namespace
