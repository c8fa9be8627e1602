// SPDX-License-Identifier: Apache-2.0
// Enumeration names both ways, and the mappings between numberings.
#include <gtest/gtest.h>

#include <limits.h>
#include <stdint.h>

#include <map>
#include <string>

#include "omsdk.h"

namespace {

constexpr int32_t kBad = 0x0BADDA7A;

struct Enumeration {
    const char *(*e2s)(int32_t);
    int32_t (*s2e)(const char *);
    const char *prefix;
    int named;  // how many values have a name
};

#define PAIR(s) cv_util_e2s_##s, cv_util_s2e_##s
#define ERR(s, S, n) \
    { PAIR(error_code_kvqr_corvane_##s), "CV_ERROR_CODE_KVQR_CORVANE_" S "_", n }

const Enumeration kEnumerations[] = {
    {PAIR(type), "CV_TYPE_", 1},
    {PAIR(application), "CV_APPLICATION_", 1},
    {PAIR(class), "CV_CLASS_", 5},
    {PAIR(action_kvqr_corvane_query), "CV_ACTION_KVQR_CORVANE_QUERY_", 4},
    {PAIR(action_kvqr_corvane_aggregate), "CV_ACTION_KVQR_CORVANE_AGGREGATE_", 4},
    {PAIR(action_kvqr_corvane_notify), "CV_ACTION_KVQR_CORVANE_NOTIFY_", 3},
    {PAIR(action_kvqr_corvane_reply), "CV_ACTION_KVQR_CORVANE_REPLY_", 2},
    {PAIR(action_kvqr_corvane_discovery), "CV_ACTION_KVQR_CORVANE_DISCOVERY_", 3},
    {PAIR(shipment), "CV_SHIPMENT_", 7},
    ERR(query_set, "QUERY_SET", 5),
    ERR(query_collect, "QUERY_COLLECT", 3),
    ERR(query_commit, "QUERY_COMMIT", 1),
    ERR(query_inventory, "QUERY_INVENTORY", 2),
    ERR(aggregate_sum, "AGGREGATE_SUM", 3),
    ERR(aggregate_average, "AGGREGATE_AVERAGE", 3),
    ERR(aggregate_min, "AGGREGATE_MIN", 3),
    ERR(aggregate_max, "AGGREGATE_MAX", 3),
    ERR(notify_create, "NOTIFY_CREATE", 1),
    ERR(notify_update, "NOTIFY_UPDATE", 1),
    ERR(notify_delete, "NOTIFY_DELETE", 2),
    ERR(reply_done, "REPLY_DONE", 2),
    ERR(reply_didnot, "REPLY_DIDNOT", 2),
    ERR(discovery_discovery_update, "DISCOVERY_DISCOVERY_UPDATE", 1),
    ERR(discovery_keepalive, "DISCOVERY_KEEPALIVE", 1),
    ERR(discovery_delete, "DISCOVERY_DELETE", 1),
    {PAIR(runtime_error), "CV_RUNTIME_ERROR_", 8},
    {PAIR(entity_type), "CV_ENTITY_TYPE_", 6},
    {PAIR(ent_admin_status), "CV_ENT_ADMIN_STATUS_", 2},
    {PAIR(ent_ops_status), "CV_ENT_OPS_STATUS_", 3},
    {PAIR(discovery_flags), "CV_DISCOVERY_FLAGS_CORVANE_DISCOVERY_FLAG_", 4},
    {PAIR(corvane_ngbr_type), "CV_CORVANE_NGBR_TYPE_", 3},
    {PAIR(corvane_ngbr_state), "CV_CORVANE_NGBR_STATE_", 4},
    {PAIR(corvane_usage_caliber), "CV_CORVANE_USAGE_CALIBER_", 5},
    {PAIR(corvane_usage_category), "CV_CORVANE_USAGE_", 3},
    {PAIR(proxy_proto), "CV_PROXY_PROTO_", 4},
    {PAIR(_internal_etype), "CV__INTERNAL_ETYPE_", 2},
    {PAIR(nanny_vector), "CV_NANNY_VECTOR_", 1},
    {PAIR(corvane_tlv_type), "CV_CORVANE_TLV_TYPE_", 36}};

#undef ERR
#undef PAIR

// Every name between -10 and 60 carries its enumeration's prefix and reads
// back to its value; nothing else is named, and no lower-case spelling or
// cut name is known.
TEST(EnumNames, EveryEnumerationRoundTripsAndKnowsNothingElse) {
    for (const Enumeration &en : kEnumerations) {
        SCOPED_TRACE(en.prefix);
        int named = 0;
        for (int32_t v = -10; v <= 60; ++v) {
            const char *name = en.e2s(v);
            if (name == nullptr) continue;
            ++named;
            const std::string n = name;
            EXPECT_EQ(n.rfind(en.prefix, 0), 0u) << n;
            EXPECT_EQ(en.s2e(name), v) << n;
            EXPECT_EQ(en.s2e(n.substr(0, n.size() - 1).c_str()), kBad) << n;
            EXPECT_EQ(en.s2e(("cv_" + n.substr(3)).c_str()), kBad) << n;
        }
        EXPECT_EQ(named, en.named);
        for (int32_t v : {INT32_MIN, INT32_MAX, kBad - 1, kBad + 1}) EXPECT_EQ(en.e2s(v), nullptr);
        EXPECT_EQ(en.s2e(""), kBad);
        EXPECT_EQ(en.s2e("CV_"), kBad);
    }
    EXPECT_STREQ(cv_util_e2s_runtime_error(kBad), "CV_RUNTIME_ERROR_ENUM_BAD_MAGIC");
}

// Names peers and tools print, typed from the protocol's tables.
TEST(EnumNames, WellKnownNames) {
    const std::pair<const char *, const char *> names[] = {
        {cv_util_e2s_type(10), "CV_TYPE_KVQR"},
        {cv_util_e2s_application(17), "CV_APPLICATION_CORVANE"},
        {cv_util_e2s_class(10), "CV_CLASS_QUERY"},
        {cv_util_e2s_class(11), "CV_CLASS_AGGREGATE"},
        {cv_util_e2s_class(12), "CV_CLASS_NOTIFY"},
        {cv_util_e2s_class(13), "CV_CLASS_REPLY"},
        {cv_util_e2s_class(14), "CV_CLASS_DISCOVERY"},
        {cv_util_e2s_action_kvqr_corvane_query(11), "CV_ACTION_KVQR_CORVANE_QUERY_COLLECT"},
        {cv_util_e2s_action_kvqr_corvane_discovery(10),
         "CV_ACTION_KVQR_CORVANE_DISCOVERY_DISCOVERY_UPDATE"},
        {cv_util_e2s_shipment(-4), "CV_SHIPMENT_ACK_LATER"},
        {cv_util_e2s_shipment(2), "CV_SHIPMENT_REPLY_WITH_ERROR"},
        {cv_util_e2s_runtime_error(5), "CV_RUNTIME_ERROR_CANT_DECRYPT"},
        {cv_util_e2s_corvane_tlv_type(0), "CV_CORVANE_TLV_TYPE_RESERVED"},
        {cv_util_e2s_corvane_tlv_type(1), "CV_CORVANE_TLV_TYPE_OHMRZ_ID"},
        {cv_util_e2s_corvane_tlv_type(23), "CV_CORVANE_TLV_TYPE_REPLY_TO"},
        {cv_util_e2s_corvane_tlv_type(35), "CV_CORVANE_TLV_TYPE_EVENT_ID"},
    };
    for (const auto &n : names) EXPECT_STREQ(n.first, n.second);
}

// {got, expected}: lenient prefixes, names of other enumerations or known on
// the wire only, and the nanny bit; then the numbering maps (-1: unmapped).
TEST(EnumNames, LenientNamesAndMappings) {
    const std::pair<int32_t, int32_t> rows[] = {
        {cv_util_s2e_shipment("CV_SHIPMENT_ACK_LATER, maybe"), -4},
        {cv_util_s2e_corvane_tlv_type("CV_CORVANE_TLV_TYPE_RESERVED_99"), 0},
        {cv_util_s2e_corvane_usage_category("CV_CORVANE_USAGE_METERS"), 0},
        {cv_util_s2e_shipment("CV_SHIPMENT_SENDX"), kBad},
        {cv_util_s2e_class("CV_TYPE_KVQR"), kBad},
        {cv_util_s2e_action_kvqr_corvane_aggregate("CV_ACTION_KVQR_CORVANE_QUERY_SET"), kBad},
        {cv_util_s2e_corvane_tlv_type("CV_CORVANE_TLV_TYPE_NONCE"), kBad},
        {om_get_internal_nanny_bit_type(0), 5},
        {om_get_internal_nanny_bit_type(1), -1},
        {om_get_internal_nanny_bit_type(31), -1},
        {om_get_internal_nanny_bit_type(UINT_MAX), -1}};
    for (const auto &r : rows) EXPECT_EQ(r.first, r.second) << &r - rows;
    const std::map<int, int32_t> classes = {{1, 10}, {2, 11}};
    const std::map<std::pair<int, int>, int32_t> actions = {
        {{1, 1}, 10}, {{1, 2}, 11}, {{1, 3}, 14}, {{2, 1}, 10}};
    const std::map<int, int32_t> tlvs = {{1, 1},   {2, 7},   {3, 8},   {4, 9},   {5, 10},  {6, 11},
                                         {7, 12},  {8, 13},  {9, 14},  {10, 17}, {11, 22}, {12, 23},
                                         {13, 28}, {14, 29}, {15, 34}, {16, 36}, {17, 38}, {18, 39},
                                         {19, 41}, {20, 46}, {21, 48}, {22, 51}};
    std::map<int, int32_t> inverse;
    for (const auto &kv : tlvs) inverse[kv.second] = kv.first;
    auto at = [](const auto &m, const auto &k) { return m.count(k) != 0 ? m.at(k) : -1; };
    for (int n = -2; n <= 60; ++n) {
        EXPECT_EQ(om_get_class_enum_type(n), at(classes, n)) << n;
        for (int a = -1; a <= 6; ++a)
            EXPECT_EQ(om_get_action_enum_type(n, a), at(actions, std::make_pair(n, a))) << n << a;
        EXPECT_EQ(om_get_tlv_enum_type(n), at(tlvs, n)) << n;
        EXPECT_EQ(om_get_external_tlv_enum_type(n), at(inverse, n)) << n;
    }
}

}  // namespace
