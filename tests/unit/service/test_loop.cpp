// SPDX-License-Identifier: Apache-2.0
// The service loop on a thread of its own, its clock moved by the test: the
// timer by status, the wake-up, the drop to UP of a quiet switch, shutdown.
// Each step pokes the loop with an empty connection.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/resource.h>

#include <atomic>
#include <thread>

#include "live.h"
#include "service/loop.h"
#include "transport/reception.h"

namespace {

using namespace ep_test;
using loop_net::set_now;
using loop_net::wait_until;
using Clock = std::chrono::steady_clock;

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

TEST(Loop, RetryIntervalWakeUpDiscoveryIntervalIdleLimitAndAShutdownWhoseWakeUpFails) {
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

    // ACTIVE: the handshake's own update does not restart the timer (180 s
    // from the last one, at 30 s), updates go by unicast.
    ASSERT_TRUE(r.handshake());
    ASSERT_TRUE(r.poke_at(209));
    ASSERT_TRUE(r.settles_at(1));
    EXPECT_TRUE(nothing_pending(r.e.parent.fd));
    ASSERT_TRUE(r.poke_at(210));
    EXPECT_TRUE(recv_datagram(r.e.parent.fd));
    ASSERT_TRUE(r.settles_at(180));
    // 300 s without an acknowledgement (since 30 s) is still within the
    // limit, 301 s not: back to broadcasting, the retry interval long overdue.
    ASSERT_TRUE(r.poke_at(330));
    ASSERT_TRUE(r.settles_at(60));
    EXPECT_EQ(ohmara_svc_getStatus(r.e.s), OHMARA_STATUS_ACTIVE);
    ASSERT_TRUE(r.poke_at(331));
    ASSERT_TRUE(wait_until([&] { return ohmara_svc_getStatus(r.e.s) == OHMARA_STATUS_UP; }));
    EXPECT_TRUE(recv_datagram(r.e.bcast.fd));
    ASSERT_TRUE(r.settles_at(30));

    // A shutdown whose wake-up connection is refused (the listener's port as
    // the session knows it is closed) still ends the loop within about a
    // second, not after the retry interval; the delete goes to the parent.
    Fd closed(bound_socket("127.0.0.1", SOCK_STREAM));  // bound, never listening
    const uint16_t port = r.e.s->self_addr.sin_port;
    r.e.s->self_addr.sin_port = htons(bound_port(closed.fd));
    EXPECT_EQ(ohmara_svc_shutdown(r.e.s), -1);
    const bool ended = wait_until([&] { return r.done.load(); }, 3000);
    r.e.s->self_addr.sin_port = port;
    if (!ended) r.poke();  // a loop still asleep: wake it so that the test can end
    ASSERT_TRUE(ended);
    EXPECT_EQ(r.rc, 0);
    Bytes d, last;
    while (recv_datagram(r.e.parent.fd, &d, 50)) last = d;
    EXPECT_EQ(wire_action(last), CV_ACTION_KVQR_CORVANE_DISCOVERY_DELETE);
    EXPECT_EQ(ohmara_svc_getStatus(r.e.s), OHMARA_STATUS_DOWN);
    EXPECT_EQ(app().copy(app().statuses), std::vector<int32_t>({2, 1, 3, 1, 4, 0}));
}

// Several threads shut down at once, and one more call comes after start-up
// has returned and freed the session: none may touch freed memory (the
// sanitizer build sees it) and the late one is refused.
TEST(Shutdown, ConcurrentCallersAndACallAfterStartupReturned) {
    QuietLog quiet;
    Fd bcast(bound_socket("0.0.0.0"));
    for (int round = 0; round < 20; ++round) {
        svc_session *s = new_session(bound_port(bcast.fd), Bytes());
        ASSERT_NE(s, nullptr);
        std::atomic<bool> done{false}, go{false};
        std::thread loop([&] { ohmara_svc_startup(s), done = true; });
        ASSERT_TRUE(wait_until([&] { return ohmara_svc_getStatus(s) == OHMARA_STATUS_UP; }));
        std::vector<std::thread> callers;
        for (int i = 0; i < 4; ++i)
            callers.emplace_back([&] {
                while (!go) std::this_thread::yield();
                ohmara_svc_shutdown(s);
            });
        go = true;
        for (auto &t : callers) t.join();
        if (!wait_until([&] { return done.load(); }, 5000)) std::abort();  // never hang
        loop.join();
        EXPECT_EQ(ohmara_svc_shutdown(s), -1) << round;
    }
}

// Out of descriptors, accept() fails while the listener stays readable. A
// pending connection is taken and closed at once (a spare descriptor makes
// room), the failure is logged once, and the loop keeps still until
// descriptors are back, then serves again.
TEST(Loop, OutOfDescriptorsShedsConnectionsWithoutSpinning) {
    Rig r;
    ASSERT_TRUE(r.start());
    ASSERT_TRUE(r.settles_at(30));
    Fd client(bound_socket("127.0.0.2", SOCK_STREAM));  // taken while descriptors last
    rlimit old{};
    ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &old), 0);
    rlimit low = old;
    low.rlim_cur = 64;
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &low), 0);
    std::vector<int> filler;
    for (int fd; filler.size() < 64 && (fd = open("/dev/null", O_RDONLY)) >= 0;)
        filler.push_back(fd);
    const sockaddr_in to = inet("127.0.0.1", r.e.listen_port());
    rusage before{}, after{};
    getrusage(RUSAGE_SELF, &before);
    EXPECT_EQ(connect(client.fd, reinterpret_cast<const sockaddr *>(&to), sizeof to), 0);
    char c;
    const bool shed = recv(client.fd, &c, 1, 0) <= 0 && errno != EAGAIN;  // closed, not 2 s on
    std::this_thread::sleep_for(std::chrono::milliseconds(1000));
    getrusage(RUSAGE_SELF, &after);
    for (int fd : filler) close(fd);
    setrlimit(RLIMIT_NOFILE, &old);
    auto secs = [](const rusage &u) {
        return double(u.ru_utime.tv_sec + u.ru_stime.tv_sec) +
               double(u.ru_utime.tv_usec + u.ru_stime.tv_usec) / 1e6;
    };
    const double cpu = secs(after) - secs(before);
    size_t errors = 0;
    for (const auto &l : r.cap.lines()) errors += l.text == "waitfor_tcp_connect: errno = 24";
    EXPECT_TRUE(shed);
    EXPECT_LE(errors, 1u);
    EXPECT_LT(cpu, 0.3) << errors << " error lines";
    close(client.fd), client.fd = -1;
    EXPECT_TRUE(r.handshake());
    EXPECT_EQ(r.e.s->accept_shed, 1u);  // read after the loop's status change: ordered
}

