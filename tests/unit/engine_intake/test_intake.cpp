// Message intake: authentication gate, duplicate test, dispatch by class,
// malformed input, and the peer tree behind the duplicate test.
#include <arpa/inet.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "crypto/hmac_internal.h"
#include "engine_harness.h"
#include "log_capture.h"

namespace {

using engine_test::Endpoint;
using engine_test::dev;
using wire_test::Bytes;

const Bytes kKey = {'i', 'n', 't', 'a', 'k', 'e', '-', 's', 'e', 'c', 'r', 'e', 't'};
const Bytes kNonceKey = {'n', 'o', 'n', 'c', 'e', '-', 'k', 'e', 'y', '-', 'o', 'f',
                         '-', 't', 'e', 's', 't', '-', 'x', 'y'};
const Bytes kWrongKey = {'n', 'o', 't', '-', 't', 'h', 'e', '-', 'k', 'e', 'y'};

// Gives the nonce context a key the test knows, as a handshake would.
void key_nonce_ctx(Endpoint &ep, const Bytes &key) {
    omsdk::hmac_release(&ep.s->nonce_ctx);
    hmac_shainit(&ep.s->nonce_ctx, key.data(), static_cast<uint16_t>(key.size()));
}

Bytes msg(uint8_t cls, uint32_t seq, const Bytes &key, const char *sender = engine_test::kSwitchId,
          int8_t shipment = CV_SHIPMENT_SEND, uint16_t action = 10) {
    return engine_test::message(
        shipment, cls, action, seq,
        [](cv_event *ev) { engine_test::add_reply_to(ev, "127.0.0.1", 6000); }, key, sender);
}

// Delivers and tells whether the class-13 handler was reached.
bool dispatched(Endpoint &ep, const Bytes &m) {
    omsdk_test::LogCapture cap(OHMARA_LOG_WARN);
    engine_test::deliver(ep.s, m);
    return cap.contains("unexpected event type 13");
}

std::string id_of(char c) { return std::string(32, c); }

TEST(CheckNeighbor, SequenceNumbersPerSender) {
    struct Step {
        char sender;
        uint32_t seq;
        int32_t result;
    };
    const Step steps[] = {
        {'m', 100, 0},          {'m', 100, -1},         {'m', 99, -1},
        {'m', 101, 0},          {'c', 5, 0},            {'c', 5, -1},   // a new sender, then its repeat
        {'x', 1, 0},            {'m', 102, 0},          {'x', 0, -1},
        {'x', 0x7FFFFFFF, 0},   {'x', 0x80000000u, 0},  // wraps into the negative range
        {'x', 0x7FFFFFFF, -1},  {'x', 0xFFFFFFFFu, 0},  {'x', 0, 0},    // wraps through zero
        {'x', 0x80000001u, -1},  // more than half the range ahead counts as older
    };
    neighbor_node *root = new_neighbor_node();
    ASSERT_NE(root, nullptr);
    memcpy(root->id, id_of('m').data(), 32);
    root->last_seq = 99;
    int i = 0;
    for (const Step &st : steps) {
        SCOPED_TRACE(i++);
        EXPECT_EQ(checkNeighbor(root, reinterpret_cast<const uint8_t *>(id_of(st.sender).data()),
                                st.seq),
                  st.result);
    }
    omsdk::free_neighbor_tree(root);
}

TEST(CheckNeighbor, TreeIsListedInIdentifierOrder) {
    neighbor_node *root = new_neighbor_node();
    ASSERT_NE(root, nullptr);
    memcpy(root->id, id_of('m').data(), 32);
    root->last_seq = 1;
    omsdk_test::LogCapture cap(OHMARA_LOG_INFO);  // no tree dumps while adding
    for (char c : std::string("dtaqbzk"))
        ASSERT_EQ(checkNeighbor(root, reinterpret_cast<const uint8_t *>(id_of(c).data()),
                                static_cast<uint32_t>(c)),
                  0);
    for (int pass = 0; pass < 2; ++pass) {  // the walk leaves the tree as it was
        omsdk_test::LogCapture dbg(OHMARA_LOG_DEBUG);
        printNeighborNode(root);
        std::vector<std::string> got;
        for (const auto &l : dbg.lines()) got.push_back(l.text);
        std::vector<std::string> want;
        for (char c : std::string("abdkmqtz"))
            want.push_back("printNeighborNode: " + id_of(c) + " last seq " +
                           std::to_string(c == 'm' ? 1 : static_cast<int>(c)));
        EXPECT_EQ(got, want);
    }
    omsdk::free_neighbor_tree(root);
}

TEST(CheckNeighbor, DegenerateTreeNeedsNoDeepStack) {
    // Ascending identifiers make a chain; walking or freeing it recursively
    // would overflow the stack.
    constexpr int kNodes = 300000;
    neighbor_node *root = new_neighbor_node();
    ASSERT_NE(root, nullptr);
    neighbor_node *tail = root;
    for (int i = 1; i < kNodes; ++i) {
        neighbor_node *n = new_neighbor_node();
        ASSERT_NE(n, nullptr);
        n->last_seq = i;
        tail->greater = n;
        tail = n;
    }
    tail = root;  // and a left spine under the head
    for (int i = 1; i < kNodes; ++i) {
        neighbor_node *n = new_neighbor_node();
        ASSERT_NE(n, nullptr);
        tail->lesser = n;
        tail = n;
    }
    printNeighborNode(root);  // filtered: walks without logging
    int count = 0;
    for (neighbor_node *n = root; n != nullptr; n = n->greater) ++count;
    EXPECT_EQ(count, kNodes);  // the walk undid its threads
    omsdk::free_neighbor_tree(root);  // leaks or a crash fail the sanitizer run
}

TEST(Intake, DuplicatesAndWrappedSequenceNumbers) {
    Endpoint ep(kKey);
    ASSERT_NE(ep.s, nullptr);
    ep.active();
    key_nonce_ctx(ep, kNonceKey);

    EXPECT_TRUE(dispatched(ep, msg(CV_CLASS_REPLY, 0x7FFFFFFE, kNonceKey)));  // seeds the tree
    ASSERT_NE(ep.s->neighbor, nullptr);
    EXPECT_EQ(memcmp(ep.s->neighbor->id, engine_test::kSwitchId, 32), 0);
    {
        omsdk_test::LogCapture cap(OHMARA_LOG_DEBUG);
        engine_test::deliver(ep.s, msg(CV_CLASS_REPLY, 0x7FFFFFFE, kNonceKey));
        EXPECT_TRUE(cap.has(OHMARA_LOG_DEBUG, "omr_validatePeer",
                            "dropping message from peer 127.0.0.1 with duplicate seq number "
                            "2147483646"))
            << cap.dump();
        EXPECT_FALSE(cap.contains("unexpected event type"));
    }
    EXPECT_TRUE(dispatched(ep, msg(CV_CLASS_REPLY, 0x7FFFFFFF, kNonceKey)));
    EXPECT_TRUE(dispatched(ep, msg(CV_CLASS_REPLY, 0x80000000u, kNonceKey)));
    EXPECT_FALSE(dispatched(ep, msg(CV_CLASS_REPLY, 0x7FFFFFFF, kNonceKey)));
    // Another sender has its own numbers.
    EXPECT_TRUE(dispatched(ep, msg(CV_CLASS_REPLY, 3, kNonceKey, engine_test::kId)));
}

TEST(Intake, AcknowledgementWithOldSequenceNumberIsStillHandled) {
    Endpoint ep(kKey);
    ASSERT_NE(ep.s, nullptr);
    ep.up();
    key_nonce_ctx(ep, kNonceKey);
    EXPECT_TRUE(dispatched(ep, msg(CV_CLASS_REPLY, 500, kNonceKey)));
    engine_test::deliver(ep.s, msg(CV_CLASS_DISCOVERY, 5, ep.secret, engine_test::kSwitchId,
                                   CV_SHIPMENT_ACK_WILL));
    EXPECT_EQ(ohmara_svc_getStatus(ep.s), OHMARA_STATUS_ACTIVE);
    EXPECT_EQ(ep.s->neighbor->last_seq, 500);  // acknowledgements leave the tree alone
}

TEST(Intake, DispatchByClass) {
    struct Case {
        uint8_t cls;
        const char *warn;  // expected WARN, or null for silence
    };
    const Case cases[] = {
        {9, nullptr},
        {0, nullptr},
        {12, "unexpected event type 12"},
        {13, "unexpected event type 13"},
        {15, "unexpected event type 15"},
        {200, "unexpected event type 200"},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.cls);
        Endpoint ep(kKey);
        ASSERT_NE(ep.s, nullptr);
        ep.active();
        key_nonce_ctx(ep, kNonceKey);
        omsdk_test::LogCapture cap(OHMARA_LOG_WARN);
        engine_test::deliver(ep.s, msg(c.cls, 1, kNonceKey));
        if (c.warn == nullptr) {
            EXPECT_TRUE(cap.lines().empty()) << cap.dump();
        } else {
            EXPECT_TRUE(cap.has(OHMARA_LOG_WARN, "omr_processMsg", c.warn)) << cap.dump();
        }
        EXPECT_EQ(ohmara_svc_getStatus(ep.s), OHMARA_STATUS_ACTIVE);
        EXPECT_TRUE(engine_test::nothing_pending(ep.parent, 0));
    }
}

