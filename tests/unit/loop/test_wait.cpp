// secondsToWait: which interval applies and how much of it is left.
#include <gtest/gtest.h>

#include "loop_fixture.h"

namespace {

using engine_test::Endpoint;
using loop_test::kStart;

enum class St { Initializing, Up, Active, Shutdown };

struct WaitCase {
    const char *what;
    St status;
    uint32_t pending_seq;
    uint32_t discovery;
    uint32_t retry;
    long elapsed;  // now - since; since 0 when kSinceZero
    uint32_t expected;
};

constexpr long kSinceZero = -999999;

void put_status(Endpoint &e, St st) {
    switch (st) {
    case St::Initializing:
        om_setStatusInitializing(e.s);
        break;
    case St::Up:
        e.up();
        break;
    case St::Active:
        e.up();
        om_setStatusActive(e.s);
        break;
    case St::Shutdown:
        e.up();
        om_setStatusShutdown(e.s);
        break;
    }
}

TEST(SecondsToWait, IntervalByStatusAndOutstandingRequest) {
    const WaitCase cases[] = {
        {"active, idle: discovery interval", St::Active, 0, 180, 30, 0, 180},
        {"active, idle, 179 s on", St::Active, 0, 180, 30, 179, 1},
        {"active, idle, due", St::Active, 0, 180, 30, 180, 0},
        {"active, idle, overdue", St::Active, 0, 180, 30, 500, 0},
        {"active, custom discovery interval", St::Active, 0, 600, 30, 100, 500},
        {"active, request outstanding: retry", St::Active, 7, 180, 30, 0, 30},
        {"active, request outstanding, 29 s on", St::Active, 7, 180, 30, 29, 1},
        {"active, request outstanding, due", St::Active, 7, 180, 30, 30, 0},
        {"up: retry", St::Up, 0, 180, 30, 0, 30},
        {"up, 10 s on", St::Up, 0, 180, 30, 10, 20},
        {"up, with a stale pending seq: retry", St::Up, 7, 180, 30, 31, 0},
        {"initializing: retry", St::Initializing, 0, 180, 30, 5, 25},
        {"shutdown: retry", St::Shutdown, 0, 180, 30, 1, 29},
        {"short retry interval", St::Up, 0, 180, 2, 1, 1},
        {"clock went back one second", St::Active, 0, 180, 30, -1, 0},
        {"clock went back far", St::Up, 0, 180, 30, -86400, 0},
        {"never sent (since 0)", St::Active, 0, 180, 30, kSinceZero, 0},
        {"largest interval", St::Active, 0, 0xFFFFFFFFu, 30, 1, 0xFFFFFFFEu},
        {"zero interval", St::Active, 0, 0, 30, 0, 0},
    };
    for (const WaitCase &c : cases) {
        SCOPED_TRACE(c.what);
        Endpoint e;
        ASSERT_NE(e.s, nullptr);
        omsdk::clock_set_source(loop_test::test_clock);
        loop_test::set_now(kStart);
        put_status(e, c.status);
        e.s->pending_seq = c.pending_seq;
        e.s->discovery_interval = c.discovery;
        e.s->retry_interval = c.retry;
        const time_t since = c.elapsed == kSinceZero ? 0 : kStart - c.elapsed;
        EXPECT_EQ(secondsToWait(e.s, since), c.expected);
    }
}

TEST(SecondsToWait, FollowsTheLibraryClock) {
    Endpoint e;
    ASSERT_NE(e.s, nullptr);
    e.up();
    omsdk::clock_set_source(loop_test::test_clock);
    loop_test::set_now(kStart);
    EXPECT_EQ(secondsToWait(e.s, kStart), 30u);
    omsdk::clock_set_offset(12);
    EXPECT_EQ(secondsToWait(e.s, kStart), 18u);
    omsdk::clock_set_offset(-12);
    EXPECT_EQ(secondsToWait(e.s, kStart), 0u);
    omsdk::clock_set_offset(0);
}

}  // namespace
