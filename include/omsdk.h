/* SPDX-License-Identifier: Apache-2.0 */
/*
 * omsdk: make a networked device a managed endpoint of an Ohmara
 * power-management domain.
 *
 * Calling order: make a sender identifier (ohmara_utl_senderId), create a
 * session (ohmara_svc_create), configure its identity and callbacks, then
 * lend a thread to ohmara_svc_startup, which runs until another thread calls
 * ohmara_svc_shutdown and frees the session when it returns.
 */
#ifndef OMSDK_H
#define OMSDK_H

#include <stdint.h>
#include <stdio.h>

#include <omsdk/enums.h>
#include <omsdk/enum_names.h>
#include <omsdk/log.h>
#include <omsdk/utility.h>
#include <omsdk/version.h>

#ifdef __cplusplus
extern "C" {
#endif

/* Session status, reported through svc_callback_registry.status_changed. */
typedef enum ohmara_svc_status {
    OHMARA_STATUS_DOWN = 0,
    OHMARA_STATUS_UP = 1,
    OHMARA_STATUS_INITIALIZING = 2,
    OHMARA_STATUS_ACTIVE = 3,
    OHMARA_STATUS_SHUTDOWN = 4
} ohmara_svc_status;

/* Attribute ids: for ohmara_svc_getAttribute, and the codes passed to
 * svc_callback_registry.attribute_modified after a SET from the switch. */
typedef enum ohmara_attribute {
    OHMARA_ATTR_ROLE = 2,
    OHMARA_ATTR_DOMAIN = 3,
    OHMARA_ATTR_NAME = 4,
    OHMARA_ATTR_KEYWORDS = 5,
    OHMARA_ATTR_LEVEL = 9,
    OHMARA_ATTR_IMPORTANCE = 10,
    OHMARA_ATTR_DEVICE_TYPE = 21
} ohmara_attribute;

typedef struct svc_session svc_session; /* opaque to applications */

/* The application's callbacks. The table must outlive the session; slots
 * get_units to next_sequence are required, the rest optional. */
/* clang-format off: one callback a line, aligned */
typedef struct svc_callback_registry {
    uint8_t (*get_units)(void);
    uint16_t (*get_usage)(void);
    uint32_t (*get_usage_caliber)(void);
    uint32_t (*get_usage_category)(void);
    uint8_t (*get_level)(void);
    int32_t (*set_level)(uint8_t level);           /* negative = refused */
    void (*get_usage_vector)(uint16_t vector[11]); /* host order, 22 bytes */
    void (*get_delta_vector)(int32_t vector[11]);  /* host order, 44 bytes */
    uint32_t (*next_sequence)(void);
    void (*attribute_modified)(
        int32_t attribute); /* 2 role, 4 name, 5 keywords, 9 level, 10 importance */
    void (*listen_port_notify)(uint16_t port); /* host order */
    void (*status_changed)(int32_t status);    /* 0 DOWN 1 UP 2 INITIALIZING 3 ACTIVE 4 SHUTDOWN */
    void (*alarm_reply)(int32_t request_id, uint32_t request_type, int32_t success);
} svc_callback_registry;
/* clang-format on */

/* Session API */
/* sender_id: the 32 characters ohmara_utl_senderId writes; only those 32
 * are read. A shorter text is taken as it is and zero-padded to 32 bytes,
 * with a warning. */
svc_session *ohmara_svc_create(const char *local_address, uint16_t port, const char *sender_id,
                               const uint8_t *key, int32_t key_len, uint16_t listen_port);
/* Copies the identity into the session (invalid name or role: the default;
 * importance outside 1..100: 1). Returns 0, or -1 (logged, the previous
 * identity kept) for a refused domain, lack of memory, or an identity whose
 * discovery message would exceed the 1400-byte message limit: domain, name,
 * role and keywords together may hold at most 962 characters. */
int32_t ohmara_svc_configIdentity(svc_session *session, const char *domain, const char *name,
                                  const char *role, const char *keywords, const char *device_type,
                                  uint8_t importance);
int32_t ohmara_svc_configRegistry(svc_session *session, svc_callback_registry *registry);
int32_t ohmara_svc_configPowerSource(svc_session *session, uint32_t source);
int32_t ohmara_svc_setDiscoveryInterval(svc_session *session, int32_t seconds);
int32_t ohmara_svc_setNannyFunctionBit(svc_session *session, uint32_t bit, uint8_t on);
int32_t ohmara_svc_startup(svc_session *session);
int32_t ohmara_svc_getStatus(svc_session *session);

/* Returns where the session keeps an attribute and its length in *length
 * (texts with their NUL; the importance as 1 byte), or NULL with *length 0
 * for an id not kept in the session. The pointer is into the session's own
 * storage: a SET from the switch frees and replaces the text on the loop's
 * thread. So call it only on the loop's thread (inside a callback) or
 * before ohmara_svc_startup, and use the value before returning from the
 * callback. Other threads use ohmara_svc_copyAttribute. */
const void *ohmara_svc_getAttribute(svc_session *session, int32_t id, uint32_t *length);

/* Copies the attribute getAttribute would return into the caller's buffer,
 * under the session's lock; any thread may call it while the session runs.
 * Returns 0 with the bytes copied in *length (texts with their NUL).
 * Returns -1 and copies nothing: when the session or length is NULL; with
 * *length 0 when buffer is NULL with a size above 0 or the id is unknown;
 * with *length the size needed when the value does not fit (so a NULL
 * buffer with size 0 asks for the size). */
int32_t ohmara_svc_copyAttribute(svc_session *session, int32_t id, void *buffer, uint32_t size,
                                 uint32_t *length);

int32_t ohmara_svc_alarmAdd(svc_session *session, uint32_t seconds, uint8_t first, uint8_t second);
int32_t ohmara_svc_alarmClearAll(svc_session *session);
int32_t ohmara_svc_discoveryRefresh(svc_session *session);
int32_t ohmara_svc_shutdown(svc_session *session);

/* Options beyond the reference behaviour. Each is called after
 * ohmara_svc_create and before ohmara_svc_startup, from the thread that
 * created the session; each returns 0 when applied and -1 (logged) for a
 * null session, a bad argument or a session already started. */

/* Security profiles. REFERENCE (the default) behaves exactly as the protocol
 * describes, for switches that expect it. HARDENED closes that behaviour's
 * weaknesses: the local nonce comes from the operating system's random
 * source; an acknowledgement must be newer than the last one accepted and
 * answer a discovery this endpoint sent; the listener binds the session's
 * local address and, once ACTIVE, accepts only the parent switch (and the
 * addresses given to ohmara_svc_allowPeer); several connections are read at
 * once, each against its own deadline; the listen backlog is raised. */
typedef enum ohmara_svc_profile {
    OHMARA_PROFILE_REFERENCE = 0,
    OHMARA_PROFILE_HARDENED = 1
} ohmara_svc_profile;
int32_t ohmara_svc_setProfile(svc_session *session, uint32_t profile);

/* Adds an IPv4 address (dotted text) that may connect besides the parent
 * switch under the HARDENED profile; at most OHMARA_MAX_ALLOWED_PEERS. */
#define OHMARA_MAX_ALLOWED_PEERS 8
int32_t ohmara_svc_allowPeer(svc_session *session, const char *address);

/* Sets the listen backlog (default 10; the HARDENED profile raises it to 128
 * unless set here). 1 to 4096. Takes effect at once. */
int32_t ohmara_svc_setListenBacklog(svc_session *session, int32_t backlog);

/* Frees a session that was never started (ohmara_svc_startup frees the
 * sessions it ran): closes its sockets and releases everything it holds. */
int32_t omr_svc_cleanup(svc_session *session);

/* ---- Running the session in the application's own event loop ----
 *
 * Instead of lending a thread to ohmara_svc_startup, an application with
 * its own loop (poll, epoll, libuv, GLib...) drives the session by turns:
 *
 *     ohmara_svc_open(s);
 *     for (;;) {
 *         struct ohmara_wait w;
 *         ohmara_svc_getWait(s, &w);
 *         ... wait until one of w.fds is ready for w.events, or w.timeout_ms ...
 *         if (ohmara_svc_turn(s) == 0) break;   after ohmara_svc_shutdown
 *     }
 *     ohmara_svc_close(s);
 *
 * The session behaves as under ohmara_svc_startup, which runs this same
 * loop: the same messages, statuses, callbacks and logs. open, getWait, turn
 * and close are called from one thread, the loop's: the callbacks run on it,
 * inside ohmara_svc_turn. Other threads may make the calls they may make
 * while ohmara_svc_startup runs (ohmara_svc_shutdown among them). */

/** Most descriptors ohmara_svc_getWait reports: the listener and up to 64
 * connections read at once (HARDENED profile). */
#define OHMARA_WAIT_MAX_FDS 65

/** What the session waits for before its next turn. */
struct ohmara_wait {
    int32_t count;                       /**< entries of fds and events in use */
    int32_t fds[OHMARA_WAIT_MAX_FDS];    /**< descriptors; the session owns them */
    int16_t events[OHMARA_WAIT_MAX_FDS]; /**< poll() events for each: POLLIN */
    int32_t timeout_ms; /**< call ohmara_svc_turn after at most this long (0: now) */
};

/**
 * Starts a session in the caller's loop: does what ohmara_svc_startup does
 * before its loop (status INITIALIZING, the listen_port_notify callback,
 * status UP); the first turn sends the first discovery.
 * Call it once, instead of ohmara_svc_startup, on the thread that will make
 * the turns, after the options and callbacks are set.
 * @return 0; -1 (logged) for a null session, a session already started or
 *         opened, or lack of memory (the session is then unchanged).
 */
int32_t ohmara_svc_open(svc_session *session);

/**
 * Tells what the next turn waits for: the descriptors to watch with their
 * poll() events, and the time after which to call ohmara_svc_turn anyway.
 * The time-out is the one the service loop of ohmara_svc_startup waits:
 * until the next discovery update or the end of a connection's receive
 * time-out, at most 500 ms (the session looks at its status that often, so
 * that a shutdown whose wake-up connection failed still ends it). The set
 * changes between turns: ask again before each wait. After the session has
 * stopped, count and timeout_ms are 0.
 * Loop thread only, between ohmara_svc_open and ohmara_svc_close; writes
 * only *wait, logs nothing.
 * @return 0; -1 for a null argument or a session not opened.
 */
int32_t ohmara_svc_getWait(svc_session *session, struct ohmara_wait *wait);

/**
 * One turn of the loop, without blocking: accepts and reads what is ready,
 * serves each whole message (callbacks run here), sends the discovery
 * update when it is due, drops a quiet switch back to UP, and once the
 * status is SHUTDOWN sends the shutdown event and leaves the status DOWN.
 * A turn with nothing to do costs one poll() of the session's descriptors.
 * Loop thread only, between ohmara_svc_open and ohmara_svc_close. Logs as
 * the service loop of ohmara_svc_startup does.
 * @return 1 while the session runs; 0 once it has stopped (call
 *         ohmara_svc_close); -1 for a null session or one not opened.
 */
int32_t ohmara_svc_turn(svc_session *session);

/**
 * Ends a session opened with ohmara_svc_open and frees it, as
 * ohmara_svc_startup does when it returns: if it still runs, status
 * SHUTDOWN, the shutdown event and status DOWN first; then it waits for
 * other threads still inside a call on the session, closes its sockets and
 * frees it. The session pointer is invalid afterwards.
 * Loop thread only.
 * @return 0; -1 for a null session or one not opened (nothing freed).
 */
int32_t ohmara_svc_close(svc_session *session);

/** The application's clock: milliseconds, never going backwards; ctx is the
 * pointer given to ohmara_svc_setClock. */
typedef int64_t (*ohmara_clock_fn)(void *ctx);

/**
 * Gives the session a clock of its own: discovery and retry intervals, the
 * 300 s idle limit, last-heard times and receive time-outs all follow it
 * (a virtual clock lets a test run hours in no time; waits are still made
 * by the loop, so move the clock and call ohmara_svc_turn). NULL restores
 * the library's clock. The session keeps ctx and never frees it; now_ms is
 * called on the loop's thread while the session runs.
 * Call after ohmara_svc_create and before ohmara_svc_startup or
 * ohmara_svc_open, from the thread that created the session.
 * @return 0; -1 (logged) for a null session or one already started.
 */
int32_t ohmara_svc_setClock(svc_session *session, ohmara_clock_fn now_ms, void *ctx);

#ifdef __cplusplus
}
#endif

#endif /* OMSDK_H */
