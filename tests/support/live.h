// SPDX-License-Identifier: Apache-2.0
// A session on 127.0.0.1 run by its loop on a thread against the test switch
// (127.0.0.2, discovery on a port of its own): by ohmara_svc_startup, or by
// turns that a poll() loop makes (ohmara_svc_open, _getWait, _turn, _close).
#ifndef OMSDK_TEST_LIVE_H
#define OMSDK_TEST_LIVE_H

#include <memory>

#include "endpoint.h"
#include "switch.h"
#include "transport/reception.h"

namespace live_test {

using namespace ep_test;
using loop_net::wait_until;
enum class Mode { Startup, Turns };

// Configure the switch (cfg) and the session (s) between the constructor
// and start(). The switch runs on the test's thread only.
struct Live {
    omsdk_tools::SwitchConfig cfg;
    std::unique_ptr<omsdk_tools::Switch> sw;
    svc_session *s = nullptr;  // valid until the loop has ended
    uint16_t port = 0;         // the endpoint's listener
    const Mode mode;
    std::thread loop;
    std::atomic<bool> done{false}, waiting{false};  // waiting: the turns' poll() waits
    int32_t rc = -1;                                // what the loop's owner returned

    explicit Live(const Bytes &secret = Bytes(), Mode m = Mode::Startup,
                  uint32_t profile = OHMARA_PROFILE_REFERENCE, const char *id = kId)
        : mode(m) {
        cfg.port = 0;  // the system's choice, never the protocol's own
        cfg.secret = secret, cfg.source_addr = inet_addr("127.0.0.2"), cfg.switch_id = kSwitchId;
        cfg.nonce = kSwitchNonce, cfg.io_timeout_ms = 8000;
        std::string why;
        sw = std::make_unique<omsdk_tools::Switch>(cfg);
        if (!sw->start(&why) || sw->udp_port() == kForbiddenPort) return;
        s = new_session(sw->udp_port(), secret, id);
        if (s == nullptr || ohmara_svc_setProfile(s, profile) != 0) return;
        port = ntohs(s->self_addr.sin_port);
    }
    ~Live() {
        if (loop.joinable()) stop();
        if (s != nullptr) omr_svc_cleanup(s);  // never started
        omsdk::set_receive_timeout_ms(5000);
    }
    int32_t status() { return ohmara_svc_getStatus(s); }
    bool start() {  // true once UP
        loop = std::thread([this] {
            if (mode == Mode::Startup) return void((rc = ohmara_svc_startup(s), done = true));
            if (ohmara_svc_open(s) != 0) return void(done = true);
            for (;;) {
                ohmara_wait w;
                ohmara_svc_getWait(s, &w);
                pollfd p[OHMARA_WAIT_MAX_FDS];
                for (int32_t i = 0; i < w.count; ++i) p[i] = {w.fds[i], w.events[i], 0};
                waiting = true;
                poll(p, nfds_t(w.count), w.timeout_ms);
                waiting = false;
                if (ohmara_svc_turn(s) != 1) break;
            }
            rc = ohmara_svc_close(s), done = true;
        });
        return wait_until([this] { return done || status() == OHMARA_STATUS_UP; }) && !done;
    }
    // A loop that does not end aborts the program rather than hang.
    int32_t stop() {
        int32_t r = done ? 0 : ohmara_svc_shutdown(s);
        if (!wait_until([this] { return done.load(); }, 5000)) std::abort();
        loop.join();
        s = nullptr;
        return r;
    }
    bool attached() {  // both sides finish the handshake
        return sw->wait_for([this] { return sw->count_in(omsdk_tools::EndpointState::Active); },
                            3000) &&
               wait_until([this] { return status() == OHMARA_STATUS_ACTIVE; });
    }
    // The level a GET reads; -1 unless acknowledged WILL and answered without error.
    int64_t level() {
        omsdk_tools::QueryResult r = sw->get(kId, {CV_CORVANE_TLV_TYPE_LEVEL_CURRENT}, {});
        auto v = r.values_of(CV_CORVANE_TLV_TYPE_LEVEL_CURRENT);
        return r.will() && r.replied && r.error.empty() && !v.empty() ? v[0].num : -1;
    }
    int connect_from(const char *addr) const {
        int fd = bound_socket(addr, SOCK_STREAM);
        const sockaddr_in to = inet("127.0.0.1", port);
        return connect(fd, reinterpret_cast<const sockaddr *>(&to), sizeof to) == 0 ? fd : -1;
    }
};

}  // namespace live_test

#endif
