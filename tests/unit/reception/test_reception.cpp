// Reception over real loopback connections: waiting for the switch,
// refusing a foreign caller once, framing, size limit, closing, silent and
// trickling peers.
#include <fcntl.h>

#include <chrono>
#include <thread>

#include "engine_harness.h"
#include "transport/reception.h"

namespace {

using namespace engine_test;

struct Fd {
    int fd = -1;
    explicit Fd(int f = -1) : fd(f) {}
    ~Fd() { if (fd >= 0) close(fd); }
    Fd(const Fd &) = delete;
    Fd &operator=(const Fd &) = delete;
};

// A socket bound to addr:0 whose reads and writes block at most 2 s.
int bound(const char *addr, int type) {
    int fd = bound_socket(addr, type);
    timeval tv{2, 0};
    setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof tv);
    setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &tv, sizeof tv);
    return fd;
}

// The endpoint's listener on 127.0.0.1.
struct Listener {
    Fd sock{bound("127.0.0.1", SOCK_STREAM)};
    Listener() { listen(sock.fd, 4); }
    // A caller from `from` (127.0.0.1 or 127.0.0.2).
    int call_from(const char *from) const {
        int fd = bound(from, SOCK_STREAM);
        sockaddr_in to = inet("127.0.0.1", bound_port(sock.fd));
        EXPECT_EQ(connect(fd, reinterpret_cast<sockaddr *>(&to), sizeof to), 0);
        return fd;
    }
    int wait(uint32_t *peer, long seconds = 2) const {
        timeval tv{seconds, 0};
        return waitfor_tcp_connect(sock.fd, peer, &tv);
    }
};

// A connected pair from the switch's address: the caller's end and the
// end accepted by waitfor_tcp_connect (which sets the receive time-out).
struct Connection {
    Listener l;
    Fd client{l.call_from("127.0.0.2")};
    uint32_t peer = 0;
    Fd served{l.wait(&peer)};
    void send_all(const Bytes &b) const {
        ASSERT_EQ(send(client.fd, b.data(), b.size(), MSG_NOSIGNAL), static_cast<ssize_t>(b.size()));
    }
    int32_t read(uint8_t *buf, int32_t size = 1400) const {
        return omr_read_tcp_message(served.fd, buf, size, nullptr);
    }
};

// A message frame: security block with the given digest length, the digest
// padded to a multiple of 4, an event header stating tlv_bytes, then the
// payload. Header bytes 40-41 hold 05 00: a reader that took the TLV size
// from offset 76 while the digest is padded would see 1280 more bytes.
Bytes frame(uint16_t digest_len, uint16_t tlv_bytes) {
    Bytes b = hex("00 02 0000 00000000 00 11");
    b.push_back(static_cast<uint8_t>(digest_len >> 8));
    b.push_back(static_cast<uint8_t>(digest_len));
    for (size_t i = 0; i < (digest_len + 3u) / 4u * 4u; ++i)
        b.push_back(static_cast<uint8_t>(0xD0 + i % 16));
    Bytes hdr(48, 0);
    hdr[40] = 0x05;
    hdr[44] = static_cast<uint8_t>(tlv_bytes >> 8);
    hdr[45] = static_cast<uint8_t>(tlv_bytes);
    b.insert(b.end(), hdr.begin(), hdr.end());
    for (size_t i = 0; i < tlv_bytes; ++i) b.push_back(static_cast<uint8_t>(i * 7));
    return b;
}

