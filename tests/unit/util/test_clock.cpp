#include <gtest/gtest.h>

#include "util/clock.h"

namespace {

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
    time_t real = time(nullptr);
    EXPECT_LE(std::labs(static_cast<long>(omsdk::clock_now() - real)), 2);
}

}  // namespace
