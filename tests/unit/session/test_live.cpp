// SPDX-License-Identifier: Apache-2.0
// The set of live sessions: members stay reachable while others come and go
// in any order, across growth and probe runs; removed ones are not entered.
#include <gtest/gtest.h>

#include <vector>

#include "session/live.h"

namespace {

TEST(Live, MembersStayReachableWhileOthersComeAndGo) {
    // Records only: the set never looks inside beyond the caller count.
    std::vector<svc_session> s(300);
    for (svc_session &x : s) ASSERT_TRUE(omsdk::live_add(&x));
    ASSERT_TRUE(omsdk::live_add(&s[7]));  // twice: still one member
    for (size_t i = 0; i < s.size(); i += 3) omsdk::live_remove(&s[i]);
    for (size_t i = s.size(); i-- > 0;) {
        const bool live = i % 3 != 0;
        ASSERT_EQ(omsdk::live_enter(&s[i]), live) << i;
        if (live) {
            EXPECT_EQ(s[i].api_callers, 1);
            omsdk::live_leave(&s[i]);
        }
    }
    svc_session stranger{};
    EXPECT_FALSE(omsdk::live_enter(&stranger));
    EXPECT_FALSE(omsdk::live_enter(nullptr));
    for (svc_session &x : s) omsdk::live_remove(&x);
    for (svc_session &x : s) EXPECT_FALSE(omsdk::live_enter(&x));
}

}  // namespace
