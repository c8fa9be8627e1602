#include <dirent.h>
#include <gtest/gtest.h>

#include "engine_harness.h"  // sockets, the application's callbacks
#include "log_capture.h"

namespace {

using engine_test::bound_port;
using engine_test::kId;
using omsdk_test::LogCapture;
constexpr uint16_t kTestPort = 47311;  // protocol port; nothing is sent to it

int open_fds() {
    int n = 0;
    DIR *d = opendir("/proc/self/fd");
    while (d != nullptr && readdir(d) != nullptr) ++n;
    if (d != nullptr) closedir(d);
    return n;
}

// The line creation prints when it keys a context: its address in hex.
std::string keyed(const char *name, const void *ctx) {
    char buf[96];
    snprintf(buf, sizeof buf, "@@@@@@@@@@@@@@@ ohmara_svc_create hmac_shainit %s=%x", name,
             static_cast<unsigned>(reinterpret_cast<uintptr_t>(ctx)));
    return buf;
}

// Creates a session; what it printed on stdout goes to *out.
svc_session *create(const uint8_t *key, int32_t key_len, std::string *out, uint16_t port = 0,
                    uint16_t listen = 0, const char *addr = "127.0.0.1", const char *id = kId) {
    testing::internal::CaptureStdout();
    svc_session *s = ohmara_svc_create(addr, port, id, key, key_len, listen);
    *out = testing::internal::GetCapturedStdout();
    return s;
}

TEST(SessionCreate, WithoutKeyTheSenderIdKeysBothContexts) {
    std::string out;
    svc_session *s = create(nullptr, 0, &out);
    ASSERT_NE(s, nullptr);
    EXPECT_EQ(out, keyed("key_context", &s->key_ctx) + keyed("nonce_context", &s->nonce_ctx));
    ASSERT_GE(s->listen_sock, 0);
    EXPECT_EQ(s->self_addr.sin_family, htons(2));  // 00 02 on the wire
    EXPECT_EQ(s->self_addr.sin_port, htons(bound_port(s->listen_sock)));
    EXPECT_EQ(s->self_addr.sin_addr.s_addr, htonl(0x7F000001));
    EXPECT_EQ(s->bcast_addr.sin_port, htons(43440));  // the default, only stored
    EXPECT_EQ(s->bcast_addr.sin_addr.s_addr, 0xffffffffu);
    EXPECT_EQ(s->key, reinterpret_cast<uint8_t *>(s->sender_id));
    EXPECT_EQ(s->key_len, 32u);
    EXPECT_EQ(s->key_owned, 0);
    for (const hmac_sha_ctx *ctx : {&s->key_ctx, &s->nonce_ctx}) {
        ASSERT_EQ(ctx->key_len, 32u);
        EXPECT_EQ(memcmp(ctx->key, kId, 32), 0);
        EXPECT_NE(ctx->evp, nullptr);
    }
    EXPECT_EQ(ohmara_svc_getStatus(s), OHMARA_STATUS_DOWN);
    EXPECT_EQ(s->retry_interval, 30u);
    EXPECT_EQ(s->discovery_interval, 180u);
    EXPECT_EQ(omr_svc_cleanup(s), 0);
}

TEST(SessionCreate, WithKeyKeepsOwnCopyAndCleanupLeavesNothing) {
    const uint8_t key[20] = {1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15, 16, 17, 18, 19, 20};
    const int before = open_fds();
    std::string out;
    svc_session *s = create(key, 20, &out, kTestPort);
    ASSERT_NE(s, nullptr);
    EXPECT_EQ(open_fds(), before + 2);
    EXPECT_EQ(out, keyed("key_context", &s->key_ctx));
    EXPECT_EQ(s->bcast_addr.sin_port, htons(kTestPort));
    EXPECT_EQ(s->key_owned, 1);
    ASSERT_EQ(s->key_len, 20u);
    EXPECT_NE(s->key, key);
    EXPECT_EQ(memcmp(s->key, key, 20), 0);
    ASSERT_EQ(s->key_ctx.key_len, 20u);
    EXPECT_EQ(memcmp(s->key_ctx.key, key, 20), 0);
    EXPECT_EQ(s->nonce_ctx.key, nullptr);
    EXPECT_EQ(s->nonce_ctx.evp, nullptr);
    s->domain = strdup("domain");  // identity texts are owned by the session
    s->device_type = strdup("meter");
    EXPECT_EQ(omr_svc_cleanup(s), 0);  // a leak shows in the sanitizer build
    EXPECT_EQ(open_fds(), before);
}

TEST(SessionCreate, RefusedOrFailedPartWayLeavesNothingOpen) {
    std::string out;
    svc_session *other = create(nullptr, 0, &out);  // its listener's port is taken
    ASSERT_NE(other, nullptr);
    const struct {
        const char *address, *sender, *message;
        uint16_t listen;
        uint32_t level;
    } cases[] = {
        {"not.an.addr", kId, "Badly formatted local address: not.an.addr", 0, 5},
        {"255.255.255.255", kId, "Badly formatted local address: 255.255.255.255", 0, 5},
        {"127.0.0.1", nullptr, "Sender identifier is required", 0, 5},
        {"127.0.0.1", kId, "Failed to bind port", bound_port(other->listen_sock), 4},
    };
    for (const auto &c : cases) {
        const int before = open_fds();
        LogCapture cap(0);
        EXPECT_EQ(create(nullptr, 0, &out, kTestPort, c.listen, c.address, c.sender), nullptr);
        EXPECT_EQ(out, "");  // stopped before the keys
        EXPECT_TRUE(cap.has(c.level, "ohmara_svc_create", c.message)) << cap.dump();
        EXPECT_EQ(open_fds(), before);
    }
    omr_svc_cleanup(other);
}

// The callback must come after the unlock: only then can it read the status.
struct Observed {
    svc_session *session = nullptr;
    std::vector<int32_t> calls, seen;
} g_obs;

void on_status(int32_t status) {
    g_obs.calls.push_back(status);
    if (pthread_mutex_trylock(&g_obs.session->mutex) != 0) return;
    pthread_mutex_unlock(&g_obs.session->mutex);
    g_obs.seen.push_back(ohmara_svc_getStatus(g_obs.session));
}

int broadcast_option(int fd) {
    int v = -1;
    socklen_t len = sizeof v;
    return getsockopt(fd, SOL_SOCKET, SO_BROADCAST, &v, &len) == 0 ? v : -1;
}

TEST(SessionStatus, TransitionTableWithCallbacksAndBroadcastMode) {
    std::string out;
    svc_session *s = create(nullptr, 0, &out, kTestPort);
    ASSERT_NE(s, nullptr);
    svc_callback_registry reg = engine_test::registry();
    reg.status_changed = on_status;
    ASSERT_EQ(ohmara_svc_configRegistry(s, &reg), 0);
    g_obs.session = s;

    enum { D, U, I, A, S };
    const struct {
        int32_t (*setter)(svc_session *);
        int32_t target;
        bool accepts[5];  // indexed by the prior status
        int broadcast;    // the mode set on the way, -1 when left alone
    } table[] = {
        {om_setStatusDown, D, {true, false, false, false, true}, -1},
        {om_setStatusUp, U, {false, false, true, true, false}, 1},
        {om_setStatusInitializing, I, {true, false, false, false, false}, -1},
        {om_setStatusActive, A, {false, true, false, false, false}, 0},
        {om_setStatusShutdown, S, {false, true, false, true, false}, -1},
    };
    for (const auto &row : table) {
        for (int32_t prior = 0; prior < 5; ++prior) {
            SCOPED_TRACE("to " + std::to_string(row.target) + " from " + std::to_string(prior));
            s->status = prior;
            const int preset = row.broadcast >= 0 ? 1 - row.broadcast : prior % 2;
            setsockopt(s->udp_sock, SOL_SOCKET, SO_BROADCAST, &preset, sizeof preset);
            g_obs.calls.clear();
            g_obs.seen.clear();
            LogCapture cap(0);
            const int32_t r = row.setter(s);
            const bool ok = row.accepts[prior];
            EXPECT_EQ(r, ok ? 0 : -1);
            EXPECT_EQ(ohmara_svc_getStatus(s), ok ? row.target : prior);
            EXPECT_EQ(g_obs.calls, ok ? std::vector<int32_t>{row.target} : std::vector<int32_t>{});
            EXPECT_EQ(g_obs.seen, g_obs.calls);
            const std::string refusal = "bad status state transition from state ";
            EXPECT_EQ(cap.count_containing(refusal + std::to_string(prior)), ok ? 0u : 1u)
                << cap.dump();
            const int mode = ok && row.broadcast >= 0 ? row.broadcast : preset;  // seen to change
            EXPECT_EQ(broadcast_option(s->udp_sock), mode);
        }
    }
    omr_svc_cleanup(s);
}

TEST(ConfigRegistry, RefusesEachMissingRequiredSlotAndWarnsForOptionalOnes) {
    svc_session *s = new_svc_session();
    ASSERT_NE(s, nullptr);
    svc_callback_registry accepted = engine_test::registry();
    ASSERT_EQ(ohmara_svc_configRegistry(s, &accepted), 0);
    using R = svc_callback_registry;
    const struct { void (*clear)(R &); const char *slot; } required[] = {
        {[](R &r) { r.get_units = nullptr; }, "GET units callback handler"},
        {[](R &r) { r.get_usage = nullptr; }, "GET usage callback handler"},
        {[](R &r) { r.get_usage_caliber = nullptr; }, "GET usage caliber callback handler"},
        {[](R &r) { r.get_usage_category = nullptr; }, "GET usage category callback handler"},
        {[](R &r) { r.get_level = nullptr; }, "GET level handler"},
        {[](R &r) { r.set_level = nullptr; }, "SET level callback handler"},
        {[](R &r) { r.get_usage_vector = nullptr; }, "GET usage vector callback handler"},
        {[](R &r) { r.get_delta_vector = nullptr; }, "GET delta vector callback handler"},
        {[](R &r) { r.next_sequence = nullptr; }, "Next sequence number callback handler"},
    };
    for (const auto &c : required) {
        SCOPED_TRACE(c.slot);
        R r = accepted;
        c.clear(r);
        LogCapture cap(0);
        EXPECT_EQ(ohmara_svc_configRegistry(s, &r), -1);
        EXPECT_TRUE(cap.has(4, "ohmara_svc_configRegistry",
                            std::string(c.slot) + " not initialized properly"))
            << cap.dump();
        EXPECT_EQ(cap.lines().size(), 1u) << cap.dump();
        EXPECT_EQ(s->registry, &accepted);
    }
    LogCapture cap(0);
    EXPECT_EQ(ohmara_svc_configRegistry(s, nullptr), -1);
    EXPECT_TRUE(cap.has(4, "ohmara_svc_configRegistry", "No callback registry provided"));
    EXPECT_EQ(s->registry, &accepted);

    cap.clear();
    svc_callback_registry partial = accepted;
    partial.attribute_modified = nullptr;
    partial.listen_port_notify = nullptr;
    EXPECT_EQ(ohmara_svc_configRegistry(s, &partial), 0);
    EXPECT_EQ(s->registry, &partial);
    for (std::string slot : {"Modified attribute", "TCP listen port"})
        EXPECT_TRUE(cap.has(3, "ohmara_svc_configRegistry",
                            slot + " notification callback handler not initialized properly"));
    EXPECT_EQ(cap.lines().size(), 2u) << cap.dump();
    omr_svc_cleanup(s);
}

TEST(SessionUtil, Version) { EXPECT_STREQ(ohmara_utl_getVersion(), "2.1.0"); }

}  // namespace
