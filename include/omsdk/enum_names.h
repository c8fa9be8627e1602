/* SPDX-License-Identifier: Apache-2.0 */
/**
 * @file omsdk/enum_names.h
 * @brief Names of the protocol enumerations, and the application-facing numbering.
 *
 * Each enumeration of omsdk/enums.h has a pair of look-ups:
 * `cv_util_e2s_<enum>(value)` gives the enumerator's name (a constant string
 * that is never freed), or NULL when the value is not one of the
 * enumeration's; `cv_util_s2e_<enum>(name)` gives the enumerator's value, or
 * CV_RUNTIME_ERROR_ENUM_BAD_MAGIC (0x0BADDA7A) for an unknown name. The name
 * must not be NULL (NULL gives the bad magic). A few names match any input
 * that begins with them: CV_SHIPMENT_ACK_LATER, CV_CORVANE_USAGE_PRODUCER,
 * CV_CORVANE_USAGE_METER, CV_CORVANE_USAGE_CONSUMER and
 * CV_CORVANE_TLV_TYPE_RESERVED. These calls keep no state, log nothing and
 * may be called from any thread. Included by omsdk.h.
 */
#ifndef OMSDK_ENUM_NAMES_H
#define OMSDK_ENUM_NAMES_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/**
 * @name Event header fields
 * Look-ups as described at the top of this file.
 * @{
 */

/** The name of a cv_type value, or NULL. */
const char *cv_util_e2s_type(int32_t value);
/** The cv_type value of a name, or CV_RUNTIME_ERROR_ENUM_BAD_MAGIC. */
int32_t cv_util_s2e_type(const char *name);
/** The name of a cv_class value, or NULL. */
const char *cv_util_e2s_class(int32_t value);
/** The cv_class value of a name, or CV_RUNTIME_ERROR_ENUM_BAD_MAGIC. */
int32_t cv_util_s2e_class(const char *name);
/** The name of a cv_application value, or NULL. */
const char *cv_util_e2s_application(int32_t value);
/** The cv_application value of a name, or CV_RUNTIME_ERROR_ENUM_BAD_MAGIC. */
int32_t cv_util_s2e_application(const char *name);

/** @} */

/**
 * @name Actions of each event class
 * Look-ups as described at the top of this file.
 * @{
 */

/** The name of a cv_action_kvqr_corvane_query value, or NULL. */
const char *cv_util_e2s_action_kvqr_corvane_query(int32_t value);
/** The cv_action_kvqr_corvane_query value of a name, or CV_RUNTIME_ERROR_ENUM_BAD_MAGIC. */
int32_t cv_util_s2e_action_kvqr_corvane_query(const char *name);
/** The name of a cv_action_kvqr_corvane_aggregate value, or NULL. */
const char *cv_util_e2s_action_kvqr_corvane_aggregate(int32_t value);
/** The cv_action_kvqr_corvane_aggregate value of a name, or CV_RUNTIME_ERROR_ENUM_BAD_MAGIC. */
int32_t cv_util_s2e_action_kvqr_corvane_aggregate(const char *name);
/** The name of a cv_action_kvqr_corvane_notify value, or NULL. */
const char *cv_util_e2s_action_kvqr_corvane_notify(int32_t value);
/** The cv_action_kvqr_corvane_notify value of a name, or CV_RUNTIME_ERROR_ENUM_BAD_MAGIC. */
int32_t cv_util_s2e_action_kvqr_corvane_notify(const char *name);
/** The name of a cv_action_kvqr_corvane_reply value, or NULL. */
const char *cv_util_e2s_action_kvqr_corvane_reply(int32_t value);
/** The cv_action_kvqr_corvane_reply value of a name, or CV_RUNTIME_ERROR_ENUM_BAD_MAGIC. */
int32_t cv_util_s2e_action_kvqr_corvane_reply(const char *name);
/** The name of a cv_action_kvqr_corvane_discovery value, or NULL. */
const char *cv_util_e2s_action_kvqr_corvane_discovery(int32_t value);
/** The cv_action_kvqr_corvane_discovery value of a name, or CV_RUNTIME_ERROR_ENUM_BAD_MAGIC. */
int32_t cv_util_s2e_action_kvqr_corvane_discovery(const char *name);

/** @} */

/**
 * @name Shipment
 * Look-ups as described at the top of this file.
 * @{
 */

/** The name of a cv_shipment value, or NULL. */
const char *cv_util_e2s_shipment(int32_t value);
/** The cv_shipment value of a name, or CV_RUNTIME_ERROR_ENUM_BAD_MAGIC. CV_SHIPMENT_ACK_LATER
 * matches any name that begins with it. */
int32_t cv_util_s2e_shipment(const char *name);

/** @} */

/**
 * @name Error codes of each action
 * Look-ups as described at the top of this file.
 * @{
 */

/** The name of a cv_error_code_kvqr_corvane_query_set value, or NULL. */
const char *cv_util_e2s_error_code_kvqr_corvane_query_set(int32_t value);
/** The cv_error_code_kvqr_corvane_query_set value of a name, or CV_RUNTIME_ERROR_ENUM_BAD_MAGIC.
 */
int32_t cv_util_s2e_error_code_kvqr_corvane_query_set(const char *name);
/** The name of a cv_error_code_kvqr_corvane_query_collect value, or NULL. */
const char *cv_util_e2s_error_code_kvqr_corvane_query_collect(int32_t value);
/** The cv_error_code_kvqr_corvane_query_collect value of a name, or
 * CV_RUNTIME_ERROR_ENUM_BAD_MAGIC. */
int32_t cv_util_s2e_error_code_kvqr_corvane_query_collect(const char *name);
/** The name of a cv_error_code_kvqr_corvane_query_commit value, or NULL. */
const char *cv_util_e2s_error_code_kvqr_corvane_query_commit(int32_t value);
/** The cv_error_code_kvqr_corvane_query_commit value of a name, or
 * CV_RUNTIME_ERROR_ENUM_BAD_MAGIC. */
int32_t cv_util_s2e_error_code_kvqr_corvane_query_commit(const char *name);
/** The name of a cv_error_code_kvqr_corvane_query_inventory value, or NULL. */
const char *cv_util_e2s_error_code_kvqr_corvane_query_inventory(int32_t value);
/** The cv_error_code_kvqr_corvane_query_inventory value of a name, or
 * CV_RUNTIME_ERROR_ENUM_BAD_MAGIC. */
int32_t cv_util_s2e_error_code_kvqr_corvane_query_inventory(const char *name);
/** The name of a cv_error_code_kvqr_corvane_aggregate_sum value, or NULL. */
const char *cv_util_e2s_error_code_kvqr_corvane_aggregate_sum(int32_t value);
/** The cv_error_code_kvqr_corvane_aggregate_sum value of a name, or
 * CV_RUNTIME_ERROR_ENUM_BAD_MAGIC. */
int32_t cv_util_s2e_error_code_kvqr_corvane_aggregate_sum(const char *name);
/** The name of a cv_error_code_kvqr_corvane_aggregate_average value, or NULL. */
const char *cv_util_e2s_error_code_kvqr_corvane_aggregate_average(int32_t value);
/** The cv_error_code_kvqr_corvane_aggregate_average value of a name, or
 * CV_RUNTIME_ERROR_ENUM_BAD_MAGIC. */
int32_t cv_util_s2e_error_code_kvqr_corvane_aggregate_average(const char *name);
/** The name of a cv_error_code_kvqr_corvane_aggregate_min value, or NULL. */
const char *cv_util_e2s_error_code_kvqr_corvane_aggregate_min(int32_t value);
/** The cv_error_code_kvqr_corvane_aggregate_min value of a name, or
 * CV_RUNTIME_ERROR_ENUM_BAD_MAGIC. */
int32_t cv_util_s2e_error_code_kvqr_corvane_aggregate_min(const char *name);
/** The name of a cv_error_code_kvqr_corvane_aggregate_max value, or NULL. */
const char *cv_util_e2s_error_code_kvqr_corvane_aggregate_max(int32_t value);
/** The cv_error_code_kvqr_corvane_aggregate_max value of a name, or
 * CV_RUNTIME_ERROR_ENUM_BAD_MAGIC. */
int32_t cv_util_s2e_error_code_kvqr_corvane_aggregate_max(const char *name);
/** The name of a cv_error_code_kvqr_corvane_notify_create value, or NULL. */
const char *cv_util_e2s_error_code_kvqr_corvane_notify_create(int32_t value);
/** The cv_error_code_kvqr_corvane_notify_create value of a name, or
 * CV_RUNTIME_ERROR_ENUM_BAD_MAGIC. */
int32_t cv_util_s2e_error_code_kvqr_corvane_notify_create(const char *name);
/** The name of a cv_error_code_kvqr_corvane_notify_update value, or NULL. */
const char *cv_util_e2s_error_code_kvqr_corvane_notify_update(int32_t value);
/** The cv_error_code_kvqr_corvane_notify_update value of a name, or
 * CV_RUNTIME_ERROR_ENUM_BAD_MAGIC. */
int32_t cv_util_s2e_error_code_kvqr_corvane_notify_update(const char *name);
/** The name of a cv_error_code_kvqr_corvane_notify_delete value, or NULL. */
const char *cv_util_e2s_error_code_kvqr_corvane_notify_delete(int32_t value);
/** The cv_error_code_kvqr_corvane_notify_delete value of a name, or
 * CV_RUNTIME_ERROR_ENUM_BAD_MAGIC. */
int32_t cv_util_s2e_error_code_kvqr_corvane_notify_delete(const char *name);
/** The name of a cv_error_code_kvqr_corvane_reply_done value, or NULL. */
const char *cv_util_e2s_error_code_kvqr_corvane_reply_done(int32_t value);
/** The cv_error_code_kvqr_corvane_reply_done value of a name, or CV_RUNTIME_ERROR_ENUM_BAD_MAGIC.
 */
int32_t cv_util_s2e_error_code_kvqr_corvane_reply_done(const char *name);
/** The name of a cv_error_code_kvqr_corvane_reply_didnot value, or NULL. */
const char *cv_util_e2s_error_code_kvqr_corvane_reply_didnot(int32_t value);
/** The cv_error_code_kvqr_corvane_reply_didnot value of a name, or
 * CV_RUNTIME_ERROR_ENUM_BAD_MAGIC. */
int32_t cv_util_s2e_error_code_kvqr_corvane_reply_didnot(const char *name);
/** The name of a cv_error_code_kvqr_corvane_discovery_discovery_update value, or NULL. */
const char *cv_util_e2s_error_code_kvqr_corvane_discovery_discovery_update(int32_t value);
/** The cv_error_code_kvqr_corvane_discovery_discovery_update value of a name, or
 * CV_RUNTIME_ERROR_ENUM_BAD_MAGIC. */
int32_t cv_util_s2e_error_code_kvqr_corvane_discovery_discovery_update(const char *name);
/** The name of a cv_error_code_kvqr_corvane_discovery_keepalive value, or NULL. */
const char *cv_util_e2s_error_code_kvqr_corvane_discovery_keepalive(int32_t value);
/** The cv_error_code_kvqr_corvane_discovery_keepalive value of a name, or
 * CV_RUNTIME_ERROR_ENUM_BAD_MAGIC. */
int32_t cv_util_s2e_error_code_kvqr_corvane_discovery_keepalive(const char *name);
/** The name of a cv_error_code_kvqr_corvane_discovery_delete value, or NULL. */
const char *cv_util_e2s_error_code_kvqr_corvane_discovery_delete(int32_t value);
/** The cv_error_code_kvqr_corvane_discovery_delete value of a name, or
 * CV_RUNTIME_ERROR_ENUM_BAD_MAGIC. */
int32_t cv_util_s2e_error_code_kvqr_corvane_discovery_delete(const char *name);

/** @} */

/**
 * @name Library results, entities and neighbours
 * Look-ups as described at the top of this file.
 * @{
 */

/** The name of a cv_runtime_error value, or NULL. */
const char *cv_util_e2s_runtime_error(int32_t value);
/** The cv_runtime_error value of a name, or CV_RUNTIME_ERROR_ENUM_BAD_MAGIC. */
int32_t cv_util_s2e_runtime_error(const char *name);
/** The name of a cv_entity_type value, or NULL. */
const char *cv_util_e2s_entity_type(int32_t value);
/** The cv_entity_type value of a name, or CV_RUNTIME_ERROR_ENUM_BAD_MAGIC. */
int32_t cv_util_s2e_entity_type(const char *name);
/** The name of a cv_ent_admin_status value, or NULL. */
const char *cv_util_e2s_ent_admin_status(int32_t value);
/** The cv_ent_admin_status value of a name, or CV_RUNTIME_ERROR_ENUM_BAD_MAGIC. */
int32_t cv_util_s2e_ent_admin_status(const char *name);
/** The name of a cv_ent_ops_status value, or NULL. */
const char *cv_util_e2s_ent_ops_status(int32_t value);
/** The cv_ent_ops_status value of a name, or CV_RUNTIME_ERROR_ENUM_BAD_MAGIC. */
int32_t cv_util_s2e_ent_ops_status(const char *name);
/** The name of a cv_discovery_flags value, or NULL. */
const char *cv_util_e2s_discovery_flags(int32_t value);
/** The cv_discovery_flags value of a name, or CV_RUNTIME_ERROR_ENUM_BAD_MAGIC. */
int32_t cv_util_s2e_discovery_flags(const char *name);
/** The name of a cv_corvane_ngbr_type value, or NULL. */
const char *cv_util_e2s_corvane_ngbr_type(int32_t value);
/** The cv_corvane_ngbr_type value of a name, or CV_RUNTIME_ERROR_ENUM_BAD_MAGIC. */
int32_t cv_util_s2e_corvane_ngbr_type(const char *name);
/** The name of a cv_corvane_ngbr_state value, or NULL. */
const char *cv_util_e2s_corvane_ngbr_state(int32_t value);
/** The cv_corvane_ngbr_state value of a name, or CV_RUNTIME_ERROR_ENUM_BAD_MAGIC. */
int32_t cv_util_s2e_corvane_ngbr_state(const char *name);

/** @} */

/**
 * @name Usage, proxies, the nanny vector and TLV types
 * Look-ups as described at the top of this file.
 * @{
 */

/** The name of a cv_corvane_usage_caliber value, or NULL. */
const char *cv_util_e2s_corvane_usage_caliber(int32_t value);
/** The cv_corvane_usage_caliber value of a name, or CV_RUNTIME_ERROR_ENUM_BAD_MAGIC. */
int32_t cv_util_s2e_corvane_usage_caliber(const char *name);
/** The name of a cv_corvane_usage_category value, or NULL. */
const char *cv_util_e2s_corvane_usage_category(int32_t value);
/** The cv_corvane_usage_category value of a name, or CV_RUNTIME_ERROR_ENUM_BAD_MAGIC. Each of the
 * three names matches any name that begins with it. */
int32_t cv_util_s2e_corvane_usage_category(const char *name);
/** The name of a cv_proxy_proto value, or NULL. */
const char *cv_util_e2s_proxy_proto(int32_t value);
/** The cv_proxy_proto value of a name, or CV_RUNTIME_ERROR_ENUM_BAD_MAGIC. */
int32_t cv_util_s2e_proxy_proto(const char *name);
/** The name of a cv__internal_etype value, or NULL. */
const char *cv_util_e2s__internal_etype(int32_t value);
/** The cv__internal_etype value of a name, or CV_RUNTIME_ERROR_ENUM_BAD_MAGIC. */
int32_t cv_util_s2e__internal_etype(const char *name);
/** The name of a cv_nanny_vector value, or NULL. */
const char *cv_util_e2s_nanny_vector(int32_t value);
/** The cv_nanny_vector value of a name, or CV_RUNTIME_ERROR_ENUM_BAD_MAGIC. */
int32_t cv_util_s2e_nanny_vector(const char *name);
/** The name of a cv_corvane_tlv_type value, or NULL. */
const char *cv_util_e2s_corvane_tlv_type(int32_t value);
/** The cv_corvane_tlv_type value of a name, or CV_RUNTIME_ERROR_ENUM_BAD_MAGIC.
 * CV_CORVANE_TLV_TYPE_RESERVED matches any name that begins with it. */
int32_t cv_util_s2e_corvane_tlv_type(const char *name);

/** @} */

/**
 * @name Application-facing numbering
 * Application-facing numbering to the protocol's; -1 outside the tables.
 * @{
 */

/** The protocol class of an application class: 1 query, 2 aggregate; -1
 *  for any other. */
int32_t om_get_class_enum_type(int api_class);
/** The protocol action of an application (class, action) pair: (1, 1) set,
 *  (1, 2) collect, (1, 3) 14, (2, 1) sum; -1 for any other. */
int32_t om_get_action_enum_type(int api_class, int api_action);
/** The protocol TLV type of an application TLV number (1 to 22); -1 for any
 *  other. */
int32_t om_get_tlv_enum_type(int api_tlv);
/** The exact inverse of om_get_tlv_enum_type(): the application number of a
 *  protocol TLV type, -1 for a type without one. */
int32_t om_get_external_tlv_enum_type(int wire_tlv);
/** The nanny-vector bit position behind an application bit number: 5 for
 *  bit 0, -1 for any other (ohmara_svc_setNannyFunctionBit() takes the
 *  application number). */
int32_t om_get_internal_nanny_bit_type(unsigned api_bit);

/** @} */

#ifdef __cplusplus
}
#endif

#endif
