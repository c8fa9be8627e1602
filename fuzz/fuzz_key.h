// SPDX-License-Identifier: Apache-2.0
// The shared secret of the fuzz target and its seed corpus: seeds are signed
// with it, so the target also walks the path of a matching digest.
#ifndef OMSDK_FUZZ_FUZZ_KEY_H
#define OMSDK_FUZZ_FUZZ_KEY_H

#include <stdint.h>
#include <string.h>

#include <omsdk/hmac.h>

namespace fuzz_wire {

constexpr char kSecret[] = "fuzz-domain-shared-secret";

inline void key_context(hmac_sha_ctx *ctx) {
    memset(ctx, 0, sizeof *ctx);
    hmac_shainit(ctx, reinterpret_cast<const uint8_t *>(kSecret),
                 static_cast<uint16_t>(sizeof kSecret - 1));
}

}  // namespace fuzz_wire

#endif
