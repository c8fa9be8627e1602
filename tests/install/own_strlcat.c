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

/* Library calls that handle text: identifiers, identity, attributes. */
static int use_library(void) {
    char id[33] = {0};
    uint32_t len = 0;
    svc_session *s;
    const char *name;
    int ok;

    setLogLevel(OHMARA_LOG_FATAL);
    ohmara_utl_senderId(id, NULL);
    s = ohmara_svc_create("127.0.0.1", 47331, id, (const uint8_t *)"secret", 6, 0);
    printf("\n");
    if (s == NULL) return 0;
    ok = ohmara_svc_configIdentity(s, "domain-a", "a-rather-long-endpoint-name", "desk light",
                                   "one,two,three,four,five,six,seven,eight", "lamp", 40) == 0;
    name = (const char *)ohmara_svc_getAttribute(s, OHMARA_ATTR_NAME, &len);
    ok = ok && name != NULL && strncmp(name, "a-rather-long-endpoint-name", len) == 0;
    omr_svc_cleanup(s);
    return ok;
}

int main(void) {
    char a[8] = "abc";
    size_t own_rc;
    int failures = 0;

    /* "abc" + "defghij" in 8 bytes: the program's contract returns 10 (the
     * length it tried to make), the library's 7 (the length it made). */
    own_rc = strlcat(a, "defghij", sizeof a);
    if (own_rc != 10 || strcmp(a, "abcdefg") != 0 || own_calls != 1) {
        printf("the program's own strlcat was not used: %zu \"%s\" calls %d\n", own_rc, a,
               own_calls);
        ++failures;
    }
#ifndef OWN_STRLCAT_STATIC /* linked statically, the program's strlcat replaces the library's */
    {
        size_t (*lib_strlcat)(char *, const char *, size_t);
        void *lib = dlopen("libomsdk.so.0", RTLD_NOW | RTLD_NOLOAD);
        char b[8] = "abc";
        size_t lib_rc;
        *(void **)&lib_strlcat = lib != NULL ? dlsym(lib, "strlcat") : NULL;
        if (lib_strlcat == NULL || lib_strlcat == strlcat) {
            printf("the library's strlcat is not its own\n");
            ++failures;
        } else if ((lib_rc = lib_strlcat(b, "defghij", sizeof b)) != 7 ||
                   strcmp(b, "abcdefg") != 0) {
            printf("the library's strlcat returned %zu \"%s\"\n", lib_rc, b);
            ++failures;
        }
    }
#endif

    own_calls = 0;
    if (!use_library()) {
        printf("the library calls failed\n");
        ++failures;
    }
    if (own_calls != 0) {
        printf("the library called the program's strlcat %d times\n", own_calls);
        ++failures;
    }
    if (failures == 0) printf("own strlcat ok\n");
    return failures == 0 ? 0 : 1;
}
