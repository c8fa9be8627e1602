// SPDX-License-Identifier: Apache-2.0
// The session shared by threads, as an application uses it: the loop on one
// thread (started by ohmara_svc_startup, which frees the session), a switch
// on 127.0.0.2 doing the handshake, GETs and alarm answers, application
// threads making requests and reading the session, and a shutdown from
// another thread. Meant for the ThreadSanitizer build; every wait is bounded.
#include <gtest/gtest.h>

#include <atomic>
#include <thread>

#include "endpoint.h"

namespace {

using namespace ep_test;
using loop_net::wait_until;

constexpr int kGets = 24, kMaxGets = 400;  // more only until an alarm came by
constexpr int kAppThreads = 3;

// The key agreed in the nonce exchange: HMAC keyed with the nonces' XOR
// (network order) over the secret (here the identifier, all 32 bytes).
Bytes nonce_key(uint32_t local, uint32_t remote, const Bytes &secret) {
    return openssl_hmac(be32(local ^ remote), secret);
}

// The alarm id a discovery update carries, or -1.
int32_t alarm_id(const Bytes &m) {
    for (size_t at = 80; at + 12 <= m.size();) {
        const uint32_t type = m[at] << 24 | m[at + 1] << 16 | m[at + 2] << 8 | m[at + 3];
        const uint32_t len = m[at + 4] << 24 | m[at + 5] << 16 | m[at + 6] << 8 | m[at + 7];
        if (len < 12 || at + len > m.size()) break;
        if (type == CV_CORVANE_TLV_TYPE_ALARM && len >= 12 + 10)
            return int32_t(m[at + 18] << 24 | m[at + 19] << 16 | m[at + 20] << 8 | m[at + 21]);
        at += len;
    }
    return -1;
}

TEST(Threads, LoopSwitchApplicationAndShutdown) {
    QuietLog quiet;
    Fd bcast(bound_socket("0.0.0.0")), parent(bound_socket("127.0.0.1"));
    svc_session *s = new_session(bound_port(bcast.fd), Bytes());
    ASSERT_NE(s, nullptr);
    const Bytes secret = text(kId);
    const uint16_t port = ntohs(s->self_addr.sin_port);
    const uint32_t local_nonce = s->local_nonce;
    std::atomic<bool> loop_done{false};
    std::thread loop([&] { ohmara_svc_startup(s), loop_done = true; });

    auto ack = [&](uint32_t seq, std::vector<Bytes> more) {
        more.insert(more.begin(),
                    tlv(CV_CORVANE_TLV_TYPE_REPLY_TO, cat({hex("0200"), be16(bound_port(parent.fd)),
                                                           hex("7f000001"), Bytes(8, 0)})));
        return message(seq, kSwitchId, CV_SHIPMENT_ACK_WILL, 100, CV_CLASS_DISCOVERY,
                       CV_ACTION_KVQR_CORVANE_DISCOVERY_DISCOVERY_UPDATE, more, secret);
    };
    // The first broadcast says the loop listens; the handshake makes it ACTIVE.
    Bytes first;
    ASSERT_TRUE(recv_datagram(bcast.fd, &first, 5000));
    ASSERT_TRUE(loop_net::exchange("127.0.0.2", port,
                                   ack(500, {tlv(CV_CORVANE_TLV_TYPE_NONCE, be32(kSwitchNonce))})));
    const Bytes agreed = nonce_key(local_nonce, kSwitchNonce, secret);

    std::atomic<bool> stop{false};
    std::atomic<int> accepted{0}, bad_reads{0}, alarms_answered{0};
    std::vector<std::thread> apps;
    for (int t = 0; t < kAppThreads; ++t)
        apps.emplace_back([&, t] {
            for (int i = 0; !stop; ++i) {
                // A refresh carries nothing a switch could answer: it holds the
                // request slot until the retry interval. Alarms come first.
                const int32_t rc = alarms_answered == 0 || (i + t) % 2 == 0
                                       ? ohmara_svc_alarmAdd(s, 60, 1, 2)
                                       : ohmara_svc_discoveryRefresh(s);
                accepted += rc == 0;
                const int32_t st = ohmara_svc_getStatus(s);
                // Legal from any thread while nothing changes the identity
                // (this switch sends no SET): the texts stay where they are.
                uint32_t len = 0;
                const void *name = ohmara_svc_getAttribute(s, OHMARA_ATTR_NAME, &len);
                bad_reads += st < OHMARA_STATUS_DOWN || st > OHMARA_STATUS_SHUTDOWN ||
                             name == nullptr || len != 7 || memcmp(name, "lamp-1", 7) != 0;
                char copy[16];
                uint32_t copied = 0;
                bad_reads += ohmara_svc_copyAttribute(s, OHMARA_ATTR_NAME, copy, sizeof copy,
                                                      &copied) != 0 ||
                             copied != 7 || memcmp(copy, "lamp-1", 7) != 0;
                std::this_thread::sleep_for(std::chrono::milliseconds(2));
            }
        });

    // The switch: GETs answered under the agreed key, alarm requests answered.
    int answered = 0;
    uint32_t seq = 600;
    int gets = 0;
    for (; gets < kGets || (alarms_answered == 0 && gets < kMaxGets); ++gets) {
        Bytes answer;
        const Bytes get =
            message(++seq, kSwitchId, CV_SHIPMENT_SEND, 100, CV_CLASS_QUERY,
                    CV_ACTION_KVQR_CORVANE_QUERY_COLLECT,
                    {tlv(CV_CORVANE_TLV_TYPE_REPLY_TO, hex("0200 2345 7f000002 0000000000000000")),
                     tlv(CV_CORVANE_TLV_TYPE_LEVEL_CURRENT, {})},
                    agreed);
        ASSERT_TRUE(loop_net::exchange("127.0.0.2", port, get, &answer));
        answered +=
            answer.size() > 80 &&
            Bytes(answer.begin() + 12, answer.begin() + 32) ==
                openssl_hmac(agreed, answer.data() + 32, 80 + (answer[76] << 8 | answer[77]) - 32);
        for (Bytes update; recv_datagram(parent.fd, &update, 20);) {
            // Every update is acknowledged, as a switch does: one left
            // unanswered holds the request slot until it is given up.
            const int32_t id = alarm_id(update);
            const uint32_t update_seq =
                update[32] << 24 | update[33] << 16 | update[34] << 8 | update[35];
            std::vector<Bytes> answer_tlvs;
            if (id >= 0)
                answer_tlvs.push_back(
                    tlv(CV_CORVANE_TLV_TYPE_ALARM,
                        cat({hex("0000003c 02 01"), be32(uint32_t(id)), be32(2)})));
            ASSERT_TRUE(loop_net::exchange("127.0.0.2", port, ack(update_seq, answer_tlvs)));
            alarms_answered += id >= 0;
        }
    }
    stop = true;
    for (std::thread &a : apps) a.join();
    EXPECT_EQ(ohmara_svc_shutdown(s), 0);
    if (!wait_until([&] { return loop_done.load(); }, 10000)) std::abort();  // never hang
    loop.join();

    EXPECT_EQ(answered, gets);
    EXPECT_EQ(bad_reads, 0);
    EXPECT_GT(accepted, 0);
    EXPECT_GT(alarms_answered, 0);
    const auto replies = app().copy(app().replies);
    EXPECT_FALSE(replies.empty());
    for (const Reply &r : replies) EXPECT_EQ(std::get<2>(r), 1) << std::get<0>(r);
    const auto statuses = app().copy(app().statuses);
    EXPECT_EQ(statuses, std::vector<int32_t>({2, 1, 3, 4, 0}));
}

}  // namespace
