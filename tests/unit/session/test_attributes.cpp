// SPDX-License-Identifier: Apache-2.0
// Attributes read from the session's own storage, and the small setters.
#include <gtest/gtest.h>

#include <string.h>

#include "omsdk.h"
#include "session/session.h"

namespace {

TEST(GetAttribute, FallsThroughToTheNextFieldThatIsSet) {
    enum : unsigned { D = 1, K = 2, N = 4, R = 8, T = 16, Q = 15, ALL = 31 };
    enum Want { DOMAIN, KEYWORDS, NAME, ROLE, IMPORTANCE, DEVICE_TYPE, NONE };
    const struct {
        unsigned set;
        int32_t id;
        Want want;
    } cases[] = {
        {ALL, 3, DOMAIN},      {K | N | R, 3, KEYWORDS},
        {N | R, 3, NAME},      {R, 3, ROLE},
        {0, 3, IMPORTANCE},    {Q, 5, KEYWORDS},
        {D | N | R, 5, NAME},  {D | R, 5, ROLE},
        {D, 5, IMPORTANCE},    {Q, 4, NAME},
        {D | K | R, 4, ROLE},  {D | K, 4, IMPORTANCE},
        {Q, 2, ROLE},          {D | K | N, 2, IMPORTANCE},
        {ALL, 10, IMPORTANCE}, {T, 21, DEVICE_TYPE},
        {Q, 21, NONE},         {ALL, 0, NONE},
        {ALL, 9, NONE},        {ALL, 22, NONE},
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
}

TEST(Setters, DiscoveryIntervalPowerSourceAndRefusedNannyBits) {
    svc_session r{}, *s = &r;
    for (int32_t seconds : {60, 179, 180, 3600}) {
        EXPECT_EQ(ohmara_svc_setDiscoveryInterval(s, seconds), seconds >= 180) << seconds;
        EXPECT_EQ(s->discovery_interval, static_cast<uint32_t>(seconds));  // stored anyway
    }
    const struct { uint32_t given, stored; } power[] = {{1, 1}, {0, 0}, {2, 0}, {0xFFFFFFFFu, 0}};
    for (const auto &c : power) {
        EXPECT_EQ(ohmara_svc_configPowerSource(s, c.given), 0);
        EXPECT_EQ(s->power_source, c.stored) << c.given;
    }
    s->nanny_bits = 0x00000101u;  // setting bit 5 is proven by the queries
    for (uint32_t bit : {1u, 31u, 0xFFFFFFFFu}) {
        EXPECT_EQ(ohmara_svc_setNannyFunctionBit(s, bit, 1), -1) << bit;
        EXPECT_EQ(s->nanny_bits, 0x00000101u);
    }
}

TEST(CopyAttribute, WholeValueOrNothing) {
    char name[] = "name-1";
    svc_session s{};
    s.name = name;
    s.importance = 0x0000012Au;
    const struct {
        int32_t id;
        uint32_t size;
        bool null_buffer;
        int32_t result;
        uint32_t length;
        const char *copied;  // the buffer afterwards
    } cases[] = {
        {4, 16, false, 0, 7, "name-1"},    {4, 7, false, 0, 7, "name-1"},
        {4, 6, false, -1, 7, "#######"},   {4, 0, true, -1, 7, nullptr},
        {4, 5, true, -1, 0, nullptr},      {10, 1, false, 0, 1, "*######"},
        {10, 0, false, -1, 1, "#######"},  {3, 16, false, 0, 7, "name-1"},  // falls through
        {9, 16, false, -1, 0, "#######"},  {21, 16, false, -1, 0, "#######"},
        {-1, 16, false, -1, 0, "#######"},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE("id " + std::to_string(c.id) + " size " + std::to_string(c.size));
        char buf[16];
        memset(buf, '#', sizeof buf);
        uint32_t len = 77;
        EXPECT_EQ(ohmara_svc_copyAttribute(&s, c.id, c.null_buffer ? nullptr : buf, c.size, &len),
                  c.result);
        EXPECT_EQ(len, c.length);
        if (c.copied != nullptr) {
            EXPECT_EQ(std::string(buf, 7), std::string(c.copied, 7));
        }
    }
    char buf[8];
    EXPECT_EQ(ohmara_svc_copyAttribute(nullptr, 4, buf, 8, nullptr), -1);
    EXPECT_EQ(ohmara_svc_copyAttribute(&s, 4, buf, 8, nullptr), -1);
}

}  // namespace
