// SPDX-License-Identifier: Apache-2.0
// Tests against an endpoint on loopback: messages written byte by byte
// from the wire layout and signed with OpenSSL's HMAC, the application behind
// the session, and a movable clock and bounded waits for its loop.
#ifndef OMSDK_TEST_ENDPOINT_H
#define OMSDK_TEST_ENDPOINT_H

#include <arpa/inet.h>
#include <dirent.h>
#include <errno.h>
#include <poll.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <functional>
#include <mutex>
#include <numeric>
#include <string>
#include <thread>
#include <tuple>
#include <vector>

#include <gtest/gtest.h>
#include <omsdk.h>
#include <omsdk/enums.h>

#include "engine/intake.h"
#include "log_capture.h"
#include "session/session.h"
#include "util/clock.h"
#include "wire_test_util.h"

namespace switch_test {

using namespace wire_test;
using omsdk_test::QuietLog;

constexpr char kId[] = "0123456789abcdef0123456789abcdef";  // the endpoint
constexpr char kSwitchId[] = "fedcba9876543210fedcba9876543210";
constexpr uint32_t kSwitchNonce = 0x5eed1234;
constexpr uint16_t kForbiddenPort = 43440;  // the protocol's own; never in tests

// A message from `id32` carrying `tlvs`, signed with `key` (comm 1).
inline Bytes message(uint32_t seq, const char *id32, int8_t shipment, uint8_t pri, uint8_t cls,
                     uint16_t action, const std::vector<Bytes> &tlvs, const Bytes &key) {
    return frame(id32, seq, shipment, pri, cls, action, 1, uint16_t(tlvs.size()), cat(tlvs), key);
}

// The switch's acknowledgement of discovery (ACK_WILL, its nonce 0x5eed5eed),
// naming 127.0.0.1:parent_port as its own address.
inline Bytes switch_ack(uint16_t parent_port, const Bytes &secret = text(kId)) {
    const Bytes reply_to = cat({hex("0002"), be16(parent_port), hex("7f000001"), Bytes(8, 0)});
    return message(500, kSwitchId, CV_SHIPMENT_ACK_WILL, 100, CV_CLASS_DISCOVERY,
                   CV_ACTION_KVQR_CORVANE_DISCOVERY_DISCOVERY_UPDATE,
                   {tlv(CV_CORVANE_TLV_TYPE_REPLY_TO, reply_to),
                    tlv(CV_CORVANE_TLV_TYPE_NONCE, hex("5eed5eed"))},
                   secret);
}

// ---- the application ----
using Reply = std::tuple<int32_t, uint32_t, int32_t>;  // an alarm's id, type, success

struct App {
    std::mutex mu;
    std::vector<int32_t> statuses, levels_set;
    std::vector<Reply> replies;
    std::atomic<uint8_t> level{4};
    std::atomic<uint32_t> seq{100};
    std::atomic<int> listen_port{-1};
    template <typename T>
    T copy(const T &v) {
        std::lock_guard<std::mutex> g(mu);
        return v;
    }
    template <typename T>
    void add(std::vector<T> &v, const T &x) {
        std::lock_guard<std::mutex> g(mu);
        v.push_back(x);
    }
};
inline App the_app;
inline App &app() { return the_app; }

inline svc_callback_registry &registry() {
    static svc_callback_registry r = [] {
        svc_callback_registry x{};
        x.get_units = [] { return uint8_t{2}; };
        x.get_usage = [] { return uint16_t{120}; };
        x.get_usage_caliber = [] { return uint32_t{1}; };
        x.get_usage_category = [] { return uint32_t{1}; };
        x.get_level = [] { return app().level.load(); };
        x.set_level = [](uint8_t l) {
            return app().add(app().levels_set, int32_t{l}), app().level = l, 0;
        };
        x.get_usage_vector = [](uint16_t *v) { std::iota(v, v + 11, uint16_t{1}); };
        x.get_delta_vector = [](int32_t *v) { std::fill(v, v + 11, 0); };
        x.next_sequence = [] { return app().seq++; };
        x.attribute_modified = [](int32_t) {};
        x.listen_port_notify = [](uint16_t p) { app().listen_port = p; };
        x.status_changed = [](int32_t st) { app().add(app().statuses, st); };
        x.alarm_reply = [](int32_t id, uint32_t t, int32_t ok) {
            app().add(app().replies, {id, t, ok});
        };
        return x;
    }();
    return r;
}

// ohmara_svc_create without its report of the keys it set on stdout.
inline svc_session *create_quietly(const char *addr, const char *id = kId, const Bytes &key = {},
                                   uint16_t listen = 0, uint16_t port = 47311) {
    testing::internal::CaptureStdout();
    svc_session *s = ohmara_svc_create(addr, port, id, key.empty() ? nullptr : key.data(),
                                       int32_t(key.size()), listen);
    testing::internal::GetCapturedStdout();
    return s;
}

// A configured session on 127.0.0.1 for the discovery port `port` (its
// listener never on the protocol's own port), with a fresh application.
inline svc_session *new_session(uint16_t port, const Bytes &key, const char *id = kId) {
    app().statuses.clear(), app().levels_set.clear(), app().replies.clear();  // no loop runs now
    app().level = 4, app().seq = 100, app().listen_port = -1;
    for (int attempt = 0; attempt < 5; ++attempt) {
        svc_session *s = create_quietly("127.0.0.1", id, key, 0, port);
        if (s != nullptr && ntohs(s->self_addr.sin_port) != kForbiddenPort) {
            ohmara_svc_configIdentity(s, "dom", "lamp-1", "light", "floor2,desk", "bulb", 40);
            ohmara_svc_configRegistry(s, &registry());
            return s;
        }
        if (s != nullptr) omr_svc_cleanup(s);
    }
    return nullptr;
}

}  // namespace switch_test

