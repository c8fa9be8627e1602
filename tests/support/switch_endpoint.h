// For tests of the switch side: messages written byte by byte from the wire
// layout and signed with OpenSSL's HMAC, and the application behind an
// endpoint session on loopback.
#ifndef OMSDK_TEST_SWITCH_ENDPOINT_H
#define OMSDK_TEST_SWITCH_ENDPOINT_H

#include <arpa/inet.h>
#include <ctype.h>
#include <omsdk.h>
#include <string.h>
#include <openssl/hmac.h>

#include <algorithm>
#include <atomic>
#include <mutex>
#include <numeric>
#include <string>
#include <tuple>
#include <vector>

#include "session/session.h"

namespace switch_test {

using Bytes = std::vector<uint8_t>;
constexpr char kId[] = "0123456789abcdef0123456789abcdef";  // the endpoint
constexpr char kSwitchId[] = "fedcba9876543210fedcba9876543210";
constexpr uint32_t kSwitchNonce = 0x5eed1234;
constexpr uint16_t kForbiddenPort = 43440;  // the protocol's own; never in tests

// ---- messages by hand ----
inline Bytes hex(const char *t) {
    Bytes out;
    for (int hi = -1; *t != '\0'; ++t) {
        if (isspace(static_cast<unsigned char>(*t))) continue;
        int v = isdigit(static_cast<unsigned char>(*t)) ? *t - '0' : tolower(*t) - 'a' + 10;
        if (hi >= 0) out.push_back(static_cast<uint8_t>(hi << 4 | v));
        hi = hi >= 0 ? -1 : v;
    }
    return out;
}
inline Bytes text(const std::string &t) { return Bytes(t.begin(), t.end()); }
inline Bytes cat(std::initializer_list<Bytes> parts) {
    Bytes out;
    for (const Bytes &p : parts) out.insert(out.end(), p.begin(), p.end());
    return out;
}
inline Bytes be16(uint32_t v) { return {uint8_t(v >> 8), uint8_t(v)}; }
inline Bytes be32(uint32_t v) { return cat({be16(v >> 16), be16(v)}); }
inline Bytes openssl_hmac(const Bytes &key, const Bytes &data) {
    Bytes out(EVP_MAX_MD_SIZE);
    unsigned int n = 0;
    HMAC(EVP_sha1(), key.data(), int(key.size()), data.data(), data.size(), out.data(), &n);
    out.resize(n);
    return out;
}
// A TLV: type word, whole length (header included), qualifier, value.
inline Bytes tlv(uint32_t type, const Bytes &value, uint32_t qualifier = 0) {
    return cat({be32(type), be32(uint32_t(12 + value.size())), be32(qualifier), value});
}
// Security header (enc 2, auth 1, comm 1, digest length 20), the digest
// over everything after byte 32, event header (version 1, type 10,
// application 17), the TLVs.
inline Bytes message(uint32_t seq, const char *id32, int8_t shipment, uint8_t pri, uint8_t cls,
                     uint16_t action, const std::vector<Bytes> &tlvs, const Bytes &key) {
    Bytes body;
    for (const Bytes &t : tlvs) body.insert(body.end(), t.begin(), t.end());
    Bytes msg = cat({hex("00 02 0000 00000000 00 11 0014"), Bytes(20, 0), be32(seq),
                     Bytes(id32, id32 + 32), Bytes{1, uint8_t(shipment), pri, 0x0a, 0x11, cls},
                     be16(action), be16(uint32_t(body.size())), be16(uint32_t(tlvs.size())), body});
    Bytes d = openssl_hmac(key, Bytes(msg.begin() + 32, msg.end()));
    memcpy(msg.data() + 12, d.data(), 20);
    return msg;
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

// A configured session on 127.0.0.1 for the discovery port `port` (its
// listener never on the protocol's own port), with a fresh application.
inline svc_session *new_session(uint16_t port, const Bytes &key) {
    app().statuses.clear(), app().levels_set.clear(), app().replies.clear();  // no loop runs now
    app().level = 4, app().seq = 100, app().listen_port = -1;
    for (int attempt = 0; attempt < 5; ++attempt) {
        svc_session *s = ohmara_svc_create(
            "127.0.0.1", port, kId, key.empty() ? nullptr : key.data(), int32_t(key.size()), 0);
        if (s != nullptr && ntohs(s->self_addr.sin_port) != kForbiddenPort) {
            ohmara_svc_configIdentity(s, "dom", "lamp-1", "light", "floor2,desk", "bulb", 40);
            ohmara_svc_configRegistry(s, &registry());
            return s;
        }
        if (s != nullptr) omr_svc_cleanup(s);
    }
    return nullptr;
}

// Keeps the library's log lines below `level` out of the test's output.
struct QuietLog {
    uint32_t old = getLogLevel();
    explicit QuietLog(uint32_t level = OHMARA_LOG_FATAL) { setLogLevel(level); }
    ~QuietLog() { setLogLevel(old); }
};

}  // namespace switch_test

#endif
