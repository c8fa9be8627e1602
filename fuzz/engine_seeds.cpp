// SPDX-License-Identifier: Apache-2.0
// Seeds of the engine fuzz target (see fuzz_engine.cpp for the input
// layout): the switch's side of whole conversations. Messages are written
// field by field and left unsigned: the target signs each one with the key
// the session expects at that point.
#include "engine_seeds.h"

#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <initializer_list>
#include <string>
#include <vector>

#include <omsdk/enums.h>

namespace {

using Bytes = std::vector<uint8_t>;

constexpr char kEndpointId[] = "0123456789abcdef0123456789abcdef";
constexpr char kSwitchId[] = "fedcba9876543210fedcba9876543210";

// Flags byte.
constexpr uint8_t kHardened = 1, kIdAsSecret = 2, kActive = 1 << 2, kPending = 16, kNoMetering = 32,
                  kVerbose = 64, kSparse = 128;
// Control byte of a chunk.
constexpr uint8_t kOtherKey = 1, kAsReceived = 2, kFlipped = 3, kRawFraming = 4;

constexpr uint8_t kSelector = 1;  // qualifier of a query's selectors

Bytes be(uint32_t v, int n) {
    Bytes out;
    for (int i = n - 1; i >= 0; --i) out.push_back(static_cast<uint8_t>(v >> (8 * i)));
    return out;
}
Bytes cat(std::initializer_list<Bytes> parts) {
    Bytes out;
    for (const Bytes &p : parts) out.insert(out.end(), p.begin(), p.end());
    return out;
}
Bytes str(const char *t, bool nul = true) { return Bytes(t, t + strlen(t) + (nul ? 1 : 0)); }
Bytes tlv(uint32_t type, const Bytes &value, uint32_t qualifier = 0) {
    return cat(
        {be(type, 4), be(static_cast<uint32_t>(12 + value.size()), 4), be(qualifier, 4), value});
}
Bytes host32(uint32_t v) {  // values the engine copies into host integers
    Bytes out(4);
    memcpy(out.data(), &v, 4);
    return out;
}

// A reply-to address as a peer sends it: family 2 in host order, port, address.
Bytes reply_to(uint32_t addr = 0x7f000002, uint16_t port = 0x2345) {
    return tlv(CV_CORVANE_TLV_TYPE_REPLY_TO,
               cat({Bytes{2, 0}, be(port, 2), be(addr, 4), Bytes(8)}));
}

// Security header (comm 1, 20-byte digest left zero), event header, TLVs.
Bytes msg(int8_t shipment, uint8_t pri, uint8_t cls, uint16_t action, uint32_t seq,
          std::initializer_list<Bytes> tlvs) {
    Bytes body;
    for (const Bytes &t : tlvs) body.insert(body.end(), t.begin(), t.end());
    return cat({Bytes{0, 2, 0, 0, 0, 0, 0, 0, 0, 0x11, 0, 20}, Bytes(20), be(seq, 4),
                str(kSwitchId, false), Bytes{1, static_cast<uint8_t>(shipment), pri, 10, 17, cls},
                be(action, 2), be(static_cast<uint32_t>(body.size()), 2),
                be(static_cast<uint32_t>(tlvs.size()), 2), body});
}

struct Chunk {
    uint8_t control;
    Bytes m;
};
Chunk c(const Bytes &m, uint8_t control = 0) { return {control, m}; }

Bytes ack(uint32_t seq = 500, uint32_t nonce = 0x5eed1234, std::initializer_list<Bytes> more = {}) {
    Bytes m = msg(CV_SHIPMENT_ACK_WILL, 100, CV_CLASS_DISCOVERY,
                  CV_ACTION_KVQR_CORVANE_DISCOVERY_DISCOVERY_UPDATE, seq,
                  {reply_to(), tlv(CV_CORVANE_TLV_TYPE_NONCE, host32(nonce))});
    for (const Bytes &t : more) {
        m.insert(m.end(), t.begin(), t.end());
    }
    return m;
}

Bytes query(uint16_t action, uint32_t seq, std::initializer_list<Bytes> tlvs, uint8_t pri = 100,
            uint8_t cls = CV_CLASS_QUERY) {
    Bytes m = msg(CV_SHIPMENT_SEND, pri, cls, action, seq, {reply_to()});
    for (const Bytes &t : tlvs) m.insert(m.end(), t.begin(), t.end());
    return m;
}

Bytes get(uint32_t seq, std::initializer_list<Bytes> tlvs, uint8_t pri = 100) {
    return query(CV_ACTION_KVQR_CORVANE_QUERY_COLLECT, seq, tlvs, pri);
}
Bytes set(uint32_t seq, std::initializer_list<Bytes> tlvs) {
    return query(CV_ACTION_KVQR_CORVANE_QUERY_SET, seq, tlvs);
}
Bytes ask(uint32_t type) { return tlv(type, {}); }
Bytes alarm(int32_t id, int32_t status) {
    return tlv(CV_CORVANE_TLV_TYPE_ALARM,
               cat({be(60, 4), Bytes{2, 1}, be(static_cast<uint32_t>(id), 4),
                    be(static_cast<uint32_t>(status), 4)}));
}

// The counts in the event header follow the TLVs appended after msg().
Bytes fixed(Bytes m) {
    if (m.size() < 80) return m;
    size_t count = 0;
    for (size_t at = 80; at + 12 <= m.size();) {
        const uint32_t len = uint32_t{m[at + 4]} << 24 | uint32_t{m[at + 5]} << 16 |
                             uint32_t{m[at + 6]} << 8 | m[at + 7];
        if (len < 12) break;
        at += len;
        ++count;
    }
    const Bytes tb = be(static_cast<uint32_t>(m.size() - 80), 2),
                n = be(static_cast<uint32_t>(count), 2);
    m[76] = tb[0], m[77] = tb[1], m[78] = n[0], m[79] = n[1];
    return m;
}

class Writer {
public:
    explicit Writer(std::string dir) : dir_(std::move(dir)) {}
    void operator()(const std::string &name, uint8_t flags, std::initializer_list<Chunk> chunks) {
        Bytes in{flags};
        for (const Chunk &ch : chunks) {
            const Bytes m = (ch.control & kRawFraming) != 0 ? ch.m : fixed(ch.m);
            in.push_back(ch.control);
            in.push_back(static_cast<uint8_t>(m.size() >> 8));
            in.push_back(static_cast<uint8_t>(m.size()));
            in.insert(in.end(), m.begin(), m.end());
        }
        const std::string path = dir_ + "/engine-" + name;
        FILE *f = fopen(path.c_str(), "wb");
        if (f == nullptr || fwrite(in.data(), 1, in.size(), f) != in.size() || fclose(f) != 0) {
            fprintf(stderr, "make_corpus: cannot write %s\n", path.c_str());
            exit(1);
        }
        ++written_;
    }
    int written() const { return written_; }

private:
    std::string dir_;
    int written_ = 0;
};

}  // namespace

