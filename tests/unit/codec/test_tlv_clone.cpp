// SPDX-License-Identifier: Apache-2.0
// TLV values that clone by their stated length: ids and vectors in plain
// TLVs keep every stated byte, even beyond the value's own size, while the
// same vectors inside combo entries clone by their size (each source holds
// only the bytes its clone may read: the sanitizer build sees more).
#include <gtest/gtest.h>
#include <malloc.h>
#include <stdlib.h>
#include <string.h>

#include <omsdk/codec.h>

TEST(TlvClone, ByStatedLengthWhereTheTypeSaysSo) {
    // type, stated length, bytes the copy holds (id 32, delta vector 44, usage vector 22).
    const struct {
        uint32_t type, len, kept;
    } rows[] = {{2, 40, 40}, {20, 33, 33}, {36, 52, 52}, {39, 30, 30}, {44, 30, 22}, {45, 52, 44}};
    for (const auto &r : rows) {
        SCOPED_TRACE(r.type);
        auto *src = static_cast<uint8_t *>(malloc(r.kept));
        ASSERT_NE(src, nullptr);
        for (uint32_t i = 0; i < r.kept; ++i) src[i] = static_cast<uint8_t>(0xA0 + i);
        int32_t st = -1;
        void *copy = om_clone_tlv_ptr(r.type, r.len, src, &st);
        EXPECT_EQ(st, 0);
        ASSERT_NE(copy, nullptr);
        ASSERT_GE(malloc_usable_size(copy), r.kept);
        EXPECT_EQ(memcmp(copy, src, r.kept), 0);
        free(copy);
        free(src);
    }
}
