/* SPDX-License-Identifier: Apache-2.0 */
/* The smallest complete test of a device's callbacks under the test kit,
 * with no test framework (quoted in full by the README). */
#include <omsdk/testkit.h>

#include <stdio.h>

/* The device under test: levels 0 to 5, 10 W per level. */
static uint8_t level = 2;
static uint32_t sequence;
static uint8_t get_units(void) { return 0; }
static uint16_t get_usage(void) { return (uint16_t)(10 * level); }
static uint32_t get_caliber(void) { return 0; }
static uint32_t get_category(void) { return 1; }
static uint8_t get_level(void) { return level; }
static int32_t set_level(uint8_t to) {
    if (to > 5) return -1;
    level = to;
    return 0;
}
static void usage_vector(uint16_t v[11]) {
    for (int i = 0; i < 11; ++i) v[i] = (uint16_t)(10 * (i > 5 ? 5 : i));
}
static void delta_vector(int32_t v[11]) {
    for (int i = 0; i < 11; ++i) v[i] = 10 * ((i > 5 ? 5 : i) - level);
}
static uint32_t next_sequence(void) { return ++sequence; }
static svc_callback_registry callbacks = {
    get_units,    get_usage,     get_caliber, get_category, get_level, set_level, usage_vector,
    delta_vector, next_sequence, NULL,        NULL,         NULL,      NULL};

#define CHECK(cond)                                                                    \
    if (!(cond)) {                                                                     \
        printf("line %d: %s failed: %s\n", __LINE__, #cond, ohmara_tk_lastError(kit)); \
        return 1;                                                                      \
    }

int main(void) {
    static const char id[] = "0123456789abcdef0123456789abcdef";
    static const uint8_t key[] = "test-key";
    svc_session *s = ohmara_svc_create("127.0.0.1", 47312, id, key, 8, 0);
    ohmara_svc_configIdentity(s, "lab", "heater", "heating", "", "heater", 10);
    ohmara_svc_configRegistry(s, &callbacks);
    ohmara_tk *kit = ohmara_tk_create(s, key, 8, id); /* the kit runs and frees s */
    int64_t watts = 0;

    CHECK(ohmara_tk_handshake(kit) == 0);
    CHECK(ohmara_tk_getNumber(kit, "usage", &watts) == 0 && watts == 20);
    CHECK(ohmara_tk_set(kit, "level=4") == 1 && level == 4);
    CHECK(ohmara_tk_set(kit, "level=9") == 0 && level == 4); /* refused */
    CHECK(ohmara_tk_setSilent(kit, 1) == 0 && ohmara_tk_advance(kit, 480) == 0);
    CHECK(ohmara_svc_getStatus(s) == OHMARA_STATUS_UP); /* silent for over 300 s */
    ohmara_tk_destroy(kit);
    puts("passed");
    return 0;
}
