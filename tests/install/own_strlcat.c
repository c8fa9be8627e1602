/* SPDX-License-Identifier: Apache-2.0 */
/* A program with a strlcat of its own (as glibc 2.38 and later declare one)
 * linked against libomsdk, which exports a strlcat too. The program's
 * definition must link without a clash and serve the program's calls; the
 * library must not call it (that would change the library's behaviour), and
 * the library's own strlcat stays reachable through the library's handle. */
#define _GNU_SOURCE
#include <omsdk.h>

#include <dlfcn.h>
#include <stdio.h>
#include <string.h>

static int own_calls;

/* The usual strlcat contract: returns the length it tried to make. */
size_t strlcat(char *dst, const char *src, size_t size) {
    size_t d = strnlen(dst, size), s = strlen(src);
    ++own_calls;
    if (d < size) {
        size_t n = s < size - d - 1 ? s : size - d - 1;
        memcpy(dst + d, src, n);
        dst[d + n] = '\0';
    }
    return d + s;
}

static int fail(const char *what) {
    printf("%s\n", what);
    return 1;
}

int main(void) {
    char a[8] = "abc", id[33] = {0};
    uint32_t len = 0;
    int failures = 0;

    /* "abc" + "defghij" in 8 bytes: the program's contract returns 10 (the
     * length it tried to make), the library's 7 (the length it made). */
    if (strlcat(a, "defghij", sizeof a) != 10 || strcmp(a, "abcdefg") != 0 || own_calls != 1)
        failures += fail("the program's own strlcat was not used");
#ifndef OWN_STRLCAT_STATIC /* linked statically, the program's strlcat replaces the library's */
    {
        size_t (*lib_strlcat)(char *, const char *, size_t);
        void *lib = dlopen("libomsdk.so.0", RTLD_NOW | RTLD_NOLOAD);
        char b[9] = "abc\0\0\0\0\0Z"; /* the Z past the 8 bytes stays */
        *(void **)&lib_strlcat = lib != NULL ? dlsym(lib, "strlcat") : NULL;
        if (lib_strlcat == NULL || lib_strlcat == strlcat)
            failures += fail("the library's strlcat is not its own");
        else if (lib_strlcat(b, "defghij", 8) != 7 || memcmp(b, "abcdefg\0Z", 9) != 0)
            failures += fail("the library's strlcat did not make \"abcdefg\" in 8 bytes");
    }
#endif

    /* Library calls that handle text: identifiers, identity, attributes. */
    own_calls = 0;
    setLogLevel(OHMARA_LOG_FATAL);
    ohmara_utl_senderId(id, NULL);
    svc_session *s = ohmara_svc_create("127.0.0.1", 47331, id, (const uint8_t *)"secret", 6, 0);
    const char *name = NULL;
    printf("\n");
    if (s == NULL ||
        ohmara_svc_configIdentity(s, "domain-a", "a-rather-long-endpoint-name", "desk light",
                                  "one,two,three,four,five,six,seven,eight", "lamp", 40) != 0 ||
        (name = (const char *)ohmara_svc_getAttribute(s, OHMARA_ATTR_NAME, &len)) == NULL ||
        strncmp(name, "a-rather-long-endpoint-name", len) != 0)
        failures += fail("the library calls failed");
    if (s != NULL) omr_svc_cleanup(s);
    if (own_calls != 0) failures += fail("the library called the program's strlcat");
    if (failures == 0) printf("own strlcat ok\n");
    return failures == 0 ? 0 : 1;
}
