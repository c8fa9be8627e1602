/*
 * session_demo: creates an endpoint session on the loopback address,
 * hands it a table of callbacks, shows its status and the library version,
 * and frees it again. Log lines go to standard error at DEBUG level.
 */
#include <omsdk.h>

#include <stdio.h>
#include <string.h>

/* Tears down a session that was never started (a started session is freed
 * by ohmara_svc_startup when its loop ends). */
extern int32_t omr_svc_cleanup(svc_session *session);

static uint8_t demo_level = 50;

static uint8_t get_units(void) { return 1; }
static uint16_t get_usage(void) { return 120; }
static uint32_t get_usage_caliber(void) { return 0; }
static uint32_t get_usage_category(void) { return 0; }
static uint8_t get_level(void) { return demo_level; }
static int32_t set_level(uint8_t level) { demo_level = level; return 0; }
static void get_usage_vector(uint16_t vector[11]) { memset(vector, 0, 11 * sizeof vector[0]); }
static void get_delta_vector(int32_t vector[11]) { memset(vector, 0, 11 * sizeof vector[0]); }
static uint32_t next_sequence(void) { static uint32_t n; return ++n; }
static void attribute_modified(int32_t attribute) { printf("attribute %d modified\n", (int)attribute); }
static void listen_port_notify(uint16_t port) { printf("listening on port %u\n", (unsigned)port); }
static void status_changed(int32_t status) { printf("status is now %d\n", (int)status); }

static const char *status_name(int32_t status) {
    static const char *const names[] = {"DOWN", "UP", "INITIALIZING", "ACTIVE", "SHUTDOWN"};
    return status >= 0 && status <= 4 ? names[status] : "?";
}

int main(void) {
    /* The callback table must outlive the session. */
    static svc_callback_registry registry;
    /* Normally made by ohmara_utl_senderId; a fixed one keeps the demo simple. */
    const char sender_id[] = "0123456789abcdef0123456789abcdef";
    const uint16_t protocol_port = 43450; /* not the default 43440 */
    svc_session *session;
    int32_t status;

    setLogFile(stderr);
    setLogLevel(OHMARA_LOG_DEBUG);

    printf("library version %s\n", ohmara_utl_getVersion());

    session = ohmara_svc_create("127.0.0.1", protocol_port, sender_id, NULL, 0, 0);
    if (session == NULL) {
        fprintf(stderr, "could not create the session\n");
        return 1;
    }
    printf("\n"); /* creation prints key-context lines without a newline */

    registry.get_units = get_units;
    registry.get_usage = get_usage;
    registry.get_usage_caliber = get_usage_caliber;
    registry.get_usage_category = get_usage_category;
    registry.get_level = get_level;
    registry.set_level = set_level;
    registry.get_usage_vector = get_usage_vector;
    registry.get_delta_vector = get_delta_vector;
    registry.next_sequence = next_sequence;
    registry.attribute_modified = attribute_modified;
    registry.listen_port_notify = listen_port_notify;
    registry.status_changed = status_changed;
    if (ohmara_svc_configRegistry(session, &registry) != 0) {
        fprintf(stderr, "the callback table was refused\n");
        omr_svc_cleanup(session);
        return 1;
    }

    status = ohmara_svc_getStatus(session);
    printf("session status %d (%s)\n", (int)status, status_name(status));

    omr_svc_cleanup(session);
    printf("session freed\n");
    return 0;
}
