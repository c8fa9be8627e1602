// SPDX-License-Identifier: Apache-2.0
// Enumerator names and back, and the application-facing numbering.
//
// Each enumeration is one table in search order; every exported pair goes
// through the same two lookups. A name and its value come from one token
// (E/P below), so they cannot drift apart from the constants in enums.h.
#include <stddef.h>
#include <stdint.h>
#include <string.h>

#include "common/api.h"
#include "omsdk/enum_names.h"
#include "omsdk/enums.h"

namespace {

// Each enumeration is held as its values and one block of its names, each
// name NUL-terminated, in search order: no pointer per name, so nothing for
// the loader to relocate. The names are cut at compile time from the
// macro arguments' own text, "E(NAME), P(NAME), ...".
//
// Deliberately lenient for a few names (P): the comparison stops at the
// name's length, so any input that begins with the name matches it.
constexpr bool is_name_char(char c) {
    return (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') || c == '_';
}

// Bytes the names take with their terminators.
constexpr size_t names_bytes(const char *text) {
    size_t n = 0;
    for (size_t i = 0; text[i] != '\0'; ++i)
        if (text[i] == '(') {
            while (text[i + 1] == ' ') ++i;
            while (is_name_char(text[i + 1])) ++i, ++n;
            ++n;
        }
    return n;
}

template <size_t Bytes>
struct Names {
    char text[Bytes];
};

template <size_t Bytes>
constexpr Names<Bytes> cut_names(const char *text) {
    Names<Bytes> out{};
    size_t n = 0;
    for (size_t i = 0; text[i] != '\0'; ++i)
        if (text[i] == '(') {
            while (text[i + 1] == ' ') ++i;
            while (is_name_char(text[i + 1])) out.text[n++] = text[++i];
            out.text[n++] = '\0';
        }
    return out;
}

// Bit i: the i-th name matches by prefix.
constexpr uint64_t prefix_bits(const char *text) {
    uint64_t bits = 0;
    uint32_t index = 0;
    for (size_t i = 0; text[i] != '\0'; ++i)
        if (text[i] == '(') {
            if (i > 0 && text[i - 1] == 'P') bits |= uint64_t{1} << index;
            ++index;
        }
    return bits;
}

template <size_t N>
constexpr bool has_value(const int32_t (&values)[N], int32_t value) {
    for (int32_t v : values)
        if (v == value) return true;
    return false;
}

constexpr int32_t kBadMagic = CV_RUNTIME_ERROR_ENUM_BAD_MAGIC;

const char *name_of(const char *names, const int32_t *values, size_t count, int32_t value) {
    for (size_t i = 0; i < count; ++i, names += strlen(names) + 1)
        if (values[i] == value) return names;
    return nullptr;
}

int32_t value_of(const char *names, uint64_t prefix, const int32_t *values, size_t count,
                 const char *name) {
    if (name == nullptr) return kBadMagic;  // callers must not, but never crash
    for (size_t i = 0; i < count; ++i) {
        const size_t len = strlen(names);
        const int cmp = (prefix >> i & 1) != 0 ? strncmp(name, names, len) : strcmp(name, names);
        if (cmp == 0) return values[i];
        names += len + 1;
    }
    return kBadMagic;
}

#define E(n) n
#define P(n) n

}  // namespace

// One enumeration: its values and names in search order and its exported
// pair of look-ups, cv_util_e2s_<suffix> and cv_util_s2e_<suffix>.
// The tables keep their natural alignment (alignas): 38 small tables
// rounded up to 32 bytes each would waste more than a kilobyte.
#define OM_ENUM(suffix, ...)                                                            \
    namespace {                                                                         \
    alignas(4) constexpr int32_t k_##suffix[] = {__VA_ARGS__};                          \
    constexpr size_t k_##suffix##_count = sizeof k_##suffix / sizeof k_##suffix[0];     \
    alignas(1) constexpr auto k_##suffix                                                \
        ##_names = cut_names<names_bytes(#__VA_ARGS__)>(#__VA_ARGS__);                  \
    static_assert(k_##suffix##_count <= 64, "one prefix bit per name");                 \
    }                                                                                   \
    OMSDK_API const char *cv_util_e2s_##suffix(int32_t value) {                         \
        return name_of(k_##suffix##_names.text, k_##suffix, k_##suffix##_count, value); \
    }                                                                                   \
    OMSDK_API int32_t cv_util_s2e_##suffix(const char *name) {                          \
        return value_of(k_##suffix##_names.text, prefix_bits(#__VA_ARGS__), k_##suffix, \
                        k_##suffix##_count, name);                                      \
    }

OM_ENUM(type, E(CV_TYPE_KVQR))

OM_ENUM(class, E(CV_CLASS_QUERY), E(CV_CLASS_AGGREGATE), E(CV_CLASS_NOTIFY), E(CV_CLASS_REPLY),
        E(CV_CLASS_DISCOVERY))

OM_ENUM(application, E(CV_APPLICATION_CORVANE))

OM_ENUM(action_kvqr_corvane_query, E(CV_ACTION_KVQR_CORVANE_QUERY_SET),
        E(CV_ACTION_KVQR_CORVANE_QUERY_COLLECT), E(CV_ACTION_KVQR_CORVANE_QUERY_COMMIT),
        E(CV_ACTION_KVQR_CORVANE_QUERY_INVENTORY))

OM_ENUM(action_kvqr_corvane_aggregate, E(CV_ACTION_KVQR_CORVANE_AGGREGATE_SUM),
        E(CV_ACTION_KVQR_CORVANE_AGGREGATE_AVERAGE), E(CV_ACTION_KVQR_CORVANE_AGGREGATE_MIN),
        E(CV_ACTION_KVQR_CORVANE_AGGREGATE_MAX))

OM_ENUM(action_kvqr_corvane_notify, E(CV_ACTION_KVQR_CORVANE_NOTIFY_CREATE),
        E(CV_ACTION_KVQR_CORVANE_NOTIFY_UPDATE), E(CV_ACTION_KVQR_CORVANE_NOTIFY_DELETE))

OM_ENUM(action_kvqr_corvane_reply, E(CV_ACTION_KVQR_CORVANE_REPLY_DONE),
        E(CV_ACTION_KVQR_CORVANE_REPLY_DIDNOT))

OM_ENUM(action_kvqr_corvane_discovery, E(CV_ACTION_KVQR_CORVANE_DISCOVERY_DISCOVERY_UPDATE),
        E(CV_ACTION_KVQR_CORVANE_DISCOVERY_KEEPALIVE), E(CV_ACTION_KVQR_CORVANE_DISCOVERY_DELETE))

OM_ENUM(shipment, E(CV_SHIPMENT_SEND), E(CV_SHIPMENT_ACK_WILL), E(CV_SHIPMENT_ACK_WONT),
        E(CV_SHIPMENT_ACK_ILL), P(CV_SHIPMENT_ACK_LATER), E(CV_SHIPMENT_REPLY_NO_ERROR),
        E(CV_SHIPMENT_REPLY_WITH_ERROR))

OM_ENUM(error_code_kvqr_corvane_query_set, E(CV_ERROR_CODE_KVQR_CORVANE_QUERY_SET_NOT_SUPPORTED),
        E(CV_ERROR_CODE_KVQR_CORVANE_QUERY_SET_WRONGTYPE),
        E(CV_ERROR_CODE_KVQR_CORVANE_QUERY_SET_OUTOFRANGE),
        E(CV_ERROR_CODE_KVQR_CORVANE_QUERY_SET_SWFAULT),
        E(CV_ERROR_CODE_KVQR_CORVANE_QUERY_SET_HWFAULT))

OM_ENUM(error_code_kvqr_corvane_query_collect,
        E(CV_ERROR_CODE_KVQR_CORVANE_QUERY_COLLECT_NOT_SUPPORTED),
        E(CV_ERROR_CODE_KVQR_CORVANE_QUERY_COLLECT_WRONGTYPE),
        E(CV_ERROR_CODE_KVQR_CORVANE_QUERY_COLLECT_OVERFLOW))

OM_ENUM(error_code_kvqr_corvane_query_commit,
        E(CV_ERROR_CODE_KVQR_CORVANE_QUERY_COMMIT_UNSUPPORTED))

OM_ENUM(error_code_kvqr_corvane_query_inventory,
        E(CV_ERROR_CODE_KVQR_CORVANE_QUERY_INVENTORY_NSUPPORTED),
        E(CV_ERROR_CODE_KVQR_CORVANE_QUERY_INVENTORY_NOTINDOMAIN))

OM_ENUM(error_code_kvqr_corvane_aggregate_sum,
        E(CV_ERROR_CODE_KVQR_CORVANE_AGGREGATE_SUM_NOT_SUPPORTED),
        E(CV_ERROR_CODE_KVQR_CORVANE_AGGREGATE_SUM_NOTINDOMAIN),
        E(CV_ERROR_CODE_KVQR_CORVANE_AGGREGATE_SUM_OVERFLOW))

OM_ENUM(error_code_kvqr_corvane_aggregate_average,
        E(CV_ERROR_CODE_KVQR_CORVANE_AGGREGATE_AVERAGE_NOT_SUPPORTED),
        E(CV_ERROR_CODE_KVQR_CORVANE_AGGREGATE_AVERAGE_OVERFLOW),
        E(CV_ERROR_CODE_KVQR_CORVANE_AGGREGATE_AVERAGE_OUTBOUND))

OM_ENUM(error_code_kvqr_corvane_aggregate_min,
        E(CV_ERROR_CODE_KVQR_CORVANE_AGGREGATE_MIN_NOT_SUPPORTED),
        E(CV_ERROR_CODE_KVQR_CORVANE_AGGREGATE_MIN_OVERFLOW),
        E(CV_ERROR_CODE_KVQR_CORVANE_AGGREGATE_MIN_OUTBOUND))

OM_ENUM(error_code_kvqr_corvane_aggregate_max,
        E(CV_ERROR_CODE_KVQR_CORVANE_AGGREGATE_MAX_NOT_SUPPORTED),
        E(CV_ERROR_CODE_KVQR_CORVANE_AGGREGATE_MAX_OVERFLOW),
        E(CV_ERROR_CODE_KVQR_CORVANE_AGGREGATE_MAX_OUTBOUND))

OM_ENUM(error_code_kvqr_corvane_notify_create, E(CV_ERROR_CODE_KVQR_CORVANE_NOTIFY_CREATE_OVERFLOW))

OM_ENUM(error_code_kvqr_corvane_notify_update, E(CV_ERROR_CODE_KVQR_CORVANE_NOTIFY_UPDATE_OVERFLOW))

OM_ENUM(error_code_kvqr_corvane_notify_delete, E(CV_ERROR_CODE_KVQR_CORVANE_NOTIFY_DELETE_CANT),
        E(CV_ERROR_CODE_KVQR_CORVANE_NOTIFY_DELETE_NOENTRY))

OM_ENUM(error_code_kvqr_corvane_reply_done, E(CV_ERROR_CODE_KVQR_CORVANE_REPLY_DONE_WITHERR),
        E(CV_ERROR_CODE_KVQR_CORVANE_REPLY_DONE_WITHEXP))

OM_ENUM(error_code_kvqr_corvane_reply_didnot, E(CV_ERROR_CODE_KVQR_CORVANE_REPLY_DIDNOT_WITHERR),
        E(CV_ERROR_CODE_KVQR_CORVANE_REPLY_DIDNOT_WITHEXP))

OM_ENUM(error_code_kvqr_corvane_discovery_discovery_update,
        E(CV_ERROR_CODE_KVQR_CORVANE_DISCOVERY_DISCOVERY_UPDATE_UPDATEERR))

OM_ENUM(error_code_kvqr_corvane_discovery_keepalive,
        E(CV_ERROR_CODE_KVQR_CORVANE_DISCOVERY_KEEPALIVE_HBMISSED))

OM_ENUM(error_code_kvqr_corvane_discovery_delete,
        E(CV_ERROR_CODE_KVQR_CORVANE_DISCOVERY_DELETE_DELMISSED))

// BAD_MAGIC has a name too, so the not-found value survives a round trip.
OM_ENUM(runtime_error, E(CV_RUNTIME_ERROR_NONE), E(CV_RUNTIME_ERROR_NO_MEMORY),
        E(CV_RUNTIME_ERROR_NOT_SUPPORTED), E(CV_RUNTIME_ERROR_OVERFLOW),
        E(CV_RUNTIME_ERROR_NO_SUCH_DATA), E(CV_RUNTIME_ERROR_CANT_DECRYPT),
        E(CV_RUNTIME_ERROR_SYSTEM_SERVICES), E(CV_RUNTIME_ERROR_NOT_IN_RANGE),
        E(CV_RUNTIME_ERROR_ENUM_BAD_MAGIC))

OM_ENUM(entity_type, E(CV_ENTITY_TYPE_NONE), E(CV_ENTITY_TYPE_LOCAL), E(CV_ENTITY_TYPE_REMOTE),
        E(CV_ENTITY_TYPE_CORVANE), E(CV_ENTITY_TYPE_ADMIN_OFF), E(CV_ENTITY_TYPE_NON_POE))

OM_ENUM(ent_admin_status, E(CV_ENT_ADMIN_STATUS_DISABLE), E(CV_ENT_ADMIN_STATUS_ENABLE))

OM_ENUM(ent_ops_status, E(CV_ENT_OPS_STATUS_ERROR), E(CV_ENT_OPS_STATUS_DOWN),
        E(CV_ENT_OPS_STATUS_UP))

// Single flags only: combinations have no name.
OM_ENUM(discovery_flags, E(CV_DISCOVERY_FLAGS_CORVANE_DISCOVERY_FLAG_NONE),
        E(CV_DISCOVERY_FLAGS_CORVANE_DISCOVERY_FLAG_STATIC),
        E(CV_DISCOVERY_FLAGS_CORVANE_DISCOVERY_FLAG_LDX),
        E(CV_DISCOVERY_FLAGS_CORVANE_DISCOVERY_FLAG_UDP))

OM_ENUM(corvane_ngbr_type, E(CV_CORVANE_NGBR_TYPE_STATIC), E(CV_CORVANE_NGBR_TYPE_DYN_LDX),
        E(CV_CORVANE_NGBR_TYPE_DYN_UDP))

OM_ENUM(corvane_ngbr_state, E(CV_CORVANE_NGBR_STATE_OK), E(CV_CORVANE_NGBR_STATE_DISCOVERING),
        E(CV_CORVANE_NGBR_STATE_UNREACHABLE), E(CV_CORVANE_NGBR_STATE_LOOSING))

OM_ENUM(corvane_usage_caliber, E(CV_CORVANE_USAGE_CALIBER_MAX),
        E(CV_CORVANE_USAGE_CALIBER_PRESUMED), E(CV_CORVANE_USAGE_CALIBER_UNKNOWN),
        E(CV_CORVANE_USAGE_CALIBER_ACTUAL), E(CV_CORVANE_USAGE_CALIBER_TRUSTED))

OM_ENUM(corvane_usage_category, P(CV_CORVANE_USAGE_PRODUCER), P(CV_CORVANE_USAGE_METER),
        P(CV_CORVANE_USAGE_CONSUMER))

OM_ENUM(proxy_proto, E(CV_PROXY_PROTO_TCP), E(CV_PROXY_PROTO_UDP), E(CV_PROXY_PROTO_HTTP),
        E(CV_PROXY_PROTO_SNMP))

OM_ENUM(_internal_etype, E(CV__INTERNAL_ETYPE_INTERFACE), E(CV__INTERNAL_ETYPE_OTHER))

OM_ENUM(nanny_vector, E(CV_NANNY_VECTOR_BIT_POS_POWER_LAST))

// The protocol names only types 0 to 35; the later wire types keep their
// constants in enums.h but stay nameless here on purpose.
OM_ENUM(corvane_tlv_type, P(CV_CORVANE_TLV_TYPE_RESERVED), E(CV_CORVANE_TLV_TYPE_OHMRZ_ID),
        E(CV_CORVANE_TLV_TYPE_ID), E(CV_CORVANE_TLV_TYPE_ENT_ID),
        E(CV_CORVANE_TLV_TYPE_AUTHORIZATION), E(CV_CORVANE_TLV_TYPE_ADDRESSEE),
        E(CV_CORVANE_TLV_TYPE_RECUR), E(CV_CORVANE_TLV_TYPE_ROLE), E(CV_CORVANE_TLV_TYPE_DOMAIN),
        E(CV_CORVANE_TLV_TYPE_NAME), E(CV_CORVANE_TLV_TYPE_KEYWORDS),
        E(CV_CORVANE_TLV_TYPE_ERROR_STRING), E(CV_CORVANE_TLV_TYPE_UNITS),
        E(CV_CORVANE_TLV_TYPE_USAGE), E(CV_CORVANE_TLV_TYPE_LEVEL_CURRENT),
        E(CV_CORVANE_TLV_TYPE_LEVEL_PROVISIONED), E(CV_CORVANE_TLV_TYPE_IMPORTANCE),
        E(CV_CORVANE_TLV_TYPE_IMPORTANCE_I), E(CV_CORVANE_TLV_TYPE_IMPORTANCE_E),
        E(CV_CORVANE_TLV_TYPE_IMPORTANCE_MAX), E(CV_CORVANE_TLV_TYPE_IMPORTANCE_MAX_ID),
        E(CV_CORVANE_TLV_TYPE_IMPORTANCE_PARENT), E(CV_CORVANE_TLV_TYPE_ENTITY_TYPE),
        E(CV_CORVANE_TLV_TYPE_REPLY_TO), E(CV_CORVANE_TLV_TYPE_PROXY_ADDRESS),
        E(CV_CORVANE_TLV_TYPE_PROXY_PORT), E(CV_CORVANE_TLV_TYPE_PROXY_PROTO),
        E(CV_CORVANE_TLV_TYPE_PROXY_CLASS), E(CV_CORVANE_TLV_TYPE_NEIGHBOR),
        E(CV_CORVANE_TLV_TYPE_NEIGHBOR_COUNT), E(CV_CORVANE_TLV_TYPE_PARENT),
        E(CV_CORVANE_TLV_TYPE_HEARTBEAT), E(CV_CORVANE_TLV_TYPE_CLOCK),
        E(CV_CORVANE_TLV_TYPE_SENDER_CLOCK), E(CV_CORVANE_TLV_TYPE_NANNY_VECTOR),
        E(CV_CORVANE_TLV_TYPE_EVENT_ID))
static_assert(k_corvane_tlv_type_count == 36 &&
                  !has_value(k_corvane_tlv_type, CV_CORVANE_TLV_TYPE_DELTA_VECTOR),
              "the TLV name table covers exactly types 0 to 35");

#undef OM_ENUM
#undef E
#undef P

namespace {

// Application-facing number -> protocol number.
struct Mapping {
    int api;
    int32_t wire;
};

constexpr Mapping k_api_class[] = {{1, CV_CLASS_QUERY}, {2, CV_CLASS_AGGREGATE}};

struct ActionMapping {
    int api_class;
    int api_action;
    int32_t action;
};

// (1, 3) maps to 14, past the named query actions; peers expect exactly that.
constexpr ActionMapping k_api_action[] = {{1, 1, CV_ACTION_KVQR_CORVANE_QUERY_SET},
                                          {1, 2, CV_ACTION_KVQR_CORVANE_QUERY_COLLECT},
                                          {1, 3, 14},
                                          {2, 1, CV_ACTION_KVQR_CORVANE_AGGREGATE_SUM}};

constexpr Mapping k_api_tlv[] = {{1, CV_CORVANE_TLV_TYPE_OHMRZ_ID},
                                 {2, CV_CORVANE_TLV_TYPE_ROLE},
                                 {3, CV_CORVANE_TLV_TYPE_DOMAIN},
                                 {4, CV_CORVANE_TLV_TYPE_NAME},
                                 {5, CV_CORVANE_TLV_TYPE_KEYWORDS},
                                 {6, CV_CORVANE_TLV_TYPE_ERROR_STRING},
                                 {7, CV_CORVANE_TLV_TYPE_UNITS},
                                 {8, CV_CORVANE_TLV_TYPE_USAGE},
                                 {9, CV_CORVANE_TLV_TYPE_LEVEL_CURRENT},
                                 {10, CV_CORVANE_TLV_TYPE_IMPORTANCE_I},
                                 {11, CV_CORVANE_TLV_TYPE_ENTITY_TYPE},
                                 {12, CV_CORVANE_TLV_TYPE_REPLY_TO},
                                 {13, CV_CORVANE_TLV_TYPE_NEIGHBOR},
                                 {14, CV_CORVANE_TLV_TYPE_NEIGHBOR_COUNT},
                                 {15, CV_CORVANE_TLV_TYPE_NANNY_VECTOR},
                                 {16, CV_CORVANE_TLV_TYPE_DELTA_VECTOR},
                                 {17, CV_CORVANE_TLV_TYPE_USAGE_CALIBER},
                                 {18, CV_CORVANE_TLV_TYPE_USAGE_VECTOR},
                                 {19, 41},
                                 {20, 46},
                                 {21, CV_CORVANE_TLV_TYPE_DEVICE_TYPE},
                                 {22, CV_CORVANE_TLV_TYPE_USAGE_CATEGORY}};

template <size_t N>
int32_t to_wire(const Mapping (&table)[N], int api) {
    for (const Mapping &m : table)
        if (m.api == api) return m.wire;
    return -1;
}

template <size_t N>
int32_t to_api(const Mapping (&table)[N], int wire) {
    for (const Mapping &m : table)
        if (m.wire == wire) return m.api;
    return -1;
}

}  // namespace

OMSDK_API int32_t om_get_class_enum_type(int api_class) { return to_wire(k_api_class, api_class); }

OMSDK_API int32_t om_get_action_enum_type(int api_class, int api_action) {
    for (const ActionMapping &m : k_api_action)
        if (m.api_class == api_class && m.api_action == api_action) return m.action;
    return -1;
}

OMSDK_API int32_t om_get_tlv_enum_type(int api_tlv) { return to_wire(k_api_tlv, api_tlv); }

OMSDK_API int32_t om_get_external_tlv_enum_type(int wire_tlv) {
    return to_api(k_api_tlv, wire_tlv);
}

// The application may set exactly one nanny bit: its bit 0 is position 5.
OMSDK_API int32_t om_get_internal_nanny_bit_type(unsigned api_bit) { return api_bit == 0 ? 5 : -1; }