// ---- sockets that give up in time, and a session to test against ----
namespace ep_test {

using namespace switch_test;

// Descriptors this process holds (the count includes the directory's own).
inline int open_fds() {
    int n = 0;
    DIR *d = opendir("/proc/self/fd");
    while (d != nullptr && readdir(d) != nullptr) ++n;
    if (d != nullptr) closedir(d);
    return n;
}
using omsdk_test::LogCapture;
using omsdk_test::QuietLog;

struct Fd {
    int fd;
    explicit Fd(int f = -1) : fd(f) {}
    ~Fd() {
        if (fd >= 0) close(fd);
    }
    Fd(const Fd &) = delete;
    Fd &operator=(const Fd &) = delete;
};

inline sockaddr_in inet(const char *addr, uint16_t port = 0) {
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_port = htons(port);
    a.sin_addr.s_addr = inet_addr(addr);
    return a;
}
inline uint16_t bound_port(int fd) {
    sockaddr_in a{};
    socklen_t len = sizeof a;
    getsockname(fd, reinterpret_cast<sockaddr *>(&a), &len);
    return ntohs(a.sin_port);
}
// A socket bound to addr:0 (never the protocol's own port) whose reads and
// writes give up after 2 s; -1 on failure.
inline int bound_socket(const char *addr, int type = SOCK_DGRAM) {
    for (int attempt = 0; attempt < 5; ++attempt) {
        int fd = socket(AF_INET, type, 0);
        sockaddr_in a = inet(addr);
        timeval tv{2, 0};
        setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof tv);
        setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &tv, sizeof tv);
        if (bind(fd, reinterpret_cast<sockaddr *>(&a), sizeof a) == 0 &&
            bound_port(fd) != kForbiddenPort)
            return fd;
        close(fd);
    }
    return -1;
}
// Loopback delivers before sendto() returns: a short look tells "nothing".
inline bool nothing_pending(int fd, int timeout_ms = 50) {
    pollfd p{fd, POLLIN, 0};
    return poll(&p, 1, timeout_ms) == 0;
}
inline bool recv_datagram(int fd, Bytes *out = nullptr, int timeout_ms = 1000,
                          sockaddr_in *from = nullptr) {
    uint8_t buf[2048];
    socklen_t len = sizeof *from;
    ssize_t n = nothing_pending(fd, timeout_ms)
                    ? -1
                    : recvfrom(fd, buf, sizeof buf, MSG_DONTWAIT,
                               reinterpret_cast<sockaddr *>(from), from ? &len : nullptr);
    if (n >= 0 && out != nullptr) out->assign(buf, buf + n);
    return n >= 0;
}
// The action of a message on the wire (bytes 74-75), or 0xFFFF.
inline uint16_t wire_action(const Bytes &m) {
    return m.size() >= 80 ? static_cast<uint16_t>(m[74] << 8 | m[75]) : 0xFFFF;
}

