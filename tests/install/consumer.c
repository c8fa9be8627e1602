/* A minimal application of the installed library, built as C99. */
#include <omsdk.h>

#include <stdio.h>
#include <string.h>

static uint8_t units(void) { return 1; }
static uint16_t usage(void) { return 100; }
static uint32_t caliber(void) { return 0; }
static uint32_t category(void) { return 0; }
static uint8_t level(void) { return 10; }
static int32_t set_level(uint8_t l) {
    (void)l;
    return 0;
}
static void usage_vector(uint16_t v[11]) { memset(v, 0, 11 * sizeof v[0]); }
static void delta_vector(int32_t v[11]) { memset(v, 0, 11 * sizeof v[0]); }
static uint32_t next_sequence(void) {
    static uint32_t n;
    return ++n;
}

int main(void) {
    static svc_callback_registry registry;
    svc_session *s;
    const char id[] = "00112233445566778899aabbccddeeff";

    setLogLevel(OHMARA_LOG_ERROR);
    printf("version %s\n", ohmara_utl_getVersion());

    registry.get_units = units;
    registry.get_usage = usage;
    registry.get_usage_caliber = caliber;
    registry.get_usage_category = category;
    registry.get_level = level;
    registry.set_level = set_level;
    registry.get_usage_vector = usage_vector;
    registry.get_delta_vector = delta_vector;
    registry.next_sequence = next_sequence;

    /* Protocol port other than the default; nothing is sent. */
    s = ohmara_svc_create("127.0.0.1", 47312, id, NULL, 0, 0);
    if (s == NULL) {
        fprintf(stderr, "create failed\n");
        return 1;
    }
    if (ohmara_svc_configRegistry(s, &registry) != 0) {
        fprintf(stderr, "registry refused\n");
        return 1;
    }
    printf("\nstatus %d\n", (int)ohmara_svc_getStatus(s));
    /* The session is never started; the process ends here. */
    return 0;
}
