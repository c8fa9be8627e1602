// SPDX-License-Identifier: Apache-2.0
#include "diag/log.h"

#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>

#include "common/api.h"

namespace {

// Process-wide settings; the application configures them before the loop
// runs, so they are deliberately unlocked.
FILE *g_log_file = nullptr;
int32_t g_callback_enabled = 0;
ohmara_log_callback g_callback = nullptr;

constexpr size_t kLineSize = 512;
constexpr const char *kLevelNames[] = {"TRACE", "DEBUG", "INFO", "WARN", "ERROR", "FATAL"};

const char *level_name(uint32_t level) {
    return level < sizeof kLevelNames / sizeof kLevelNames[0] ? kLevelNames[level] : "";
}

constexpr size_t kFileLineSize = 1024;

// Writes "<stamp> [<LEVEL>] <func>: <message>\n" into buf when it fits;
// returns the length of the whole line (without the terminator) either way.
size_t format_line(char *buf, size_t size, const char *stamp, uint32_t level, const char *func,
                   const char *fmt, va_list ap) {
    int head = snprintf(buf, size, "%s [%s] %s: ", stamp, level_name(level), func);
    if (head < 0) head = 0;
    size_t used = static_cast<size_t>(head);
    int body =
        vsnprintf(buf + (used < size ? used : size - 1), used < size ? size - used : 1, fmt, ap);
    if (body > 0) used += static_cast<size_t>(body);
    if (used + 1 < size) {
        buf[used] = '\n';
        buf[used + 1] = '\0';
    }
    return used + 1;
}

}  // namespace

namespace omsdk {

uint32_t log_threshold = 2;

void log_emit(uint32_t level, const char *func, const char *fmt, ...) {
    if (!log_enabled(level)) return;
    char buf[kLineSize];
    memset(buf, 0, sizeof buf);

    va_list ap;
    va_start(ap, fmt);
    if (getLogCallbackEnable() && getLogCallback() != nullptr) {
        int n = snprintf(buf, sizeof buf, "%s: ", func);
        if (n < 0) n = 0;
        size_t used = static_cast<size_t>(n) < sizeof buf ? static_cast<size_t>(n) : sizeof buf - 1;
        (void)vsnprintf(buf + used, sizeof buf - used, fmt, ap);  // cut to the buffer
        va_end(ap);
        getLogCallback()(level, buf);
        return;
    }

    char stamp[64];
    time_t now = time(nullptr);
    struct tm tmv;
    // ctime's text, made thread-safe; its final newline is cut off.
    if (localtime_r(&now, &tmv) == nullptr || asctime_r(&tmv, stamp) == nullptr) stamp[0] = '\0';
    size_t len = strlen(stamp);
    if (len > 0) stamp[len - 1] = '\0';

    // The whole line is formatted first and written by one call: stdio locks
    // the stream per call, so lines from two threads cannot interleave.
    va_list again;
    va_copy(again, ap);
    char line[kFileLineSize];
    char *out = line;
    char *heap = nullptr;
    size_t size = format_line(line, sizeof line, stamp, level, func, fmt, ap);
    if (size >= sizeof line) {
        heap = static_cast<char *>(malloc(size + 1));
        if (heap != nullptr) {
            format_line(heap, size + 1, stamp, level, func, fmt, again);
            out = heap;
        } else {
            size = sizeof line - 1;
            line[size - 1] = '\n';
        }
    }
    va_end(again);
    va_end(ap);
    FILE *file = getLogFile();
    // A log that cannot be written has nowhere to report it.
    (void)fwrite(out, 1, size, file);
    (void)fflush(file);
    free(heap);
}

}  // namespace omsdk

OMSDK_API void setLogLevel(uint32_t level) { omsdk::log_threshold = level; }

OMSDK_API uint32_t getLogLevel(void) { return omsdk::log_threshold; }

OMSDK_API void setLogFile(FILE *file) { g_log_file = file; }

OMSDK_API FILE *getLogFile(void) { return g_log_file != nullptr ? g_log_file : stdout; }

OMSDK_API int32_t setLogCallback(ohmara_log_callback cb) {
    if (cb == nullptr) return 0;
    OM_DEBUG("Setting log callback address to %p", reinterpret_cast<void *>(cb));
    g_callback = cb;
    return 1;
}

OMSDK_API ohmara_log_callback getLogCallback(void) { return g_callback; }

OMSDK_API void enableLogCallback(int32_t on) {
    OM_DEBUG("Log callback feature is being %s", on ? "ENABLED" : "DISABLED");
    g_callback_enabled = on;
}

OMSDK_API int32_t getLogCallbackEnable(void) { return g_callback_enabled; }
