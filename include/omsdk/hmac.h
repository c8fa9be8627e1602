/* SPDX-License-Identifier: Apache-2.0 */
/* HMAC-SHA1 contexts, one-shot MACs and digest text. */
#ifndef OMSDK_HMAC_H
#define OMSDK_HMAC_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

#define OHMARA_SHA1_DIGEST_SIZE 20
#define OHMARA_SHA1_BLOCK_SIZE 64
#define OHMARA_SHA1_TEXT_SIZE 41

struct evp_md_ctx_st;

/* One HMAC-SHA1 computation and the key it was made with. Zero every byte
 * before the first hmac_shainit; all-zero is the empty state. */
typedef struct hmac_sha_ctx {
    struct evp_md_ctx_st *evp; /* inner SHA-1 in progress, or null */
    uint8_t *key;              /* heap copy of the key as given, or null */
    uint32_t key_len;
    uint8_t opad[OHMARA_SHA1_BLOCK_SIZE];
} hmac_sha_ctx;

void hmac_shainit(hmac_sha_ctx *ctx, const uint8_t *key, uint16_t len);
void hmac_shaupdate(hmac_sha_ctx *ctx, const uint8_t *data, uint16_t len);
void hmac_shafinal(uint8_t *out, hmac_sha_ctx *ctx);
void hmac_sha(const uint8_t *key, uint16_t key_len, const uint8_t *data, uint16_t data_len,
              uint8_t *out);
/* A fresh HMAC keyed with the key copy held by `keyed` (which is only read). */
void hmac_sha_msg(const hmac_sha_ctx *keyed, const uint8_t *data, uint16_t data_len, uint8_t *out);
void sha_hash(const uint8_t *data1, uint16_t len1, const uint8_t *data2, uint16_t len2,
              uint8_t *out);
void sha1DigestToString(char *text, const uint8_t *digest);
void ohmara_dump_digest(const uint8_t *digest);

#ifdef __cplusplus
}
#endif

#endif
