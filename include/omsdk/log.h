/* SPDX-License-Identifier: Apache-2.0 */
/* Log control: one process-wide threshold and destination for the lines the
 * library writes. Included by omsdk.h. */
#ifndef OMSDK_LOG_H
#define OMSDK_LOG_H

#include <stdint.h>
#include <stdio.h>

#ifdef __cplusplus
extern "C" {
#endif

/* Log severities: lower is more verbose; the default threshold is INFO. */
typedef enum ohmara_log_level {
    OHMARA_LOG_TRACE = 0,
    OHMARA_LOG_DEBUG = 1,
    OHMARA_LOG_INFO = 2,
    OHMARA_LOG_WARN = 3,
    OHMARA_LOG_ERROR = 4,
    OHMARA_LOG_FATAL = 5
} ohmara_log_level;

/* Receives each line (without time stamp or level name) instead of the log
 * file while enabled; `text` is valid only during the call. */
typedef void (*ohmara_log_callback)(uint32_t level, const char *text);

/* Process-wide and unlocked: configure before creating a session. Lines
 * below the threshold are not formatted at all. The log file defaults to
 * stdout; each line is written by one call, so lines never interleave. */
void setLogLevel(uint32_t level);
uint32_t getLogLevel(void);
void setLogFile(FILE *file);
FILE *getLogFile(void);
/* Returns 1 when the callback was stored, 0 for a null callback. */
int32_t setLogCallback(ohmara_log_callback cb);
ohmara_log_callback getLogCallback(void);
void enableLogCallback(int32_t on);
int32_t getLogCallbackEnable(void);

#ifdef __cplusplus
}
#endif

#endif /* OMSDK_LOG_H */
