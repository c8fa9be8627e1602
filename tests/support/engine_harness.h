// Test harness for the protocol engine: a real session on loopback with
// recording callbacks, listeners for what the endpoint sends (UDP, and a
// TCP switch connection from 127.0.0.2), and messages "from the switch"
// built through the wire functions and signed with an independent HMAC.
#ifndef OMSDK_TEST_ENGINE_HARNESS_H
#define OMSDK_TEST_ENGINE_HARNESS_H

#include <arpa/inet.h>
#include <errno.h>
#include <poll.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <unistd.h>

#include <functional>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include <omsdk/enums.h>
#include <omsdk/event.h>
#include <omsdk/pdu.h>

#include "crypto/hmac_internal.h"
#include "engine/intake.h"
#include "engine/query.h"
#include "session/request.h"
#include "log_capture.h"
#include "session/session.h"
#include "util/clock.h"
#include "wire_test_util.h"

namespace engine_test {

using namespace wire_test;
using omsdk_test::LogCapture;

constexpr char kId[] = "0123456789abcdef0123456789abcdef";        // the endpoint
constexpr char kSwitchId[] = "fedcba9876543210fedcba9876543210";  // the switch

// What the callbacks answer and what they were told. The vectors read on
// the wire as kUsageVectorHex and kDeltaVectorHex.
struct Device {
    uint8_t units = 3, level = 42;
    uint16_t usage = 0x1234;
    uint32_t caliber = 0x01020304, category = 7, next_seq = 1;
    uint16_t usage_vector[11] = {0x0100, 0x0101, 0x0102, 0x0103, 0x0104, 0x0105,
                                 0x0106, 0x0107, 0x0108, 0x0109, 0x010a};
    int32_t delta_vector[11] = {-1, 0, 1, 256, 65536, -2, 7, 8, 9, 10, 0x7fffffff};
    int32_t set_level_result = 0;
    int calls = 0;  // value callbacks called
    std::vector<uint8_t> levels_set;
    std::vector<int32_t> modified;
    std::vector<std::string> alarm_replies;  // "id type ok"
    std::vector<int32_t> statuses;
};
constexpr char kUsageVectorHex[] = "0100 0101 0102 0103 0104 0105 0106 0107 0108 0109 010a";
constexpr char kDeltaVectorHex[] =
    "ffffffff 00000000 00000001 00000100 00010000 fffffffe 00000007 00000008 00000009 0000000a "
    "7fffffff";

inline Device &dev() {
    static Device d;
    return d;
}

inline svc_callback_registry &registry() {
    static svc_callback_registry r = {
        [] { return ++dev().calls, dev().units; },
        [] { return ++dev().calls, dev().usage; },
        [] { return ++dev().calls, dev().caliber; },
        [] { return ++dev().calls, dev().category; },
        [] { return ++dev().calls, dev().level; },
        [](uint8_t level) {
            dev().levels_set.push_back(level);
            if (dev().set_level_result >= 0) dev().level = level;
            return dev().set_level_result;
        },
        [](uint16_t *v) { ++dev().calls, memcpy(v, dev().usage_vector, 22); },
        [](int32_t *v) { ++dev().calls, memcpy(v, dev().delta_vector, 44); },
        [] { return ++dev().calls, dev().next_seq++; },
        [](int32_t a) { dev().modified.push_back(a); },
        [](uint16_t) {},
        [](int32_t st) { dev().statuses.push_back(st); },
        [](int32_t id, uint32_t type, int32_t ok) {
            dev().alarm_replies.push_back(std::to_string(id) + " " + std::to_string(type) + " " +
                                          std::to_string(ok));
        },
    };
    return r;
}
// A fixed clock so that last-heard times are exact.
constexpr time_t kNow = 1700000000;
inline time_t fixed_clock() { return kNow; }
inline uint16_t bound_port(int fd) {
    sockaddr_in a{};
    socklen_t len = sizeof a;
    getsockname(fd, reinterpret_cast<sockaddr *>(&a), &len);
    return ntohs(a.sin_port);
}
inline sockaddr_in inet(const char *addr, uint16_t port = 0) {
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_port = htons(port);
    a.sin_addr.s_addr = inet_addr(addr);
    return a;
}
// A socket of the given type bound to addr:0, or -1.
inline int bound_socket(const char *addr, int type = SOCK_DGRAM) {
    int fd = socket(AF_INET, type, 0);
    sockaddr_in a = inet(addr);
    if (bind(fd, reinterpret_cast<sockaddr *>(&a), sizeof a) == 0) return fd;
    close(fd);
    return -1;
}
// Loopback delivery is done by the time sendto() returns, so a short look
// is enough to tell that nothing was sent.
inline bool nothing_pending(int fd, int timeout_ms = 50) {
    pollfd p{fd, POLLIN, 0};
    return poll(&p, 1, timeout_ms) == 0;
}
// Next datagram within timeout_ms, or false.
inline bool recv_datagram(int fd, Bytes *out, int timeout_ms = 1000) {
    uint8_t buf[2048];
    ssize_t n = nothing_pending(fd, timeout_ms) ? -1 : recv(fd, buf, sizeof buf, MSG_DONTWAIT);
    if (n >= 0) out->assign(buf, buf + n);
    return n >= 0;
}
// v as n big-endian bytes.
inline Bytes be(uint32_t v, int n) {
    Bytes b;
    for (int i = n - 1; i >= 0; --i) b.push_back(static_cast<uint8_t>(v >> (8 * i)));
    return b;
}
inline uint32_t get32(const uint8_t *p) {
    return uint32_t{p[0]} << 24 | uint32_t{p[1]} << 16 | uint32_t{p[2]} << 8 | p[3];
}
struct WireTlv {
    uint32_t type;
    Bytes value;
};
// The TLVs of a message as written on the wire (no library decoding).
inline std::vector<WireTlv> wire_tlvs(const Bytes &msg) {
    std::vector<WireTlv> out;
    for (size_t at = 80; at + 12 <= msg.size();) {
        uint32_t len = get32(&msg[at + 4]);
        if (len < 12 || at + len > msg.size()) break;
        out.push_back({get32(&msg[at]), Bytes(msg.begin() + at + 12, msg.begin() + at + len)});
        at += len;
    }
    return out;
}
inline const WireTlv *find_tlv(const std::vector<WireTlv> &tlvs, uint32_t type) {
    for (const WireTlv &x : tlvs)
        if (x.type == type) return &x;
    return nullptr;
}
inline bool has_tlv(const Bytes &msg, uint32_t type) { return find_tlv(wire_tlvs(msg), type) != nullptr; }
// The value of the first TLV of that type on the wire, or "(none)".
inline Bytes tlv_value(const Bytes &msg, uint32_t type) {
    auto tlvs = wire_tlvs(msg);
    const WireTlv *t = find_tlv(tlvs, type);
    return t ? t->value : Bytes{'(', 'n', 'o', 'n', 'e', ')'};
}
// True when bytes 12..31 hold HMAC-SHA1(key, bytes 32..end).
inline bool signed_with(const Bytes &msg, const Bytes &key) {
    if (msg.size() < 80) return false;
    Bytes d = openssl_hmac(key, msg.data() + 32, msg.size() - 32);
    return memcmp(d.data(), msg.data() + 12, 20) == 0;
}
// The nonce key as the switch derives it: HMAC-SHA1 keyed with the 4-byte
// seed (local XOR remote, big-endian) over the secret.
inline Bytes nonce_key(uint32_t local, uint32_t remote, const Bytes &secret) {
    return openssl_hmac(be(local ^ remote, 4), secret.data(), secret.size());
}

// One TLV to add: the value in memory form, texts with their NUL.
struct T {
    uint32_t type;
    Bytes value;
    bool no_value = false;
    uint32_t qualifier = 0;
};
template <typename V>
T mem(uint32_t type, const V &v, uint32_t qualifier = 0) {
    const uint8_t *p = reinterpret_cast<const uint8_t *>(&v);
    return {type, Bytes(p, p + sizeof v), false, qualifier};
}
inline T text(uint32_t type, const char *t, uint32_t qualifier = 0) {
    return {type, Bytes(t, t + strlen(t) + 1), false, qualifier};
}
inline T u8(uint32_t type, uint8_t v) { return {type, Bytes{v}}; }
inline T none(uint32_t type) { return {type, {}, true}; }
inline T reply_to(const char *addr, uint16_t port) {
    return mem(CV_CORVANE_TLV_TYPE_REPLY_TO, inet(addr, port));
}
inline T nonce(uint32_t v) { return mem(CV_CORVANE_TLV_TYPE_NONCE, v); }
inline T alarm_answer(int32_t id, int32_t status) {
    cv_alarm a{};
    a.id = id;
    a.operation = status;
    return mem(CV_CORVANE_TLV_TYPE_ALARM, a);
}
// The identity selector naming `id` (the endpoint by default).
inline T identity(const char *id = kId) {
    cv_sender_id sid;
    memcpy(sid.id, id, 32);
    sid.value = 1;
    return mem(CV_CORVANE_TLV_TYPE_OHMRZ_ID, sid, 1);
}

inline void add(cv_event *ev, const std::vector<T> &tlvs) {
    for (const T &t : tlvs)
        EXPECT_EQ(0, cv_add_tlv_common(ev, t.type,
                                       static_cast<uint32_t>(12 + (t.no_value ? 0 : t.value.size())),
                                       t.no_value ? nullptr : t.value.data(), t.qualifier));
}
inline void add_reply_to(cv_event *ev, const char *addr, uint16_t p) { add(ev, {reply_to(addr, p)}); }
inline void add_nonce(cv_event *ev, uint32_t v) { add(ev, {nonce(v)}); }
// Builds a message with the wire functions and signs it with OpenSSL.
inline Bytes message(int8_t shipment, uint8_t cls, uint16_t action, uint32_t seq,
                     const std::function<void(cv_event *)> &fill, const Bytes &key,
                     const char *sender = kSwitchId, uint8_t pri = 100) {
    cv_event *ev = corvane_create_my_packet();
    if (fill) fill(ev);
    omr_createPdu(ev, pri, shipment, cls, action, reinterpret_cast<const uint8_t *>(sender), seq,
                  nullptr, 1);
    Bytes b = raw_of(ev);
    omsdk::event_release(ev);
    sign(b, key);
    return b;
}
inline Bytes message(int8_t shipment, uint8_t cls, uint16_t action, uint32_t seq,
                     const std::vector<T> &tlvs, const Bytes &key, const char *sender = kSwitchId,
                     uint8_t pri = 100) {
    return message(shipment, cls, action, seq, [&](cv_event *ev) { add(ev, tlvs); }, key, sender, pri);
}
// The message as the engine receives it: decoded and authenticated.
inline EventPtr decoded(const Bytes &msg, const Bytes &key) {
    KeyCtx k(key);
    int32_t rc = -1;
    EventPtr ev = receive(msg, &k.ctx, &rc);
    EXPECT_EQ(rc, 0);
    EXPECT_EQ(ev->digest_ok, 1u);
    return ev;
}
inline void deliver(svc_session *s, const Bytes &msg) {
    omr_processMsg(s, msg.data(), static_cast<int32_t>(msg.size()));
}

// A configured session on 127.0.0.1 whose protocol port is that of a UDP
// listener on 0.0.0.0 (where its broadcasts arrive), and a second listener
// on 127.0.0.1 that serves as the parent switch's discovery address.
struct Endpoint {
    svc_session *s = nullptr;
    int bcast = -1;
    uint16_t port = 0;
    int parent = -1;
    uint16_t parent_port = 0;
    int sw = -1;   // the switch's end of the TCP connection, once connected
    Bytes secret;  // what discovery is signed with

