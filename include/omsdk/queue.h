/* SPDX-License-Identifier: Apache-2.0 */
/* An intrusive singly linked FIFO queue. The elements carry the link: any
 * record whose first field is a pointer to the next element (null for the
 * last one and for an element in no queue). The queue never allocates, takes
 * no lock, and refuses (logging at ERROR) an operation that would corrupt it.
 * An element may be in at most one queue at a time. */
#ifndef OMSDK_QUEUE_H
#define OMSDK_QUEUE_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

typedef struct queue_rec {
    void *head;    /* first element, null when empty */
    void *tail;    /* last element, null when empty */
    int32_t depth; /* number of elements */
    int32_t size;  /* limit checked only by validqueue; 0 = unlimited */
} queue_rec;

/* Orders queue_insert_comp: called as compare(current, element); the walk
 * passes current while the result is 0 or 1 and inserts before the first
 * element for which it is anything else. */
typedef int32_t (*queue_compare_fn)(void *current, void *element);

/* 1; 0 if queue is null or size < 0. */
int32_t queue_init(queue_rec *queue, int32_t size);
int32_t queryqueuedepth(queue_rec *queue);
int32_t queryqueuesize(queue_rec *queue);
void *peekqueuehead(queue_rec *queue);
void *peekqueuetail(queue_rec *queue);
/* 1 if element is in the queue, else 0. */
int32_t checkqueue(queue_rec *queue, void *element);

/* Append at the tail: 1, or 0 when element is linked or already the tail. */
int32_t enqueue(queue_rec *queue, void *element);
int32_t m_enqueue(queue_rec *queue, void *element);
/* Push at the head: 1, or 0 when element is linked or already the tail. */
int32_t requeue(queue_rec *queue, void *element);
int32_t m_requeue(queue_rec *queue, void *element);
/* Remove and return the head element, or null when empty. */
void *dequeue(queue_rec *queue);
void *m_dequeue(queue_rec *queue);
/* Remove element wherever it is: 1, or 0 when it is not in the queue.
 * unqueue's result is a single byte (unsigned char); m_unqueue's is a full
 * 32-bit value. */
uint8_t unqueue(queue_rec *queue, void *element);
int32_t m_unqueue(queue_rec *queue, void *element);
/* Remove the element after prev (prev may be the queue itself, meaning its
 * head); 1, also when there is none. */
int32_t unqueuenext(queue_rec *queue, void *prev);
/* Remove element, whose predecessor is prev (null for the head); returns
 * element, or null when prev's next is not element. */
void *remqueue(queue_rec *queue, void *element, void *prev);
/* Insert element after prev (null = at the head): 1, or 0 when element is
 * linked or already the tail. */
int32_t insqueue(queue_rec *queue, void *element, void *prev);
/* Insert element in the order given by compare (see queue_compare_fn); the
 * element's own link is not checked. The result (1) is a single byte
 * (unsigned char). */
uint8_t queue_insert_comp(queue_rec *queue, void *element, queue_compare_fn compare);
/* 1 when depth >= 0, depth <= size (size > 0), and the list holds exactly
 * depth elements; else 0, logged when report is non-zero. */
int32_t validqueue(queue_rec *queue, int32_t report);

#ifdef __cplusplus
}
#endif

#endif /* OMSDK_QUEUE_H */
