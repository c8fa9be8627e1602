// Reception over real loopback connections: waiting for the switch,
// refusing a foreign caller once, framing, size limit, closing and silent
// peers.
#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <chrono>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "log_capture.h"
#include "transport/reception.h"
#include "wire_test_util.h"

namespace {

using wire_test::Bytes;

constexpr int kBounded = 2;  // seconds any test socket may block

void bound_waits(int fd) {
    timeval tv{kBounded, 0};
    setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof tv);
    setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &tv, sizeof tv);
}

struct Fd {
    int fd = -1;
    Fd() = default;
    explicit Fd(int f) : fd(f) {}
    ~Fd() {
        if (fd >= 0) close(fd);
    }
    Fd(const Fd &) = delete;
    Fd &operator=(const Fd &) = delete;
};

// The endpoint's listener on 127.0.0.1, system-chosen port.
struct Listener {
    Fd sock;
    uint16_t port = 0;
    Listener() : sock(socket(AF_INET, SOCK_STREAM, 0)) {
        sockaddr_in a{};
        a.sin_family = AF_INET;
        a.sin_addr.s_addr = inet_addr("127.0.0.1");
        bind(sock.fd, reinterpret_cast<sockaddr *>(&a), sizeof a);
        listen(sock.fd, 4);
        socklen_t len = sizeof a;
        getsockname(sock.fd, reinterpret_cast<sockaddr *>(&a), &len);
        port = ntohs(a.sin_port);
    }
};

// A caller from `from` (127.0.0.1 or 127.0.0.2).
int connect_from(const char *from, uint16_t port) {
    int fd = socket(AF_INET, SOCK_STREAM, 0);
    bound_waits(fd);
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_addr.s_addr = inet_addr(from);
    if (bind(fd, reinterpret_cast<sockaddr *>(&a), sizeof a) != 0) {
        close(fd);
        return -1;
    }
    sockaddr_in to{};
    to.sin_family = AF_INET;
    to.sin_port = htons(port);
    to.sin_addr.s_addr = inet_addr("127.0.0.1");
    if (connect(fd, reinterpret_cast<sockaddr *>(&to), sizeof to) != 0) {
        close(fd);
        return -1;
    }
    return fd;
}

timeval seconds(long s) { return timeval{s, 0}; }

// A connected pair: the caller's end and the accepted end.
struct Connection {
    Listener l;
    Fd client;
    Fd served;
    explicit Connection(const char *from = "127.0.0.2") {
        client.fd = connect_from(from, l.port);
        uint32_t peer = 0;
        timeval tv = seconds(kBounded);
        served.fd = waitfor_tcp_connect(l.sock.fd, &peer, &tv);
        if (served.fd >= 0) bound_waits(served.fd);
    }
    void send_all(const Bytes &b) const {
        ASSERT_EQ(send(client.fd, b.data(), b.size(), MSG_NOSIGNAL), static_cast<ssize_t>(b.size()));
    }
};

// A message frame: security block with the given digest length, the digest
// padded to a multiple of 4, an event header stating tlv_bytes, then the
// payload. Only the fields the reader looks at are set.
Bytes frame(uint16_t digest_len, uint16_t tlv_bytes) {
    Bytes b = wire_test::hex("00 02 0000 00000000 00 11");
    b.push_back(static_cast<uint8_t>(digest_len >> 8));
    b.push_back(static_cast<uint8_t>(digest_len));
    size_t padded = (digest_len + 3u) / 4u * 4u;
    for (size_t i = 0; i < padded; ++i) b.push_back(static_cast<uint8_t>(0xD0 + i % 16));
    Bytes hdr(48, 0);
    hdr[44] = static_cast<uint8_t>(tlv_bytes >> 8);
    hdr[45] = static_cast<uint8_t>(tlv_bytes);
    b.insert(b.end(), hdr.begin(), hdr.end());
    for (size_t i = 0; i < tlv_bytes; ++i) b.push_back(static_cast<uint8_t>(i * 7));
    return b;
}

