#include <gtest/gtest.h>

#include <stdlib.h>
#include <string.h>

#include "omsdk.h"
#include "service/session.h"

namespace {

struct Record {
    svc_session *s = static_cast<svc_session *>(calloc(1, sizeof(svc_session)));
    ~Record() {
        free(s->domain);
        free(s->keywords);
        free(s->name);
        free(s->role);
        free(s->device_type);
        free(s);
    }
};

enum : unsigned { D = 1, K = 2, N = 4, R = 8, T = 16 };
enum Want { DOMAIN, KEYWORDS, NAME, ROLE, IMPORTANCE, DEVICE_TYPE, NONE };

TEST(GetAttribute, FallsThroughToTheNextFieldThatIsSet) {
    struct Case {
        unsigned set;
        int32_t id;
        Want want;
    } cases[] = {
        {D | K | N | R | T, 3, DOMAIN}, {K | N | R, 3, KEYWORDS}, {N | R, 3, NAME},
        {R, 3, ROLE},                   {0, 3, IMPORTANCE},
        {D | K | N | R, 5, KEYWORDS},   {D | N | R, 5, NAME},     {D | R, 5, ROLE},
        {D, 5, IMPORTANCE},
        {D | K | N | R, 4, NAME},       {D | K | R, 4, ROLE},     {D | K, 4, IMPORTANCE},
        {D | K | N | R, 2, ROLE},       {D | K | N, 2, IMPORTANCE},
        {D | K | N | R | T, 10, IMPORTANCE},
        {T, 21, DEVICE_TYPE},           {D | K | N | R, 21, NONE},
        {D | K | N | R | T, 0, NONE},   {D | K | N | R | T, 1, NONE},
        {D | K | N | R | T, 9, NONE},   {D | K | N | R | T, 22, NONE},
        {D | K | N | R | T, -3, NONE},
    };
    for (const Case &c : cases) {
        Record r;
        if (c.set & D) r.s->domain = strdup("dom");
        if (c.set & K) r.s->keywords = strdup("kw,x");
        if (c.set & N) r.s->name = strdup("name-1");
        if (c.set & R) r.s->role = strdup("role two");
        if (c.set & T) r.s->device_type = strdup("type_three");
        r.s->importance = 0x0000012Au;  // only the low byte 0x2A is reported
        const void *fields[] = {r.s->domain, r.s->keywords, r.s->name, r.s->role,
                                &r.s->importance, r.s->device_type, nullptr};
        const uint32_t lengths[] = {4, 5, 7, 9, 1, 11, 0};
        uint32_t len = 77;
        const void *got = ohmara_svc_getAttribute(r.s, c.id, &len);
        EXPECT_EQ(got, fields[c.want]) << "id " << c.id << " set " << c.set;
        EXPECT_EQ(len, lengths[c.want]) << "id " << c.id << " set " << c.set;
        if (c.want == IMPORTANCE) {
            EXPECT_EQ(*static_cast<const uint8_t *>(got), 0x2A);
        }
    }
}

TEST(GetAttribute, NullArgumentsGiveNullAndLeaveLengthAlone) {
    Record r;
    uint32_t len = 77;
    EXPECT_EQ(ohmara_svc_getAttribute(nullptr, 10, &len), nullptr);
    EXPECT_EQ(len, 77u);
    EXPECT_EQ(ohmara_svc_getAttribute(r.s, 10, nullptr), nullptr);
}

TEST(Setters, DiscoveryIntervalIsStoredEvenWhenTooShort) {
    struct Case {
        int32_t seconds;
        int32_t result;
    } cases[] = {{60, 0}, {179, 0}, {180, 1}, {3600, 1}};
    for (const Case &c : cases) {
        Record r;
        EXPECT_EQ(ohmara_svc_setDiscoveryInterval(r.s, c.seconds), c.result) << c.seconds;
        EXPECT_EQ(r.s->discovery_interval, static_cast<uint32_t>(c.seconds));
    }
    EXPECT_EQ(ohmara_svc_setDiscoveryInterval(nullptr, 600), 0);
}

TEST(Setters, PowerSourceIsOneOnlyForOne) {
    struct Case {
        uint32_t given, stored;
    } cases[] = {{1, 1}, {0, 0}, {2, 0}, {0xFFFFFFFFu, 0}};
    for (const Case &c : cases) {
        Record r;
        r.s->power_source = 9;
        EXPECT_EQ(ohmara_svc_configPowerSource(r.s, c.given), 0);
        EXPECT_EQ(r.s->power_source, c.stored) << c.given;
    }
    EXPECT_EQ(ohmara_svc_configPowerSource(nullptr, 1), -1);
}

TEST(Setters, NannyBitZeroIsPositionFiveOthersRefused) {
    Record r;
    r.s->nanny_bits = 0x00000101u;
    EXPECT_EQ(ohmara_svc_setNannyFunctionBit(r.s, 0, 1), 0);
    EXPECT_EQ(r.s->nanny_bits, 0x00000121u);
    EXPECT_EQ(ohmara_svc_setNannyFunctionBit(r.s, 0, 7), 0);  // any non-zero sets
    EXPECT_EQ(r.s->nanny_bits, 0x00000121u);
    EXPECT_EQ(ohmara_svc_setNannyFunctionBit(r.s, 0, 0), 0);
    EXPECT_EQ(r.s->nanny_bits, 0x00000101u);
    for (uint32_t bit : {1u, 5u, 31u, 0xFFFFFFFFu}) {
        EXPECT_EQ(ohmara_svc_setNannyFunctionBit(r.s, bit, 1), -1) << bit;
        EXPECT_EQ(r.s->nanny_bits, 0x00000101u);
    }
    EXPECT_EQ(ohmara_svc_setNannyFunctionBit(nullptr, 0, 1), -1);
}

}  // namespace
