// Events: building TLV lists, look-ups and freeing; received messages with
// their size and header checks, the digest verdict; every TLV type, plain
// and aggregate, sent and received; hostile bytes.
#include <gtest/gtest.h>

#include <stdlib.h>

#include <deque>
#include <random>
#include <string>
#include <tuple>

#include <omsdk/aggregate.h>
#include <omsdk/codec.h>
#include <omsdk/enums.h>
#include <omsdk/pdu.h>

#include "log_capture.h"
#include "wire_test_util.h"

using namespace wire_test;

namespace {

// Values are copied, a header-only TLV has none, the array grows by 16.
TEST(Event, AddingTlvs) {
    EventPtr ev(corvane_create_my_packet());
    char text[] = "lab";
    ASSERT_EQ(0, cv_add_tlv(ev.get(), CV_CORVANE_TLV_TYPE_NAME, 16, text));
    ASSERT_EQ(0, cv_add_tlv(ev.get(), 42, 12, text));
    text[0] = 'X';
    EXPECT_STREQ("lab", static_cast<char *>(ev->tlvs[0]->value));
    EXPECT_EQ(std::make_pair(12u, static_cast<void *>(nullptr)),
              std::make_pair(ev->tlvs[1]->length, ev->tlvs[1]->value));
    // No event, a length below the header or no value: nothing is added.
    EXPECT_NE(0, cv_add_tlv(nullptr, 14, 13, text));
    EXPECT_NE(0, cv_add_tlv(ev.get(), 14, 11, text));
    EXPECT_NE(0, cv_add_tlv(ev.get(), 14, 13, nullptr));
    for (int i = 2; i < 17; ++i) {
        uint8_t v = static_cast<uint8_t>(i);
        EXPECT_EQ(i, ev->pak->tlv_count);
        ASSERT_EQ(0, cv_add_tlv(ev.get(), CV_CORVANE_TLV_TYPE_LEVEL_CURRENT, 13, &v));
        EXPECT_EQ(i < 16 ? 16 : 32, ev->tlv_capacity) << i + 1 << " TLVs";
    }
    for (int i = 2; i < 17; ++i) EXPECT_EQ(i, *static_cast<uint8_t *>(ev->tlvs[i]->value));
}

TEST(Event, LookupsByTypeQualifierAndIndex) {
    EventPtr ev(corvane_create_my_packet());
    uint8_t a = 1, b = 2, c = 3;
    ASSERT_EQ(0, cv_add_tlv(ev.get(), CV_CORVANE_TLV_TYPE_LEVEL_CURRENT, 13, &a));
    ASSERT_EQ(0, cv_add_tlv_common(ev.get(), CV_CORVANE_TLV_TYPE_IMPORTANCE, 13, &b, 1));
    ASSERT_EQ(0, cv_add_tlv(ev.get(), CV_CORVANE_TLV_TYPE_IMPORTANCE, 13, &c));
    ASSERT_EQ(0, cv_add_tlv_common(ev.get(), CV_CORVANE_TLV_TYPE_IMPORTANCE, 13, &a, 1));
    EXPECT_EQ(ev->tlvs[1], cv_get_next_tlv(ev.get(), CV_CORVANE_TLV_TYPE_IMPORTANCE));
    EXPECT_EQ(nullptr, cv_get_next_tlv(ev.get(), CV_CORVANE_TLV_TYPE_NAME));
    // {start index, qualifier, index found (-1: none)}; 4 is the count.
    const int32_t cases[][3] = {{0, 0, 2}, {2, 0, 2},  {3, 0, -1}, {0, 1, 1},
                                {2, 1, 3}, {4, 0, -1}, {4, 1, -1}, {-1, 0, -1}};
    for (const auto &k : cases) {
        SCOPED_TRACE(testing::Message() << "start " << k[0] << " qualifier " << k[1]);
        int32_t index = k[0], again = k[0];
        uint32_t len = 0;
        void *v = cv_get_next_tlv_value(ev.get(), &index, CV_CORVANE_TLV_TYPE_IMPORTANCE, &len,
                                        static_cast<uint32_t>(k[1]));
        EXPECT_EQ(std::make_tuple(k[2], k[2] < 0 ? nullptr : ev->tlvs[k[2]]->value),
                  std::make_tuple(index, v));
        EXPECT_EQ(k[2] < 0 ? 0u : 1u, len);
        if (k[1] == 0) {  // the same without a qualifier
            EXPECT_EQ(v, cv_get_tlv_value(ev.get(), &again, CV_CORVANE_TLV_TYPE_IMPORTANCE, &len));
            EXPECT_EQ(k[2], again);
        }
    }
}

// Cleanup frees replies only, try_gc everything, releasing a packet its raw
// bytes and record (the sanitizer build sees anything left or freed twice).
TEST(Event, FreeingByState) {
    omsdk_test::LogCapture cap(0);
    cv_event *reply = corvane_create_my_packet(), *other = corvane_create_my_packet();
    cv_event *packet = corvane_create_my_packet();
    for (cv_event *ev : {reply, other, packet}) {
        ASSERT_EQ(0, cv_add_tlv(ev, CV_CORVANE_TLV_TYPE_NAME, 16, "abc"));
        ASSERT_EQ(0, omr_createPdu(ev, 1, 1, 10, 11, nullptr, 1, nullptr, 1));
    }
    cap.clear();
    cv_cleanup_event(other);  // not a reply: left alone
    EXPECT_EQ(1, other->pak->tlv_count);
    EXPECT_EQ(0u, cap.lines().size());
    reply->state = CV_EVENT_STATE_REPLY;
    cv_cleanup_event(reply);
    corvane_try_gc(other);
    EXPECT_EQ(1u, cap.count_containing("Rply freed"));
    EXPECT_EQ(1u, cap.count_containing("released event"));
    corvane_try_gc(nullptr);
    omsdk::event_release(nullptr);
    cv_event_hdr *pak = packet->pak;
    cv_sec_hdr *sec = packet->sec;
    cv_free_tlvs(packet);
    omr_releasePacket(packet);
    free(pak);
    free(sec);
}

const Bytes kKey = hex("6b 65 79 2d 6f 66 2d 74 68 65 2d 64 6f 6d 61 69 6e");
const Bytes kOtherKey = hex("6b 65 79 2d 6f 66 2d 74 68 65 2d 64 6f 6d 61 69 6f");

// A message signed with kKey: the event header ends in `hdr_tail`.
Bytes message(const char *hdr_tail, const Bytes &tlvs = {}) {
    Builder m;
    m.h("00 02 00 00 00 00 00 00 00 11 00 14 | 20x00 | 00 00 00 09")
        .s("fedcba9876543210fedcba9876543210")
        .h(hdr_tail)
        .raw(tlvs);
    sign(m.b, kKey);
    return m.b;
}

Bytes empty_message() { return message("01 ff 64 0a 11 0a 00 0b 00 00 00 00"); }

// NAME "abc", LEVEL 42 and an 8-byte REPLY_TO.
Bytes three_tlv_message() {
    return message("01 00 64 0a 11 0a 00 0b 00 30 00 03",
                   hex("00 00 00 09 00 00 00 0f 00 00 00 00 61 62 63 | "
                       "00 00 00 0e 00 00 00 0d 00 00 00 00 2a | "
                       "00 00 00 17 00 00 00 14 00 00 00 00 01 02 03 04 05 06 07 08"));
}

TEST(Unpack, TruncatedMessageIsDropped) {
    omsdk_test::LogCapture cap(0);
    Bytes b(60, 0);
    EXPECT_EQ(nullptr, cv_mkevent_from_rawbuffer(59, b.data()));
    EXPECT_TRUE(cap.has(OHMARA_LOG_DEBUG, "cv_mkevent_from_rawbuffer",
                        "Dropping truncated packet"));
    EXPECT_EQ(nullptr, cv_mkevent_from_rawbuffer(-1, b.data()));
    EventPtr ev(cv_mkevent_from_rawbuffer(60, b.data()));  // a copy, not yet unpacked
    ASSERT_TRUE(ev);
    EXPECT_NE(b.data(), ev->raw);
    EXPECT_EQ(std::make_tuple(ev->raw_present, ev->raw_len, ev->state, ev->ready),
              std::make_tuple(1u, 60u, 257u, 0u));
}

TEST(Unpack, EmptyMessageAndTheDigestVerdict) {
    const Bytes msg = empty_message();
    ASSERT_EQ(80u, msg.size());
    KeyCtx right(kKey), wrong(kOtherKey);
    const std::pair<const hmac_sha_ctx *, uint32_t> cases[] = {
        {&right.ctx, 1}, {&wrong.ctx, 0}, {nullptr, 0}};
    for (const auto &k : cases) {
        int32_t rc = -1;
        EventPtr ev = receive(msg, k.first, &rc);
        ASSERT_TRUE(ev);
        EXPECT_EQ(std::make_tuple(0, k.second, 1u, 257u),
                  std::make_tuple(rc, ev->digest_ok, ev->ready, ev->state));
        EXPECT_EQ(std::make_tuple(ev->pak->tlv_count, ev->pak->seq, ev->pak->shipment),
                  std::make_tuple(uint16_t{0}, 9u, int8_t{-1}));
        int32_t index = 0;
        EXPECT_EQ(nullptr, cv_get_tlv_value(ev.get(), &index, CV_CORVANE_TLV_TYPE_NAME, nullptr));
        EXPECT_EQ(-1, index);
    }
}

TEST(Unpack, TlvsAreDecodedAndTheBufferReleased) {
    KeyCtx key(kKey);
    int32_t rc = -1;
    EventPtr ev = receive(three_tlv_message(), &key.ctx, &rc);
    ASSERT_EQ(0, rc);
    ASSERT_EQ(3, ev->pak->tlv_count);
    EXPECT_EQ(std::make_tuple(ev->digest_ok, ev->tlv_capacity, ev->pak->tlv_bytes),
              std::make_tuple(1u, 3, uint16_t{0x30}));
    EXPECT_EQ(std::make_tuple(ev->raw, ev->raw_present, ev->raw_len),
              std::make_tuple(nullptr, 0u, 0u));  // auth 1: the bytes are let go
    EXPECT_STREQ("abc", static_cast<char *>(ev->tlvs[0]->value));
    EXPECT_EQ(42, *static_cast<uint8_t *>(ev->tlvs[1]->value));
    EXPECT_EQ(0, memcmp(hex("01 02 03 04 05 06 07 08").data(), ev->tlvs[2]->value, 8));
    EXPECT_EQ(0, cv_unpack_event(ev.get(), &key.ctx));  // again: changes nothing
    EXPECT_EQ(3, ev->pak->tlv_count);
}

// Receives with kKey: result 0 is a ready event with the digest verdict 1,
// any other an error state, nothing ready or kept, no verdict.
EventPtr expect_result(const Bytes &msg, int32_t result) {
    KeyCtx key(kKey);
    int32_t rc = -1;
    EventPtr ev = receive(msg, &key.ctx, &rc);
    EXPECT_EQ(result, rc);
    if (ev && result == 0) {
        EXPECT_EQ(std::make_tuple(ev->state, ev->ready, ev->digest_ok),
                  std::make_tuple(257u, 1u, 1u));
    } else if (ev) {
        EXPECT_EQ(std::make_tuple(ev->state, ev->ready, ev->digest_ok, ev->pak, ev->tlvs),
                  std::make_tuple(263u, 0u, 0u, nullptr, nullptr));
    }
    return ev;
}

TEST(Unpack, SizeMismatch) {
    const Bytes msg = empty_message();
    Bytes claims_more = msg;
    claims_more[77] = 0x01;  // one TLV byte that is not there
    claims_more.resize(78);
    const std::pair<Bytes, const char *> rows[] = {
        {cat({msg, {0}}), "Cant unpack size mismatch: got 81, expecting: 80"},
        {claims_more, "Cant unpack size mismatch: got 78, expecting: 80"},
        {Bytes(msg.begin(), msg.begin() + 70), "Cant unpack size mismatch: got 70, expecting: 80"},
    };
    for (const auto &r : rows) {
        omsdk_test::LogCapture cap(0);
        EXPECT_TRUE(expect_result(r.first, 3));
        EXPECT_TRUE(cap.contains(r.second)) << cap.dump();
    }
}

// Single bytes changed in the three-TLV message (signed again): security
// headers other than enc 2, auth 1, comm 0..4, digest length 20, and TLVs
// that do not fit, fail the whole message.
TEST(Unpack, BadHeadersAndTlvs) {
    // {offset, byte, result}: enc 3, reserved nibble, auth 2, auth 0, comm 5,
    // comm 0, comm 4, digest length 16, digest length 276; TLV count beyond
    // the TLVs, count the bytes cannot hold, TLV length past the end, TLV
    // length below its header, level with a spare byte.
    const int cases[][3] = {{1, 0x03, 5},  {1, 0x12, 0},  {9, 0x21, 5},  {9, 0x01, 5},
                            {9, 0x15, 5},  {9, 0x10, 0},  {9, 0x14, 0},  {11, 0x10, 5},
                            {10, 0x01, 5}, {79, 0x04, 1}, {78, 0xff, 1}, {87, 0x31, 1},
                            {87, 0x08, 1}, {102, 0x0e, 1}};
    for (const auto &r : cases) {
        SCOPED_TRACE(testing::Message() << "byte " << r[0] << " = " << r[1]);
        Bytes msg = three_tlv_message();
        msg[static_cast<size_t>(r[0])] = static_cast<uint8_t>(r[1]);
        sign(msg, kKey);
        EXPECT_TRUE(expect_result(msg, r[2]));
    }
}

// Every TLV type, plain and aggregate, built, signed, received and compared
// with what was sent. Not compared, by design of the wire form:
//  - event id (35): the receiver reads the id from the number's position,
//    so only the number survives;
//  - unknown types come back with a null value;
//  - neighbour records' unencoded fields are left unset by the receiver.
// Received texts, and aggregate text entries, count their terminator.

// A value in memory: that many fixed bytes, or one of these.
enum : int { kNone = 0, kStr = -1, kBlob = -2, kNeighbor = -3, kRecur = -4, kEventId = -5 };

const int kKinds[52] = {
    /*  0 */ kBlob, 36, 32, 4, kBlob, kStr, kStr, kStr, kStr, kStr, kBlob, kStr, 1,
    /* 13 */ 2, 1, 1, 1, 1, 1, 2, 32, 32, 4, kBlob, kBlob, 4,
    /* 26 */ 4, kStr, kNeighbor, 2, 32, 4, 4, 4, 4, kEventId, 44, kNone, 4,
    /* 39 */ 22, kStr, 1, kNone, 2, 22, 44, kRecur, 4, kStr, 2, 16 /* alarm */, 4};

// A record's encoding (their layouts are checked byte by byte elsewhere).
template <typename T>
Bytes packed(uint32_t (*pack)(uint8_t *, const T *), const void *record) {
    uint8_t out[256];
    return Bytes(out, out + pack(out, static_cast<const T *>(record)));
}

// One value of a type, different for every (type, salt). Kept in a deque:
// the records point into their own strings.
struct Value {
    int kind;
    std::string text;
    Bytes bytes;  // fixed values; blobs hold a terminated text for keyword lists
    Bytes blob;
    cv_neighbor ngh;
    cv_recurrence rec;
    const void *ptr;
    uint32_t size;  // given to cv_add_tlv and kept in aggregate entries
    Value(uint32_t t, uint32_t salt)
        : kind(kKinds[t]), text("text-" + std::to_string(t) + "-" + std::to_string(salt)) {
        const uint8_t base = static_cast<uint8_t>(t * 7 + salt * 31 + 0x81);
        const int n = kind > 0 ? kind : kind == kEventId || kind == kNeighbor ? 36 : 0;
        for (int i = 0; i < n; ++i) bytes.push_back(static_cast<uint8_t>(base + i * 13));
        if (t == 50) bytes[6] = bytes[7] = 0;  // the alarm's reserved bytes do not travel
        if (kind == kBlob) bytes.assign(text.c_str(), text.c_str() + text.size() + 1);
        blob = {base, 0, 0xff, static_cast<uint8_t>(salt)};
        ngh = {0, {0}, &text[0], blob.data(), 4, {0}, -static_cast<int32_t>(salt) - 2};
        if (kind == kNeighbor) memcpy(ngh.id, bytes.data(), 32);
        rec = {&text[0], base, static_cast<uint8_t>(~base), 1};
        ptr = kind == kStr ? text.c_str() : kind == kNeighbor ? static_cast<void *>(&ngh)
            : kind == kRecur ? static_cast<void *>(&rec) : kind == kNone ? nullptr : bytes.data();
        size = static_cast<uint32_t>(kind == kStr ? text.size() + 1 : kind == kNeighbor ? sizeof ngh
                                     : kind == kRecur ? sizeof rec : bytes.size());
    }
    void expect_same(const void *got) const {
        if (kind == kNone) {
            EXPECT_EQ(nullptr, got);
            return;
        }
        ASSERT_NE(nullptr, got);
        if (kind == kStr) {
            EXPECT_STREQ(text.c_str(), static_cast<const char *>(got));
        } else if (kind == kNeighbor) {  // their every encoded field
            EXPECT_EQ(packed(om_pack_neighbor, &ngh), packed(om_pack_neighbor, got));
        } else if (kind == kRecur) {
            EXPECT_EQ(packed(om_pack_recurrence, &rec), packed(om_pack_recurrence, got));
        } else {
            EXPECT_EQ(0, memcmp(bytes.data(), got, kind == kEventId ? 4 : bytes.size()));
        }
    }
};

// Signs the event into a message: seq 77, pri 9, comm 2.
Bytes make_pdu(cv_event *ev) {
    KeyCtx key(kKey);
    const char *id = "abcdefghijklmnopqrstuvwxyz012345";
    EXPECT_EQ(0, omr_createPdu(ev, 9, CV_SHIPMENT_REPLY_NO_ERROR, CV_CLASS_QUERY, 11,
                               reinterpret_cast<const uint8_t *>(id), 77, &key.ctx, 2));
    return raw_of(ev);
}

EventPtr send_and_receive(cv_event *ev) {
    KeyCtx key(kKey);
    int32_t rc = -1;
    EventPtr rx = receive(make_pdu(ev), &key.ctx, &rc);
    EXPECT_EQ(0, rc);
    EXPECT_EQ(1u, rx->digest_ok);
    EXPECT_EQ(std::make_tuple(rx->pak->tlv_count, rx->pak->tlv_bytes),
              std::make_tuple(ev->pak->tlv_count, ev->pak->tlv_bytes));
    EXPECT_EQ(std::make_tuple(rx->pak->seq, rx->pak->pri, rx->pak->shipment, rx->pak->event_class,
                              rx->pak->action, rx->sec->auth_comm),
              std::make_tuple(77u, uint8_t{9}, int8_t{1}, uint8_t{CV_CLASS_QUERY}, uint16_t{11},
                              uint8_t{0x21}));
    return rx;
}

// Types 0..51 with values kept in `sent`, then an unknown and a qualified TLV.
EventPtr every_plain_type(std::deque<Value> &sent) {
    EventPtr ev(corvane_create_my_packet());
    for (uint32_t t = 0; t <= 51; ++t) {
        const Value &v = sent.emplace_back(t, 1);
        EXPECT_EQ(0, cv_add_tlv(ev.get(), t, 12 + v.size, v.ptr)) << t;
    }
    uint32_t four = 4;
    EXPECT_EQ(0, cv_add_tlv(ev.get(), 60, 16, &four));  // unknown to the receiver
    EXPECT_EQ(0, cv_add_tlv_common(ev.get(), CV_CORVANE_TLV_TYPE_NONCE, 16, &four, 2));
    return ev;
}

TEST(RoundTrip, EveryPlainType) {
    std::deque<Value> sent;
    EventPtr ev = every_plain_type(sent);
    EventPtr rx = send_and_receive(ev.get());
    ASSERT_EQ(54, rx->pak->tlv_count);
    for (uint32_t t = 0; t <= 51; ++t) {
        SCOPED_TRACE(testing::Message() << "type " << t);
        const cv_tlv *tlv = rx->tlvs[t];
        EXPECT_EQ(std::make_tuple(t, 0u), std::make_tuple(tlv->type, tlv->qualifier));
        if (sent[t].kind == kStr) {
            EXPECT_EQ(13 + sent[t].text.size(), tlv->length);
        }
        sent[t].expect_same(tlv->value);
    }
    EXPECT_EQ(std::make_tuple(60u, nullptr, 2u, 4u),
              std::make_tuple(rx->tlvs[52]->type, rx->tlvs[52]->value, rx->tlvs[53]->qualifier,
                              *static_cast<uint32_t *>(rx->tlvs[53]->value)));
}

char *text(const char *s) { return const_cast<char *>(s); }  // only read by the library
const cv_usage_cmn_hdr kHdrs[2] = {{1, -1, text("name1"), text("role1"), -2, 1, 99, text("k1,k2")},
                                   {2, -2, text("name2"), text(""), -3, 2, 98, text("k3")}};
uint8_t kDevBlob[3] = {0x0a, 0x0b, 0x0c};

// An aggregate of two entries (values kept in `sent`) for each of types 0..51.
EventPtr every_aggregate_type(std::deque<Value> &sent) {
    EventPtr ev(corvane_create_my_packet());
    for (uint32_t t = 0; t <= 51; ++t) {
        cv_aggr_block block;
        memset(&block, 0, sizeof block);
        for (int i = 0; i < 32; ++i) block.dh.id[i] = static_cast<uint8_t>(t + i);
        block.dh.blob = kDevBlob;
        block.dh.blob_len = 3;
        cv_aggr_entry plain[2];
        cv_combo_entry combo[2];
        void *entries[2];
        for (uint32_t i = 0; i < 2; ++i) {
            const Value &v = sent.emplace_back(t, i + 2);
            plain[i] = {100 + i, v.size, const_cast<void *>(v.ptr)};
            combo[i] = {100 + i, kHdrs[i], const_cast<void *>(v.ptr)};
            entries[i] = cv_is_combo_tlv(t) ? static_cast<void *>(&combo[i]) : &plain[i];
        }
        block.count = 2;
        block.entries = entries;
        EXPECT_EQ(0, cv_add_tlv_bytes(ev.get(), t | CV_TLV_AGGREGATE_FLAG, 60,
                                      reinterpret_cast<const uint8_t *>(&block)));
    }
    return ev;
}

TEST(RoundTrip, EveryAggregateType) {
    std::deque<Value> sent;
    EventPtr ev = every_aggregate_type(sent);
    EventPtr rx = send_and_receive(ev.get());
    ASSERT_EQ(52, rx->pak->tlv_count);
    for (uint32_t t = 0; t <= 51; ++t) {
        SCOPED_TRACE(testing::Message() << "aggregate type " << t);
        EXPECT_EQ(t | CV_TLV_AGGREGATE_FLAG, rx->tlvs[t]->type);
        const auto *block = static_cast<const cv_aggr_block *>(rx->tlvs[t]->value);
        ASSERT_NE(nullptr, block);
        EXPECT_EQ(static_cast<uint8_t>(t + 31), block->dh.id[31]);
        ASSERT_EQ(3u, block->dh.blob_len);
        EXPECT_EQ(0, memcmp(kDevBlob, block->dh.blob, 3));
        ASSERT_EQ(2u, block->count);
        for (uint32_t i = 0; i < 2; ++i) {
            const Value &v = sent[2 * t + i];
            if (cv_is_combo_tlv(t)) {
                const auto *e = static_cast<const cv_combo_entry *>(block->entries[i]);
                EXPECT_EQ(100 + i, e->id);
                EXPECT_EQ(packed(om_pack_usage_cmn_hdr, &kHdrs[i]),
                          packed(om_pack_usage_cmn_hdr, &e->hdr));
                v.expect_same(e->value);
            } else {
                const auto *e = static_cast<const cv_aggr_entry *>(block->entries[i]);
                EXPECT_EQ(100 + i, e->id);
                if (v.kind == kStr || v.kind == kBlob) {
                    EXPECT_EQ(v.size, e->len);
                }
                v.expect_same(e->value);
            }
        }
    }
}

// Random damage to valid messages must never read or write outside the
// buffer or leak (checked under the sanitizers); bounded rounds.
TEST(Unpack, HostileBytesAreContained) {
    omsdk_test::LogCapture quiet(OHMARA_LOG_FATAL);
    KeyCtx key(kKey);
    std::deque<Value> plain, aggregated;
    const Bytes seeds[] = {empty_message(), three_tlv_message(),
                           make_pdu(every_plain_type(plain).get()),
                           make_pdu(every_aggregate_type(aggregated).get())};
    std::mt19937 rng(12345);
    for (int round = 0; round < 6000; ++round) {
        Bytes msg = seeds[round % 4];
        int edits = 1 + static_cast<int>(rng() % 6);
        for (int e = 0; e < edits; ++e)
            msg[32 + rng() % (msg.size() - 32)] = static_cast<uint8_t>(rng());
        if (rng() % 3 == 0) msg.resize(60 + rng() % (msg.size() + 40 - 60), 0xa5);
        // Keep the size consistent most of the time so the TLV decoder runs.
        if (rng() % 4 != 0 && msg.size() >= 80) {
            msg[76] = static_cast<uint8_t>((msg.size() - 80) >> 8);
            msg[77] = static_cast<uint8_t>(msg.size() - 80);
        }
        int32_t rc = -1;
        EventPtr ev = receive(msg, &key.ctx, &rc);
        ASSERT_TRUE(ev);
        for (int32_t i = 0; rc == 0 && i < ev->pak->tlv_count; ++i) ASSERT_NE(nullptr, ev->tlvs[i]);
    }
}

}  // namespace
