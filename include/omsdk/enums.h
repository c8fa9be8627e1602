/* SPDX-License-Identifier: Apache-2.0 */
/**
 * @file omsdk/enums.h
 * @brief Protocol enumerations: the numbers in event headers and TLVs.
 *
 * Their names and values convert both ways with omsdk/enum_names.h.
 */
#ifndef OMSDK_ENUMS_H
#define OMSDK_ENUMS_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

typedef enum cv_type { CV_TYPE_KVQR = 10 } cv_type;

typedef enum cv_class {
    CV_CLASS_QUERY = 10,
    CV_CLASS_AGGREGATE = 11,
    CV_CLASS_NOTIFY = 12,
    CV_CLASS_REPLY = 13,
    CV_CLASS_DISCOVERY = 14
} cv_class;

typedef enum cv_application { CV_APPLICATION_CORVANE = 17 } cv_application;

typedef enum cv_action_kvqr_corvane_query {
    CV_ACTION_KVQR_CORVANE_QUERY_SET = 10,
    CV_ACTION_KVQR_CORVANE_QUERY_COLLECT = 11,
    CV_ACTION_KVQR_CORVANE_QUERY_COMMIT = 12,
    CV_ACTION_KVQR_CORVANE_QUERY_INVENTORY = 13
} cv_action_kvqr_corvane_query;

typedef enum cv_action_kvqr_corvane_aggregate {
    CV_ACTION_KVQR_CORVANE_AGGREGATE_SUM = 10,
    CV_ACTION_KVQR_CORVANE_AGGREGATE_AVERAGE = 11,
    CV_ACTION_KVQR_CORVANE_AGGREGATE_MIN = 12,
    CV_ACTION_KVQR_CORVANE_AGGREGATE_MAX = 13
} cv_action_kvqr_corvane_aggregate;

typedef enum cv_action_kvqr_corvane_notify {
    CV_ACTION_KVQR_CORVANE_NOTIFY_CREATE = 10,
    CV_ACTION_KVQR_CORVANE_NOTIFY_UPDATE = 11,
    CV_ACTION_KVQR_CORVANE_NOTIFY_DELETE = 12
} cv_action_kvqr_corvane_notify;

typedef enum cv_action_kvqr_corvane_reply {
    CV_ACTION_KVQR_CORVANE_REPLY_DONE = 10,
    CV_ACTION_KVQR_CORVANE_REPLY_DIDNOT = 11
} cv_action_kvqr_corvane_reply;

typedef enum cv_action_kvqr_corvane_discovery {
    CV_ACTION_KVQR_CORVANE_DISCOVERY_DISCOVERY_UPDATE = 10,
    CV_ACTION_KVQR_CORVANE_DISCOVERY_KEEPALIVE = 11,
    CV_ACTION_KVQR_CORVANE_DISCOVERY_DELETE = 12
} cv_action_kvqr_corvane_discovery;

typedef enum cv_shipment {
    CV_SHIPMENT_ACK_LATER = -4,
    CV_SHIPMENT_ACK_ILL = -3,
    CV_SHIPMENT_ACK_WONT = -2,
    CV_SHIPMENT_ACK_WILL = -1,
    CV_SHIPMENT_SEND = 0,
    CV_SHIPMENT_REPLY_NO_ERROR = 1,
    CV_SHIPMENT_REPLY_WITH_ERROR = 2
} cv_shipment;

typedef enum cv_error_code_kvqr_corvane_query_set {
    CV_ERROR_CODE_KVQR_CORVANE_QUERY_SET_NOT_SUPPORTED = 1,
    CV_ERROR_CODE_KVQR_CORVANE_QUERY_SET_WRONGTYPE = 2,
    CV_ERROR_CODE_KVQR_CORVANE_QUERY_SET_OUTOFRANGE = 3,
    CV_ERROR_CODE_KVQR_CORVANE_QUERY_SET_SWFAULT = 4,
    CV_ERROR_CODE_KVQR_CORVANE_QUERY_SET_HWFAULT = 5
} cv_error_code_kvqr_corvane_query_set;

typedef enum cv_error_code_kvqr_corvane_query_collect {
    CV_ERROR_CODE_KVQR_CORVANE_QUERY_COLLECT_NOT_SUPPORTED = 1,
    CV_ERROR_CODE_KVQR_CORVANE_QUERY_COLLECT_WRONGTYPE = 2,
    CV_ERROR_CODE_KVQR_CORVANE_QUERY_COLLECT_OVERFLOW = 3
} cv_error_code_kvqr_corvane_query_collect;

