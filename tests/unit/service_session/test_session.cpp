#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <dirent.h>
#include <errno.h>
#include <netinet/in.h>
#include <stdio.h>
#include <string.h>
#include <sys/socket.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "log_capture.h"
#include "omsdk/socket.h"
#include "service/session.h"
#include "session_fixture.h"

namespace {

using session_test::kSenderId;
constexpr uint16_t kTestPort = 47311;  // protocol port; nothing is sent to it

int open_fds() {
    int n = 0;
    DIR *d = opendir("/proc/self/fd");
    if (d == nullptr) return -1;
    while (readdir(d) != nullptr) ++n;
    closedir(d);
    return n;
}

uint16_t bound_port(int fd) {
    sockaddr_in a = {};
    socklen_t len = sizeof a;
    getsockname(fd, reinterpret_cast<sockaddr *>(&a), &len);
    return ntohs(a.sin_port);
}

std::string address_text(const void *p) {
    char buf[32];
    snprintf(buf, sizeof buf, "%x", static_cast<unsigned>(reinterpret_cast<uintptr_t>(p)));
    return buf;
}

TEST(SessionCreate, WithoutKeyUsesSenderIdForBothContexts) {
    testing::internal::CaptureStdout();
    svc_session *s = ohmara_svc_create("127.0.0.1", 0, kSenderId, nullptr, 0, 0);
    std::string out = testing::internal::GetCapturedStdout();
    ASSERT_NE(s, nullptr);

    EXPECT_EQ(out, "@@@@@@@@@@@@@@@ ohmara_svc_create hmac_shainit key_context=" +
                       address_text(&s->key_ctx) +
                       "@@@@@@@@@@@@@@@ ohmara_svc_create hmac_shainit nonce_context=" +
                       address_text(&s->nonce_ctx));

    // Listener on a system-chosen port, reachable at the local address.
    ASSERT_GE(s->listen_sock, 0);
    uint16_t lport = bound_port(s->listen_sock);
    EXPECT_NE(lport, 0);
    EXPECT_EQ(s->self_addr.sin_family, htons(2));
    EXPECT_EQ(s->self_addr.sin_port, htons(lport));
    EXPECT_EQ(s->self_addr.sin_addr.s_addr, htonl(INADDR_LOOPBACK));

    EXPECT_EQ(s->port, 43440);
    EXPECT_EQ(s->bcast_addr.sin_family, AF_INET);
    EXPECT_EQ(s->bcast_addr.sin_port, htons(43440));
    EXPECT_EQ(s->bcast_addr.sin_addr.s_addr, 0xffffffffu);

    EXPECT_EQ(std::string(s->sender_id), kSenderId);
    EXPECT_EQ(s->key, reinterpret_cast<uint8_t *>(s->sender_id));
    EXPECT_EQ(s->key_len, 32u);
    EXPECT_EQ(s->key_owned, 0);
    for (const hmac_sha_ctx *ctx : {&s->key_ctx, &s->nonce_ctx}) {
        ASSERT_EQ(ctx->key_len, 32u);
        EXPECT_EQ(memcmp(ctx->key, kSenderId, 32), 0);
        EXPECT_NE(ctx->evp, nullptr);
    }

    EXPECT_EQ(ohmara_svc_getStatus(s), OHMARA_STATUS_DOWN);
    EXPECT_EQ(s->retry_interval, 30u);
    EXPECT_EQ(s->discovery_interval, 180u);
    EXPECT_EQ(s->tcp_sock, -1);
    EXPECT_EQ(s->registry, nullptr);
    EXPECT_EQ(omr_svc_cleanup(s), 0);
}

TEST(SessionCreate, WithKeyKeepsOwnCopyAndLeavesNonceContext) {
    const uint8_t key[20] = {1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15, 16, 17, 18, 19, 20};
    testing::internal::CaptureStdout();
    svc_session *s = ohmara_svc_create("127.0.0.1", kTestPort, kSenderId, key, 20, 0);
    std::string out = testing::internal::GetCapturedStdout();
    ASSERT_NE(s, nullptr);
    EXPECT_EQ(out, "@@@@@@@@@@@@@@@ ohmara_svc_create hmac_shainit key_context=" +
                       address_text(&s->key_ctx));

    EXPECT_EQ(s->port, kTestPort);
    EXPECT_EQ(s->bcast_addr.sin_port, htons(kTestPort));
    EXPECT_EQ(s->key_owned, 1);
    EXPECT_EQ(s->key_len, 20u);
    ASSERT_NE(s->key, nullptr);
    EXPECT_NE(s->key, key);
    EXPECT_EQ(memcmp(s->key, key, 20), 0);
    ASSERT_EQ(s->key_ctx.key_len, 20u);
    EXPECT_EQ(memcmp(s->key_ctx.key, key, 20), 0);
    EXPECT_EQ(s->nonce_ctx.key, nullptr);
    EXPECT_EQ(s->nonce_ctx.evp, nullptr);
    EXPECT_EQ(omr_svc_cleanup(s), 0);
}

TEST(SessionCreate, RefusesBadArgumentsBeforeOpeningAnything) {
    const struct {
        const char *address;
        const char *sender;
        const char *message;
    } cases[] = {
        {"not.an.addr", kSenderId, "Badly formatted local address: not.an.addr"},
        {"255.255.255.255", kSenderId, "Badly formatted local address: 255.255.255.255"},
        {"127.0.0.1", nullptr, "Sender identifier is required"},
    };
    for (const auto &c : cases) {
        int before = open_fds();
        omsdk_test::LogCapture cap(0);
        EXPECT_EQ(ohmara_svc_create(c.address, kTestPort, c.sender, nullptr, 0, 0), nullptr);
        EXPECT_TRUE(cap.has(5, "ohmara_svc_create", c.message)) << cap.dump();
        EXPECT_EQ(open_fds(), before);
    }
}

TEST(SessionCreate, LogsEachStep) {
    omsdk_test::LogCapture cap(0);
    testing::internal::CaptureStdout();
    svc_session *s = ohmara_svc_create("127.0.0.1", kTestPort, kSenderId, nullptr, 0, 0);
    testing::internal::GetCapturedStdout();
    ASSERT_NE(s, nullptr);
    uint16_t lport = bound_port(s->listen_sock);
    uint16_t uport = bound_port(s->udp_sock);
    const char *f = "ohmara_svc_create";
    EXPECT_TRUE(cap.has(1, f, "Converting 127.0.0.1 (len=9) to inet address"));
    EXPECT_TRUE(cap.has(0, "new_svc_session",
                        "allocated " + std::to_string(sizeof(svc_session)) +
                            " bytes for svc session"));
    EXPECT_TRUE(cap.has(1, f, "Write socket set to reuse address"));
    EXPECT_TRUE(cap.has(1, f, "Bind to broadcast socket 127.0.0.1:" + std::to_string(uport)));
    EXPECT_TRUE(cap.has(1, "bindTcpListener", "Bind local read port:" + std::to_string(lport)));
    EXPECT_TRUE(cap.has(1, f, "===== my srv addr 127.0.0.1:" + std::to_string(lport)));
    EXPECT_TRUE(cap.has(0, f, "using destination port 47311"));
    EXPECT_TRUE(cap.has(1, f, "key_len zero"));
    EXPECT_TRUE(cap.has(1, f, "opened session using bcast address 255.255.255.255:47311"))
        << cap.dump();
    omr_svc_cleanup(s);
}

TEST(SessionCreate, CleanupLeavesNoDescriptor) {
    int before = open_fds();
    testing::internal::CaptureStdout();
    svc_session *s = ohmara_svc_create("127.0.0.1", kTestPort, kSenderId,
                                       reinterpret_cast<const uint8_t *>("k3y"), 3, 0);
    testing::internal::GetCapturedStdout();
    ASSERT_NE(s, nullptr);
    EXPECT_EQ(open_fds(), before + 2);
    s->domain = strdup("domain");  // identity texts are owned by the session
    s->device_type = strdup("meter");
    omr_svc_cleanup(s);
    EXPECT_EQ(open_fds(), before);
}

TEST(SessionCreate, ListenerBindFailureLeaksNothing) {
    int taken = socket(AF_INET, SOCK_STREAM, 0);
    ASSERT_GE(taken, 0);
    sockaddr_in a = {};
    a.sin_family = AF_INET;
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    ASSERT_EQ(bind(taken, reinterpret_cast<sockaddr *>(&a), sizeof a), 0);
    uint16_t port = bound_port(taken);

    int before = open_fds();
    omsdk_test::LogCapture cap(0);
    testing::internal::CaptureStdout();
    EXPECT_EQ(ohmara_svc_create("127.0.0.1", kTestPort, kSenderId, nullptr, 0, port), nullptr);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "");  // stopped before the keys
    EXPECT_EQ(open_fds(), before);
    EXPECT_TRUE(cap.has(3, "bindTcpListener",
                        "Bind failed server:0.0.0.0, port:" + std::to_string(port) +
                            "(" + strerror(EADDRINUSE) + ":" + std::to_string(EADDRINUSE) + ")"))
        << cap.dump();
    EXPECT_TRUE(cap.has(4, "ohmara_svc_create", "Failed to bind port"));
    close(taken);
}

