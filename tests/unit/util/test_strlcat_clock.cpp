#include <gtest/gtest.h>

#include <stdlib.h>
#include <string.h>

#include "omsdk.h"
#include "util/clock.h"

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
        char before[16];
        memcpy(before, buf, sizeof buf);
        EXPECT_EQ(strlcat(buf, c.src, c.size), strlen(c.want));  // what it made
        EXPECT_STREQ(buf, c.want) << c.dst << "+" << c.src << " size " << c.size;
        EXPECT_EQ(memcmp(buf + c.size, before + c.size, sizeof buf - c.size),
                  0);  // nothing past size
    }
    char buf[9] = {'a', 'b', 'c', 'd', 'e', 'f', 'g', 'h', 'Z'};  // unterminated in 8
    EXPECT_EQ(strlcat(buf, "xyz", 8), 7u);
    EXPECT_EQ(memcmp(buf, "abcdefg\0Z", 9), 0);
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
