/* SPDX-License-Identifier: Apache-2.0 */
/* Aggregate TLVs: one value per entry under a device header; combo types
 * (43 to 45) also carry a usage common header per entry. */
#ifndef OMSDK_AGGREGATE_H
#define OMSDK_AGGREGATE_H

#include <stdint.h>

#include <omsdk/event.h>

#ifdef __cplusplus
extern "C" {
#endif

/* Appends an empty aggregate TLV (type_word | 0x80000000) holding a copy of
 * the device header; returns it, or NULL. */
cv_tlv *om_create_aggr_tlv(cv_event *ev, uint32_t type_word, const cv_device_header *dh);
/* The event's first aggregate TLV of this type for the device id, created
 * when missing and `create` is non-zero; or NULL. */
cv_tlv *cv_get_next_tlv_by_dh(cv_event *ev, uint32_t type, const cv_device_header *dh,
                              uint8_t create);
/* Appends an entry holding a copy of `value` (and, for combo types, of
 * `usage`). 0 on success or when no TLV can be had, 1 on failure. */
int32_t cv_add_aggr_type_tlv(cv_event *ev, uint32_t type, const void *value, uint32_t entry_id,
                             const cv_device_header *dh, const cv_usage_cmn_hdr *usage);
/* Appends an acknowledgement entry (type 42). 0, or 1 on lack of memory. */
int32_t cv_aggr_ack(cv_event *ev, uint32_t entry_id, const cv_device_header *dh);
/* Fill an entry with a copy of the value; 1 on success, 0 when the type is
 * not supported or memory runs out (nothing left allocated). */
int32_t cv_populate_aggr_tlv_data(cv_aggr_entry *entry, uint32_t type, const void *value,
                                  uint32_t entry_id);
int32_t cv_populate_combo_tlv_data(cv_combo_entry *entry, uint32_t type, const void *value,
                                   uint32_t entry_id, const cv_usage_cmn_hdr *usage);

#ifdef __cplusplus
}
#endif

#endif
