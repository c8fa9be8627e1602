// SPDX-License-Identifier: Apache-2.0
// HMAC helpers for the library's own use; not exported.
#ifndef OMSDK_CRYPTO_HMAC_INTERNAL_H
#define OMSDK_CRYPTO_HMAC_INTERNAL_H

#include "omsdk/hmac.h"

namespace omsdk {

// Releases a context that was keyed but never finalised (the session's key
// stores): frees its EVP context and key copy, then zeroes the record so it
// is empty and may be keyed again.
void hmac_release(hmac_sha_ctx *ctx);

}  // namespace omsdk

#endif
