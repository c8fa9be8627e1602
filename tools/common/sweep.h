// SPDX-License-Identifier: Apache-2.0
// A sweep: the same GET sent to many endpoints, several at once, at a
// bounded rate, with a count of the outcomes and the latency distribution.
#ifndef OMSDK_TOOLS_SWEEP_H
#define OMSDK_TOOLS_SWEEP_H

#include <signal.h>
#include <stdint.h>

#include <functional>
#include <string>
#include <vector>

#include "switch.h"

namespace omsdk_tools {

struct SweepOptions {
    std::vector<uint32_t> types;  // what each GET asks for
    Selectors sel;
    double rate = 0;     // queries started per second; 0: no limit
    int in_flight = 64;  // queries open at once, at most
};

struct SweepReport {
    size_t asked = 0;
    size_t answered = 0;   // a reply came back
    size_t silent = 0;     // not addressed by the selectors (closed without a word)
    size_t refused = 0;    // acknowledged "won't", no reply: a result, not a failure
    size_t failed = 0;     // an error other than a time-out
    size_t timed_out = 0;  // a connect, send or read ran out of time
    int64_t elapsed_us = 0;
    std::vector<int64_t> latency_us;  // of the answered queries, ascending

    // Nearest-rank percentile (0 < p <= 100) of latency_us; -1 when empty.
    int64_t percentile(double p) const;
    bool ok() const { return failed == 0 && timed_out == 0; }
    std::string text() const;  // one line for people
    std::string json() const;  // one JSON object (no time)
};

// Sends the GET to each endpoint of `ids` once, keeping discovery served
// meanwhile; `each` (optional) sees every result with its latency. Stops
// starting new queries when *stop becomes non-zero.
SweepReport sweep(Switch &sw, const std::vector<std::string> &ids, const SweepOptions &opt,
                  const std::function<void(const QueryResult &, int64_t latency_us)> &each,
                  const volatile sig_atomic_t *stop = nullptr);

}  // namespace omsdk_tools

#endif
