// The loop's decisions, driven by the library clock: when discovery updates
// go out, when a wake-up sends one early, when a quiet switch is dropped,
// and what shutdown sends. The loop runs on its own thread; time moves only
// through the clock hook, and each step pokes the loop with a connection.
#include <gtest/gtest.h>

#include "loop_fixture.h"

namespace {

using engine_test::Endpoint;
using loop_test::kStart;
using loop_test::set_now;
using loop_test::wait_line;
using loop_test::wait_until;
using omsdk_test::LogCapture;
using wire_test::Bytes;

constexpr uint32_t kRemoteNonce = 0x5EED5EED;

struct Rig {
    Endpoint e;
    LogCapture cap{OHMARA_LOG_TRACE};
    loop_test::LoopThread loop;

    Rig() : loop(e.s) {
        omsdk::clock_set_source(loop_test::test_clock);
        set_now(kStart);
        loop_test::app().reset();
        if (e.s != nullptr) ohmara_svc_configRegistry(e.s, &loop_test::app_registry());
    }
    uint16_t port() const { return loop_test::listen_port(e.s); }

    // A connection from the switch's address carrying nothing.
    bool poke() { return loop_test::exchange("127.0.0.2", port(), Bytes()); }

    // Waits until the loop has started a pass with this time-out.
    bool settles_at(long seconds) {
        return wait_until([&] { return loop_test::last_wait(cap) == wait_line(seconds); });
    }

