// One endpoint and one test switch on loopback. The endpoint (127.0.0.1)
// runs ohmara_svc_startup on a thread of its own; the switch hears its
// broadcasts on 0.0.0.0 at a port of this test's own and connects from
// 127.0.0.2. The library's clock is moved by the test, never waited for.
#ifndef OMSDK_TEST_INTEGRATION_WORLD_H
#define OMSDK_TEST_INTEGRATION_WORLD_H

#include <arpa/inet.h>
#include <dirent.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "log_capture.h"
#include "loop_net.h"
#include "omsdk.h"
#include "service/session.h"
#include "switch.h"
#include "transport/reception.h"
#include "util/clock.h"

namespace it {

using omsdk_tools::Bytes;

constexpr char kId[] = "00112233445566778899aabbccddeeff";
constexpr char kSwitchId[] = "ffeeddccbbaa99887766554433221100";
constexpr uint32_t kSwitchNonce = 0x600DF00D;
constexpr time_t kStart = 1800000000;
constexpr uint16_t kForbiddenPort = 43440;  // the protocol's own; never in tests

inline const Bytes &secret() {
    static const Bytes k = {'s', 'h', 'a', 'r', 'e', 'd', '-', 's', 'e', 'c', 'r',
                            'e', 't', '-', '0', '1', '2', '3', '4', '5'};
    return k;
}

// ---- the clock and connections ---------------------------------------------

using loop_net::advance;
using loop_net::exchange;
using loop_net::set_now;
using loop_net::test_clock;
using loop_net::wait_until;

// ---- the application ---------------------------------------------------

struct Reply {
    int32_t id;
    uint32_t type;
    int32_t ok;
    bool operator==(const Reply &o) const { return id == o.id && type == o.type && ok == o.ok; }
};

struct App {
    std::mutex mu;
    std::vector<int32_t> statuses;
    std::vector<Reply> replies;
    std::vector<uint8_t> levels_set;
    std::atomic<uint8_t> level{7};
    std::atomic<uint32_t> seq{1000};
    std::atomic<int> listen_port{-1};

    template <typename T>
    std::vector<T> copy(const std::vector<T> &v) {
        std::lock_guard<std::mutex> g(mu);
        return v;
    }
    void reset() {
        std::lock_guard<std::mutex> g(mu);
        statuses.clear();
        replies.clear();
        levels_set.clear();
        level = 7;
        seq = 1000;
        listen_port = -1;
    }
};

inline App &app() {
    static App a;
    return a;
}

inline svc_callback_registry &app_registry() {
    static svc_callback_registry r = [] {
        svc_callback_registry x{};
        x.get_units = [] { return uint8_t{2}; };
        x.get_usage = [] { return uint16_t{1234}; };
        x.get_usage_caliber = [] { return uint32_t{10}; };
        x.get_usage_category = [] { return uint32_t{1}; };
        x.get_level = [] { return app().level.load(); };
        x.set_level = [](uint8_t l) {
            {
                std::lock_guard<std::mutex> g(app().mu);
                app().levels_set.push_back(l);
            }
            app().level = l;
            return int32_t{0};
        };
        x.get_usage_vector = [](uint16_t *v) { memset(v, 0, 22); };
        x.get_delta_vector = [](int32_t *v) { memset(v, 0, 44); };
        x.next_sequence = [] { return app().seq++; };
        x.attribute_modified = [](int32_t) {};
        x.listen_port_notify = [](uint16_t p) { app().listen_port = p; };
        x.status_changed = [](int32_t st) {
            std::lock_guard<std::mutex> g(app().mu);
            app().statuses.push_back(st);
        };
        x.alarm_reply = [](int32_t id, uint32_t type, int32_t ok) {
            std::lock_guard<std::mutex> g(app().mu);
            app().replies.push_back({id, type, ok});
        };
        return x;
    }();
    return r;
}

// ---- the world ---------------------------------------------------------

class World {
public:
    World() {
        omsdk::clock_set_source(test_clock);
        omsdk::clock_set_offset(0);
        set_now(kStart);
        app().reset();
        // A port of our own for discovery, never the protocol's default.
        for (int attempt = 0; attempt < 5 && sw_ == nullptr; ++attempt) {
            omsdk_tools::SwitchConfig cfg;
            cfg.bind_addr = 0;  // hears broadcasts
            cfg.port = 0;
            cfg.secret = secret();
            cfg.source_addr = inet_addr("127.0.0.2");
            cfg.switch_id = kSwitchId;
            cfg.nonce = kSwitchNonce;
            auto sw = std::make_unique<omsdk_tools::Switch>(cfg);
            std::string why;
            if (sw->start(&why) && sw->udp_port() != kForbiddenPort) sw_ = std::move(sw);
        }
        if (sw_ == nullptr) return;
        sw_->set_observer([this](const omsdk_tools::SwitchEvent &ev) { observe(ev); });
        for (int attempt = 0; attempt < 5 && s_ == nullptr; ++attempt) {
            svc_session *s = ohmara_svc_create("127.0.0.1", sw_->udp_port(), kId, secret().data(),
                                               static_cast<int32_t>(secret().size()), 0);
            if (s == nullptr) continue;
            if (ntohs(s->self_addr.sin_port) == kForbiddenPort) {
                omr_svc_cleanup(s);
                continue;
            }
            s_ = s;
        }
        if (s_ == nullptr) return;
        listen_port_ = ntohs(s_->self_addr.sin_port);
        ohmara_svc_configIdentity(s_, "lab", "lamp-1", "lamp", "a,b", "bulb", 10);
        ohmara_svc_configRegistry(s_, &app_registry());
    }
    ~World() {
        stop();
        if (s_ != nullptr && !started_) omr_svc_cleanup(s_);
        omsdk::clock_set_source(nullptr);
        omsdk::clock_set_offset(0);
        omsdk::set_receive_timeout_ms(5000);
    }
    World(const World &) = delete;
    World &operator=(const World &) = delete;

