// SPDX-License-Identifier: Apache-2.0
#include <gtest/gtest.h>

#include <vector>

#include "log_capture.h"
#include "omsdk/queue.h"

namespace {

using Keys = std::vector<int>;

struct Item {
    Item *next;
    int seq;
};

// Walks the list checking tail and depth; the items' indexes in order.
Keys order(const queue_rec &q) {
    Keys out;
    Item *last = nullptr;
    for (Item *i = static_cast<Item *>(q.head); i != nullptr && out.size() < 100; i = i->next)
        out.push_back(i->seq), last = i;
    EXPECT_EQ(q.tail, last);
    EXPECT_EQ(q.depth, static_cast<int32_t>(out.size()));
    return out;
}

TEST(Queue, RemovalAndInsertionByPosition) {
    omsdk_test::QuietLog quiet;
    queue_rec q;
    ASSERT_EQ(queue_init(&q, 0), 1);
    Item it[5];
    for (int i = 0; i < 5; ++i) it[i] = Item{nullptr, i};
    for (int i = 0; i < 4; ++i) ASSERT_EQ(enqueue(&q, &it[i]), 1);  // 0 1 2 3
    EXPECT_EQ(remqueue(&q, &it[0], nullptr), &it[0]);               // the head: a dequeue
    EXPECT_EQ(remqueue(&q, &it[3], &it[2]), &it[3]);                // the tail moves back
    EXPECT_EQ(order(q), (Keys{1, 2}));
    EXPECT_EQ(insqueue(&q, &it[3], &it[2]), 1);  // after the tail: new tail
    EXPECT_EQ(insqueue(&q, &it[0], nullptr), 1);
    EXPECT_EQ(insqueue(&q, &it[4], &it[1]), 1);
    EXPECT_EQ(order(q), (Keys{0, 1, 4, 2, 3}));
    EXPECT_EQ(unqueuenext(&q, &it[4]), 1);  // removes 2
    EXPECT_EQ(unqueuenext(&q, &it[3]), 1);  // nothing after the tail
    EXPECT_EQ(order(q), (Keys{0, 1, 4, 3}));
    EXPECT_EQ(unqueue(&q, &it[3]), 1);  // the tail: back to 4
    EXPECT_EQ(unqueue(&q, &it[1]), 1);
    EXPECT_EQ(order(q), (Keys{0, 4}));
    EXPECT_EQ(unqueuenext(&q, &q), 1);  // the queue itself: removes the head
    EXPECT_EQ(order(q), Keys{4});
    EXPECT_EQ(dequeue(&q), &it[4]);
    EXPECT_EQ(requeue(&q, &it[4]), 1);  // into the empty queue: head and tail
    EXPECT_EQ(order(q), Keys{4});
    for (int i : {0, 1, 2, 3}) EXPECT_EQ(it[i].next, nullptr) << i;
}

}  // namespace
