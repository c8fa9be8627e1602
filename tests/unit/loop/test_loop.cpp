// The service loop: secondsToWait, client requests with their wake-up, and
// the loop's timer decisions driven by the library clock with the loop on a
// thread of its own. Each step pokes the loop with a TCP connection.
#include <gtest/gtest.h>

#include <atomic>
#include <cstdlib>
#include <thread>

#include "engine_harness.h"
#include "log_capture.h"
#include "loop_net.h"
#include "service/loop.h"

namespace {

using engine_test::Endpoint;
using engine_test::nothing_pending;
using engine_test::recv_datagram;
using loop_net::set_now;
using loop_net::wait_until;
using omsdk_test::LogCapture;
using wire_test::Bytes;

constexpr time_t kStart = 1700000000;
constexpr uint16_t kUpdate = CV_ACTION_KVQR_CORVANE_DISCOVERY_DISCOVERY_UPDATE;

uint16_t listen_port(const svc_session *s) { return ntohs(s->self_addr.sin_port); }

// The action of a message on the wire (bytes 74-75, big-endian).
uint16_t wire_action(const Bytes &m) {
    return m.size() >= 80 ? static_cast<uint16_t>(m[74] << 8 | m[75]) : 0xFFFF;
}

TEST(SecondsToWait, IntervalByStatusAndOutstandingRequest) {
    enum { Init = 2, Up = 1, Active = 3, Shutdown = 4 };
    constexpr long kNever = -999999;  // since is 0
    const struct {  // elapsed: now - since
        const char *what; int32_t status; uint32_t pending_seq, discovery, retry;
        long elapsed; uint32_t expected;
    } cases[] = {
        {"active, idle: discovery interval", Active, 0, 180, 30, 0, 180},
        {"active, idle, 179 s on", Active, 0, 180, 30, 179, 1},
        {"active, idle, overdue", Active, 0, 180, 30, 500, 0},
        {"active, custom discovery interval", Active, 0, 600, 30, 100, 500},
        {"active, request outstanding: retry", Active, 7, 180, 30, 0, 30},
        {"up: retry", Up, 0, 180, 30, 10, 20},
        {"up, with a stale pending seq: retry", Up, 7, 180, 30, 31, 0},
        {"initializing: retry", Init, 0, 180, 30, 5, 25},
        {"shutdown: retry", Shutdown, 0, 180, 30, 1, 29},
        {"clock went back one second", Active, 0, 180, 30, -1, 0},
        {"never sent", Active, 0, 180, 30, kNever, 0},
        {"largest interval", Active, 0, 0xFFFFFFFFu, 30, 1, 0xFFFFFFFEu},
    };
    Endpoint e;
    ASSERT_NE(e.s, nullptr);
    omsdk::clock_set_source(loop_net::test_clock);
    set_now(kStart);
    for (const auto &c : cases) {
        e.s->status = c.status;
        e.s->pending_seq = c.pending_seq;
        e.s->discovery_interval = c.discovery;
        e.s->retry_interval = c.retry;
        EXPECT_EQ(secondsToWait(e.s, c.elapsed == kNever ? 0 : kStart - c.elapsed), c.expected)
            << c.what;
    }
}

// ---- client requests: no loop runs, the wake-up is accepted directly ------

// The next connection on the listener within the time-out: the caller's
// address (network order), or 0 when none came.
uint32_t accept_wakeup(int listener, int timeout_ms = 1000) {
    pollfd p{listener, POLLIN, 0};
    if (poll(&p, 1, timeout_ms) != 1) return 0;
    sockaddr_in from{};
    socklen_t len = sizeof from;
    int fd = accept(listener, reinterpret_cast<sockaddr *>(&from), &len);
    if (fd < 0) return 0;
    close(fd);
    return from.sin_addr.s_addr;
}

const struct { const char *func; int32_t (*call)(svc_session *); } kCalls[] = {
    {"ohmara_svc_alarmAdd", [](svc_session *s) { return ohmara_svc_alarmAdd(s, 600, 17, 34); }},
    {"ohmara_svc_alarmClearAll", ohmara_svc_alarmClearAll},
    {"ohmara_svc_discoveryRefresh", ohmara_svc_discoveryRefresh},
};

TEST(ClientRequests, RefusedUnlessActiveThenOneSlotWithSuccessiveIds) {
    Endpoint e;
    ASSERT_NE(e.s, nullptr);
    e.s->request_counter = 41;
    LogCapture cap(OHMARA_LOG_TRACE);
    for (int32_t status : {OHMARA_STATUS_DOWN, OHMARA_STATUS_UP, OHMARA_STATUS_SHUTDOWN}) {
        e.s->status = status;
        for (const auto &c : kCalls) {
            cap.clear();
            EXPECT_EQ(c.call(e.s), -1);
            EXPECT_TRUE(cap.has(OHMARA_LOG_INFO, c.func, "status is not connected"))
                << c.func << " in status " << status;
            EXPECT_EQ(e.s->pending_head, nullptr);
            EXPECT_EQ(e.s->request_counter, 41u);
        }
    }
    EXPECT_EQ(accept_wakeup(e.s->listen_sock, 50), 0u);  // the loop was never woken

    e.s->status = OHMARA_STATUS_DOWN;
    e.active();
    const std::string woke =
        "woke up select() triggered on 127.0.0.1:" + std::to_string(listen_port(e.s)) + " (err=0)";
    const struct { int call; uint32_t type, counter; int32_t id; } steps[] = {
        {0, OMSDK_REQ_ALARM_SET, 42, 42},
        {1, OMSDK_REQ_ALARM_CLEAR_ALL, 42, -1},
        {2, OMSDK_REQ_DISCOVERY_REFRESH, 43, 43},
    };
    for (const auto &n : steps) {
        SCOPED_TRACE(kCalls[n.call].func);
        cap.clear();
        ASSERT_EQ(kCalls[n.call].call(e.s), 0);
        async_request *held = e.s->pending_head;
        ASSERT_NE(held, nullptr);
        EXPECT_EQ(held->type, n.type);
        EXPECT_EQ(held->id, n.id);
        EXPECT_EQ(e.s->request_counter, n.counter);
        if (n.type == OMSDK_REQ_ALARM_SET) {
            EXPECT_EQ(held->seconds, 600u);
            EXPECT_EQ(held->alarm_param1, 17);
            EXPECT_EQ(held->alarm_param2, 34);
        }
        // The loop is woken by a connection from the endpoint's own address.
        EXPECT_EQ(accept_wakeup(e.s->listen_sock), inet_addr("127.0.0.1"));
        EXPECT_TRUE(cap.has(OHMARA_LOG_DEBUG, "omr_markReady", woke)) << cap.dump();
        EXPECT_EQ(e.s->api_callers, 0);
        for (const auto &c : kCalls) {  // one slot: refused, counter unchanged
            cap.clear();
            EXPECT_EQ(c.call(e.s), -1);
            EXPECT_TRUE(cap.has(OHMARA_LOG_INFO, c.func, "request already pending")) << c.func;
            EXPECT_EQ(e.s->pending_head, held);
            EXPECT_EQ(e.s->request_counter, n.counter);
            EXPECT_EQ(accept_wakeup(e.s->listen_sock, 50), 0u);
        }
        om_dequeueLevelEvent(e.s);  // what the loop does with it
    }
}

// ---- the loop on its own thread ------------------------------------------

// A session whose loop runs on a thread; time moves only through set_now. The
// recorded statuses are read only once the loop has ended.
struct Rig {
    Endpoint e;
    LogCapture cap{OHMARA_LOG_TRACE};
    std::thread t;
    std::atomic<bool> done{false};
    int32_t rc = -1;

