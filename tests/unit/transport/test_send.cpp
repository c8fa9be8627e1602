// SPDX-License-Identifier: Apache-2.0
// The socket-backed output: what the engine sends while handling one
// message leaves in one send() at the flush, after nothing and before any
// datagram sent later, byte for byte. A SOCK_SEQPACKET pair keeps every
// send() a record of its own, so one recv() per send shows the batching.
#include <gtest/gtest.h>

#include "endpoint.h"
#include "transport/send.h"

namespace {

using namespace ep_test;

Bytes take(int fd) {  // one record, or nothing waiting
    uint8_t buf[8192];
    ssize_t n = recv(fd, buf, sizeof buf, MSG_DONTWAIT);
    return n > 0 ? Bytes(buf, buf + n) : Bytes();
}

TEST(Send, RepliesLeaveInOneSendAtTheFlushAndBeforeAnyDatagram) {
    int tcp[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_SEQPACKET, 0, tcp), 0);
    Fd t0(tcp[0]), t1(tcp[1]), u0(bound_socket("127.0.0.1")), u1(bound_socket("127.0.0.1"));
    svc_session *s = new_svc_session();
    s->tcp_sock = tcp[0];
    s->udp_sock = u0.fd;
    s->io = &omsdk::socket_io;
    const Bytes ack = text("acknowledgement"), answer(3000, 0x5a), full(4090, 0x22),
                big(5000, 0x11);
    const sockaddr_in to = inet("127.0.0.1", bound_port(u1.fd));

    EXPECT_EQ(omsdk::send_reply(s, ack.data(), ack.size()), ssize_t(ack.size()));
    EXPECT_EQ(omsdk::send_reply(s, answer.data(), answer.size()), ssize_t(answer.size()));
    EXPECT_EQ(take(tcp[1]), Bytes());  // held until the flush
    EXPECT_EQ(omsdk::flush_replies(s), ssize_t(ack.size() + answer.size()));
    EXPECT_EQ(take(tcp[1]), cat({ack, answer}));
    EXPECT_EQ(omsdk::flush_replies(s), 0);
    EXPECT_EQ(take(tcp[1]), Bytes());

    // A datagram goes after what is held; what does not fit goes after what is held.
    omsdk::send_reply(s, ack.data(), ack.size());
    omsdk::send_datagram(s, answer.data(), 10, &to);
    EXPECT_EQ(take(tcp[1]), ack);
    omsdk::send_reply(s, ack.data(), ack.size());
    omsdk::send_reply(s, full.data(), full.size());  // over the buffer with the ack
    omsdk::send_reply(s, big.data(), big.size());    // over the buffer alone
    EXPECT_EQ(take(tcp[1]), ack);
    EXPECT_EQ(take(tcp[1]), full);
    EXPECT_EQ(take(tcp[1]), big);
    EXPECT_EQ(omsdk::flush_replies(s), 0);
    EXPECT_EQ(take(u1.fd), Bytes(answer.begin(), answer.begin() + 10));

    s->tcp_sock = s->udp_sock = -1;
    omr_svc_cleanup(s);
}

}  // namespace