typedef enum cv_error_code_kvqr_corvane_query_commit {
    CV_ERROR_CODE_KVQR_CORVANE_QUERY_COMMIT_UNSUPPORTED = 1
} cv_error_code_kvqr_corvane_query_commit;

typedef enum cv_error_code_kvqr_corvane_query_inventory {
    CV_ERROR_CODE_KVQR_CORVANE_QUERY_INVENTORY_NSUPPORTED = 1,
    CV_ERROR_CODE_KVQR_CORVANE_QUERY_INVENTORY_NOTINDOMAIN = 2
} cv_error_code_kvqr_corvane_query_inventory;

typedef enum cv_error_code_kvqr_corvane_aggregate_sum {
    CV_ERROR_CODE_KVQR_CORVANE_AGGREGATE_SUM_NOT_SUPPORTED = 1,
    CV_ERROR_CODE_KVQR_CORVANE_AGGREGATE_SUM_NOTINDOMAIN = 2,
    CV_ERROR_CODE_KVQR_CORVANE_AGGREGATE_SUM_OVERFLOW = 3
} cv_error_code_kvqr_corvane_aggregate_sum;

typedef enum cv_error_code_kvqr_corvane_aggregate_average {
    CV_ERROR_CODE_KVQR_CORVANE_AGGREGATE_AVERAGE_NOT_SUPPORTED = 1,
    CV_ERROR_CODE_KVQR_CORVANE_AGGREGATE_AVERAGE_OVERFLOW = 2,
    CV_ERROR_CODE_KVQR_CORVANE_AGGREGATE_AVERAGE_OUTBOUND = 3
} cv_error_code_kvqr_corvane_aggregate_average;

typedef enum cv_error_code_kvqr_corvane_aggregate_min {
    CV_ERROR_CODE_KVQR_CORVANE_AGGREGATE_MIN_NOT_SUPPORTED = 1,
    CV_ERROR_CODE_KVQR_CORVANE_AGGREGATE_MIN_OVERFLOW = 2,
    CV_ERROR_CODE_KVQR_CORVANE_AGGREGATE_MIN_OUTBOUND = 3
} cv_error_code_kvqr_corvane_aggregate_min;

typedef enum cv_error_code_kvqr_corvane_aggregate_max {
    CV_ERROR_CODE_KVQR_CORVANE_AGGREGATE_MAX_NOT_SUPPORTED = 1,
    CV_ERROR_CODE_KVQR_CORVANE_AGGREGATE_MAX_OVERFLOW = 2,
    CV_ERROR_CODE_KVQR_CORVANE_AGGREGATE_MAX_OUTBOUND = 3
} cv_error_code_kvqr_corvane_aggregate_max;

typedef enum cv_error_code_kvqr_corvane_notify_create {
    CV_ERROR_CODE_KVQR_CORVANE_NOTIFY_CREATE_OVERFLOW = 1
} cv_error_code_kvqr_corvane_notify_create;

typedef enum cv_error_code_kvqr_corvane_notify_update {
    CV_ERROR_CODE_KVQR_CORVANE_NOTIFY_UPDATE_OVERFLOW = 1
} cv_error_code_kvqr_corvane_notify_update;

typedef enum cv_error_code_kvqr_corvane_notify_delete {
    CV_ERROR_CODE_KVQR_CORVANE_NOTIFY_DELETE_CANT = 1,
    CV_ERROR_CODE_KVQR_CORVANE_NOTIFY_DELETE_NOENTRY = 2
} cv_error_code_kvqr_corvane_notify_delete;

typedef enum cv_error_code_kvqr_corvane_reply_done {
    CV_ERROR_CODE_KVQR_CORVANE_REPLY_DONE_WITHERR = 1,
    CV_ERROR_CODE_KVQR_CORVANE_REPLY_DONE_WITHEXP = 2
} cv_error_code_kvqr_corvane_reply_done;

typedef enum cv_error_code_kvqr_corvane_reply_didnot {
    CV_ERROR_CODE_KVQR_CORVANE_REPLY_DIDNOT_WITHERR = 1,
    CV_ERROR_CODE_KVQR_CORVANE_REPLY_DIDNOT_WITHEXP = 2
} cv_error_code_kvqr_corvane_reply_didnot;

typedef enum cv_error_code_kvqr_corvane_discovery_discovery_update {
    CV_ERROR_CODE_KVQR_CORVANE_DISCOVERY_DISCOVERY_UPDATE_UPDATEERR = 1
} cv_error_code_kvqr_corvane_discovery_discovery_update;

