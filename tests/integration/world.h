// One endpoint and one test switch on loopback. The endpoint (127.0.0.1)
// runs ohmara_svc_startup on a thread of its own; the switch hears its
// broadcasts on 0.0.0.0 at a port of its own and connects from 127.0.0.2.
// The library's clock is moved by the test, never waited for.
#ifndef OMSDK_TEST_INTEGRATION_WORLD_H
#define OMSDK_TEST_INTEGRATION_WORLD_H

#include <gtest/gtest.h>

#include <memory>
#include <thread>

#include "log_capture.h"
#include "loop_net.h"
#include "switch.h"
#include "switch_endpoint.h"
#include "transport/reception.h"
#include "util/clock.h"

namespace it {

using namespace switch_test;
using loop_net::exchange;
using loop_net::set_now;
using loop_net::wait_until;
using omsdk_tools::DecodedPdu;
using omsdk_tools::QueryResult;
constexpr time_t kStart = 1800000000;
const Bytes kSecret = text("shared-secret");

// Fields are the test's to read; the switch and its observer run on the
// test's thread only.
struct World {
    explicit World(const Bytes &endpoint_key = kSecret) {
        omsdk::clock_set_source(loop_net::test_clock);
        omsdk::clock_set_offset(0);
        set_now(kStart);
        omsdk_tools::SwitchConfig c;  // port 0: the system's choice, never the protocol's own
        c.port = 0, c.secret = kSecret, c.source_addr = inet_addr("127.0.0.2");
        c.switch_id = kSwitchId, c.nonce = kSwitchNonce;
        std::string why;
        bool up = false;
        for (int attempt = 0; attempt < 5 && !up; ++attempt) {
            sw = std::make_unique<omsdk_tools::Switch>(c);
            up = sw->start(&why) && sw->udp_port() != kForbiddenPort;
        }
        if (!up || (s = new_session(sw->udp_port(), endpoint_key)) == nullptr) return;
        port = ntohs(s->self_addr.sin_port);
        sw->set_observer([this](const omsdk_tools::SwitchEvent &ev) {
            using K = omsdk_tools::SwitchEvent::Kind;
            if (ev.kind == K::Error) errors.push_back(ev.text);
            if (ev.pdu == nullptr) return;
            if (ev.kind == K::Sent) sent.push_back(ev.pdu->raw);
            if (ev.kind == K::Received && ev.pdu->hdr.cls == CV_CLASS_DISCOVERY &&
                ev.pdu->hdr.shipment == CV_SHIPMENT_SEND)
                heard.push_back(*ev.pdu);
        });
    }
    ~World() {
        if (!loop.joinable() && s != nullptr) omr_svc_cleanup(s);  // never started
        if (loop.joinable()) stop();
        omsdk::clock_set_source(nullptr);
        omsdk::clock_set_offset(0);
        omsdk::set_receive_timeout_ms(5000);
    }
    bool ok() const { return s != nullptr; }
    int32_t status() { return ohmara_svc_getStatus(s); }

    // Runs ohmara_svc_startup on its thread; true once the status is UP.
    bool start() {
        loop = std::thread([this] { rc = ohmara_svc_startup(s), done = true; });
        return wait_until([this] { return done || status() == OHMARA_STATUS_UP; }) && !done;
    }
    // ohmara_svc_shutdown from this thread; a loop that does not end then
    // aborts the program rather than hang. The session is gone after it.
    int32_t stop() {
        int32_t r = done ? 0 : ohmara_svc_shutdown(s);
        if (!wait_until([this] { return done.load(); }, 5000)) {
            ADD_FAILURE() << "ohmara_svc_startup did not return after shutdown";
            std::abort();
        }
        loop.join();
        s = nullptr;
        return r;
    }
    // The switch hears the endpoint and both sides finish the handshake.
    bool attach() {
        return sw->wait_for([this] { return sw->count_in(omsdk_tools::EndpointState::Active); },
                            3000) &&
               wait_until([this] { return status() == OHMARA_STATUS_ACTIVE; });
    }
    const omsdk_tools::EndpointInfo *endpoint() { return sw->find(kId); }

    // Wakes the loop with an empty connection from the switch's address.
    bool poke() { return exchange("127.0.0.2", port, Bytes()); }
    // Wakes the loop and waits until it waits for a connection again, so
    // that whatever comes next is handled in a pass of its own.
    bool idle(const omsdk_test::LogCapture &cap) {
        return poke() && wait_until([&] {
                   auto lines = cap.lines();
                   return !lines.empty() &&
                          lines.back().text.rfind("waitfor_tcp_connect: wait for ", 0) == 0;
               });
    }
    // Moves the clock once the loop is done with what was sent before (a
    // pass that reads the clock while it moves would see the new time).
    bool tick(time_t seconds) { return poke() && (loop_net::advance(seconds), poke()); }
    // Polls the switch until it has heard `n` discovery datagrams in all.
    bool hear(size_t n) {
        return sw->wait_for([&] { return heard.size() >= n; }, 3000);
    }

    std::unique_ptr<omsdk_tools::Switch> sw;
    svc_session *s = nullptr;  // valid until the loop has ended
    uint16_t port = 0;         // the endpoint's listener
    std::thread loop;
    std::atomic<bool> done{false};
    int32_t rc = -1;  // what ohmara_svc_startup returned
    std::vector<DecodedPdu> heard;  // discovery events the switch heard
    std::vector<Bytes> sent;        // messages the switch sent
    std::vector<std::string> errors;
};

}  // namespace it

#endif
