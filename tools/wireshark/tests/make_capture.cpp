// SPDX-License-Identifier: Apache-2.0
// Writes a capture of one endpoint's life with its switch, made with the
// library's own message builder and capture writer: discovery, the nonce
// exchange, a GET answered with every kind of value, and a SET. Used by the
// dissector test (expected.txt lists what each message must decode to).
//
//   make_capture OUT.pcapng UDP_PORT SECRET [CORRUPT_INDEX]
//
// CORRUPT_INDEX flips one TLV byte of that message (0-based) after signing.
#include <arpa/inet.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <vector>

#include <omsdk/aggregate.h>
#include <omsdk/enums.h>
#include <omsdk/event.h>
#include <omsdk/hmac.h>
#include <omsdk/pdu.h>

#include "diag/capture.h"
#include "switch.h"

namespace {

using Bytes = std::vector<uint8_t>;

const char kEndpointId[] = "EP-0000000000000000000000000007A";  // 32 characters
const char kSwitchId[] = "SW-00000000000000000000000000001";    // 32 too
constexpr uint32_t kSwitchNonce = 0x11223344, kEndpointNonce = 0xA5A5F00F;
constexpr uint16_t kListener = 41000;

sockaddr_in addr(const char *ip, uint16_t port) {
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_port = htons(port);
    inet_pton(AF_INET, ip, &a.sin_addr);
    return a;
}

struct Message {
    cv_event *ev = corvane_create_my_packet();
    ~Message() { corvane_try_gc(ev); }
    Message() = default;
    Message(const Message &) = delete;
    Message &operator=(const Message &) = delete;

    Message &add(uint32_t type, const void *v, size_t n, uint32_t qualifier = 0) {
        cv_add_tlv_common(ev, type, static_cast<uint32_t>(CV_TLV_HEADER_SIZE + n), v, qualifier);
        return *this;
    }
    Message &text(uint32_t type, const char *t, uint32_t qualifier = 0) {
        return add(type, t, strlen(t), qualifier);
    }
    template <typename T>
    Message &num(uint32_t type, T v) {
        return add(type, &v, sizeof v);
    }
    Message &empty(uint32_t type) { return add(type, nullptr, 0); }
    Message &sockaddr(uint32_t type, const sockaddr_in &a) { return add(type, &a, sizeof a); }
    Bytes sign(int shipment, uint8_t cls, uint16_t action, const char *id, uint32_t seq,
               const Bytes &key) {
        hmac_sha_ctx ctx{};
        hmac_shainit(&ctx, key.data(), static_cast<uint16_t>(key.size()));
        omr_createPdu(ev, 100, shipment, cls, action, reinterpret_cast<const uint8_t *>(id), seq,
                      &ctx, 1);
        uint8_t spent[OHMARA_SHA1_DIGEST_SIZE];
        hmac_shafinal(spent, &ctx);
        return Bytes(ev->raw, ev->raw + ev->raw_len);
    }
};

}  // namespace