typedef enum cv_error_code_kvqr_corvane_discovery_keepalive {
    CV_ERROR_CODE_KVQR_CORVANE_DISCOVERY_KEEPALIVE_HBMISSED = 1
} cv_error_code_kvqr_corvane_discovery_keepalive;

typedef enum cv_error_code_kvqr_corvane_discovery_delete {
    CV_ERROR_CODE_KVQR_CORVANE_DISCOVERY_DELETE_DELMISSED = 1
} cv_error_code_kvqr_corvane_discovery_delete;

typedef enum cv_runtime_error {
    CV_RUNTIME_ERROR_NONE = 0,
    CV_RUNTIME_ERROR_NO_MEMORY = 1,
    CV_RUNTIME_ERROR_NOT_SUPPORTED = 2,
    CV_RUNTIME_ERROR_OVERFLOW = 3,
    CV_RUNTIME_ERROR_NO_SUCH_DATA = 4,
    CV_RUNTIME_ERROR_CANT_DECRYPT = 5,
    CV_RUNTIME_ERROR_SYSTEM_SERVICES = 6,
    CV_RUNTIME_ERROR_NOT_IN_RANGE = 7,
    CV_RUNTIME_ERROR_ENUM_BAD_MAGIC = 0x0BADDA7A
} cv_runtime_error;

typedef enum cv_entity_type {
    CV_ENTITY_TYPE_NONE = 0,
    CV_ENTITY_TYPE_LOCAL = 1,
    CV_ENTITY_TYPE_REMOTE = 2,
    CV_ENTITY_TYPE_CORVANE = 3,
    CV_ENTITY_TYPE_ADMIN_OFF = 4,
    CV_ENTITY_TYPE_NON_POE = 5
} cv_entity_type;

typedef enum cv_ent_admin_status {
    CV_ENT_ADMIN_STATUS_DISABLE = 0,
    CV_ENT_ADMIN_STATUS_ENABLE = 1
} cv_ent_admin_status;

typedef enum cv_ent_ops_status {
    CV_ENT_OPS_STATUS_ERROR = -1,
    CV_ENT_OPS_STATUS_DOWN = 0,
    CV_ENT_OPS_STATUS_UP = 1
} cv_ent_ops_status;

typedef enum cv_discovery_flags {
    CV_DISCOVERY_FLAGS_CORVANE_DISCOVERY_FLAG_NONE = 0,
    CV_DISCOVERY_FLAGS_CORVANE_DISCOVERY_FLAG_STATIC = 1,
    CV_DISCOVERY_FLAGS_CORVANE_DISCOVERY_FLAG_LDX = 2,
    CV_DISCOVERY_FLAGS_CORVANE_DISCOVERY_FLAG_UDP = 4
} cv_discovery_flags;

typedef enum cv_corvane_ngbr_type {
    CV_CORVANE_NGBR_TYPE_STATIC = 0,
    CV_CORVANE_NGBR_TYPE_DYN_LDX = 1,
    CV_CORVANE_NGBR_TYPE_DYN_UDP = 2
} cv_corvane_ngbr_type;

typedef enum cv_corvane_ngbr_state {
    CV_CORVANE_NGBR_STATE_LOOSING = -2,
    CV_CORVANE_NGBR_STATE_UNREACHABLE = -1,
    CV_CORVANE_NGBR_STATE_DISCOVERING = 0,
    CV_CORVANE_NGBR_STATE_OK = 1
} cv_corvane_ngbr_state;

typedef enum cv_corvane_usage_caliber {
    CV_CORVANE_USAGE_CALIBER_MAX = -2,
    CV_CORVANE_USAGE_CALIBER_PRESUMED = -1,
    CV_CORVANE_USAGE_CALIBER_UNKNOWN = 0,
    CV_CORVANE_USAGE_CALIBER_ACTUAL = 1,
    CV_CORVANE_USAGE_CALIBER_TRUSTED = 2
} cv_corvane_usage_caliber;

typedef enum cv_corvane_usage_category {
    CV_CORVANE_USAGE_PRODUCER = -1,
    CV_CORVANE_USAGE_METER = 0,
    CV_CORVANE_USAGE_CONSUMER = 1
} cv_corvane_usage_category;

typedef enum cv_proxy_proto {
    CV_PROXY_PROTO_TCP = 10,
    CV_PROXY_PROTO_UDP = 11,
    CV_PROXY_PROTO_HTTP = 12,
    CV_PROXY_PROTO_SNMP = 13
} cv_proxy_proto;

