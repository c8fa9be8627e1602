// SPDX-License-Identifier: Apache-2.0
// Leveled logging: one emission helper, reached through OM_LOG with __func__.
#ifndef OMSDK_DIAG_LOG_H
#define OMSDK_DIAG_LOG_H

#include <stdint.h>

#include <omsdk/log.h>

namespace omsdk {

enum log_level : uint32_t {
    LOG_TRACE = 0,
    LOG_DEBUG = 1,
    LOG_INFO = 2,
    LOG_WARN = 3,
    LOG_ERROR = 4,
    LOG_FATAL = 5,
};

// The process-wide threshold (setLogLevel); read inline so that a filtered
// line costs one load and compare, not a call through the export table.
extern uint32_t log_threshold;

// True when a line of this level passes the process-wide threshold.
inline bool log_enabled(uint32_t level) { return log_threshold <= level; }

// Formats and writes one line; callers go through OM_LOG so that nothing is
// formatted for a filtered level.
void log_emit(uint32_t level, const char *func, const char *fmt, ...)
    __attribute__((format(printf, 3, 4)));

}  // namespace omsdk

// OM_LOG_AS names the function explicitly, for a helper that logs on behalf
// of the exported call that used it. The level is tested before anything
// else: the arguments (address and error texts) are not even evaluated for
// a filtered line.
#define OM_LOG_AS(level, func, ...)                                                       \
    do {                                                                                  \
        if (::omsdk::log_enabled(level)) ::omsdk::log_emit((level), (func), __VA_ARGS__); \
    } while (0)
#define OM_LOG(level, ...) OM_LOG_AS(level, __func__, __VA_ARGS__)

#define OM_TRACE(...) OM_LOG(::omsdk::LOG_TRACE, __VA_ARGS__)
#define OM_DEBUG(...) OM_LOG(::omsdk::LOG_DEBUG, __VA_ARGS__)
#define OM_INFO(...) OM_LOG(::omsdk::LOG_INFO, __VA_ARGS__)
#define OM_WARN(...) OM_LOG(::omsdk::LOG_WARN, __VA_ARGS__)
#define OM_ERROR(...) OM_LOG(::omsdk::LOG_ERROR, __VA_ARGS__)
#define OM_FATAL(...) OM_LOG(::omsdk::LOG_FATAL, __VA_ARGS__)

#endif
