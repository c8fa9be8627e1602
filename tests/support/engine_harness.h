// Test harness for the protocol engine: a real session on loopback with
// recording callbacks, listeners for what the endpoint sends, and messages
// "from the switch" built through the wire functions and signed with an
// independent HMAC.
#ifndef OMSDK_TEST_ENGINE_HARNESS_H
#define OMSDK_TEST_ENGINE_HARNESS_H

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <unistd.h>

#include <functional>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include <omsdk/event.h>
#include <omsdk/pdu.h>

#include "engine/intake.h"
#include "engine/request.h"
#include "service/session.h"
#include "util/clock.h"
#include "wire_test_util.h"

namespace engine_test {

using wire_test::Bytes;

constexpr char kId[] = "0123456789abcdef0123456789abcdef";     // the endpoint
constexpr char kSwitchId[] = "fedcba9876543210fedcba9876543210";  // the switch

// ---- the application's side -------------------------------------------

struct AlarmReply {
    int32_t id;
    uint32_t type;
    int32_t ok;
};

struct Device {
    uint8_t units = 0;
    uint16_t usage = 0;
    uint32_t caliber = 0;
    uint32_t category = 0;
    uint8_t level = 0;
    uint32_t next_seq = 1;
    uint16_t usage_vector[11] = {};
    int32_t delta_vector[11] = {};
    int calls = 0;  // value callbacks called
    std::vector<AlarmReply> alarm_replies;
    std::vector<int32_t> statuses;
};

inline Device &dev() {
    static Device d;
    return d;
}

inline uint8_t cb_units() { ++dev().calls; return dev().units; }
inline uint16_t cb_usage() { ++dev().calls; return dev().usage; }
inline uint32_t cb_caliber() { ++dev().calls; return dev().caliber; }
inline uint32_t cb_category() { ++dev().calls; return dev().category; }
inline uint8_t cb_level() { ++dev().calls; return dev().level; }
inline int32_t cb_set_level(uint8_t) { return 0; }
inline void cb_usage_vector(uint16_t *v) { ++dev().calls; memcpy(v, dev().usage_vector, 22); }
inline void cb_delta_vector(int32_t *v) { ++dev().calls; memcpy(v, dev().delta_vector, 44); }
inline uint32_t cb_next_sequence() { ++dev().calls; return dev().next_seq++; }
inline void cb_attribute_modified(int32_t) {}
inline void cb_listen_port(uint16_t) {}
inline void cb_status(int32_t st) { dev().statuses.push_back(st); }
inline void cb_alarm_reply(int32_t id, uint32_t type, int32_t ok) {
    dev().alarm_replies.push_back({id, type, ok});
}

inline svc_callback_registry &registry() {
    static svc_callback_registry r = {cb_units,         cb_usage,        cb_caliber,
                                      cb_category,      cb_level,        cb_set_level,
                                      cb_usage_vector,  cb_delta_vector, cb_next_sequence,
                                      cb_attribute_modified, cb_listen_port, cb_status,
                                      cb_alarm_reply};
    return r;
}

// A fixed clock so that last-heard times are exact.
constexpr time_t kNow = 1700000000;
inline time_t fixed_clock() { return kNow; }

// ---- sockets -----------------------------------------------------------

inline uint16_t bound_port(int fd) {
    sockaddr_in a{};
    socklen_t len = sizeof a;
    getsockname(fd, reinterpret_cast<sockaddr *>(&a), &len);
    return ntohs(a.sin_port);
}

// A UDP socket bound to addr:0.
inline int udp_listener(const char *addr) {
    int fd = socket(AF_INET, SOCK_DGRAM, 0);
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_addr.s_addr = inet_addr(addr);
    if (bind(fd, reinterpret_cast<sockaddr *>(&a), sizeof a) != 0) {
        close(fd);
        return -1;
    }
    return fd;
}

// Next datagram within timeout_ms, or false.
inline bool recv_datagram(int fd, Bytes *out, int timeout_ms = 1000) {
    pollfd p{fd, POLLIN, 0};
    if (poll(&p, 1, timeout_ms) != 1) return false;
    uint8_t buf[2048];
    ssize_t n = recv(fd, buf, sizeof buf, MSG_DONTWAIT);
    if (n < 0) return false;
    out->assign(buf, buf + n);
    return true;
}

// Loopback delivery is done by the time sendto() returns, so a short look
// is enough to tell that nothing was sent.
inline bool nothing_pending(int fd, int timeout_ms = 50) {
    pollfd p{fd, POLLIN, 0};
    return poll(&p, 1, timeout_ms) == 0;
}

// ---- reading what the endpoint sent -------------------------------------

struct WireTlv {
    uint32_t type;
    Bytes value;
};

// The TLVs of a message as written on the wire (no library decoding).
inline std::vector<WireTlv> wire_tlvs(const Bytes &msg) {
    std::vector<WireTlv> out;
    size_t at = 80;
    while (at + 12 <= msg.size()) {
        uint32_t type = (uint32_t{msg[at]} << 24) | (msg[at + 1] << 16) | (msg[at + 2] << 8) |
                        msg[at + 3];
        uint32_t len = (uint32_t{msg[at + 4]} << 24) | (msg[at + 5] << 16) |
                       (msg[at + 6] << 8) | msg[at + 7];
        if (len < 12 || at + len > msg.size()) break;
        out.push_back({type, Bytes(msg.begin() + at + 12, msg.begin() + at + len)});
        at += len;
    }
    return out;
}

inline std::vector<uint32_t> types_of(const std::vector<WireTlv> &tlvs) {
    std::vector<uint32_t> t;
    for (const WireTlv &x : tlvs) t.push_back(x.type);
    return t;
}

inline const WireTlv *find_tlv(const std::vector<WireTlv> &tlvs, uint32_t type) {
    for (const WireTlv &x : tlvs)
        if (x.type == type) return &x;
    return nullptr;
}

// True when bytes 12..31 hold HMAC-SHA1(key, bytes 32..end).
inline bool signed_with(const Bytes &msg, const Bytes &key) {
    if (msg.size() < 80) return false;
    Bytes d = wire_test::openssl_hmac(key, msg.data() + 32, msg.size() - 32);
    return memcmp(d.data(), msg.data() + 12, 20) == 0;
}

inline Bytes be32(uint32_t v) {
    return {static_cast<uint8_t>(v >> 24), static_cast<uint8_t>(v >> 16),
            static_cast<uint8_t>(v >> 8), static_cast<uint8_t>(v)};
}

// The nonce key as the switch derives it: HMAC-SHA1 keyed with the 4-byte
// seed (local XOR remote, big-endian) over the secret.
inline Bytes nonce_key(uint32_t local, uint32_t remote, const Bytes &secret) {
    Bytes seed = be32(local ^ remote);
    return wire_test::openssl_hmac(seed, secret.data(), secret.size());
}

// ---- messages from the switch ------------------------------------------

inline void add_reply_to(cv_event *ev, const char *addr, uint16_t port) {
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_port = htons(port);
    a.sin_addr.s_addr = inet_addr(addr);
    cv_add_tlv(ev, CV_CORVANE_TLV_TYPE_REPLY_TO, 12 + 16, &a);
}

inline void add_nonce(cv_event *ev, uint32_t nonce) {
    cv_add_tlv(ev, CV_CORVANE_TLV_TYPE_NONCE, 12 + 4, &nonce);
}

inline void add_alarm_answer(cv_event *ev, int32_t id, int32_t status) {
    cv_alarm a{};
    a.id = id;
    a.operation = status;
    cv_add_tlv(ev, CV_CORVANE_TLV_TYPE_ALARM, 12 + 16, &a);
}

// Builds a message with the wire functions and signs it with OpenSSL.
inline Bytes message(int8_t shipment, uint8_t cls, uint16_t action, uint32_t seq,
                     const std::function<void(cv_event *)> &fill, const Bytes &key,
                     const char *sender = kSwitchId, uint8_t pri = 100) {
    cv_event *ev = corvane_create_my_packet();
    if (fill) fill(ev);
    omr_createPdu(ev, pri, shipment, cls, action, reinterpret_cast<const uint8_t *>(sender), seq,
                  nullptr, 1);
    Bytes b = wire_test::raw_of(ev);
    omsdk::event_release(ev);
    wire_test::sign(b, key);
    return b;
}

inline void deliver(svc_session *s, const Bytes &msg) {
    omr_processMsg(s, msg.data(), static_cast<int32_t>(msg.size()));
}

// ---- the endpoint --------------------------------------------------------

// A configured session on 127.0.0.1 whose protocol port is that of a UDP
// listener on 0.0.0.0 (where its broadcasts arrive), and a second listener
// on 127.0.0.1 that serves as the parent switch's discovery address.
struct Endpoint {
    svc_session *s = nullptr;
    int bcast = -1;
    uint16_t port = 0;
    int parent = -1;
    uint16_t parent_port = 0;
    Bytes secret;  // what discovery is signed with