typedef enum cv__internal_etype {
    CV__INTERNAL_ETYPE_INTERFACE = 0,
    CV__INTERNAL_ETYPE_OTHER = 1
} cv__internal_etype;

typedef enum cv_nanny_vector { CV_NANNY_VECTOR_BIT_POS_POWER_LAST = 6 } cv_nanny_vector;

typedef enum cv_corvane_tlv_type {
    CV_CORVANE_TLV_TYPE_RESERVED = 0,
    CV_CORVANE_TLV_TYPE_OHMRZ_ID = 1,
    CV_CORVANE_TLV_TYPE_ID = 2,
    CV_CORVANE_TLV_TYPE_ENT_ID = 3,
    CV_CORVANE_TLV_TYPE_AUTHORIZATION = 4,
    CV_CORVANE_TLV_TYPE_ADDRESSEE = 5,
    CV_CORVANE_TLV_TYPE_RECUR = 6,
    CV_CORVANE_TLV_TYPE_ROLE = 7,
    CV_CORVANE_TLV_TYPE_DOMAIN = 8,
    CV_CORVANE_TLV_TYPE_NAME = 9,
    CV_CORVANE_TLV_TYPE_KEYWORDS = 10,
    CV_CORVANE_TLV_TYPE_ERROR_STRING = 11,
    CV_CORVANE_TLV_TYPE_UNITS = 12,
    CV_CORVANE_TLV_TYPE_USAGE = 13,
    CV_CORVANE_TLV_TYPE_LEVEL_CURRENT = 14,
    CV_CORVANE_TLV_TYPE_LEVEL_PROVISIONED = 15,
    CV_CORVANE_TLV_TYPE_IMPORTANCE = 16,
    CV_CORVANE_TLV_TYPE_IMPORTANCE_I = 17,
    CV_CORVANE_TLV_TYPE_IMPORTANCE_E = 18,
    CV_CORVANE_TLV_TYPE_IMPORTANCE_MAX = 19,
    CV_CORVANE_TLV_TYPE_IMPORTANCE_MAX_ID = 20,
    CV_CORVANE_TLV_TYPE_IMPORTANCE_PARENT = 21,
    CV_CORVANE_TLV_TYPE_ENTITY_TYPE = 22,
    CV_CORVANE_TLV_TYPE_REPLY_TO = 23,
    CV_CORVANE_TLV_TYPE_PROXY_ADDRESS = 24,
    CV_CORVANE_TLV_TYPE_PROXY_PORT = 25,
    CV_CORVANE_TLV_TYPE_PROXY_PROTO = 26,
    CV_CORVANE_TLV_TYPE_PROXY_CLASS = 27,
    CV_CORVANE_TLV_TYPE_NEIGHBOR = 28,
    CV_CORVANE_TLV_TYPE_NEIGHBOR_COUNT = 29,
    CV_CORVANE_TLV_TYPE_PARENT = 30,
    CV_CORVANE_TLV_TYPE_HEARTBEAT = 31,
    CV_CORVANE_TLV_TYPE_CLOCK = 32,
    CV_CORVANE_TLV_TYPE_SENDER_CLOCK = 33,
    CV_CORVANE_TLV_TYPE_NANNY_VECTOR = 34,
    CV_CORVANE_TLV_TYPE_EVENT_ID = 35,
    /* Wire types beyond the protocol's name tables: constants of this
       library only, unknown to the name functions. */
    CV_CORVANE_TLV_TYPE_DELTA_VECTOR = 36,
    CV_CORVANE_TLV_TYPE_USAGE_CALIBER = 38,
    CV_CORVANE_TLV_TYPE_USAGE_VECTOR = 39,
    CV_CORVANE_TLV_TYPE_USAGE_REPORT = 43,
    CV_CORVANE_TLV_TYPE_USAGE_VECTOR_REPORT = 44,
    CV_CORVANE_TLV_TYPE_DELTA_VECTOR_REPORT = 45,
    CV_CORVANE_TLV_TYPE_NONCE = 47,
    CV_CORVANE_TLV_TYPE_DEVICE_TYPE = 48,
    CV_CORVANE_TLV_TYPE_ALARM = 50,
    CV_CORVANE_TLV_TYPE_USAGE_CATEGORY = 51
} cv_corvane_tlv_type;

#ifdef __cplusplus
}
#endif

#endif
