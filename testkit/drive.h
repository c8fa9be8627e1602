// SPDX-License-Identifier: Apache-2.0
// How the kit runs its session: thread-less, one turn of the library's
// loop at a time, on the kit's clock. The only place that knows the
// library's calls for that.
#ifndef OMSDK_TESTKIT_DRIVE_H
#define OMSDK_TESTKIT_DRIVE_H

#include <stdint.h>

#include <string>

#include <omsdk.h>

namespace omsdk_testkit {

using clock_fn = int64_t (*)(void *ctx);  // milliseconds

// Sets the session's clock and starts it without a thread. False with a
// reason when the library refused.
bool drive_open(svc_session *s, clock_fn now_ms, void *ctx, std::string *why);
// One non-blocking turn of the session's loop.
bool drive_turn(svc_session *s, std::string *why);
// Shuts the session down (its delete goes out) and frees it.
void drive_close(svc_session *s);

}  // namespace omsdk_testkit

#endif
