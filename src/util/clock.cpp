// SPDX-License-Identifier: Apache-2.0
#include "util/clock.h"

#include <atomic>

namespace omsdk {
namespace {
std::atomic<clock_source> g_source{nullptr};
std::atomic<long> g_offset{0};
}  // namespace

int64_t monotonic_ms() {
    struct timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<int64_t>(ts.tv_sec) * 1000 + ts.tv_nsec / 1000000;
}

time_t clock_now() {
    clock_source src = g_source.load(std::memory_order_relaxed);
    time_t now = src ? src() : time(nullptr);
    return now + static_cast<time_t>(g_offset.load(std::memory_order_relaxed));
}

void clock_set_source(clock_source src) { g_source.store(src, std::memory_order_relaxed); }
void clock_set_offset(long seconds) { g_offset.store(seconds, std::memory_order_relaxed); }

}  // namespace omsdk
