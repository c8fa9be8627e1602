// SPDX-License-Identifier: Apache-2.0
#include <gtest/gtest.h>

#include <string.h>

#include <string>

#include "omsdk.h"

namespace {

TEST(Strlcat, AppendsWithinBoundAndReturnsResultingLength) {
    const struct {
        const char *dst, *src;
        size_t size;
        const char *want;
    } cases[] = {
        {"ab", "cd", 10, "abcd"},     // fits
        {"ab", "cdefgh", 5, "abcd"},  // cut at size - 1
        {"", "xyz", 4, "xyz"},        // exactly fills
        {"abc", "d", 4, "abc"},       // already full: nothing appended
        {"", "", 1, ""},
    };
    for (const auto &c : cases) {
        char buf[16];
        memset(buf, 'Z', sizeof buf);
        strcpy(buf, c.dst);
        EXPECT_EQ(strlcat(buf, c.src, c.size), strlen(c.want));  // what it made
        EXPECT_STREQ(buf, c.want) << c.dst << "+" << c.src << " size " << c.size;
        EXPECT_EQ(std::string(buf + c.size, sizeof buf - c.size),
                  std::string(sizeof buf - c.size, 'Z'));  // nothing past size
    }
    char buf[9] = {'a', 'b', 'c', 'd', 'e', 'f', 'g', 'h', 'Z'};  // unterminated in 8
    EXPECT_EQ(strlcat(buf, "xyz", 8), 7u);
    EXPECT_EQ(memcmp(buf, "abcdefg\0Z", 9), 0);
}

}  // namespace
