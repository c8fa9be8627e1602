/* SPDX-License-Identifier: Apache-2.0 */
/* Message framing: the 12-byte security header, 20-byte digest and 48-byte
 * event header ahead of the TLVs, and their byte-order conversions. */
#ifndef OMSDK_PDU_H
#define OMSDK_PDU_H

#include <stdint.h>

#include <omsdk/hmac.h>
#include <omsdk/wire_types.h>

#ifdef __cplusplus
extern "C" {
#endif

/* Header conversions between host form and the 12- or 48-byte wire form.
 * Return 0. */
int32_t cv_corvane_secure_host_to_nw(const cv_sec_hdr *src, uint8_t *dst);
int32_t cv_corvane_secure_nw_to_host(const uint8_t *src, cv_sec_hdr *dst);
int32_t cv_corvane_event_host_to_nw(const cv_event_hdr *src, uint8_t *dst);
int32_t cv_corvane_event_nw_to_host(const uint8_t *src, cv_event_hdr *dst);

/* Builds the signed message of an event made by corvane_create_my_packet:
 * afterwards ev->raw holds ev->raw_len bytes to send. `shipment` is a
 * shipment value (-4 .. 2), `id` 32 bytes, `key` the keyed HMAC context,
 * `comm` a 4-bit value. Returns 0, or 1 when it cannot be built. */
int32_t omr_createPdu(cv_event *ev, uint8_t pri, int32_t shipment, uint8_t cls, uint16_t action,
                      const uint8_t *id, uint32_t seq, const hmac_sha_ctx *key, uint8_t comm);
/* 1 when the digest of the received bytes in ev->raw matches, else 0. */
int32_t omr_validateMessageHeader(const cv_event *ev, const hmac_sha_ctx *key);
/* Frees the raw buffer and the event record (not its TLVs or headers). */
void omr_releasePacket(cv_event *ev);
/* 48 + the TLV byte count of a wire event header. */
uint32_t omr_getPduSize(const uint8_t *wire_event_header);
/* 1 when addr lies within [header, header + omr_getPduSize(header)). */
int32_t omr_isValidPduAddress(const uint8_t *wire_event_header, const uint8_t *addr);
/* In-memory size of a TLV type's value (0 for variable sizes), 255 for
 * types without a fixed figure. */
uint32_t omr_getTypeLength(int32_t tlv_type);

#ifdef __cplusplus
}
#endif

#endif
