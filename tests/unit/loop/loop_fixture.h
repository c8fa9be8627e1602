// Shared pieces of the loop tests: a movable clock, a thread-safe
// application, the loop on a thread of its own, and TCP pokes at the
// endpoint's listener from the switch's address or the endpoint's own.
#ifndef OMSDK_TEST_LOOP_FIXTURE_H
#define OMSDK_TEST_LOOP_FIXTURE_H

#include <arpa/inet.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <cstdlib>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "engine_harness.h"
#include "log_capture.h"
#include "loop_net.h"
#include "service/loop.h"
#include "util/clock.h"

namespace loop_test {

using wire_test::Bytes;

constexpr time_t kStart = 1700000000;

using loop_net::exchange;
using loop_net::set_now;
using loop_net::test_clock;
using loop_net::wait_until;

// ---- an application whose callbacks may run on the loop thread ----------

struct App {
    std::mutex mu;
    std::vector<int32_t> statuses;
    std::atomic<uint32_t> next_seq{1};

    std::vector<int32_t> status_log() {
        std::lock_guard<std::mutex> g(mu);
        return statuses;
    }
    void reset() {
        std::lock_guard<std::mutex> g(mu);
        statuses.clear();
        next_seq = 1;
    }
};

inline App &app() {
    static App a;
    return a;
}

inline uint8_t a_units() { return 1; }
inline uint16_t a_usage() { return 2; }
inline uint32_t a_caliber() { return 3; }
inline uint32_t a_category() { return 1; }
inline uint8_t a_level() { return 5; }
inline int32_t a_set_level(uint8_t) { return 0; }
inline void a_usage_vector(uint16_t *v) { memset(v, 0, 22); }
inline void a_delta_vector(int32_t *v) { memset(v, 0, 44); }
inline uint32_t a_next_sequence() { return app().next_seq++; }
inline void a_modified(int32_t) {}
inline void a_listen_port(uint16_t) {}
inline void a_status(int32_t st) {
    std::lock_guard<std::mutex> g(app().mu);
    app().statuses.push_back(st);
}
inline void a_alarm_reply(int32_t, uint32_t, int32_t) {}

inline svc_callback_registry &app_registry() {
    static svc_callback_registry r = {a_units,        a_usage,         a_caliber,   a_category,
                                      a_level,        a_set_level,     a_usage_vector,
                                      a_delta_vector, a_next_sequence, a_modified,
                                      a_listen_port,  a_status,        a_alarm_reply};
    return r;
}

// ---- connections to the endpoint's listener -----------------------------

inline uint16_t listen_port(const svc_session *s) { return ntohs(s->self_addr.sin_port); }

// ---- the loop on its own thread -------------------------------------------

// Runs omr_svc_loop; the session stays the test's. Stopping shuts the loop
// down and gives it a bounded time to end; a loop that does not end aborts
// the test program rather than hang it.
class LoopThread {
public:
    explicit LoopThread(svc_session *s) : s_(s) {}
    ~LoopThread() { stop(); }
    LoopThread(const LoopThread &) = delete;
    LoopThread &operator=(const LoopThread &) = delete;

    bool start() {
        om_setStatusInitializing(s_);
        t_ = std::thread([this] {
            rc_ = omr_svc_loop(s_);
            done_ = true;
        });
        return wait_until([this] { return ohmara_svc_getStatus(s_) == OHMARA_STATUS_UP; });
    }
    // The result of ohmara_svc_shutdown.
    int32_t stop() {
        if (!t_.joinable()) return 0;
        int32_t r = ohmara_svc_shutdown(s_);
        if (!wait_until([this] { return done_.load(); }, 5000)) {
            ADD_FAILURE() << "the loop did not end after shutdown";
            std::abort();
        }
        t_.join();
        return r;
    }
    bool done() const { return done_.load(); }
    int32_t result() const { return rc_; }

private:
    svc_session *s_;
    std::thread t_;
    std::atomic<bool> done_{false};
    int32_t rc_ = -1;
};

// Lines of waitfor_tcp_connect that open each pass of the loop.
inline size_t passes(const omsdk_test::LogCapture &cap) {
    return cap.count_containing("waitfor_tcp_connect: wait for ");
}

inline std::string last_wait(const omsdk_test::LogCapture &cap) {
    std::string last;
    for (const omsdk_test::LogLine &l : cap.lines())
        if (l.text.rfind("waitfor_tcp_connect: wait for ", 0) == 0) last = l.text;
    return last;
}

inline std::string wait_line(long seconds) {
    return "waitfor_tcp_connect: wait for " + std::to_string(seconds) + " seconds";
}

// The action of a message on the wire (bytes 74-75, big-endian).
inline uint16_t wire_action(const Bytes &m) {
    return m.size() >= 80 ? static_cast<uint16_t>(m[74] << 8 | m[75]) : 0xFFFF;
}

}  // namespace loop_test

#endif
