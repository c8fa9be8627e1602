/* SPDX-License-Identifier: Apache-2.0 */
/* The demo lamp with an application that misbehaves on purpose, for the
 * conformance suite's own tests: each --fault breaks one rule through the
 * callbacks or the configuration, and the suite must fail exactly the cases
 * that rule covers.
 *
 *   faulty_endpoint --port P --key K [--interval S] --fault NAME
 *   none                 behaves (with --interval S: an update every S s)
 *   accept-out-of-range  takes any level, 11 and above too
 *   ignore-out-of-range  says it took a level above 10, and keeps its own
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

#include "device.h"

static const char *g_fault = "none";
static svc_callback_registry g_registry, g_lamp; /* the demo lamp's, with the faults */
static atomic_int g_beyond = -1;                 /* a level above 10 taken anyway */

static int fault(const char *name) { return strcmp(g_fault, name) == 0; }

static uint8_t get_level(void) {
    const int beyond = atomic_load(&g_beyond);
    const int level = beyond >= 0 ? beyond : g_lamp.get_level();
    return (uint8_t)(fault("wrong-readback") ? (level + 1) % 11 : level);
}
static int32_t set_level(uint8_t level) {
    if (level > 10 && fault("ignore-out-of-range")) return 0;
    atomic_store(&g_beyond, level > 10 && fault("accept-out-of-range") ? level : -1);
    return atomic_load(&g_beyond) >= 0 ? 0 : g_lamp.set_level(level);
}
static uint32_t next_sequence(void) {
    return fault("stuck-sequence") ? 7u : g_lamp.next_sequence();
}

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
    g_lamp = g_registry = *lamp_device_registry();
    g_registry.get_level = get_level;
    g_registry.set_level = set_level;
    g_registry.next_sequence = next_sequence;
    lamp_device_attach(s, stdout, NULL);
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
    for (int i = 0; i < 50 && !lamp_device_shutdown_seen(); ++i) {
        ohmara_svc_shutdown(s);
        const struct timespec pause = {0, 100000000};
        nanosleep(&pause, NULL);
    }
    pthread_join(t, NULL);
    return 0;
}
