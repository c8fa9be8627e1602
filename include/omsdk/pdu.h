/* SPDX-License-Identifier: Apache-2.0 */
/**
 * @file omsdk/pdu.h
 * @brief Message framing: security header, digest and event header.
 *
 * The 12-byte security header, 20-byte digest and 48-byte event header ahead
 * of the TLVs, and their byte-order conversions. The caller owns every
 * buffer and event; an event is used by one thread at a time. None of these
 * checks buffer sizes: the caller provides the 12 or 48 bytes.
 */
#ifndef OMSDK_PDU_H
#define OMSDK_PDU_H

#include <stdint.h>

#include <omsdk/hmac.h>
#include <omsdk/wire_types.h>

#ifdef __cplusplus
extern "C" {
#endif

/**
 * @name Header conversions
 * Between host form and the 12- or 48-byte wire form. Return 0. Nothing is
 * logged; NULL pointers are not checked.
 * @{
 */

/** Writes the 12-byte wire form of the security header @p src to @p dst. */
int32_t cv_corvane_secure_host_to_nw(const cv_sec_hdr *src, uint8_t *dst);
/** Reads a 12-byte wire security header at @p src into @p dst. */
int32_t cv_corvane_secure_nw_to_host(const uint8_t *src, cv_sec_hdr *dst);
/** Writes the 48-byte wire form of the event header @p src to @p dst. */
int32_t cv_corvane_event_host_to_nw(const cv_event_hdr *src, uint8_t *dst);
/** Reads a 48-byte wire event header at @p src into @p dst. */
int32_t cv_corvane_event_nw_to_host(const uint8_t *src, cv_event_hdr *dst);

/** @} */

/**
 * @name Signed messages
 * @{
 */

/** Builds the signed message of an event made by corvane_create_my_packet():
 *  afterwards ev->raw holds ev->raw_len bytes to send, owned by the event.
 *  `shipment` is a shipment value (-4 .. 2), `id` 32 bytes (NULL leaves the
 *  header's id), `key` the keyed HMAC context (NULL: the digest stays
 *  zero), `comm` a 4-bit value. Returns 0, or 1 when it cannot be built (a
 *  NULL event, lack of memory, or an event already packed). Logs the
 *  allocation at TRACE. */
int32_t omr_createPdu(cv_event *ev, uint8_t pri, int32_t shipment, uint8_t cls, uint16_t action,
                      const uint8_t *id, uint32_t seq, const hmac_sha_ctx *key, uint8_t comm);
/** 1 when the digest of the received bytes in ev->raw matches, else 0 (also
 *  for a NULL event or key, or fewer bytes than a security header and
 *  digest). A mismatch is logged at WARN (`HMAC_SHA1 header mismatch N`), a
 *  non-zero HMAC tag in a matching message too. */
int32_t omr_validateMessageHeader(const cv_event *ev, const hmac_sha_ctx *key);
/** Frees the raw buffer and the event record (not its TLVs or headers): use
 *  corvane_try_gc() to free an event completely. NULL is ignored. */
void omr_releasePacket(cv_event *ev);

/** @} */

/**
 * @name Sizes and types
 * @{
 */

/** 48 + the TLV byte count of a wire event header. */
uint32_t omr_getPduSize(const uint8_t *wire_event_header);
/** 1 when addr lies within [header, header + omr_getPduSize(header)), else 0. */
int32_t omr_isValidPduAddress(const uint8_t *wire_event_header, const uint8_t *addr);
/** In-memory size of a TLV type's value (0 for variable sizes), 255 for
 *  types without a fixed figure (logged at WARN: `unexpected type N`). */
uint32_t omr_getTypeLength(int32_t tlv_type);

/** @} */

#ifdef __cplusplus
}
#endif

#endif