    explicit Endpoint(const Bytes &key = Bytes()) {
        dev() = Device();
        omsdk::clock_set_source(fixed_clock);
        bcast = udp_listener("0.0.0.0");
        port = bound_port(bcast);
        parent = udp_listener("127.0.0.1");
        parent_port = bound_port(parent);
        s = ohmara_svc_create("127.0.0.1", port, kId, key.empty() ? nullptr : key.data(),
                              static_cast<int32_t>(key.size()), 0);
        if (s == nullptr) return;
        secret = key.empty() ? Bytes(kId, kId + 32) : key;
        ohmara_svc_configIdentity(s, "dom", "nm", "rl", "k1,k2", "dt", 42);
        ohmara_svc_configRegistry(s, &registry());
        dev().statuses.clear();
    }
    ~Endpoint() {
        if (s != nullptr) {
            omsdk::free_neighbor_tree(s->neighbor);
            free(s->pending_head);
            omr_svc_cleanup(s);
        }
        if (bcast >= 0) close(bcast);
        if (parent >= 0) close(parent);
        omsdk::clock_set_source(nullptr);
    }
    Endpoint(const Endpoint &) = delete;
    Endpoint &operator=(const Endpoint &) = delete;

    void up() {
        om_setStatusInitializing(s);
        om_setStatusUp(s);
        dev().statuses.clear();
    }
    // ACTIVE with the parent listener as the switch's address.
    void active() {
        up();
        om_setStatusActive(s);
        s->parent_addr.sin_family = AF_INET;
        s->parent_addr.sin_port = htons(parent_port);
        s->parent_addr.sin_addr.s_addr = inet_addr("127.0.0.1");
        dev().statuses.clear();
    }
    void queue(uint32_t type, int32_t id, uint32_t seconds, uint8_t p1, uint8_t p2) {
        auto *r = static_cast<async_request *>(calloc(1, sizeof(async_request)));
        r->type = type;
        r->id = id;
        r->seconds = seconds;
        r->alarm_param1 = p1;
        r->alarm_param2 = p2;
        free(s->pending_head);
        s->pending_head = r;
    }
    // The reply-to value the endpoint announces: its listener as 16 bytes,
    // family written as 00 02 (network order).
    Bytes reply_to() const {
        uint16_t p = bound_port(s->listen_sock);
        Bytes b = wire_test::hex("0002");
        b.push_back(static_cast<uint8_t>(p >> 8));
        b.push_back(static_cast<uint8_t>(p));
        Bytes rest = wire_test::hex("7f000001 0000000000000000");
        b.insert(b.end(), rest.begin(), rest.end());
        return b;
    }
};

}  // namespace engine_test

#endif
