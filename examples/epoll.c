/* SPDX-License-Identifier: Apache-2.0 */
/* epoll.c: two lamps in one thread, without threads of the library's own.
 * Each session is driven by turns from an epoll loop; one set of callbacks
 * serves both, told apart by the context pointer. After the given number of
 * seconds (default 3) both are shut down from this same thread.
 * Usage: epoll [seconds [discovery-port]] */
#define _POSIX_C_SOURCE 200809L
#include <omsdk.h>

#include <poll.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/epoll.h>
#include <time.h>
#include <unistd.h>

/* One device behind each session. */
struct lamp {
    const char *name;
    uint8_t level;
    uint32_t sequence;
    svc_session *session; /* NULL once closed */
};

static struct lamp *lamp_of(void *ctx) { return (struct lamp *)ctx; }
static uint8_t get_units(void *ctx) { return (void)ctx, 0; }
static uint16_t get_usage(void *ctx) { return (uint16_t)(4 + 6 * lamp_of(ctx)->level); }
static uint32_t get_usage_caliber(void *ctx) { return (void)ctx, 0; }
static uint32_t get_usage_category(void *ctx) { return (void)ctx, 1; }
static uint8_t get_level(void *ctx) { return lamp_of(ctx)->level; }
static int32_t set_level(void *ctx, uint8_t level) {
    if (level > 10) return -1;
    lamp_of(ctx)->level = level;
    return 0;
}
static void get_usage_vector(void *ctx, uint16_t v[11]) { (void)ctx, memset(v, 0, 22); }
static void get_delta_vector(void *ctx, int32_t v[11]) { (void)ctx, memset(v, 0, 44); }
static uint32_t next_sequence(void *ctx) { return ++lamp_of(ctx)->sequence; }
static void status_changed(void *ctx, int32_t status) {
    printf("%s status %d\n", lamp_of(ctx)->name, (int)status);
}

static const ohmara_svc_ctx_registry registry = {
    get_units,
    get_usage,
    get_usage_caliber,
    get_usage_category,
    get_level,
    set_level,
    get_usage_vector,
    get_delta_vector,
    next_sequence,
    NULL,
    NULL,
    status_changed,
    NULL,
};

static double now_s(void) {
    struct timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return (double)ts.tv_sec + (double)ts.tv_nsec / 1e9;
}

int main(int argc, char **argv) {
    const double seconds = argc > 1 ? atof(argv[1]) : 3.0;
    const uint16_t port = (uint16_t)(argc > 2 ? atoi(argv[2]) : 47810);
    struct lamp lamps[2] = {{"lamp-1", 5, 0, NULL}, {"lamp-2", 8, 0, NULL}};
    const int n = 2;
    int running = 0, stopping = 0;
    const double end = now_s() + seconds;
    int ep = epoll_create1(0);
    if (ep < 0) return 1;

    for (int i = 0; i < n; ++i) {
        char id[33] = {0};
        ohmara_utl_senderId(id, NULL);
        lamps[i].session = ohmara_svc_create("127.0.0.1", port, id, NULL, 0, 0);
        if (lamps[i].session == NULL) return 1;
        printf("\n"); /* creation prints unterminated lines of its own */
        if (ohmara_svc_configIdentity(lamps[i].session, "demo", lamps[i].name, "light", "lamp",
                                      "example lamp", 50) != 0 ||
            ohmara_svc_configRegistryWithContext(lamps[i].session, &registry, &lamps[i]) != 0 ||
            ohmara_svc_open(lamps[i].session) != 0)
            return 1;
        ++running;
    }

    while (running > 0) {
        /* What each session waits for now. The set changes between turns;
         * for brevity it is registered afresh each round. */
        struct ohmara_wait waits[2];
        int timeout = 1000;
        for (int i = 0; i < n; ++i) {
            if (lamps[i].session == NULL) continue;
            ohmara_svc_getWait(lamps[i].session, &waits[i]);
            for (int k = 0; k < waits[i].count; ++k) {
                struct epoll_event ev;
                ev.events = (uint32_t)(waits[i].events[k] & POLLIN ? EPOLLIN : 0);
                ev.data.ptr = &lamps[i];
                epoll_ctl(ep, EPOLL_CTL_ADD, waits[i].fds[k], &ev);
            }
            if (waits[i].timeout_ms < timeout) timeout = waits[i].timeout_ms;
        }
        struct epoll_event ready[16];
        (void)epoll_wait(ep, ready, 16, timeout);
        for (int i = 0; i < n; ++i) {
            if (lamps[i].session == NULL) continue;
            for (int k = 0; k < waits[i].count; ++k)
                epoll_ctl(ep, EPOLL_CTL_DEL, waits[i].fds[k], NULL);
            /* A turn does what is ready and what is due, never blocking:
             * calling it for every lamp each round is simple and cheap. */
            if (ohmara_svc_turn(lamps[i].session) == 0) {
                ohmara_svc_close(lamps[i].session); /* frees it */
                lamps[i].session = NULL;
                --running;
            }
        }
        if (!stopping && now_s() >= end) {
            stopping = 1;
            for (int i = 0; i < n; ++i)
                if (lamps[i].session != NULL) ohmara_svc_shutdown(lamps[i].session);
        }
    }
    close(ep);
    printf("done\n");
    return 0;
}
