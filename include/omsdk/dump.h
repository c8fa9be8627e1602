/* SPDX-License-Identifier: Apache-2.0 */
/* Trace dumps of protocol messages; nothing is logged above TRACE. */
#ifndef OMSDK_DUMP_H
#define OMSDK_DUMP_H

#include <stdint.h>

#include <omsdk/wire_types.h>

#ifdef __cplusplus
extern "C" {
#endif

/* Printable identity: min(len, 32) bytes, zero bytes shown as backspace
 * (0x08), then a terminator (and a second one when len > 32): `text` must
 * hold min(len, 32) + 2 bytes. */
void ohmara_idtos(char *text, const uint8_t *id, int32_t len);
/* Six lines summarising the event's security and event headers. */
void ohmara_dump_pdu(const cv_event *ev);
/* Hex dump of the TLV bytes following a 48-byte wire event header. */
void ohmara_dump_payload(const uint8_t *wire_event_header);
/* Hex and character dump, 16 bytes a line. */
void ohmara_dump_buf(const uint8_t *bytes, int32_t count);

#ifdef __cplusplus
}
#endif

#endif
