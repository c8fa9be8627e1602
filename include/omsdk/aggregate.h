/* SPDX-License-Identifier: Apache-2.0 */
/**
 * @file omsdk/aggregate.h
 * @brief Aggregate TLVs: one value per entry under a device header.
 *
 * Combo types (43 to 45) also carry a usage common header per entry. The
 * aggregate TLVs and their entries belong to their event (freed with it);
 * values are copied in. One thread at a time uses an event. Nothing here
 * logs.
 */
#ifndef OMSDK_AGGREGATE_H
#define OMSDK_AGGREGATE_H

#include <stdint.h>

#include <omsdk/event.h>

#ifdef __cplusplus
extern "C" {
#endif

/** Appends an empty aggregate TLV (type_word | 0x80000000) holding a copy of
 *  the device header; returns it (owned by the event), or NULL for a NULL
 *  event, header or device header, or lack of memory. */
cv_tlv *om_create_aggr_tlv(cv_event *ev, uint32_t type_word, const cv_device_header *dh);
/** The event's first aggregate TLV of this type for the device id, created
 *  when missing and `create` is non-zero; or NULL (also for an event that
 *  is not ready or a NULL @p dh). The TLV belongs to the event. */
cv_tlv *cv_get_next_tlv_by_dh(cv_event *ev, uint32_t type, const cv_device_header *dh,
                              uint8_t create);
/** Appends an entry holding a copy of `value` (and, for combo types, of
 *  `usage`) to the aggregate TLV of @p type for @p dh, created when
 *  missing. 0 on success or when no TLV can be had (a NULL or not-ready
 *  event, a NULL @p dh: then nothing is added although 0 is returned),
 *  1 on failure (lack of memory, an unsupported type or a missing value or
 *  usage header; nothing is added). */
int32_t cv_add_aggr_type_tlv(cv_event *ev, uint32_t type, const void *value, uint32_t entry_id,
                             const cv_device_header *dh, const cv_usage_cmn_hdr *usage);
/** Appends an acknowledgement entry (type 42) for @p dh. 0, also when no TLV
 *  can be had (nothing added, as with cv_add_aggr_type_tlv()), or 1 on lack
 *  of memory. */
int32_t cv_aggr_ack(cv_event *ev, uint32_t entry_id, const cv_device_header *dh);
/** Fills the caller's @p entry with @p entry_id and a heap copy of the value;
 *  1 on success, 0 when the entry or value is NULL, the type is not
 *  supported or memory runs out (nothing left allocated). The copy is the
 *  caller's to free with free() unless the entry is handed to an event. */
int32_t cv_populate_aggr_tlv_data(cv_aggr_entry *entry, uint32_t type, const void *value,
                                  uint32_t entry_id);
/** The same for a combo entry: copies @p usage into entry->hdr as well (free
 *  it with om_free_usage_cmn_hdr()); 0 also for a NULL @p usage. Combo
 *  types are 43 (usage, 2 bytes), 44 (usage vector) and 45 (delta
 *  vector). */
int32_t cv_populate_combo_tlv_data(cv_combo_entry *entry, uint32_t type, const void *value,
                                   uint32_t entry_id, const cv_usage_cmn_hdr *usage);

#ifdef __cplusplus
}
#endif

#endif
