/* SPDX-License-Identifier: Apache-2.0 */
/* Identifiers, key composition, the version text and strlcat: the utilities
 * an application may call without a session. Included by omsdk.h. */
#ifndef OMSDK_UTILITY_H
#define OMSDK_UTILITY_H

#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/* Identifiers: 32 lower-case hexadecimal characters, written without a
 * terminator (give a zeroed buffer of at least 33 bytes). Each returns 0, or
 * -1 (logged, nothing written) for a NULL output or, where one is required,
 * a NULL MAC address. */
int32_t ohmara_utl_senderId(char *out, const uint8_t *mac /* 6 bytes or NULL */);
int32_t ohmara_utl_createUuid(char *out);
int32_t ohmara_utl_createUuidFromMac(char *out, const uint8_t *mac);
int32_t ohmara_utl_createUuidFromDetails(char *out, const char *first, const char *second,
                                         const char *third, const char *fourth);

/* Utilities. The compose functions return the digest length, 20, or 0
 * (logged, nothing written) for a NULL output or data, or a NULL key with a
 * length above 0; composeKey also returns 0 when out_size is below 20. */
const char *ohmara_utl_getVersion(void);
int32_t ohmara_utl_composeKey(const uint8_t *key, uint16_t key_len, const uint8_t *data,
                              uint8_t *out, int32_t out_size);
int32_t ohmara_utl_composeNonce(const uint8_t *key, uint16_t key_len, const uint8_t *data,
                                uint16_t data_len, uint8_t *out);

/* strlcat: appends within size - strlen(dst) - 1 bytes, always terminates
 * the buffer's last byte, returns the resulting length. A NULL destination
 * returns 0; a NULL source appends nothing (both logged). */
size_t strlcat(char *dst, const char *src, size_t size);

#ifdef __cplusplus
}
#endif

#endif /* OMSDK_UTILITY_H */
