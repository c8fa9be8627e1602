// Enumeration names both ways, and the mappings between numberings.
#include <gtest/gtest.h>

#include <ctype.h>
#include <limits.h>
#include <stdint.h>
#include <stdlib.h>

#include <map>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include "omsdk.h"

namespace {

constexpr int32_t kBad = 0x0BADDA7A;

// Names and values typed from the protocol's tables, none taken from the
// library: "NAME=value" after the prefix; a '*' marks a name that matches
// any input beginning with it.
struct Enumeration {
    const char *label;
    const char *(*e2s)(int32_t);
    int32_t (*s2e)(const char *);
    const char *prefix;
    const char *entries;
};

#define PAIR(s) #s, cv_util_e2s_##s, cv_util_s2e_##s
#define ACT(s, S) PAIR(action_kvqr_corvane_##s), "CV_ACTION_KVQR_CORVANE_" S "_"
#define ERR(s, S) PAIR(error_code_kvqr_corvane_##s), "CV_ERROR_CODE_KVQR_CORVANE_" S "_"

const Enumeration kEnumerations[] = {
    {PAIR(type), "CV_TYPE_", "KVQR=10"}, {PAIR(application), "CV_APPLICATION_", "CORVANE=17"},
    {PAIR(class), "CV_CLASS_", "QUERY=10 AGGREGATE=11 NOTIFY=12 REPLY=13 DISCOVERY=14"},
    {ACT(query, "QUERY"), "SET=10 COLLECT=11 COMMIT=12 INVENTORY=13"},
    {ACT(aggregate, "AGGREGATE"), "SUM=10 AVERAGE=11 MIN=12 MAX=13"},
    {ACT(notify, "NOTIFY"), "CREATE=10 UPDATE=11 DELETE=12"},
    {ACT(reply, "REPLY"), "DONE=10 DIDNOT=11"},
    {ACT(discovery, "DISCOVERY"), "DISCOVERY_UPDATE=10 KEEPALIVE=11 DELETE=12"},
    {PAIR(shipment), "CV_SHIPMENT_",
     "ACK_LATER*=-4 ACK_ILL=-3 ACK_WONT=-2 ACK_WILL=-1 SEND=0 REPLY_NO_ERROR=1 REPLY_WITH_ERROR=2"},
    {ERR(query_set, "QUERY_SET"), "NOT_SUPPORTED=1 WRONGTYPE=2 OUTOFRANGE=3 SWFAULT=4 HWFAULT=5"},
    {ERR(query_collect, "QUERY_COLLECT"), "NOT_SUPPORTED=1 WRONGTYPE=2 OVERFLOW=3"},
    {ERR(query_commit, "QUERY_COMMIT"), "UNSUPPORTED=1"},
    {ERR(query_inventory, "QUERY_INVENTORY"), "NSUPPORTED=1 NOTINDOMAIN=2"},
    {ERR(aggregate_sum, "AGGREGATE_SUM"), "NOT_SUPPORTED=1 NOTINDOMAIN=2 OVERFLOW=3"},
    {ERR(aggregate_average, "AGGREGATE_AVERAGE"), "NOT_SUPPORTED=1 OVERFLOW=2 OUTBOUND=3"},
    {ERR(aggregate_min, "AGGREGATE_MIN"), "NOT_SUPPORTED=1 OVERFLOW=2 OUTBOUND=3"},
    {ERR(aggregate_max, "AGGREGATE_MAX"), "NOT_SUPPORTED=1 OVERFLOW=2 OUTBOUND=3"},
    {ERR(notify_create, "NOTIFY_CREATE"), "OVERFLOW=1"},
    {ERR(notify_update, "NOTIFY_UPDATE"), "OVERFLOW=1"},
    {ERR(notify_delete, "NOTIFY_DELETE"), "CANT=1 NOENTRY=2"},
    {ERR(reply_done, "REPLY_DONE"), "WITHERR=1 WITHEXP=2"},
    {ERR(reply_didnot, "REPLY_DIDNOT"), "WITHERR=1 WITHEXP=2"},
    {ERR(discovery_discovery_update, "DISCOVERY_DISCOVERY_UPDATE"), "UPDATEERR=1"},
    {ERR(discovery_keepalive, "DISCOVERY_KEEPALIVE"), "HBMISSED=1"},
    {ERR(discovery_delete, "DISCOVERY_DELETE"), "DELMISSED=1"},
    {PAIR(runtime_error), "CV_RUNTIME_ERROR_",
     "NONE=0 NO_MEMORY=1 NOT_SUPPORTED=2 OVERFLOW=3 NO_SUCH_DATA=4 CANT_DECRYPT=5 "
     "SYSTEM_SERVICES=6 NOT_IN_RANGE=7 ENUM_BAD_MAGIC=195943034"},
    {PAIR(entity_type), "CV_ENTITY_TYPE_",
     "NONE=0 LOCAL=1 REMOTE=2 CORVANE=3 ADMIN_OFF=4 NON_POE=5"},
    {PAIR(ent_admin_status), "CV_ENT_ADMIN_STATUS_", "DISABLE=0 ENABLE=1"},
    {PAIR(ent_ops_status), "CV_ENT_OPS_STATUS_", "ERROR=-1 DOWN=0 UP=1"},
    {PAIR(discovery_flags), "CV_DISCOVERY_FLAGS_CORVANE_DISCOVERY_FLAG_",
     "NONE=0 STATIC=1 LDX=2 UDP=4"},
    {PAIR(corvane_ngbr_type), "CV_CORVANE_NGBR_TYPE_", "STATIC=0 DYN_LDX=1 DYN_UDP=2"},
    {PAIR(corvane_ngbr_state), "CV_CORVANE_NGBR_STATE_",
     "LOOSING=-2 UNREACHABLE=-1 DISCOVERING=0 OK=1"},
    {PAIR(corvane_usage_caliber), "CV_CORVANE_USAGE_CALIBER_",
     "MAX=-2 PRESUMED=-1 UNKNOWN=0 ACTUAL=1 TRUSTED=2"},
    {PAIR(corvane_usage_category), "CV_CORVANE_USAGE_", "PRODUCER*=-1 METER*=0 CONSUMER*=1"},
    {PAIR(proxy_proto), "CV_PROXY_PROTO_", "TCP=10 UDP=11 HTTP=12 SNMP=13"},
    {PAIR(_internal_etype), "CV__INTERNAL_ETYPE_", "INTERFACE=0 OTHER=1"},
    {PAIR(nanny_vector), "CV_NANNY_VECTOR_", "BIT_POS_POWER_LAST=6"},
    {PAIR(corvane_tlv_type), "CV_CORVANE_TLV_TYPE_",
     "RESERVED*=0 OHMRZ_ID=1 ID=2 ENT_ID=3 AUTHORIZATION=4 ADDRESSEE=5 RECUR=6 ROLE=7 DOMAIN=8 "
     "NAME=9 KEYWORDS=10 ERROR_STRING=11 UNITS=12 USAGE=13 LEVEL_CURRENT=14 LEVEL_PROVISIONED=15 "
     "IMPORTANCE=16 IMPORTANCE_I=17 IMPORTANCE_E=18 IMPORTANCE_MAX=19 IMPORTANCE_MAX_ID=20 "
     "IMPORTANCE_PARENT=21 ENTITY_TYPE=22 REPLY_TO=23 PROXY_ADDRESS=24 PROXY_PORT=25 "
     "PROXY_PROTO=26 PROXY_CLASS=27 NEIGHBOR=28 NEIGHBOR_COUNT=29 PARENT=30 HEARTBEAT=31 "
     "CLOCK=32 SENDER_CLOCK=33 NANNY_VECTOR=34 EVENT_ID=35"},
};

#undef ERR
#undef ACT
#undef PAIR

struct Entry {
    std::string name;
    int32_t value;
    bool prefix;
};

std::vector<Entry> entries_of(const Enumeration &en) {
    std::vector<Entry> out;
    std::istringstream in(en.entries);
    for (std::string word; in >> word;) {
        size_t eq = word.find('=');
        bool star = word[eq - 1] == '*';
        out.push_back({en.prefix + word.substr(0, eq - star), atoi(word.c_str() + eq + 1), star});
    }
    return out;
}

// Every value round-trips, and the neighbourhood of the table stays unnamed.
TEST(EnumNames, EveryEnumerationRoundTripsAndKnowsNothingElse) {
    EXPECT_EQ(sizeof kEnumerations / sizeof kEnumerations[0], 9u + 16u + 13u);
    for (const Enumeration &en : kEnumerations) {
        SCOPED_TRACE(en.label);
        const std::vector<Entry> entries = entries_of(en);
        for (const Entry &e : entries) {
            const char *name = en.e2s(e.value);
            ASSERT_NE(name, nullptr) << e.value;
            EXPECT_EQ(name, e.name);
            EXPECT_EQ(en.s2e(name), e.value);
            EXPECT_EQ(en.s2e(e.name.c_str()), e.value);
            // A trailing character matches only the lenient names; a missing
            // one or a lower-case spelling never matches.
            EXPECT_EQ(en.s2e((e.name + "X").c_str()), e.prefix ? e.value : kBad) << e.name;
            EXPECT_EQ(en.s2e(e.name.substr(0, e.name.size() - 1).c_str()), kBad) << e.name;
            std::string lower = e.name;
            for (char &c : lower) c = static_cast<char>(tolower(c));
            EXPECT_EQ(en.s2e(lower.c_str()), kBad) << lower;
        }
        for (int32_t v = -10; v <= 60; ++v) {
            bool known = false;
            for (const Entry &e : entries) known = known || e.value == v;
            if (!known) {
                EXPECT_EQ(en.e2s(v), nullptr) << v;
            }
        }
        for (int32_t v : {INT32_MIN, INT32_MAX, kBad - 1, kBad + 1}) EXPECT_EQ(en.e2s(v), nullptr);
        if (en.e2s != cv_util_e2s_runtime_error) {
            EXPECT_EQ(en.e2s(kBad), nullptr);
        }
        EXPECT_EQ(en.s2e(""), kBad);
        EXPECT_EQ(en.s2e("CV_"), kBad);
    }
}

TEST(EnumNames, LenientNamesAndSeparateTables) {
    EXPECT_EQ(cv_util_s2e_shipment("CV_SHIPMENT_ACK_LATER, maybe"), -4);
    EXPECT_EQ(cv_util_s2e_corvane_tlv_type("CV_CORVANE_TLV_TYPE_RESERVED_99"), 0);
    // A name of another enumeration, or a type known on the wire only, is unknown.
    EXPECT_EQ(cv_util_s2e_class("CV_TYPE_KVQR"), kBad);
    EXPECT_EQ(cv_util_s2e_action_kvqr_corvane_aggregate("CV_ACTION_KVQR_CORVANE_QUERY_SET"), kBad);
    EXPECT_EQ(cv_util_s2e_corvane_tlv_type("CV_CORVANE_TLV_TYPE_NONCE"), kBad);
}

TEST(EnumMappings, ClassActionAndNannyBit) {
    // Anything not listed maps to -1.
    const std::map<int, int32_t> classes = {{1, 10}, {2, 11}};
    const std::map<std::pair<int, int>, int32_t> actions = {
        {{1, 1}, 10}, {{1, 2}, 11}, {{1, 3}, 14}, {{2, 1}, 10}};
    for (int c = -2; c <= 6; ++c) {
        auto it = classes.find(c);
        EXPECT_EQ(om_get_class_enum_type(c), it == classes.end() ? -1 : it->second) << c;
        for (int a = -1; a <= 6; ++a) {
            auto at = actions.find({c, a});
            EXPECT_EQ(om_get_action_enum_type(c, a), at == actions.end() ? -1 : at->second)
                << c << "," << a;
        }
    }
    EXPECT_EQ(om_get_internal_nanny_bit_type(0), 5);
    for (unsigned b : {1u, 5u, 6u, 31u, 32u, UINT_MAX})
        EXPECT_EQ(om_get_internal_nanny_bit_type(b), -1) << b;
}

TEST(EnumMappings, TlvNumberingBothWays) {
    const std::map<int, int32_t> tlvs = {{1, 1},   {2, 7},   {3, 8},   {4, 9},   {5, 10},  {6, 11},
                                         {7, 12},  {8, 13},  {9, 14},  {10, 17}, {11, 22}, {12, 23},
                                         {13, 28}, {14, 29}, {15, 34}, {16, 36}, {17, 38}, {18, 39},
                                         {19, 41}, {20, 46}, {21, 48}, {22, 51}};
    std::map<int32_t, int> inverse;
    for (const auto &kv : tlvs) inverse[kv.second] = kv.first;
    for (int n = -2; n <= 60; ++n) {
        auto it = tlvs.find(n);
        EXPECT_EQ(om_get_tlv_enum_type(n), it == tlvs.end() ? -1 : it->second) << n;
        auto back = inverse.find(n);
        EXPECT_EQ(om_get_external_tlv_enum_type(n), back == inverse.end() ? -1 : back->second) << n;
    }
}

}  // namespace
