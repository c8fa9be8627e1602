// SPDX-License-Identifier: Apache-2.0
// Writes the seed corpus of the wire fuzz target: valid, signed messages
// with every TLV type plain and as an aggregate (combo types with their
// usage common headers), the messages the endpoint and its switch exchange,
// and a few hand-patched oddities.
//
// Usage: make_corpus [--engine] DIR   (DIR is created when missing)
// With --engine it writes the engine target's seeds instead (engine_seeds.cpp).
#include <errno.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>

#include <initializer_list>
#include <string>
#include <vector>

#include <omsdk/aggregate.h>
#include <omsdk/codec.h>
#include <omsdk/enums.h>
#include <omsdk/event.h>
#include <omsdk/pdu.h>

#include "../bench/discovery_update.h"
#include "engine_seeds.h"
#include "fuzz_key.h"

namespace {

using Bytes = std::vector<uint8_t>;

hmac_sha_ctx g_key;
const uint8_t kSender[CV_CORVANE_ID_SIZE + 1] = "0123456789abcdef0123456789abcdef";
std::string g_dir;
int g_written = 0;

enum class Kind {
    Opaque,
    Sender,
    Id32,
    U32,
    Str,
    U8,
    U16,
    Neighbor,
    EventId,
    Delta,
    None,
    UVec,
    Recur,
    Alarm
};

Kind kind_of(uint32_t t) {
    using K = Kind;
    static const Kind kinds[52] = {
        /*  0 */ K::Opaque,
        K::Sender,
        K::Id32,
        K::U32,
        K::Opaque,
        K::Str,
        K::Str,
        K::Str,
        /*  8 */ K::Str,
        K::Str,
        K::Opaque,
        K::Str,
        K::U8,
        K::U16,
        K::U8,
        K::U8,
        /* 16 */ K::U8,
        K::U8,
        K::U8,
        K::U16,
        K::Id32,
        K::Id32,
        K::U32,
        K::Opaque,
        /* 24 */ K::Opaque,
        K::U32,
        K::U32,
        K::Str,
        K::Neighbor,
        K::U16,
        K::Id32,
        K::U32,
        /* 32 */ K::U32,
        K::U32,
        K::U32,
        K::EventId,
        K::Delta,
        K::None,
        K::U32,
        K::UVec,
        /* 40 */ K::Str,
        K::U8,
        K::None,
        K::U16,
        K::UVec,
        K::Delta,
        K::Recur,
        K::U32,
        /* 48 */ K::Str,
        K::U16,
        K::Alarm,
        K::U32,
    };
    return t < 52 ? kinds[t] : K::None;
}

// One in-memory value of a TLV type; `salt` varies it.
struct Value {
    Kind kind;
    Bytes bytes;
    std::string text;
    Bytes blob;
    cv_neighbor ngh;
    cv_recurrence rec;

    Value(uint32_t t, uint32_t salt) : kind(kind_of(t)) {
        memset(&ngh, 0, sizeof ngh);
        memset(&rec, 0, sizeof rec);
        text = "v" + std::to_string(t) + "-" + std::to_string(salt);
        const uint8_t base = static_cast<uint8_t>(t * 11 + salt * 29 + 1);
        auto fill = [&](size_t n) {
            bytes.resize(n);
            for (size_t i = 0; i < n; ++i) bytes[i] = static_cast<uint8_t>(base + i * 7);
        };
        switch (kind) {
        case Kind::Opaque:
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
            bytes[6] = bytes[7] = 0;
            break;
        case Kind::Neighbor:
            blob = {base, 0, 0xff};
            for (int i = 0; i < CV_CORVANE_ID_SIZE; ++i)
                ngh.id[i] = static_cast<uint8_t>('a' + i % 26);
            ngh.blob_len = static_cast<uint32_t>(blob.size());
            ngh.flag = 1;
            break;
        case Kind::Recur:
            rec.first = base;
            rec.second = 3;
            rec.flag = 1;
            break;
        default: break;
        }
    }
    Value(const Value &) = delete;
    Value &operator=(const Value &) = delete;

