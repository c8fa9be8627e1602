// SPDX-License-Identifier: Apache-2.0
// Engine tests without sockets: a session whose output seam appends to a vector, recording
// callbacks, and messages typed by hand from the layout and signed with OpenSSL.
#ifndef OMSDK_TEST_ENGINE_FIXTURE_H
#define OMSDK_TEST_ENGINE_FIXTURE_H

#include <arpa/inet.h>

#include <numeric>
#include <tuple>

#include <gtest/gtest.h>

#include <omsdk/enums.h>

#include "engine/acknowledge.h"
#include "engine/discovery.h"
#include "engine/filter.h"
#include "engine/intake.h"
#include "engine/query.h"
#include "engine/set.h"
#include "log_capture.h"
#include "session/io.h"
#include "session/request.h"
#include "util/clock.h"
#include "wire_test_util.h"

namespace engine_test {

using namespace wire_test;
using omsdk_test::LogCapture;
using Strings = std::vector<std::string>;

constexpr char kId[] = "0123456789abcdef0123456789abcdef";        // the endpoint
constexpr char kSwitchId[] = "fedcba9876543210fedcba9876543210";  // the switch
constexpr char kIdHex[] = "30313233343536373839616263646566 30313233343536373839616263646566 ";
const char kKeyText[] = "the-shared-key-of-all!";  // 22 bytes, read as 20 for nonces
const Bytes kKey(kKeyText, kKeyText + 22);
const Bytes kNonceKey = hex("10111213 14151617 18191a1b 1c1d1e1f 20212223");
constexpr time_t kNow = 1700000000;
constexpr char kSelfHex[] = "0002 1234 7f000001 0000000000000000";  // reply-to 127.0.0.1:0x1234
// What the vector callbacks fill in, as the wire carries it.
constexpr char kUsageVectorHex[] = "0100 0101 0102 0103 0104 0105 0106 0107 0108 0109 010a";
constexpr char kDeltaVectorHex[] = "ffffffff 00000000 00000001 00000100 00010000 fffffffe 00000007 "
                                   "00000008 00000009 0000000a 7fffffff";

// What the callbacks answer and what they were told.
struct Device {  // units 3, usage 0x1234, caliber 0x01020304; refuses levels above 100
    uint8_t level = 42;
    uint32_t category = 7, next_seq = 1;
    int calls = 0;  // value and sequence callbacks
    std::vector<uint8_t> levels_set;
    std::vector<int32_t> modified, statuses;
    Strings alarm_replies;  // "id type ok"
};
inline Device g_device;
inline Device &dev() { return g_device; }
const int32_t kDeltaVector[11] = {-1, 0, 1, 256, 65536, -2, 7, 8, 9, 10, 0x7fffffff};
inline svc_callback_registry g_registry = {
    [] { return ++dev().calls, uint8_t{3}; },
    [] { return ++dev().calls, uint16_t{0x1234}; },
    [] { return ++dev().calls, 0x01020304u; },
    [] { return ++dev().calls, dev().category; },
    [] { return ++dev().calls, dev().level; },
    [](uint8_t l) { return dev().levels_set.push_back(l), l > 100 ? -1 : (dev().level = l, 0); },
    [](uint16_t *v) { ++dev().calls, std::iota(v, v + 11, uint16_t{0x100}); },
    [](int32_t *v) { ++dev().calls, memcpy(v, kDeltaVector, sizeof kDeltaVector); },
    [] { return ++dev().calls, dev().next_seq++; },
    [](int32_t a) { dev().modified.push_back(a); },
    [](uint16_t) {},
    [](int32_t st) { dev().statuses.push_back(st); },
    [](int32_t id, uint32_t type, int32_t ok) {
        dev().alarm_replies.push_back(std::to_string(id) + " " + std::to_string(type) + " " +
                                      std::to_string(ok));
    },
};

// One message the engine sent: a reply on the connection, or a datagram.
struct Sent {
    Bytes bytes;
    bool datagram;
    sockaddr_in to;
};
inline std::vector<Sent> g_sent;
inline std::vector<Sent> &sent() { return g_sent; }
const omsdk::session_io kCapture = {
    [](svc_session *, const uint8_t *b, size_t n) -> ssize_t {
        return sent().push_back({Bytes(b, b + n), false, {}}), static_cast<ssize_t>(n);
    },
    [](svc_session *, const uint8_t *b, size_t n, const sockaddr_in *to) -> ssize_t {
        return sent().push_back({Bytes(b, b + n), true, *to}), static_cast<ssize_t>(n);
    },
};

inline Bytes addr(const char *a, uint16_t port) {  // a reply-to as a peer sends it
    return cat({hex("0200"), be(port, 2), be(ntohl(inet_addr(a)), 4), Bytes(8, 0)});
}

// A TLV as the layout writes it: type, length with the header, qualifier.
struct Tlv {
    uint32_t type;
    Bytes value;
    uint32_t qualifier = 0;
};
inline Tlv ask(uint32_t type) { return {type, {}}; }
inline Tlv switch_reply_to() { return {CV_CORVANE_TLV_TYPE_REPLY_TO, addr("127.0.0.2", 0x2345)}; }
inline Tlv identity(const char *id = kId) { return {1, cat({text(id), be(1, 4)}), 1}; }  // selector
// The TLVs of a message as the layout writes them (no library decoding).
inline std::vector<Tlv> parse(const Bytes &m) {
    auto get32 = [&m](size_t i) {
        return uint32_t(m[i]) << 24 | m[i + 1] << 16 | m[i + 2] << 8 | m[i + 3];
    };
    std::vector<Tlv> out;
    for (size_t at = 80, len;
         at + 12 <= m.size() && (len = get32(at + 4)) >= 12 && at + len <= m.size(); at += len)
        out.push_back({get32(at), Bytes(m.begin() + at + 12, m.begin() + at + len), get32(at + 8)});
    return out;
}
inline Bytes from_switch(int8_t shipment, uint8_t cls, uint16_t action, uint32_t seq,
                         const std::vector<Tlv> &list, const Bytes &key, uint8_t pri = 100,
                         const char *sender = kSwitchId) {
    Bytes body;
    for (const Tlv &t : list) body = cat({body, tlv(t.type, t.value, t.qualifier)});
    return frame(sender, seq, shipment, pri, cls, action, 1, static_cast<uint16_t>(list.size()),
                 body, key);
}
inline Bytes from_endpoint(uint32_t seq, int8_t shipment, uint8_t pri, uint8_t cls, uint16_t action,
                           uint16_t count, const std::string &body, const Bytes &key = kNonceKey,
                           uint8_t comm = 1) {
    return frame(kId, seq, shipment, pri, cls, action, comm, count, hex(body.c_str()), key);
}

// A session on 127.0.0.1:0x1234, status UP, sending into sent(): broadcasts to port 0x2222,
// discovery signed with `key`, queries with kNonceKey.
struct World {
    svc_session *s = new_svc_session();

