// A configured session whose switch connection is a real loopback TCP pair:
// the test plays the switch on the far end (bound to 127.0.0.2), builds
// signed queries, hands them to the engine and reads back what it sends.
#ifndef OMSDK_TEST_QUERY_FIXTURE_H
#define OMSDK_TEST_QUERY_FIXTURE_H

#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <errno.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <string>
#include <vector>

#include <omsdk/enums.h>
#include <omsdk/event.h>
#include <omsdk/pdu.h>

#include "crypto/hmac_internal.h"
#include "engine/query.h"
#include "log_capture.h"
#include "service/session.h"
#include "wire_test_util.h"

namespace query_test {

using namespace wire_test;

constexpr char kId[] = "0123456789abcdef0123456789abcdef";
constexpr char kSwitchId[] = "fedcba9876543210fedcba9876543210";
constexpr uint16_t kProtocolPort = 47911;  // never bound; nothing is broadcast
const Bytes kKey = {'d', 'o', 'm', 'a', 'i', 'n', '-', 'k', 'e', 'y'};
const Bytes kNonceKey = hex("10 11 12 13 14 15 16 17 18 19 1a 1b 1c 1d 1e 1f 20 21 22 23");

// What the application callbacks answer and what they were told.
struct App {
    uint8_t units = 3;
    uint16_t usage = 0x1234;
    uint32_t caliber = 0x01020304;
    uint32_t category = 7;
    uint8_t level = 42;
    int32_t set_level_result = 0;
    uint32_t seq = 5000;
    std::vector<uint8_t> levels_set;
    std::vector<int32_t> modified;
};
inline App g_app;

inline const uint16_t kUsageVector[11] = {0x0100, 0x0101, 0x0102, 0x0103, 0x0104, 0x0105,
                                          0x0106, 0x0107, 0x0108, 0x0109, 0x010a};
inline const int32_t kDeltaVector[11] = {-1, 0, 1, 256, 65536, -2, 7, 8, 9, 10, 0x7fffffff};

inline svc_callback_registry app_registry() {
    svc_callback_registry r = {};
    r.get_units = [] { return g_app.units; };
    r.get_usage = [] { return g_app.usage; };
    r.get_usage_caliber = [] { return g_app.caliber; };
    r.get_usage_category = [] { return g_app.category; };
    r.get_level = [] { return g_app.level; };
    r.set_level = [](uint8_t level) {
        g_app.levels_set.push_back(level);
        if (g_app.set_level_result >= 0) g_app.level = level;
        return g_app.set_level_result;
    };
    r.get_usage_vector = [](uint16_t *v) { memcpy(v, kUsageVector, sizeof kUsageVector); };
    r.get_delta_vector = [](int32_t *v) { memcpy(v, kDeltaVector, sizeof kDeltaVector); };
    r.next_sequence = [] { return ++g_app.seq; };
    r.attribute_modified = [](int32_t a) { g_app.modified.push_back(a); };
    r.listen_port_notify = [](uint16_t) {};
    return r;
}

// One TLV of a query; texts include their NUL.
struct QTlv {
    uint32_t type;
    Bytes value;
    bool no_value = false;
    uint32_t qualifier = 0;
};
inline QTlv text(uint32_t type, const char *t, uint32_t qualifier = 0) {
    return {type, Bytes(t, t + strlen(t) + 1), false, qualifier};
}
inline QTlv bytes(uint32_t type, const Bytes &b) { return {type, b}; }
inline QTlv u8(uint32_t type, uint8_t v) { return {type, Bytes{v}}; }
inline QTlv none(uint32_t type) { return {type, {}, true}; }
inline QTlv own_identity() {
    cv_sender_id sid;
    memcpy(sid.id, kId, 32);
    sid.value = 1;
    const uint8_t *p = reinterpret_cast<const uint8_t *>(&sid);
    return {CV_CORVANE_TLV_TYPE_OHMRZ_ID, Bytes(p, p + sizeof sid), false, 1};
}
// The switch's reply-to address: 127.0.0.2, port 0x2345.
inline QTlv switch_reply_to() {
    struct sockaddr_in a = {};
    a.sin_family = AF_INET;
    a.sin_port = htons(0x2345);
    a.sin_addr.s_addr = inet_addr("127.0.0.2");
    const uint8_t *p = reinterpret_cast<const uint8_t *>(&a);
    return {CV_CORVANE_TLV_TYPE_REPLY_TO, Bytes(p, p + sizeof a)};
}

inline uint16_t be16(const uint8_t *p) { return static_cast<uint16_t>(p[0] << 8 | p[1]); }

class QueryTest : public ::testing::Test {
protected:
    svc_session *s = nullptr;
    svc_callback_registry reg_ = {};
    int peer_ = -1;

    void SetUp() override {
        g_app = App();
        s = ohmara_svc_create("127.0.0.1", kProtocolPort, kId, kKey.data(),
                              static_cast<int32_t>(kKey.size()), 0);
        ASSERT_NE(s, nullptr);
        ASSERT_EQ(0, ohmara_svc_configIdentity(s, "dom", "lab-7", "sensor", "a,b", "meter", 50));
        reg_ = app_registry();
        ASSERT_EQ(0, ohmara_svc_configRegistry(s, &reg_));
        // The nonce key the handshake would have set up.
        omsdk::hmac_release(&s->nonce_ctx);
        hmac_shainit(&s->nonce_ctx, kNonceKey.data(), static_cast<uint16_t>(kNonceKey.size()));
        connect_switch();
    }
    void TearDown() override {
        if (peer_ >= 0) close(peer_);
        if (s != nullptr) omr_svc_cleanup(s);  // closes tcp_sock too
    }

