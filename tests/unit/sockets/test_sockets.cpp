#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <errno.h>
#include <fcntl.h>
#include <string.h>
#include <sys/socket.h>
#include <unistd.h>

#include <string>

#include "log_capture.h"
#include "omsdk/socket.h"

namespace {

using omsdk_test::LogCapture;

// The address a socket is bound to, as the kernel reports it.
sockaddr_in local(int fd) {
    sockaddr_in a{};
    socklen_t len = sizeof a;
    getsockname(fd, reinterpret_cast<sockaddr *>(&a), &len);
    return a;
}

TEST(OpenConnectedSocket, RefusedConnectStillReturnsTheSocketAndAcceptedFillsLocalAddress) {
    int srv = socket(AF_INET, SOCK_STREAM, 0);  // bound, not yet listening
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_addr.s_addr = htonl(0x7F000001);
    ASSERT_EQ(bind(srv, reinterpret_cast<sockaddr *>(&a), sizeof a), 0);
    const uint16_t port = ntohs(local(srv).sin_port);
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
    EXPECT_EQ(memcmp(ep.remote_addr.sin_zero, "\0\0\0\0\0\0\0\0", 8), 0);
    close(s);

    ASSERT_EQ(listen(srv, 1), 0);  // the connection completes without an accept
    cap.clear();
    s = openConnectedSocket(&ep, "127.0.0.1", port);
    ASSERT_GE(s, 0);
    const sockaddr_in own = local(s);
    EXPECT_EQ(ep.local_addr.sin_family, AF_INET);
    EXPECT_EQ(ep.local_addr.sin_addr.s_addr, htonl(0x7F000001));
    EXPECT_EQ(ep.local_addr.sin_port, own.sin_port);
    EXPECT_TRUE(cap.has(1, "openConnectedSocket",
                        "local socket address 127.0.0.1:" + std::to_string(ntohs(own.sin_port))));
    EXPECT_FALSE(cap.contains("connect failed")) << cap.dump();
    close(s);
    close(srv);
}

TEST(UdpSockets, BindAllInterfacesAndRefuseAPortInUse) {
    LogCapture cap(0);
    int32_t s = createUdpSocket(0);
    ASSERT_GE(s, 0);
    EXPECT_TRUE(cap.has(1, "createUdpSocket", "Bind server:0.0.0.0, port:0"));
    EXPECT_EQ(local(s).sin_addr.s_addr, htonl(INADDR_ANY));
    const uint16_t port = ntohs(local(s).sin_port);
    ASSERT_NE(port, 0);

    // The port is now taken.
    const std::string refused = "Bind failed server:0.0.0.0, port:" + std::to_string(port) + "(" +
                                strerror(EADDRINUSE) + ":" + std::to_string(EADDRINUSE) + ")";
    cap.clear();
    EXPECT_EQ(createUdpSocket(port), -1);
    EXPECT_TRUE(cap.has(3, "createUdpSocket", refused)) << cap.dump();
    int other = socket(AF_INET, SOCK_DGRAM, 0);
    ASSERT_GE(other, 0);
    cap.clear();
    EXPECT_EQ(bindUdpSocket(other, port), -1);
    EXPECT_TRUE(cap.has(3, "bindUdpSocket", refused)) << cap.dump();
    EXPECT_NE(fcntl(other, F_GETFD), -1);  // left open for the caller
    cap.clear();
    EXPECT_EQ(bindUdpSocket(other, 0), other);
    EXPECT_TRUE(cap.has(1, "bindUdpSocket", "Bind local server port:0"));
    close(other);
    close(s);
}

}  // namespace