// A switch connection: the test's end is bound to 127.0.0.2, the endpoint's
// accepted end becomes the session's connection socket.
struct SwitchConnection {
    int client = -1;
    SwitchConnection(Endpoint &ep) {
        client = socket(AF_INET, SOCK_STREAM, 0);
        sockaddr_in from{};
        from.sin_family = AF_INET;
        from.sin_addr.s_addr = inet_addr("127.0.0.2");
        bind(client, reinterpret_cast<sockaddr *>(&from), sizeof from);
        sockaddr_in to{};
        to.sin_family = AF_INET;
        to.sin_port = htons(engine_test::bound_port(ep.s->listen_sock));
        to.sin_addr.s_addr = inet_addr("127.0.0.1");
        if (connect(client, reinterpret_cast<sockaddr *>(&to), sizeof to) != 0) return;
        pollfd p{ep.s->listen_sock, POLLIN, 0};
        if (poll(&p, 1, 2000) == 1) ep.s->tcp_sock = accept(ep.s->listen_sock, nullptr, nullptr);
    }
    ~SwitchConnection() {
        if (client >= 0) close(client);
    }
    // Whole messages that arrive within the time limit.
    std::vector<Bytes> messages(int timeout_ms) {
        Bytes all;
        pollfd p{client, POLLIN, 0};
        while (poll(&p, 1, timeout_ms) == 1) {
            uint8_t buf[4096];
            ssize_t n = recv(client, buf, sizeof buf, MSG_DONTWAIT);
            if (n <= 0) break;
            all.insert(all.end(), buf, buf + n);
            timeout_ms = 100;  // the rest follows at once
        }
        std::vector<Bytes> out;
        size_t at = 0;
        while (at + 80 <= all.size()) {
            size_t len = 80 + ((all[at + 76] << 8) | all[at + 77]);
            if (at + len > all.size()) break;
            out.emplace_back(all.begin() + at, all.begin() + at + len);
            at += len;
        }
        return out;
    }
};