int main(int argc, char **argv) {
    if (argc < 4) {
        fprintf(stderr, "usage: %s OUT.pcapng UDP_PORT SECRET [CORRUPT_INDEX]\n", argv[0]);
        return 2;
    }
    const uint16_t udp_port = static_cast<uint16_t>(atoi(argv[2]));
    const int corrupt = argc > 4 ? atoi(argv[4]) : -1;
    const Bytes main_key(argv[3], argv[3] + strlen(argv[3]));
    const Bytes nonce_key = omsdk_tools::Switch::derive_nonce_key(
        kSwitchNonce, kEndpointNonce, main_key, reinterpret_cast<const uint8_t *>(kEndpointId));

    const sockaddr_in ep_udp = addr("127.0.0.1", udp_port),
                      bcast = addr("127.255.255.255", udp_port),
                      ep_tcp = addr("127.0.0.1", kListener), sw_udp = addr("127.0.0.2", udp_port);
    omsdk::capture cap;
    if (!omsdk::capture_open(cap, argv[1], 0)) {
        perror(argv[1]);
        return 1;
    }
    int index = 0;
    auto seal = [&](Bytes m) {
        if (index++ == corrupt) m[m.size() - 1] ^= 0x01;
        return m;
    };

    cv_sender_id sid{};
    memcpy(sid.id, kEndpointId, 32);
    sid.value = 7;

    // 0: the first discovery event, before any nonce.
    Message d1;
    d1.sockaddr(CV_CORVANE_TLV_TYPE_REPLY_TO, ep_tcp)
        .text(CV_CORVANE_TLV_TYPE_NAME, "pump-7")
        .text(CV_CORVANE_TLV_TYPE_ROLE, "cooling")
        .text(CV_CORVANE_TLV_TYPE_KEYWORDS, "north")
        .num<uint32_t>(CV_CORVANE_TLV_TYPE_NANNY_VECTOR, 6)
        .num<uint16_t>(CV_CORVANE_TLV_TYPE_USAGE, 240)
        .num<int8_t>(CV_CORVANE_TLV_TYPE_UNITS, -1)
        .num<uint8_t>(CV_CORVANE_TLV_TYPE_LEVEL_CURRENT, 10)
        .num<int32_t>(CV_CORVANE_TLV_TYPE_ENTITY_TYPE, 3)
        .add(CV_CORVANE_TLV_TYPE_OHMRZ_ID, &sid, sizeof sid);
    Bytes m = seal(d1.sign(0, CV_CLASS_DISCOVERY, 10, kEndpointId, 1, main_key));
    omsdk::capture_udp(cap, ep_udp, bcast, m.data(), m.size(), "discovery");

    // 1: the switch's acknowledgement with its nonce and an alarm answer.
    cv_alarm alarm{30, 1, 2, {}, 9, 2};
    Message a1;
    a1.sockaddr(CV_CORVANE_TLV_TYPE_REPLY_TO, sw_udp)
        .num<uint32_t>(CV_CORVANE_TLV_TYPE_NONCE, kSwitchNonce)
        .add(CV_CORVANE_TLV_TYPE_ALARM, &alarm, sizeof alarm);
    m = seal(a1.sign(-1, CV_CLASS_DISCOVERY, 10, kSwitchId, 1, main_key));
    const sockaddr_in sw1 = addr("127.0.0.2", 50001);
    omsdk::capture_tcp(cap, sw1, ep_tcp, m.data(), m.size(), nullptr);

    // 2: the endpoint's update carrying its nonce.
    Message d2;
    d2.sockaddr(CV_CORVANE_TLV_TYPE_REPLY_TO, ep_tcp)
        .num<uint32_t>(CV_CORVANE_TLV_TYPE_NONCE, kEndpointNonce)
        .text(CV_CORVANE_TLV_TYPE_NAME, "pump-7");
    m = seal(d2.sign(0, CV_CLASS_DISCOVERY, 10, kEndpointId, 2, main_key));
    omsdk::capture_udp(cap, ep_udp, bcast, m.data(), m.size(), nullptr);

    // 3: a GET selecting by name, asking for usage and the delta vector.
    Message g;
    g.sockaddr(CV_CORVANE_TLV_TYPE_REPLY_TO, sw_udp)
        .text(CV_CORVANE_TLV_TYPE_NAME, "pump-7", 1)
        .empty(CV_CORVANE_TLV_TYPE_USAGE)
        .empty(CV_CORVANE_TLV_TYPE_DELTA_VECTOR);
    m = seal(g.sign(0, CV_CLASS_QUERY, 11, kSwitchId, 100, nonce_key));
    const sockaddr_in sw2 = addr("127.0.0.2", 50002);
    omsdk::capture_tcp(cap, sw2, ep_tcp, m.data(), m.size(), nullptr);

    // 4 and 5: its acknowledgement and reply, in one segment.
    Message ack;
    m = seal(ack.sign(-1, CV_CLASS_QUERY, 11, kEndpointId, 100, nonce_key));
    cv_device_header dh{};
    memcpy(dh.id, kEndpointId, 32);
    uint8_t dh_blob[2] = {0xAB, 0xCD};
    dh.blob = dh_blob;
    dh.blob_len = 2;
    cv_usage_cmn_hdr common{1,  1, const_cast<char *>("pump-7"), const_cast<char *>("cooling"), -1,
                            10, 5, const_cast<char *>("north")};
    const uint16_t usage = 240;
    const cv_usage_vector uvec = {1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11};
    const cv_delta_vector dvec = {-5, 0, 5, 0, 0, 0, 0, 0, 0, 0, 65536};
    cv_neighbor nb{};
    memcpy(nb.id, kSwitchId, 32);
    nb.name = const_cast<char *>("sw-1");
    nb.blob = dh_blob;
    nb.blob_len = 2;
    nb.flag = -1;
    cv_recurrence rec{const_cast<char *>("daily"), 6, 30, 1};
    cv_event_id eid{42, {}};
    memcpy(eid.id, kEndpointId, 32);
    Message r;
    r.text(CV_CORVANE_TLV_TYPE_DOMAIN, "plant")
        .num<uint8_t>(CV_CORVANE_TLV_TYPE_IMPORTANCE, 5)
        .add(CV_CORVANE_TLV_TYPE_OHMRZ_ID, &sid, sizeof sid);
    cv_add_aggr_type_tlv(r.ev, CV_CORVANE_TLV_TYPE_USAGE, &usage, 1, &dh, nullptr);
    cv_add_aggr_type_tlv(r.ev, CV_CORVANE_TLV_TYPE_NAME, "pump-7", 1, &dh, nullptr);
    cv_add_aggr_type_tlv(r.ev, CV_CORVANE_TLV_TYPE_KEYWORDS, "north", 1, &dh, nullptr);
    cv_add_aggr_type_tlv(r.ev, CV_CORVANE_TLV_TYPE_USAGE_VECTOR_REPORT, uvec, 1, &dh, &common);
    r.add(CV_CORVANE_TLV_TYPE_DELTA_VECTOR, dvec, sizeof dvec)
        .add(CV_CORVANE_TLV_TYPE_NEIGHBOR, &nb, sizeof nb)
        .add(46, &rec, sizeof rec)
        .add(CV_CORVANE_TLV_TYPE_EVENT_ID, &eid, sizeof eid)
        .num<int32_t>(CV_CORVANE_TLV_TYPE_USAGE_CATEGORY, 1);
    Bytes reply = seal(r.sign(1, CV_CLASS_QUERY, 11, kEndpointId, 100, nonce_key));
    m.insert(m.end(), reply.begin(), reply.end());
    omsdk::capture_tcp(cap, ep_tcp, sw2, m.data(), m.size(), "acknowledgement and reply");

    // 6: a SET split across two segments, and 7: its acknowledgement.
    Message s;
    s.sockaddr(CV_CORVANE_TLV_TYPE_REPLY_TO, sw_udp)
        .num<uint8_t>(CV_CORVANE_TLV_TYPE_LEVEL_CURRENT, 3);
    m = seal(s.sign(0, CV_CLASS_QUERY, 10, kSwitchId, 101, nonce_key));
    const sockaddr_in sw3 = addr("127.0.0.2", 50003);
    omsdk::capture_tcp(cap, sw3, ep_tcp, m.data(), 50, "first part");
    omsdk::capture_tcp(cap, sw3, ep_tcp, m.data() + 50, m.size() - 50, "second part");
    Message sa;
    m = seal(sa.sign(-1, CV_CLASS_QUERY, 10, kEndpointId, 101, nonce_key));
    omsdk::capture_tcp(cap, ep_tcp, sw3, m.data(), m.size(), nullptr);

    omsdk::capture_close(cap);
    return cap.write_failed ? 1 : 0;
}
