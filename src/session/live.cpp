// SPDX-License-Identifier: Apache-2.0
// The set of live sessions: one lock for the whole process, held only for
// a look-up or a count, never while a call does its work. The set is hashed
// by address, so that a look-up costs the same with ten thousand sessions in
// the process (a fleet) as with one.
#include "session/live.h"

#include <pthread.h>
#include <stdint.h>
#include <stdlib.h>

#include "util/mutex_guard.h"

namespace omsdk {

namespace {

pthread_mutex_t g_lock = PTHREAD_MUTEX_INITIALIZER;
pthread_cond_t g_left = PTHREAD_COND_INITIALIZER;  // a caller left some session

// Open addressing with linear probing: a power-of-two number of slots, at
// most half of them used, null for free. All under g_lock.
svc_session **g_slots = nullptr;
size_t g_capacity = 0;
size_t g_count = 0;
constexpr size_t kFirstCapacity = 16;

size_t home(const svc_session *s, size_t capacity) {
    uint64_t h = static_cast<uint64_t>(reinterpret_cast<uintptr_t>(s));
    h ^= h >> 29;
    h *= 0x9e3779b97f4a7c15ULL;  // spreads the aligned low bits
    return static_cast<size_t>(h >> 32) & (capacity - 1);
}

// The slot holding `s`, or g_capacity when it is not live.
size_t find(const svc_session *s) {
    if (s == nullptr || g_count == 0) return g_capacity;
    const size_t mask = g_capacity - 1;
    for (size_t i = home(s, g_capacity);; i = (i + 1) & mask) {
        if (g_slots[i] == s) return i;
        if (g_slots[i] == nullptr) return g_capacity;
    }
}

void place(svc_session **slots, size_t capacity, svc_session *s) {
    size_t i = home(s, capacity);
    while (slots[i] != nullptr) i = (i + 1) & (capacity - 1);
    slots[i] = s;
}

bool grow() {
    const size_t capacity = g_capacity == 0 ? kFirstCapacity : g_capacity * 2;
    auto **slots = static_cast<svc_session **>(calloc(capacity, sizeof(svc_session *)));
    if (slots == nullptr) return false;
    for (size_t i = 0; i < g_capacity; ++i)
        if (g_slots[i] != nullptr) place(slots, capacity, g_slots[i]);
    free(g_slots);
    g_slots = slots;
    g_capacity = capacity;
    return true;
}

// Empties slot `i` and moves later members of its probe run back, so that
// no look-up stops early at the hole.
void erase(size_t i) {
    const size_t mask = g_capacity - 1;
    g_slots[i] = nullptr;
    for (size_t j = (i + 1) & mask; g_slots[j] != nullptr; j = (j + 1) & mask) {
        const size_t h = home(g_slots[j], g_capacity);
        if (((j - h) & mask) >= ((j - i) & mask)) {  // i lies on j's run from h
            g_slots[i] = g_slots[j];
            g_slots[j] = nullptr;
            i = j;
        }
    }
    if (--g_count == 0) {
        free(g_slots);
        g_slots = nullptr;
        g_capacity = 0;
    }
}

}  // namespace

bool live_add(svc_session *s) {
    MutexGuard guard(&g_lock);
    if (find(s) != g_capacity) return true;
    if ((g_count + 1) * 2 > g_capacity && !grow()) return false;
    place(g_slots, g_capacity, s);
    ++g_count;
    return true;
}

bool live_enter(svc_session *s) {
    MutexGuard guard(&g_lock);
    if (find(s) == g_capacity) return false;
    ++s->api_callers;
    return true;
}

void live_leave(svc_session *s) {
    MutexGuard guard(&g_lock);
    --s->api_callers;
    pthread_cond_broadcast(&g_left);
}

void live_remove(svc_session *s) {
    MutexGuard guard(&g_lock);
    if (find(s) == g_capacity) return;
    while (s->api_callers > 0) pthread_cond_wait(&g_left, &g_lock);
    // Other sessions may have come or gone while we waited: look again.
    const size_t i = find(s);
    if (i != g_capacity) erase(i);
}

}  // namespace omsdk
