/* SPDX-License-Identifier: Apache-2.0 */
/**
 * @file omsdk/queue.h
 * @brief An intrusive singly linked FIFO queue.
 *
 * The elements carry the link: any record whose first field is a pointer to
 * the next element (null for the last one and for an element in no queue).
 * The queue never allocates, takes no lock, and refuses (logging at ERROR) an
 * operation that would corrupt it. An element may be in at most one queue at
 * a time.
 *
 * Ownership: the caller owns the queue record and every element; the queue
 * only links them, and removing an element hands it back unlinked (its link
 * set to null). Threads: none of these calls locks, so one thread at a time
 * uses a queue (the caller serialises). A queue needs queue_init() (or an
 * all-zero record) before use.
 *
 * The names carry no prefix: a program that defines an enqueue() or
 * dequeue() of its own replaces the library's for every caller, the
 * library's own calls included (see omsdk.h).
 */
#ifndef OMSDK_QUEUE_H
#define OMSDK_QUEUE_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/** A queue: its ends, its depth and its limit. */
typedef struct queue_rec {
    void *head;    /**< first element, null when empty */
    void *tail;    /**< last element, null when empty */
    int32_t depth; /**< number of elements */
    int32_t size;  /**< limit checked only by validqueue; 0 = unlimited */
} queue_rec;

/** Orders queue_insert_comp(): called as compare(current, element); the walk
 * passes current while the result is 0 or 1 and inserts before the first
 * element for which it is anything else. */
typedef int32_t (*queue_compare_fn)(void *current, void *element);

/**
 * @name Setting up and looking
 * Nothing here logs.
 * @{
 */

/** Empties the record and sets its limit @p size (0 = unlimited; the limit is
 *  checked only by validqueue(), never when adding). Returns 1; 0 if queue is
 *  null or size < 0. Elements still linked are not touched. */
int32_t queue_init(queue_rec *queue, int32_t size);
/** The number of elements; 0 for a null queue. */
int32_t queryqueuedepth(queue_rec *queue);
/** The limit given to queue_init(); 0 for a null queue. */
int32_t queryqueuesize(queue_rec *queue);
/** The first element, left in the queue; null when empty or for a null queue. */
void *peekqueuehead(queue_rec *queue);
/** The last element, left in the queue; null when empty or for a null queue. */
void *peekqueuetail(queue_rec *queue);
/** 1 if element is in the queue, else 0 (also for a null queue or element). */
int32_t checkqueue(queue_rec *queue, void *element);

/** @} */

/**
 * @name Adding
 * A refused element is logged at ERROR and left as it was.
 * @{
 */

/** Appends @p element at the tail: 1, or 0 when the queue or element is null,
 *  the element is linked or already the tail. The queue does not take
 *  ownership. */
int32_t enqueue(queue_rec *queue, void *element);
/** The same as enqueue(). */
int32_t m_enqueue(queue_rec *queue, void *element);
/** Pushes @p element at the head: 1, or 0 when the queue or element is null,
 *  the element is linked or already the tail. */
int32_t requeue(queue_rec *queue, void *element);
/** The same as requeue(). */
int32_t m_requeue(queue_rec *queue, void *element);

/** @} */

/**
 * @name Removing
 * A removed element is handed back to the caller with its link set to null.
 * @{
 */

/** Removes and returns the head element, or null when empty or for a null
 *  queue. Logs at ERROR a tail that did not match (and repairs it). */
void *dequeue(queue_rec *queue);
/** The same as dequeue(). */
void *m_dequeue(queue_rec *queue);
/** Removes @p element wherever it is: 1, or 0 (logged at ERROR) when it is not
 *  in the queue. unqueue's result is a single byte (unsigned char); m_unqueue's
 *  is a full 32-bit value. */
uint8_t unqueue(queue_rec *queue, void *element);
/** The same as unqueue(), with a 32-bit result. */
int32_t m_unqueue(queue_rec *queue, void *element);
/** Removes the element after @p prev (prev may be the queue itself, meaning its
 *  head); 1, also when there is none; 0 (logged at ERROR) for a null queue or
 *  prev. The removed element is not returned: take it with
 *  `*(void **)prev` before the call. */
int32_t unqueuenext(queue_rec *queue, void *prev);
/** Removes @p element, whose predecessor is @p prev (null for the head); returns
 *  element, or null (logged at ERROR) when prev's next is not element. */
void *remqueue(queue_rec *queue, void *element, void *prev);

/** @} */

/**
 * @name Inserting
 * @{
 */

/** Inserts @p element after @p prev (null = at the head): 1, or 0 (logged at
 *  ERROR) when the queue or element is null, the element is linked or
 *  already the tail. @p prev must be in the queue; that is not checked. */
int32_t insqueue(queue_rec *queue, void *element, void *prev);
/** Inserts @p element in the order given by @p compare (see queue_compare_fn);
 *  the element's own link is not checked. The result (1) is a single byte
 *  (unsigned char); 0 (logged at ERROR) for a null queue, element or
 *  compare. @p compare runs on the calling thread, once per element passed. */
uint8_t queue_insert_comp(queue_rec *queue, void *element, queue_compare_fn compare);

/** @} */

/**
 * @name Checking
 * @{
 */

/** 1 when depth >= 0, depth <= size (size > 0), and the list holds exactly
 *  depth elements (a looped list ends the walk after depth elements); else 0,
 *  logged at ERROR when report is non-zero. */
int32_t validqueue(queue_rec *queue, int32_t report);

/** @} */

#ifdef __cplusplus
}
#endif

#endif /* OMSDK_QUEUE_H */
