#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <stdlib.h>
#include <string.h>

#include <string>
#include <vector>

#include "log_capture.h"
#include "omsdk.h"
#include "session/identity.h"
#include "session/session.h"

namespace {

using omsdk_test::LogCapture;

// A bare session record with only the local address set; the identity texts
// are freed by hand, so no other part of the service is needed.
struct Bare {
    svc_session *s = static_cast<svc_session *>(calloc(1, sizeof(svc_session)));
    Bare() { s->self_addr.sin_addr.s_addr = inet_addr("127.0.0.1"); }
    ~Bare() {
        for (char *p : {s->domain, s->keywords, s->name, s->role, s->device_type}) free(p);
        free(s);
    }
    int32_t config(const char *d, const char *n, const char *r, const char *k, const char *t,
                   uint8_t importance) {
        return ohmara_svc_configIdentity(s, d, n, r, k, t, importance);
    }
    // domain, name, role, keywords, device type
    std::vector<std::string> texts() const {
        std::vector<std::string> v;
        for (const char *p : {s->domain, s->name, s->role, s->keywords, s->device_type})
            v.push_back(p ? p : "(null)");
        return v;
    }
};
using Texts = std::vector<std::string>;

TEST(Whitelist, ListedCharactersOnlyAndBlankForRoleOnly) {
    const char all[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789"
                       "~!@#$%^&()_-+={}[]\\:.,></";
    const struct { const char *text; int32_t field, want; } cases[] = {
        {all, 3, 1},   {all, 2, 1},   {all, 4, 1},   {all, 5, 1},    {nullptr, 3, 0},
        {"", 2, 0},    {"a b", 3, 0}, {"a b", 4, 0}, {"a b", 5, 0},  {"a b", 2, 1},
        {" ", 2, 1},   {"a*", 3, 0},  {"a;", 3, 0},  {"a?", 4, 0},   {"a|", 5, 0},
        {"a'", 2, 0},  {"a`", 3, 0},  {"a\tb", 2, 0}, {"caf\xc3\xa9", 4, 0},
    };
    for (const auto &c : cases)
        EXPECT_EQ(omr_string_in_whitelist(c.text, c.field), c.want)
            << (c.text ? c.text : "(null)") << " field " << c.field;
}

TEST(Identity, RefusedDomainLeavesTheRecordUnchanged) {
    for (const char *domain : {(const char *)nullptr, "", "my domain", "dom*", "dom;"}) {
        Bare b;
        LogCapture cap(0);
        EXPECT_EQ(b.config(domain, "n", "r", "k", "d", 5), -1) << domain;
        EXPECT_TRUE(cap.has(3, "ohmara_svc_configIdentity",
                            "Invalid or no characters defined for domain"));
        EXPECT_EQ(b.texts(), Texts(5, "(null)"));
        EXPECT_EQ(b.s->importance, 0u);
    }
    EXPECT_EQ(ohmara_svc_configIdentity(nullptr, "d", "n", "r", "k", "d", 5), -1);
}

TEST(Identity, ValidValuesStoredAndInvalidOnesDefaulted) {
    Bare b;
    {
        LogCapture cap(0);
        ASSERT_EQ(b.config("Campus.B2", "lamp-7", "Floor Lamp", "led,desk", "odd*; type", 100), 0);
        EXPECT_TRUE(cap.lines().empty()) << cap.dump();
    }
    // The device type is never checked.
    EXPECT_EQ(b.texts(), (Texts{"Campus.B2", "lamp-7", "Floor Lamp", "led,desk", "odd*; type"}));
    EXPECT_EQ(b.s->importance, 100u);

    // Replaced: the old copies are freed (a leak shows in the sanitizer build).
    LogCapture cap(0);
    ASSERT_EQ(b.config("d", "bad name", "bad*role", nullptr, nullptr, 0), 0);
    const Texts defaults{"d", "Endpoint@127.0.0.1", "Endpoint", "", "Unknown"};
    EXPECT_EQ(b.texts(), defaults);
    EXPECT_EQ(b.s->importance, 1u);
    const char *f = "ohmara_svc_configIdentity";
    EXPECT_TRUE(cap.has(2, f, "Using default name of Endpoint@127.0.0.1.")) << cap.dump();
    EXPECT_TRUE(cap.has(2, f, "Using default role of Endpoint."));
    EXPECT_TRUE(cap.has(3, f, "Invalid or no characters defined for keywords"));
    EXPECT_TRUE(cap.has(3, f, "Invalid importance, defaulting to 1"));
    EXPECT_TRUE(cap.has(3, f, "No device type specified"));

    // The record's own texts handed back in are copied before the old ones go.
    ASSERT_EQ(b.config(b.s->domain, b.s->name, b.s->role, "k3", b.s->device_type, 1), 0);
    EXPECT_EQ(b.texts(), (Texts{"d", "Endpoint@127.0.0.1", "Endpoint", "k3", "Unknown"}));
    EXPECT_EQ(b.s->importance, 1u);

    std::string long_text(100000, 'n'), long_type(70000, '*');
    const char *l = long_text.c_str();
    cap.clear();
    ASSERT_EQ(b.config("d", l, l, l, long_type.c_str(), 101), 0);
    EXPECT_EQ(b.texts(), (Texts{"d", long_text, long_text, long_text, long_type}));
    EXPECT_EQ(b.s->importance, 1u);  // 1 to 100 only
    EXPECT_TRUE(cap.has(3, f, "Invalid importance, defaulting to 1")) << cap.dump();
}

TEST(GetAttribute, FallsThroughToTheNextFieldThatIsSet) {
    enum : unsigned { D = 1, K = 2, N = 4, R = 8, T = 16, Q = 15, ALL = 31 };
    enum Want { DOMAIN, KEYWORDS, NAME, ROLE, IMPORTANCE, DEVICE_TYPE, NONE };
    const struct { unsigned set; int32_t id; Want want; } cases[] = {
        {ALL, 3, DOMAIN}, {K | N | R, 3, KEYWORDS}, {N | R, 3, NAME}, {R, 3, ROLE},
        {0, 3, IMPORTANCE}, {Q, 5, KEYWORDS}, {D | N | R, 5, NAME}, {D | R, 5, ROLE},
        {D, 5, IMPORTANCE}, {Q, 4, NAME}, {D | K | R, 4, ROLE}, {D | K, 4, IMPORTANCE},
        {Q, 2, ROLE}, {D | K | N, 2, IMPORTANCE}, {ALL, 10, IMPORTANCE}, {T, 21, DEVICE_TYPE},
        {Q, 21, NONE}, {ALL, 0, NONE}, {ALL, 1, NONE}, {ALL, 9, NONE}, {ALL, 22, NONE},
        {ALL, -3, NONE},
    };
    char dom[] = "dom", kw[] = "kw,x", name[] = "name-1", role[] = "role two";
    char type[] = "type_three";
    svc_session s{};
    s.importance = 0x0000012Au;  // only the low byte 0x2A is reported
    for (const auto &c : cases) {
        SCOPED_TRACE("id " + std::to_string(c.id) + " set " + std::to_string(c.set));
        s.domain = c.set & D ? dom : nullptr;
        s.keywords = c.set & K ? kw : nullptr;
        s.name = c.set & N ? name : nullptr;
        s.role = c.set & R ? role : nullptr;
        s.device_type = c.set & T ? type : nullptr;
        const void *fields[] = {dom, kw, name, role, &s.importance, type, nullptr};
        const uint32_t lengths[] = {4, 5, 7, 9, 1, 11, 0};
        uint32_t len = 77;
        const void *got = ohmara_svc_getAttribute(&s, c.id, &len);
        EXPECT_EQ(got, fields[c.want]);
        EXPECT_EQ(len, lengths[c.want]);
        if (c.want == IMPORTANCE) {
            EXPECT_EQ(*static_cast<const uint8_t *>(got), 0x2A);
        }
    }
    uint32_t len = 77;
    EXPECT_EQ(ohmara_svc_getAttribute(nullptr, 10, &len), nullptr);
    EXPECT_EQ(len, 77u);
}

TEST(Setters, DiscoveryIntervalPowerSourceAndNannyBit) {
    svc_session r{}, *s = &r;
    const struct { int32_t seconds, result; } intervals[] = {{60, 0}, {180, 1}, {3600, 1}};
    for (const auto &c : intervals) {
        EXPECT_EQ(ohmara_svc_setDiscoveryInterval(s, c.seconds), c.result) << c.seconds;
        EXPECT_EQ(s->discovery_interval, static_cast<uint32_t>(c.seconds));  // stored anyway
    }
    const struct { uint32_t given, stored; } power[] = {{1, 1}, {0, 0}, {2, 0}, {0xFFFFFFFFu, 0}};
    for (const auto &c : power) {
        s->power_source = 9;
        EXPECT_EQ(ohmara_svc_configPowerSource(s, c.given), 0);
        EXPECT_EQ(s->power_source, c.stored) << c.given;
    }
    EXPECT_EQ(ohmara_svc_configPowerSource(nullptr, 1), -1);
    s->nanny_bits = 0x00000101u;
    EXPECT_EQ(ohmara_svc_setNannyFunctionBit(s, 0, 7), 0);  // any non-zero sets bit 5
    EXPECT_EQ(s->nanny_bits, 0x00000121u);
    EXPECT_EQ(ohmara_svc_setNannyFunctionBit(s, 0, 0), 0);
    EXPECT_EQ(s->nanny_bits, 0x00000101u);
    for (uint32_t bit : {1u, 5u, 31u, 0xFFFFFFFFu}) {
        EXPECT_EQ(ohmara_svc_setNannyFunctionBit(s, bit, 1), -1) << bit;
        EXPECT_EQ(s->nanny_bits, 0x00000101u);
    }
}

}  // namespace
