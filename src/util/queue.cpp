// SPDX-License-Identifier: Apache-2.0
#include "omsdk/queue.h"

#include <stddef.h>
#include <string.h>

#include "common/api.h"
#include "diag/log.h"

// The queue record's head is its first field, so the record itself can
// stand as the predecessor of the first element: its "next" is the head.
static_assert(offsetof(queue_rec, head) == 0, "head must be the first field");

// One less element. A negative depth means the record was tampered with; a
// bounded queue repairs it (and says so), an unbounded one keeps counting.
// A macro so that the line carries the calling operation's name.
#define OMSDK_QUEUE_DROP_DEPTH(q, name)                            \
    do {                                                           \
        --(q)->depth;                                              \
        if ((q)->depth < 0 && (q)->size != 0) {                    \
            OM_ERROR("%s %p (%d)", name, (void *)(q), (q)->depth); \
            (q)->depth = 0;                                        \
        }                                                          \
    } while (0)

namespace {

// Elements are the application's records; their first field is the link.
// Copying it bytewise works for whatever pointer type the record declares.
void *link_of(const void *element) {
    void *next;
    memcpy(&next, element, sizeof next);
    return next;
}

void set_link(void *element, void *next) { memcpy(element, &next, sizeof next); }

void *safe_link(const void *element) { return element != nullptr ? link_of(element) : nullptr; }

// The queue record's own slot for the first element when prev is the queue.
bool is_queue(const queue_rec *q, const void *prev) { return prev == static_cast<const void *>(q); }

int32_t enqueue_inline(queue_rec *q, void *e) {
    // An element still linked, or the tail itself, would make a cycle; a
    // head without a tail would lose the list.
    if (q == nullptr || e == nullptr || link_of(e) != nullptr || e == q->tail ||
        (q->head != nullptr && q->tail == nullptr)) {
        OM_ERROR("%s %p (%p)", "enqueue_inline", e, safe_link(e));
        return 0;
    }
    if (q->head == nullptr)
        q->head = e;
    else
        set_link(q->tail, e);
    q->tail = e;
    ++q->depth;
    return 1;
}

int32_t requeue_inline(queue_rec *q, void *e) {
    if (q == nullptr || e == nullptr || link_of(e) != nullptr || e == q->tail) {
        OM_ERROR("%s %p (%p)", "requeue", e, safe_link(e));
        return 0;
    }
    set_link(e, q->head);
    if (q->head == nullptr) q->tail = e;
    q->head = e;
    ++q->depth;
    return 1;
}

void *dequeue_inline(queue_rec *q) {
    if (q == nullptr || q->head == nullptr) return nullptr;
    void *e = q->head;
    q->head = link_of(e);
    if (q->head == nullptr) {
        if (e != q->tail) OM_ERROR("%s %p (%p)", "dequeue", e, q->tail);
        q->tail = nullptr;
    }
    set_link(e, nullptr);
    OMSDK_QUEUE_DROP_DEPTH(q, "dequeue");
    return e;
}

int32_t unqueue_inline(queue_rec *q, void *e) {
    void *prev = q;
    void *cur = q != nullptr ? q->head : nullptr;
    while (cur != nullptr && cur != e) {
        prev = cur;
        cur = link_of(cur);
    }
    if (cur == nullptr) {
        OM_ERROR("%s %p (%p)", "unqueue", e, static_cast<void *>(q));
        return 0;
    }
    void *next = link_of(e);
    set_link(prev, next);
    if (next == nullptr) q->tail = is_queue(q, prev) ? nullptr : prev;
    set_link(e, nullptr);
    OMSDK_QUEUE_DROP_DEPTH(q, "unqueue");
    return 1;
}

}  // namespace

OMSDK_API int32_t queue_init(queue_rec *queue, int32_t size) {
    if (queue == nullptr || size < 0) return 0;
    queue->head = nullptr;
    queue->tail = nullptr;
    queue->depth = 0;
    queue->size = size;
    return 1;
}

OMSDK_API int32_t queryqueuedepth(queue_rec *queue) { return queue != nullptr ? queue->depth : 0; }

OMSDK_API int32_t queryqueuesize(queue_rec *queue) { return queue != nullptr ? queue->size : 0; }

OMSDK_API void *peekqueuehead(queue_rec *queue) { return queue != nullptr ? queue->head : nullptr; }

OMSDK_API void *peekqueuetail(queue_rec *queue) { return queue != nullptr ? queue->tail : nullptr; }

OMSDK_API int32_t checkqueue(queue_rec *queue, void *element) {
    if (queue == nullptr || element == nullptr) return 0;
    for (void *cur = queue->head; cur != nullptr; cur = link_of(cur))
        if (cur == element) return 1;
    return 0;
}

