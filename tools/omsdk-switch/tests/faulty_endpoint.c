/* SPDX-License-Identifier: Apache-2.0 */
/* A lamp on the library whose application misbehaves on purpose, for the
 * conformance suite's own tests: each --fault breaks one rule through the
 * callbacks or the configuration, and the suite must fail exactly the cases
 * that rule covers.
 *
 *   faulty_endpoint --port P --key K [--interval S] --fault NAME
 *   none                 behaves (with --interval S: an update every S s)
 *   accept-out-of-range  takes any level, 11 and above too
 *   wrong-readback       reports the level it was set to plus one (10: 0)
 *   stuck-sequence       every discovery carries sequence number 7
 *   slow-interval        repeats its update every 2*S s, not S
 *
 * Binds 127.0.0.1; SIGTERM shuts it down cleanly; it ends by itself after
 * 120 s. */
#define _POSIX_C_SOURCE 200809L

#include <omsdk.h>

#include <pthread.h>
#include <signal.h>
#include <stdatomic.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>

static atomic_int g_level = 10;
static const char *g_fault = "none";
static uint32_t g_seq;

static int fault(const char *name) { return strcmp(g_fault, name) == 0; }

static uint8_t get_units(void) { return 0; }
static uint16_t get_usage(void) { return (uint16_t)(4 + 6 * atomic_load(&g_level)); }
static uint32_t get_caliber(void) { return (uint32_t)-1; }
static uint32_t get_category(void) { return 1; }
static uint8_t get_level(void) {
    const int level = atomic_load(&g_level);
    return (uint8_t)(fault("wrong-readback") ? (level + 1) % 11 : level);
}
static int32_t set_level(uint8_t level) {
    if (level > 10 && !fault("accept-out-of-range")) return -1;
    atomic_store(&g_level, level);
    return 0;
}
static void usage_vector(uint16_t v[11]) {
    for (int i = 0; i < 11; ++i) v[i] = (uint16_t)(4 + 6 * i);
}
static void delta_vector(int32_t v[11]) {
    for (int i = 0; i < 11; ++i) v[i] = 6 * (i - atomic_load(&g_level));
}
static uint32_t next_sequence(void) { return fault("stuck-sequence") ? 7u : ++g_seq; }
static void modified(int32_t attribute) { (void)attribute; }
static void listen_port(uint16_t port) { (void)port; }
static atomic_int g_shut;
static void status_changed(int32_t status) {
    if (status == OHMARA_STATUS_SHUTDOWN) atomic_store(&g_shut, 1);
}
static void alarm_reply(int32_t id, uint32_t type, int32_t ok) { (void)id, (void)type, (void)ok; }

static svc_callback_registry g_registry = {get_units,     get_usage, get_caliber,  get_category,
                                           get_level,     set_level, usage_vector, delta_vector,
                                           next_sequence, modified,  listen_port,  status_changed,
                                           alarm_reply};

static void *loop(void *s) {
    ohmara_svc_startup((svc_session *)s);
    return NULL;
}

int main(int argc, char **argv) {
    const char *key = NULL;
    long port = 0, interval = 0;
    for (int i = 1; i + 1 < argc; i += 2) {
        if (strcmp(argv[i], "--port") == 0)
            port = strtol(argv[i + 1], NULL, 10);
        else if (strcmp(argv[i], "--key") == 0)
            key = argv[i + 1];
        else if (strcmp(argv[i], "--interval") == 0)
            interval = strtol(argv[i + 1], NULL, 10);
        else if (strcmp(argv[i], "--fault") == 0)
            g_fault = argv[i + 1];
    }
    if (port <= 0 || port > 65535 || port == 43440 || key == NULL) {
        fprintf(stderr, "usage: faulty_endpoint --port P --key K [--interval S] --fault NAME\n");
        return 2;
    }
    setLogLevel(OHMARA_LOG_FATAL);
    sigset_t stop;
    sigemptyset(&stop);
    sigaddset(&stop, SIGTERM);
    sigaddset(&stop, SIGINT);
    pthread_sigmask(SIG_BLOCK, &stop, NULL); /* the loop's thread inherits it */

    char id[33] = {0};
    ohmara_utl_senderId(id, NULL);
    svc_session *s = ohmara_svc_create("127.0.0.1", (uint16_t)port, id, (const uint8_t *)key,
                                       (int32_t)strlen(key), 0);
    if (s == NULL ||
        ohmara_svc_configIdentity(s, "lab", "faulty-1", "light", "lamp,test", "lamp", 50) != 0 ||
        ohmara_svc_configRegistry(s, &g_registry) != 0)
        return 1;
    if (interval > 0)
        ohmara_svc_setDiscoveryInterval(
            s, (int32_t)(fault("slow-interval") ? 2 * interval : interval));
    pthread_t t;
    if (pthread_create(&t, NULL, loop, s) != 0) return 1;
    const struct timespec limit = {120, 0};
    sigtimedwait(&stop, NULL, &limit);
    /* Refused until the loop is UP; once SHUTDOWN the loop frees the session. */
    for (int i = 0; i < 50 && !atomic_load(&g_shut); ++i) {
        ohmara_svc_shutdown(s);
        const struct timespec pause = {0, 100000000};
        nanosleep(&pause, NULL);
    }
    pthread_join(t, NULL);
    return 0;
}
