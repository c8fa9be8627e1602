// SPDX-License-Identifier: Apache-2.0
// Client requests: refused unless ACTIVE, one slot, successive ids, and the
// loop woken by a connection from the endpoint's own address.
#include <gtest/gtest.h>

#include "endpoint.h"
#include "session/request.h"

namespace {

using namespace ep_test;

// The caller's address of the next connection within the time-out, or 0.
uint32_t accept_wakeup(int listener, int timeout_ms = 1000) {
    pollfd p{listener, POLLIN, 0};
    if (poll(&p, 1, timeout_ms) != 1) return 0;
    sockaddr_in from{};
    socklen_t len = sizeof from;
    Fd fd(accept(listener, reinterpret_cast<sockaddr *>(&from), &len));
    return fd.fd < 0 ? 0 : from.sin_addr.s_addr;
}

int32_t (*const kCalls[])(svc_session *) = {
    [](svc_session *s) { return ohmara_svc_alarmAdd(s, 600, 17, 34); },
    ohmara_svc_alarmClearAll,
    ohmara_svc_discoveryRefresh,
};

TEST(ClientRequests, RefusedUnlessActiveThenOneSlotWithSuccessiveIds) {
    Endpoint e;
    QuietLog quiet;
    e.s->request_counter = 41;
    for (int32_t status : {OHMARA_STATUS_DOWN, OHMARA_STATUS_UP, OHMARA_STATUS_SHUTDOWN}) {
        e.s->status = status;
        for (auto call : kCalls) EXPECT_EQ(call(e.s), -1) << status;
    }
    EXPECT_EQ(e.s->pending_head, nullptr);
    EXPECT_EQ(e.s->request_counter, 41u);
    EXPECT_EQ(accept_wakeup(e.s->listen_sock, 50), 0u);  // never woken

    e.s->status = OHMARA_STATUS_DOWN;
    e.active();
    const struct {
        uint32_t type, counter;
        int32_t id;
    } steps[] = {
        {OMSDK_REQ_ALARM_SET, 42, 42},
        {OMSDK_REQ_ALARM_CLEAR_ALL, 42, -1},  // carries no id of its own
        {OMSDK_REQ_DISCOVERY_REFRESH, 43, 43},
    };
    for (const auto &n : steps) {
        SCOPED_TRACE(n.type);
        ASSERT_EQ(kCalls[&n - steps](e.s), 0);
        const async_request *held = om_getQueueRequest(e.s);
        ASSERT_NE(held, nullptr);
        EXPECT_EQ(std::make_pair(held->type, held->id), std::make_pair(n.type, n.id));
        EXPECT_EQ(e.s->request_counter, n.counter);
        if (n.type == OMSDK_REQ_ALARM_SET) {
            EXPECT_EQ(
                std::vector<uint32_t>({held->seconds, held->alarm_param1, held->alarm_param2}),
                std::vector<uint32_t>({600, 17, 34}));
        }
        EXPECT_EQ(accept_wakeup(e.s->listen_sock), inet_addr("127.0.0.1"));
        EXPECT_EQ(e.s->api_callers, 0);
        for (auto call : kCalls) {  // the slot is taken: refused, nothing changes
            EXPECT_EQ(call(e.s), -1);
            EXPECT_EQ(e.s->pending_head, held);
            EXPECT_EQ(e.s->request_counter, n.counter);
        }
        EXPECT_EQ(accept_wakeup(e.s->listen_sock, 50), 0u);
        EXPECT_EQ(om_dequeueLevelEvent(e.s), n.type);  // what the loop does with it
        EXPECT_EQ(om_getQueueRequest(e.s), nullptr);
    }
    EXPECT_EQ(om_dequeueLevelEvent(e.s), UINT32_MAX);
}

}  // namespace