    // The switch acknowledges discovery: the endpoint turns ACTIVE and
    // sends its nonce to the parent listener at once.
    bool handshake(uint32_t seq = 500) {
        Bytes ack = engine_test::message(
            CV_SHIPMENT_ACK_WILL, CV_CLASS_DISCOVERY,
            CV_ACTION_KVQR_CORVANE_DISCOVERY_DISCOVERY_UPDATE, seq,
            [&](cv_event *ev) {
                engine_test::add_reply_to(ev, "127.0.0.1", e.parent_port);
                engine_test::add_nonce(ev, kRemoteNonce);
            },
            e.secret);
        if (!loop_test::exchange("127.0.0.2", port(), ack)) return false;
        Bytes update;
        return ohmara_svc_getStatus(e.s) == OHMARA_STATUS_ACTIVE &&
               engine_test::recv_datagram(e.parent, &update) &&
               loop_test::wire_action(update) == CV_ACTION_KVQR_CORVANE_DISCOVERY_DISCOVERY_UPDATE;
    }
};

TEST(LoopTimers, RetryIntervalWhileUp) {
    Rig r;
    ASSERT_NE(r.e.s, nullptr);
    ASSERT_TRUE(r.loop.start());

    // The first pass does not wait: the first broadcast goes out at once.
    Bytes d;
    ASSERT_TRUE(engine_test::recv_datagram(r.e.bcast, &d));
    EXPECT_EQ(loop_test::wire_action(d), CV_ACTION_KVQR_CORVANE_DISCOVERY_DISCOVERY_UPDATE);
    ASSERT_TRUE(r.settles_at(30)) << loop_test::last_wait(r.cap);
    EXPECT_TRUE(r.cap.has(OHMARA_LOG_INFO, "omr_svc_loop",
                          "*Ohmara status:  UP, starting discovery..."));

    set_now(kStart + 29);
    ASSERT_TRUE(r.poke());
    ASSERT_TRUE(r.settles_at(1)) << loop_test::last_wait(r.cap);
    EXPECT_TRUE(engine_test::nothing_pending(r.e.bcast));

    set_now(kStart + 30);
    ASSERT_TRUE(r.poke());
    ASSERT_TRUE(engine_test::recv_datagram(r.e.bcast, &d));
    ASSERT_TRUE(r.settles_at(30));
    EXPECT_TRUE(engine_test::nothing_pending(r.e.bcast));
    EXPECT_EQ(ohmara_svc_getStatus(r.e.s), OHMARA_STATUS_UP);
}

TEST(LoopTimers, WakeUpFromOwnAddressSendsAtOnce) {
    Rig r;
    ASSERT_NE(r.e.s, nullptr);
    ASSERT_TRUE(r.loop.start());
    Bytes d;
    ASSERT_TRUE(engine_test::recv_datagram(r.e.bcast, &d));
    ASSERT_TRUE(r.settles_at(30));

    // Same clock, 30 s still to go: the connection from our own address
    // sends an update all the same.
    ASSERT_TRUE(loop_test::exchange("127.0.0.1", r.port(), Bytes()));
    ASSERT_TRUE(engine_test::recv_datagram(r.e.bcast, &d));
    EXPECT_TRUE(r.cap.has(OHMARA_LOG_DEBUG, "omr_svc_loop", "out of band"));

    // A connection from elsewhere does not.
    size_t before = loop_test::passes(r.cap);
    ASSERT_TRUE(r.poke());
    ASSERT_TRUE(wait_until([&] { return loop_test::passes(r.cap) > before; }));
    EXPECT_TRUE(engine_test::nothing_pending(r.e.bcast));
}

TEST(LoopTimers, ActiveUsesDiscoveryIntervalAndDropsAQuietSwitch) {
    Rig r;
    ASSERT_NE(r.e.s, nullptr);
    ASSERT_TRUE(r.loop.start());
    Bytes d;
    ASSERT_TRUE(engine_test::recv_datagram(r.e.bcast, &d));
    ASSERT_TRUE(r.handshake());
    // The handshake's own update does not restart the timer: 180 s from
    // the broadcast at kStart.
    ASSERT_TRUE(r.settles_at(180)) << loop_test::last_wait(r.cap);

    set_now(kStart + 179);
    ASSERT_TRUE(r.poke());
    ASSERT_TRUE(r.settles_at(1));
    EXPECT_TRUE(engine_test::nothing_pending(r.e.parent));

    set_now(kStart + 180);
    ASSERT_TRUE(r.poke());
    ASSERT_TRUE(engine_test::recv_datagram(r.e.parent, &d));  // unicast now
    ASSERT_TRUE(r.settles_at(180));

    // 300 s without an acknowledgement is still within the limit.
    set_now(kStart + 300);
    ASSERT_TRUE(r.poke());
    ASSERT_TRUE(r.settles_at(60));
    EXPECT_TRUE(r.cap.has(OHMARA_LOG_DEBUG, "omr_svc_loop", "time since last ACK 300"));
    EXPECT_EQ(ohmara_svc_getStatus(r.e.s), OHMARA_STATUS_ACTIVE);

    set_now(kStart + 301);
    ASSERT_TRUE(r.poke());
    ASSERT_TRUE(wait_until([&] { return ohmara_svc_getStatus(r.e.s) == OHMARA_STATUS_UP; }));
    EXPECT_TRUE(r.cap.has(OHMARA_LOG_INFO, "omr_svc_loop",
                          "*Connected peer 127.0.0.2 is IDLE, status changing from ACTIVE to "
                          "UP.  Restarting discovery..."))
        << r.cap.dump();
    // Back to broadcasting, and the retry interval is long overdue.
    ASSERT_TRUE(engine_test::recv_datagram(r.e.bcast, &d));
    ASSERT_TRUE(r.settles_at(30));
    EXPECT_EQ(loop_test::app().status_log(),
              std::vector<int32_t>({OHMARA_STATUS_INITIALIZING, OHMARA_STATUS_UP,
                                    OHMARA_STATUS_ACTIVE, OHMARA_STATUS_UP}));
}

TEST(LoopTimers, OutstandingRequestUsesRetryInterval) {
    Rig r;
    ASSERT_NE(r.e.s, nullptr);
    ASSERT_TRUE(r.loop.start());
    Bytes d;
    ASSERT_TRUE(engine_test::recv_datagram(r.e.bcast, &d));
    ASSERT_TRUE(r.handshake());
    ASSERT_TRUE(r.settles_at(180));

    ASSERT_EQ(ohmara_svc_alarmAdd(r.e.s, 60, 1, 2), 0);
    ASSERT_TRUE(engine_test::recv_datagram(r.e.parent, &d));
    EXPECT_NE(engine_test::find_tlv(engine_test::wire_tlvs(d), CV_CORVANE_TLV_TYPE_ALARM),
              nullptr);
    ASSERT_TRUE(r.settles_at(30)) << loop_test::last_wait(r.cap);

    // The switch still has not answered: updates keep the short interval.
    set_now(kStart + 30);
    size_t before = loop_test::passes(r.cap);
    ASSERT_TRUE(r.poke());
    ASSERT_TRUE(engine_test::recv_datagram(r.e.parent, &d));
    EXPECT_EQ(engine_test::find_tlv(engine_test::wire_tlvs(d), CV_CORVANE_TLV_TYPE_ALARM),
              nullptr);
    ASSERT_TRUE(wait_until([&] { return loop_test::passes(r.cap) > before; }));
    EXPECT_EQ(loop_test::last_wait(r.cap), wait_line(30));
}

TEST(LoopTimers, OwnWakeUpDoesNotDisplaceTheSwitch) {
    Rig r;
    ASSERT_NE(r.e.s, nullptr);
    ASSERT_TRUE(r.loop.start());
    Bytes d;
    ASSERT_TRUE(engine_test::recv_datagram(r.e.bcast, &d));
    ASSERT_TRUE(r.handshake());
    ASSERT_TRUE(r.settles_at(180));

    ASSERT_EQ(omr_markReady(r.e.s), 0);
    ASSERT_TRUE(engine_test::recv_datagram(r.e.parent, &d));
    ASSERT_TRUE(r.settles_at(180));

    // The switch's next connection is read at once, not refused as foreign.
    size_t reads = r.cap.count_containing("omr_svc_loop: bytes read");
    ASSERT_TRUE(r.poke());
    ASSERT_TRUE(wait_until(
        [&] { return r.cap.count_containing("omr_svc_loop: bytes read") == reads + 1; }));
    EXPECT_FALSE(r.cap.contains("closing peer 127.0.0.2"));
}

TEST(LoopTimers, ShutdownSendsUpdateThenDeleteAndEndsDown) {
    Rig r;
    ASSERT_NE(r.e.s, nullptr);
    ASSERT_TRUE(r.loop.start());
    Bytes d;
    ASSERT_TRUE(engine_test::recv_datagram(r.e.bcast, &d));
    ASSERT_TRUE(r.handshake());
    ASSERT_TRUE(r.settles_at(180));

    EXPECT_EQ(r.loop.stop(), 0);
    EXPECT_EQ(r.loop.result(), 0);
    Bytes update, del;
    ASSERT_TRUE(engine_test::recv_datagram(r.e.parent, &update));
    ASSERT_TRUE(engine_test::recv_datagram(r.e.parent, &del));
    EXPECT_EQ(loop_test::wire_action(update), CV_ACTION_KVQR_CORVANE_DISCOVERY_DISCOVERY_UPDATE);
    EXPECT_EQ(loop_test::wire_action(del), CV_ACTION_KVQR_CORVANE_DISCOVERY_DELETE);
    EXPECT_TRUE(engine_test::nothing_pending(r.e.parent));
    EXPECT_EQ(ohmara_svc_getStatus(r.e.s), OHMARA_STATUS_DOWN);
    EXPECT_EQ(loop_test::app().status_log(),
              std::vector<int32_t>({OHMARA_STATUS_INITIALIZING, OHMARA_STATUS_UP,
                                    OHMARA_STATUS_ACTIVE, OHMARA_STATUS_SHUTDOWN,
                                    OHMARA_STATUS_DOWN}));
    EXPECT_TRUE(r.cap.has(OHMARA_LOG_DEBUG, "omr_svc_loop", "sending discovery shutdown event"));
}

}  // namespace

