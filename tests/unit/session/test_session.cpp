// SPDX-License-Identifier: Apache-2.0
// The callback registry, and the status machine as the application sees it:
// which moves are taken, the callback after each (with the mutex free), and
// the broadcast mode.
#include <gtest/gtest.h>

#include "endpoint.h"

namespace {

using namespace ep_test;

svc_session *g_session;
std::vector<int32_t> g_calls;
bool g_unlocked = true;

int broadcast_option(int fd) {
    int v = -1;
    socklen_t len = sizeof v;
    return getsockopt(fd, SOL_SOCKET, SO_BROADCAST, &v, &len) == 0 ? v : -1;
}

TEST(Status, RegistryTransitionTableCallbacksAndBroadcastMode) {
    Endpoint e;
    g_session = e.s;
    svc_callback_registry reg = registry();
    reg.status_changed = [](int32_t status) {
        g_calls.push_back(status);
        if (pthread_mutex_trylock(&g_session->mutex) != 0) return void(g_unlocked = false);
        pthread_mutex_unlock(&g_session->mutex);
    };
    // A value callback is required (the previous table is kept), the notifications are not.
    svc_callback_registry partial = reg;
    partial.next_sequence = nullptr;
    EXPECT_EQ(ohmara_svc_configRegistry(e.s, &partial), -1);
    EXPECT_EQ(ohmara_svc_configRegistry(e.s, nullptr), -1);
    EXPECT_EQ(e.s->registry, &registry());
    partial = registry();
    partial.attribute_modified = nullptr, partial.listen_port_notify = nullptr;
    partial.status_changed = nullptr, partial.alarm_reply = nullptr;
    EXPECT_EQ(ohmara_svc_configRegistry(e.s, &partial), 0);
    EXPECT_EQ(e.s->registry, &partial);
    ASSERT_EQ(ohmara_svc_configRegistry(e.s, &reg), 0);
    enum { D, U, I, A, S };
    const struct {
        int32_t (*setter)(svc_session *);
        int32_t target;
        bool accepts[5];  // by the prior status
        int broadcast;    // the mode set on the way, -1 when left alone
    } table[] = {
        {om_setStatusDown, D, {true, false, false, false, true}, -1},
        {om_setStatusUp, U, {false, false, true, true, false}, 1},
        {om_setStatusInitializing, I, {true, false, false, false, false}, -1},
        {om_setStatusActive, A, {false, true, false, false, false}, 0},
        {om_setStatusShutdown, S, {false, true, false, true, false}, -1},
    };
    QuietLog quiet;
    for (const auto &row : table)
        for (int32_t prior = 0; prior < 5; ++prior) {
            SCOPED_TRACE("to " + std::to_string(row.target) + " from " + std::to_string(prior));
            e.s->status = prior;
            const int preset = row.broadcast >= 0 ? 1 - row.broadcast : prior % 2;
            setsockopt(e.s->udp_sock, SOL_SOCKET, SO_BROADCAST, &preset, sizeof preset);
            g_calls.clear();
            const bool ok = row.accepts[prior];
            EXPECT_EQ(row.setter(e.s), ok ? 0 : -1);
            EXPECT_EQ(ohmara_svc_getStatus(e.s), ok ? row.target : prior);
            EXPECT_EQ(g_calls, ok ? std::vector<int32_t>{row.target} : std::vector<int32_t>{});
            EXPECT_EQ(broadcast_option(e.s->udp_sock),
                      ok && row.broadcast >= 0 ? row.broadcast : preset);
        }
    EXPECT_TRUE(g_unlocked);
    EXPECT_EQ(om_setStatusUp(nullptr), -1);
    EXPECT_EQ(ohmara_svc_getStatus(nullptr), -1);
}

// A restart is a process whose rand() nobody seeded: the reference nonce is then the same,
// the generator's first value; the hardened one is drawn anew when the profile is set. Only
// the identifier's own characters are read: a short one is zero-padded.
TEST(Create, LocalNonceRepeatsAcrossRestartsUnlessHardened) {
    char id[40];
    memset(id, 'X', sizeof id);
    memcpy(id, "abc", 4);
    QuietLog quiet;
    for (bool hardened : {false, true}) {
        uint32_t nonce[2];
        for (uint32_t &n : nonce) {
            srand(1);  // as a new process finds it
            svc_session *s = create_quietly("127.0.0.1", id);
            ASSERT_NE(s, nullptr);
            EXPECT_EQ(std::string(s->sender_id, 33), std::string("abc") + std::string(30, '\0'));
            if (hardened) {
                ASSERT_EQ(ohmara_svc_setProfile(s, OHMARA_PROFILE_HARDENED), 0);
            }
            n = s->local_nonce;
            omr_svc_cleanup(s);
        }
        EXPECT_EQ(nonce[0] == nonce[1], !hardened) << std::hex << nonce[0];
        EXPECT_EQ(nonce[0] == 1804289383u, !hardened);  // glibc's first rand() after srand(1)
    }
}

}  // namespace
