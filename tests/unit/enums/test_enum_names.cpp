#include <gtest/gtest.h>

#include <ctype.h>
#include <limits.h>
#include <stdint.h>

#include <map>
#include <string>
#include <utility>
#include <vector>

#include "omsdk.h"

// Names and values below are typed from the protocol's tables on purpose:
// none is taken from enums.h or from the library's own tables.
namespace {

constexpr int32_t kBad = 0x0BADDA7A;

struct Entry {
    const char *name;
    int32_t value;
    bool prefix;  // any input beginning with the name matches it
};

struct Enumeration {
    const char *label;
    const char *(*e2s)(int32_t);
    int32_t (*s2e)(const char *);
    std::vector<Entry> entries;
};

#define PAIR(s) #s, cv_util_e2s_##s, cv_util_s2e_##s

const std::vector<Enumeration> &enumerations() {
    static const std::vector<Enumeration> all = {
        {PAIR(type), {{"CV_TYPE_KVQR", 10, false}}},
        {PAIR(class),
         {{"CV_CLASS_QUERY", 10, false},
          {"CV_CLASS_AGGREGATE", 11, false},
          {"CV_CLASS_NOTIFY", 12, false},
          {"CV_CLASS_REPLY", 13, false},
          {"CV_CLASS_DISCOVERY", 14, false}}},
        {PAIR(application), {{"CV_APPLICATION_CORVANE", 17, false}}},
        {PAIR(action_kvqr_corvane_query),
         {{"CV_ACTION_KVQR_CORVANE_QUERY_SET", 10, false},
          {"CV_ACTION_KVQR_CORVANE_QUERY_COLLECT", 11, false},
          {"CV_ACTION_KVQR_CORVANE_QUERY_COMMIT", 12, false},
          {"CV_ACTION_KVQR_CORVANE_QUERY_INVENTORY", 13, false}}},
        {PAIR(action_kvqr_corvane_aggregate),
         {{"CV_ACTION_KVQR_CORVANE_AGGREGATE_SUM", 10, false},
          {"CV_ACTION_KVQR_CORVANE_AGGREGATE_AVERAGE", 11, false},
          {"CV_ACTION_KVQR_CORVANE_AGGREGATE_MIN", 12, false},
          {"CV_ACTION_KVQR_CORVANE_AGGREGATE_MAX", 13, false}}},
        {PAIR(action_kvqr_corvane_notify),
         {{"CV_ACTION_KVQR_CORVANE_NOTIFY_CREATE", 10, false},
          {"CV_ACTION_KVQR_CORVANE_NOTIFY_UPDATE", 11, false},
          {"CV_ACTION_KVQR_CORVANE_NOTIFY_DELETE", 12, false}}},
        {PAIR(action_kvqr_corvane_reply),
         {{"CV_ACTION_KVQR_CORVANE_REPLY_DONE", 10, false},
          {"CV_ACTION_KVQR_CORVANE_REPLY_DIDNOT", 11, false}}},
        {PAIR(action_kvqr_corvane_discovery),
         {{"CV_ACTION_KVQR_CORVANE_DISCOVERY_DISCOVERY_UPDATE", 10, false},
          {"CV_ACTION_KVQR_CORVANE_DISCOVERY_KEEPALIVE", 11, false},
          {"CV_ACTION_KVQR_CORVANE_DISCOVERY_DELETE", 12, false}}},
        {PAIR(shipment),
         {{"CV_SHIPMENT_ACK_LATER", -4, true},
          {"CV_SHIPMENT_ACK_ILL", -3, false},
          {"CV_SHIPMENT_ACK_WONT", -2, false},
          {"CV_SHIPMENT_ACK_WILL", -1, false},
          {"CV_SHIPMENT_SEND", 0, false},
          {"CV_SHIPMENT_REPLY_NO_ERROR", 1, false},
          {"CV_SHIPMENT_REPLY_WITH_ERROR", 2, false}}},
        {PAIR(error_code_kvqr_corvane_query_set),
         {{"CV_ERROR_CODE_KVQR_CORVANE_QUERY_SET_NOT_SUPPORTED", 1, false},
          {"CV_ERROR_CODE_KVQR_CORVANE_QUERY_SET_WRONGTYPE", 2, false},
          {"CV_ERROR_CODE_KVQR_CORVANE_QUERY_SET_OUTOFRANGE", 3, false},
          {"CV_ERROR_CODE_KVQR_CORVANE_QUERY_SET_SWFAULT", 4, false},
          {"CV_ERROR_CODE_KVQR_CORVANE_QUERY_SET_HWFAULT", 5, false}}},
        {PAIR(error_code_kvqr_corvane_query_collect),
         {{"CV_ERROR_CODE_KVQR_CORVANE_QUERY_COLLECT_NOT_SUPPORTED", 1, false},
          {"CV_ERROR_CODE_KVQR_CORVANE_QUERY_COLLECT_WRONGTYPE", 2, false},
          {"CV_ERROR_CODE_KVQR_CORVANE_QUERY_COLLECT_OVERFLOW", 3, false}}},
        {PAIR(error_code_kvqr_corvane_query_commit),
         {{"CV_ERROR_CODE_KVQR_CORVANE_QUERY_COMMIT_UNSUPPORTED", 1, false}}},
        {PAIR(error_code_kvqr_corvane_query_inventory),
         {{"CV_ERROR_CODE_KVQR_CORVANE_QUERY_INVENTORY_NSUPPORTED", 1, false},
          {"CV_ERROR_CODE_KVQR_CORVANE_QUERY_INVENTORY_NOTINDOMAIN", 2, false}}},
        {PAIR(error_code_kvqr_corvane_aggregate_sum),
         {{"CV_ERROR_CODE_KVQR_CORVANE_AGGREGATE_SUM_NOT_SUPPORTED", 1, false},
          {"CV_ERROR_CODE_KVQR_CORVANE_AGGREGATE_SUM_NOTINDOMAIN", 2, false},
          {"CV_ERROR_CODE_KVQR_CORVANE_AGGREGATE_SUM_OVERFLOW", 3, false}}},
        {PAIR(error_code_kvqr_corvane_aggregate_average),
         {{"CV_ERROR_CODE_KVQR_CORVANE_AGGREGATE_AVERAGE_NOT_SUPPORTED", 1, false},
          {"CV_ERROR_CODE_KVQR_CORVANE_AGGREGATE_AVERAGE_OVERFLOW", 2, false},
          {"CV_ERROR_CODE_KVQR_CORVANE_AGGREGATE_AVERAGE_OUTBOUND", 3, false}}},
        {PAIR(error_code_kvqr_corvane_aggregate_min),
         {{"CV_ERROR_CODE_KVQR_CORVANE_AGGREGATE_MIN_NOT_SUPPORTED", 1, false},
          {"CV_ERROR_CODE_KVQR_CORVANE_AGGREGATE_MIN_OVERFLOW", 2, false},
          {"CV_ERROR_CODE_KVQR_CORVANE_AGGREGATE_MIN_OUTBOUND", 3, false}}},
        {PAIR(error_code_kvqr_corvane_aggregate_max),
         {{"CV_ERROR_CODE_KVQR_CORVANE_AGGREGATE_MAX_NOT_SUPPORTED", 1, false},
          {"CV_ERROR_CODE_KVQR_CORVANE_AGGREGATE_MAX_OVERFLOW", 2, false},
          {"CV_ERROR_CODE_KVQR_CORVANE_AGGREGATE_MAX_OUTBOUND", 3, false}}},
        {PAIR(error_code_kvqr_corvane_notify_create),
         {{"CV_ERROR_CODE_KVQR_CORVANE_NOTIFY_CREATE_OVERFLOW", 1, false}}},
        {PAIR(error_code_kvqr_corvane_notify_update),
         {{"CV_ERROR_CODE_KVQR_CORVANE_NOTIFY_UPDATE_OVERFLOW", 1, false}}},
        {PAIR(error_code_kvqr_corvane_notify_delete),
         {{"CV_ERROR_CODE_KVQR_CORVANE_NOTIFY_DELETE_CANT", 1, false},
          {"CV_ERROR_CODE_KVQR_CORVANE_NOTIFY_DELETE_NOENTRY", 2, false}}},
        {PAIR(error_code_kvqr_corvane_reply_done),
         {{"CV_ERROR_CODE_KVQR_CORVANE_REPLY_DONE_WITHERR", 1, false},
          {"CV_ERROR_CODE_KVQR_CORVANE_REPLY_DONE_WITHEXP", 2, false}}},
        {PAIR(error_code_kvqr_corvane_reply_didnot),
         {{"CV_ERROR_CODE_KVQR_CORVANE_REPLY_DIDNOT_WITHERR", 1, false},
          {"CV_ERROR_CODE_KVQR_CORVANE_REPLY_DIDNOT_WITHEXP", 2, false}}},
        {PAIR(error_code_kvqr_corvane_discovery_discovery_update),
         {{"CV_ERROR_CODE_KVQR_CORVANE_DISCOVERY_DISCOVERY_UPDATE_UPDATEERR", 1, false}}},
        {PAIR(error_code_kvqr_corvane_discovery_keepalive),
         {{"CV_ERROR_CODE_KVQR_CORVANE_DISCOVERY_KEEPALIVE_HBMISSED", 1, false}}},
        {PAIR(error_code_kvqr_corvane_discovery_delete),
         {{"CV_ERROR_CODE_KVQR_CORVANE_DISCOVERY_DELETE_DELMISSED", 1, false}}},
        {PAIR(runtime_error),
         {{"CV_RUNTIME_ERROR_NONE", 0, false},
          {"CV_RUNTIME_ERROR_NO_MEMORY", 1, false},
          {"CV_RUNTIME_ERROR_NOT_SUPPORTED", 2, false},
          {"CV_RUNTIME_ERROR_OVERFLOW", 3, false},
          {"CV_RUNTIME_ERROR_NO_SUCH_DATA", 4, false},
          {"CV_RUNTIME_ERROR_CANT_DECRYPT", 5, false},
          {"CV_RUNTIME_ERROR_SYSTEM_SERVICES", 6, false},
          {"CV_RUNTIME_ERROR_NOT_IN_RANGE", 7, false},
          {"CV_RUNTIME_ERROR_ENUM_BAD_MAGIC", 195943034, false}}},
        {PAIR(entity_type),
         {{"CV_ENTITY_TYPE_NONE", 0, false},
          {"CV_ENTITY_TYPE_LOCAL", 1, false},
          {"CV_ENTITY_TYPE_REMOTE", 2, false},
          {"CV_ENTITY_TYPE_CORVANE", 3, false},
          {"CV_ENTITY_TYPE_ADMIN_OFF", 4, false},
          {"CV_ENTITY_TYPE_NON_POE", 5, false}}},
        {PAIR(ent_admin_status),
         {{"CV_ENT_ADMIN_STATUS_DISABLE", 0, false}, {"CV_ENT_ADMIN_STATUS_ENABLE", 1, false}}},
        {PAIR(ent_ops_status),
         {{"CV_ENT_OPS_STATUS_ERROR", -1, false},
          {"CV_ENT_OPS_STATUS_DOWN", 0, false},
          {"CV_ENT_OPS_STATUS_UP", 1, false}}},
        {PAIR(discovery_flags),
         {{"CV_DISCOVERY_FLAGS_CORVANE_DISCOVERY_FLAG_NONE", 0, false},
          {"CV_DISCOVERY_FLAGS_CORVANE_DISCOVERY_FLAG_STATIC", 1, false},
          {"CV_DISCOVERY_FLAGS_CORVANE_DISCOVERY_FLAG_LDX", 2, false},
          {"CV_DISCOVERY_FLAGS_CORVANE_DISCOVERY_FLAG_UDP", 4, false}}},
        {PAIR(corvane_ngbr_type),
         {{"CV_CORVANE_NGBR_TYPE_STATIC", 0, false},
          {"CV_CORVANE_NGBR_TYPE_DYN_LDX", 1, false},
          {"CV_CORVANE_NGBR_TYPE_DYN_UDP", 2, false}}},
        {PAIR(corvane_ngbr_state),
         {{"CV_CORVANE_NGBR_STATE_LOOSING", -2, false},
          {"CV_CORVANE_NGBR_STATE_UNREACHABLE", -1, false},
          {"CV_CORVANE_NGBR_STATE_DISCOVERING", 0, false},
          {"CV_CORVANE_NGBR_STATE_OK", 1, false}}},
        {PAIR(corvane_usage_caliber),
         {{"CV_CORVANE_USAGE_CALIBER_MAX", -2, false},
          {"CV_CORVANE_USAGE_CALIBER_PRESUMED", -1, false},
          {"CV_CORVANE_USAGE_CALIBER_UNKNOWN", 0, false},
          {"CV_CORVANE_USAGE_CALIBER_ACTUAL", 1, false},
          {"CV_CORVANE_USAGE_CALIBER_TRUSTED", 2, false}}},
        {PAIR(corvane_usage_category),
         {{"CV_CORVANE_USAGE_PRODUCER", -1, true},
          {"CV_CORVANE_USAGE_METER", 0, true},
          {"CV_CORVANE_USAGE_CONSUMER", 1, true}}},
        {PAIR(proxy_proto),
         {{"CV_PROXY_PROTO_TCP", 10, false},
          {"CV_PROXY_PROTO_UDP", 11, false},
          {"CV_PROXY_PROTO_HTTP", 12, false},
          {"CV_PROXY_PROTO_SNMP", 13, false}}},
        {PAIR(_internal_etype),
         {{"CV__INTERNAL_ETYPE_INTERFACE", 0, false}, {"CV__INTERNAL_ETYPE_OTHER", 1, false}}},
        {PAIR(nanny_vector), {{"CV_NANNY_VECTOR_BIT_POS_POWER_LAST", 6, false}}},
        {PAIR(corvane_tlv_type),
         {{"CV_CORVANE_TLV_TYPE_RESERVED", 0, true},
          {"CV_CORVANE_TLV_TYPE_OHMRZ_ID", 1, false},
          {"CV_CORVANE_TLV_TYPE_ID", 2, false},
          {"CV_CORVANE_TLV_TYPE_ENT_ID", 3, false},
          {"CV_CORVANE_TLV_TYPE_AUTHORIZATION", 4, false},
          {"CV_CORVANE_TLV_TYPE_ADDRESSEE", 5, false},
          {"CV_CORVANE_TLV_TYPE_RECUR", 6, false},
          {"CV_CORVANE_TLV_TYPE_ROLE", 7, false},
          {"CV_CORVANE_TLV_TYPE_DOMAIN", 8, false},
          {"CV_CORVANE_TLV_TYPE_NAME", 9, false},
          {"CV_CORVANE_TLV_TYPE_KEYWORDS", 10, false},
          {"CV_CORVANE_TLV_TYPE_ERROR_STRING", 11, false},
          {"CV_CORVANE_TLV_TYPE_UNITS", 12, false},
          {"CV_CORVANE_TLV_TYPE_USAGE", 13, false},
          {"CV_CORVANE_TLV_TYPE_LEVEL_CURRENT", 14, false},
          {"CV_CORVANE_TLV_TYPE_LEVEL_PROVISIONED", 15, false},
          {"CV_CORVANE_TLV_TYPE_IMPORTANCE", 16, false},
          {"CV_CORVANE_TLV_TYPE_IMPORTANCE_I", 17, false},
          {"CV_CORVANE_TLV_TYPE_IMPORTANCE_E", 18, false},
          {"CV_CORVANE_TLV_TYPE_IMPORTANCE_MAX", 19, false},
          {"CV_CORVANE_TLV_TYPE_IMPORTANCE_MAX_ID", 20, false},
          {"CV_CORVANE_TLV_TYPE_IMPORTANCE_PARENT", 21, false},
          {"CV_CORVANE_TLV_TYPE_ENTITY_TYPE", 22, false},
          {"CV_CORVANE_TLV_TYPE_REPLY_TO", 23, false},
          {"CV_CORVANE_TLV_TYPE_PROXY_ADDRESS", 24, false},
          {"CV_CORVANE_TLV_TYPE_PROXY_PORT", 25, false},
          {"CV_CORVANE_TLV_TYPE_PROXY_PROTO", 26, false},
          {"CV_CORVANE_TLV_TYPE_PROXY_CLASS", 27, false},
          {"CV_CORVANE_TLV_TYPE_NEIGHBOR", 28, false},
          {"CV_CORVANE_TLV_TYPE_NEIGHBOR_COUNT", 29, false},
          {"CV_CORVANE_TLV_TYPE_PARENT", 30, false},
          {"CV_CORVANE_TLV_TYPE_HEARTBEAT", 31, false},
          {"CV_CORVANE_TLV_TYPE_CLOCK", 32, false},
          {"CV_CORVANE_TLV_TYPE_SENDER_CLOCK", 33, false},
          {"CV_CORVANE_TLV_TYPE_NANNY_VECTOR", 34, false},
          {"CV_CORVANE_TLV_TYPE_EVENT_ID", 35, false}}},
    };
    return all;
}

#undef PAIR

// Every value round-trips, and the neighbourhood of the table stays unnamed.
TEST(EnumNames, EveryEnumerationRoundTripsAndKnowsNothingElse) {
    EXPECT_EQ(enumerations().size(), 9u + 16u + 13u);
    for (const Enumeration &en : enumerations()) {
        SCOPED_TRACE(en.label);
        for (const Entry &e : en.entries) {
            const char *name = en.e2s(e.value);
            ASSERT_NE(name, nullptr) << e.value;
            EXPECT_STREQ(name, e.name);
            EXPECT_EQ(en.s2e(name), e.value);
            EXPECT_EQ(en.s2e(e.name), e.value);

            // A trailing character matches only the lenient names; a missing
            // one or a lower-case spelling never matches.
            std::string longer = std::string(e.name) + "X";
            EXPECT_EQ(en.s2e(longer.c_str()), e.prefix ? e.value : kBad) << longer;
            std::string shorter(e.name, std::string(e.name).size() - 1);
            EXPECT_EQ(en.s2e(shorter.c_str()), kBad) << shorter;
            std::string lower(e.name);
            for (char &c : lower) c = static_cast<char>(tolower(c));
            EXPECT_EQ(en.s2e(lower.c_str()), kBad) << lower;
        }
        for (int32_t v = -10; v <= 60; ++v) {
            bool known = false;
            for (const Entry &e : en.entries) known = known || e.value == v;
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

TEST(EnumNames, LenientAndStrictNamesAndTheNotFoundValue) {
    EXPECT_EQ(cv_util_s2e_shipment("CV_SHIPMENT_ACK_LATER, maybe"), -4);
    EXPECT_EQ(cv_util_s2e_shipment("CV_SHIPMENT_ACK_WILLX"), kBad);
    EXPECT_EQ(cv_util_s2e_shipment("CV_SHIPMENT_ACK_LATE"), kBad);
    EXPECT_EQ(cv_util_s2e_corvane_usage_category("CV_CORVANE_USAGE_METERX"), 0);
    EXPECT_EQ(cv_util_s2e_corvane_usage_category("CV_CORVANE_USAGE_PRODUCERS"), -1);
    EXPECT_EQ(cv_util_s2e_corvane_usage_category("CV_CORVANE_USAGE_CONSUMER_2"), 1);
    EXPECT_EQ(cv_util_s2e_corvane_tlv_type("CV_CORVANE_TLV_TYPE_RESERVED_99"), 0);
    // Exact names that are the beginning of other names stay exact.
    EXPECT_EQ(cv_util_s2e_corvane_tlv_type("CV_CORVANE_TLV_TYPE_IMPORTANCE"), 16);
    EXPECT_EQ(cv_util_s2e_corvane_tlv_type("CV_CORVANE_TLV_TYPE_IMPORTANCE_MAX_IDX"), kBad);
    EXPECT_EQ(cv_util_s2e_corvane_tlv_type("CV_CORVANE_TLV_TYPE_ID_"), kBad);
    // Each table is searched on its own: a name of another enumeration is unknown.
    EXPECT_EQ(cv_util_s2e_class("CV_TYPE_KVQR"), kBad);
    EXPECT_EQ(cv_util_s2e_action_kvqr_corvane_aggregate("CV_ACTION_KVQR_CORVANE_QUERY_SET"), kBad);

    // Known on the wire but not to the names.
    EXPECT_EQ(cv_util_e2s_corvane_tlv_type(36), nullptr);
    EXPECT_STREQ(cv_util_e2s_corvane_tlv_type(35), "CV_CORVANE_TLV_TYPE_EVENT_ID");
    EXPECT_EQ(cv_util_s2e_corvane_tlv_type("CV_CORVANE_TLV_TYPE_NONCE"), kBad);
    EXPECT_EQ(cv_util_s2e_corvane_tlv_type("CV_CORVANE_TLV_TYPE_DELTA_VECTOR"), kBad);
    EXPECT_EQ(cv_util_e2s_discovery_flags(3), nullptr);
    EXPECT_EQ(cv_util_e2s_discovery_flags(6), nullptr);

    // The not-found value names itself and converts back to itself.
    EXPECT_STREQ(cv_util_e2s_runtime_error(0x0BADDA7A), "CV_RUNTIME_ERROR_ENUM_BAD_MAGIC");
    EXPECT_EQ(cv_util_s2e_runtime_error(cv_util_e2s_runtime_error(0x0BADDA7A)), 0x0BADDA7A);
    EXPECT_EQ(cv_util_s2e_runtime_error("CV_RUNTIME_ERROR_WHATEVER"), 0x0BADDA7A);
}

TEST(EnumMappings, ClassAndAction) {
    const std::map<int, int32_t> classes = {{1, 10}, {2, 11}};
    for (int c = -2; c <= 6; ++c) {
        auto it = classes.find(c);
        EXPECT_EQ(om_get_class_enum_type(c), it == classes.end() ? -1 : it->second) << c;
    }
    const std::map<std::pair<int, int>, int32_t> actions = {
        {{1, 1}, 10}, {{1, 2}, 11}, {{1, 3}, 14}, {{2, 1}, 10}};
    for (int c = -1; c <= 4; ++c) {
        for (int a = -1; a <= 6; ++a) {
            auto it = actions.find({c, a});
            EXPECT_EQ(om_get_action_enum_type(c, a), it == actions.end() ? -1 : it->second)
                << c << "," << a;
        }
    }
}

TEST(EnumMappings, TlvNumberingBothWays) {
    const std::map<int, int32_t> tlvs = {
        {1, 1},   {2, 7},   {3, 8},   {4, 9},   {5, 10},  {6, 11},  {7, 12},  {8, 13},
        {9, 14},  {10, 17}, {11, 22}, {12, 23}, {13, 28}, {14, 29}, {15, 34}, {16, 36},
        {17, 38}, {18, 39}, {19, 41}, {20, 46}, {21, 48}, {22, 51}};
    std::map<int32_t, int> inverse;
    for (const auto &kv : tlvs) inverse[kv.second] = kv.first;

    for (int api = -2; api <= 60; ++api) {
        auto it = tlvs.find(api);
        EXPECT_EQ(om_get_tlv_enum_type(api), it == tlvs.end() ? -1 : it->second) << api;
    }
    for (int wire = -2; wire <= 60; ++wire) {
        auto it = inverse.find(wire);
        int32_t api = om_get_external_tlv_enum_type(wire);
        EXPECT_EQ(api, it == inverse.end() ? -1 : it->second) << wire;
        if (it != inverse.end()) {
            EXPECT_EQ(om_get_tlv_enum_type(api), wire);
        }
    }
    EXPECT_EQ(om_get_external_tlv_enum_type(2), -1);
}

TEST(EnumMappings, OnlyApiNannyBitZeroExists) {
    EXPECT_EQ(om_get_internal_nanny_bit_type(0), 5);
    for (unsigned b : {1u, 5u, 6u, 31u, 32u, UINT_MAX}) EXPECT_EQ(om_get_internal_nanny_bit_type(b), -1) << b;
}

}  // namespace