    bool ok() const { return sw_ != nullptr && s_ != nullptr; }
    omsdk_tools::Switch &sw() { return *sw_; }
    // Valid until the loop has ended.
    svc_session *s() { return s_; }
    uint16_t listen_port() const { return listen_port_; }
    int32_t status() { return ohmara_svc_getStatus(s_); }

    // Runs ohmara_svc_startup on its thread; true once the status is UP.
    bool start() {
        started_ = true;
        loop_ = std::thread([this] {
            rc_ = ohmara_svc_startup(s_);
            done_ = true;
        });
        return wait_until([this] { return done_ || status() == OHMARA_STATUS_UP; }) && !done_;
    }
    // ohmara_svc_shutdown from this thread; waits (bounded) for startup to
    // return. A loop that does not end aborts the program rather than hang.
    int32_t stop() {
        if (!loop_.joinable()) return 0;
        int32_t r = done_ ? 0 : ohmara_svc_shutdown(s_);
        if (!wait_until([this] { return done_.load(); }, 5000)) {
            ADD_FAILURE() << "ohmara_svc_startup did not return after shutdown";
            std::abort();
        }
        loop_.join();
        return r;
    }
    bool ended() const { return done_.load(); }
    int32_t startup_result() const { return rc_; }

    // The switch hears the endpoint and both sides finish the handshake.
    bool attach(int timeout_ms = 3000) {
        return sw_->wait_for(
                   [this] {
                       const omsdk_tools::EndpointInfo *e = sw_->find(kId);
                       return e != nullptr && e->state == omsdk_tools::EndpointState::Active;
                   },
                   timeout_ms) &&
               wait_until([this] { return status() == OHMARA_STATUS_ACTIVE; });
    }
    const omsdk_tools::EndpointInfo *endpoint() { return sw_->find(kId); }

    // Wakes the loop with an empty connection from the switch's address, so
    // that it looks at its timers again.
    bool poke() { return exchange("127.0.0.2", listen_port_, Bytes()); }
    // Wakes the loop and waits until it is back waiting for a connection
    // (its last line is the wait's), so that whatever comes next is handled
    // in a pass of its own. Needs the loop's DEBUG lines.
    bool idle(const omsdk_test::LogCapture &cap) {
        if (!poke()) return false;
        return wait_until([&] {
            std::vector<omsdk_test::LogLine> lines = cap.lines();
            return !lines.empty() &&
                   lines.back().text.rfind("waitfor_tcp_connect: wait for ", 0) == 0;
        });
    }
    // Moves the clock only once the loop is done with everything already
    // sent to it (a pass that reads the clock while it moves would see the
    // new time), then wakes it.
    bool tick(time_t seconds) {
        if (!poke()) return false;
        advance(seconds);
        return poke();
    }

    // Discovery datagrams the switch has heard, in order.
    std::vector<omsdk_tools::DecodedPdu> heard() {
        std::lock_guard<std::mutex> g(mu_);
        return heard_;
    }
    size_t heard_count() {
        std::lock_guard<std::mutex> g(mu_);
        return heard_.size();
    }
    // Messages the switch sent (acknowledgements, queries, deletes).
    std::vector<Bytes> sent_raw() {
        std::lock_guard<std::mutex> g(mu_);
        return sent_;
    }
    std::vector<std::string> errors() {
        std::lock_guard<std::mutex> g(mu_);
        return errors_;
    }
    // Whether switch events are kept (off for long runs).
    void record(bool on) { record_ = on; }
    // Polls the switch until it has heard `n` discovery datagrams in all.
    bool hear(size_t n, int timeout_ms = 3000) {
        return sw_->wait_for([&] { return heard_count() >= n; }, timeout_ms);
    }

private:
    void observe(const omsdk_tools::SwitchEvent &ev) {
        if (!record_) return;
        std::lock_guard<std::mutex> g(mu_);
        using K = omsdk_tools::SwitchEvent::Kind;
        if (ev.kind == K::Received && ev.pdu != nullptr &&
            ev.pdu->hdr.cls == CV_CLASS_DISCOVERY && ev.pdu->hdr.shipment == CV_SHIPMENT_SEND)
            heard_.push_back(*ev.pdu);
        if (ev.kind == K::Sent && ev.pdu != nullptr) sent_.push_back(ev.pdu->raw);
        if (ev.kind == K::Error) errors_.push_back(ev.text);
    }

    std::unique_ptr<omsdk_tools::Switch> sw_;
    svc_session *s_ = nullptr;
    uint16_t listen_port_ = 0;
    bool started_ = false;
    std::thread loop_;
    std::atomic<bool> done_{false};
    int32_t rc_ = -1;
    std::mutex mu_;
    std::vector<omsdk_tools::DecodedPdu> heard_;
    std::vector<Bytes> sent_;
    std::vector<std::string> errors_;
    bool record_ = true;
};

// ---- process resources, for the soak ------------------------------------

inline long open_fds() {
    long n = 0;
    if (DIR *d = opendir("/proc/self/fd")) {
        while (readdir(d) != nullptr) ++n;
        closedir(d);
    }
    return n;
}

inline long rss_kib() {
    FILE *f = fopen("/proc/self/status", "r");
    if (f == nullptr) return -1;
    char line[256];
    long kib = -1;
    while (fgets(line, sizeof line, f) != nullptr)
        if (sscanf(line, "VmRSS: %ld kB", &kib) == 1) break;
    fclose(f);
    return kib;
}

}  // namespace it

#endif
