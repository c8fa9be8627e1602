// Client requests: the single slot, the request counter, and the wake-up
// connection from the endpoint's own address. No loop runs here: the
// wake-up is seen by accepting on the session's listener directly.
#include <gtest/gtest.h>

#include "loop_fixture.h"

namespace {

using engine_test::Endpoint;
using omsdk_test::LogCapture;

// Accepts the next connection on the listener within the time-out; returns
// the caller's address (network order) or 0 when none came.
uint32_t accept_wakeup(int listener, int timeout_ms = 1000) {
    pollfd p{listener, POLLIN, 0};
    if (poll(&p, 1, timeout_ms) != 1) return 0;
    sockaddr_in from{};
    socklen_t len = sizeof from;
    int fd = accept(listener, reinterpret_cast<sockaddr *>(&from), &len);
    if (fd < 0) return 0;
    close(fd);
    return from.sin_addr.s_addr;
}

bool no_wakeup(int listener) { return accept_wakeup(listener, 50) == 0; }

enum class Call { AlarmAdd, ClearAll, Refresh };

struct CallInfo {
    Call call;
    const char *func;
};

constexpr CallInfo kCalls[] = {
    {Call::AlarmAdd, "ohmara_svc_alarmAdd"},
    {Call::ClearAll, "ohmara_svc_alarmClearAll"},
    {Call::Refresh, "ohmara_svc_discoveryRefresh"},
};

int32_t invoke(Call c, svc_session *s) {
    switch (c) {
    case Call::AlarmAdd:
        return ohmara_svc_alarmAdd(s, 600, 0x11, 0x22);
    case Call::ClearAll:
        return ohmara_svc_alarmClearAll(s);
    case Call::Refresh:
        return ohmara_svc_discoveryRefresh(s);
    }
    return 99;
}

void make_active(Endpoint &e) {
    e.up();
    om_setStatusActive(e.s);
}

TEST(ClientRequests, RefusedUnlessActive) {
    enum class St { Down, Up, Shutdown };
    for (St st : {St::Down, St::Up, St::Shutdown}) {
        for (const CallInfo &c : kCalls) {
            SCOPED_TRACE(std::string(c.func) + " in status " + std::to_string(int(st)));
            Endpoint e;
            ASSERT_NE(e.s, nullptr);
            if (st != St::Down) e.up();
            if (st == St::Shutdown) om_setStatusShutdown(e.s);
            e.s->request_counter = 9;
            LogCapture cap(OHMARA_LOG_TRACE);
            EXPECT_EQ(invoke(c.call, e.s), -1);
            EXPECT_TRUE(cap.has(OHMARA_LOG_INFO, c.func, "status is not connected"))
                << cap.dump();
            EXPECT_EQ(e.s->pending_head, nullptr);
            EXPECT_EQ(e.s->request_counter, 9u);
            EXPECT_TRUE(no_wakeup(e.s->listen_sock));
        }
    }
}

TEST(ClientRequests, QueuedRecordAndWakeUp) {
    struct Expect {
        uint32_t type;
        int32_t id;
        uint32_t seconds;
        uint8_t p1;
        uint8_t p2;
        uint32_t counter_after;
    };
    const Expect expected[] = {
        {OMSDK_REQ_ALARM_SET, 42, 600, 0x11, 0x22, 42},
        {OMSDK_REQ_ALARM_CLEAR_ALL, -1, 0, 0, 0, 41},
        {OMSDK_REQ_DISCOVERY_REFRESH, 42, 0, 0, 0, 42},
    };
    for (size_t i = 0; i < 3; ++i) {
        const CallInfo &c = kCalls[i];
        const Expect &x = expected[i];
        SCOPED_TRACE(c.func);
        Endpoint e;
        ASSERT_NE(e.s, nullptr);
        make_active(e);
        e.s->request_counter = 41;
        LogCapture cap(OHMARA_LOG_TRACE);

        EXPECT_EQ(invoke(c.call, e.s), 0);
        ASSERT_NE(e.s->pending_head, nullptr);
        EXPECT_EQ(e.s->pending_head->type, x.type);
        EXPECT_EQ(e.s->pending_head->id, x.id);
        EXPECT_EQ(e.s->request_counter, x.counter_after);
        if (x.type != OMSDK_REQ_DISCOVERY_REFRESH) {
            EXPECT_EQ(e.s->pending_head->seconds, x.seconds);
            EXPECT_EQ(e.s->pending_head->alarm_param2, x.p2);
        }
        if (x.type == OMSDK_REQ_ALARM_SET) {
            EXPECT_EQ(e.s->pending_head->alarm_param1, x.p1);
        }

        // The loop is woken by a connection from the endpoint's own address.
        EXPECT_EQ(accept_wakeup(e.s->listen_sock), inet_addr("127.0.0.1"));
        const std::string woke = "woke up select() triggered on 127.0.0.1:" +
                                 std::to_string(loop_test::listen_port(e.s)) + " (err=0)";
        EXPECT_TRUE(cap.has(OHMARA_LOG_DEBUG, "omr_markReady", woke)) << cap.dump();
        EXPECT_EQ(e.s->api_callers, 0);
    }
}

TEST(ClientRequests, OnlyOnePendingAtATime) {
    Endpoint e;
    ASSERT_NE(e.s, nullptr);
    make_active(e);
    e.s->request_counter = 100;
    ASSERT_EQ(ohmara_svc_alarmAdd(e.s, 30, 1, 2), 0);
    async_request *first = e.s->pending_head;
    ASSERT_NE(first, nullptr);
    ASSERT_NE(accept_wakeup(e.s->listen_sock), 0u);

    for (const CallInfo &c : kCalls) {
        SCOPED_TRACE(c.func);
        LogCapture cap(OHMARA_LOG_TRACE);
        EXPECT_EQ(invoke(c.call, e.s), -1);
        EXPECT_TRUE(cap.has(OHMARA_LOG_INFO, c.func, "request already pending")) << cap.dump();
        EXPECT_EQ(e.s->pending_head, first);
        EXPECT_EQ(first->id, 101);
        EXPECT_EQ(e.s->request_counter, 101u);
        EXPECT_TRUE(no_wakeup(e.s->listen_sock));
    }
}

TEST(ClientRequests, SuccessiveIdentifiers) {
    Endpoint e;
    ASSERT_NE(e.s, nullptr);
    make_active(e);
    e.s->request_counter = 7;
    struct Step {
        Call call;
        int32_t id;
        uint32_t counter;
    };
    const Step steps[] = {{Call::AlarmAdd, 8, 8},
                          {Call::AlarmAdd, 9, 9},
                          {Call::ClearAll, -1, 9},
                          {Call::Refresh, 10, 10},
                          {Call::AlarmAdd, 11, 11}};
    for (const Step &st : steps) {
        ASSERT_EQ(invoke(st.call, e.s), 0);
        ASSERT_NE(e.s->pending_head, nullptr);
        EXPECT_EQ(e.s->pending_head->id, st.id);
        EXPECT_EQ(e.s->request_counter, st.counter);
        accept_wakeup(e.s->listen_sock);
        om_dequeueLevelEvent(e.s);  // handled in between
    }
}

TEST(ClientRequests, ConcurrentCallersGetOneSlot) {
    Endpoint e;
    ASSERT_NE(e.s, nullptr);
    make_active(e);
    e.s->request_counter = 0;
    constexpr int kThreads = 8;
    std::atomic<int> go{0};
    std::atomic<int> accepted{0};
    std::vector<std::thread> threads;
    for (int i = 0; i < kThreads; ++i) {
        threads.emplace_back([&] {
            while (go.load() == 0) std::this_thread::yield();
            if (ohmara_svc_alarmAdd(e.s, 1, 2, 3) == 0) ++accepted;
        });
    }
    go = 1;
    for (std::thread &t : threads) t.join();
    EXPECT_EQ(accepted.load(), 1);
    EXPECT_EQ(e.s->request_counter, 1u);
    ASSERT_NE(e.s->pending_head, nullptr);
    EXPECT_EQ(e.s->pending_head->id, 1);
    EXPECT_EQ(accept_wakeup(e.s->listen_sock), inet_addr("127.0.0.1"));
    EXPECT_TRUE(no_wakeup(e.s->listen_sock));
}

TEST(ClientRequests, MarkReadyOnlyWhileActive) {
    Endpoint e;
    ASSERT_NE(e.s, nullptr);
    e.up();
    {
        LogCapture cap(OHMARA_LOG_TRACE);
        EXPECT_EQ(omr_markReady(e.s), -1);
        EXPECT_FALSE(cap.contains("omr_markReady")) << cap.dump();
        EXPECT_TRUE(no_wakeup(e.s->listen_sock));
    }
    om_setStatusActive(e.s);
    EXPECT_EQ(omr_markReady(e.s), 0);
    EXPECT_EQ(accept_wakeup(e.s->listen_sock), inet_addr("127.0.0.1"));
}

TEST(ClientRequests, FailedWakeUpKeepsTheRequest) {
    Endpoint e;
    ASSERT_NE(e.s, nullptr);
    make_active(e);
    // Nobody listens any more: the wake-up is refused.
    close(e.s->listen_sock);
    e.s->listen_sock = -1;
    LogCapture cap(OHMARA_LOG_TRACE);
    EXPECT_EQ(omr_markReady(e.s), -1);
    const std::string refused = "woke up select() triggered on 127.0.0.1:" +
                                std::to_string(loop_test::listen_port(e.s)) + " (err=-1)";
    EXPECT_TRUE(cap.has(OHMARA_LOG_DEBUG, "omr_markReady", refused)) << cap.dump();

    EXPECT_EQ(ohmara_svc_alarmAdd(e.s, 5, 6, 7), 0);
    ASSERT_NE(e.s->pending_head, nullptr);
    EXPECT_EQ(e.s->pending_head->seconds, 5u);
}

}  // namespace