    explicit Endpoint(const Bytes &key = Bytes()) {
        dev() = Device();
        omsdk::clock_set_source(fixed_clock);
        bcast = bound_socket("0.0.0.0");
        port = bound_port(bcast);
        parent = bound_socket("127.0.0.1");
        parent_port = bound_port(parent);
        s = ohmara_svc_create("127.0.0.1", port, kId, key.empty() ? nullptr : key.data(),
                              static_cast<int32_t>(key.size()), 0);
        if (s == nullptr) {  // nothing below could run: end the program rather than crash
            ADD_FAILURE() << "no session";
            abort();
        }
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
        for (int fd : {bcast, parent, sw})
            if (fd >= 0) close(fd);
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
        s->parent_addr = inet("127.0.0.1", parent_port);
        dev().statuses.clear();
    }
    void queue(uint32_t type, int32_t id, uint32_t seconds = 0, uint8_t p1 = 0, uint8_t p2 = 0) {
        auto *r = static_cast<async_request *>(malloc(sizeof(async_request)));
        *r = async_request{type, id, seconds, p1, p2};
        free(s->pending_head);
        s->pending_head = r;
    }
    // Gives the nonce context a key the test knows, as a handshake would.
    void key_nonce(const Bytes &key) {
        omsdk::hmac_release(&s->nonce_ctx);
        hmac_shainit(&s->nonce_ctx, key.data(), static_cast<uint16_t>(key.size()));
    }
    // The reply-to value the endpoint announces: its listener as 16 bytes,
    // family written as 00 02 (network order).
    Bytes reply_to() const {
        return Builder().h("0002").raw(be(bound_port(s->listen_sock), 2)).h("7f000001 0000000000000000").b;
    }
    // The switch calls from 127.0.0.2; the accepted end becomes the
    // session's connection. Reads on it wait at most 2 s.
    void connect_switch() {
        sw = bound_socket("127.0.0.2", SOCK_STREAM);
        ASSERT_GE(sw, 0);
        timeval tv{2, 0};
        setsockopt(sw, SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof tv);
        sockaddr_in to = inet("127.0.0.1", bound_port(s->listen_sock));
        ASSERT_EQ(0, connect(sw, reinterpret_cast<sockaddr *>(&to), sizeof to));
        pollfd p{s->listen_sock, POLLIN, 0};
        ASSERT_EQ(1, poll(&p, 1, 2000));
        s->tcp_sock = accept(s->listen_sock, nullptr, nullptr);
        ASSERT_GE(s->tcp_sock, 0);
    }
    // One whole message from the connection, or empty after the bounded wait.
    Bytes read_message() {
        Bytes m(80);
        if (recv(sw, m.data(), 80, MSG_WAITALL) != 80) return {};
        size_t rest = m[76] << 8 | m[77];
        m.resize(80 + rest);
        return rest == 0 || recv(sw, &m[80], rest, MSG_WAITALL) == ssize_t(rest) ? m : Bytes();
    }
    // Loopback delivers synchronously: whatever was sent is already here.
    bool nothing_sent() {
        uint8_t b;
        return recv(sw, &b, 1, MSG_DONTWAIT) < 0 && errno == EAGAIN;
    }
};

}  // namespace engine_test

#endif