TEST(WaitForConnect, TimesOutWithoutCaller) {
    Listener l;
    omsdk_test::LogCapture cap(OHMARA_LOG_DEBUG);
    uint32_t peer = 0;
    timeval tv{0, 50000};
    EXPECT_EQ(waitfor_tcp_connect(l.sock.fd, &peer, &tv), -1);
    EXPECT_TRUE(cap.has(OHMARA_LOG_DEBUG, "waitfor_tcp_connect", "wait for 0 seconds"));
    EXPECT_TRUE(cap.has(OHMARA_LOG_DEBUG, "waitfor_tcp_connect", "select (accept) 0"));
    EXPECT_TRUE(cap.contains("waitfor_tcp_connect: select returned 0, error = ")) << cap.dump();
    EXPECT_EQ(peer, 0u);
}

TEST(WaitForConnect, ForeignCallerRefusedOnceThenAccepted) {
    Listener l;
    omsdk_test::LogCapture cap(OHMARA_LOG_DEBUG);
    uint32_t peer = 0;
    timeval tv = seconds(kBounded);

    Fd first(connect_from("127.0.0.1", l.port));
    Fd served(waitfor_tcp_connect(l.sock.fd, &peer, &tv));
    ASSERT_GE(served.fd, 0);  // any caller while none is expected
    EXPECT_EQ(peer, inet_addr("127.0.0.1"));
    EXPECT_TRUE(cap.has(OHMARA_LOG_DEBUG, "waitfor_tcp_connect",
                        "accept from 127.0.0.1 on fd " + std::to_string(served.fd)));

    Fd foreign(connect_from("127.0.0.2", l.port));
    ASSERT_GE(foreign.fd, 0);
    tv = seconds(kBounded);
    EXPECT_EQ(waitfor_tcp_connect(l.sock.fd, &peer, &tv), -1);
    EXPECT_TRUE(cap.has(OHMARA_LOG_DEBUG, "waitfor_tcp_connect", "closing peer 127.0.0.2 (100007f)"))
        << cap.dump();
    EXPECT_EQ(peer, inet_addr("127.0.0.2"));
    // The refused connection was closed.
    char c;
    EXPECT_EQ(recv(foreign.fd, &c, 1, 0), 0);

    Fd again(connect_from("127.0.0.2", l.port));
    tv = seconds(kBounded);
    Fd accepted(waitfor_tcp_connect(l.sock.fd, &peer, &tv));
    EXPECT_GE(accepted.fd, 0);
    EXPECT_EQ(peer, inet_addr("127.0.0.2"));
}

TEST(ReadTcpMessage, FramingByDigestLength) {
    struct Case {
        uint16_t digest_len;
        uint16_t tlv_bytes;
        size_t size;  // 80 + tlv bytes, or 84 + tlv bytes for a padded digest
    };
    const Case cases[] = {
        {20, 0, 80},    {20, 28, 108}, {21, 0, 84},  {21, 5, 89},
        {24, 12, 96},   {17, 0, 80},   {0, 3, 63},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(std::to_string(c.digest_len) + "/" + std::to_string(c.tlv_bytes));
        Connection conn;
        ASSERT_GE(conn.served.fd, 0);
        Bytes m = frame(c.digest_len, c.tlv_bytes);
        ASSERT_EQ(m.size(), c.size);
        Bytes next = frame(20, 4);  // the following message stays unread
        conn.send_all(m);
        conn.send_all(next);
        uint8_t buf[1400];
        EXPECT_EQ(omr_read_tcp_message(conn.served.fd, buf, sizeof buf, nullptr),
                  static_cast<int32_t>(c.size));
        EXPECT_EQ(Bytes(buf, buf + c.size), m);
        EXPECT_EQ(omr_read_tcp_message(conn.served.fd, buf, sizeof buf, nullptr),
                  static_cast<int32_t>(next.size()));
        EXPECT_EQ(Bytes(buf, buf + next.size()), next);
    }
}

