// SPDX-License-Identifier: Apache-2.0
// The service loop and the wake-up of the loop from other threads.
#ifndef OMSDK_SERVICE_LOOP_H
#define OMSDK_SERVICE_LOOP_H

#include <stdint.h>
#include <time.h>

#include "session/session.h"

extern "C" {
// Runs until the status is SHUTDOWN, then sends the shutdown event and
// leaves the status DOWN. Returns 0 (-1 without memory for its state, at
// once). Does not free the session.
int32_t omr_svc_loop(svc_session *s);
// Seconds left before the next discovery update is due, counted from
// `since` (0 when it is already due, or when the clock went backwards).
uint32_t secondsToWait(svc_session *s, time_t since);
// Wakes the loop by a connection from the endpoint's own address to its
// listener; only while ACTIVE. 0 when the connection was made, else -1.
int32_t omr_markReady(svc_session *s);
}

namespace omsdk {

// The loop's upper bounds, exposed for tests.
constexpr uint32_t kLoopReceiveBuffer = 1400;
constexpr double kIdleLimitSeconds = 300.0;
// How long a wake-up connection is waited for.
constexpr int kWakeUpConnectMs = 500;

}  // namespace omsdk

#endif
