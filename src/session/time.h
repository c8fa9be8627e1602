// SPDX-License-Identifier: Apache-2.0
// A session's time: the application's clock when it set one, else the
// library's. Every timer of the loop and every last-heard time reads it, so
// a session runs as well under a virtual clock as under the real one.
#ifndef OMSDK_SESSION_TIME_H
#define OMSDK_SESSION_TIME_H

#include <stdint.h>
#include <time.h>

#include "session/session.h"
#include "util/clock.h"

namespace omsdk {

// Seconds: discovery intervals, the idle limit, last-heard times.
inline time_t session_seconds(const svc_session *s) {
    return s->clock_ms != nullptr ? static_cast<time_t>(s->clock_ms(s->clock_ctx) / 1000)
                                  : clock_now();
}

// Milliseconds: connection deadlines and how long the loop may wait.
inline int64_t session_ms(const svc_session *s) {
    return s->clock_ms != nullptr ? s->clock_ms(s->clock_ctx) : monotonic_ms();
}

}  // namespace omsdk

#endif