// Status transitions ---------------------------------------------------------

struct Observed {
    svc_session *session = nullptr;
    std::vector<int32_t> calls;
    std::vector<int32_t> status_seen;
    bool mutex_held = false;
};
Observed g_obs;

void on_status(int32_t status) {
    g_obs.calls.push_back(status);
    // The session mutex must already be released here.
    if (pthread_mutex_trylock(&g_obs.session->mutex) != 0) {
        g_obs.mutex_held = true;
        return;
    }
    pthread_mutex_unlock(&g_obs.session->mutex);
    g_obs.status_seen.push_back(ohmara_svc_getStatus(g_obs.session));
}

class Status : public testing::Test {
protected:
    void SetUp() override {
        testing::internal::CaptureStdout();
        s_ = ohmara_svc_create("127.0.0.1", kTestPort, kSenderId, nullptr, 0, 0);
        testing::internal::GetCapturedStdout();
        ASSERT_NE(s_, nullptr);
        registry_ = session_test::full_registry();
        registry_.status_changed = on_status;
        ASSERT_EQ(ohmara_svc_configRegistry(s_, &registry_), 0);
        g_obs = Observed();
        g_obs.session = s_;
    }
    void TearDown() override {
        if (s_ != nullptr) omr_svc_cleanup(s_);
    }
    int broadcast_option() const {
        int v = -1;
        socklen_t len = sizeof v;
        getsockopt(s_->udp_sock, SOL_SOCKET, SO_BROADCAST, &v, &len);
        return v;
    }

