// SPDX-License-Identifier: Apache-2.0
// Reception over real loopback connections: waiting for the switch,
// refusing a foreign caller once, framing, the size limit, closing, silent
// and trickling peers. The live loop proves the socket helpers and the
// waiting read.
#include <gtest/gtest.h>

#include <chrono>
#include <thread>

#include "endpoint.h"
#include "transport/reception.h"

namespace {

using namespace ep_test;

struct Listener {  // the endpoint's, on 127.0.0.1
    Fd sock{bound_socket("127.0.0.1", SOCK_STREAM)};
    Listener() { listen(sock.fd, 4); }
    int call_from(const char *from) const {
        int fd = bound_socket(from, SOCK_STREAM);
        sockaddr_in to = inet("127.0.0.1", bound_port(sock.fd));
        EXPECT_EQ(connect(fd, reinterpret_cast<sockaddr *>(&to), sizeof to), 0);
        return fd;
    }
    int wait(uint32_t *peer, long seconds = 2) const {
        timeval tv{seconds, 0};
        return waitfor_tcp_connect(sock.fd, peer, &tv);
    }
};

// A connection from the switch's address, accepted by waitfor_tcp_connect
// (which sets the receive time-out on the served end).
struct Connection {
    Listener l;
    Fd client{l.call_from("127.0.0.2")};
    uint32_t peer = 0;
    Fd served{l.wait(&peer)};
    void send_all(const Bytes &b) const { send(client.fd, b.data(), b.size(), MSG_NOSIGNAL); }
    int32_t read(uint8_t *buf, int32_t size = 1400) const {
        return omr_read_tcp_message(served.fd, buf, size, nullptr);
    }
};

// A frame: security block stating the digest length, the digest padded to a
// multiple of 4, an event header stating tlv_bytes (bytes 44-45 of it), the
// payload. Header bytes 40-41 hold 05 00: a reader that took the size from
// offset 76 while the digest is padded would see 1280 more bytes.
Bytes frame(uint16_t digest_len, uint16_t tlv_bytes) {
    Bytes b = cat({hex("00 02 0000 00000000 00 11"), be16(digest_len)});
    for (size_t i = 0; i < (digest_len + 3u) / 4u * 4u; ++i) b.push_back(uint8_t(0xD0 + i % 16));
    Bytes hdr(48, 0);
    hdr[40] = 0x05;
    hdr[44] = uint8_t(tlv_bytes >> 8), hdr[45] = uint8_t(tlv_bytes);
    b.insert(b.end(), hdr.begin(), hdr.end());
    for (size_t i = 0; i < tlv_bytes; ++i) b.push_back(uint8_t(i * 7));
    return b;
}

TEST(WaitForConnect, TimesOutThenRefusesAForeignCallerOnce) {
    Listener l;
    QuietLog quiet;
    uint32_t peer = 0;
    EXPECT_EQ(l.wait(&peer, 0), -1);  // nobody calls
    EXPECT_EQ(peer, 0u);
    Fd first(l.call_from("127.0.0.1"));
    Fd served(l.wait(&peer));
    EXPECT_GE(served.fd, 0);  // any caller while none is expected
    EXPECT_EQ(peer, inet_addr("127.0.0.1"));

    Fd foreign(l.call_from("127.0.0.2"));
    EXPECT_EQ(l.wait(&peer), -1);
    EXPECT_EQ(peer, inet_addr("127.0.0.2"));
    char c;
    EXPECT_EQ(recv(foreign.fd, &c, 1, 0), 0);  // the refused connection was closed
    Fd again(l.call_from("127.0.0.2"));
    Fd accepted(l.wait(&peer));
    EXPECT_GE(accepted.fd, 0);
    EXPECT_EQ(peer, inet_addr("127.0.0.2"));
}

TEST(ReadTcpMessage, FramingByDigestLengthSizeLimitAndBufferSize) {
    const struct {
        uint16_t digest_len, tlv_bytes;
        int32_t size;    // of the buffer given
        int32_t result;  // 80 + TLV bytes (84 + for a padded digest), -1 beyond 1400
    } cases[] = {
        {20, 0, 1400, 80},    {20, 28, 1400, 108},    {21, 0, 1400, 84},    {21, 5, 1400, 89},
        {24, 12, 1400, 96},   {17, 0, 1400, 80},      {0, 3, 1400, 63},     {20, 1320, 1400, 1400},
        {20, 1321, 1400, -1}, {21, 1316, 1400, 1400}, {21, 1317, 1400, -1}, {20, 200, 5, 5},
        {20, 200, 12, 12},    {20, 200, 50, 50},      {20, 200, 100, 100},
    };
    QuietLog quiet;
    for (const auto &c : cases) {
        SCOPED_TRACE(std::to_string(c.digest_len) + "/" + std::to_string(c.tlv_bytes) + "/" +
                     std::to_string(c.size));
        Connection conn;
        ASSERT_GE(conn.served.fd, 0);
        const Bytes m = frame(c.digest_len, c.tlv_bytes), next = frame(20, 4);
        conn.send_all(m);
        conn.send_all(next);  // stays unread
        Bytes buf(1408, 0xEE);
        ASSERT_EQ(conn.read(buf.data(), c.size), c.result);
        if (c.result < 0) continue;
        EXPECT_EQ(Bytes(buf.begin(), buf.begin() + c.result),
                  Bytes(m.begin(), m.begin() + c.result));
        EXPECT_EQ(Bytes(buf.begin() + c.size, buf.begin() + c.size + 8), Bytes(8, 0xEE));
        if (size_t(c.result) < m.size()) continue;
        EXPECT_EQ(conn.read(buf.data()), int32_t(next.size()));
        EXPECT_EQ(Bytes(buf.begin(), buf.begin() + next.size()), next);
    }
}

// A peer closing mid-message gives 0. The whole message gets one time-out:
// a silent peer is cut off at it, and bytes trickling in cannot stretch it.
TEST(ReadTcpMessage, ClosingSilentAndTricklingPeers) {
    EXPECT_EQ(omsdk::receive_timeout_ms(), 5000u);
    omsdk::set_receive_timeout_ms(300);
    const struct {
        size_t sent;           // bytes sent at once
        bool closes, trickle;  // then closes, or sends one byte every 60 ms
    } cases[] = {{0, true, false},   {5, true, false},   {12, true, false},
                 {40, true, false},  {90, true, false},  {0, false, false},
                 {12, false, false}, {82, false, false}, {0, false, true}};
    QuietLog quiet;
    for (const auto &c : cases) {
        SCOPED_TRACE(std::to_string(c.sent) + (c.closes    ? " closing"
                                               : c.trickle ? " trickling"
                                                           : ""));
        Connection conn;
        ASSERT_GE(conn.served.fd, 0);
        const Bytes m = frame(20, 100);
        if (c.sent > 0) conn.send_all(Bytes(m.begin(), m.begin() + c.sent));
        if (c.closes) shutdown(conn.client.fd, SHUT_RDWR);
        std::thread trickle([&] {
            for (size_t i = 0; c.trickle && i < 30; ++i) {
                if (send(conn.client.fd, &m[i], 1, MSG_NOSIGNAL) != 1) return;
                std::this_thread::sleep_for(std::chrono::milliseconds(60));
            }
        });
        uint8_t buf[1400];
        const auto t0 = std::chrono::steady_clock::now();
        const int32_t n = conn.read(buf);
        const auto ms = std::chrono::duration_cast<std::chrono::milliseconds>(
                            std::chrono::steady_clock::now() - t0)
                            .count();
        shutdown(conn.client.fd, SHUT_RDWR);
        trickle.join();
        if (c.closes) {
            EXPECT_EQ(n, 0);
            continue;
        }
        EXPECT_LT(n, 0);
        EXPECT_GE(ms, 200);
        EXPECT_LT(ms, 800);  // three reads of 300 ms each would take 900 ms or more
    }
    omsdk::set_receive_timeout_ms(5000);
}

}  // namespace
