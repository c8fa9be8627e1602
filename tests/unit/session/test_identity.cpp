// SPDX-License-Identifier: Apache-2.0
// Identity texts: the character whitelist, refusals, defaults and copies.
#include <gtest/gtest.h>

#include <arpa/inet.h>

#include "log_capture.h"
#include "omsdk.h"
#include "session/identity.h"
#include "session/session.h"

namespace {

using Texts = std::vector<std::string>;

TEST(Whitelist, ListedCharactersOnlyAndBlankForRoleOnly) {
    const char all[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789"
                       "~!@#$%^&()_-+={}[]\\:.,></";
    const struct {
        const char *text;
        int32_t field, want;
    } cases[] = {
        {all, 3, 1},  {all, 2, 1},   {all, 4, 1},    {all, 5, 1},           {nullptr, 3, 0},
        {"", 2, 0},   {"a b", 3, 0}, {"a b", 4, 0},  {"a b", 5, 0},         {"a b", 2, 1},
        {" ", 2, 1},  {"a*", 3, 0},  {"a;", 3, 0},   {"a?", 4, 0},          {"a|", 5, 0},
        {"a'", 2, 0}, {"a`", 3, 0},  {"a\tb", 2, 0}, {"caf\xc3\xa9", 4, 0},
    };
    for (const auto &c : cases)
        EXPECT_EQ(omr_string_in_whitelist(c.text, c.field), c.want)
            << (c.text ? c.text : "(null)") << " field " << c.field;
}

// A bare record with only its address; the texts are freed here.
struct Bare {
    svc_session *s = static_cast<svc_session *>(calloc(1, sizeof(svc_session)));
    omsdk_test::QuietLog quiet;
    Bare() { s->self_addr.sin_addr.s_addr = inet_addr("127.0.0.1"); }
    ~Bare() {
        for (char *p : {s->domain, s->keywords, s->name, s->role, s->device_type}) free(p);
        free(s);
    }
    int32_t config(const char *d, const char *n, const char *r, const char *k, const char *t,
                   uint8_t importance) {
        return ohmara_svc_configIdentity(s, d, n, r, k, t, importance);
    }
    Texts texts() const {  // domain, name, role, keywords, device type
        Texts v;
        for (const char *p : {s->domain, s->name, s->role, s->keywords, s->device_type})
            v.push_back(p ? p : "(null)");
        return v;
    }
};

TEST(Identity, RefusedDomainLeavesTheRecordUnchanged) {
    for (const char *domain : {(const char *)nullptr, "", "my domain", "dom*"}) {
        Bare b;
        EXPECT_EQ(b.config(domain, "n", "r", "k", "d", 5), -1);
        EXPECT_EQ(b.texts(), Texts(5, "(null)"));
        EXPECT_EQ(b.s->importance, 0u);
    }
    EXPECT_EQ(ohmara_svc_configIdentity(nullptr, "d", "n", "r", "k", "d", 5), -1);
}

TEST(Identity, ValidValuesStoredInvalidOnesDefaultedOwnTextsCopied) {
    Bare b;
    ASSERT_EQ(b.config("Campus.B2", "lamp-7", "Floor Lamp", "led,desk", "odd*; type", 100), 0);
    // The device type is never checked.
    EXPECT_EQ(b.texts(), (Texts{"Campus.B2", "lamp-7", "Floor Lamp", "led,desk", "odd*; type"}));
    EXPECT_EQ(b.s->importance, 100u);
    // Replaced: the old copies are freed (a leak shows in the sanitizer build).
    ASSERT_EQ(b.config("d", "bad name", "bad*role", nullptr, nullptr, 0), 0);
    EXPECT_EQ(b.texts(), (Texts{"d", "Endpoint@127.0.0.1", "Endpoint", "", "Unknown"}));
    EXPECT_EQ(b.s->importance, 1u);
    // The record's own texts handed back in are copied before the old ones go.
    ASSERT_EQ(b.config(b.s->domain, b.s->name, b.s->role, "k3", b.s->device_type, 1), 0);
    EXPECT_EQ(b.texts(), (Texts{"d", "Endpoint@127.0.0.1", "Endpoint", "k3", "Unknown"}));
    ASSERT_EQ(b.config("d", "n", "r", "k", "t", 101), 0);
    EXPECT_EQ(b.s->importance, 1u);  // 1 to 100 only
}

// The largest discovery event is an update while ACTIVE with the nonce, an alarm and every
// metered value: 80 fixed + reply-to 28 + nonce 16 + alarm 26 + nanny 16 + update values 175
// + sender 48 = 389 bytes; then a 12-byte header each for domain, name, role and keywords, and
// their characters (keywords with a NUL): 438 + the four lengths, at most 1400.
TEST(Identity, RefusedWhenDiscoveryCouldNotCarryItAndThePreviousOneKept) {
    const struct {
        size_t name, keywords;
        bool accepted;
    } cases[] = {
        {958, 1, true},   {959, 1, true},    {1, 959, true},
        {960, 1, false},  {1, 960, false},   {500, 461, false},
        {2000, 1, false}, {70000, 1, false}, {1 << 20, 1, false},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(std::to_string(c.name) + " " + std::to_string(c.keywords));
        Bare b;
        ASSERT_EQ(b.config("d", "before", "r", "k", "t", 5), 0);
        const std::string name(c.name, 'n'), keywords(c.keywords, 'k');
        EXPECT_EQ(b.config("d", name.c_str(), "r", keywords.c_str(), "u", 6), c.accepted ? 0 : -1);
        EXPECT_EQ(b.texts(), c.accepted ? Texts({"d", name, "r", keywords, "u"})
                                        : Texts({"d", "before", "r", "k", "t"}));
        EXPECT_EQ(b.s->importance, c.accepted ? 6u : 5u);
    }
}

}  // namespace
