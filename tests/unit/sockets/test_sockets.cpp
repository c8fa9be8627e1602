#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <errno.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <string.h>
#include <sys/socket.h>
#include <unistd.h>

#include <string>

#include "log_capture.h"
#include "omsdk/socket.h"

namespace {

using omsdk_test::LogCapture;

// A socket of the test's own, bound to addr:0; reports the chosen port.
int bound_socket(int type, const char *addr, uint16_t *port) {
    int s = socket(AF_INET, type, 0);
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_addr.s_addr = inet_addr(addr);
    if (s < 0 || bind(s, reinterpret_cast<sockaddr *>(&a), sizeof a) != 0) return -1;
    socklen_t len = sizeof a;
    getsockname(s, reinterpret_cast<sockaddr *>(&a), &len);
    *port = ntohs(a.sin_port);
    return s;
}

std::string bind_failed(uint16_t port) {
    return "Bind failed server:0.0.0.0, port:" + std::to_string(port) + "(" +
           strerror(EADDRINUSE) + ":" + std::to_string(EADDRINUSE) + ")";
}

TEST(OpenConnectedSocket, RefusedConnectStillReturnsTheSocket) {
    uint16_t port = 0;
    int quiet = bound_socket(SOCK_STREAM, "127.0.0.1", &port);  // bound, not listening
    ASSERT_GE(quiet, 0);
    LogCapture cap(0);
    socket_endpoint ep;
    memset(&ep, 0xAB, sizeof ep);
    int32_t s = openConnectedSocket(&ep, "127.0.0.1", port);
    ASSERT_GE(s, 0);
    EXPECT_EQ(ep.sock, s);
    EXPECT_TRUE(cap.has(4, "openConnectedSocket",
                        "connect failed -1, errno = " + std::to_string(ECONNREFUSED)))
        << cap.dump();
    EXPECT_EQ(ep.remote_addr.sin_family, AF_INET);
    EXPECT_EQ(ep.remote_addr.sin_port, htons(port));
    EXPECT_EQ(ep.remote_addr.sin_addr.s_addr, htonl(0x7F000001));
    const char zero[8] = {};
    EXPECT_EQ(memcmp(ep.remote_addr.sin_zero, zero, 8), 0);
    EXPECT_EQ(memcmp(ep.local_addr.sin_zero, zero, 8), 0);
    close(s);
    close(quiet);
}

TEST(OpenConnectedSocket, ConnectedSocketReportsItsLocalAddress) {
    uint16_t port = 0;
    int listener = bound_socket(SOCK_STREAM, "127.0.0.1", &port);
    ASSERT_GE(listener, 0);
    ASSERT_EQ(listen(listener, 1), 0);
    LogCapture cap(0);
    socket_endpoint ep;
    int32_t s = openConnectedSocket(&ep, "127.0.0.1", port);
    ASSERT_GE(s, 0);
    EXPECT_FALSE(cap.contains("connect failed")) << cap.dump();

    pollfd p{listener, POLLIN, 0};
    ASSERT_EQ(poll(&p, 1, 2000), 1);
    sockaddr_in peer{};
    socklen_t len = sizeof peer;
    int conn = accept(listener, reinterpret_cast<sockaddr *>(&peer), &len);
    ASSERT_GE(conn, 0);
    EXPECT_EQ(ep.local_addr.sin_family, AF_INET);
    EXPECT_EQ(ep.local_addr.sin_addr.s_addr, htonl(0x7F000001));
    EXPECT_EQ(ep.local_addr.sin_port, peer.sin_port);
    EXPECT_TRUE(cap.has(1, "openConnectedSocket",
                        "local socket address 127.0.0.1:" + std::to_string(ntohs(peer.sin_port))));
    close(conn);
    close(s);
    close(listener);
}

TEST(UdpSockets, CreateBindsAllInterfacesAsUdp) {
    LogCapture cap(0);
    int32_t s = createUdpSocket(0);
    ASSERT_GE(s, 0);
    EXPECT_TRUE(cap.has(1, "createUdpSocket", "Bind server:0.0.0.0, port:0"));
    sockaddr_in a{};
    socklen_t len = sizeof a;
    ASSERT_EQ(getsockname(s, reinterpret_cast<sockaddr *>(&a), &len), 0);
    EXPECT_EQ(a.sin_addr.s_addr, htonl(INADDR_ANY));
    EXPECT_NE(a.sin_port, 0);
    int proto = 0;
    len = sizeof proto;
    ASSERT_EQ(getsockopt(s, SOL_SOCKET, SO_PROTOCOL, &proto, &len), 0);
    EXPECT_EQ(proto, IPPROTO_UDP);
    close(s);
}

TEST(UdpSockets, PortInUseIsRefusedWithTheAddressAndPort) {
    uint16_t port = 0;
    int taken = bound_socket(SOCK_DGRAM, "0.0.0.0", &port);
    ASSERT_GE(taken, 0);
    LogCapture cap(0);
    EXPECT_EQ(createUdpSocket(port), -1);
    EXPECT_TRUE(cap.has(3, "createUdpSocket", bind_failed(port))) << cap.dump();

    int s = socket(AF_INET, SOCK_DGRAM, 0);
    ASSERT_GE(s, 0);
    cap.clear();
    EXPECT_EQ(bindUdpSocket(s, port), -1);
    EXPECT_TRUE(cap.has(3, "bindUdpSocket", bind_failed(port))) << cap.dump();
    EXPECT_NE(fcntl(s, F_GETFD), -1);  // left open for the caller
    cap.clear();
    EXPECT_EQ(bindUdpSocket(s, 0), s);
    EXPECT_TRUE(cap.has(1, "bindUdpSocket", "Bind local server port:0"));
    close(s);
    close(taken);
}

}  // namespace