TEST(ReadTcpMessage, HeaderFoundAfterPaddedDigest) {
    // Digest length 21 is padded to 24: the header's TLV count sits at
    // 12 + 24 + 44 = 80, not at 76.
    Connection conn;
    ASSERT_GE(conn.served.fd, 0);
    Bytes m = frame(21, 6);
    m[76] = 0x05;  // would claim 1280 more bytes if read as the header
    m[77] = 0x00;
    conn.send_all(m);
    uint8_t buf[1400];
    EXPECT_EQ(omr_read_tcp_message(conn.served.fd, buf, sizeof buf, nullptr), 90);
}

TEST(ReadTcpMessage, SizeLimit1400) {
    struct Case {
        uint16_t digest_len;
        uint16_t tlv_bytes;
        int32_t result;
    };
    const Case cases[] = {
        {20, 1320, 1400},  // 20 + 60 + 1320
        {20, 1321, -1},
        {21, 1316, 1400},  // 24 + 60 + 1316
        {21, 1317, -1},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.tlv_bytes);
        Connection conn;
        ASSERT_GE(conn.served.fd, 0);
        omsdk_test::LogCapture cap(OHMARA_LOG_DEBUG);
        conn.send_all(frame(c.digest_len, c.tlv_bytes));
        uint8_t buf[1400];
        EXPECT_EQ(omr_read_tcp_message(conn.served.fd, buf, sizeof buf, nullptr), c.result);
        EXPECT_EQ(cap.has(OHMARA_LOG_DEBUG, "omr_read_tcp_message",
                          "Incoming packet exceeds Ohmara max packet size, dropping packet"),
                  c.result < 0);
    }
}

TEST(ReadTcpMessage, SmallBufferStopsAtItsSize) {
    for (int32_t size : {5, 12, 50, 100}) {
        SCOPED_TRACE(size);
        Connection conn;
        ASSERT_GE(conn.served.fd, 0);
        Bytes m = frame(20, 200);
        conn.send_all(m);
        std::vector<uint8_t> buf(static_cast<size_t>(size) + 8, 0xEE);
        EXPECT_EQ(omr_read_tcp_message(conn.served.fd, buf.data(), size, nullptr), size);
        EXPECT_EQ(Bytes(buf.begin(), buf.begin() + size), Bytes(m.begin(), m.begin() + size));
        for (size_t i = static_cast<size_t>(size); i < buf.size(); ++i) ASSERT_EQ(buf[i], 0xEE);
    }
}

TEST(ReadTcpMessage, PeerClosingMidMessageGivesZero) {
    for (size_t sent : {size_t{0}, size_t{5}, size_t{12}, size_t{40}, size_t{90}}) {
        SCOPED_TRACE(sent);
        Connection conn;
        ASSERT_GE(conn.served.fd, 0);
        Bytes m = frame(20, 100);
        m.resize(sent);
        if (!m.empty()) conn.send_all(m);
        close(conn.client.fd);
        conn.client.fd = -1;
        uint8_t buf[1400];
        EXPECT_EQ(omr_read_tcp_message(conn.served.fd, buf, sizeof buf, nullptr), 0);
    }
}

TEST(ReadTcpMessage, SilentPeerTimesOut) {
    const uint32_t old = omsdk::receive_timeout_ms();
    omsdk::set_receive_timeout_ms(150);
    for (size_t sent : {size_t{0}, size_t{12}, size_t{82}}) {
        SCOPED_TRACE(sent);
        Listener l;
        Fd client(connect_from("127.0.0.2", l.port));
        uint32_t peer = 0;
        timeval tv = seconds(kBounded);
        Fd served(waitfor_tcp_connect(l.sock.fd, &peer, &tv));  // sets the receive time-out
        ASSERT_GE(served.fd, 0);
        Bytes m = frame(20, 100);
        m.resize(sent);
        if (!m.empty()) {
            ASSERT_EQ(send(client.fd, m.data(), m.size(), 0), static_cast<ssize_t>(sent));
        }
        uint8_t buf[1400];
        auto t0 = std::chrono::steady_clock::now();
        int32_t n = omr_read_tcp_message(served.fd, buf, sizeof buf, nullptr);
        auto ms = std::chrono::duration_cast<std::chrono::milliseconds>(
                      std::chrono::steady_clock::now() - t0)
                      .count();
        EXPECT_LT(n, 0);
        EXPECT_GE(ms, 100);
        EXPECT_LT(ms, 1500);
    }
    omsdk::set_receive_timeout_ms(old);
    EXPECT_EQ(old, 5000u);
}