    Rig() {
        omsdk::clock_set_source(loop_net::test_clock);
        set_now(kStart);
    }
    ~Rig() { stop(); }
    bool start() {
        if (e.s == nullptr) return false;
        om_setStatusInitializing(e.s);
        t = std::thread([this] {
            rc = omr_svc_loop(e.s);
            done = true;
        });
        Bytes d;  // the first pass does not wait: the first broadcast goes out at once
        return wait_until([&] { return ohmara_svc_getStatus(e.s) == OHMARA_STATUS_UP; }) &&
               recv_datagram(e.bcast, &d) && wire_action(d) == kUpdate;
    }
    int32_t stop() {  // the result of ohmara_svc_shutdown
        if (!t.joinable()) return 0;
        int32_t r = ohmara_svc_shutdown(e.s);
        if (!wait_until([this] { return done.load(); }, 5000)) std::abort();  // never hang
        t.join();
        return r;
    }
    // A connection carrying nothing, by default from the switch's address.
    bool poke(const char *from = "127.0.0.2") {
        return loop_net::exchange(from, listen_port(e.s), Bytes());
    }
    // Moves the clock to kStart + t and pokes the loop at that time.
    bool poke_at(time_t t) {
        set_now(kStart + t);
        return poke();
    }
    std::string last_wait() const {
        std::string last;
        for (const auto &l : cap.lines())
            if (l.text.rfind("waitfor_tcp_connect: wait for ", 0) == 0) last = l.text;
        return last;
    }
    // Waits until the loop has started a pass with this time-out.
    bool settles_at(long seconds) {
        const std::string want = "waitfor_tcp_connect: wait for " + std::to_string(seconds);
        return wait_until([&] { return last_wait() == want + " seconds"; });
    }
    // The switch acknowledges discovery: the endpoint turns ACTIVE and sends
    // its nonce to the parent listener at once.
    bool handshake() {
        Bytes ack = engine_test::message(
            CV_SHIPMENT_ACK_WILL, CV_CLASS_DISCOVERY, kUpdate, 500,
            [&](cv_event *ev) {
                engine_test::add_reply_to(ev, "127.0.0.1", e.parent_port);
                engine_test::add_nonce(ev, 0x5EED5EED);
            },
            e.secret);
        Bytes update;
        return loop_net::exchange("127.0.0.2", listen_port(e.s), ack) &&
               ohmara_svc_getStatus(e.s) == OHMARA_STATUS_ACTIVE &&
               recv_datagram(e.parent, &update) && wire_action(update) == kUpdate;
    }
};

TEST(LoopTimers, RetryIntervalWakeUpAndShutdown) {
    Rig r;
    ASSERT_TRUE(r.start());
    ASSERT_TRUE(r.settles_at(30)) << r.last_wait();
    EXPECT_TRUE(r.cap.has(OHMARA_LOG_INFO, "omr_svc_loop",
                          "*Ohmara status:  UP, starting discovery..."));

    ASSERT_TRUE(r.poke_at(29));
    ASSERT_TRUE(r.settles_at(1)) << r.last_wait();
    EXPECT_TRUE(nothing_pending(r.e.bcast));
    ASSERT_TRUE(r.poke_at(30));
    Bytes d;
    ASSERT_TRUE(recv_datagram(r.e.bcast, &d));
    ASSERT_TRUE(r.settles_at(30));
    EXPECT_TRUE(nothing_pending(r.e.bcast));

    // 30 s still to go: a connection from our own address sends all the same.
    ASSERT_TRUE(r.poke("127.0.0.1"));
    ASSERT_TRUE(recv_datagram(r.e.bcast, &d));
    EXPECT_EQ(wire_action(d), kUpdate);
    EXPECT_TRUE(r.cap.has(OHMARA_LOG_DEBUG, "omr_svc_loop", "out of band"));

    // Shutting down from ACTIVE sends an update, then a delete, and ends DOWN.
    ASSERT_TRUE(r.handshake());
    ASSERT_TRUE(r.settles_at(180)) << r.last_wait();
    EXPECT_EQ(r.stop(), 0);
    EXPECT_EQ(r.rc, 0);
    Bytes update, del;
    ASSERT_TRUE(recv_datagram(r.e.parent, &update));
    ASSERT_TRUE(recv_datagram(r.e.parent, &del));
    EXPECT_EQ(wire_action(update), kUpdate);
    EXPECT_EQ(wire_action(del), CV_ACTION_KVQR_CORVANE_DISCOVERY_DELETE);
    EXPECT_TRUE(nothing_pending(r.e.parent));
    EXPECT_EQ(ohmara_svc_getStatus(r.e.s), OHMARA_STATUS_DOWN);
    // initializing, up, active, shutdown, down
    EXPECT_EQ(engine_test::dev().statuses, std::vector<int32_t>({2, 1, 3, 4, 0}));
    EXPECT_TRUE(r.cap.has(OHMARA_LOG_DEBUG, "omr_svc_loop", "sending discovery shutdown event"));
}

TEST(LoopTimers, ActiveUsesDiscoveryIntervalAndDropsAQuietSwitch) {
    Rig r;
    ASSERT_TRUE(r.start());
    ASSERT_TRUE(r.handshake());
    // The handshake's own update does not restart the timer: 180 s from the
    // broadcast at kStart.
    ASSERT_TRUE(r.settles_at(180)) << r.last_wait();
    ASSERT_TRUE(r.poke_at(179));
    ASSERT_TRUE(r.settles_at(1));
    EXPECT_TRUE(nothing_pending(r.e.parent));
    ASSERT_TRUE(r.poke_at(180));
    Bytes d;
    ASSERT_TRUE(recv_datagram(r.e.parent, &d));  // unicast now
    ASSERT_TRUE(r.settles_at(180));

    // 300 s without an acknowledgement is still within the limit, 301 s not.
    ASSERT_TRUE(r.poke_at(300));
    ASSERT_TRUE(r.settles_at(60));
    EXPECT_TRUE(r.cap.has(OHMARA_LOG_DEBUG, "omr_svc_loop", "time since last ACK 300"));
    EXPECT_EQ(ohmara_svc_getStatus(r.e.s), OHMARA_STATUS_ACTIVE);
    ASSERT_TRUE(r.poke_at(301));
    ASSERT_TRUE(wait_until([&] { return ohmara_svc_getStatus(r.e.s) == OHMARA_STATUS_UP; }));
    EXPECT_TRUE(r.cap.has(OHMARA_LOG_INFO, "omr_svc_loop",
                          "*Connected peer 127.0.0.2 is IDLE, status changing from ACTIVE to UP.  "
                          "Restarting discovery..."))
        << r.cap.dump();
    // Back to broadcasting, and the retry interval is long overdue.
    ASSERT_TRUE(recv_datagram(r.e.bcast, &d));
    ASSERT_TRUE(r.settles_at(30));
}

}  // namespace
