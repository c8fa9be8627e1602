// SPDX-License-Identifier: Apache-2.0
// Session creation: the keys each context gets, nothing left open when
// creation is refused or fails part way or is undone, the listener's options.
#include <gtest/gtest.h>

#include "endpoint.h"

namespace {

using namespace ep_test;

Bytes key_of(const hmac_sha_ctx &c) { return c.key ? Bytes(c.key, c.key + c.key_len) : Bytes(); }
TEST(Create, KeysByWhatIsGivenAndLeavesNothingOpenWhenRefusedOrUndone) {
    const Bytes key = hex("0102030405060708090a0b0c0d0e0f1011121314");
    const int before = open_fds();
    for (bool keyed : {false, true}) {  // without a key the sender id keys both contexts
        svc_session *s = create_quietly("127.0.0.1", kId, keyed ? key : Bytes());
        ASSERT_NE(s, nullptr);
        EXPECT_EQ(open_fds(), before + 2);
        EXPECT_EQ(key_of(s->key_ctx), keyed ? key : text(kId));
        EXPECT_EQ(key_of(s->nonce_ctx), keyed ? Bytes() : text(kId));
        s->domain = strdup("domain");      // identity texts are the session's to free
        EXPECT_EQ(omr_svc_cleanup(s), 0);  // a leak shows in the sanitizer build
    }
    svc_session *other = create_quietly("127.0.0.1");  // its listener's port is taken
    ASSERT_NE(other, nullptr);
    const struct {
        const char *address, *sender;
        uint16_t listen;
    } cases[] = {
        {"not.an.addr", kId, 0},
        {"255.255.255.255", kId, 0},
        {"127.0.0.1", nullptr, 0},
        {"127.0.0.1", kId, bound_port(other->listen_sock)},
    };
    QuietLog quiet;
    for (const auto &c : cases)
        EXPECT_EQ(create_quietly(c.address, c.sender, {}, c.listen), nullptr) << c.address;
    omr_svc_cleanup(other);
    EXPECT_EQ(open_fds(), before);
}

// The hardened listener binds the local address, and its port can be bound
// again at once although a connection it served lingers (TIME_WAIT, the
// endpoint having closed first); the reference one binds any address and
// its port stays taken meanwhile.
TEST(Create, ListenerAddressAndRestartOnAFixedPortByProfile) {
    QuietLog quiet;
    for (uint32_t profile : {OHMARA_PROFILE_REFERENCE, OHMARA_PROFILE_HARDENED}) {
        SCOPED_TRACE(profile);
        const bool hardened = profile == OHMARA_PROFILE_HARDENED;
        svc_session *s = create_quietly("127.0.0.1");
        ASSERT_NE(s, nullptr);
        ASSERT_EQ(ohmara_svc_setProfile(s, profile), 0);
        sockaddr_in at{};
        socklen_t len = sizeof at;
        ASSERT_EQ(getsockname(s->listen_sock, reinterpret_cast<sockaddr *>(&at), &len), 0);
        EXPECT_EQ(at.sin_addr.s_addr, hardened ? inet_addr("127.0.0.1") : htonl(INADDR_ANY));
        const uint16_t port = ntohs(at.sin_port);
        EXPECT_EQ(s->self_addr.sin_port, at.sin_port);

        Fd client(bound_socket("127.0.0.2", SOCK_STREAM));
        const sockaddr_in to = inet("127.0.0.1", port);
        ASSERT_EQ(connect(client.fd, reinterpret_cast<const sockaddr *>(&to), sizeof to), 0);
        close(accept(s->listen_sock, nullptr, nullptr));  // the endpoint's side closes first
        char c;
        EXPECT_EQ(recv(client.fd, &c, 1, 0), 0);
        close(client.fd), client.fd = -1;
        omr_svc_cleanup(s);

        svc_session *again = create_quietly("127.0.0.1", kId, {}, port);
        EXPECT_EQ(again != nullptr, hardened);
        if (again == nullptr) continue;
        EXPECT_EQ(ohmara_svc_setProfile(again, profile), 0);
        EXPECT_EQ(bound_port(again->listen_sock), port);
        omr_svc_cleanup(again);
    }
}

// Connections that complete, of `tries` made one after another, each given
// 200 ms: a refused handshake is retried only after a second.
int completed(uint16_t port, int tries) {
    std::vector<int> fds;
    const sockaddr_in to = inet("127.0.0.1", port);
    const timeval limit{0, 200000};
    int done = 0;
    for (int i = 0; i < tries; ++i) {
        fds.push_back(bound_socket("127.0.0.2", SOCK_STREAM));
        setsockopt(fds.back(), SOL_SOCKET, SO_SNDTIMEO, &limit, sizeof limit);
        done += connect(fds.back(), reinterpret_cast<const sockaddr *>(&to), sizeof to) == 0;
    }
    for (int fd : fds) close(fd);
    return done;
}

// The backlog setter takes effect on the live listener: with backlog n and
// nobody accepting, n + 1 connections complete (the kernel's accept queue
// holds one more than the backlog) and the next stays pending.
TEST(Options, ListenBacklogTakesEffect) {
    for (int32_t backlog : {2, 5}) {
        svc_session *s = create_quietly("127.0.0.1");
        ASSERT_NE(s, nullptr);
        EXPECT_EQ(ohmara_svc_setListenBacklog(s, backlog), 0);
        EXPECT_EQ(completed(bound_port(s->listen_sock), backlog + 3), backlog + 1) << backlog;
        omr_svc_cleanup(s);
    }
}

}  // namespace