namespace {

TEST(Shutdown, ReportsAWakeUpThatCannotConnect) {
    Endpoint e;
    ASSERT_NE(e.s, nullptr);
    e.up();
    const int port = loop_test::listen_port(e.s);
    close(e.s->listen_sock);  // nobody to wake
    e.s->listen_sock = -1;
    LogCapture cap(OHMARA_LOG_TRACE);
    EXPECT_EQ(ohmara_svc_shutdown(e.s), -1);
    EXPECT_EQ(ohmara_svc_getStatus(e.s), OHMARA_STATUS_SHUTDOWN);
    EXPECT_TRUE(cap.contains("ohmara_svc_shutdown: = Connect shut failed fd="));
    EXPECT_TRUE(cap.contains(" 127.0.0.1:" + std::to_string(port) + " error=-1<111>"))
        << cap.dump();
    EXPECT_EQ(e.s->api_callers, 0);
}

TEST(Shutdown, WakesTheLoopEvenWhenRefused) {
    // Before start-up the status is DOWN: the change is refused, the
    // connection is made all the same.
    Endpoint e;
    ASSERT_NE(e.s, nullptr);
    EXPECT_EQ(ohmara_svc_shutdown(e.s), 0);
    EXPECT_EQ(ohmara_svc_getStatus(e.s), OHMARA_STATUS_DOWN);
    pollfd p{e.s->listen_sock, POLLIN, 0};
    ASSERT_EQ(poll(&p, 1, 1000), 1);
    sockaddr_in from{};
    socklen_t len = sizeof from;
    int fd = accept(e.s->listen_sock, reinterpret_cast<sockaddr *>(&from), &len);
    ASSERT_GE(fd, 0);
    EXPECT_EQ(from.sin_addr.s_addr, inet_addr("127.0.0.1"));
    char b;
    EXPECT_EQ(recv(fd, &b, 1, 0), 0);  // nothing but the connection itself
    close(fd);
}

}  // namespace
