// SPDX-License-Identifier: Apache-2.0
// The list of live sessions: one lock for the whole process, held only for
// a look-up or a count, never while a call does its work.
#include "session/live.h"

#include <pthread.h>

#include "util/mutex_guard.h"

namespace omsdk {

namespace {

pthread_mutex_t g_lock = PTHREAD_MUTEX_INITIALIZER;
pthread_cond_t g_left = PTHREAD_COND_INITIALIZER;  // a caller left some session
svc_session *g_head = nullptr;

// The link that points at `s`, or null. Under g_lock.
svc_session **link_to(svc_session *s) {
    for (svc_session **p = &g_head; *p != nullptr; p = &(*p)->live_next)
        if (*p == s) return p;
    return nullptr;
}

}  // namespace

void live_add(svc_session *s) {
    MutexGuard guard(&g_lock);
    if (link_to(s) != nullptr) return;
    s->live_next = g_head;
    g_head = s;
}

bool live_enter(svc_session *s) {
    MutexGuard guard(&g_lock);
    if (s == nullptr || link_to(s) == nullptr) return false;
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
    svc_session **link = link_to(s);
    if (link == nullptr) return;
    while (s->api_callers > 0) pthread_cond_wait(&g_left, &g_lock);
    // Other sessions may have come or gone while we waited: look again.
    link = link_to(s);
    if (link == nullptr) return;
    *link = s->live_next;
    s->live_next = nullptr;
}

}  // namespace omsdk