// Each read of a message gets what is left of one time-out, so bytes that
// trickle in cannot stretch it read by read.
TEST(ReadTcpMessage, TricklingPeerIsCutOffAtOneTimeOut) {
    const uint32_t old = omsdk::receive_timeout_ms();
    omsdk::set_receive_timeout_ms(300);
    Listener l;
    Fd client(connect_from("127.0.0.2", l.port));
    uint32_t peer = 0;
    timeval tv = seconds(kBounded);
    Fd served(waitfor_tcp_connect(l.sock.fd, &peer, &tv));
    ASSERT_GE(served.fd, 0);
    Bytes m = frame(20, 100);
    std::thread trickle([&] {
        // One byte every 60 ms: every single read would see progress.
        for (size_t i = 0; i < m.size() && i < 30; ++i) {
            if (send(client.fd, &m[i], 1, MSG_NOSIGNAL) != 1) return;
            std::this_thread::sleep_for(std::chrono::milliseconds(60));
        }
    });
    uint8_t buf[1400];
    auto t0 = std::chrono::steady_clock::now();
    int32_t n = omr_read_tcp_message(served.fd, buf, sizeof buf, nullptr);
    auto ms = std::chrono::duration_cast<std::chrono::milliseconds>(
                  std::chrono::steady_clock::now() - t0)
                  .count();
    shutdown(client.fd, SHUT_RDWR);
    trickle.join();
    EXPECT_LT(n, 0);
    // Three reads of 300 ms each would take 900 ms or more.
    EXPECT_LT(ms, 800);
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
    omsdk_test::LogCapture cap(OHMARA_LOG_DEBUG);
    tv = seconds(kBounded);
    EXPECT_EQ(waitfor_tcp_message(conn.served.fd, buf, sizeof buf, &tv), 96);
    EXPECT_EQ(Bytes(buf, buf + 96), m);
    EXPECT_TRUE(cap.has(OHMARA_LOG_DEBUG, "waitfor_tcp_message", "attempting read w/max len 1400"));
    EXPECT_TRUE(cap.has(OHMARA_LOG_DEBUG, "waitfor_tcp_message", "read 96 bytes from 127.0.0.2"))
        << cap.dump();
}

TEST(ReadUdpMessage, DatagramAndFailure) {
    Fd rx(socket(AF_INET, SOCK_DGRAM, 0));
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_addr.s_addr = inet_addr("127.0.0.1");
    ASSERT_EQ(bind(rx.fd, reinterpret_cast<sockaddr *>(&a), sizeof a), 0);
    socklen_t len = sizeof a;
    getsockname(rx.fd, reinterpret_cast<sockaddr *>(&a), &len);
    bound_waits(rx.fd);
    Fd tx(socket(AF_INET, SOCK_DGRAM, 0));
    Bytes d = wire_test::hex("01 02 03 04 05 06 07");
    ASSERT_EQ(sendto(tx.fd, d.data(), d.size(), 0, reinterpret_cast<sockaddr *>(&a), sizeof a), 7);

    omsdk_test::LogCapture cap(OHMARA_LOG_TRACE);
    uint8_t buf[4];
    EXPECT_EQ(omr_read_udp_message(rx.fd, buf, sizeof buf, nullptr), 4);  // truncated to size
    EXPECT_EQ(Bytes(buf, buf + 4), wire_test::hex("01 02 03 04"));
    EXPECT_TRUE(cap.has(OHMARA_LOG_TRACE, "omr_read_udp_message", "read of 4 bytes"));

    fcntl(rx.fd, F_SETFL, O_NONBLOCK);
    EXPECT_EQ(omr_read_udp_message(rx.fd, buf, sizeof buf, nullptr), -1);
    EXPECT_TRUE(cap.has(OHMARA_LOG_TRACE, "omr_read_udp_message",
                        "read failed with -1 bytes, errno " + std::to_string(EAGAIN)))
        << cap.dump();
}

}  // namespace
