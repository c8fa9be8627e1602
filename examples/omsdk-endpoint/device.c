/* SPDX-License-Identifier: Apache-2.0 */
/* The lamp as the library sees it: its callbacks and the state behind them,
 * apart from the program's main() so that a test links them as they are. */
#include "device.h"

#include <stdatomic.h>
#include <stdint.h>
#include <stdio.h>

#include "lamp.h"

static svc_session *g_session;
static FILE *g_out; /* the readable lines */
static void (*g_on_active)(void);
static atomic_int g_level = LAMP_LEVEL_MAX;
static atomic_int g_shutdown_seen;
static uint32_t g_sequence; /* used by the loop thread only */

static uint8_t cb_get_units(void) { return 0; } /* watts, scale 10^0 */
static uint16_t cb_get_usage(void) { return lamp_usage_at((uint8_t)atomic_load(&g_level)); }
static uint32_t cb_get_usage_caliber(void) {
    return (uint32_t)CV_CORVANE_USAGE_CALIBER_PRESUMED; /* derived from the level */
}
static uint32_t cb_get_usage_category(void) { return (uint32_t)CV_CORVANE_USAGE_CONSUMER; }
static uint8_t cb_get_level(void) { return (uint8_t)atomic_load(&g_level); }
static void cb_get_usage_vector(uint16_t vector[11]) { lamp_usage_vector(vector); }
static void cb_get_delta_vector(int32_t vector[11]) {
    lamp_delta_vector(vector, (uint8_t)atomic_load(&g_level));
}
static uint32_t cb_next_sequence(void) {
    if (++g_sequence == 0) g_sequence = 1; /* 0 means "none" to the library */
    return g_sequence;
}

static int32_t cb_set_level(uint8_t level) {
    if (level > LAMP_LEVEL_MAX) {
        fprintf(g_out, "SET level %u refused: the lamp's range is 0 to %d\n", (unsigned)level,
                LAMP_LEVEL_MAX);
        return -1;
    }
    atomic_store(&g_level, level);
    return 0;
}

/* A copy taken under the session's lock: safe on any thread, unlike the
 * pointer ohmara_svc_getAttribute returns. A text too long for the buffer
 * reads as empty. */
const char *lamp_device_text(int32_t id, char *buf, uint32_t size) {
    uint32_t len = 0;
    if (ohmara_svc_copyAttribute(g_session, id, buf, size, &len) != 0 || len == 0) return "";
    return buf;
}

static void cb_attribute_modified(int32_t attribute) {
    char text[1400]; /* no text outgrows a message */
    uint8_t imp = 0;
    uint32_t len = 0;
    switch (attribute) {
    case OHMARA_ATTR_LEVEL:
        fprintf(g_out, "SET level %d (from switch), usage now %u W\n", atomic_load(&g_level),
                (unsigned)cb_get_usage());
        break;
    case OHMARA_ATTR_NAME:
        fprintf(g_out, "SET name \"%s\" (from switch)\n",
                lamp_device_text(OHMARA_ATTR_NAME, text, sizeof text));
        break;
    case OHMARA_ATTR_ROLE:
        fprintf(g_out, "SET role \"%s\" (from switch)\n",
                lamp_device_text(OHMARA_ATTR_ROLE, text, sizeof text));
        break;
    case OHMARA_ATTR_KEYWORDS:
        fprintf(g_out, "SET keywords \"%s\" (from switch)\n",
                lamp_device_text(OHMARA_ATTR_KEYWORDS, text, sizeof text));
        break;
    case OHMARA_ATTR_IMPORTANCE:
        (void)ohmara_svc_copyAttribute(g_session, OHMARA_ATTR_IMPORTANCE, &imp, 1, &len);
        fprintf(g_out, "SET importance %u (from switch)\n", (unsigned)imp);
        break;
    default: fprintf(g_out, "SET attribute %d (from switch)\n", (int)attribute); break;
    }
}

static void cb_listen_port(uint16_t port) {
    fprintf(g_out, "listening for the switch on TCP port %u\n", (unsigned)port);
}

static const char *status_name(int32_t status) {
    static const char *const names[] = {"DOWN", "UP", "INITIALIZING", "ACTIVE", "SHUTDOWN"};
    return status >= 0 && status <= 4 ? names[status] : "unknown";
}

static void cb_status_changed(int32_t status) {
    fprintf(g_out, "status: %s\n", status_name(status));
    if (status == OHMARA_STATUS_ACTIVE && g_on_active != NULL) g_on_active();
    if (status == OHMARA_STATUS_SHUTDOWN) atomic_store(&g_shutdown_seen, 1);
}

static void cb_alarm_reply(int32_t request_id, uint32_t request_type, int32_t success) {
    const char *what = request_type == 0   ? "alarm"
                       : request_type == 1 ? "alarm clear-all"
                                           : "discovery refresh";
    if (success)
        fprintf(g_out, "%s %d answered: ok\n", what, (int)request_id);
    else
        fprintf(g_out, "%s %d answered: failed (refused or no answer)\n", what, (int)request_id);
}

/* The table must outlive the session. */
static svc_callback_registry g_registry = {
    cb_get_units,     cb_get_usage,          cb_get_usage_caliber, cb_get_usage_category,
    cb_get_level,     cb_set_level,          cb_get_usage_vector,  cb_get_delta_vector,
    cb_next_sequence, cb_attribute_modified, cb_listen_port,       cb_status_changed,
    cb_alarm_reply};

void lamp_device_attach(svc_session *session, FILE *out, void (*on_active)(void)) {
    g_session = session;
    g_out = out;
    g_on_active = on_active;
}

svc_callback_registry *lamp_device_registry(void) { return &g_registry; }
int lamp_device_level(void) { return atomic_load(&g_level); }
int lamp_device_shutdown_seen(void) { return atomic_load(&g_shutdown_seen); }
