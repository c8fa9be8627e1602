/* SPDX-License-Identifier: Apache-2.0 */
/* UUID building blocks behind the ohmara_utl_ identifier functions.
 * A UUID is 16 bytes; its text is 32 lower-case hexadecimal characters
 * written without a terminator. */
#ifndef OMSDK_UUID_H
#define OMSDK_UUID_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/* Writes the 32 hexadecimal digits of uuid (16 bytes) to out; returns 0. */
int32_t convertUuidString(char *out, const uint8_t *uuid);
/* UUID E0 D0 0D E0, six zero bytes, then the six bytes of mac; returns 0. */
int32_t uuidFromMacAddress(uint8_t *uuid, const uint8_t *mac);
/* A random UUID; returns 0. */
int32_t generateUuid(uint8_t *uuid);
/* buffer: 48 bytes; a random UUID goes into its first 16 bytes and its text
 * into the next 32. Returns a pointer to the text (buffer + 16). */
char *newUUID(uint8_t *buffer);
/* Writes "XX:XX:XX:XX:XX:XX" (upper case, terminated) to out, which holds
 * at least 18 bytes; returns 0. */
int32_t macAddressToString(char *out, const uint8_t *mac);

#ifdef __cplusplus
}
#endif

#endif /* OMSDK_UUID_H */
