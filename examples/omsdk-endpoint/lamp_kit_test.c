/* SPDX-License-Identifier: Apache-2.0 */
/* The lamp's callbacks against the library under the test kit: handshake,
 * every attribute, SET in and out of range, an alarm answered, and the
 * drop to UP after 300 silent seconds, all in virtual time. Plain C, no
 * framework: a failed check prints its line and the kit's error. */
#define _POSIX_C_SOURCE 200809L
#include <omsdk/testkit.h>

#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>

#include "device.h"

static int failures;
static ohmara_tk *kit;

#define CHECK(cond)                                                                \
    do {                                                                           \
        if (!(cond)) {                                                             \
            fprintf(stderr, "%s:%d: failed: %s (%s)\n", __FILE__, __LINE__, #cond, \
                    ohmara_tk_lastError(kit));                                     \
            ++failures;                                                            \
        }                                                                          \
    } while (0)

static const char kId[] = "1a2b3c4d5e6f70819293a4b5c6d7e8f9";
static const char kKey[] = "lamp-test-shared-key";

/* What the lamp prints, to look for the callbacks' lines in. */
static char *out_text;
static size_t out_len;
static FILE *out;

static int printed(const char *line) {
    fflush(out);
    return strstr(out_text, line) != NULL;
}

int main(void) {
    struct timespec t0, t1;
    clock_gettime(CLOCK_MONOTONIC, &t0);
    setLogLevel(OHMARA_LOG_WARN);
    out = open_memstream(&out_text, &out_len);
    svc_session *s =
        ohmara_svc_create("127.0.0.1", 47311, kId, (const uint8_t *)kKey, (int32_t)strlen(kKey), 0);
    if (out == NULL || s == NULL) return 2;
    lamp_device_attach(s, out, NULL);
    if (ohmara_svc_configIdentity(s, "test-domain", "lamp1", "light", "hall,dimmable", "lamp",
                                  40) != 0 ||
        ohmara_svc_configRegistry(s, lamp_device_registry()) != 0)
        return 2;
    kit = ohmara_tk_create(s, (const uint8_t *)kKey, (int32_t)strlen(kKey), kId);
    if (kit == NULL) {
        fprintf(stderr, "no kit: %s\n", ohmara_tk_lastError(NULL));
        return 2;
    }
    CHECK(ohmara_tk_handshake(kit) == 0);
    CHECK(ohmara_svc_getStatus(s) == OHMARA_STATUS_ACTIVE);

    /* Every attribute, as the lamp at full level reports it (64 W). */
    static const struct {
        const char *name;
        int64_t value;
    } numbers[] = {{"level", 10},      {"usage", 64},   {"units", 0},
                   {"importance", 40}, {"category", 1}, {"caliber", -1}};
    for (size_t i = 0; i < sizeof numbers / sizeof numbers[0]; ++i) {
        int64_t v = -1;
        CHECK(ohmara_tk_getNumber(kit, numbers[i].name, &v) == 0 && v == numbers[i].value);
        if (v != numbers[i].value) fprintf(stderr, "  %s: %lld\n", numbers[i].name, (long long)v);
    }
    static const struct {
        const char *name, *value;
    } texts[] = {{"name", "lamp1"},
                 {"role", "light"},
                 {"keywords", "hall,dimmable"},
                 {"device-type", "lamp"}};
    for (size_t i = 0; i < sizeof texts / sizeof texts[0]; ++i) {
        char v[64] = "";
        CHECK(ohmara_tk_getText(kit, texts[i].name, v, sizeof v) == 0 &&
              strcmp(v, texts[i].value) == 0);
    }
    static const int64_t usage[11] = {1, 10, 16, 22, 28, 34, 40, 46, 52, 58, 64};
    int64_t vec[16];
    uint32_t n = 0;
    CHECK(ohmara_tk_getVector(kit, "usage-vector", vec, 16, &n) == 0 && n == 11 &&
          memcmp(vec, usage, sizeof usage) == 0);

    /* SET in and out of range; the delta vector follows the level. */
    static const struct {
        const char *assignment;
        int32_t answer;
        int level_after;
        const char *line;
    } sets[] = {{"level=3", 1, 3, "SET level 3 (from switch), usage now 22 W"},
                {"level=11", 0, 3, "SET level 11 refused"},
                {"level=0", 1, 0, "SET level 0 (from switch), usage now 1 W"},
                {"name=porch", 1, 0, "SET name \"porch\" (from switch)"},
                {"keywords=porch,outdoor", 1, 0, "SET keywords \"porch,outdoor\""},
                {"importance=7", 1, 0, "SET importance 7 (from switch)"}};
    for (size_t i = 0; i < sizeof sets / sizeof sets[0]; ++i) {
        CHECK(ohmara_tk_set(kit, sets[i].assignment) == sets[i].answer);
        CHECK(lamp_device_level() == sets[i].level_after);
        CHECK(printed(sets[i].line));
    }
    static const int64_t delta_at_0[11] = {0, 9, 15, 21, 27, 33, 39, 45, 51, 57, 63};
    CHECK(ohmara_tk_getVector(kit, "delta-vector", vec, 16, &n) == 0 && n == 11 &&
          memcmp(vec, delta_at_0, sizeof delta_at_0) == 0);
    char name[32] = "";
    CHECK(ohmara_tk_getText(kit, "name", name, sizeof name) == 0 && strcmp(name, "porch") == 0);

    /* An alarm request travels with the next discovery update; the switch
     * accepts it and the lamp hears the answer. */
    CHECK(ohmara_svc_alarmAdd(s, 60, 1, 0) == 0);
    CHECK(ohmara_tk_run(kit) == 0);
    ohmara_tk_alarm a;
    CHECK(ohmara_tk_nextAlarm(kit, &a) == 1 && a.seconds == 60 && a.first == 1 && a.second == 0 &&
          a.operation == 1 && a.answered == 2);
    CHECK(ohmara_tk_nextAlarm(kit, &a) == 0);
    CHECK(printed("answered: ok"));

    /* The switch goes silent: the session stays ACTIVE for 300 s after the
     * last word and drops to UP at its next discovery update after that
     * (every 180 s while ACTIVE). */
    const int64_t silent_from = ohmara_tk_now(kit);
    CHECK(ohmara_tk_setSilent(kit, 1) == 0);
    CHECK(ohmara_tk_advance(kit, 300) == 0);
    CHECK(ohmara_svc_getStatus(s) == OHMARA_STATUS_ACTIVE);
    CHECK(ohmara_tk_advance(kit, 180) == 0);
    CHECK(ohmara_svc_getStatus(s) == OHMARA_STATUS_UP);
    CHECK(printed("status: UP"));
    CHECK(ohmara_tk_now(kit) == silent_from + 480);

    ohmara_tk_destroy(kit);
    kit = NULL;
    fclose(out);
    free(out_text);
    clock_gettime(CLOCK_MONOTONIC, &t1);
    const double secs = (double)(t1.tv_sec - t0.tv_sec) + (double)(t1.tv_nsec - t0.tv_nsec) / 1e9;
    printf("lamp kit test: %d failure(s), %.3f s real time\n", failures, secs);
    if (secs >= 1.0) return 1;
    return failures == 0 ? 0 : 1;
}