    svc_session *s_ = nullptr;
    svc_callback_registry registry_;
};

TEST_F(Status, TransitionTable) {
    enum { D = 0, U = 1, I = 2, A = 3, S = 4 };
    const struct {
        const char *name;
        int32_t (*setter)(svc_session *);
        int32_t target;
        bool accepts[5];  // indexed by the prior status
    } table[] = {
        {"down", om_setStatusDown, D, {true, false, false, false, true}},
        {"up", om_setStatusUp, U, {false, false, true, true, false}},
        {"initializing", om_setStatusInitializing, I, {true, false, false, false, false}},
        {"active", om_setStatusActive, A, {false, true, false, false, false}},
        {"shutdown", om_setStatusShutdown, S, {false, true, false, true, false}},
    };
    for (const auto &row : table) {
        for (int32_t prior = 0; prior < 5; ++prior) {
            s_->status = prior;
            g_obs.calls.clear();
            g_obs.status_seen.clear();
            omsdk_test::LogCapture cap(0);
            int32_t r = row.setter(s_);
            std::string where = std::string(row.name) + " from " + std::to_string(prior);
            std::string refusal = "bad status state transition from state " + std::to_string(prior);
            if (row.accepts[prior]) {
                EXPECT_EQ(r, 0) << where;
                EXPECT_EQ(ohmara_svc_getStatus(s_), row.target) << where;
                EXPECT_EQ(g_obs.calls, std::vector<int32_t>{row.target}) << where;
                EXPECT_EQ(g_obs.status_seen, std::vector<int32_t>{row.target}) << where;
                EXPECT_FALSE(cap.contains("bad status")) << where;
            } else {
                EXPECT_EQ(r, -1) << where;
                EXPECT_EQ(ohmara_svc_getStatus(s_), prior) << where;
                EXPECT_TRUE(g_obs.calls.empty()) << where;
                EXPECT_EQ(cap.count_containing(refusal), 1u) << where << "\n" << cap.dump();
            }
        }
    }
    EXPECT_FALSE(g_obs.mutex_held);
}

