// SPDX-License-Identifier: Apache-2.0
// Message intake: the authentication gate, the duplicate test and its
// sender tree.
#include "fixture.h"

namespace {

using namespace engine_test;

Bytes msg(uint8_t cls, uint32_t seq, const char *sender = kSwitchId, int8_t shipment = 0,
          const Bytes &key = kNonceKey) {
    return from_switch(shipment, cls, 10, seq, {switch_reply_to()}, key, 100, sender);
}
Bytes last_byte_forged(Bytes m) { return m[31] ^= 1, m; }  // digest bytes 12..31
// Delivers and tells whether the class-13 handler was reached.
bool dispatched(World &w, const Bytes &m) {
    LogCapture cap(OHMARA_LOG_WARN);
    w.deliver(m);
    return cap.contains("unexpected event type 13");
}
const uint8_t *id_of(char c) {
    static std::string ids[128];
    return reinterpret_cast<const uint8_t *>((ids[int(c)] = std::string(32, c)).data());
}

TEST(CheckNeighbor, SequenceNumbersPerSenderWrapAround) {
    // Sender 'm' starts at 99; 'c' and 'x' are new. Through the negative range and through zero;
    // more than half the range ahead counts as older.
    const std::tuple<char, uint32_t, int32_t> steps[] = {
        {'m', 100, 0},         {'m', 100, -1},       {'m', 99, -1},         {'m', 101, 0},
        {'c', 5, 0},           {'c', 5, -1},         {'x', 1, 0},           {'m', 102, 0},
        {'x', 0, -1},          {'x', 0x7FFFFFFF, 0}, {'x', 0x80000000u, 0}, {'x', 0x7FFFFFFF, -1},
        {'x', 0xFFFFFFFFu, 0}, {'x', 0, 0},          {'x', 0x80000001u, -1}};
    neighbor_node *root = new_neighbor_node();
    memcpy(root->id, id_of('m'), 32);
    root->last_seq = 99;
    int i = 0;
    for (const auto &[sender, seq, result] : steps)
        EXPECT_EQ(checkNeighbor(root, id_of(sender), seq), result) << i++;
    omsdk::free_neighbor_tree(root);
}

TEST(CheckNeighbor, DegenerateTreeNeedsNoDeepStack) {
    // Long chains both ways: a recursive walk or free would overflow the stack.
    neighbor_node *root = new_neighbor_node(), *right = root, *left = root;
    for (int i = 1; i < 300000; ++i) {
        right = right->greater = new_neighbor_node();
        left = left->lesser = new_neighbor_node();
    }
    printNeighborNode(root);  // filtered: walks without logging
    int count = 0;
    for (neighbor_node *n = root; n != nullptr; n = n->greater) ++count;
    EXPECT_EQ(count, 300000);         // the walk undid its threads
    omsdk::free_neighbor_tree(root);  // leaks fail the sanitizer run
}

TEST(Intake, DuplicatesDroppedAndForgeriesNotRecorded) {
    World w;
    w.active();
    EXPECT_TRUE(dispatched(w, msg(CV_CLASS_REPLY, 0x7FFFFFFE)));  // seeds the tree
    LogCapture cap(OHMARA_LOG_DEBUG);
    w.deliver(msg(CV_CLASS_REPLY, 0x7FFFFFFE));
    EXPECT_TRUE(
        cap.has(OHMARA_LOG_DEBUG, "omr_validatePeer",
                "dropping message from peer 127.0.0.2 with duplicate seq number 2147483646"));
    EXPECT_FALSE(cap.contains("unexpected event type"));
    EXPECT_TRUE(cap.has(OHMARA_LOG_DEBUG, "checkNeighbor",
                        "lookup last sequence number 2147483646 and new sequence number "
                        "2147483646 for fedcba9876543210fedcba9876543210"));
    // A forgery (only the digest's last byte wrong) neither passes nor takes its number.
    EXPECT_FALSE(dispatched(w, last_byte_forged(msg(CV_CLASS_REPLY, 0x80000000u))));
    EXPECT_TRUE(dispatched(w, msg(CV_CLASS_REPLY, 0x7FFFFFFF)));
    EXPECT_FALSE(dispatched(w, last_byte_forged(msg(CV_CLASS_REPLY, 9, kId))));
    EXPECT_TRUE(dispatched(w, msg(CV_CLASS_REPLY, 3, kId)));  // another sender, its own numbers
    // An acknowledgement with an old number is still handled and leaves the tree alone.
    om_setStatusUp(w.s);
    w.deliver(msg(CV_CLASS_DISCOVERY, 5, kSwitchId, CV_SHIPMENT_ACK_WILL, kKey));
    EXPECT_EQ(ohmara_svc_getStatus(w.s), OHMARA_STATUS_ACTIVE);
    EXPECT_EQ(w.s->neighbor->last_seq, 0x7FFFFFFF);
}

TEST(Intake, BadDigestChangesNothingAndIsNotAnswered) {
    const Bytes kWrongKey = {'n', 'o', 't', '-', 't', 'h', 'e', '-', 'k', 'e', 'y'};
    // GET, SET, aggregate, discovery delete, class 13, ACKs of discovery and of a query
    const std::tuple<uint8_t, int8_t, uint16_t> cases[] = {
        {CV_CLASS_QUERY, 0, 11},     {CV_CLASS_QUERY, 0, 10}, {CV_CLASS_AGGREGATE, 0, 10},
        {CV_CLASS_DISCOVERY, 0, 12}, {CV_CLASS_REPLY, 0, 10}, {CV_CLASS_DISCOVERY, -1, 10},
        {CV_CLASS_QUERY, -1, 10}};
    for (const auto &[cls, shipment, action] : cases) {
        for (bool active : {false, true}) {  // active: forged only in the digest's last byte
            SCOPED_TRACE(std::to_string(cls) + " " + std::to_string(shipment) + " " +
                         std::to_string(action) + (active ? ", active" : ", up"));
            World w;
            if (active) w.active();
            w.queue(OMSDK_REQ_ALARM_SET, 4, 10, 1, 1);
            w.s->pending_seq = 20;
            w.s->pending_id = 4;
            const int32_t status = ohmara_svc_getStatus(w.s);
            LogCapture cap(OHMARA_LOG_DEBUG);
            // Everything a handler would act on: reply-to, nonce, alarm answer, identity, level.
            const Bytes key = active ? (cls == CV_CLASS_DISCOVERY ? kKey : kNonceKey) : kWrongKey;
            Bytes m = from_switch(shipment, cls, action, 20,
                                  {switch_reply_to(),
                                   {47, hex("0badc0de")},
                                   {50, hex("00000000 0000 00000004 00000002")},
                                   identity(),
                                   {14, {9}}},
                                  key);
            w.deliver(active ? last_byte_forged(m) : m);
            EXPECT_TRUE(cap.has(1, "omr_processMsg", "dropping message with bad digest"));
            EXPECT_EQ(ohmara_svc_getStatus(w.s), status);
            EXPECT_EQ(w.s->neighbor, nullptr);
            EXPECT_EQ(w.s->remote_nonce, 0u);
            EXPECT_EQ(w.s->last_ack_time, 0);
            EXPECT_EQ(w.s->pending_seq, 20u);
            EXPECT_TRUE(dev().statuses.empty() && dev().alarm_replies.empty() &&
                        dev().levels_set.empty() && dev().modified.empty());
            EXPECT_TRUE(w.take().empty());
        }
    }
}

}  // namespace