int write_engine_seeds(const char *dir) {
    Writer w(dir);
    const uint8_t up = 0, hard = kHardened;
    // The handshake, in every key mode and profile, then again.
    w("ack", up, {c(ack())});
    w("ack-id-secret", kIdAsSecret | hard, {c(ack())});
    w("ack-twice-new-nonce", kActive, {c(ack()), c(ack(501)), c(ack(502, 0x0badcafe))});
    w("ack-no-nonce", up | hard,
      {c(msg(CV_SHIPMENT_ACK_WILL, 100, CV_CLASS_DISCOVERY, 10, 500, {reply_to()}))});
    w("ack-wont", up,
      {c(msg(CV_SHIPMENT_ACK_WONT, 100, CV_CLASS_DISCOVERY, 10, 500, {reply_to()})),
       c(msg(CV_SHIPMENT_ACK_WONT, 100, CV_CLASS_QUERY, 10, 501, {reply_to()}))});
    w("ack-in-shutdown", 3 << 2, {c(ack())});

    // A GET of each attribute (and of things that are not answered).
    const uint32_t attrs[] = {
        13, 12, 38, 39, 36, 14, 16, 51, 17, 7, 9, 10, 48, 43, 44, 45, 8, 60, 13 | 0x80000000u};
    int i = 0;
    for (uint32_t t : attrs) {
        const uint8_t flags =
            static_cast<uint8_t>((i % 2 != 0 ? hard : 0) | (i % 3 == 0 ? kIdAsSecret : 0));
        w("get-" + std::to_string(t & 0xff) + (t > 0xff ? "-aggr" : ""), flags,
          {c(ack()), c(get(900 + static_cast<uint32_t>(i), {ask(t)}))});
        ++i;
    }
    w("get-all-unmetered", kNoMetering | kVerbose,
      {c(ack()), c(get(900, {ask(13), ask(12), ask(38), ask(39), ask(36), ask(14), ask(43), ask(44),
                             ask(45), ask(7), ask(9)}))});
    w("get-sparse-identity", kSparse, {c(ack()), c(get(900, {ask(10), ask(48), ask(7)}))});
    w("get-duplicate-seq", up, {c(ack()), c(get(900, {ask(14)})), c(get(900, {ask(14)}))});
    w("get-aggregate-class", up,
      {c(ack()),
       c(query(CV_ACTION_KVQR_CORVANE_AGGREGATE_SUM, 900, {ask(13)}, 100, CV_CLASS_AGGREGATE))});
    w("get-before-ack", up | kIdAsSecret, {c(get(900, {ask(14)}))});

    // SETs in and out of range, texts valid and not, empty TLVs for defaults.
    const struct {
        const char *name;
        Bytes t;
    } sets[] = {{"role", tlv(7, str("meter2"))},
                {"role-bad", tlv(7, str("a b!"))},
                {"role-default", tlv(7, {})},
                {"name", tlv(9, str("ep-02"))},
                {"name-default", tlv(9, {})},
                {"name-unterminated", tlv(9, str("ep-3", false))},
                {"keywords", tlv(10, str("x,y"))},
                {"keywords-clear", tlv(10, {})},
                {"keywords-bad", tlv(10, str("x;y"))},
                {"level-50", tlv(14, {50})},
                {"level-101", tlv(14, {101})},
                {"level-default", tlv(14, {})},
                {"importance-0", tlv(16, {0})},
                {"importance-50", tlv(16, {50})},
                {"importance-100", tlv(16, {100})},
                {"importance-101", tlv(16, {101})},
                {"importance-default", tlv(16, {})},
                {"importance-i-30", tlv(17, {30})},
                {"tagged-skipped", tlv(14, {55}, 3)},
                {"units-not-settable", tlv(12, {9})},
                {"domain-not-settable", tlv(8, str("x"))}};
    i = 0;
    for (const auto &s : sets)
        w("set-" + std::string(s.name), static_cast<uint8_t>(i++ % 2 != 0 ? hard : 0),
          {c(ack()), c(set(910, {s.t}))});
    w("set-several-then-get", up,
      {c(ack()), c(set(910, {tlv(7, str("r2")), tlv(9, str("n2")), tlv(14, {77})})),
       c(get(911, {ask(7), ask(9), ask(14)}))});

    // Filters: selectors of each kind that match and that do not.
    const struct {
        const char *name;
        Bytes t;
        uint8_t pri;
    } filters[] = {
        {"id", tlv(1, cat({str(kEndpointId, false), be(1, 4)}), kSelector), 100},
        {"id-other", tlv(1, cat({str(kSwitchId, false), be(1, 4)}), kSelector), 100},
        {"role-wildcard", tlv(7, str("met*"), kSelector), 100},
        {"role-other", tlv(7, str("lamp"), kSelector), 100},
        {"name", tlv(9, str("ep-01"), kSelector), 100},
        {"keywords", tlv(10, str("kw2"), kSelector), 100},
        {"keywords-other", tlv(10, cat({str("zz"), str("yy")}), kSelector), 100},
        {"category", tlv(51, host32(1), kSelector), 100},
        {"category-other", tlv(51, host32(2), kSelector), 100},
        {"low-priority", ask(14), 10},
    };
    i = 0;
    for (const auto &f : filters)
        w("filter-" + std::string(f.name), static_cast<uint8_t>(i++ % 2 != 0 ? hard : 0),
          {c(ack()), c(get(920, {f.t, ask(14)}, f.pri))});

    // Discovery from the switch: delete (back to UP), keep-alive, update.
    const Bytes del = msg(CV_SHIPMENT_SEND, 100, CV_CLASS_DISCOVERY,
                          CV_ACTION_KVQR_CORVANE_DISCOVERY_DELETE, 600, {reply_to()});
    w("delete", up, {c(ack()), c(del), c(ack(601, 0x1111))});
    w("delete-active", kActive | hard, {c(del)});
    w("keepalive", kActive,
      {c(msg(CV_SHIPMENT_SEND, 100, CV_CLASS_DISCOVERY, CV_ACTION_KVQR_CORVANE_DISCOVERY_KEEPALIVE,
             600, {reply_to()}))});

    // Answers to the pending alarm request (id 9, carried by seq 40).
    const struct {
        const char *name;
        uint32_t seq;
        int32_t id, status;
    } answers[] = {{"ok", 40, 9, 2},       {"ok-5", 40, 9, 5},       {"failed", 40, 9, 3},
                   {"failed-7", 40, 9, 7}, {"unexpected", 40, 9, 4}, {"other-id", 40, 10, 2},
                   {"other-seq", 41, 9, 2}};
    i = 0;
    for (const auto &a : answers)
        w("alarm-" + std::string(a.name),
          static_cast<uint8_t>(kActive | kPending | (i++ % 2 != 0 ? hard : 0)),
          {c(ack(a.seq, 0x5eed1234, {alarm(8, 2), alarm(a.id, a.status)})),
           c(ack(a.seq, 0x5eed1234, {alarm(a.id, a.status)}))});

    // Oddities: other classes, wrong keys, broken framing, oversize.
    w("notify", up,
      {c(ack()), c(msg(CV_SHIPMENT_SEND, 100, CV_CLASS_NOTIFY, 10, 930, {reply_to()}))});
    w("class-9", up, {c(ack()), c(msg(CV_SHIPMENT_SEND, 100, 9, 10, 931, {reply_to()}))});
    w("wrong-keys", up,
      {c(ack(), kOtherKey), c(ack(), kAsReceived), c(ack(), kFlipped),
       c(get(932, {ask(14)}), kOtherKey)});
    Bytes truncated = ack();
    truncated.resize(70);
    Bytes oversize = get(933, {tlv(11, Bytes(1400, 'e'))});
    w("framing", up | kVerbose,
      {c(ack()), c(truncated, kRawFraming), c(oversize), c(get(934, {ask(14)}), kRawFraming),
       c({})});
    return w.written();
}
