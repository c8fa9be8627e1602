// SPDX-License-Identifier: Apache-2.0
#include "sweep.h"

#include <errno.h>
#include <math.h>
#include <poll.h>
#include <stdio.h>

#include <algorithm>
#include <memory>

#include "net.h"

namespace omsdk_tools {

namespace {

constexpr int64_t kMaxWaitUs = 100000;  // discovery is served at least this often

struct Flying {
    std::unique_ptr<QueryFlight> q;
    int64_t started_us;
};

std::string ms_text(int64_t us) {
    char buf[32];
    snprintf(buf, sizeof buf, "%.3f", us < 0 ? 0.0 : static_cast<double>(us) / 1000.0);
    return buf;
}

}  // namespace

int64_t SweepReport::percentile(double p) const {
    if (latency_us.empty()) return -1;
    size_t rank = static_cast<size_t>(ceil(p / 100.0 * static_cast<double>(latency_us.size())));
    rank = std::min(std::max<size_t>(rank, 1), latency_us.size());
    return latency_us[rank - 1];
}

std::string SweepReport::text() const {
    const double secs = static_cast<double>(elapsed_us) / 1e6;
    char head[256];
    snprintf(head, sizeof head,
             "sweep: %zu asked, %zu answered, %zu not addressed, %zu refused, %zu failed, "
             "%zu timed out in %.3f s (%.0f/s)",
             asked, answered, silent, refused, failed, timed_out, secs,
             secs > 0 ? static_cast<double>(asked) / secs : 0.0);
    std::string s = head;
    if (!latency_us.empty())
        s += "; latency ms min " + ms_text(latency_us.front()) + " p50 " + ms_text(percentile(50)) +
             " p90 " + ms_text(percentile(90)) + " p99 " + ms_text(percentile(99)) + " max " +
             ms_text(latency_us.back());
    return s;
}

std::string SweepReport::json() const {
    std::string s =
        "{\"event\":\"sweep\",\"asked\":" + std::to_string(asked) +
        ",\"answered\":" + std::to_string(answered) +
        ",\"not_addressed\":" + std::to_string(silent) + ",\"refused\":" + std::to_string(refused) +
        ",\"failed\":" + std::to_string(failed) + ",\"timed_out\":" + std::to_string(timed_out) +
        ",\"seconds\":" + ms_text(elapsed_us / 1000);
    if (!latency_us.empty())
        s += ",\"latency_ms\":{\"min\":" + ms_text(latency_us.front()) +
             ",\"p50\":" + ms_text(percentile(50)) + ",\"p90\":" + ms_text(percentile(90)) +
             ",\"p99\":" + ms_text(percentile(99)) + ",\"max\":" + ms_text(latency_us.back()) + "}";
    return s + "}";
}

SweepReport sweep(Switch &sw, const std::vector<std::string> &ids, const SweepOptions &opt,
                  const std::function<void(const QueryResult &, int64_t)> &each,
                  const volatile sig_atomic_t *stop) {
    SweepReport rep;
    const size_t cap = static_cast<size_t>(opt.in_flight > 0 ? opt.in_flight : 1);
    const int64_t t0 = now_us();
    std::vector<Flying> flying;
    std::vector<pollfd> fds;
    size_t next = 0;

    auto account = [&](const QueryFlight &q, int64_t started) {
        const QueryResult &r = q.result();
        const int64_t latency = now_us() - started;
        if (r.timed_out)
            ++rep.timed_out;
        else if (!r.error.empty())
            ++rep.failed;
        else if (r.silent)
            ++rep.silent;
        else if (r.replied)
            ++rep.answered, rep.latency_us.push_back(latency);
        else
            ++rep.refused;
        if (each) each(r, latency);
    };
    // When the i-th query may start: evenly spaced at the rate.
    auto slot_us = [&](size_t i) {
        return opt.rate > 0 ? t0 + static_cast<int64_t>(static_cast<double>(i) * 1e6 / opt.rate)
                            : t0;
    };

    while ((next < ids.size() && (stop == nullptr || *stop == 0)) || !flying.empty()) {
        while (next < ids.size() && flying.size() < cap && now_us() >= slot_us(next) &&
               (stop == nullptr || *stop == 0)) {
            const int64_t started = now_us();
            std::unique_ptr<QueryFlight> q = sw.begin_get(ids[next++], opt.types, opt.sel);
            ++rep.asked;
            sw.advance(*q);
            if (q->done())
                account(*q, started);
            else
                flying.push_back(Flying{std::move(q), started});
        }
        // Wait for the sockets, the next query's slot or the nearest deadline.
        int64_t wake = now_us() + kMaxWaitUs;
        if (next < ids.size() && flying.size() < cap) wake = std::min(wake, slot_us(next));
        // The switch's own descriptors first: discovery and acknowledgements
        // go on during the sweep.
        fds.clear();
        int64_t sw_wake_ms = INT64_MAX / 1000;
        const size_t own = sw.watch(&fds, &sw_wake_ms);
        wake = std::min(wake, sw_wake_ms * 1000);
        for (const Flying &f : flying) {
            fds.push_back(pollfd{f.q->fd(), f.q->events(), 0});
            wake = std::min(wake, f.q->deadline() * 1000);
        }
        const int64_t left_us = wake - now_us();
        const int wait_ms = left_us > 0 ? static_cast<int>((left_us + 999) / 1000) : 0;
        if (::poll(fds.data(), fds.size(), wait_ms) < 0 && errno != EINTR) break;
        sw.serve(fds.data(), own);
        const int64_t now = now_ms();
        for (size_t i = flying.size(); i-- > 0;) {
            QueryFlight &q = *flying[i].q;
            if (fds[own + i].revents == 0 && now < q.deadline()) continue;
            sw.advance(q);
            if (!q.done()) continue;
            account(q, flying[i].started_us);
            flying[i] = std::move(flying.back());
            flying.pop_back();
        }
    }
    rep.elapsed_us = now_us() - t0;
    std::sort(rep.latency_us.begin(), rep.latency_us.end());
    return rep;
}

}  // namespace omsdk_tools
