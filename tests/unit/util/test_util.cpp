#include <gtest/gtest.h>

#include <stdlib.h>
#include <string.h>

#include "omsdk.h"
#include "util/clock.h"

namespace {

TEST(Strlcat, AppendsWithinBoundAndReturnsResultingLength) {
    const struct { const char *dst, *src; size_t size; const char *want; } cases[] = {
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
        size_t r = strlcat(buf, c.src, c.size);
        EXPECT_STREQ(buf, c.want) << c.dst << "+" << c.src << " size " << c.size;
        EXPECT_EQ(r, strlen(c.want));  // what it made, not what it tried to make
    }
    char buf[8] = {'a', 'b', 'c', 'd', 'e', 'f', 'g', 'h'};  // unterminated
    EXPECT_EQ(strlcat(buf, "xyz", sizeof buf), 7u);
    EXPECT_EQ(memcmp(buf, "abcdefg", 8), 0);  // last byte terminated
}

time_t fixed_source() { return 1000; }

TEST(Clock, SourceAndOffsetMoveTheLibraryClock) {
    omsdk::clock_set_source(fixed_source);
    EXPECT_EQ(omsdk::clock_now(), 1000);
    omsdk::clock_set_offset(301);
    EXPECT_EQ(omsdk::clock_now(), 1301);
    omsdk::clock_set_offset(-5);
    EXPECT_EQ(omsdk::clock_now(), 995);
    omsdk::clock_set_offset(0);
    omsdk::clock_set_source(nullptr);
    EXPECT_LE(labs(static_cast<long>(omsdk::clock_now() - time(nullptr))), 2);
}

}  // namespace