TEST(WaitForConnect, TimesOutThenRefusesAForeignCallerOnce) {
    Listener l;
    LogCapture cap(OHMARA_LOG_DEBUG);
    uint32_t peer = 0;
    EXPECT_EQ(l.wait(&peer, 0), -1);  // nobody calls
    EXPECT_TRUE(cap.has(OHMARA_LOG_DEBUG, "waitfor_tcp_connect", "wait for 0 seconds"));
    EXPECT_TRUE(cap.has(OHMARA_LOG_DEBUG, "waitfor_tcp_connect", "select (accept) 0"));
    EXPECT_TRUE(cap.contains("waitfor_tcp_connect: select returned 0, error = ")) << cap.dump();
    EXPECT_EQ(peer, 0u);

    Fd first(l.call_from("127.0.0.1"));
    Fd served(l.wait(&peer));
    ASSERT_GE(served.fd, 0);  // any caller while none is expected
    EXPECT_EQ(peer, inet_addr("127.0.0.1"));
    EXPECT_TRUE(cap.has(OHMARA_LOG_DEBUG, "waitfor_tcp_connect",
                        "accept from 127.0.0.1 on fd " + std::to_string(served.fd)));

    Fd foreign(l.call_from("127.0.0.2"));
    EXPECT_EQ(l.wait(&peer), -1);
    EXPECT_TRUE(cap.has(OHMARA_LOG_DEBUG, "waitfor_tcp_connect", "closing peer 127.0.0.2 (100007f)"))
        << cap.dump();
    EXPECT_EQ(peer, inet_addr("127.0.0.2"));
    char c;
    EXPECT_EQ(recv(foreign.fd, &c, 1, 0), 0);  // the refused connection was closed

    Fd again(l.call_from("127.0.0.2"));
    Fd accepted(l.wait(&peer));
    EXPECT_GE(accepted.fd, 0);
    EXPECT_EQ(peer, inet_addr("127.0.0.2"));
}

TEST(ReadTcpMessage, FramingByDigestLengthSizeLimitAndBufferSize) {
    struct Case {
        uint16_t digest_len, tlv_bytes;
        int32_t size;    // of the buffer given
        int32_t result;  // 80 + TLV bytes (84 + for a padded digest), -1 beyond 1400
    } cases[] = {
        {20, 0, 1400, 80},      {20, 28, 1400, 108},   {21, 0, 1400, 84},  {21, 5, 1400, 89},
        {24, 12, 1400, 96},     {17, 0, 1400, 80},     {0, 3, 1400, 63},   {20, 1320, 1400, 1400},
        {20, 1321, 1400, -1},   {21, 1316, 1400, 1400}, {21, 1317, 1400, -1},
        {20, 200, 5, 5},        {20, 200, 12, 12},     {20, 200, 50, 50},  {20, 200, 100, 100},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(std::to_string(c.digest_len) + "/" + std::to_string(c.tlv_bytes) + "/" +
                     std::to_string(c.size));
        Connection conn;
        ASSERT_GE(conn.served.fd, 0);
        Bytes m = frame(c.digest_len, c.tlv_bytes);
        Bytes next = frame(20, 4);  // the following message stays unread
        conn.send_all(m);
        conn.send_all(next);
        LogCapture cap(OHMARA_LOG_DEBUG);
        Bytes buf(1408, 0xEE);
        ASSERT_EQ(conn.read(buf.data(), c.size), c.result);
        EXPECT_EQ(cap.has(OHMARA_LOG_DEBUG, "omr_read_tcp_message",
                          "Incoming packet exceeds Ohmara max packet size, dropping packet"),
                  c.result < 0);
        if (c.result < 0) continue;
        EXPECT_EQ(Bytes(buf.begin(), buf.begin() + c.result), Bytes(m.begin(), m.begin() + c.result));
        EXPECT_EQ(Bytes(buf.begin() + c.size, buf.begin() + c.size + 8), Bytes(8, 0xEE));
        if (size_t(c.result) < m.size()) continue;
        EXPECT_EQ(m.size(), size_t(c.result));
        EXPECT_EQ(conn.read(buf.data()), static_cast<int32_t>(next.size()));
        EXPECT_EQ(Bytes(buf.begin(), buf.begin() + next.size()), next);
    }
}

