/* SPDX-License-Identifier: Apache-2.0 */
/* The compile-time version macros against the loaded library's own text,
 * and OMSDK_VERSION_AT_LEAST around the current version. */
#include <omsdk.h>

#include <stdio.h>
#include <string.h>

#if !OMSDK_VERSION_AT_LEAST(OMSDK_VERSION_MAJOR, OMSDK_VERSION_MINOR, OMSDK_VERSION_PATCH)
#error "OMSDK_VERSION_AT_LEAST is false for the version itself in #if"
#endif

int main(void) {
    const int M = OMSDK_VERSION_MAJOR, m = OMSDK_VERSION_MINOR, p = OMSDK_VERSION_PATCH;
    /* a.b.c, expected result; rows with a part below 0 are left out */
    const int cases[][4] = {{M, m, p, 1},         {M, m, p + 1, 0}, {M, m + 1, 0, 0},
                            {M + 1, 0, 0, 0},     {M, m, p - 1, 1}, {M, m - 1, 255, 1},
                            {M - 1, 255, 255, 1}, {0, 0, 0, 1}};
    char text[32];
    int failures = 0;

    snprintf(text, sizeof text, "%d.%d.%d", M, m, p);
    if (strcmp(text, OMSDK_VERSION_STRING) != 0 || strcmp(text, ohmara_utl_getVersion()) != 0 ||
        OMSDK_VERSION_NUMBER != M * 65536 + m * 256 + p) {
        printf("versions differ: parts %s, OMSDK_VERSION_STRING %s, ohmara_utl_getVersion %s, "
               "OMSDK_VERSION_NUMBER 0x%06x\n",
               text, OMSDK_VERSION_STRING, ohmara_utl_getVersion(), (unsigned)OMSDK_VERSION_NUMBER);
        ++failures;
    }
    for (size_t i = 0; i < sizeof cases / sizeof cases[0]; ++i) {
        const int *c = cases[i];
        if (c[0] >= 0 && c[1] >= 0 && c[2] >= 0 &&
            OMSDK_VERSION_AT_LEAST(c[0], c[1], c[2]) != c[3]) {
            printf("OMSDK_VERSION_AT_LEAST(%d, %d, %d) is not %d\n", c[0], c[1], c[2], c[3]);
            ++failures;
        }
    }
    if (failures == 0) printf("version %s ok\n", OMSDK_VERSION_STRING);
    return failures == 0 ? 0 : 1;
}