// ---- the two profiles against the test switch (127.0.0.2), on the real clock ----

// A host connects before each query of the switch. The reference loop takes
// it for the new peer, so it refuses the switch's connection in turn (the
// switch gets its answer only if it tries again); the hardened loop closes
// the intruder at once, unread, and answers every query at the first attempt.
// Then silent connections opened first hold a query for their time-outs
// under the reference loop; the hardened one reads them alongside.
TEST(Profiles, IntrudersAndSilentConnectionsBeforeQueriesOfTheSwitch) {
    for (uint32_t profile : {OHMARA_PROFILE_REFERENCE, OHMARA_PROFILE_HARDENED}) {
        SCOPED_TRACE(profile);
        const bool hardened = profile == OHMARA_PROFILE_HARDENED;
        LogCapture cap(OHMARA_LOG_DEBUG);
        live_test::Live l(Bytes(), live_test::Mode::Startup, profile);
        ASSERT_TRUE(l.start() && l.attached());
        int answered = 0, intruder_closed = 0;
        for (int i = 0; i < 5; ++i) {
            Fd intruder(l.connect_from("127.0.0.3"));
            ASSERT_GE(intruder.fd, 0);
            answered += l.level() >= 0;
            char c;
            intruder_closed += recv(intruder.fd, &c, 1, 0) == 0;  // at once, not after 2 s
        }
        EXPECT_EQ(intruder_closed, 5);
        size_t switch_refused = 0;
        for (const auto &line : cap.lines())
            switch_refused +=
                line.text.rfind("waitfor_tcp_connect: closing peer 127.0.0.2 ", 0) == 0;
        EXPECT_EQ(switch_refused, hardened ? 0u : 5u);
        EXPECT_TRUE(!hardened || answered == 5) << answered;
        EXPECT_GE(l.level(), 0);  // the reference loop took the switch back on at last

        omsdk::set_receive_timeout_ms(1500);
        Fd silent[2] = {Fd(l.connect_from("127.0.0.2")), Fd(l.connect_from("127.0.0.2"))};
        const auto t0 = Clock::now();
        EXPECT_GE(l.level(), 0);
        const auto ms = std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - t0);
        EXPECT_TRUE(hardened ? ms.count() < 1000 : ms.count() >= 2500) << ms.count();
    }
}

}  // namespace
