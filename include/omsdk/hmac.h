/* SPDX-License-Identifier: Apache-2.0 */
/**
 * @file omsdk/hmac.h
 * @brief HMAC-SHA1 contexts, one-shot MACs and digest text.
 *
 * Contexts and buffers belong to the caller. A context is not locked: one
 * thread at a time uses it (hmac_sha_msg() only reads it, so several
 * threads may share a keyed context for it). The one-shot calls keep no
 * state and may be called from any thread. Failures of the SHA-1
 * implementation are logged at ERROR; nothing else is logged. The names
 * carry no prefix: a program that defines one of them replaces the
 * library's, also for the library's own signing (see omsdk.h).
 */
#ifndef OMSDK_HMAC_H
#define OMSDK_HMAC_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

#define OHMARA_SHA1_DIGEST_SIZE 20 /**< bytes of a digest */
#define OHMARA_SHA1_BLOCK_SIZE 64  /**< bytes of a SHA-1 block */
#define OHMARA_SHA1_TEXT_SIZE 41   /**< a digest's hexadecimal text and its NUL */

struct evp_md_ctx_st;

/** One HMAC-SHA1 computation and the key it was made with. Zero every byte
 *  before the first hmac_shainit(); all-zero is the empty state. */
typedef struct hmac_sha_ctx {
    struct evp_md_ctx_st *evp;            /**< inner SHA-1 in progress, or null */
    uint8_t *key;                         /**< heap copy of the key as given, or null */
    uint32_t key_len;                     /**< bytes at key */
    uint8_t opad[OHMARA_SHA1_BLOCK_SIZE]; /**< the outer pad of the current key */
} hmac_sha_ctx;

/**
 * @name Streaming HMAC
 * @{
 */

/**
 * Keys @p ctx with @p len bytes of @p key and starts a computation. A key
 * longer than 64 bytes is replaced by its digest. The context keeps a heap
 * copy of the FIRST key it was given (for hmac_sha_msg()); keying it again
 * restarts the computation with the new key but keeps that first copy.
 * A NULL key or a length of 0 does nothing.
 *
 * The context then holds heap memory until hmac_shafinal() releases it: a
 * context keyed and never finalised leaks its key copy and its SHA-1 state.
 * Lack of memory is logged at ERROR and leaves the context unable to make a
 * digest.
 */
void hmac_shainit(hmac_sha_ctx *ctx, const uint8_t *key, uint16_t len);
/** Adds @p len bytes of @p data to the computation; nothing for NULL data, a
 *  length of 0 or a context without a computation. */
void hmac_shaupdate(hmac_sha_ctx *ctx, const uint8_t *data, uint16_t len);
/**
 * Writes the 20-byte MAC to @p out and releases everything the context
 * holds, its key copy included: the context is empty afterwards and must be
 * keyed again before further use. @p out is left as it was when the
 * context had no computation.
 */
void hmac_shafinal(uint8_t *out, hmac_sha_ctx *ctx);

/** @} */

/**
 * @name One-shot digests
 * @{
 */

/** HMAC-SHA1 of @p data_len bytes at @p data with @p key, into @p out
 *  (20 bytes). Without a key (NULL or length 0) no digest is made and
 *  @p out is left as it was. */
void hmac_sha(const uint8_t *key, uint16_t key_len, const uint8_t *data, uint16_t data_len,
              uint8_t *out);
/** A fresh HMAC keyed with the key copy held by @p keyed (which is only read),
 *  of @p data_len bytes at @p data, into @p out (20 bytes). Nothing is
 *  written when @p keyed holds no key copy (never keyed, or finalised). */
void hmac_sha_msg(const hmac_sha_ctx *keyed, const uint8_t *data, uint16_t data_len, uint8_t *out);
/** Plain SHA-1 of @p len1 bytes at @p data1 followed by @p len2 bytes at
 *  @p data2, into @p out (20 bytes). */
void sha_hash(const uint8_t *data1, uint16_t len1, const uint8_t *data2, uint16_t len2,
              uint8_t *out);

/** @} */

/**
 * @name Digest text
 * @{
 */

/** Writes the 40 lower-case hexadecimal digits of the 20-byte @p digest and
 *  a NUL to @p text (::OHMARA_SHA1_TEXT_SIZE bytes). */
void sha1DigestToString(char *text, const uint8_t *digest);
/** Logs the digest's text at TRACE (`digest: ...`); nothing below TRACE. */
void ohmara_dump_digest(const uint8_t *digest);

/** @} */

#ifdef __cplusplus
}
#endif

#endif
