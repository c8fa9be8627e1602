// Session creation: the keys each context gets, and nothing left open when
// creation is refused or fails part way or is undone.
#include <dirent.h>
#include <gtest/gtest.h>

#include "endpoint.h"

namespace {

using namespace ep_test;

int open_fds() {
    int n = 0;
    DIR *d = opendir("/proc/self/fd");
    while (d != nullptr && readdir(d) != nullptr) ++n;
    if (d != nullptr) closedir(d);
    return n;
}
Bytes key_of(const hmac_sha_ctx &c) { return c.key ? Bytes(c.key, c.key + c.key_len) : Bytes(); }
svc_session *create(const char *addr, const uint8_t *key, int32_t key_len, uint16_t listen = 0,
                    const char *id = kId) {
    testing::internal::CaptureStdout();  // creation prints where it keys
    svc_session *s = ohmara_svc_create(addr, 47311, id, key, key_len, listen);
    testing::internal::GetCapturedStdout();
    return s;
}

TEST(Create, KeysByWhatIsGivenAndLeavesNothingOpenWhenRefusedOrUndone) {
    EXPECT_STREQ(ohmara_utl_getVersion(), "2.1.0");
    const Bytes key = hex("0102030405060708090a0b0c0d0e0f1011121314");
    const int before = open_fds();
    for (bool keyed : {false, true}) {  // without a key the sender id keys both contexts
        svc_session *s = create("127.0.0.1", keyed ? key.data() : nullptr, keyed ? 20 : 0);
        ASSERT_NE(s, nullptr);
        EXPECT_EQ(open_fds(), before + 2);
        EXPECT_EQ(key_of(s->key_ctx), keyed ? key : text(kId));
        EXPECT_EQ(key_of(s->nonce_ctx), keyed ? Bytes() : text(kId));
        EXPECT_EQ(s->self_addr.sin_port, htons(bound_port(s->listen_sock)));
        s->domain = strdup("domain");      // identity texts are the session's to free
        EXPECT_EQ(omr_svc_cleanup(s), 0);  // a leak shows in the sanitizer build
    }
    svc_session *other = create("127.0.0.1", nullptr, 0);  // its listener's port is taken
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
        EXPECT_EQ(create(c.address, nullptr, 0, c.listen, c.sender), nullptr) << c.address;
    omr_svc_cleanup(other);
    EXPECT_EQ(open_fds(), before);
}

}  // namespace
