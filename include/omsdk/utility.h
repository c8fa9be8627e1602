/* SPDX-License-Identifier: Apache-2.0 */
/**
 * @file omsdk/utility.h
 * @brief Identifiers, key composition, the version text and strlcat.
 *
 * The utilities an application may call without a session, from any thread:
 * they keep no state (the log settings aside). Included by omsdk.h.
 */
#ifndef OMSDK_UTILITY_H
#define OMSDK_UTILITY_H

#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/**
 * @name Identifiers
 * An identifier is 32 lower-case hexadecimal characters, written without a
 * terminator: give a zeroed buffer of at least 33 bytes and the result is a
 * C string. The caller owns the buffer.
 * @{
 */

/**
 * The sender identifier that ohmara_svc_create() takes: derived from the
 * 6-byte MAC address @p mac (`e0d00de0`, twelve zeros, then the MAC's
 * twelve digits), or random (libuuid) when @p mac is NULL.
 *
 * @return 0, or -1 (logged at ERROR, nothing written) for a NULL @p out.
 *         Logs the identifier at DEBUG.
 */
int32_t ohmara_utl_senderId(char *out, const uint8_t *mac /* 6 bytes or NULL */);
/**
 * A random identifier (libuuid).
 *
 * @return 0, or -1 (logged at ERROR, nothing written) for a NULL @p out.
 */
int32_t ohmara_utl_createUuid(char *out);
/**
 * The identifier derived from the 6-byte MAC address @p mac, as
 * ohmara_utl_senderId() makes it.
 *
 * @return 0, or -1 (logged at ERROR, nothing written) for a NULL @p out or
 *         @p mac.
 */
int32_t ohmara_utl_createUuidFromMac(char *out, const uint8_t *mac);
/**
 * An identifier assembled from four texts: the first 18 characters of
 * @p first, 3 of @p second, 5 of @p third and 6 of @p fourth, copied as
 * they are (not checked to be hexadecimal; each text must hold at least that
 * many bytes).
 *
 * @return 0, or -1 (not logged, nothing written) when any argument is NULL.
 */
int32_t ohmara_utl_createUuidFromDetails(char *out, const char *first, const char *second,
                                         const char *third, const char *fourth);

/** @} */

/**
 * @name Version and key composition
 * The compose functions return the digest length, 20, or 0 (logged, nothing
 * written) for a NULL output or data, or a NULL key with a length above 0;
 * composeKey also returns 0 when out_size is below 20. A key of length 0
 * gives no digest: 20 is returned and @p out is left as it was.
 * @{
 */

/**
 * The library's version, for example "2.1.0": a constant string owned by
 * the library, never freed. Compare it with OMSDK_VERSION_STRING from
 * omsdk/version.h to detect a library older than the headers.
 */
const char *ohmara_utl_getVersion(void);
/**
 * HMAC-SHA1 of the 32 bytes at @p data with @p key, into @p out (room for
 * @p out_size bytes).
 *
 * @return 20; 0 for a NULL argument (ERROR `null argument`) or an
 *         @p out_size below 20 (WARN `Insufficient buffer`).
 */
int32_t ohmara_utl_composeKey(const uint8_t *key, uint16_t key_len, const uint8_t *data,
                              uint8_t *out, int32_t out_size);
/**
 * HMAC-SHA1 of @p data_len bytes at @p data with @p key, into @p out
 * (20 bytes).
 *
 * @return 20; 0 for a NULL argument (ERROR `null argument`).
 */
int32_t ohmara_utl_composeNonce(const uint8_t *key, uint16_t key_len, const uint8_t *data,
                                uint16_t data_len, uint8_t *out);

/** @} */

/**
 * @name strlcat
 * @{
 */

/**
 * Appends @p src to the string in @p dst within size - strlen(dst) - 1
 * bytes and always terminates the buffer's last byte.
 *
 * @return The length of the RESULT, not the length it tried to make as the
 *         usual strlcat() returns: a truncation check
 *         `strlcat(d, s, n) >= n` never fires with this one. A NULL
 *         destination returns 0 (ERROR `null destination`); a NULL source
 *         appends nothing (ERROR `null source`); a size of 0 returns
 *         strlen(dst).
 *
 * Any thread. The name carries no prefix: glibc 2.38 and later declare a
 * strlcat() of their own, and many programs define one. A program that
 * defines its own links without a conflict, and its calls reach its own
 * function; the library never calls strlcat(), so the program's definition
 * cannot change the library's behaviour (the CTests install.own_strlcat and
 * install.own_strlcat_static check this for the shared and the static
 * library). A program that defines none and links `-lomsdk` before libc may
 * reach this one: declare and define your own if you rely on the usual
 * result.
 */
size_t strlcat(char *dst, const char *src, size_t size);

/** @} */

#ifdef __cplusplus
}
#endif

#endif /* OMSDK_UTILITY_H */
