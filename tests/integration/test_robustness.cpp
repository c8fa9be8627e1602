// What the switch's connection may bring besides proper messages: forged,
// replayed, oversized, malformed and silent ones. None may change the
// endpoint's state or stop it answering the next proper query; and only a
// discovery acknowledgement keeps a quiet switch from being dropped.
#include <gtest/gtest.h>

#include <omsdk/event.h>
#include <omsdk/pdu.h>

#include "log_capture.h"
#include "wire_test_util.h"
#include "world.h"

namespace {

using it::Bytes;
using it::World;

const Bytes kWrongKey = {'n', 'o', 't', '-', 't', 'h', 'e', '-', 'k', 'e', 'y'};

// A message from "the switch" built with the event functions and signed
// with `key` by OpenSSL.
Bytes forge(int8_t shipment, uint8_t cls, uint16_t action, uint32_t seq, const Bytes &key,
            const std::function<void(cv_event *)> &fill) {
    cv_event *ev = corvane_create_my_packet();
    if (fill) fill(ev);
    omr_createPdu(ev, 100, shipment, cls, action, reinterpret_cast<const uint8_t *>(it::kSwitchId),
                  seq, nullptr, 1);
    Bytes raw = wire_test::raw_of(ev);
    corvane_try_gc(ev);
    wire_test::sign(raw, key);
    return raw;
}

void add_reply_to(cv_event *ev, uint16_t port) {
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_port = htons(port);
    a.sin_addr.s_addr = inet_addr("127.0.0.2");
    cv_add_tlv(ev, CV_CORVANE_TLV_TYPE_REPLY_TO, 12 + sizeof a, &a);
}

// The endpoint closes without a word.
void expect_silence(World &w, const Bytes &msg, const std::string &what) {
    Bytes answer;
    EXPECT_TRUE(it::exchange("127.0.0.2", w.listen_port(), msg, &answer)) << what;
    EXPECT_TRUE(answer.empty()) << what << ": " << answer.size() << " bytes came back";
}

bool get_level(World &w, int64_t *level = nullptr) {
    omsdk_tools::QueryResult r = w.sw().get(it::kId, {CV_CORVANE_TLV_TYPE_LEVEL_CURRENT}, {});
    std::vector<omsdk_tools::Value> v = r.values_of(CV_CORVANE_TLV_TYPE_LEVEL_CURRENT);
    if (level != nullptr) *level = v.empty() ? -1 : v[0].num;
    return r.will() && r.replied && r.error.empty();
}

TEST(Robustness, UnauthenticatedMessagesOfEveryClassChangeNothing) {
    World w;
    ASSERT_TRUE(w.ok());
    ASSERT_TRUE(w.start());
    ASSERT_TRUE(w.attach());
    // The acknowledgement that completed the handshake is fully handled.
    ASSERT_TRUE(it::wait_until([&] { return w.s()->last_ack_time == it::kStart; }));
    const time_t last_heard = w.s()->last_ack_time;
    const std::vector<int32_t> statuses = it::app().copy(it::app().statuses);
    const uint16_t port = w.sw().udp_port();

    // Each would do harm if believed: a SET of the level, a delete, an
    // acknowledgement with a new nonce, alarm answers; all from the
    // switch's own identifier with sequence numbers far ahead of its own.
    uint32_t seq = 0x7FFFFF00;
    const uint8_t classes[] = {1, 9, CV_CLASS_QUERY, CV_CLASS_AGGREGATE, 12, 13,
                               CV_CLASS_DISCOVERY, 15, 200};
    const int8_t shipments[] = {CV_SHIPMENT_SEND, CV_SHIPMENT_ACK_WILL, CV_SHIPMENT_ACK_WONT,
                                CV_SHIPMENT_REPLY_NO_ERROR};
    for (uint8_t cls : classes) {
        for (int8_t shipment : shipments) {
            const uint16_t action =
                cls == CV_CLASS_DISCOVERY
                    ? static_cast<uint16_t>(CV_ACTION_KVQR_CORVANE_DISCOVERY_DELETE)
                    : static_cast<uint16_t>(CV_ACTION_KVQR_CORVANE_QUERY_SET);
            Bytes msg = forge(shipment, cls, action, ++seq, kWrongKey, [&](cv_event *ev) {
                add_reply_to(ev, port);
                uint32_t nonce = 0x12345678;
                cv_add_tlv(ev, CV_CORVANE_TLV_TYPE_NONCE, 12 + 4, &nonce);
                uint8_t level = 99;
                cv_add_tlv(ev, CV_CORVANE_TLV_TYPE_LEVEL_CURRENT, 12 + 1, &level);
            });
            expect_silence(w, msg,
                           "class " + std::to_string(cls) + " shipment " + std::to_string(shipment));
        }
    }

    EXPECT_EQ(w.status(), OHMARA_STATUS_ACTIVE);
    EXPECT_EQ(it::app().copy(it::app().statuses), statuses);
    EXPECT_TRUE(it::app().copy(it::app().levels_set).empty());
    EXPECT_EQ(w.s()->last_ack_time, last_heard);
    // Same key, same sequence numbers accepted: the next query is answered.
    int64_t level = -1;
    EXPECT_TRUE(get_level(w, &level));
    EXPECT_EQ(level, 7);
}

TEST(Robustness, ReplayedQueriesAndSetsAreDropped) {
    World w;
    ASSERT_TRUE(w.ok());
    ASSERT_TRUE(w.start());
    ASSERT_TRUE(w.attach());

    ASSERT_TRUE(get_level(w));
    const Bytes get = w.sent_raw().back();
    expect_silence(w, get, "replayed GET");

    omsdk_tools::SetItem level;
    std::string why;
    ASSERT_TRUE(omsdk_tools::parse_set_item("level=4", &level, &why));
    const size_t heard = w.heard_count();
    ASSERT_TRUE(w.sw().set(it::kId, {level}, {}).will());
    const Bytes set = w.sent_raw().back();
    ASSERT_TRUE(w.hear(heard + 1));  // the update after the SET

    it::app().level = 9;  // changed locally; a replayed SET would undo it
    expect_silence(w, set, "replayed SET");
    w.sw().run_for(100);
    EXPECT_EQ(w.heard_count(), heard + 1);  // no second update
    EXPECT_EQ(it::app().copy(it::app().levels_set), std::vector<uint8_t>({4}));
    int64_t now_level = -1;
    EXPECT_TRUE(get_level(w, &now_level));
    EXPECT_EQ(now_level, 9);
}

// Last-heard time: a replayed acknowledgement still counts, a forged one
// and a query do not. 300 s after the last one the switch is dropped.
TEST(Robustness, OnlyDiscoveryAcknowledgementsKeepTheSwitch) {
    World w;
    ASSERT_TRUE(w.ok());
    ASSERT_TRUE(w.start());
    ASSERT_TRUE(w.attach());
    ASSERT_TRUE(w.poke());  // the last acknowledgement is handled, at kStart
    ASSERT_EQ(w.s()->last_ack_time, it::kStart);
    Bytes ack;
    for (const Bytes &m : w.sent_raw())
        if (m.size() > 80 && static_cast<int8_t>(m[69]) == CV_SHIPMENT_ACK_WILL) ack = m;
    ASSERT_FALSE(ack.empty());

    // Both pokes: the second is accepted only after the first pass is over.
    auto settle = [&] { return w.poke() && w.poke(); };

    it::set_now(it::kStart + 250);
    expect_silence(w, ack, "replayed acknowledgement");
    it::set_now(it::kStart + 400);  // 150 s after the replay
    ASSERT_TRUE(settle());          // (sends the periodic update: unanswered here)
    EXPECT_EQ(w.status(), OHMARA_STATUS_ACTIVE);

    it::set_now(it::kStart + 450);
    Bytes forged = ack;
    forged[40] ^= 0x01;  // inside the signed part: the digest no longer fits
    expect_silence(w, forged, "forged acknowledgement");
    it::set_now(it::kStart + 500);
    ASSERT_TRUE(get_level(w));  // a query is no acknowledgement
    it::set_now(it::kStart + 550);
    ASSERT_TRUE(settle());
    EXPECT_EQ(w.status(), OHMARA_STATUS_ACTIVE);  // exactly 300 s: still within

    it::set_now(it::kStart + 551);
    ASSERT_TRUE(settle());
    EXPECT_EQ(w.status(), OHMARA_STATUS_UP);
}

TEST(Robustness, OversizedAndMalformedMessagesAreIgnored) {
    World w;
    ASSERT_TRUE(w.ok());
    ASSERT_TRUE(w.start());
    ASSERT_TRUE(w.attach());
    const Bytes key = w.endpoint()->nonce_key;
    ASSERT_EQ(key.size(), 20u);

    // A proper header (digest length 20) claiming `tlv_bytes` of payload.
    auto header = [](uint16_t tlv_bytes) {
        Bytes b = wire_test::hex("00 02 0000 00000000 00 11 0014");
        b.resize(32, 0);
        Bytes ev = wire_test::hex("7fffffff");
        ev.insert(ev.end(), it::kSwitchId, it::kSwitchId + 32);
        Bytes rest = wire_test::hex("01 00 64 0a 11 0a 000b");
        ev.insert(ev.end(), rest.begin(), rest.end());
        ev.push_back(static_cast<uint8_t>(tlv_bytes >> 8));
        ev.push_back(static_cast<uint8_t>(tlv_bytes));
        ev.push_back(0);
        ev.push_back(1);
        b.insert(b.end(), ev.begin(), ev.end());
        return b;
    };
    Bytes oversized = header(1321);  // 1321 + 20 + 60 = 1401
    oversized.resize(oversized.size() + 64, 0xAB);
    Bytes bad_tlv = header(16);  // a TLV whose length is below its header
    Bytes tlv = wire_test::hex("00000017 00000004 00000000 00000000");
    bad_tlv.insert(bad_tlv.end(), tlv.begin(), tlv.end());
    wire_test::sign(bad_tlv, key);
    Bytes short_payload = header(200);
    short_payload.resize(short_payload.size() + 20, 0);
    Bytes huge_digest = wire_test::hex("00 02 0000 00000000 00 11 ffff");
    huge_digest.resize(600, 0x5A);
    Bytes cut = header(0);
    cut.resize(40);
    Bytes garbage(300);
    for (size_t i = 0; i < garbage.size(); ++i) garbage[i] = static_cast<uint8_t>(i * 37 + 11);

    const struct {
        const char *what;
        Bytes msg;
    } cases[] = {
        {"nothing at all", {}},
        {"half a security header", Bytes(6, 0)},
        {"headers cut short", cut},
        {"declared size above 1400", oversized},
        {"payload shorter than declared", short_payload},
        {"digest length 0xffff", huge_digest},
        {"garbage", garbage},
        {"signed, but a TLV shorter than its header", bad_tlv},
    };
    for (const auto &c : cases) {
        expect_silence(w, c.msg, c.what);
        EXPECT_EQ(w.status(), OHMARA_STATUS_ACTIVE) << c.what;
        EXPECT_TRUE(get_level(w)) << "after " << c.what;
    }
}

TEST(Robustness, SilentConnectionHoldsTheLoopOnlyForTheReceiveTimeOut) {
    World w;
    ASSERT_TRUE(w.ok());
    omsdk::set_receive_timeout_ms(300);
    ASSERT_TRUE(w.start());
    ASSERT_TRUE(w.attach());

    // A caller that connects, sends part of a header and then nothing.
    int fd = socket(AF_INET, SOCK_STREAM, 0);
    ASSERT_GE(fd, 0);
    sockaddr_in from{};
    from.sin_family = AF_INET;
    from.sin_addr.s_addr = inet_addr("127.0.0.2");
    sockaddr_in to{};
    to.sin_family = AF_INET;
    to.sin_port = htons(w.listen_port());
    to.sin_addr.s_addr = inet_addr("127.0.0.1");
    ASSERT_EQ(bind(fd, reinterpret_cast<sockaddr *>(&from), sizeof from), 0);
    ASSERT_EQ(connect(fd, reinterpret_cast<sockaddr *>(&to), sizeof to), 0);
    ASSERT_EQ(send(fd, "\0\2\0\0", 4, MSG_NOSIGNAL), 4);

    const auto t0 = std::chrono::steady_clock::now();
    EXPECT_TRUE(get_level(w));
    const auto ms = std::chrono::duration_cast<std::chrono::milliseconds>(
                        std::chrono::steady_clock::now() - t0)
                        .count();
    EXPECT_LT(ms, 2000);
    // The endpoint gave up on the silent caller and closed it.
    pollfd p{fd, POLLIN, 0};
    ASSERT_EQ(poll(&p, 1, 2000), 1);
    char b;
    EXPECT_EQ(recv(fd, &b, 1, 0), 0);
    close(fd);
}

}  // namespace
