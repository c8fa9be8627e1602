// SPDX-License-Identifier: Apache-2.0
#include <string.h>

#include "common/api.h"
#include "diag/log.h"

// Appends within size - strlen(dst) - 1 bytes, terminates the buffer's last
// byte and returns the resulting length. A destination that already fills
// the buffer gets nothing appended rather than an unbounded copy. A null
// destination yields 0; a null source appends nothing.
OMSDK_API size_t strlcat(char *dst, const char *src, size_t size) {
    if (dst == nullptr) {
        OM_ERROR("null destination");
        return 0;
    }
    if (src == nullptr) {
        OM_ERROR("null source");
        src = "";
    }
    if (size == 0) return strlen(dst);
    size_t dlen = strnlen(dst, size);
    if (dlen + 1 < size) {
        size_t room = size - dlen - 1;
        size_t slen = strnlen(src, room);
        memcpy(dst + dlen, src, slen);
        dst[dlen + slen] = '\0';
    }
    dst[size - 1] = '\0';
    return strlen(dst);
}
