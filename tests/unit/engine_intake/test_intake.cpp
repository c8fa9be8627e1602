// Message intake: authentication gate, duplicate test, dispatch by class,
// malformed input, and the peer tree behind the duplicate test.
#include "engine_harness.h"

namespace {

using namespace engine_test;

const Bytes kKey = {'i', 'n', 't', 'a', 'k', 'e', '-', 's', 'e', 'c', 'r', 'e', 't'};
const Bytes kNonceKey = {'n', 'o', 'n', 'c', 'e', '-', 'k', 'e', 'y', '-', 'o', 'f',
                         '-', 't', 'e', 's', 't', '-', 'x', 'y'};

Bytes msg(uint8_t cls, uint32_t seq, const Bytes &key, const char *sender = kSwitchId,
          int8_t shipment = CV_SHIPMENT_SEND) {
    return message(shipment, cls, 10, seq, {reply_to("127.0.0.1", 6000)}, key, sender);
}

// Delivers and tells whether the class-13 handler was reached.
bool dispatched(Endpoint &ep, const Bytes &m) {
    LogCapture cap(OHMARA_LOG_WARN);
    deliver(ep.s, m);
    return cap.contains("unexpected event type 13");
}

std::string id_of(char c) { return std::string(32, c); }
const uint8_t *id_ptr(const std::string &id) { return reinterpret_cast<const uint8_t *>(id.data()); }

// A tree holding sender "m...m" at `seq`.
neighbor_node *tree(int32_t seq) {
    neighbor_node *root = new_neighbor_node();
    memcpy(root->id, id_of('m').data(), 32);
    root->last_seq = seq;
    return root;
}

TEST(CheckNeighbor, SequenceNumbersPerSender) {
    struct Step { char sender; uint32_t seq; int32_t result; } steps[] = {
        {'m', 100, 0}, {'m', 100, -1}, {'m', 99, -1}, {'m', 101, 0},
        {'c', 5, 0}, {'c', 5, -1},  // a new sender, then its repeat
        {'x', 1, 0}, {'m', 102, 0}, {'x', 0, -1},
        {'x', 0x7FFFFFFF, 0}, {'x', 0x80000000u, 0},  // wraps into the negative range
        {'x', 0x7FFFFFFF, -1}, {'x', 0xFFFFFFFFu, 0}, {'x', 0, 0},  // and through zero
        {'x', 0x80000001u, -1},  // more than half the range ahead counts as older
    };
    neighbor_node *root = tree(99);
    int i = 0;
    for (const Step &st : steps) {
        SCOPED_TRACE(i++);
        EXPECT_EQ(checkNeighbor(root, id_ptr(id_of(st.sender)), st.seq), st.result);
    }
    omsdk::free_neighbor_tree(root);
}

TEST(CheckNeighbor, DegenerateTreeNeedsNoDeepStack) {
    // A long right chain with a long left spine under the head: walking or
    // freeing it recursively would overflow the stack.
    constexpr int kNodes = 300000;
    neighbor_node *root = tree(0);
    neighbor_node *right = root, *left = root;
    for (int i = 1; i < kNodes; ++i) {
        right = right->greater = new_neighbor_node();
        left = left->lesser = new_neighbor_node();
    }
    printNeighborNode(root);  // filtered: walks without logging
    int count = 0;
    for (neighbor_node *n = root; n != nullptr; n = n->greater) ++count;
    EXPECT_EQ(count, kNodes);         // the walk undid its threads
    omsdk::free_neighbor_tree(root);  // leaks or a crash fail the sanitizer run
}

TEST(Intake, DuplicatesAndWrappedSequenceNumbers) {
    Endpoint ep(kKey);
    ep.active();
    ep.key_nonce(kNonceKey);
    EXPECT_TRUE(dispatched(ep, msg(CV_CLASS_REPLY, 0x7FFFFFFE, kNonceKey)));  // seeds the tree
    ASSERT_NE(ep.s->neighbor, nullptr);
    EXPECT_EQ(memcmp(ep.s->neighbor->id, kSwitchId, 32), 0);
    {
        LogCapture cap(OHMARA_LOG_DEBUG);
        deliver(ep.s, msg(CV_CLASS_REPLY, 0x7FFFFFFE, kNonceKey));
        EXPECT_TRUE(cap.has(OHMARA_LOG_DEBUG, "omr_validatePeer",
                            "dropping message from peer 127.0.0.1 with duplicate seq number "
                            "2147483646"))
            << cap.dump();
        EXPECT_FALSE(cap.contains("unexpected event type"));
    }
    EXPECT_TRUE(dispatched(ep, msg(CV_CLASS_REPLY, 0x7FFFFFFF, kNonceKey)));
    EXPECT_TRUE(dispatched(ep, msg(CV_CLASS_REPLY, 0x80000000u, kNonceKey)));
    EXPECT_FALSE(dispatched(ep, msg(CV_CLASS_REPLY, 0x7FFFFFFF, kNonceKey)));
    EXPECT_TRUE(dispatched(ep, msg(CV_CLASS_REPLY, 3, kNonceKey, kId)));  // its own numbers

    // An acknowledgement with an old number is still handled, and leaves
    // the tree alone.
    ep.up();
    ASSERT_EQ(ohmara_svc_getStatus(ep.s), OHMARA_STATUS_UP);
    deliver(ep.s, msg(CV_CLASS_DISCOVERY, 5, ep.secret, kSwitchId, CV_SHIPMENT_ACK_WILL));
    EXPECT_EQ(ohmara_svc_getStatus(ep.s), OHMARA_STATUS_ACTIVE);
    EXPECT_EQ(ep.s->neighbor->last_seq, static_cast<int32_t>(0x80000000u));
}

TEST(Intake, DispatchByClass) {
    // Classes below 10 are dropped silently, 12 and above warned about.
    for (int cls : {9, 0, 12, 13, 15, 200}) {
        SCOPED_TRACE(cls);
        Endpoint ep(kKey);
        ep.active();
        ep.key_nonce(kNonceKey);
        LogCapture cap(OHMARA_LOG_WARN);
        deliver(ep.s, msg(static_cast<uint8_t>(cls), 1, kNonceKey));
        EXPECT_EQ(cap.dump(),
                  cls < 10 ? "" : "3 omr_processMsg: unexpected event type " + std::to_string(cls) + "\n");
        EXPECT_EQ(ohmara_svc_getStatus(ep.s), OHMARA_STATUS_ACTIVE);
        EXPECT_NE(ep.s->neighbor, nullptr);  // authenticated: the sender was recorded
        EXPECT_TRUE(nothing_pending(ep.parent, 0));
    }
}

TEST(Intake, UnauthenticatedMessagesChangeNothingAndGetNoAnswer) {
    const Bytes kWrongKey = {'n', 'o', 't', '-', 't', 'h', 'e', '-', 'k', 'e', 'y'};
    struct Case { const char *name; uint8_t cls; int8_t shipment; uint16_t action; } cases[] = {
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
        for (bool active : {false, true}) {
            SCOPED_TRACE(std::string(c.name) + (active ? ", active" : ", up"));
            Endpoint ep(kKey);
            active ? ep.active() : ep.up();
            ep.key_nonce(kNonceKey);
            ep.queue(0, 4, 10, 1, 1);
            ep.s->pending_seq = 20;
            ep.s->pending_id = 4;
            const int32_t status = ohmara_svc_getStatus(ep.s);
            ep.connect_switch();

            LogCapture cap(OHMARA_LOG_DEBUG);
            // Everything a handler would act on: reply-to, nonce, an alarm
            // answer, the endpoint's identity and a level.
            deliver(ep.s, message(c.shipment, c.cls, c.action, 20,
                                  {reply_to("127.0.0.1", ep.parent_port), nonce(0x0BADC0DE),
                                   alarm_answer(4, 2), identity(), u8(14, 9)},
                                  kWrongKey));
            EXPECT_TRUE(cap.has(OHMARA_LOG_DEBUG, "omr_processMsg", "dropping message with bad digest"))
                << cap.dump();
            EXPECT_EQ(ohmara_svc_getStatus(ep.s), status);
            EXPECT_TRUE(dev().statuses.empty());
            EXPECT_EQ(ep.s->neighbor, nullptr);
            EXPECT_EQ(ep.s->remote_nonce, 0u);
            EXPECT_EQ(ep.s->last_ack_time, 0);
            EXPECT_EQ(ep.s->pending_seq, 20u);
            EXPECT_NE(ep.s->pending_head, nullptr);
            EXPECT_TRUE(dev().alarm_replies.empty());
            EXPECT_TRUE(dev().modified.empty());
            EXPECT_TRUE(nothing_pending(ep.parent, 0));
            EXPECT_TRUE(nothing_pending(ep.bcast, 0));
            EXPECT_TRUE(ep.nothing_sent());
        }
    }
}

TEST(Intake, MalformedMessagesAreDropped) {
    Endpoint ep(kKey);
    ep.active();
    ep.key_nonce(kNonceKey);
    const Bytes good = msg(CV_CLASS_REPLY, 1, kNonceKey);  // one reply-to TLV, 108 bytes
    ASSERT_EQ(good.size(), 108u);
    struct Case {
        const char *name;
        size_t size;        // the good message cut or extended to this size
        int at, value;      // then byte `at` set to `value` (at < 0: none)
        bool resign;
        const char *line;   // expected log fragment
    } cases[] = {
        {"59 bytes", 59, -1, 0, false, "Error creating new raw event, dropping event."},
        {"header only, TLVs missing", 80, -1, 0, false, "Error while unpacking, err=3"},
        {"one byte too many", 109, -1, 0, false, "Error while unpacking, err=3"},
        {"digest length 16", 108, 11, 16, false, "Error while unpacking, err=5"},
        {"TLV longer than the payload", 108, 87, 29, true, "Error while unpacking, err=1"},
        {"TLV count beyond the TLVs", 108, 79, 2, true, "Error while unpacking, err=1"},
        {"TLV length below its header", 108, 87, 4, true, "Error while unpacking, err=1"},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.name);
        Bytes b = good;
        b.resize(c.size, 0);
        if (c.at >= 0) b[c.at] = static_cast<uint8_t>(c.value);
        if (c.resign) sign(b, kNonceKey);
        LogCapture cap(OHMARA_LOG_DEBUG);
        deliver(ep.s, b);
        EXPECT_TRUE(cap.contains(c.line)) << cap.dump();
        EXPECT_FALSE(cap.contains("unexpected event type"));
        EXPECT_EQ(ep.s->neighbor, nullptr);
    }
    EXPECT_TRUE(dispatched(ep, good));  // intake still works afterwards
}

}  // namespace
