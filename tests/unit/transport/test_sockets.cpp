// Socket helpers: connected sockets and their addresses, UDP binding.
#include <fcntl.h>
#include <gtest/gtest.h>

#include "endpoint.h"
#include "omsdk/socket.h"

namespace {

using namespace ep_test;

TEST(OpenConnectedSocket, RefusedConnectStillReturnsTheSocketAcceptedFillsLocalAddress) {
    Fd srv(bound_socket("127.0.0.1", SOCK_STREAM));  // bound, not yet listening
    const uint16_t port = bound_port(srv.fd);
    QuietLog quiet;
    socket_endpoint ep;
    memset(&ep, 0xAB, sizeof ep);
    Fd s(openConnectedSocket(&ep, "127.0.0.1", port));
    ASSERT_GE(s.fd, 0);
    EXPECT_EQ(ep.sock, s.fd);
    const sockaddr_in want = inet("127.0.0.1", port);
    EXPECT_EQ(memcmp(&ep.remote_addr, &want, sizeof want), 0);
    char c;
    EXPECT_EQ(recv(s.fd, &c, 1, MSG_DONTWAIT), -1);  // not connected

    ASSERT_EQ(listen(srv.fd, 1), 0);  // the connection completes without an accept
    Fd t(openConnectedSocket(&ep, "127.0.0.1", port));
    ASSERT_GE(t.fd, 0);
    EXPECT_EQ(ep.local_addr.sin_family, AF_INET);
    EXPECT_EQ(ep.local_addr.sin_addr.s_addr, htonl(0x7F000001));
    EXPECT_EQ(ntohs(ep.local_addr.sin_port), bound_port(t.fd));
    EXPECT_EQ(openConnectedSocket(nullptr, "127.0.0.1", port), -1);
}

TEST(UdpSockets, BindAllInterfacesAndRefuseAPortInUse) {
    QuietLog quiet;
    Fd s(createUdpSocket(0));
    ASSERT_GE(s.fd, 0);
    sockaddr_in a{};
    socklen_t len = sizeof a;
    getsockname(s.fd, reinterpret_cast<sockaddr *>(&a), &len);
    EXPECT_EQ(a.sin_addr.s_addr, htonl(INADDR_ANY));
    const uint16_t port = ntohs(a.sin_port);
    ASSERT_NE(port, 0);
    EXPECT_EQ(createUdpSocket(port), -1);  // the port is taken
    Fd other(socket(AF_INET, SOCK_DGRAM, 0));
    EXPECT_EQ(bindUdpSocket(other.fd, port), -1);
    EXPECT_NE(fcntl(other.fd, F_GETFD), -1);  // left open for the caller
    EXPECT_EQ(bindUdpSocket(other.fd, 0), other.fd);
}

}  // namespace