    explicit World(const Bytes &key = kKey) {
        dev() = Device();
        sent().clear();
        omsdk::clock_set_source([] { return kNow; });
        s->io = &kCapture;
        memcpy(s->sender_id, kId, 32);
        s->self_addr = {htons(2), htons(0x1234), {inet_addr("127.0.0.1")}, {}};
        s->bcast_addr = {AF_INET, htons(0x2222), {INADDR_BROADCAST}, {}};
        s->key_owned = !key.empty();  // without a key the identifier is the secret
        s->key_len = key.empty() ? 32 : static_cast<uint32_t>(key.size());
        s->key = key.empty() ? reinterpret_cast<uint8_t *>(s->sender_id)
                             : static_cast<uint8_t *>(malloc(key.size()));
        memcpy(s->key, key.empty() ? s->key : key.data(), s->key_len);
        hmac_shainit(&s->key_ctx, s->key, static_cast<uint16_t>(s->key_len));
        hmac_shainit(&s->nonce_ctx, kNonceKey.data(), 20);
        ohmara_svc_configIdentity(s, "dom", "lab-7", "sensor", "a,b", "meter", 50);
        ohmara_svc_configRegistry(s, &g_registry);
        om_setStatusInitializing(s);
        om_setStatusUp(s);
        dev().statuses.clear();
    }
    ~World() {
        omsdk::free_neighbor_tree(s->neighbor);
        free(s->pending_head);
        omr_svc_cleanup(s);
        omsdk::clock_set_source(nullptr);
    }
    void active() {  // with the parent switch at 127.0.0.3:0x3333
        om_setStatusActive(s);
        s->parent_addr = {AF_INET, htons(0x3333), {inet_addr("127.0.0.3")}, {}};
        dev().statuses.clear();
    }
    void queue(uint32_t type, int32_t id, uint32_t seconds = 0, uint8_t p1 = 0, uint8_t p2 = 0) {
        free(s->pending_head);
        s->pending_head = static_cast<async_request *>(malloc(sizeof(async_request)));
        *s->pending_head = async_request{type, id, seconds, p1, p2};
    }
    void deliver(const Bytes &m) { omr_processMsg(s, m.data(), static_cast<int32_t>(m.size())); }
    std::vector<Sent> take() { return std::exchange(sent(), {}); }  // sent since the last call
    static EventPtr decoded(const Bytes &m) {                       // as a handler receives it
        KeyCtx k(kNonceKey);
        int32_t rc = -1;
        EventPtr ev = receive(m, &k.ctx, &rc);
        EXPECT_EQ(rc, 0);
        return ev;
    }
};

}  // namespace engine_test

#endif