    void connect_switch() {
        int lst = socket(AF_INET, SOCK_STREAM, 0);
        ASSERT_GE(lst, 0);
        struct sockaddr_in a = {};
        a.sin_family = AF_INET;
        a.sin_addr.s_addr = inet_addr("127.0.0.1");
        socklen_t alen = sizeof a;
        ASSERT_EQ(0, bind(lst, reinterpret_cast<sockaddr *>(&a), sizeof a));
        ASSERT_EQ(0, listen(lst, 1));
        ASSERT_EQ(0, getsockname(lst, reinterpret_cast<sockaddr *>(&a), &alen));
        peer_ = socket(AF_INET, SOCK_STREAM, 0);
        struct sockaddr_in from = {};
        from.sin_family = AF_INET;
        from.sin_addr.s_addr = inet_addr("127.0.0.2");
        ASSERT_EQ(0, bind(peer_, reinterpret_cast<sockaddr *>(&from), sizeof from));
        ASSERT_EQ(0, connect(peer_, reinterpret_cast<sockaddr *>(&a), sizeof a));
        s->tcp_sock = accept(lst, nullptr, nullptr);
        close(lst);
        ASSERT_GE(s->tcp_sock, 0);
        struct timeval tv = {2, 0};
        setsockopt(peer_, SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof tv);
    }

    // The signed bytes of a query from the switch.
    static Bytes query_bytes(uint8_t cls, uint16_t action, uint32_t seq,
                             const std::vector<QTlv> &tlvs, uint8_t pri = 100) {
        EventPtr ev(corvane_create_my_packet());
        for (const QTlv &t : tlvs)
            EXPECT_EQ(0, cv_add_tlv_common(ev.get(), t.type,
                                           static_cast<uint32_t>(12 + (t.no_value ? 0 : t.value.size())),
                                           t.no_value ? nullptr : t.value.data(), t.qualifier));
        KeyCtx key(kNonceKey);
        EXPECT_EQ(0, omr_createPdu(ev.get(), pri, CV_SHIPMENT_SEND, cls, action,
                                   reinterpret_cast<const uint8_t *>(kSwitchId), seq, &key.ctx, 1));
        return raw_of(ev.get());
    }
    // The query as the engine receives it: decoded and authenticated.
    static EventPtr query(uint8_t cls, uint16_t action, uint32_t seq, const std::vector<QTlv> &tlvs,
                          uint8_t pri = 100) {
        KeyCtx key(kNonceKey);
        int32_t rc = -1;
        EventPtr ev = receive(query_bytes(cls, action, seq, tlvs, pri), &key.ctx, &rc);
        EXPECT_EQ(rc, 0);
        EXPECT_EQ(ev->digest_ok, 1u);
        return ev;
    }

    // One whole message from the connection, or an empty result after the
    // bounded wait.
    Bytes read_message() {
        Bytes head(80);
        if (recv(peer_, head.data(), head.size(), MSG_WAITALL) != 80) return {};
        Bytes body(be16(head.data() + 76));
        if (!body.empty() &&
            recv(peer_, body.data(), body.size(), MSG_WAITALL) != static_cast<ssize_t>(body.size()))
            return {};
        head.insert(head.end(), body.begin(), body.end());
        return head;
    }
    // Loopback delivers synchronously: whatever was sent is already here.
    bool nothing_sent() {
        uint8_t b;
        return recv(peer_, &b, 1, MSG_DONTWAIT) < 0 && (errno == EAGAIN || errno == EWOULDBLOCK);
    }

    // Wire pieces of this endpoint, written from the message layout.
    Bytes reply_to_bytes() const {
        uint16_t port = ntohs(s->self_addr.sin_port);
        Builder b;
        b.h("00 02");  // the family as stored by the session
        b.b.push_back(static_cast<uint8_t>(port >> 8));
        b.b.push_back(static_cast<uint8_t>(port));
        b.h("7f 00 00 01 00 00 00 00 00 00 00 00");
        return b.b;
    }
    Bytes device_header() const { return Builder().s(kId).h("00 00 00 10").raw(reply_to_bytes()).b; }
    // The whole expected message around the given TLV bytes, signed with
    // the nonce key by OpenSSL.
    static Bytes message(uint32_t seq, int8_t shipment, uint8_t pri, uint8_t cls, uint16_t action,
                         uint8_t comm, uint16_t count, const Bytes &tlvs) {
        Builder b;
        b.h("00 02 00 00 00 00 00 00 00");
        b.b.push_back(static_cast<uint8_t>(0x10 | comm));
        b.h("00 14").raw(Bytes(20, 0));
        for (int sh = 24; sh >= 0; sh -= 8) b.b.push_back(static_cast<uint8_t>(seq >> sh));
        b.s(kId).h("01");
        for (uint8_t x : {static_cast<uint8_t>(shipment), pri, uint8_t{10}, uint8_t{17}, cls})
            b.b.push_back(x);
        for (uint16_t x : {action, static_cast<uint16_t>(tlvs.size()), count}) {
            b.b.push_back(static_cast<uint8_t>(x >> 8));
            b.b.push_back(static_cast<uint8_t>(x));
        }
        b.raw(tlvs);
        sign(b.b, kNonceKey);
        return b.b;
    }
};

}  // namespace query_test

#endif
