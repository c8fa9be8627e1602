/* SPDX-License-Identifier: Apache-2.0 */
/**
 * @file omsdk/dump.h
 * @brief Trace dumps of protocol messages.
 *
 * The dumps go to the log at TRACE: nothing is written unless the threshold
 * is TRACE (setLogLevel(OHMARA_LOG_TRACE)). Any thread may call them; the
 * caller owns what it passes.
 */
#ifndef OMSDK_DUMP_H
#define OMSDK_DUMP_H

#include <stdint.h>

#include <omsdk/wire_types.h>

#ifdef __cplusplus
extern "C" {
#endif

/** Printable identity: min(len, 32) bytes, zero bytes shown as backspace
 *  (0x08), then a terminator (and a second one when len > 32): `text` must
 *  hold min(len, 32) + 2 bytes. Other bytes are copied as they are. Logs
 *  nothing. */
void ohmara_idtos(char *text, const uint8_t *id, int32_t len);
/** Six lines at TRACE summarising the event's security and event headers;
 *  nothing for a NULL event or one without headers. */
void ohmara_dump_pdu(const cv_event *ev);
/** Hex dump at TRACE of the TLV bytes following a 48-byte wire event header
 *  (as many as the header states: they must be there). NULL is logged at
 *  WARN. */
void ohmara_dump_payload(const uint8_t *wire_event_header);
/** Hex and character dump at TRACE of @p count bytes, 16 bytes a line. */
void ohmara_dump_buf(const uint8_t *bytes, int32_t count);

#ifdef __cplusplus
}
#endif

#endif
