#include <gtest/gtest.h>

#include <string.h>

#include "omsdk.h"

namespace {

struct Case {
    const char *dst;
    const char *src;
    size_t size;
    const char *want;
};

TEST(Strlcat, AppendsWithinBoundAndReturnsResultingLength) {
    const Case cases[] = {
        {"ab", "cd", 10, "abcd"},      // fits
        {"ab", "cdefgh", 5, "abcd"},   // cut at size - 1
        {"", "xyz", 4, "xyz"},         // exactly fills
        {"abc", "d", 4, "abc"},        // already full: nothing appended
        {"", "", 1, ""},
    };
    for (const Case &c : cases) {
        char buf[16];
        memset(buf, 'Z', sizeof buf);
        strcpy(buf, c.dst);
        size_t r = strlcat(buf, c.src, c.size);
        EXPECT_STREQ(buf, c.want) << c.dst << "+" << c.src << " size " << c.size;
        // the resulting length, not the length it tried to create
        EXPECT_EQ(r, strlen(c.want));
        EXPECT_EQ(buf[c.size - 1], '\0');
    }
}

TEST(Strlcat, TerminatesLastByteEvenWhenDestinationWasLonger) {
    char buf[8] = {'a', 'b', 'c', 'd', 'e', 'f', 'g', 'h'};  // unterminated
    size_t r = strlcat(buf, "xyz", sizeof buf);
    EXPECT_EQ(buf[7], '\0');
    EXPECT_EQ(r, 7u);
    EXPECT_EQ(strncmp(buf, "abcdefg", 8), 0);
}

}  // namespace