// A GET addressed to this endpoint by its identity.
Bytes get_query(uint32_t seq, const Bytes &key) {
    return engine_test::message(
        CV_SHIPMENT_SEND, CV_CLASS_QUERY, CV_ACTION_KVQR_CORVANE_QUERY_COLLECT, seq,
        [](cv_event *ev) {
            engine_test::add_reply_to(ev, "127.0.0.2", 7000);
            cv_sender_id who{};
            memcpy(who.id, engine_test::kId, 32);
            cv_add_tlv_common(ev, CV_CORVANE_TLV_TYPE_OHMRZ_ID, 12 + sizeof who, &who, 1);
            uint8_t level = 0;
            cv_add_tlv(ev, CV_CORVANE_TLV_TYPE_LEVEL_CURRENT, 13, &level);
        },
        key);
}

TEST(Intake, AuthenticatedQueryIsAnsweredWithTheNonceKey) {
    Endpoint ep(kKey);
    ASSERT_NE(ep.s, nullptr);
    ep.active();
    ep.s->local_nonce = 0x01020304;
    // Handshake first, so that the nonce key is the one both sides derive.
    engine_test::deliver(ep.s, engine_test::message(
                                   CV_SHIPMENT_ACK_WILL, CV_CLASS_DISCOVERY, 10, 1,
                                   [&](cv_event *ev) {
                                       engine_test::add_reply_to(ev, "127.0.0.1", ep.parent_port);
                                       engine_test::add_nonce(ev, 0x55667788);
                                   },
                                   ep.secret));
    Bytes update;
    ASSERT_TRUE(engine_test::recv_datagram(ep.parent, &update));
    Bytes secret20(kKey.begin(), kKey.end());
    secret20.resize(20, 0);  // a 13-byte key is read zero-padded to 20
    Bytes nonce_key = engine_test::nonce_key(0x01020304, 0x55667788, secret20);

    SwitchConnection sw(ep);
    ASSERT_GE(ep.s->tcp_sock, 0);
    engine_test::deliver(ep.s, get_query(77, nonce_key));
    std::vector<Bytes> answers = sw.messages(1000);
    ASSERT_FALSE(answers.empty());
    const Bytes &ack = answers[0];
    EXPECT_TRUE(engine_test::signed_with(ack, nonce_key));
    EXPECT_EQ(ack[69], 0xFF);  // ACK_WILL
    EXPECT_EQ(ack[73], CV_CLASS_QUERY);
    EXPECT_EQ(Bytes(ack.begin() + 32, ack.begin() + 36), wire_test::hex("0000004d"));
    for (const Bytes &a : answers) EXPECT_TRUE(engine_test::signed_with(a, nonce_key));
}