    const void *ptr() {
        ngh.name = &text[0];
        ngh.blob = blob.data();
        rec.text = &text[0];
        switch (kind) {
        case Kind::Str: return text.c_str();
        case Kind::Neighbor: return &ngh;
        case Kind::Recur: return &rec;
        case Kind::None: return nullptr;
        default: return bytes.data();
        }
    }
    uint32_t mem_size() const {
        switch (kind) {
        case Kind::Str: return static_cast<uint32_t>(text.size() + 1);
        case Kind::Neighbor: return sizeof(cv_neighbor);
        case Kind::Recur: return sizeof(cv_recurrence);
        case Kind::None: return 0;
        default: return static_cast<uint32_t>(bytes.size());
        }
    }
};

void check(bool ok, const char *what) {
    if (!ok) {
        fprintf(stderr, "make_corpus: %s\n", what);
        exit(1);
    }
}

void write_file(const std::string &name, const uint8_t *data, size_t len) {
    std::string path = g_dir + "/" + name;
    if (len > CV_PDU_MAX_SIZE) {
        fprintf(stderr, "make_corpus: %s: %zu bytes, more than a message may hold\n", name.c_str(),
                len);
        exit(1);
    }
    FILE *f = fopen(path.c_str(), "wb");
    check(f != nullptr, "cannot create a seed file");
    check(fwrite(data, 1, len, f) == len, "cannot write a seed file");
    check(fclose(f) == 0, "cannot close a seed file");
    ++g_written;
}

struct Header {
    uint8_t pri;
    int32_t shipment;
    uint8_t cls;
    uint16_t action;
    uint8_t comm;
};

constexpr Header kReply{9, CV_SHIPMENT_REPLY_NO_ERROR, CV_CLASS_QUERY, 11, 1};

// Signs the event, writes its bytes and frees it; the bytes are returned.
Bytes emit(cv_event *ev, const std::string &name, const Header &h = kReply, uint32_t seq = 7) {
    check(ev != nullptr, "no event");
    check(omr_createPdu(ev, h.pri, h.shipment, h.cls, h.action, kSender, seq, &g_key, h.comm) == 0,
          "cannot pack an event");
    Bytes b(ev->raw, ev->raw + ev->raw_len);
    corvane_try_gc(ev);
    write_file(name, b.data(), b.size());
    return b;
}

void add(cv_event *ev, uint32_t type, uint32_t length, const void *value) {
    check(cv_add_tlv(ev, type, length, value) == 0, "cannot add a TLV");
}

cv_usage_cmn_hdr usage_header(std::string &n, std::string &r, std::string &k) {
    n = "ep";
    r = "lamp";
    k = "a,b";
    return {1, -1, &n[0], &r[0], 3, 50, 7, &k[0]};
}

void plain_types() {
    for (uint32_t t = 0; t < 52; ++t) {
        Value v(t, 1);
        cv_event *ev = corvane_create_my_packet();
        add(ev, t, 12 + v.mem_size(), v.ptr());
        emit(ev, "plain-" + std::to_string(t));
    }
}

void aggregate_types() {
    std::string n, r, k;
    cv_usage_cmn_hdr hdr = usage_header(n, r, k);
    uint8_t dh_blob[3] = {1, 2, 3};
    for (uint32_t t = 0; t < 52; ++t) {
        Value a(t, 2), b(t, 3);
        Value *vals[2] = {&a, &b};
        cv_aggr_block block;
        memset(&block, 0, sizeof block);
        for (int i = 0; i < CV_CORVANE_ID_SIZE; ++i) block.dh.id[i] = static_cast<uint8_t>(t + i);
        block.dh.blob = dh_blob;
        block.dh.blob_len = sizeof dh_blob;
        cv_aggr_entry plain[2];
        cv_combo_entry combo[2];
        void *entries[2];
        for (uint32_t i = 0; i < 2; ++i) {
            if (cv_is_combo_tlv(t)) {
                combo[i] = {10 + i, hdr, const_cast<void *>(vals[i]->ptr())};
                entries[i] = &combo[i];
            } else {
                plain[i] = {10 + i, vals[i]->mem_size(), const_cast<void *>(vals[i]->ptr())};
                entries[i] = &plain[i];
            }
        }
        block.count = 2;
        block.entries = entries;
        cv_event *ev = corvane_create_my_packet();
        check(cv_add_tlv_bytes(ev, t | CV_TLV_AGGREGATE_FLAG, 60,
                               reinterpret_cast<const uint8_t *>(&block)) == 0,
              "cannot add an aggregate");
        emit(ev, "aggr-" + std::to_string(t));
    }
}

// A discovery update as the endpoint sends it while attached, with an alarm.
void discovery_update() {
    emit(make_discovery_update(kSender, true), "discovery-update",
         {100, CV_SHIPMENT_SEND, CV_CLASS_DISCOVERY, 10, 1}, 41);
}

// The switch's side: acknowledgement with nonce, a GET and a SET query.
void switch_messages() {
    uint8_t reply_to[16] = {2, 0, 0xa9, 0xb0, 127, 0, 0, 2};
    uint32_t nonce = 0xcafef00d;
    cv_event *ack = corvane_create_my_packet();
    add(ack, CV_CORVANE_TLV_TYPE_REPLY_TO, 28, reply_to);
    add(ack, CV_CORVANE_TLV_TYPE_NONCE, 16, &nonce);
    emit(ack, "ack-will", {100, CV_SHIPMENT_ACK_WILL, CV_CLASS_DISCOVERY, 10, 1}, 41);

    const char domain[] = "lab", name[] = "ep-01", keywords[] = "kw1";
    uint8_t level = 3;
    uint32_t ent_id = 0;
    for (uint16_t action = 10; action <= 11; ++action) {
        cv_event *q = corvane_create_my_packet();
        add(q, CV_CORVANE_TLV_TYPE_REPLY_TO, 28, reply_to);
        add(q, CV_CORVANE_TLV_TYPE_DOMAIN, 12 + sizeof domain, domain);
        add(q, CV_CORVANE_TLV_TYPE_NAME, 12 + sizeof name, name);
        add(q, CV_CORVANE_TLV_TYPE_KEYWORDS, 12 + sizeof keywords, keywords);
        add(q, CV_CORVANE_TLV_TYPE_ENT_ID, 16, &ent_id);
        if (action == 10)
            add(q, CV_CORVANE_TLV_TYPE_LEVEL_CURRENT, 13, &level);
        else
            add(q, CV_CORVANE_TLV_TYPE_USAGE, 12, nullptr);  // a requested attribute
        emit(q, action == 10 ? "query-set" : "query-collect",
             {5, CV_SHIPMENT_SEND, CV_CLASS_QUERY, action, 1}, 900u + action);
    }
}

// Replies with entries built the way the endpoint builds them: entries of
// `types` spread over `devices` device headers.
void reply(const std::string &name, std::initializer_list<uint32_t> types, uint32_t entries,
           int devices) {
    std::string n, r, k;
    cv_usage_cmn_hdr hdr = usage_header(n, r, k);
    cv_device_header dh[2];
    memset(dh, 0, sizeof dh);
    memset(dh[0].id, 'd', sizeof dh[0].id);
    memset(dh[1].id, 'e', sizeof dh[1].id);
    uint8_t blob[2] = {9, 8};
    dh[1].blob = blob;
    dh[1].blob_len = sizeof blob;
    cv_event *ev = corvane_create_my_packet();
    for (uint32_t t : types) {
        for (uint32_t i = 0; i < entries; ++i) {
            Value v(t, i);
            check(cv_add_aggr_type_tlv(ev, t, v.ptr(), i, &dh[i % devices], &hdr) == 0,
                  "cannot add an aggregate entry");
        }
    }
    check(cv_aggr_ack(ev, 4, &dh[devices - 1]) == 0, "cannot add an acknowledgement entry");
    emit(ev, name);
}

void replies() {
    reply("reply-texts", {7, 9, 10, 48}, 3, 2);
    reply("reply-numbers", {12, 13, 14, 16, 17, 38, 51}, 2, 1);
    reply("reply-vectors", {36, 39}, 2, 1);
    reply("reply-combo", {43, 44, 45}, 2, 1);
    reply("reply-many-entries", {14}, 20, 1);  // grows the entry array past 16
}

// Rewrites bytes of a packed message and signs it again.
void patch_and_emit(Bytes b, size_t at, const Bytes &with, const std::string &name) {
    check(at + with.size() <= b.size(), "patch out of range");
    memcpy(b.data() + at, with.data(), with.size());
    hmac_sha_msg(&g_key, b.data() + 32, static_cast<uint16_t>(b.size() - 32), b.data() + 12);
    write_file(name, b.data(), b.size());
}

void oddities() {
    emit(corvane_create_my_packet(), "empty");
    for (uint8_t comm = 0; comm <= 4; ++comm) {
        cv_event *ev = corvane_create_my_packet();
        uint8_t level = comm;
        add(ev, CV_CORVANE_TLV_TYPE_LEVEL_CURRENT, 13, &level);
        emit(ev, "comm-" + std::to_string(comm),
             {0, CV_SHIPMENT_ACK_LATER, CV_CLASS_NOTIFY, 12, comm});
    }

    // An unknown type with a value, a type word with bit 30 set, a non-zero
    // third word, and a TLV without a value.
    uint32_t four = 4;
    cv_event *ev = corvane_create_my_packet();
    add(ev, 60, 16, &four);
    add(ev, 0x40000000u | CV_CORVANE_TLV_TYPE_NONCE, 16, &four);
    check(cv_add_tlv_common(ev, CV_CORVANE_TLV_TYPE_NONCE, 16, &four, 3) == 0, "qualifier");
    add(ev, 37, 12, nullptr);
    emit(ev, "odd-types");

    // A name with an embedded NUL: 12 bytes of header, then "ab_cd".
    cv_event *named = corvane_create_my_packet();
    add(named, CV_CORVANE_TLV_TYPE_NAME, 12 + 6, "ab_cd");
    Bytes b = emit(named, "name");
    patch_and_emit(b, CV_PDU_FIXED_SIZE + 12 + 2, {0}, "name-embedded-nul");

    // An event id whose number differs from the id's first bytes.
    cv_event_id eid;
    eid.number = 0x01020304;
    memset(eid.id, 'z', sizeof eid.id);
    cv_event *with_id = corvane_create_my_packet();
    add(with_id, CV_CORVANE_TLV_TYPE_EVENT_ID, 12 + sizeof eid, &eid);
    emit(with_id, "event-id");
}

}  // namespace

int main(int argc, char **argv) {
    const bool engine = argc == 3 && strcmp(argv[1], "--engine") == 0;
    if (argc != 2 && !engine) {
        fprintf(stderr, "usage: %s [--engine] DIR\n", argv[0]);
        return 2;
    }
    g_dir = argv[argc - 1];
    if (mkdir(g_dir.c_str(), 0777) != 0 && errno != EEXIST) {
        perror(g_dir.c_str());
        return 1;
    }
    if (engine) {
        printf("make_corpus: %d engine seeds in %s\n", write_engine_seeds(g_dir.c_str()),
               g_dir.c_str());
        return 0;
    }
    fuzz_wire::key_context(&g_key);
    plain_types();
    aggregate_types();
    discovery_update();
    switch_messages();
    replies();
    oddities();
    uint8_t spent[OHMARA_SHA1_DIGEST_SIZE];
    hmac_shafinal(spent, &g_key);
    printf("make_corpus: %d seeds in %s\n", g_written, g_dir.c_str());
    return 0;
}
