/* SPDX-License-Identifier: Apache-2.0 */
/* libuv.c: a lamp in a libuv loop. The session's descriptors change between
 * turns (connections come and go), so they are kept in an epoll set of our
 * own, which libuv watches as one stable descriptor; a timer covers the
 * session's time-out. After the given number of seconds (default 3) the
 * lamp is shut down from the loop.
 * Usage: libuv [seconds [discovery-port]] */
#define _POSIX_C_SOURCE 200809L
#include <omsdk.h>

#include <poll.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/epoll.h>
#include <unistd.h>
#include <uv.h>

struct lamp {
    uint8_t level;
    uint32_t sequence;
    svc_session *session; /* NULL once closed */
    int epfd;             /* the session's descriptors, as libuv sees them */
    struct ohmara_wait wait;
    uv_poll_t watch;
    uv_timer_t timer, stop;
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
    (void)ctx;
    printf("status %d\n", (int)status);
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

static void on_ready(uv_poll_t *watch, int status, int events);
static void on_timer(uv_timer_t *timer);

/* One turn, then what the next waits for. */
static void round_of(struct lamp *l) {
    for (int k = 0; k < l->wait.count; ++k) epoll_ctl(l->epfd, EPOLL_CTL_DEL, l->wait.fds[k], NULL);
    if (ohmara_svc_turn(l->session) == 0) {
        ohmara_svc_close(l->session); /* frees it */
        l->session = NULL;
        uv_poll_stop(&l->watch);
        uv_timer_stop(&l->timer);
        uv_close((uv_handle_t *)&l->watch, NULL);
        uv_close((uv_handle_t *)&l->timer, NULL);
        return;
    }
    ohmara_svc_getWait(l->session, &l->wait);
    for (int k = 0; k < l->wait.count; ++k) {
        struct epoll_event ev;
        ev.events = (uint32_t)(l->wait.events[k] & POLLIN ? EPOLLIN : 0);
        ev.data.fd = l->wait.fds[k];
        epoll_ctl(l->epfd, EPOLL_CTL_ADD, l->wait.fds[k], &ev);
    }
    uv_timer_start(&l->timer, on_timer, (uint64_t)l->wait.timeout_ms, 0);
}

static void on_ready(uv_poll_t *watch, int status, int events) {
    (void)status, (void)events;
    round_of((struct lamp *)watch->data);
}
static void on_timer(uv_timer_t *timer) { round_of((struct lamp *)timer->data); }
static void on_stop(uv_timer_t *stop) {
    struct lamp *l = (struct lamp *)stop->data;
    if (l->session != NULL) ohmara_svc_shutdown(l->session);
    uv_close((uv_handle_t *)stop, NULL);
}

int main(int argc, char **argv) {
    const double seconds = argc > 1 ? atof(argv[1]) : 3.0;
    const uint16_t port = (uint16_t)(argc > 2 ? atoi(argv[2]) : 47810);
    struct lamp l;
    char id[33] = {0};
    uv_loop_t *loop = uv_default_loop();
    memset(&l, 0, sizeof l);
    l.level = 5;
    ohmara_utl_senderId(id, NULL);
    l.session = ohmara_svc_create("127.0.0.1", port, id, NULL, 0, 0);
    if (l.session == NULL) return 1;
    printf("\n"); /* creation prints unterminated lines of its own */
    if (ohmara_svc_configIdentity(l.session, "demo", "uv-lamp", "light", "lamp", "example lamp",
                                  50) != 0 ||
        ohmara_svc_configRegistryWithContext(l.session, &registry, &l) != 0 ||
        ohmara_svc_open(l.session) != 0)
        return 1;
    l.epfd = epoll_create1(0);
    if (l.epfd < 0) return 1;
    uv_poll_init(loop, &l.watch, l.epfd);
    uv_timer_init(loop, &l.timer);
    uv_timer_init(loop, &l.stop);
    l.watch.data = l.timer.data = l.stop.data = &l;
    uv_poll_start(&l.watch, UV_READABLE, on_ready);
    uv_timer_start(&l.stop, on_stop, (uint64_t)(seconds * 1000), 0);
    round_of(&l); /* the first turn sends the first discovery */
    uv_run(loop, UV_RUN_DEFAULT);
    close(l.epfd);
    uv_loop_close(loop);
    printf("done\n");
    return 0;
}