// A configured session on 127.0.0.1 without a key (its identifier signs
// discovery); its broadcasts reach `bcast`, and `parent` on 127.0.0.1 serves
// as the switch's own discovery address.
struct Endpoint {
    Fd bcast{bound_socket("0.0.0.0")}, parent{bound_socket("127.0.0.1")};
    svc_session *s = new_session(bound_port(bcast.fd), Bytes());

    Endpoint() {
        if (s == nullptr) {  // nothing after this could run
            ADD_FAILURE() << "no session";
            abort();
        }
    }
    ~Endpoint() {
        omsdk::free_neighbor_tree(s->neighbor);
        free(s->pending_head);
        omr_svc_cleanup(s);
        omsdk::clock_set_source(nullptr);
    }
    uint16_t listen_port() const { return ntohs(s->self_addr.sin_port); }
    // ACTIVE, with the parent listener as the switch's address.
    void active() {
        om_setStatusInitializing(s);
        om_setStatusUp(s);
        om_setStatusActive(s);
        s->parent_addr = inet("127.0.0.1", bound_port(parent.fd));
    }
    // The switch's acknowledgement of discovery, naming the parent listener.
    Bytes ack() const { return switch_ack(bound_port(parent.fd)); }
};

}  // namespace ep_test

// ---- the loop on a thread: a movable clock, bounded waits, connections ----
namespace loop_net {

using wire_test::Bytes;

// The time the library reads once clock_set_source(test_clock) is set.
inline std::atomic<time_t> now{0};
inline time_t test_clock() { return now.load(); }
inline void set_now(time_t t) { now.store(t); }
inline void advance(time_t seconds) { now += seconds; }

inline bool wait_until(const std::function<bool()> &pred, int timeout_ms = 3000) {
    auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeout_ms);
    while (!pred()) {
        if (std::chrono::steady_clock::now() > end) return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return true;
}

// From `src` to 127.0.0.1:port: sends `msg`, half-closes (unless `hold`: a
// slow peer), reads until the endpoint closes (each read bounded). The loop
// serves one connection at a time, so true means it is done with this one
// and all before it.
inline bool exchange(const char *src, uint16_t port, const Bytes &msg, bool hold = false) {
    const int fd = ep_test::bound_socket(src, SOCK_STREAM);
    const sockaddr_in to = ep_test::inet("127.0.0.1", port);
    if (connect(fd, reinterpret_cast<const sockaddr *>(&to), sizeof to) != 0)
        return close(fd), false;
    bool sent = msg.empty() ||
                send(fd, msg.data(), msg.size(), MSG_NOSIGNAL) == static_cast<ssize_t>(msg.size());
    if (!hold) shutdown(fd, SHUT_WR);
    timeval tv{3, 0};
    setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof tv);
    uint8_t buf[2048];
    ssize_t n = -1;
    while (sent && (n = recv(fd, buf, sizeof buf, 0)) > 0) {
    }
    close(fd);
    return sent && (n == 0 || errno != EAGAIN);  // closed or reset, not timed out
}

}  // namespace loop_net

#endif
