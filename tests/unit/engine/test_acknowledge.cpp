// SPDX-License-Identifier: Apache-2.0
// Acknowledgements both ways: our WILL/WONT byte for byte, and the switch's (handshake and nonce
// re-keying, refusals, answers to the pending request).
#include "fixture.h"

namespace {

using namespace engine_test;

constexpr uint16_t kCollect = 11, kSet = 10, kUpdate = 10;  // actions
constexpr uint32_t kLocal = 0x11223344, kRemote = 0xA0B0C0D0;

TEST(Acknowledge, CopiesTheQueryHeaderAndCarriesOneAckEntry) {
    const std::tuple<int32_t, uint32_t, uint32_t, uint8_t, uint8_t, uint16_t> cases[] = {
        {-1, 0, 0x01020304, CV_CLASS_QUERY, 100, kSet},
        {-2, 0, 7, CV_CLASS_QUERY, 100, kSet},
        {-1, 1, 0xfffffffe, CV_CLASS_AGGREGATE, 3, 0x0102},
    };
    const std::string body =
        std::string("00000008 0000000f 00000000 646f6d 00000017 0000001c 00000000") + kSelfHex +
        "00000001 00000030 00000000" + kIdHex + "00000001 8000002a 00000048 00000000" + kIdHex +
        "00000010" + kSelfHex + "00000001 00000000";
    for (const auto &[shipment, mains, seq, cls, pri, action] : cases) {
        SCOPED_TRACE(shipment);
        World w;
        ohmara_svc_configPowerSource(w.s, mains);
        EventPtr q =
            World::decoded(from_switch(0, cls, action, seq, {switch_reply_to()}, kNonceKey, pri));
        LogCapture cap(0);
        omr_sendAcknowledgement(w.s, q.get(), shipment);
        auto out = w.take();
        ASSERT_EQ(out.size(), 1u);
        EXPECT_FALSE(out[0].datagram);
        EXPECT_EQ(out[0].bytes, from_endpoint(seq, static_cast<int8_t>(shipment), pri, cls, action,
                                              4, body, kNonceKey, mains ? 4 : 1));
        const std::string line =
            std::string("sent acknowledgement ") + (shipment == -1 ? "WILL" : "WONT");
        EXPECT_TRUE(cap.has(1, "omr_sendAcknowledgement", line));
    }
    World w;  // any other shipment is refused
    EventPtr q =
        World::decoded(from_switch(0, CV_CLASS_QUERY, 11, 9, {switch_reply_to()}, kNonceKey));
    LogCapture cap(0);
    for (int32_t shipment : {0, 1, 2, -3, -4}) omr_sendAcknowledgement(w.s, q.get(), shipment);
    EXPECT_TRUE(cap.contains("won't send unexpected acknowledgement type "));
    EXPECT_TRUE(w.take().empty());
}

// An ACK_WILL for a discovery update from the switch at 127.0.0.3:0x3333.
Bytes ack_will(uint32_t seq, std::vector<Tlv> more, const Bytes &secret) {
    more.insert(more.begin(), {23, addr("127.0.0.3", 0x3333)});
    return from_switch(CV_SHIPMENT_ACK_WILL, CV_CLASS_DISCOVERY, kUpdate, seq, more, secret);
}
Tlv nonce(uint32_t v) { return {47, be(v, 4)}; }
// As the switch derives it: HMAC-SHA1 keyed with local XOR remote (big-endian) over the secret.
Bytes nonce_key(uint32_t local, uint32_t remote, const Bytes &secret) {
    return openssl_hmac(be(local ^ remote, 4), secret.data(), secret.size());
}

// True when a GET signed with `key` is answered: proof of the nonce key.
bool answers(World &w, const Bytes &key, uint32_t seq) {
    w.deliver(from_switch(0, CV_CLASS_QUERY, kCollect, seq,
                          {switch_reply_to(), identity(), ask(14)}, key));
    return w.take().size() == 2;
}

TEST(Acknowledge, HandshakeRekeysOnlyOnAChangedNonce) {
    const Bytes five = {'a', 'b', 'c', 'd', 'e'};
    const std::tuple<const char *, Bytes, Bytes> cases[] = {
        // key given, secret the derivation reads
        {"long key cut to 20", kKey, Bytes(kKey.begin(), kKey.begin() + 20)},
        {"short key zero-padded to 20", five, cat({five, Bytes(15, 0)})},
        {"no key: the identifier, 32 bytes", Bytes(), Bytes(kId, kId + 32)}};
    for (const auto &[what, key, secret] : cases) {
        SCOPED_TRACE(what);
        World w(key);
        const Bytes shared = key.empty() ? secret : key;
        w.s->local_nonce = kLocal;
        LogCapture cap(OHMARA_LOG_INFO);
        w.deliver(ack_will(60, {nonce(kRemote)}, shared));
        EXPECT_EQ(dev().statuses, std::vector<int32_t>{OHMARA_STATUS_ACTIVE});
        EXPECT_TRUE(
            cap.has(OHMARA_LOG_INFO, "omr_processAcknowledgementMsg",
                    "*Successfully CONNECTED to 127.0.0.3, changing status from UP to ACTIVE."));
        auto out = w.take();  // one update to the switch, carrying our nonce
        ASSERT_EQ(out.size(), 1u);
        EXPECT_EQ(parse(out[0].bytes).at(2).value, hex("11223344"));
        EXPECT_EQ(ntohs(out[0].to.sin_port), 0x3333);

        const Bytes first = nonce_key(kLocal, kRemote, secret);
        EXPECT_TRUE(answers(w, first, 1));
        EXPECT_FALSE(answers(w, kNonceKey, 2));
        EXPECT_FALSE(answers(w, shared, 3));

        // The same nonce again, or none: no re-key, no update.
        w.deliver(ack_will(61, {nonce(kRemote)}, shared));
        w.deliver(ack_will(62, {}, shared));
        EXPECT_TRUE(w.take().empty());
        EXPECT_TRUE(answers(w, first, 4));

        w.deliver(ack_will(63, {nonce(0x01010101)}, shared));
        EXPECT_EQ(w.take().size(), 1u);
        EXPECT_TRUE(answers(w, nonce_key(kLocal, 0x01010101, secret), 5));
        EXPECT_FALSE(answers(w, first, 6));
    }
}

TEST(Acknowledge, ThoseThatChangeNothing) {
    constexpr uint8_t kDisc = CV_CLASS_DISCOVERY;
    const std::tuple<const char *, int8_t, uint8_t, bool, bool, const char *> cases[] = {
        {"WONT for discovery", -2, kDisc, true, false, "127.0.0.9 NAK discovery"},
        {"WONT for a query", -2, CV_CLASS_QUERY, true, false, "127.0.0.9 NAK"},
        {"WILL for a query", -1, CV_CLASS_QUERY, true, false, nullptr},
        {"ILL", CV_SHIPMENT_ACK_ILL, kDisc, true, false, nullptr},
        {"no reply-to", -1, kDisc, false, false, "bad packet; reply_to tlv is missing"},
        {"WILL while shutting down: last-heard only", -1, kDisc, true, true, nullptr}};
    for (const auto &[what, shipment, cls, reply_to, shutdown, debug] : cases) {
        SCOPED_TRACE(what);
        World w;
        if (shutdown) w.active(), om_setStatusShutdown(w.s);
        const int32_t status = ohmara_svc_getStatus(w.s);
        std::vector<Tlv> list = {nonce(kRemote)};
        if (reply_to) list.push_back({23, addr("127.0.0.9", 4000)});
        LogCapture cap(OHMARA_LOG_DEBUG);
        w.deliver(
            from_switch(shipment, cls, 10, 9, list, cls == CV_CLASS_DISCOVERY ? kKey : kNonceKey));
        EXPECT_EQ(ohmara_svc_getStatus(w.s), status);
        EXPECT_EQ(w.s->last_ack_time, shutdown ? kNow : 0);
        EXPECT_NE(w.s->parent_addr.sin_port, htons(4000));
        EXPECT_EQ(w.s->remote_nonce, 0u);
        EXPECT_TRUE(w.take().empty());
        EXPECT_TRUE(!debug || cap.has(OHMARA_LOG_DEBUG, "omr_processAcknowledgementMsg", debug))
            << cap.dump();
    }
}

TEST(Acknowledge, AlarmAnswers) {
    constexpr int32_t kNoCallback = -1, kNotAnswered = -2;
    const std::tuple<uint32_t, int32_t, int32_t, int32_t, const char *> cases[] = {
        {40, 9, 2, 1, "alarm_status 'Ok' (2)"},
        {40, 9, 5, 1, "alarm_status 'Ok' (5)"},
        {40, 9, 3, 0, "alarm_status 'Failed' (3)"},
        {40, 9, 6, 0, "alarm_status 'Failed' (6)"},
        {40, 9, 7, 0, "alarm_status 'Failed' (7)"},
        {40, 9, 4, kNoCallback, "unexpected alarm_status (4)"},
        {40, 9, 1, kNoCallback, "unexpected alarm_status (1)"},
        {40, 9, -3, kNoCallback, "unexpected alarm_status (-3)"},
        {41, 9, 2, kNotAnswered, "got alarm answer 9"},    // another event's sequence number
        {40, 10, 2, kNotAnswered, "deleted request 10"}};  // an answer for another request
    auto answer = [](int32_t id, int32_t status) {
        return Tlv{50, cat({hex("00000000 00 00"), be(id, 4), be(status, 4)})};
    };
    for (const auto &[seq, id, status, ok, line] : cases) {
        SCOPED_TRACE(line);
        World w;
        w.active();
        w.queue(OMSDK_REQ_ALARM_SET, 9, 60, 1, 2);
        w.s->pending_seq = 40;
        w.s->pending_id = 9;
        LogCapture cap(OHMARA_LOG_DEBUG);
        // An answer to an older request comes first.
        w.deliver(ack_will(seq, {answer(8, 2), answer(id, status)}, kKey));
        EXPECT_TRUE(cap.contains(line)) << cap.dump();
        EXPECT_EQ(dev().alarm_replies, ok >= 0 ? Strings{"9 0 " + std::to_string(ok)} : Strings{});
        EXPECT_EQ(w.s->pending_head != nullptr, ok == kNotAnswered);
        EXPECT_EQ(w.s->pending_seq, ok == kNotAnswered ? 40u : 0u);
        EXPECT_EQ(w.s->last_ack_time, kNow);
        EXPECT_TRUE(w.take().empty());
    }
}

// A recorded acknowledgement played to a live session: the reference profile re-keys and cuts
// the switch off; the hardened one takes only an acknowledgement of a discovery event it sent,
// newer than the last one taken.
TEST(Acknowledge, ReplayedOrUnaskedAcknowledgementRekeysOnlyTheReferenceProfile) {
    const Bytes secret(kKey.begin(), kKey.begin() + 20);
    const struct {
        const char *what;
        Bytes attack;
        size_t updates;  // sent by the reference profile
    } attacks[] = {{"replayed", ack_will(1, {nonce(kRemote)}, kKey), 1},
                   {"answers nothing sent", ack_will(9, {nonce(0x05050505)}, kKey), 1},
                   {"the last one again", ack_will(2, {nonce(0x01010101)}, kKey), 0}};
    for (bool hardened : {false, true})
        for (const auto &[what, attack, updates] : attacks) {
            SCOPED_TRACE(std::string(hardened ? "hardened, " : "reference, ") + what);
            World w;
            w.s->profile = hardened ? OHMARA_PROFILE_HARDENED : OHMARA_PROFILE_REFERENCE;
            w.s->local_nonce = kLocal;
            omsdk_test::QuietLog quiet;
            ASSERT_EQ(sendDiscoveryEvent(w.s, kUpdate), 0);     // sequence 1
            w.deliver(ack_will(1, {nonce(kRemote)}, kKey));     // ACTIVE; update 2
            w.deliver(ack_will(2, {nonce(0x01010101)}, kKey));  // the switch re-keys
            ASSERT_EQ(w.take().size(), 3u);
            const auto rejected = w.s->observe.rejections;
            w.deliver(attack);
            EXPECT_EQ(w.take().size(), hardened ? 0u : updates);  // a re-key sends an update
            EXPECT_EQ(w.s->observe.rejections - rejected, hardened ? 1u : 0u);
            EXPECT_EQ(answers(w, nonce_key(kLocal, 0x01010101, secret), 10),
                      hardened || updates == 0);
        }
}

// An acknowledgement and a SET recorded in one run, replayed after a restart: the reference
// nonce is the same at every start (the library never seeds rand()), so the SET verifies.
TEST(Acknowledge, RecordedHandshakeAndSetReplayedAfterARestart) {
    const Bytes secret(kKey.begin(), kKey.begin() + 20);
    for (bool hardened : {false, true}) {
        SCOPED_TRACE(hardened ? "hardened" : "reference");
        omsdk_test::QuietLog quiet;
        auto start = [hardened](World &w) {
            w.s->local_nonce = kLocal;
            w.s->profile = hardened ? OHMARA_PROFILE_HARDENED : OHMARA_PROFILE_REFERENCE;
            ASSERT_TRUE(!hardened || omsdk::draw_local_nonce(w.s));
            ASSERT_EQ(sendDiscoveryEvent(w.s, kUpdate), 0);  // sequence 1 at every start
        };
        const Bytes ack = ack_will(1, {nonce(kRemote)}, kKey);
        Bytes set;
        {
            World first;
            start(first);
            first.deliver(ack);
            set = from_switch(0, CV_CLASS_QUERY, kSet, 5,
                              {switch_reply_to(), identity(), {9, text("evil")}},
                              nonce_key(first.s->local_nonce, kRemote, secret));
            first.deliver(set);
            EXPECT_EQ(dev().modified, std::vector<int32_t>{4});  // taken in the first run
        }
        World again;
        start(again);
        again.deliver(ack);
        again.take();
        again.deliver(set);
        EXPECT_EQ(dev().modified, hardened ? std::vector<int32_t>{} : std::vector<int32_t>{4});
        EXPECT_EQ(again.take().size(), hardened ? 0u : 2u);  // WILL and an update
        EXPECT_STREQ(again.s->name, hardened ? "lab-7" : "evil");
    }
}

}  // namespace