OMSDK_API int32_t enqueue(queue_rec *queue, void *element) {
    return enqueue_inline(queue, element);
}

OMSDK_API int32_t m_enqueue(queue_rec *queue, void *element) {
    return enqueue_inline(queue, element);
}

OMSDK_API int32_t requeue(queue_rec *queue, void *element) {
    return requeue_inline(queue, element);
}

OMSDK_API int32_t m_requeue(queue_rec *queue, void *element) {
    return requeue_inline(queue, element);
}

OMSDK_API void *dequeue(queue_rec *queue) { return dequeue_inline(queue); }

OMSDK_API void *m_dequeue(queue_rec *queue) { return dequeue_inline(queue); }

OMSDK_API uint8_t unqueue(queue_rec *queue, void *element) {
    return static_cast<uint8_t>(unqueue_inline(queue, element));
}

OMSDK_API int32_t m_unqueue(queue_rec *queue, void *element) {
    return unqueue_inline(queue, element);
}

OMSDK_API int32_t unqueuenext(queue_rec *queue, void *prev) {
    if (queue == nullptr || prev == nullptr) {
        OM_ERROR("%s %p (%p)", "unqueuenext", prev, static_cast<void *>(queue));
        return 0;
    }
    void *e = link_of(prev);
    if (e == nullptr) return 1;
    void *next = link_of(e);
    set_link(prev, next);
    set_link(e, nullptr);
    if (next == nullptr) queue->tail = is_queue(queue, prev) ? nullptr : prev;
    OMSDK_QUEUE_DROP_DEPTH(queue, "unqueuenext");
    return 1;
}

OMSDK_API void *remqueue(queue_rec *queue, void *element, void *prev) {
    if (queue != nullptr && element == queue->head && prev == nullptr) return dequeue_inline(queue);
    if (queue == nullptr || element == nullptr || prev == nullptr || link_of(prev) != element) {
        OM_ERROR("%s %p (%p)", "remqueue", element, prev);
        return nullptr;
    }
    void *next = link_of(element);
    set_link(prev, next);
    set_link(element, nullptr);
    if (next == nullptr) queue->tail = is_queue(queue, prev) ? nullptr : prev;
    OMSDK_QUEUE_DROP_DEPTH(queue, "remqueue");
    return element;
}

OMSDK_API int32_t insqueue(queue_rec *queue, void *element, void *prev) {
    if (prev == nullptr) return requeue_inline(queue, element);
    if (queue == nullptr || element == nullptr || link_of(element) != nullptr ||
        element == queue->tail) {
        OM_ERROR("%s %p (%p)", "insqueue", element, prev);
        return 0;
    }
    set_link(element, link_of(prev));
    set_link(prev, element);
    if (link_of(element) == nullptr) queue->tail = element;
    ++queue->depth;
    return 1;
}

OMSDK_API uint8_t queue_insert_comp(queue_rec *queue, void *element, queue_compare_fn compare) {
    if (queue == nullptr || element == nullptr || compare == nullptr) {
        OM_ERROR("%s %p (%p)", "queue_insert_comp", element, static_cast<void *>(queue));
        return 0;
    }
    void *prev = queue;
    void *cur = queue->head;
    while (cur != nullptr) {
        int32_t r = compare(cur, element);
        if (r != 0 && r != 1) break;
        prev = cur;
        cur = link_of(cur);
    }
    // Before cur, or after the last element (the queue's head slot when empty).
    set_link(element, cur);
    set_link(prev, element);
    if (cur == nullptr) queue->tail = element;
    ++queue->depth;
    return 1;
}

OMSDK_API int32_t validqueue(queue_rec *queue, int32_t report) {
    if (queue == nullptr) {
        if (report != 0)
            OM_ERROR("%s %p (%p)", "validqueue", static_cast<void *>(nullptr),
                     static_cast<void *>(queue));
        return 0;
    }
    void *stop = queue->head;
    bool valid = queue->depth >= 0 && !(queue->size > 0 && queue->depth > queue->size);
    if (valid) {
        // Never walk past depth elements, so a looped list still ends.
        int32_t n = 0;
        void *cur = queue->head;
        while (cur != nullptr && n < queue->depth) {
            ++n;
            cur = link_of(cur);
        }
        valid = cur == nullptr && n == queue->depth;
        stop = cur;
    }
    if (!valid && report != 0)
        OM_ERROR("%s %p (%p)", "validqueue", stop, static_cast<void *>(queue));
    return valid ? 1 : 0;
}
