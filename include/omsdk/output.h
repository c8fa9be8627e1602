/* SPDX-License-Identifier: Apache-2.0 */
/**
 * @file omsdk/output.h
 * @brief Where a session's messages go: its sockets, or the program's table.
 *
 * Where a session's messages go. By default the session sends them on its
 * own sockets; a program that carries them itself (a test kit playing the
 * switch in the same process, a gateway) installs an output table before
 * start-up and hands what it receives to the session with omr_processMsg.
 */
#ifndef OMSDK_OUTPUT_H
#define OMSDK_OUTPUT_H

#include <stdint.h>

#include <omsdk.h>

#ifdef __cplusplus
extern "C" {
#endif

/* The table a session sends through instead of its sockets. */
typedef struct ohmara_svc_output {
    /* One message for the connection whose message the session is handling
     * (an acknowledgement, an answer). Returns the bytes taken (len), or -1
     * for a failure the session logs as a failed send. */
    int32_t (*reply)(void *context, const uint8_t *buf, uint32_t len);
    /* One datagram for address:port (both network order): a discovery
     * event, broadcast or to the parent switch. Same result convention. */
    int32_t (*datagram)(void *context, const uint8_t *buf, uint32_t len, uint32_t address,
                        uint16_t port);
    void *context; /* passed back to both functions as it is */
} ohmara_svc_output;

/**
 * Makes the session send everything through `output` instead of its sockets
 * (NULL: back to the sockets).
 *
 * The table and its context are the caller's and must outlive the session
 * (or the next call); the session only keeps the pointer. The functions are
 * called on the thread that drives the session (its loop, or the thread
 * calling omr_processMsg), never two at once, and must not call back into
 * the session.
 *
 * Call it after ohmara_svc_create and before ohmara_svc_startup, from the
 * thread that created the session.
 *
 * @return 0 when installed; -1 for a NULL session, a table without both
 *         functions, or a session already started (logged as an error).
 */
int32_t ohmara_svc_setOutput(svc_session *session, const ohmara_svc_output *output);

/**
 * Hands the session one whole message that arrived for it on a connection
 * (what the loop does with what it reads): the session checks, handles and
 * answers it through its output. `len` is the message's size in bytes; the
 * bytes stay the caller's. Same thread rules as ohmara_svc_setOutput's
 * functions: only where no loop of the session runs at the same time. Logs
 * what it refuses and does as the session's loop would.
 */
void omr_processMsg(svc_session *session, const uint8_t *buf, int32_t len);

#ifdef __cplusplus
}
#endif

#endif /* OMSDK_OUTPUT_H */
