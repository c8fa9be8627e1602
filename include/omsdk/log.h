/* SPDX-License-Identifier: Apache-2.0 */
/**
 * @file omsdk/log.h
 * @brief Log control: the process-wide threshold and destination of the library's lines.
 *
 * One threshold and one destination serve the whole process, every session.
 * Included by omsdk.h.
 *
 * By default the library logs to STANDARD OUTPUT at INFO, so a running
 * session's lines mix with the application's own output. Set the log aside
 * before creating the first session, with either
 * @code
 * setLogFile(stderr);
 * setLogLevel(OHMARA_LOG_WARN);
 * @endcode
 * or a callback (setLogCallback() and enableLogCallback(1)). The few
 * unterminated `@@@...` lines that ohmara_svc_create() and the handshake
 * print go to standard output with printf() whatever these settings are.
 *
 * A line written to the log file reads
 * `Mon Jan  5 10:00:00 2026 [INFO] function_name: message` and ends with a
 * newline; each line is written (and flushed) by one call, so lines from
 * two threads never interleave.
 *
 * The settings are process-wide and unlocked: change them before any
 * session is created or while no library call runs on another thread.
 */
#ifndef OMSDK_LOG_H
#define OMSDK_LOG_H

#include <stdint.h>
#include <stdio.h>

#ifdef __cplusplus
extern "C" {
#endif

/** Log severities: lower is more verbose; the default threshold is INFO. */
typedef enum ohmara_log_level {
    OHMARA_LOG_TRACE = 0,
    OHMARA_LOG_DEBUG = 1,
    OHMARA_LOG_INFO = 2,
    OHMARA_LOG_WARN = 3,
    OHMARA_LOG_ERROR = 4,
    OHMARA_LOG_FATAL = 5
} ohmara_log_level;

/** Receives each line instead of the log file while enabled: `level` is an
 *  ::ohmara_log_level, `text` reads `function_name: message` without time
 *  stamp, level name or newline, cut to 511 characters, and is valid only
 *  during the call (copy it to keep it). Called on the thread that logs:
 *  any thread that calls into the library, the loop's thread above all. */
typedef void (*ohmara_log_callback)(uint32_t level, const char *text);

/**
 * @name Threshold
 * Process-wide and unlocked: configure before creating a session.
 * @{
 */

/**
 * Sets the threshold: lines of a lower ::ohmara_log_level are dropped
 * without being formatted. The default is OHMARA_LOG_INFO (2); a value
 * above OHMARA_LOG_FATAL (5) silences the library's log (not its
 * unterminated standard-output lines). Nothing is logged.
 */
void setLogLevel(uint32_t level);
/** The current threshold (2, INFO, unless set). */
uint32_t getLogLevel(void);

/** @} */

/**
 * @name Log file
 * Process-wide and unlocked: configure before creating a session.
 * @{
 */

/**
 * Sets the stream the lines are written to; NULL goes back to the default,
 * standard output. The stream stays the caller's: the library never closes
 * it, so it must stay open while the library may log. Unused while a
 * callback is enabled. Nothing is logged.
 */
void setLogFile(FILE *file);
/** The stream lines go to: the one set with setLogFile(), or stdout. */
FILE *getLogFile(void);

/** @} */

/**
 * @name Log callback
 * Process-wide and unlocked: configure before creating a session.
 * @{
 */

/**
 * Stores a callback that receives the lines while enableLogCallback() has
 * enabled it (see ::ohmara_log_callback).
 *
 * @return 1 when the callback was stored, 0 for a null callback (the
 *         previous one stays; there is no way to unset it, disable it with
 *         enableLogCallback(0) instead). Logs the address at DEBUG.
 */
int32_t setLogCallback(ohmara_log_callback cb);
/** The stored callback, or NULL when none was ever stored. */
ohmara_log_callback getLogCallback(void);
/**
 * Sends the lines to the stored callback (@p on non-zero) instead of the log
 * file, or back to the log file (0). Enabling without a stored callback
 * keeps the lines going to the file. Logs the change at DEBUG.
 */
void enableLogCallback(int32_t on);
/** The value last given to enableLogCallback() (0 unless set). */
int32_t getLogCallbackEnable(void);

/** @} */

#ifdef __cplusplus
}
#endif

#endif /* OMSDK_LOG_H */