TEST_F(Status, LifecycleAndBroadcastMode) {
    EXPECT_EQ(om_setStatusInitializing(s_), 0);
    EXPECT_EQ(broadcast_option(), 0);
    {
        omsdk_test::LogCapture cap(0);
        EXPECT_EQ(om_setStatusUp(s_), 0);
        EXPECT_TRUE(cap.has(1, "omr_setBroadcastMode", "Write socket set broadcast mode to 1"));
    }
    EXPECT_EQ(broadcast_option(), 1);
    EXPECT_EQ(om_setStatusActive(s_), 0);
    EXPECT_EQ(broadcast_option(), 0);
    EXPECT_EQ(om_setStatusUp(s_), 0);  // the switch went quiet
    EXPECT_EQ(broadcast_option(), 1);
    EXPECT_EQ(om_setStatusShutdown(s_), 0);
    EXPECT_EQ(om_setStatusDown(s_), 0);
    EXPECT_EQ(g_obs.calls, (std::vector<int32_t>{2, 1, 3, 1, 4, 0}));
    EXPECT_EQ(g_obs.status_seen, g_obs.calls);
    EXPECT_FALSE(g_obs.mutex_held);

    // A refused transition leaves broadcast mode alone.
    EXPECT_EQ(om_setStatusUp(s_), -1);
    EXPECT_EQ(broadcast_option(), 1);
}

TEST_F(Status, BroadcastModeFailureIsLogged) {
    int fds[2];
    ASSERT_EQ(pipe(fds), 0);
    int udp = s_->udp_sock;
    s_->udp_sock = fds[0];  // not a socket
    omsdk_test::LogCapture cap(0);
    omr_setBroadcastMode(s_, 1);
    EXPECT_TRUE(cap.has(4, "omr_setBroadcastMode",
                        "Could not set socket to broadcast 1 (" + std::to_string(ENOTSOCK) + ":" +
                            strerror(ENOTSOCK) + ")"))
        << cap.dump();
    s_->udp_sock = udp;
    close(fds[0]);
    close(fds[1]);

    s_->udp_sock = -1;
    cap.clear();
    omr_setBroadcastMode(s_, 1);  // nothing to set
    omr_setBroadcastMode(nullptr, 1);
    EXPECT_TRUE(cap.lines().empty());
    s_->udp_sock = udp;
}

TEST(SessionStatus, DownWithoutRegistryIsAccepted) {
    svc_session *s = new_svc_session();
    ASSERT_NE(s, nullptr);
    EXPECT_EQ(s->udp_sock, -1);
    EXPECT_EQ(s->tcp_sock, -1);
    EXPECT_EQ(s->listen_sock, -1);
    EXPECT_EQ(om_setStatusDown(s), 0);
    s->status = OHMARA_STATUS_UP;
    EXPECT_EQ(om_setStatusDown(s), -1);
    EXPECT_EQ(ohmara_svc_getStatus(s), OHMARA_STATUS_UP);
    omr_svc_cleanup(s);
}

TEST(SessionUtil, VersionAndErrorCode) {
    EXPECT_STREQ(ohmara_utl_getVersion(), "2.1.0");
    errno = EADDRINUSE;
    EXPECT_EQ(omr_getErrorCode(), EADDRINUSE);
}

}  // namespace
