// SPDX-License-Identifier: Apache-2.0
// The listen backlog setter takes effect on the live listener: with
// backlog n and nobody accepting, n + 1 connections complete (the kernel's
// accept queue holds one more than the backlog) and the next stays pending.
#include <fcntl.h>
#include <gtest/gtest.h>

#include "endpoint.h"

namespace {

using namespace ep_test;

// Connections that complete within the time limit, of `tries` started at once.
int completed(uint16_t port, int tries) {
    std::vector<pollfd> all, pending;
    const sockaddr_in to = inet("127.0.0.1", port);
    for (int i = 0; i < tries; ++i) {
        all.push_back({socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK, 0), POLLOUT, 0});
        sockaddr_in from = inet("127.0.0.2");
        bind(all.back().fd, reinterpret_cast<sockaddr *>(&from), sizeof from);
        if (connect(all.back().fd, reinterpret_cast<const sockaddr *>(&to), sizeof to) != 0)
            pending.push_back(all.back());
    }
    // A refused handshake is retried after a second; the limit ends before.
    auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(400);
    int done = tries - static_cast<int>(pending.size());
    while (!pending.empty() && std::chrono::steady_clock::now() < end) {
        if (poll(pending.data(), pending.size(), 50) <= 0) continue;
        for (size_t i = 0; i < pending.size();) {
            if (pending[i].revents == 0) {
                ++i;
                continue;
            }
            done += (pending[i].revents & POLLOUT) != 0;
            pending.erase(pending.begin() + static_cast<long>(i));
        }
    }
    for (const pollfd &p : all) close(p.fd);
    return done;
}

TEST(Options, ListenBacklogTakesEffect) {
    for (int32_t backlog : {2, 5}) {
        testing::internal::CaptureStdout();  // creation prints where it keys
        svc_session *s = ohmara_svc_create("127.0.0.1", 47312, kId, nullptr, 0, 0);
        testing::internal::GetCapturedStdout();
        ASSERT_NE(s, nullptr);
        EXPECT_EQ(ohmara_svc_setListenBacklog(s, backlog), 0);
        EXPECT_EQ(completed(bound_port(s->listen_sock), backlog + 3), backlog + 1) << backlog;
        omr_svc_cleanup(s);
    }
}

}  // namespace
