// SPDX-License-Identifier: Apache-2.0
// Sessions that open a datagram socket only to send: discovery and the
// handshake go as with a socket held, from the session's own address (in
// the capture too), and each session holds one descriptor fewer. However
// many sessions run, they share one spare descriptor.
#include <gtest/gtest.h>
#include <poll.h>

#include <fstream>
#include <iterator>

#include "endpoint.h"

namespace {

using namespace ep_test;
constexpr uint16_t kUpdate = CV_ACTION_KVQR_CORVANE_DISCOVERY_DISCOVERY_UPDATE;
constexpr uint16_t kDelete = CV_ACTION_KVQR_CORVANE_DISCOVERY_DELETE;

TEST(DatagramOnDemand, SameHandshakeFromTheSameAddressWithOneDescriptorFewer) {
    QuietLog quiet;
    constexpr int kSessions = 3;
    Fd bcast(bound_socket("0.0.0.0")), parent(bound_socket("127.0.0.1"));
    const std::string path =
        testing::TempDir() + "datagram-" + std::to_string(getpid()) + ".pcapng";
    const Bytes ack = switch_ack(bound_port(parent.fd));
    for (int32_t on : {0, 1}) {
        SCOPED_TRACE(on);
        const int before = open_fds();
        svc_session *s[kSessions];
        for (svc_session *&x : s) {
            x = create_quietly("127.0.0.5", kId, {}, 0, bound_port(bcast.fd));
            ASSERT_NE(x, nullptr);
            ohmara_svc_configIdentity(x, "dom", "lamp-1", "light", "desk", "bulb", 40);
            ohmara_svc_configRegistry(x, &registry());
            ASSERT_EQ(ohmara_svc_setDatagramOnDemand(x, on), 0);
            ASSERT_EQ(ohmara_svc_open(x), 0);
        }
        EXPECT_EQ(open_fds(), before + kSessions * (on ? 1 : 2) + 1);  // + the one spare
        ASSERT_EQ(ohmara_svc_startCapture(s[0], path.c_str(), 1 << 16), 0);

        // Each broadcasts its first update from 127.0.0.5; the capture has
        // the first one's true source port next to the destination port.
        uint16_t first_port = 0;
        for (svc_session *x : s) {
            ASSERT_EQ(ohmara_svc_turn(x), 1);
            Bytes m;
            sockaddr_in from{};
            ASSERT_TRUE(recv_datagram(bcast.fd, &m, 200, &from));
            EXPECT_EQ(wire_action(m), kUpdate);
            EXPECT_EQ(from.sin_addr.s_addr, inet_addr("127.0.0.5"));
            if (first_port == 0) first_port = ntohs(from.sin_port);
        }
        // Acknowledged: ACTIVE; closed: the delete goes to the parent alone.
        Fd sw(bound_socket("127.0.0.2", SOCK_STREAM));
        const sockaddr_in to = inet("127.0.0.5", ntohs(s[0]->self_addr.sin_port));
        ASSERT_EQ(connect(sw.fd, reinterpret_cast<const sockaddr *>(&to), sizeof to), 0);
        ASSERT_EQ(send(sw.fd, ack.data(), ack.size(), 0), ssize_t(ack.size()));
        for (int i = 0; i < 100 && ohmara_svc_getStatus(s[0]) != OHMARA_STATUS_ACTIVE; ++i) {
            pollfd p{s[0]->listen_sock, POLLIN, 0};
            poll(&p, 1, 20);
            ASSERT_EQ(ohmara_svc_turn(s[0]), 1);
        }
        ASSERT_EQ(ohmara_svc_getStatus(s[0]), OHMARA_STATUS_ACTIVE);
        ohmara_svc_close(s[0]);
        Bytes m;
        sockaddr_in from{};
        uint16_t last = 0;
        for (; recv_datagram(parent.fd, &m, 200, &from);
             last = wire_action(m))  // an update may come first
            EXPECT_EQ(from.sin_addr.s_addr, inet_addr("127.0.0.5"));
        EXPECT_EQ(last, kDelete);
        EXPECT_TRUE(nothing_pending(bcast.fd));
        std::ifstream f(path, std::ios::binary);
        const Bytes file{std::istreambuf_iterator<char>(f), {}};
        f.close();
        const Bytes ports = cat({be16(first_port), be16(bound_port(bcast.fd))});
        EXPECT_NE(std::search(file.begin(), file.end(), ports.begin(), ports.end()), file.end());
        for (int i = 1; i < kSessions; ++i) ohmara_svc_close(s[i]);
        EXPECT_EQ(open_fds(), before + 1);  // the switch's socket
    }
    unlink(path.c_str());
}

}  // namespace
