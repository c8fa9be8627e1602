#include <gtest/gtest.h>

#include <stdio.h>

#include <string>
#include <vector>

#include "log_capture.h"
#include "omsdk/queue.h"

namespace {

using omsdk_test::LogCapture;
using Keys = std::vector<int>;

struct Item {
    Item *next;
    int key, seq;
};

std::string ptr(const void *p) {
    char b[32];
    snprintf(b, sizeof b, "%p", p);
    return b;
}

// "name elem (second)" as every refusal reports it.
std::string refusal(const char *name, const void *elem, const void *second) {
    return std::string(name) + " " + ptr(elem) + " (" + ptr(second) + ")";
}

struct Queue : ::testing::Test {
    queue_rec q;
    Item it[8];
    void SetUp() override { reset(0); }
    void reset(int32_t size, int fill = 0) {
        ASSERT_EQ(queue_init(&q, size), 1);
        for (int i = 0; i < 8; ++i) it[i] = Item{nullptr, i, i};
        for (int i = 0; i < fill; ++i) ASSERT_EQ(enqueue(&q, &it[i]), 1);
    }
    // Walks the list checking tail and depth; returns the items' indexes in order.
    Keys order() {
        Keys out;
        Item *last = nullptr;
        for (Item *i = static_cast<Item *>(q.head); i != nullptr && out.size() < 100; i = i->next)
            out.push_back(i->seq), last = i;
        EXPECT_EQ(q.tail, last);
        EXPECT_EQ(q.depth, static_cast<int32_t>(out.size()));
        return out;
    }
};

TEST_F(Queue, FifoAndRefusedLinkedElements) {
    LogCapture cap(0);
    EXPECT_EQ(enqueue(&q, &it[1]), 1);
    EXPECT_EQ(m_enqueue(&q, &it[2]), 1);
    EXPECT_EQ(requeue(&q, &it[0]), 1);
    EXPECT_EQ(m_requeue(&q, &it[3]), 1);
    EXPECT_EQ(order(), (Keys{3, 0, 1, 2}));
    EXPECT_TRUE(cap.lines().empty()) << cap.dump();
    Item stray{&it[7], 9, 9};
    EXPECT_EQ(enqueue(&q, &it[2]), 0);  // already the tail
    EXPECT_TRUE(cap.has(4, "enqueue_inline", refusal("enqueue_inline", &it[2], nullptr)));
    EXPECT_EQ(m_enqueue(&q, &stray), 0);  // linked elsewhere
    EXPECT_TRUE(cap.has(4, "enqueue_inline", refusal("enqueue_inline", &stray, &it[7])));
    EXPECT_EQ(requeue(&q, &it[0]), 0);
    EXPECT_TRUE(cap.has(4, "requeue_inline", refusal("requeue", &it[0], &it[1])));
    EXPECT_EQ(unqueue(&q, &stray), 0);
    EXPECT_TRUE(cap.has(4, "unqueue_inline", refusal("unqueue", &stray, &q)));
    EXPECT_EQ(remqueue(&q, &it[1], &it[5]), nullptr);  // wrong predecessor
    EXPECT_TRUE(cap.has(4, "remqueue", refusal("remqueue", &it[1], &it[5])));
    EXPECT_EQ(cap.lines().size(), 5u) << cap.dump();
    EXPECT_EQ(order(), (Keys{3, 0, 1, 2}));
    cap.clear();
    for (int k : {3, 0, 1, 2}) EXPECT_EQ(k % 2 ? dequeue(&q) : m_dequeue(&q), &it[k]);
    EXPECT_EQ(it[0].next, nullptr);
    EXPECT_EQ(dequeue(&q), nullptr);  // empty: silently nothing
    EXPECT_EQ(order(), Keys{});
    EXPECT_TRUE(cap.lines().empty()) << cap.dump();
}

TEST_F(Queue, RemovalAndInsertionByPosition) {
    reset(0, 4);                                        // 0 1 2 3
    EXPECT_EQ(remqueue(&q, &it[0], nullptr), &it[0]);  // the head: a dequeue
    EXPECT_EQ(remqueue(&q, &it[3], &it[2]), &it[3]);   // the tail moves back
    EXPECT_EQ(order(), (Keys{1, 2}));
    EXPECT_EQ(insqueue(&q, &it[3], &it[2]), 1);  // after the tail: new tail
    EXPECT_EQ(insqueue(&q, &it[0], nullptr), 1);
    EXPECT_EQ(insqueue(&q, &it[4], &it[1]), 1);
    EXPECT_EQ(order(), (Keys{0, 1, 4, 2, 3}));
    EXPECT_EQ(unqueuenext(&q, &it[4]), 1);  // removes 2
    EXPECT_EQ(unqueuenext(&q, &it[3]), 1);  // nothing after the tail
    EXPECT_EQ(order(), (Keys{0, 1, 4, 3}));
    EXPECT_EQ(unqueue(&q, &it[3]), 1);  // the tail: back to 4
    EXPECT_EQ(unqueue(&q, &it[1]), 1);
    EXPECT_EQ(order(), (Keys{0, 4}));
    EXPECT_EQ(unqueuenext(&q, &q), 1);  // the queue itself: removes the head
    EXPECT_EQ(order(), Keys{4});
    for (int i : {0, 1, 2, 3}) EXPECT_EQ(it[i].next, nullptr) << i;
}

TEST_F(Queue, DepthUnderflowIsRepairedOnlyInBoundedQueues) {
    const struct { const char *func, *name; void (*run)(queue_rec *, Item *); } ops[] = {
        {"dequeue_inline", "dequeue", [](queue_rec *r, Item *) { dequeue(r); }},
        {"unqueue_inline", "unqueue", [](queue_rec *r, Item *e) { unqueue(r, e); }},
        {"remqueue", "remqueue", [](queue_rec *r, Item *e) { remqueue(r, e, r); }},
        {"unqueuenext", "unqueuenext", [](queue_rec *r, Item *) { unqueuenext(r, r); }},
    };
    for (const auto &op : ops) {
        for (int32_t size : {0, 4}) {
            SCOPED_TRACE(std::string(op.name) + " size " + std::to_string(size));
            reset(size, 1);
            q.depth = 0;  // the record says empty, the list does not
            LogCapture cap(0);
            op.run(&q, &it[0]);
            EXPECT_EQ(q.head, nullptr);
            EXPECT_EQ(q.depth, size == 0 ? -1 : 0);
            const std::string line = std::string(op.name) + " " + ptr(&q) + " (-1)";
            EXPECT_EQ(cap.has(4, op.func, line), size != 0) << cap.dump();
            EXPECT_EQ(cap.lines().size(), size == 0 ? 0u : 1u);
        }
    }
}

TEST_F(Queue, ValidqueueChecksSizeDepthAndLinks) {
    reset(2, 3);  // the size is not enforced on insertion
    LogCapture cap(0);
    EXPECT_EQ(validqueue(&q, 1), 0);
    EXPECT_EQ(cap.count_containing("validqueue: validqueue "), 1u);
    EXPECT_TRUE(cap.contains("(" + ptr(&q) + ")")) << cap.dump();
    q.size = 3;
    EXPECT_EQ(validqueue(&q, 1), 1);
    q.depth = 2;  // the count disagrees with the links
    EXPECT_EQ(validqueue(&q, 0), 0);
    it[2].next = &it[0];  // a loop must not hang the check
    q.depth = 3;
    EXPECT_EQ(validqueue(&q, 0), 0);
}

int ascending(void *current, void *element) {
    return static_cast<Item *>(current)->key <= static_cast<Item *>(element)->key ? 1 : -1;
}

TEST_F(Queue, InsertCompKeepsStableAscendingOrder) {
    // Keys in arrival order; arrival indexes in final order.
    const struct { Keys in, want; } cases[] = {
        {{5, 1, 3, 3, 9, 1, 5}, {1, 5, 2, 3, 0, 6, 4}},
        {{4, 3, 2, 1}, {3, 2, 1, 0}},
        {{7, 7, 7}, {0, 1, 2}},
    };
    for (const auto &c : cases) {
        reset(0);
        for (size_t i = 0; i < c.in.size(); ++i) {
            it[i].key = c.in[i];
            it[i].next = &it[7];  // stale link: overwritten
            EXPECT_EQ(queue_insert_comp(&q, &it[i], ascending), 1);
        }
        EXPECT_EQ(order(), c.want);
    }
}

}  // namespace
