// The service loop on a thread of its own, its clock moved by the test: the
// timer by status, the wake-up, the drop to UP of a quiet switch, shutdown.
// Each step pokes the loop with an empty connection.
#include <gtest/gtest.h>

#include <atomic>
#include <thread>

#include "endpoint.h"
#include "service/loop.h"

namespace {

using namespace ep_test;
using loop_net::set_now;
using loop_net::wait_until;

constexpr time_t kStart = 1700000000;
constexpr uint16_t kUpdate = CV_ACTION_KVQR_CORVANE_DISCOVERY_DISCOVERY_UPDATE;

TEST(SecondsToWait, IntervalByStatusAndOutstandingRequest) {
    enum { Init = 2, Up = 1, Active = 3, Shutdown = 4 };
    constexpr long kNever = -999999;  // since is 0
    const struct {                    // elapsed: now - since
        int32_t status;
        uint32_t pending_seq, discovery;
        long elapsed;
        uint32_t expected;
    } cases[] = {
        {Active, 0, 180, 0, 180},    {Active, 0, 180, 179, 1},
        {Active, 0, 180, 500, 0},    {Active, 0, 600, 100, 500},
        {Active, 7, 180, 0, 30},     {Up, 0, 180, 10, 20},
        {Up, 7, 180, 31, 0},         {Init, 0, 180, 5, 25},
        {Shutdown, 0, 180, 1, 29},   {Active, 0, 180, -1, 0},
        {Active, 0, 180, kNever, 0}, {Active, 0, 0xFFFFFFFFu, 1, 0xFFFFFFFEu},
    };
    Endpoint e;
    omsdk::clock_set_source(loop_net::test_clock);
    set_now(kStart);
    for (const auto &c : cases) {
        e.s->status = c.status;
        e.s->pending_seq = c.pending_seq;
        e.s->discovery_interval = c.discovery;
        EXPECT_EQ(secondsToWait(e.s, c.elapsed == kNever ? 0 : kStart - c.elapsed), c.expected)
            << &c - cases;
    }
}

// The loop on a thread; the statuses it reports are read once it has ended.
struct Rig {
    Endpoint e;
    LogCapture cap{OHMARA_LOG_DEBUG};
    std::thread t;
    std::atomic<bool> done{false};
    int32_t rc = -1;

    Rig() {
        omsdk::clock_set_source(loop_net::test_clock);
        set_now(kStart);
    }
    ~Rig() { stop(); }
    bool start() {  // the first pass does not wait: the first broadcast goes out at once
        om_setStatusInitializing(e.s);
        t = std::thread([this] { rc = omr_svc_loop(e.s), done = true; });
        Bytes d;
        return wait_until([&] { return ohmara_svc_getStatus(e.s) == OHMARA_STATUS_UP; }) &&
               recv_datagram(e.bcast.fd, &d) && wire_action(d) == kUpdate;
    }
    int32_t stop() {
        if (!t.joinable()) return 0;
        int32_t r = ohmara_svc_shutdown(e.s);
        if (!wait_until([this] { return done.load(); }, 5000)) std::abort();  // never hang
        t.join();
        return r;
    }
    bool poke(const char *from = "127.0.0.2") {
        return loop_net::exchange(from, e.listen_port(), Bytes());
    }
    bool poke_at(time_t t) { return set_now(kStart + t), poke(); }
    // True once the loop waits for a connection with this time-out.
    bool settles_at(long seconds) {
        const std::string want =
            "waitfor_tcp_connect: wait for " + std::to_string(seconds) + " seconds";
        return wait_until([&] {
            std::string last;
            for (const auto &l : cap.lines())
                if (l.text.rfind("waitfor_tcp_connect: wait for ", 0) == 0) last = l.text;
            return last == want;
        });
    }
    // Acknowledged: ACTIVE, and the nonce goes to the parent at once.
    bool handshake() {
        Bytes update;
        return loop_net::exchange("127.0.0.2", e.listen_port(), e.ack()) &&
               ohmara_svc_getStatus(e.s) == OHMARA_STATUS_ACTIVE &&
               recv_datagram(e.parent.fd, &update) && wire_action(update) == kUpdate;
    }
};

TEST(Loop, RetryIntervalWakeUpAndShutdown) {
    Rig r;
    ASSERT_TRUE(r.start());
    ASSERT_TRUE(r.settles_at(30));
    ASSERT_TRUE(r.poke_at(29));
    ASSERT_TRUE(r.settles_at(1));
    EXPECT_TRUE(nothing_pending(r.e.bcast.fd));
    ASSERT_TRUE(r.poke_at(30));
    EXPECT_TRUE(recv_datagram(r.e.bcast.fd));
    ASSERT_TRUE(r.settles_at(30));
    // 30 s still to go: a connection from our own address sends all the same.
    ASSERT_TRUE(r.poke("127.0.0.1"));
    EXPECT_TRUE(recv_datagram(r.e.bcast.fd));
    ASSERT_TRUE(r.settles_at(30));
    EXPECT_TRUE(nothing_pending(r.e.bcast.fd));

    // Shutting down from ACTIVE sends an update, then a delete, and ends DOWN.
    ASSERT_TRUE(r.handshake());
    ASSERT_TRUE(r.settles_at(180));
    EXPECT_EQ(r.stop(), 0);
    EXPECT_EQ(r.rc, 0);
    Bytes update, del;
    ASSERT_TRUE(recv_datagram(r.e.parent.fd, &update) && recv_datagram(r.e.parent.fd, &del));
    EXPECT_EQ(wire_action(update), kUpdate);
    EXPECT_EQ(wire_action(del), CV_ACTION_KVQR_CORVANE_DISCOVERY_DELETE);
    EXPECT_TRUE(nothing_pending(r.e.parent.fd));
    EXPECT_EQ(ohmara_svc_getStatus(r.e.s), OHMARA_STATUS_DOWN);
    EXPECT_EQ(app().copy(app().statuses), std::vector<int32_t>({2, 1, 3, 4, 0}));
}

TEST(Loop, ActiveUsesDiscoveryIntervalAndDropsAQuietSwitch) {
    Rig r;
    ASSERT_TRUE(r.start());
    ASSERT_TRUE(r.handshake());
    // The handshake's own update does not restart the timer: 180 s from kStart.
    ASSERT_TRUE(r.settles_at(180));
    ASSERT_TRUE(r.poke_at(179));
    ASSERT_TRUE(r.settles_at(1));
    EXPECT_TRUE(nothing_pending(r.e.parent.fd));
    ASSERT_TRUE(r.poke_at(180));
    EXPECT_TRUE(recv_datagram(r.e.parent.fd));  // unicast now
    ASSERT_TRUE(r.settles_at(180));
    // 300 s without an acknowledgement is still within the limit, 301 s not.
    ASSERT_TRUE(r.poke_at(300));
    ASSERT_TRUE(r.settles_at(60));
    EXPECT_EQ(ohmara_svc_getStatus(r.e.s), OHMARA_STATUS_ACTIVE);
    ASSERT_TRUE(r.poke_at(301));
    ASSERT_TRUE(wait_until([&] { return ohmara_svc_getStatus(r.e.s) == OHMARA_STATUS_UP; }));
    // Back to broadcasting, and the retry interval is long overdue.
    EXPECT_TRUE(recv_datagram(r.e.bcast.fd));
    ASSERT_TRUE(r.settles_at(30));
}

}  // namespace
