// Every TLV type, plain and aggregate, built, signed, received and compared
// field by field with what was sent.
//
// Not compared, by design of the wire form:
//  - event id (35): the receiver reads the id from the number's first byte
//    on, so only the number survives;
//  - unknown types are kept with a null value;
//  - aggregate string entries come back with the terminator counted in
//    their length;
//  - strings with an embedded NUL end at it (none are sent here);
//  - neighbour records' unencoded fields are left unset by the receiver.
#include <gtest/gtest.h>

#include <stdlib.h>

#include <string>

#include <omsdk/aggregate.h>
#include <omsdk/codec.h>
#include <omsdk/enums.h>
#include <omsdk/pdu.h>

#include "wire_test_util.h"

using namespace wire_test;

namespace {

// clang-format off
enum class Kind { Opaque, Sender, Id32, U32, Str, U8, U16, Neighbor, EventId, Delta, None, UVec,
                  Recur, Alarm };
// clang-format on

Kind kind_of(uint32_t t) {
    using K = Kind;
    // clang-format off
    static const Kind kinds[52] = {
        /*  0 */ K::Opaque, K::Sender, K::Id32, K::U32, K::Opaque, K::Str, K::Str, K::Str, K::Str, K::Str,
        /* 10 */ K::Opaque, K::Str, K::U8, K::U16, K::U8, K::U8, K::U8, K::U8, K::U8, K::U16,
        /* 20 */ K::Id32, K::Id32, K::U32, K::Opaque, K::Opaque, K::U32, K::U32, K::Str, K::Neighbor, K::U16,
        /* 30 */ K::Id32, K::U32, K::U32, K::U32, K::U32, K::EventId, K::Delta, K::None, K::U32, K::UVec,
        /* 40 */ K::Str, K::U8, K::None, K::U16, K::UVec, K::Delta, K::Recur, K::U32, K::Str, K::U16,
        /* 50 */ K::Alarm, K::U32,
    };
    // clang-format on
    return t < 52 ? kinds[t] : K::None;
}

// Owns one in-memory value of a type, different for every (type, salt).
struct Value {
    Kind kind;
    Bytes bytes;              // fixed-size kinds and opaque blobs
    std::string text;         // strings
    mutable cv_neighbor ngh;  // text pointers refreshed by ptr(): Values move
    mutable cv_recurrence rec;
    Bytes blob;

    Value(uint32_t t, uint32_t salt) : kind(kind_of(t)) {
        memset(&ngh, 0, sizeof ngh);
        memset(&rec, 0, sizeof rec);
        const uint8_t base = static_cast<uint8_t>(t * 7 + salt * 31 + 0x81);
        auto fill = [&](size_t n) {
            bytes.resize(n);
            for (size_t i = 0; i < n; ++i) bytes[i] = static_cast<uint8_t>(base + i * 13);
        };
        text = "text-" + std::to_string(t) + "-" + std::to_string(salt);
        switch (kind) {
            case Kind::Opaque:  // a terminated text, so keyword lists can use it too
                bytes.assign(text.begin(), text.end());
                bytes.push_back(0);
                break;
            case Kind::Sender:
            case Kind::EventId: fill(36); break;
            case Kind::Id32: fill(32); break;
            case Kind::U32: fill(4); break;
            case Kind::U8: fill(1); break;
            case Kind::U16: fill(2); break;
            case Kind::Delta: fill(44); break;
            case Kind::UVec: fill(22); break;
            case Kind::Alarm:
                fill(16);
                bytes[6] = bytes[7] = 0;  // reserved, not on the wire
                break;
            case Kind::Neighbor:
                fill(32);
                blob = {static_cast<uint8_t>(base), 0, 0xff, static_cast<uint8_t>(salt)};
                memcpy(ngh.id, bytes.data(), 32);
                ngh.blob = blob.data();
                ngh.blob_len = static_cast<uint32_t>(blob.size());
                ngh.flag = -static_cast<int32_t>(salt) - 2;
                break;
            case Kind::Recur:
                rec.first = base;
                rec.second = static_cast<uint8_t>(~base);
                rec.flag = 1;
                break;
            default: break;
        }
    }
    const void *ptr() const {
        ngh.name = const_cast<char *>(text.c_str());
        rec.text = ngh.name;
        switch (kind) {
            case Kind::Str: return text.c_str();
            case Kind::Neighbor: return &ngh;
            case Kind::Recur: return &rec;
            case Kind::None: return nullptr;
            default: return bytes.data();
        }
    }
    // Size handed to cv_add_tlv and stored in aggregate entries.
    uint32_t mem_size() const {
        switch (kind) {
            case Kind::Str: return static_cast<uint32_t>(text.size() + 1);
            case Kind::Neighbor: return sizeof(cv_neighbor);
            case Kind::Recur: return sizeof(cv_recurrence);
            case Kind::None: return 0;
            default: return static_cast<uint32_t>(bytes.size());
        }
    }
    // Encoded size of the value (strings and blobs without length prefix).
    uint32_t wire_size() const {
        switch (kind) {
            case Kind::Str: return static_cast<uint32_t>(text.size());
            case Kind::Neighbor: return static_cast<uint32_t>(44 + text.size() + blob.size());
            case Kind::Recur: return static_cast<uint32_t>(10 + text.size());
            case Kind::Alarm: return 14;
            case Kind::None: return 0;
            default: return static_cast<uint32_t>(bytes.size());
        }
    }

