/* SPDX-License-Identifier: Apache-2.0 */
/* Names of the protocol enumerations, and the application-facing numbering. */
#ifndef OMSDK_ENUM_NAMES_H
#define OMSDK_ENUM_NAMES_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/* cv_util_e2s_<enum>(value): the enumerator's name (a constant string that is
   never freed), or NULL when the value is not one of the enumeration's.
   cv_util_s2e_<enum>(name): the enumerator's value, or
   CV_RUNTIME_ERROR_ENUM_BAD_MAGIC (0x0BADDA7A) for an unknown name. The name
   must not be NULL. */
const char *cv_util_e2s_type(int32_t value);
int32_t cv_util_s2e_type(const char *name);
const char *cv_util_e2s_class(int32_t value);
int32_t cv_util_s2e_class(const char *name);
const char *cv_util_e2s_application(int32_t value);
int32_t cv_util_s2e_application(const char *name);
const char *cv_util_e2s_action_kvqr_corvane_query(int32_t value);
int32_t cv_util_s2e_action_kvqr_corvane_query(const char *name);
const char *cv_util_e2s_action_kvqr_corvane_aggregate(int32_t value);
int32_t cv_util_s2e_action_kvqr_corvane_aggregate(const char *name);
const char *cv_util_e2s_action_kvqr_corvane_notify(int32_t value);
int32_t cv_util_s2e_action_kvqr_corvane_notify(const char *name);
const char *cv_util_e2s_action_kvqr_corvane_reply(int32_t value);
int32_t cv_util_s2e_action_kvqr_corvane_reply(const char *name);
const char *cv_util_e2s_action_kvqr_corvane_discovery(int32_t value);
int32_t cv_util_s2e_action_kvqr_corvane_discovery(const char *name);
const char *cv_util_e2s_shipment(int32_t value);
int32_t cv_util_s2e_shipment(const char *name);
const char *cv_util_e2s_error_code_kvqr_corvane_query_set(int32_t value);
int32_t cv_util_s2e_error_code_kvqr_corvane_query_set(const char *name);
const char *cv_util_e2s_error_code_kvqr_corvane_query_collect(int32_t value);
int32_t cv_util_s2e_error_code_kvqr_corvane_query_collect(const char *name);
const char *cv_util_e2s_error_code_kvqr_corvane_query_commit(int32_t value);
int32_t cv_util_s2e_error_code_kvqr_corvane_query_commit(const char *name);
const char *cv_util_e2s_error_code_kvqr_corvane_query_inventory(int32_t value);
int32_t cv_util_s2e_error_code_kvqr_corvane_query_inventory(const char *name);
const char *cv_util_e2s_error_code_kvqr_corvane_aggregate_sum(int32_t value);
int32_t cv_util_s2e_error_code_kvqr_corvane_aggregate_sum(const char *name);
const char *cv_util_e2s_error_code_kvqr_corvane_aggregate_average(int32_t value);
int32_t cv_util_s2e_error_code_kvqr_corvane_aggregate_average(const char *name);
const char *cv_util_e2s_error_code_kvqr_corvane_aggregate_min(int32_t value);
int32_t cv_util_s2e_error_code_kvqr_corvane_aggregate_min(const char *name);
const char *cv_util_e2s_error_code_kvqr_corvane_aggregate_max(int32_t value);
int32_t cv_util_s2e_error_code_kvqr_corvane_aggregate_max(const char *name);
const char *cv_util_e2s_error_code_kvqr_corvane_notify_create(int32_t value);
int32_t cv_util_s2e_error_code_kvqr_corvane_notify_create(const char *name);
const char *cv_util_e2s_error_code_kvqr_corvane_notify_update(int32_t value);
int32_t cv_util_s2e_error_code_kvqr_corvane_notify_update(const char *name);
const char *cv_util_e2s_error_code_kvqr_corvane_notify_delete(int32_t value);
int32_t cv_util_s2e_error_code_kvqr_corvane_notify_delete(const char *name);
const char *cv_util_e2s_error_code_kvqr_corvane_reply_done(int32_t value);
int32_t cv_util_s2e_error_code_kvqr_corvane_reply_done(const char *name);
const char *cv_util_e2s_error_code_kvqr_corvane_reply_didnot(int32_t value);
int32_t cv_util_s2e_error_code_kvqr_corvane_reply_didnot(const char *name);
const char *cv_util_e2s_error_code_kvqr_corvane_discovery_discovery_update(int32_t value);
int32_t cv_util_s2e_error_code_kvqr_corvane_discovery_discovery_update(const char *name);
const char *cv_util_e2s_error_code_kvqr_corvane_discovery_keepalive(int32_t value);
int32_t cv_util_s2e_error_code_kvqr_corvane_discovery_keepalive(const char *name);
const char *cv_util_e2s_error_code_kvqr_corvane_discovery_delete(int32_t value);
int32_t cv_util_s2e_error_code_kvqr_corvane_discovery_delete(const char *name);
const char *cv_util_e2s_runtime_error(int32_t value);
int32_t cv_util_s2e_runtime_error(const char *name);
const char *cv_util_e2s_entity_type(int32_t value);
int32_t cv_util_s2e_entity_type(const char *name);
const char *cv_util_e2s_ent_admin_status(int32_t value);
int32_t cv_util_s2e_ent_admin_status(const char *name);
const char *cv_util_e2s_ent_ops_status(int32_t value);
int32_t cv_util_s2e_ent_ops_status(const char *name);
const char *cv_util_e2s_discovery_flags(int32_t value);
int32_t cv_util_s2e_discovery_flags(const char *name);
const char *cv_util_e2s_corvane_ngbr_type(int32_t value);
int32_t cv_util_s2e_corvane_ngbr_type(const char *name);
const char *cv_util_e2s_corvane_ngbr_state(int32_t value);
int32_t cv_util_s2e_corvane_ngbr_state(const char *name);
const char *cv_util_e2s_corvane_usage_caliber(int32_t value);
int32_t cv_util_s2e_corvane_usage_caliber(const char *name);
const char *cv_util_e2s_corvane_usage_category(int32_t value);
int32_t cv_util_s2e_corvane_usage_category(const char *name);
const char *cv_util_e2s_proxy_proto(int32_t value);
int32_t cv_util_s2e_proxy_proto(const char *name);
const char *cv_util_e2s__internal_etype(int32_t value);
int32_t cv_util_s2e__internal_etype(const char *name);
const char *cv_util_e2s_nanny_vector(int32_t value);
int32_t cv_util_s2e_nanny_vector(const char *name);
const char *cv_util_e2s_corvane_tlv_type(int32_t value);
int32_t cv_util_s2e_corvane_tlv_type(const char *name);

/* Application-facing numbering to the protocol's; -1 outside the tables. */
int32_t om_get_class_enum_type(int api_class);
int32_t om_get_action_enum_type(int api_class, int api_action);
int32_t om_get_tlv_enum_type(int api_tlv);
/* The exact inverse of om_get_tlv_enum_type. */
int32_t om_get_external_tlv_enum_type(int wire_tlv);
/* The nanny-vector bit position behind an application bit number. */
int32_t om_get_internal_nanny_bit_type(unsigned api_bit);

#ifdef __cplusplus
}
#endif

#endif
