/* SPDX-License-Identifier: Apache-2.0 */
/* minimal.c: the smallest endpoint. It joins domain "demo" on the loopback
 * address, runs its service loop on a thread for three seconds (announcing
 * itself to any switch that listens), then shuts down from the main thread. */
#define _POSIX_C_SOURCE 200809L
#include <omsdk.h>

#include <pthread.h>
#include <stdio.h>
#include <string.h>
#include <unistd.h>

/* The device: a lamp whose level the switch may change. Only the loop's
 * thread calls these. */
static uint8_t level = 5;

static uint8_t get_units(void) { return 0; }
static uint16_t get_usage(void) { return (uint16_t)(4 + 6 * level); }
static uint32_t get_usage_caliber(void) { return 0; }
static uint32_t get_usage_category(void) { return 1; }
static uint8_t get_level(void) { return level; }
static int32_t set_level(uint8_t l) {
    if (l > 10) return -1;
    level = l;
    return 0;
}
static void get_usage_vector(uint16_t v[11]) { memset(v, 0, 11 * sizeof v[0]); }
static void get_delta_vector(int32_t v[11]) { memset(v, 0, 11 * sizeof v[0]); }
static uint32_t next_sequence(void) {
    static uint32_t n;
    return ++n;
}
static void status_changed(int32_t status) { printf("status %d\n", (int)status); }

static svc_callback_registry registry; /* must outlive the session */

static void *run(void *session) {
    ohmara_svc_startup(session); /* runs the loop; frees the session at the end */
    return NULL;
}

int main(void) {
    char id[33] = {0}; /* 32 hexadecimal digits and a terminator */
    svc_session *session;
    pthread_t loop;

    /* 1. An identifier: random here; pass a 6-byte MAC to derive it. */
    ohmara_utl_senderId(id, NULL);

    /* 2. A session: local address, UDP protocol port (0 would mean the
     *    default, 43440), identifier, shared key (none: the identifier
     *    serves as key), TCP listener port (0: any free one). */
    session = ohmara_svc_create("127.0.0.1", 47810, id, NULL, 0, 0);
    if (session == NULL) return 1;
    printf("\n"); /* creation prints unterminated lines of its own */

    /* 3. Who the device is: domain, name, role, keywords, type, importance. */
    if (ohmara_svc_configIdentity(session, "demo", "minimal-1", "light", "lamp,demo",
                                  "example lamp", 50) != 0)
        return 1;

    /* 4. The callbacks: the first nine are required. */
    registry.get_units = get_units;
    registry.get_usage = get_usage;
    registry.get_usage_caliber = get_usage_caliber;
    registry.get_usage_category = get_usage_category;
    registry.get_level = get_level;
    registry.set_level = set_level;
    registry.get_usage_vector = get_usage_vector;
    registry.get_delta_vector = get_delta_vector;
    registry.next_sequence = next_sequence;
    registry.status_changed = status_changed; /* 1 UP, 3 ACTIVE, 4 SHUTDOWN, 0 DOWN */
    if (ohmara_svc_configRegistry(session, &registry) != 0) return 1;

    /* 5. Lend the library a thread. */
    if (pthread_create(&loop, NULL, run, session) != 0) return 1;

    /* The application goes about its work here. */
    sleep(3);

    /* 6. Stop from another thread than the loop's, then wait for the loop:
     *    the session is freed when ohmara_svc_startup returns. */
    ohmara_svc_shutdown(session);
    pthread_join(loop, NULL);
    printf("done\n");
    return 0;
}