TEST(Intake, UnauthenticatedMessagesChangeNothingAndGetNoAnswer) {
    struct Case {
        const char *name;
        uint8_t cls;
        int8_t shipment;
        uint16_t action;
    };
    const Case cases[] = {
        {"GET query", CV_CLASS_QUERY, CV_SHIPMENT_SEND, CV_ACTION_KVQR_CORVANE_QUERY_COLLECT},
        {"SET query", CV_CLASS_QUERY, CV_SHIPMENT_SEND, CV_ACTION_KVQR_CORVANE_QUERY_SET},
        {"aggregate", CV_CLASS_AGGREGATE, CV_SHIPMENT_SEND, 10},
        {"notify", CV_CLASS_NOTIFY, CV_SHIPMENT_SEND, 10},
        {"reply", CV_CLASS_REPLY, CV_SHIPMENT_SEND, 10},
        {"discovery delete", CV_CLASS_DISCOVERY, CV_SHIPMENT_SEND, 12},
        {"class 9", 9, CV_SHIPMENT_SEND, 10},
        {"acknowledgement of discovery", CV_CLASS_DISCOVERY, CV_SHIPMENT_ACK_WILL, 10},
        {"refusal of discovery", CV_CLASS_DISCOVERY, CV_SHIPMENT_ACK_WONT, 10},
        {"acknowledgement of a query", CV_CLASS_QUERY, CV_SHIPMENT_ACK_WILL, 10},
    };
    for (const Case &c : cases) {
        for (int start = 0; start < 2; ++start) {  // while UP and while ACTIVE
            SCOPED_TRACE(std::string(c.name) + (start ? ", active" : ", up"));
            Endpoint ep(kKey);
            ASSERT_NE(ep.s, nullptr);
            if (start) {
                ep.active();
            } else {
                ep.up();
            }
            key_nonce_ctx(ep, kNonceKey);
            ep.queue(0, 4, 10, 1, 1);
            ep.s->pending_seq = 20;
            ep.s->pending_id = 4;
            const int32_t status = ohmara_svc_getStatus(ep.s);
            SwitchConnection sw(ep);
            ASSERT_GE(ep.s->tcp_sock, 0);

            omsdk_test::LogCapture cap(OHMARA_LOG_DEBUG);
            Bytes m = engine_test::message(
                c.shipment, c.cls, c.action, 20,
                [&](cv_event *ev) {
                    engine_test::add_reply_to(ev, "127.0.0.1", ep.parent_port);
                    engine_test::add_nonce(ev, 0x0BADC0DE);
                    engine_test::add_alarm_answer(ev, 4, 2);
                    cv_sender_id who{};
                    memcpy(who.id, engine_test::kId, 32);
                    cv_add_tlv_common(ev, CV_CORVANE_TLV_TYPE_OHMRZ_ID, 12 + sizeof who, &who, 1);
                    uint8_t level = 9;
                    cv_add_tlv(ev, CV_CORVANE_TLV_TYPE_LEVEL_CURRENT, 13, &level);
                },
                kWrongKey);
            engine_test::deliver(ep.s, m);

            EXPECT_TRUE(cap.has(OHMARA_LOG_DEBUG, "omr_processMsg",
                                "dropping message with bad digest"))
                << cap.dump();
            EXPECT_EQ(ohmara_svc_getStatus(ep.s), status);
            EXPECT_TRUE(dev().statuses.empty());
            EXPECT_EQ(ep.s->neighbor, nullptr);
            EXPECT_EQ(ep.s->remote_nonce, 0u);
            EXPECT_EQ(ep.s->last_ack_time, 0);
            EXPECT_EQ(ep.s->pending_seq, 20u);
            EXPECT_NE(ep.s->pending_head, nullptr);
            EXPECT_TRUE(dev().alarm_replies.empty());
            EXPECT_TRUE(engine_test::nothing_pending(ep.parent, 0));
            EXPECT_TRUE(engine_test::nothing_pending(ep.bcast, 0));
            EXPECT_TRUE(sw.messages(50).empty());
        }
    }
}

