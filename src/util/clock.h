// SPDX-License-Identifier: Apache-2.0
// The library's one clock. Timers and last-heard times read it; tests move it.
#ifndef OMSDK_UTIL_CLOCK_H
#define OMSDK_UTIL_CLOCK_H

#include <stdint.h>
#include <time.h>

namespace omsdk {

// Current time in seconds since the epoch, plus any test offset.
time_t clock_now();

// Tests only: a source replacing time(nullptr), or null for the real clock.
using clock_source = time_t (*)();
void clock_set_source(clock_source src);
// Tests only: seconds added to every reading (may be negative).
void clock_set_offset(long seconds);

// Milliseconds of a monotonic clock (deadlines; tests do not move it).
int64_t monotonic_ms();

}  // namespace omsdk

#endif
