#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <stdlib.h>
#include <string.h>

#include <string>

#include "log_capture.h"
#include "omsdk.h"
#include "service/identity.h"
#include "service/session.h"

namespace {

using omsdk_test::LogCapture;

// A bare session record with only the local address set; identity texts are
// freed by hand so the record can be checked without the rest of the service.
struct Session {
    svc_session *s;
    Session() : s(static_cast<svc_session *>(calloc(1, sizeof(svc_session)))) {
        s->self_addr.sin_addr.s_addr = inet_addr("127.0.0.1");
    }
    ~Session() {
        free(s->domain);
        free(s->keywords);
        free(s->name);
        free(s->role);
        free(s->device_type);
        free(s);
    }
};

TEST(Whitelist, AcceptsOnlyListedCharactersAndBlankForRoleOnly) {
    const char all[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789"
                       "~!@#$%^&()_-+={}[]\\:.,></";
    struct Case {
        const char *text;
        int32_t field;
        int32_t want;
    } cases[] = {
        {all, 3, 1}, {all, 2, 1}, {all, 4, 1}, {all, 5, 1},
        {nullptr, 3, 0}, {"", 2, 0},
        {"a b", 3, 0}, {"a b", 4, 0}, {"a b", 5, 0}, {"a b", 2, 1}, {" ", 2, 1},
        {"a*", 3, 0}, {"a;", 3, 0}, {"a?", 4, 0}, {"a|", 5, 0}, {"a'", 2, 0},
        {"a\"", 2, 0}, {"a`", 3, 0}, {"a\tb", 2, 0}, {"caf\xc3\xa9", 4, 0},
    };
    for (const Case &c : cases)
        EXPECT_EQ(omr_string_in_whitelist(c.text, c.field), c.want)
            << (c.text ? c.text : "(null)") << " field " << c.field;
}

TEST(Identity, RefusedDomainLeavesSessionUnchanged) {
    for (const char *domain : {(const char *)nullptr, "", "my domain", "dom*", "dom;"}) {
        Session t;
        LogCapture cap(0);
        EXPECT_EQ(ohmara_svc_configIdentity(t.s, domain, "n", "r", "k", "d", 5), -1);
        EXPECT_TRUE(cap.has(3, "ohmara_svc_configIdentity",
                            "Invalid or no characters defined for domain"));
        EXPECT_EQ(t.s->domain, nullptr);
        EXPECT_EQ(t.s->name, nullptr);
        EXPECT_EQ(t.s->importance, 0u);
    }
    EXPECT_EQ(ohmara_svc_configIdentity(nullptr, "d", "n", "r", "k", "d", 5), -1);
}

TEST(Identity, StoresValidValuesWithoutWarnings) {
    Session t;
    LogCapture cap(0);
    ASSERT_EQ(ohmara_svc_configIdentity(t.s, "Campus.B2", "lamp-7", "Floor Lamp", "led,desk",
                                        "odd type*; yes", 100), 0);
    EXPECT_STREQ(t.s->domain, "Campus.B2");
    EXPECT_STREQ(t.s->name, "lamp-7");
    EXPECT_STREQ(t.s->role, "Floor Lamp");
    EXPECT_STREQ(t.s->keywords, "led,desk");
    EXPECT_STREQ(t.s->device_type, "odd type*; yes");  // never checked
    EXPECT_EQ(t.s->importance, 100u);
    EXPECT_TRUE(cap.lines().empty()) << cap.dump();
}

TEST(Identity, InvalidOrMissingValuesFallBackToDefaults) {
    Session t;
    LogCapture cap(0);
    ASSERT_EQ(ohmara_svc_configIdentity(t.s, "d", "bad name", "bad*role", nullptr, nullptr, 0), 0);
    EXPECT_STREQ(t.s->name, "Endpoint@127.0.0.1");
    EXPECT_STREQ(t.s->role, "Endpoint");
    EXPECT_STREQ(t.s->keywords, "");
    EXPECT_STREQ(t.s->device_type, "Unknown");
    EXPECT_EQ(t.s->importance, 1u);
    EXPECT_TRUE(cap.has(2, "ohmara_svc_configIdentity", "Using default name of Endpoint@127.0.0.1."));
    EXPECT_TRUE(cap.has(2, "ohmara_svc_configIdentity", "Using default role of Endpoint."));
    EXPECT_TRUE(cap.has(3, "ohmara_svc_configIdentity",
                        "Invalid or no characters defined for keywords"));
    EXPECT_TRUE(cap.has(3, "ohmara_svc_configIdentity", "Invalid importance, defaulting to 1"));
    EXPECT_TRUE(cap.has(3, "ohmara_svc_configIdentity", "No device type specified"));
}

TEST(Identity, ImportanceOutsideOneToHundredBecomesOne) {
    struct Case {
        uint8_t given;
        uint32_t stored;
        bool warned;
    } cases[] = {{0, 1, true}, {1, 1, false}, {57, 57, false}, {100, 100, false},
                 {101, 1, true}, {255, 1, true}};
    for (const Case &c : cases) {
        Session t;
        LogCapture cap(0);
        ASSERT_EQ(ohmara_svc_configIdentity(t.s, "d", "n", "r", "k", "t", c.given), 0);
        EXPECT_EQ(t.s->importance, c.stored) << int(c.given);
        EXPECT_EQ(cap.contains("Invalid importance, defaulting to 1"), c.warned) << int(c.given);
    }
}

TEST(Identity, SecondCallReplacesEarlierCopiesAndMayReuseThem) {
    Session t;
    ASSERT_EQ(ohmara_svc_configIdentity(t.s, "d1", "n1", "r1", "k1", "t1", 10), 0);
    ASSERT_EQ(ohmara_svc_configIdentity(t.s, "d2", nullptr, "r2", nullptr, "t2", 20), 0);
    EXPECT_STREQ(t.s->domain, "d2");
    EXPECT_STREQ(t.s->name, "Endpoint@127.0.0.1");
    EXPECT_STREQ(t.s->role, "r2");
    EXPECT_STREQ(t.s->keywords, "");
    EXPECT_STREQ(t.s->device_type, "t2");
    // The session's own texts handed back in: each is copied before the
    // old one is released (the sanitizer build catches a use after free).
    ASSERT_EQ(ohmara_svc_configIdentity(t.s, t.s->domain, t.s->name, t.s->role, "k3",
                                        t.s->device_type, 30), 0);
    EXPECT_STREQ(t.s->domain, "d2");
    EXPECT_STREQ(t.s->name, "Endpoint@127.0.0.1");
    EXPECT_STREQ(t.s->device_type, "t2");
}

TEST(Identity, VeryLongTextsAreStoredWhole) {
    Session t;
    std::string long_name(100000, 'n');
    std::string long_type(70000, '*');
    ASSERT_EQ(ohmara_svc_configIdentity(t.s, "d", long_name.c_str(), long_name.c_str(),
                                        long_name.c_str(), long_type.c_str(), 9), 0);
    EXPECT_EQ(t.s->name, long_name);
    EXPECT_EQ(t.s->role, long_name);
    EXPECT_EQ(t.s->keywords, long_name);
    EXPECT_EQ(t.s->device_type, long_type);
}

TEST(Identity, DefaultTexts) {
    EXPECT_STREQ(getDefaultRole(), "Endpoint");
    EXPECT_STREQ(getDefaultName(nullptr), "Endpoint");
    Session t;
    t.s->self_addr.sin_addr.s_addr = inet_addr("192.168.100.200");
    EXPECT_STREQ(getDefaultName(t.s), "Endpoint@192.168.100.200");
}

}  // namespace