    void expect_same(const void *got) const {
        if (kind == Kind::None) {
            EXPECT_EQ(nullptr, got);
            return;
        }
        ASSERT_NE(nullptr, got);
        switch (kind) {
            case Kind::Str: EXPECT_STREQ(text.c_str(), static_cast<const char *>(got)); break;
            case Kind::EventId: {
                cv_event_id e;
                memcpy(&e, bytes.data(), sizeof e);
                EXPECT_EQ(e.number, static_cast<const cv_event_id *>(got)->number);
                break;
            }
            case Kind::Alarm: {
                cv_alarm a;
                memcpy(&a, bytes.data(), sizeof a);
                const auto *b = static_cast<const cv_alarm *>(got);
                EXPECT_EQ(a.seconds, b->seconds);
                EXPECT_EQ(a.param2, b->param2);
                EXPECT_EQ(a.param1, b->param1);
                EXPECT_EQ(a.id, b->id);
                EXPECT_EQ(a.operation, b->operation);
                break;
            }
            case Kind::Neighbor: {
                const auto *b = static_cast<const cv_neighbor *>(got);
                EXPECT_EQ(0, memcmp(ngh.id, b->id, 32));
                EXPECT_STREQ(text.c_str(), b->name);
                ASSERT_EQ(ngh.blob_len, b->blob_len);
                EXPECT_EQ(0, memcmp(ngh.blob, b->blob, ngh.blob_len));
                EXPECT_EQ(ngh.flag, b->flag);
                break;
            }
            case Kind::Recur: {
                const auto *b = static_cast<const cv_recurrence *>(got);
                EXPECT_STREQ(text.c_str(), b->text);
                EXPECT_EQ(rec.first, b->first);
                EXPECT_EQ(rec.second, b->second);
                EXPECT_EQ(rec.flag, b->flag);
                break;
            }
            default: EXPECT_EQ(0, memcmp(bytes.data(), got, bytes.size())); break;
        }
    }
};

const Bytes kKey = hex("72 6f 75 6e 64 2d 74 72 69 70");

EventPtr send_and_receive(cv_event *ev) {
    KeyCtx key(kKey);
    EXPECT_EQ(
        0, omr_createPdu(ev, 9, CV_SHIPMENT_REPLY_NO_ERROR, CV_CLASS_QUERY, 11,
                         reinterpret_cast<const uint8_t *>("abcdefghijklmnopqrstuvwxyz012345"), 77,
                         &key.ctx, 2));
    int32_t rc = -1;
    EventPtr rx = receive(raw_of(ev), &key.ctx, &rc);
    EXPECT_EQ(0, rc);
    EXPECT_EQ(1u, rx->digest_ok);
    EXPECT_EQ(ev->pak->tlv_count, rx->pak->tlv_count);
    EXPECT_EQ(ev->pak->tlv_bytes, rx->pak->tlv_bytes);
    EXPECT_EQ(77u, rx->pak->seq);
    EXPECT_EQ(9, rx->pak->pri);
    EXPECT_EQ(1, rx->pak->shipment);
    EXPECT_EQ(CV_CLASS_QUERY, rx->pak->event_class);
    EXPECT_EQ(11, rx->pak->action);
    EXPECT_EQ(0x20, rx->sec->auth_comm & 0xf0);
    return rx;
}

TEST(RoundTrip, EveryPlainType) {
    EventPtr ev(corvane_create_my_packet());
    std::vector<Value> sent;
    for (uint32_t t = 0; t <= 51; ++t) {
        sent.emplace_back(t, 1);
        ASSERT_EQ(0, cv_add_tlv(ev.get(), t, 12 + sent.back().mem_size(), sent.back().ptr())) << t;
    }
    const uint32_t unknown = 60, qualified = 2;
    uint32_t four = 4;
    ASSERT_EQ(0, cv_add_tlv(ev.get(), unknown, 16, &four));
    ASSERT_EQ(0, cv_add_tlv_common(ev.get(), CV_CORVANE_TLV_TYPE_NONCE, 16, &four, qualified));

    EventPtr rx = send_and_receive(ev.get());
    ASSERT_TRUE(rx);
    ASSERT_EQ(54, rx->pak->tlv_count);
    for (uint32_t t = 0; t <= 51; ++t) {
        SCOPED_TRACE(testing::Message() << "type " << t);
        const cv_tlv *tlv = rx->tlvs[t];
        EXPECT_EQ(t, tlv->type);
        EXPECT_EQ(0u, tlv->qualifier);
        const Value &v = sent[t];
        // A received text is stored with room for its terminator.
        EXPECT_EQ(12 + v.wire_size() + (v.kind == Kind::Str ? 1 : 0), tlv->length);
        v.expect_same(tlv->value);
    }
    EXPECT_EQ(unknown, rx->tlvs[52]->type);
    EXPECT_EQ(qualified, rx->tlvs[53]->qualifier);
    EXPECT_EQ(4u, *static_cast<uint32_t *>(rx->tlvs[53]->value));
}

cv_usage_cmn_hdr common_header(uint32_t salt, std::string &a, std::string &b, std::string &c) {
    a = "name" + std::to_string(salt);
    b = "role" + std::to_string(salt);
    c = "k1,k" + std::to_string(salt);
    return {salt,
            -static_cast<int32_t>(salt),
            &a[0],
            &b[0],
            static_cast<int8_t>(-1 - salt),
            static_cast<uint8_t>(salt),
            static_cast<uint8_t>(100 - salt),
            &c[0]};
}

void expect_same_header(const cv_usage_cmn_hdr &a, const cv_usage_cmn_hdr &b) {
    EXPECT_EQ(a.version, b.version);
    EXPECT_EQ(a.caliber, b.caliber);
    EXPECT_STREQ(a.name, b.name);
    EXPECT_STREQ(a.role, b.role);
    EXPECT_EQ(a.units, b.units);
    EXPECT_EQ(a.level, b.level);
    EXPECT_EQ(a.importance, b.importance);
    EXPECT_STREQ(a.keywords, b.keywords);
}

// Aggregate blocks with two entries of every type, built directly.
TEST(RoundTrip, EveryAggregateType) {
    EventPtr ev(corvane_create_my_packet());
    std::vector<std::vector<Value>> sent(52);
    std::string names[2], roles[2], keys[2];
    cv_usage_cmn_hdr hdrs[2] = {common_header(1, names[0], roles[0], keys[0]),
                                common_header(2, names[1], roles[1], keys[1])};
    Bytes blob = hex("0a 0b 0c");
    for (uint32_t t = 0; t <= 51; ++t) {
        cv_aggr_block block;
        memset(&block, 0, sizeof block);
        for (int i = 0; i < 32; ++i) block.dh.id[i] = static_cast<uint8_t>(t + i);
        block.dh.blob = blob.data();
        block.dh.blob_len = static_cast<uint32_t>(blob.size());
        cv_aggr_entry plain[2];
        cv_combo_entry combo[2];
        void *entries[2];
        for (uint32_t i = 0; i < 2; ++i) {
            sent[t].emplace_back(t, i + 2);
        }
        for (uint32_t i = 0; i < 2; ++i) {
            const Value &v = sent[t][i];
            if (cv_is_combo_tlv(t)) {
                combo[i] = {100 + i, hdrs[i], const_cast<void *>(v.ptr())};
                entries[i] = &combo[i];
            } else {
                plain[i] = {100 + i, v.mem_size(), const_cast<void *>(v.ptr())};
                entries[i] = &plain[i];
            }
        }
        block.count = 2;
        block.entries = entries;
        ASSERT_EQ(0, cv_add_tlv_bytes(ev.get(), t | CV_TLV_AGGREGATE_FLAG, 60,
                                      reinterpret_cast<const uint8_t *>(&block)));
    }

    EventPtr rx = send_and_receive(ev.get());
    ASSERT_TRUE(rx);
    ASSERT_EQ(52, rx->pak->tlv_count);
    for (uint32_t t = 0; t <= 51; ++t) {
        SCOPED_TRACE(testing::Message() << "aggregate type " << t);
        const cv_tlv *tlv = rx->tlvs[t];
        EXPECT_EQ(t | CV_TLV_AGGREGATE_FLAG, tlv->type);
        const auto *block = static_cast<const cv_aggr_block *>(tlv->value);
        ASSERT_NE(nullptr, block);
        EXPECT_EQ(static_cast<uint8_t>(t + 31), block->dh.id[31]);
        ASSERT_EQ(3u, block->dh.blob_len);
        EXPECT_EQ(0, memcmp(blob.data(), block->dh.blob, 3));
        ASSERT_EQ(2u, block->count);
        for (uint32_t i = 0; i < 2; ++i) {
            const Value &v = sent[t][i];
            if (cv_is_combo_tlv(t)) {
                const auto *e = static_cast<const cv_combo_entry *>(block->entries[i]);
                EXPECT_EQ(100 + i, e->id);
                expect_same_header(hdrs[i], e->hdr);
                v.expect_same(e->value);
            } else {
                const auto *e = static_cast<const cv_aggr_entry *>(block->entries[i]);
                EXPECT_EQ(100 + i, e->id);
                // Texts come back with their terminator counted.
                EXPECT_EQ(v.wire_size() + (v.kind == Kind::Str ? 1 : 0), e->len);
                v.expect_same(e->value);
            }
        }
    }
}

// The same through the entry builders, many entries, two devices.
TEST(RoundTrip, PopulatedAggregates) {
    EventPtr ev(corvane_create_my_packet());
    const uint32_t types[] = {7, 9, 10, 12, 13, 14, 16, 17, 36, 38, 39, 43, 44, 45, 48, 51};
    Bytes blob_a = hex("01 02"), blob_b = hex("03 04 05 06");
    cv_device_header dh[2];
    memset(dh, 0, sizeof dh);
    memset(dh[0].id, 'a', 32);
    memset(dh[1].id, 'b', 32);
    dh[0].blob = blob_a.data();
    dh[0].blob_len = 2;
    dh[1].blob = blob_b.data();
    dh[1].blob_len = 4;
    std::string n, r, k;
    cv_usage_cmn_hdr hdr = common_header(7, n, r, k);
    std::vector<Value> values;
    for (uint32_t t : types)
        for (uint32_t i = 0; i < 18; ++i) values.emplace_back(t, i);
    size_t at = 0;
    for (uint32_t t : types)
        for (uint32_t i = 0; i < 18; ++i, ++at)
            ASSERT_EQ(0, cv_add_aggr_type_tlv(ev.get(), t, values[at].ptr(), i, &dh[i % 2], &hdr));
    ASSERT_EQ(0, cv_aggr_ack(ev.get(), 5, &dh[1]));

    EventPtr rx = send_and_receive(ev.get());
    ASSERT_TRUE(rx);
    ASSERT_EQ(2 * 16 + 1, rx->pak->tlv_count);
    at = 0;
    int32_t slot = 0;
    for (uint32_t t : types) {
        for (int d = 0; d < 2; ++d, ++slot) {
            SCOPED_TRACE(testing::Message() << "type " << t << " device " << d);
            const auto *block = static_cast<const cv_aggr_block *>(rx->tlvs[slot]->value);
            ASSERT_EQ(t | CV_TLV_AGGREGATE_FLAG, rx->tlvs[slot]->type);
            EXPECT_EQ(0, memcmp(dh[d].id, block->dh.id, 32));
            ASSERT_EQ(dh[d].blob_len, block->dh.blob_len);
            EXPECT_EQ(0, memcmp(dh[d].blob, block->dh.blob, dh[d].blob_len));
            ASSERT_EQ(9u, block->count);
            for (uint32_t e = 0; e < 9; ++e) {
                const Value &v = values[at + 2 * e + static_cast<uint32_t>(d)];
                if (cv_is_combo_tlv(t)) {
                    const auto *c = static_cast<const cv_combo_entry *>(block->entries[e]);
                    EXPECT_EQ(2 * e + static_cast<uint32_t>(d), c->id);
                    expect_same_header(hdr, c->hdr);
                    v.expect_same(c->value);
                } else {
                    const auto *p = static_cast<const cv_aggr_entry *>(block->entries[e]);
                    EXPECT_EQ(2 * e + static_cast<uint32_t>(d), p->id);
                    v.expect_same(p->value);
                }
            }
        }
        at += 18;
    }
    const auto *ack = static_cast<const cv_aggr_block *>(rx->tlvs[slot]->value);
    EXPECT_EQ(42u | CV_TLV_AGGREGATE_FLAG, rx->tlvs[slot]->type);
    ASSERT_EQ(1u, ack->count);
    EXPECT_EQ(5u, static_cast<const cv_aggr_entry *>(ack->entries[0])->id);
    EXPECT_EQ(nullptr, static_cast<const cv_aggr_entry *>(ack->entries[0])->value);
}

}  // namespace
