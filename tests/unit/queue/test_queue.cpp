#include <gtest/gtest.h>

#include <stdio.h>

#include <string>
#include <vector>

#include "log_capture.h"
#include "omsdk/queue.h"

namespace {

using omsdk_test::LogCapture;

struct Item {
    Item *next;
    int key;
    int seq;
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

// Walks the list checking links, tail and depth; returns the keys in order.
std::vector<int> keys(queue_rec *q) {
    std::vector<int> out;
    Item *last = nullptr;
    for (Item *i = static_cast<Item *>(q->head); i != nullptr && out.size() < 100; i = i->next) {
        out.push_back(i->key);
        last = i;
    }
    EXPECT_EQ(q->tail, last);
    EXPECT_EQ(q->depth, static_cast<int32_t>(out.size()));
    return out;
}

struct QueueOps : ::testing::Test {
    queue_rec q;
    Item it[8];
    void SetUp() override {
        ASSERT_EQ(queue_init(&q, 0), 1);
        for (int i = 0; i < 8; ++i) it[i] = Item{nullptr, i, i};
    }
    void fill(int n) {
        for (int i = 0; i < n; ++i) ASSERT_EQ(enqueue(&q, &it[i]), 1);
    }
};

TEST(QueueInit, RefusesNullAndNegativeSize) {
    queue_rec q;
    EXPECT_EQ(queue_init(nullptr, 0), 0);
    EXPECT_EQ(queue_init(&q, -1), 0);
    EXPECT_EQ(queue_init(&q, 5), 1);
    EXPECT_EQ(queryqueuesize(&q), 5);
    EXPECT_EQ(queryqueuedepth(&q), 0);
    EXPECT_EQ(peekqueuehead(&q), nullptr);
    EXPECT_EQ(peekqueuetail(&q), nullptr);
}

TEST_F(QueueOps, FifoThroughPlainAndUnlockedForms) {
    LogCapture cap(0);
    EXPECT_EQ(enqueue(&q, &it[1]), 1);
    EXPECT_EQ(m_enqueue(&q, &it[2]), 1);
    EXPECT_EQ(requeue(&q, &it[0]), 1);
    EXPECT_EQ(m_requeue(&q, &it[3]), 1);
    EXPECT_EQ(keys(&q), (std::vector<int>{3, 0, 1, 2}));
    EXPECT_EQ(checkqueue(&q, &it[2]), 1);
    EXPECT_EQ(checkqueue(&q, &it[5]), 0);
    EXPECT_EQ(checkqueue(nullptr, &it[2]), 0);
    EXPECT_EQ(dequeue(&q), &it[3]);
    EXPECT_EQ(m_dequeue(&q), &it[0]);
    EXPECT_EQ(it[0].next, nullptr);
    EXPECT_EQ(dequeue(&q), &it[1]);
    EXPECT_EQ(dequeue(&q), &it[2]);
    EXPECT_EQ(dequeue(&q), nullptr);  // empty: silently nothing
    EXPECT_EQ(keys(&q), std::vector<int>{});
    EXPECT_TRUE(cap.lines().empty()) << cap.dump();
}

TEST_F(QueueOps, LinkedElementsAreRefusedAndLogged) {
    fill(2);
    Item stray{&it[7], 9, 9};
    LogCapture cap(0);
    EXPECT_EQ(enqueue(&q, &it[1]), 0);  // already the tail
    EXPECT_TRUE(cap.has(4, "enqueue_inline", refusal("enqueue_inline", &it[1], nullptr)));
    EXPECT_EQ(m_enqueue(&q, &stray), 0);  // linked elsewhere
    EXPECT_TRUE(cap.has(4, "enqueue_inline", refusal("enqueue_inline", &stray, &it[7])));
    EXPECT_EQ(requeue(&q, &it[0]), 0);
    EXPECT_TRUE(cap.has(4, "requeue_inline", refusal("requeue", &it[0], &it[1])));
    EXPECT_EQ(insqueue(&q, &it[1], &it[0]), 0);
    EXPECT_TRUE(cap.has(4, "insqueue", refusal("insqueue", &it[1], &it[0])));
    EXPECT_EQ(insqueue(&q, &stray, nullptr), 0);  // at the head: the push's check
    EXPECT_TRUE(cap.has(4, "requeue_inline", refusal("requeue", &stray, &it[7])));
    EXPECT_EQ(unqueue(&q, &stray), 0);
    EXPECT_TRUE(cap.has(4, "unqueue_inline", refusal("unqueue", &stray, &q)));
    EXPECT_EQ(m_unqueue(&q, &it[5]), 0);
    EXPECT_EQ(remqueue(&q, &it[1], &it[5]), nullptr);  // wrong predecessor
    EXPECT_TRUE(cap.has(4, "remqueue", refusal("remqueue", &it[1], &it[5])));
    EXPECT_EQ(cap.lines().size(), 8u) << cap.dump();
    EXPECT_EQ(keys(&q), (std::vector<int>{0, 1}));
}

TEST_F(QueueOps, UnqueueFromEveryPosition) {
    struct Case {
        int remove;
        std::vector<int> left;
    } cases[] = {{0, {1, 2}}, {1, {0, 2}}, {2, {0, 1}}};
    for (const Case &c : cases) {
        SetUp();
        fill(3);
        EXPECT_EQ(unqueue(&q, &it[c.remove]), 1);
        EXPECT_EQ(it[c.remove].next, nullptr);
        EXPECT_EQ(keys(&q), c.left) << c.remove;
    }
    SetUp();
    fill(1);
    EXPECT_EQ(m_unqueue(&q, &it[0]), 1);
    EXPECT_EQ(keys(&q), std::vector<int>{});
}

TEST_F(QueueOps, PositionalRemovalAndInsertion) {
    fill(4);  // 0 1 2 3
    EXPECT_EQ(remqueue(&q, &it[0], nullptr), &it[0]);  // the head: a dequeue
    EXPECT_EQ(remqueue(&q, &it[3], &it[2]), &it[3]);   // the tail moves back
    EXPECT_EQ(keys(&q), (std::vector<int>{1, 2}));
    EXPECT_EQ(insqueue(&q, &it[3], &it[2]), 1);  // after the tail: new tail
    EXPECT_EQ(insqueue(&q, &it[0], nullptr), 1);
    EXPECT_EQ(insqueue(&q, &it[4], &it[1]), 1);
    EXPECT_EQ(keys(&q), (std::vector<int>{0, 1, 4, 2, 3}));
    EXPECT_EQ(unqueuenext(&q, &it[4]), 1);  // removes 2
    EXPECT_EQ(unqueuenext(&q, &it[3]), 1);  // nothing after the tail
    EXPECT_EQ(unqueuenext(&q, &it[4]), 1);  // removes 3: tail back to 4
    EXPECT_EQ(keys(&q), (std::vector<int>{0, 1, 4}));
    EXPECT_EQ(unqueuenext(&q, &q), 1);  // the queue itself: removes the head
    EXPECT_EQ(remqueue(&q, &it[1], &q), &it[1]);
    EXPECT_EQ(keys(&q), std::vector<int>{4});
    EXPECT_EQ(unqueuenext(&q, &q), 1);
    EXPECT_EQ(keys(&q), std::vector<int>{});
    for (int i : {0, 1, 2, 3, 4}) EXPECT_EQ(it[i].next, nullptr) << i;
}

TEST_F(QueueOps, DepthUnderflowIsRepairedOnlyInBoundedQueues) {
    struct Op {
        const char *func, *name;
        void (*run)(queue_rec *, Item *);
    } ops[] = {
        {"dequeue_inline", "dequeue", [](queue_rec *r, Item *) { dequeue(r); }},
        {"unqueue_inline", "unqueue", [](queue_rec *r, Item *e) { unqueue(r, e); }},
        {"remqueue", "remqueue", [](queue_rec *r, Item *e) { remqueue(r, e, r); }},
        {"unqueuenext", "unqueuenext", [](queue_rec *r, Item *) { unqueuenext(r, r); }},
    };
    for (const Op &op : ops) {
        for (int32_t size : {0, 4}) {
            ASSERT_EQ(queue_init(&q, size), 1);
            it[0].next = nullptr;
            ASSERT_EQ(enqueue(&q, &it[0]), 1);
            q.depth = 0;  // the record says empty, the list does not
            LogCapture cap(0);
            op.run(&q, &it[0]);
            EXPECT_EQ(q.head, nullptr) << op.name;
            if (size == 0) {
                EXPECT_EQ(q.depth, -1) << op.name;
                EXPECT_TRUE(cap.lines().empty()) << cap.dump();
            } else {
                EXPECT_EQ(q.depth, 0) << op.name;
                EXPECT_TRUE(cap.has(4, op.func, std::string(op.name) + " " + ptr(&q) + " (-1)"))
                    << cap.dump();
            }
        }
    }
}

TEST_F(QueueOps, DequeueReportsAnInconsistentTail) {
    fill(1);
    q.tail = &it[5];
    LogCapture cap(0);
    EXPECT_EQ(dequeue(&q), &it[0]);
    EXPECT_TRUE(cap.has(4, "dequeue_inline", refusal("dequeue", &it[0], &it[5])));
    EXPECT_EQ(q.tail, nullptr);
}

TEST_F(QueueOps, ValidqueueChecksDepthSizeAndLinks) {
    ASSERT_EQ(queue_init(&q, 2), 1);
    fill(3);  // the size is not enforced on insertion
    EXPECT_EQ(validqueue(&q, 0), 0);
    {
        LogCapture cap(0);
        EXPECT_EQ(validqueue(&q, 1), 0);
        EXPECT_EQ(cap.count_containing("validqueue: validqueue "), 1u);
        EXPECT_TRUE(cap.contains("(" + ptr(&q) + ")"));
    }
    q.size = 3;
    EXPECT_EQ(validqueue(&q, 1), 1);
    struct Case {
        int32_t depth;
        Item *cycle_to;
    } broken[] = {{2, nullptr}, {4, nullptr}, {-1, nullptr}, {3, &it[0]}};
    for (const Case &c : broken) {
        q.size = 0;
        q.depth = c.depth;
        it[2].next = c.cycle_to;  // a loop must not hang the check
        LogCapture cap(0);
        EXPECT_EQ(validqueue(&q, 1), 0) << c.depth;
        EXPECT_EQ(cap.count_containing("validqueue: validqueue "), 1u);
    }
    it[2].next = nullptr;
    q.depth = 3;
    EXPECT_EQ(validqueue(&q, 1), 1);
}

int ascending(void *current, void *element) {
    return static_cast<Item *>(current)->key <= static_cast<Item *>(element)->key ? 1 : -1;
}

TEST_F(QueueOps, InsertCompKeepsStableAscendingOrder) {
    struct Case {
        std::vector<int> in;
        std::vector<int> want_seq;  // the arrival indexes in final order
    } cases[] = {
        {{5, 1, 3, 3, 9, 1, 5}, {1, 5, 2, 3, 0, 6, 4}},
        {{4, 3, 2, 1}, {3, 2, 1, 0}},
        {{1, 2, 3}, {0, 1, 2}},
        {{7, 7, 7}, {0, 1, 2}},
    };
    for (const Case &c : cases) {
        SetUp();
        for (size_t i = 0; i < c.in.size(); ++i) {
            it[i].key = c.in[i];
            it[i].next = &it[7];  // stale link: overwritten
            EXPECT_EQ(queue_insert_comp(&q, &it[i], ascending), 1);
        }
        std::vector<int> seq;
        for (Item *i = static_cast<Item *>(q.head); i != nullptr && seq.size() < 10; i = i->next)
            seq.push_back(i->seq);
        EXPECT_EQ(seq, c.want_seq);
        EXPECT_EQ(q.tail, &it[c.want_seq.back()]);
        EXPECT_EQ(q.depth, static_cast<int32_t>(c.in.size()));
    }
    // 0 also walks on (append); anything but 0 and 1 inserts at once.
    SetUp();
    for (int i = 0; i < 3; ++i)
        queue_insert_comp(&q, &it[i], [](void *, void *) { return int32_t{0}; });
    for (int i = 3; i < 5; ++i)
        queue_insert_comp(&q, &it[i], [](void *, void *) { return int32_t{2}; });
    EXPECT_EQ(keys(&q), (std::vector<int>{4, 3, 0, 1, 2}));
}

}  // namespace