TEST(Intake, MalformedMessagesAreDropped) {
    Endpoint ep(kKey);
    ASSERT_NE(ep.s, nullptr);
    ep.active();
    key_nonce_ctx(ep, kNonceKey);
    const Bytes good = msg(CV_CLASS_REPLY, 1, kNonceKey);  // one reply-to TLV, 108 bytes
    ASSERT_EQ(good.size(), 108u);

    struct Case {
        const char *name;
        std::function<Bytes()> make;
        const char *line;  // expected log fragment
    };
    const std::vector<Case> cases = {
        {"59 bytes", [&] { return Bytes(good.begin(), good.begin() + 59); },
         "Error creating new raw event, dropping event."},
        {"header only, TLVs missing", [&] { return Bytes(good.begin(), good.begin() + 80); },
         "Error while unpacking, err=3"},
        {"one byte too many",
         [&] {
             Bytes b = good;
             b.push_back(0);
             return b;
         },
         "Error while unpacking, err=3"},
        {"digest length 16",
         [&] {
             Bytes b = good;
             b[11] = 16;
             return b;
         },
         "Error while unpacking, err=5"},
        {"TLV longer than the payload",
         [&] {
             Bytes b = good;
             b[87] = 29;  // reply-to claims 29 bytes of 28
             wire_test::sign(b, kNonceKey);
             return b;
         },
         "Error while unpacking, err=1"},
        {"TLV count beyond the TLVs",
         [&] {
             Bytes b = good;
             b[79] = 2;
             wire_test::sign(b, kNonceKey);
             return b;
         },
         "Error while unpacking, err=1"},
        {"TLV length below its header",
         [&] {
             Bytes b = good;
             b[87] = 4;
             wire_test::sign(b, kNonceKey);
             return b;
         },
         "Error while unpacking, err=1"},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.name);
        omsdk_test::LogCapture cap(OHMARA_LOG_DEBUG);
        Bytes b = c.make();
        engine_test::deliver(ep.s, b);
        EXPECT_TRUE(cap.contains(c.line)) << cap.dump();
        EXPECT_FALSE(cap.contains("unexpected event type"));
        EXPECT_EQ(ep.s->neighbor, nullptr);
    }
    // Intake still works afterwards.
    EXPECT_TRUE(dispatched(ep, good));
}

}  // namespace
