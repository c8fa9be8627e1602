/* SPDX-License-Identifier: Apache-2.0 */
/**
 * @file omsdk/uuid.h
 * @brief UUID building blocks behind the ohmara_utl_ identifier functions.
 *
 * A UUID is 16 bytes; its text is 32 lower-case hexadecimal characters
 * written without a terminator. The caller owns every buffer; none of these
 * calls checks for NULL (a NULL pointer crashes) and none logs. Any thread
 * may call them. Their names carry no prefix: a program that defines a
 * function of the same name replaces the library's, also for the library's
 * own calls (see omsdk.h).
 */
#ifndef OMSDK_UUID_H
#define OMSDK_UUID_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/** Writes the 32 hexadecimal digits of @p uuid (16 bytes) to @p out (32 bytes,
 *  no terminator written); returns 0. */
int32_t convertUuidString(char *out, const uint8_t *uuid);
/** Fills @p uuid (16 bytes) with E0 D0 0D E0, six zero bytes, then the six
 *  bytes of @p mac; returns 0. */
int32_t uuidFromMacAddress(uint8_t *uuid, const uint8_t *mac);
/** Fills @p uuid (16 bytes) with a random UUID from libuuid; returns 0. */
int32_t generateUuid(uint8_t *uuid);
/** @p buffer: 48 bytes; a random UUID goes into its first 16 bytes and its text
 *  into the next 32 (no terminator: a 49th zero byte makes it a C string).
 *  Returns a pointer to the text (buffer + 16), inside the caller's buffer. */
char *newUUID(uint8_t *buffer);
/** Writes "XX:XX:XX:XX:XX:XX" (upper case, terminated) to @p out, which holds
 *  at least 18 bytes, from the 6 bytes at @p mac; returns 0. */
int32_t macAddressToString(char *out, const uint8_t *mac);

#ifdef __cplusplus
}
#endif

#endif /* OMSDK_UUID_H */
