// SPDX-License-Identifier: Apache-2.0
// The loop driven by turns on the test's own thread, under a virtual clock:
// discovery timing, the receive time-out, the idle limit and shutdown all
// follow the session's clock, not the library's.
#include <gtest/gtest.h>
#include <poll.h>

#include <atomic>

#include "endpoint.h"
#include "transport/reception.h"

namespace {

using namespace ep_test;
constexpr uint16_t kUpdate = CV_ACTION_KVQR_CORVANE_DISCOVERY_DISCOVERY_UPDATE;
constexpr uint16_t kDelete = CV_ACTION_KVQR_CORVANE_DISCOVERY_DELETE;

struct VirtualClock {
    std::atomic<int64_t> ms{1800000000000};
    static int64_t read(void *self) { return static_cast<VirtualClock *>(self)->ms.load(); }
};

// Turns until `done`; each turn waits as the session asks, at most 20 ms
// (the virtual clock does not move by itself). Bounded: 2 s.
template <typename F>
bool turn_until(svc_session *s, F done) {
    for (int i = 0; i < 100; ++i) {
        ohmara_wait w;
        if (ohmara_svc_getWait(s, &w) != 0) return false;
        pollfd p[OHMARA_WAIT_MAX_FDS];
        for (int32_t k = 0; k < w.count; ++k) p[k] = {w.fds[k], w.events[k], 0};
        poll(p, nfds_t(w.count), w.timeout_ms < 20 ? w.timeout_ms : 20);
        if (ohmara_svc_turn(s) != 1 || done()) return done();
    }
    return false;
}

// Whether the session reads a connection (the reference profile then does
// not watch its listener).
bool reading(svc_session *s) {
    ohmara_wait w;
    return ohmara_svc_getWait(s, &w) == 0 && w.count == 1 && w.fds[0] != s->listen_sock;
}

TEST(Turn, VirtualClockDrivesTimersTimeOutsAndTheIdleLimit) {
    QuietLog quiet;
    Fd bcast(bound_socket("0.0.0.0")), parent(bound_socket("127.0.0.1"));
    svc_session *s = new_session(bound_port(bcast.fd), Bytes());
    ASSERT_NE(s, nullptr);
    VirtualClock clock;
    ohmara_wait w;
    EXPECT_EQ(ohmara_svc_turn(s), -1);  // not opened
    EXPECT_EQ(ohmara_svc_getWait(s, &w), -1);
    ASSERT_EQ(ohmara_svc_setClock(s, VirtualClock::read, &clock), 0);
    ASSERT_EQ(ohmara_svc_open(s), 0);
    EXPECT_EQ(ohmara_svc_open(s), -1);
    EXPECT_EQ(ohmara_svc_setClock(s, nullptr, nullptr), -1);
    EXPECT_EQ(app().listen_port.load(), ntohs(s->self_addr.sin_port));

    // UP: the first update at the first turn, then one per 30 s retry interval.
    ASSERT_EQ(ohmara_svc_turn(s), 1);
    Bytes d;
    ASSERT_TRUE(recv_datagram(bcast.fd, &d));
    EXPECT_EQ(wire_action(d), kUpdate);
    ASSERT_EQ(ohmara_svc_getWait(s, &w), 0);
    EXPECT_TRUE(w.count == 1 && w.fds[0] == s->listen_sock && w.events[0] == POLLIN);
    EXPECT_EQ(w.timeout_ms, 500);  // the status is looked at twice a second
    const struct {
        int64_t advance_ms;
        bool update;
    } steps[] = {{29999, false}, {1, true}, {29000, false}, {1000, true}};
    for (const auto &st : steps) {
        clock.ms += st.advance_ms;
        ASSERT_EQ(ohmara_svc_turn(s), 1);
        EXPECT_EQ(!nothing_pending(bcast.fd, st.update ? 500 : 20), st.update) << st.advance_ms;
        if (st.update) ASSERT_TRUE(recv_datagram(bcast.fd));
    }

    // A silent connection is closed when its receive time-out has passed on
    // the session's clock; until then it is read alone.
    Fd silent(bound_socket("127.0.0.2", SOCK_STREAM));
    const sockaddr_in to = inet("127.0.0.1", ntohs(s->self_addr.sin_port));
    ASSERT_EQ(connect(silent.fd, reinterpret_cast<const sockaddr *>(&to), sizeof to), 0);
    ASSERT_TRUE(turn_until(s, [&] { return reading(s); }));
    clock.ms += omsdk::receive_timeout_ms() - 1;
    ASSERT_EQ(ohmara_svc_turn(s), 1);
    EXPECT_TRUE(reading(s));
    clock.ms += 1;
    ASSERT_EQ(ohmara_svc_turn(s), 1);
    EXPECT_FALSE(reading(s));
    char c;
    EXPECT_EQ(recv(silent.fd, &c, 1, 0), 0);

    // Acknowledged: ACTIVE; quiet for more than 300 s: UP at the next update.
    Fd sw(bound_socket("127.0.0.2", SOCK_STREAM));
    ASSERT_EQ(connect(sw.fd, reinterpret_cast<const sockaddr *>(&to), sizeof to), 0);
    const Bytes reply_to =
        cat({hex("0002"), be16(bound_port(parent.fd)), hex("7f000001"), Bytes(8, 0)});
    const Bytes ack =
        message(500, kSwitchId, CV_SHIPMENT_ACK_WILL, 100, CV_CLASS_DISCOVERY, kUpdate,
                {tlv(CV_CORVANE_TLV_TYPE_REPLY_TO, reply_to),
                 tlv(CV_CORVANE_TLV_TYPE_NONCE, hex("5eed5eed"))},
                text(kId));
    ASSERT_EQ(send(sw.fd, ack.data(), ack.size(), 0), ssize_t(ack.size()));
    ASSERT_TRUE(turn_until(s, [&] { return ohmara_svc_getStatus(s) == OHMARA_STATUS_ACTIVE; }));
    ASSERT_TRUE(turn_until(s, [&] { return !reading(s); }));
    clock.ms += 180000;
    ASSERT_EQ(ohmara_svc_turn(s), 1);
    EXPECT_EQ(ohmara_svc_getStatus(s), OHMARA_STATUS_ACTIVE);
    clock.ms += 121000;
    ASSERT_EQ(ohmara_svc_turn(s), 1);
    EXPECT_EQ(ohmara_svc_getStatus(s), OHMARA_STATUS_ACTIVE);  // no update due: no check
    clock.ms += 59000;
    ASSERT_EQ(ohmara_svc_turn(s), 1);
    EXPECT_EQ(ohmara_svc_getStatus(s), OHMARA_STATUS_UP);

    // Shutdown from this very thread: the next turns end it; close frees it.
    while (recv_datagram(parent.fd, nullptr, 20)) {
    }
    ASSERT_EQ(ohmara_svc_shutdown(s), 0);
    ASSERT_TRUE(turn_until(s, [&] { return ohmara_svc_getStatus(s) == OHMARA_STATUS_DOWN; }));
    EXPECT_EQ(ohmara_svc_turn(s), 0);
    ASSERT_EQ(ohmara_svc_getWait(s, &w), 0);
    EXPECT_EQ(w.count, 0);
    Bytes last;
    while (recv_datagram(parent.fd, &d, 50)) last = d;  // the parent is kept when UP
    EXPECT_EQ(wire_action(last), kDelete);
    EXPECT_EQ(ohmara_svc_close(s), 0);
    EXPECT_EQ(app().copy(app().statuses), std::vector<int32_t>({2, 1, 3, 1, 4, 0}));
}

}  // namespace