// A peer closing mid-message gives 0. Each read of a message gets what is
// left of one time-out: a silent peer is cut off at the time-out, and
// bytes trickling in cannot stretch it.
TEST(ReadTcpMessage, ClosingSilentAndTricklingPeers) {
    const uint32_t old = omsdk::receive_timeout_ms();
    EXPECT_EQ(old, 5000u);
    omsdk::set_receive_timeout_ms(300);
    struct Case {
        size_t sent;         // bytes sent at once
        bool closes, trickle;  // then closes, or sends one byte every 60 ms
    } cases[] = {{0, true, false}, {5, true, false},   {12, true, false}, {40, true, false},
                 {90, true, false}, {0, false, false}, {12, false, false}, {82, false, false},
                 {0, false, true}};
    for (const Case &c : cases) {
        SCOPED_TRACE(std::to_string(c.sent) +
                     (c.closes ? " closing" : c.trickle ? " trickling" : " silent"));
        Connection conn;
        ASSERT_GE(conn.served.fd, 0);
        Bytes m = frame(20, 100);
        if (c.sent > 0) conn.send_all(Bytes(m.begin(), m.begin() + c.sent));
        if (c.closes) shutdown(conn.client.fd, SHUT_RDWR);
        std::thread trickle([&] {
            for (size_t i = 0; c.trickle && i < 30; ++i) {
                if (send(conn.client.fd, &m[i], 1, MSG_NOSIGNAL) != 1) return;
                std::this_thread::sleep_for(std::chrono::milliseconds(60));
            }
        });
        uint8_t buf[1400];
        auto t0 = std::chrono::steady_clock::now();
        int32_t n = conn.read(buf);
        auto ms = std::chrono::duration_cast<std::chrono::milliseconds>(
                      std::chrono::steady_clock::now() - t0).count();
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
    omsdk::set_receive_timeout_ms(old);
}

TEST(WaitForMessage, ReadsWhenDataArrivesElseZero) {
    Connection conn;
    ASSERT_GE(conn.served.fd, 0);
    uint8_t buf[1400];
    timeval tv{0, 50000};
    EXPECT_EQ(waitfor_tcp_message(conn.served.fd, buf, sizeof buf, &tv), 0);
    Bytes m = frame(20, 16);
    conn.send_all(m);
    LogCapture cap(OHMARA_LOG_DEBUG);
    tv = timeval{2, 0};
    EXPECT_EQ(waitfor_tcp_message(conn.served.fd, buf, sizeof buf, &tv), 96);
    EXPECT_EQ(Bytes(buf, buf + 96), m);
    EXPECT_TRUE(cap.has(OHMARA_LOG_DEBUG, "waitfor_tcp_message", "attempting read w/max len 1400"));
    EXPECT_TRUE(cap.has(OHMARA_LOG_DEBUG, "waitfor_tcp_message", "read 96 bytes from 127.0.0.2"))
        << cap.dump();
}

TEST(ReadUdpMessage, DatagramAndFailure) {
    Fd rx(bound("127.0.0.1", SOCK_DGRAM)), tx(socket(AF_INET, SOCK_DGRAM, 0));
    sockaddr_in to = inet("127.0.0.1", bound_port(rx.fd));
    Bytes d = hex("01 02 03 04 05 06 07");
    ASSERT_EQ(sendto(tx.fd, d.data(), d.size(), 0, reinterpret_cast<sockaddr *>(&to), sizeof to), 7);
    LogCapture cap(OHMARA_LOG_TRACE);
    uint8_t buf[4];
    EXPECT_EQ(omr_read_udp_message(rx.fd, buf, sizeof buf, nullptr), 4);  // truncated to size
    EXPECT_EQ(Bytes(buf, buf + 4), hex("01 02 03 04"));
    EXPECT_TRUE(cap.has(OHMARA_LOG_TRACE, "omr_read_udp_message", "read of 4 bytes"));
    fcntl(rx.fd, F_SETFL, O_NONBLOCK);
    EXPECT_EQ(omr_read_udp_message(rx.fd, buf, sizeof buf, nullptr), -1);
    EXPECT_TRUE(cap.has(OHMARA_LOG_TRACE, "omr_read_udp_message",
                        "read failed with -1 bytes, errno " + std::to_string(EAGAIN)))
        << cap.dump();
}

}  // namespace
