/* SPDX-License-Identifier: Apache-2.0 */
/**
 * @file omsdk.h
 * @brief The session API: create, configure, run and stop an endpoint.
 *
 * omsdk makes a networked device a managed endpoint of an Ohmara
 * power-management domain.
 *
 * Calling order: make a sender identifier (ohmara_utl_senderId()), create a
 * session (ohmara_svc_create()), configure its identity and callbacks, then
 * lend a thread to ohmara_svc_startup(), which runs until another thread calls
 * ohmara_svc_shutdown() and frees the session when it returns.
 *
 * @par Threads
 * The library creates no threads. A session is configured on the thread that
 * created it, before ohmara_svc_startup(); the loop then runs on the thread
 * that called ohmara_svc_startup() and calls every callback there, except
 * svc_callback_registry::status_changed, which runs on whichever thread made
 * the change. ohmara_svc_getStatus(), ohmara_svc_copyAttribute(), the
 * requests (ohmara_svc_alarmAdd(), ohmara_svc_alarmClearAll(),
 * ohmara_svc_discoveryRefresh()) and ohmara_svc_shutdown() may be called from
 * any thread while the session runs.
 *
 * @par Ownership
 * The application owns a session from ohmara_svc_create() until it hands it
 * to ohmara_svc_startup(), which frees it when it returns, or to
 * omr_svc_cleanup(). The callback table is not copied: it must outlive the
 * session. ohmara_svc_getAttribute() returns a pointer into the session.
 *
 * @par What the library writes to standard output (reference behaviour)
 * These behaviours are kept as they are; an application deals with them in
 * a few lines.
 * - It logs to standard output, at INFO, by default (see omsdk/log.h).
 * - ohmara_svc_create() prints one line per HMAC context it keys, such as
 *   `@@@@@@@@@@@@@@@ ohmara_svc_create hmac_shainit key_context=5a6b7c80`,
 *   and the handshake prints one more when it re-keys the nonce context.
 *   These lines go to standard output with printf(), end without a newline
 *   and ignore the log settings: the application's next line starts behind
 *   them.
 * - Every acknowledgement the switch sends while the session is ACTIVE
 *   (about every 180 seconds) logs an ERROR,
 *   `om_setStatusActive: bad status state transition from state 3`.
 *   Nothing is wrong.
 * - ohmara_svc_configRegistry() logs a WARN for each optional callback left
 *   unset (attribute_modified, listen_port_notify).
 *
 * The two-line fix, before the first session is created (the log settings
 * are process-wide):
 * @code
 * setLogFile(stderr);           // the log leaves standard output
 * setLogLevel(OHMARA_LOG_WARN); // or OHMARA_LOG_FATAL: drops the ERROR per acknowledgement too
 * @endcode
 * or a log callback that takes every line: setLogCallback() and
 * enableLogCallback(1). For the unterminated lines, print a newline after
 * ohmara_svc_create(), or keep a duplicate of standard output for the
 * application's own lines and point standard output at standard error.
 *
 * @par Exported names without a prefix
 * Besides its `ohmara_`, `om_`, `omr_` and `cv_` functions the library
 * exports about 60 functions whose names carry no prefix of its own:
 * among them enqueue(), dequeue() and the other queue calls
 * (omsdk/queue.h), closeSocket() and the socket helpers (omsdk/socket.h),
 * strlcat() (omsdk/utility.h), the UUID helpers (omsdk/uuid.h), the HMAC
 * calls (omsdk/hmac.h), the log controls (omsdk/log.h) and a few internal
 * ones (new_svc_session, secondsToWait, sendDiscoveryEvent, ...).
 * `nm -D --defined-only libomsdk.so.0` lists them all. A program that
 * defines a function of one of these names still links: the dynamic linker
 * takes the program's definition first, for every caller, and in a static
 * link the library's definitions are weak. For 26 of the names the library
 * calls its exported function itself, so it then calls the program's
 * function instead of its own (closeSocket(), generateUuid(), getLogLevel(),
 * hmac_shainit(), sendDiscoveryEvent(), waitfor_tcp_connect(), ...), which
 * changes what the library does: give such a function another name or make
 * it `static`.
 * strlcat() is the exception most programs meet (glibc 2.38 and later
 * declare one): the library never calls it, so a program's own strlcat()
 * serves the program and cannot change the library. A program that defines
 * none and links `-lomsdk` may reach the library's strlcat(), whose result
 * differs from the usual one (see strlcat()).
 */
#ifndef OMSDK_H
#define OMSDK_H

#include <stdint.h>
#include <stdio.h>

#include <omsdk/enums.h>
#include <omsdk/enum_names.h>
#include <omsdk/log.h>
#include <omsdk/observe.h>
#include <omsdk/utility.h>
#include <omsdk/version.h>

#ifdef __cplusplus
extern "C" {
#endif

/** Session status, reported through svc_callback_registry::status_changed and
 *  returned by ohmara_svc_getStatus(). A session goes DOWN (created) ->
 *  INITIALIZING (ohmara_svc_startup()) -> UP (the loop runs, discovery is
 *  broadcast) -> ACTIVE (the switch acknowledged) -> SHUTDOWN
 *  (ohmara_svc_shutdown()) -> DOWN; ACTIVE drops back to UP after more than
 *  300 seconds without an acknowledgement. */
typedef enum ohmara_svc_status {
    OHMARA_STATUS_DOWN = 0,
    OHMARA_STATUS_UP = 1,
    OHMARA_STATUS_INITIALIZING = 2,
    OHMARA_STATUS_ACTIVE = 3,
    OHMARA_STATUS_SHUTDOWN = 4
} ohmara_svc_status;

/** Attribute ids: for ohmara_svc_getAttribute() and ohmara_svc_copyAttribute(),
 *  and the codes passed to svc_callback_registry::attribute_modified after a
 *  SET from the switch. */
typedef enum ohmara_attribute {
    OHMARA_ATTR_ROLE = 2,
    OHMARA_ATTR_DOMAIN = 3,
    OHMARA_ATTR_NAME = 4,
    OHMARA_ATTR_KEYWORDS = 5,
    OHMARA_ATTR_LEVEL = 9,
    OHMARA_ATTR_IMPORTANCE = 10,
    OHMARA_ATTR_DEVICE_TYPE = 21
} ohmara_attribute;

/** A session: one endpoint, its sockets, identity and state. Opaque to
 *  applications; made by ohmara_svc_create(). */
typedef struct svc_session svc_session;

/** The application's callbacks. The table is not copied and must outlive the
 *  session; slots get_units to next_sequence are required, the rest optional
 *  (NULL: not called). The loop calls them on its own thread, without the
 *  session's lock held, except status_changed (see there). Values are in
 *  host byte order. */
/* clang-format off: one callback a line, aligned */
typedef struct svc_callback_registry {
    uint8_t (*get_units)(void);  /**< units of the usage values */
    uint16_t (*get_usage)(void); /**< the current usage */
    /** how the usage is known (cv_corvane_usage_caliber) */
    uint32_t (*get_usage_caliber)(void);
    /** producer, meter or consumer (cv_corvane_usage_category) */
    uint32_t (*get_usage_category)(void);
    uint8_t (*get_level)(void);                    /**< the current power level */
    int32_t (*set_level)(uint8_t level);           /**< negative = refused */
    void (*get_usage_vector)(uint16_t vector[11]); /**< host order, 22 bytes */
    void (*get_delta_vector)(int32_t vector[11]);  /**< host order, 44 bytes */
    /** sequence number of the next discovery message */
    uint32_t (*next_sequence)(void);
    void (*attribute_modified)(
        int32_t attribute); /**< after a SET: 2 role, 4 name, 5 keywords, 9 level, 10 importance */
    void (*listen_port_notify)(uint16_t port); /**< host order; called by ohmara_svc_startup() */
    /** 0 DOWN 1 UP 2 INITIALIZING 3 ACTIVE 4 SHUTDOWN. Called after the session's
     *  lock is released, on the thread that made the change: usually the loop's,
     *  the caller of ohmara_svc_shutdown() for SHUTDOWN. It may call
     *  ohmara_svc_getStatus(). */
    void (*status_changed)(int32_t status);
    /** The switch's answer to a request posted with ohmara_svc_alarmAdd() and
     *  the like: success 1 answered, 0 refused or not answered. */
    void (*alarm_reply)(int32_t request_id, uint32_t request_type, int32_t success);
} svc_callback_registry;
/* clang-format on */

/**
 * @name Creating and configuring a session
 * Called in this order from the thread that creates the session, before
 * ohmara_svc_startup(). None of them takes the session's lock unless said.
 * @{
 */

/**
 * Creates a session: opens its UDP socket bound to @p local_address (port
 * chosen by the system), opens and binds its TCP listener, and keys its HMAC
 * contexts. The session starts DOWN; nothing is sent before
 * ohmara_svc_startup().
 *
 * @param local_address  IPv4 address in dotted text, the session's own.
 * @param port           UDP protocol port that discovery broadcasts go to;
 *                       0 means the default, 43440.
 * @param sender_id      The 32 characters ohmara_utl_senderId() writes; only
 *                       those 32 are read. A shorter text is taken as it is
 *                       and zero-padded to 32 bytes, with a warning.
 * @param key            Secret shared within the domain, copied into the
 *                       session (the caller keeps its buffer). NULL or
 *                       @p key_len below 1: the sender identifier serves as
 *                       the key.
 * @param key_len        Length of @p key in bytes.
 * @param listen_port    TCP port where the switch connects; 0 for any free
 *                       one (reported by svc_callback_registry::listen_port_notify).
 * @return The new session, owned by the caller until it is passed to
 *         ohmara_svc_startup() (which frees it) or omr_svc_cleanup(); NULL
 *         when @p sender_id or @p local_address is NULL, the address does
 *         not parse, memory runs out, a socket cannot be opened or bound,
 *         or the listener cannot listen. Each failure is logged (FATAL for
 *         the arguments and memory, ERROR for the sockets).
 *
 * Any thread may call it. It prints one unterminated line
 * `@@@@@@@@@@@@@@@ ohmara_svc_create hmac_shainit ...` to standard output
 * per HMAC context it keys (two without a key, one with), whatever the log
 * settings. The local nonce of the reference profile is taken from the
 * process's rand(): an application that wants it to differ between starts
 * calls srand() first (the HARDENED profile draws it from the system).
 */
svc_session *ohmara_svc_create(const char *local_address, uint16_t port, const char *sender_id,
                               const uint8_t *key, int32_t key_len, uint16_t listen_port);
/**
 * Copies the device's identity into the session. Domain, name, role and
 * keywords take letters, digits and ``~!@#$%^&()_-+={}[]\:.,></`` (a role
 * may also hold blanks). An invalid name or role is replaced by the default
 * (logged at INFO), invalid keywords by an empty list and an importance
 * outside 1..100 by 1 (both logged at WARN); a NULL device type becomes the
 * default one (WARN).
 *
 * @return 0 when stored; -1 (logged, the previous identity kept) for a NULL
 *         session (not logged), a refused domain (WARN), lack of memory
 *         (ERROR), or an identity whose discovery message would exceed the
 *         1400-byte message limit (ERROR naming the longest text): domain,
 *         name, role and keywords together may hold at most 962 characters.
 *
 * Call it before ohmara_svc_startup(). The texts are copied; the session's
 * previous texts are freed, so a pointer ohmara_svc_getAttribute() returned
 * earlier is no longer valid.
 */
int32_t ohmara_svc_configIdentity(svc_session *session, const char *domain, const char *name,
                                  const char *role, const char *keywords, const char *device_type,
                                  uint8_t importance);
/**
 * Gives the session the application's callback table.
 *
 * @return 0 when accepted; -1 for a NULL registry (logged at ERROR), a NULL
 *         session (not logged), or a required slot (get_units to
 *         next_sequence) left NULL: the first such slot is logged at ERROR,
 *         for example `GET units callback handler not initialized properly`,
 *         and the previous table stays.
 *
 * The table is not copied: it must stay valid and unchanged until the
 * session is freed. Each unset optional slot attribute_modified or
 * listen_port_notify is logged at WARN, although the session works without
 * it. Call it before ohmara_svc_startup().
 */
int32_t ohmara_svc_configRegistry(svc_session *session, svc_callback_registry *registry);
/**
 * Sets the power source that every message announces: 1 mains, any other
 * value "other" (stored as 0).
 *
 * @return 0, or -1 for a NULL session. Nothing is logged. Call it before
 *         ohmara_svc_startup().
 */
int32_t ohmara_svc_configPowerSource(svc_session *session, uint32_t source);
/**
 * Sets the time between discovery updates while ACTIVE (180 seconds by
 * default). The value is stored whatever it is, also a shorter one.
 *
 * @return 1 when @p seconds is 180 or more; 0 when it is shorter (stored
 *         all the same) or the session is NULL. Note that 0, unlike in the
 *         other calls, is not success. Nothing is logged.
 *
 * Call it before ohmara_svc_startup(): the loop reads it without a lock.
 */
int32_t ohmara_svc_setDiscoveryInterval(svc_session *session, int32_t seconds);
/**
 * Sets (@p on non-zero) or clears a bit of the nanny vector that discovery
 * announces. The application has one bit, 0 (the vector's position 5,
 * "no metering"): with it set, discovery updates and GET replies leave the
 * usage values out.
 *
 * @return 0, or -1 for a NULL session or any other bit. Nothing is logged.
 *         Call it before ohmara_svc_startup().
 */
int32_t ohmara_svc_setNannyFunctionBit(svc_session *session, uint32_t bit, uint8_t on);

/** @} */

/**
 * @name Running
 * @{
 */

/**
 * Runs the session on the calling thread: calls
 * svc_callback_registry::listen_port_notify with the listener's port, goes
 * INITIALIZING then UP, broadcasts discovery until the switch acknowledges
 * (ACTIVE), answers its queries, and returns once ohmara_svc_shutdown() has
 * set SHUTDOWN. Before returning it broadcasts a discovery delete, goes
 * DOWN, and FREES THE SESSION: the handle must not be used after this call
 * returns (by any thread; calls that take a freed handle other than
 * ohmara_svc_shutdown() and the requests are undefined).
 *
 * @return 0 after the loop ended and the session was freed; -1 for a NULL
 *         session (nothing done).
 *
 * Call it once per session, after the configuration calls, on the thread
 * lent to the library (the loop's thread); every callback except
 * status_changed for SHUTDOWN runs on it. It logs at INFO
 * `*Ohmara status:  UP, starting discovery...`, the handshake and the
 * queries.
 */
int32_t ohmara_svc_startup(svc_session *session);
/**
 * The session's status, an ::ohmara_svc_status value.
 *
 * @return 0 DOWN, 1 UP, 2 INITIALIZING, 3 ACTIVE, 4 SHUTDOWN; -1 for a NULL
 *         session.
 *
 * Any thread may call it, also from svc_callback_registry::status_changed,
 * as long as the session exists: it reads under the session's lock but does
 * not check that the handle is still live, so it must not be called once
 * ohmara_svc_startup() has returned. Nothing is logged.
 */
int32_t ohmara_svc_getStatus(svc_session *session);

/** @} */

/**
 * @name Attributes
 * @{
 */

/**
 * Where the session keeps an attribute, and its length.
 *
 * @param session  The session.
 * @param id       An ::ohmara_attribute value.
 * @param length   Receives the length in bytes: texts with their NUL, the
 *                 importance 1 byte (the low-order byte of the stored value
 *                 on little-endian hosts); 0 when NULL is returned.
 * @return A pointer into the session's own storage, or NULL with *length 0
 *         for an id the session does not keep (level: ask the
 *         application's callback), and NULL for a NULL session or length.
 *         A text not set yet falls through to the next one of domain,
 *         keywords, name, role, ending at the importance: before
 *         ohmara_svc_configIdentity() the domain's id returns the
 *         importance byte, not NULL.
 *
 * The pointer belongs to the session: a SET from the switch frees and
 * replaces the text on the loop's thread, and ohmara_svc_configIdentity()
 * replaces them all. So call it only on the loop's thread (inside a
 * callback) or before ohmara_svc_startup(), and use the value before
 * returning from the callback. Other threads use ohmara_svc_copyAttribute().
 * Nothing is logged.
 */
const void *ohmara_svc_getAttribute(svc_session *session, int32_t id, uint32_t *length);

/**
 * Copies the attribute ohmara_svc_getAttribute() would return into the
 * caller's buffer, under the session's lock; any thread may call it while
 * the session runs (not after ohmara_svc_startup() has returned).
 *
 * @return 0 with the bytes copied in *length (texts with their NUL).
 *         -1 and nothing copied: when the session or @p length is NULL;
 *         with *length 0 when @p buffer is NULL with a @p size above 0 or
 *         the id is unknown; with *length the size needed when the value
 *         does not fit (so a NULL buffer with size 0 asks for the size).
 *
 * The caller owns @p buffer. Nothing is logged.
 */
int32_t ohmara_svc_copyAttribute(svc_session *session, int32_t id, void *buffer, uint32_t size,
                                 uint32_t *length);

/** @} */

/**
 * @name Requests to the switch
 * A request waits in the session's single slot until the loop's next
 * discovery update carries it; the call wakes the loop so that this happens
 * at once. Any thread may post one while the session runs; a handle that
 * is not a live session (NULL, or freed by ohmara_svc_startup()) is not
 * dereferenced and gives -1.
 * @{
 */

/**
 * Asks the switch for an alarm in @p seconds with two parameters. The
 * answer comes through svc_callback_registry::alarm_reply on the loop's
 * thread, with the request's id (the session's request counter, starting
 * at 1).
 *
 * @return 0 when posted; -1 when the session is not live, not ACTIVE
 *         (logged at INFO: `status is not connected`) or an earlier request
 *         is still pending (INFO: `request already pending`). Lack of memory
 *         is reported with perror() and the call still returns 0.
 */
int32_t ohmara_svc_alarmAdd(svc_session *session, uint32_t seconds, uint8_t first, uint8_t second);
/**
 * Asks the switch to clear all of this endpoint's alarms. The request
 * carries the id -1 and leaves the request counter as it is.
 *
 * @return as ohmara_svc_alarmAdd().
 */
int32_t ohmara_svc_alarmClearAll(svc_session *session);
/**
 * Asks the switch to refresh its view of this endpoint (a discovery
 * refresh); it takes the next request id.
 *
 * @return as ohmara_svc_alarmAdd().
 */
int32_t ohmara_svc_discoveryRefresh(svc_session *session);

/** @} */

/**
 * @name Stopping
 * @{
 */

/**
 * Asks the loop to stop: sets SHUTDOWN (status_changed runs on the calling
 * thread) and wakes the loop with a connection to its own listener; the loop
 * also notices the status by itself within a second. Wait for
 * ohmara_svc_startup() to return (pthread_join()) to know that the session
 * is gone.
 *
 * SHUTDOWN is accepted only from UP or ACTIVE. Before the loop is UP (a
 * fraction of a second after ohmara_svc_startup() is called) the change is
 * refused and logged at ERROR
 * (`om_setStatusShutdown: bad status state transition from state 2`), the
 * loop keeps running, and yet the result is 0 when the wake-up connection
 * was made. An application that may stop that early calls it again until
 * status_changed reports SHUTDOWN (or ohmara_svc_getStatus() returns 4), as
 * omsdk-endpoint does.
 *
 * @return 0 when the wake-up connection was made; -1 for a handle that is
 *         not a live session (NULL, never created, or already freed by
 *         ohmara_svc_startup(): such a handle is not dereferenced), or when
 *         the wake-up socket could not be created, bound or connected
 *         (logged at ERROR or WARN; SHUTDOWN is set all the same and the
 *         loop ends within a second).
 *
 * Call it from any thread other than the loop's, while the session runs.
 */
int32_t ohmara_svc_shutdown(svc_session *session);

/** @} */

/**
 * @name Options beyond the reference behaviour
 * Each is called after ohmara_svc_create() and before ohmara_svc_startup(),
 * from the thread that created the session; each returns 0 when applied
 * and -1 for a NULL session (not logged), a bad argument or a session
 * already started (logged at ERROR: `session already started`).
 * @{
 */

/** Security profiles. REFERENCE (the default) behaves exactly as the protocol
 * describes, for switches that expect it. HARDENED closes that behaviour's
 * weaknesses: the local nonce comes from the operating system's random
 * source; an acknowledgement must be newer than the last one accepted and
 * answer a discovery this endpoint sent; the listener binds the session's
 * local address and, once ACTIVE, accepts only the parent switch (and the
 * addresses given to ohmara_svc_allowPeer()); several connections are read at
 * once, each against its own deadline; the listen backlog is raised. */
typedef enum ohmara_svc_profile {
    OHMARA_PROFILE_REFERENCE = 0,
    OHMARA_PROFILE_HARDENED = 1
} ohmara_svc_profile;
/**
 * Selects the security profile (::ohmara_svc_profile). Choosing HARDENED
 * draws a new local nonce from the system; changing the profile reopens the
 * listener on the same port (bound to the local address under HARDENED, to
 * any address under REFERENCE).
 *
 * @return 0 when applied; -1 for a NULL or started session, an unknown
 *         profile (ERROR `unknown profile N`), no random nonce (ERROR), or a
 *         listener that could not be reopened (ERROR; the session then has
 *         no listener and should be freed with omr_svc_cleanup()).
 */
int32_t ohmara_svc_setProfile(svc_session *session, uint32_t profile);

/** Most addresses ohmara_svc_allowPeer() accepts. */
#define OHMARA_MAX_ALLOWED_PEERS 8
/**
 * Adds an IPv4 address (dotted text) that may connect besides the parent
 * switch under the HARDENED profile, at most ::OHMARA_MAX_ALLOWED_PEERS.
 * The text is parsed, not kept. Under REFERENCE the list is kept but not
 * used.
 *
 * @return 0 when added; -1 for a NULL or started session, a NULL address,
 *         a text that is not an IPv4 address (ERROR) or a full list (ERROR).
 */
int32_t ohmara_svc_allowPeer(svc_session *session, const char *address);

/**
 * Sets the listen backlog (default 10; the HARDENED profile raises it to 128
 * unless set here). 1 to 4096. Takes effect at once.
 *
 * @return 0 when applied; -1 for a NULL or started session, a value out of
 *         range (ERROR) or a failed listen() (ERROR).
 */
int32_t ohmara_svc_setListenBacklog(svc_session *session, int32_t backlog);

/**
 * For many sessions in one process: with @p on not 0 the session closes the
 * UDP socket ohmara_svc_create() opened and from then on opens one for each
 * discovery datagram it sends (bound to the session's local address on a
 * port the system chooses, with the same options) and closes it again, so
 * that it holds one descriptor fewer while it runs. What is sent is the
 * same; only the datagrams' source port differs from one to the next. With
 * @p on 0 (the default) the session keeps its own socket; turning the option
 * off again opens one.
 *
 * A datagram whose socket cannot be opened is not sent: WARN `no socket for
 * a datagram on ADDRESS (errno:text)`, and the sender sees it fail as a
 * failed send.
 *
 * @return 0 when applied; -1 for a NULL or started session, or when turning
 *         the option off cannot open the socket (ERROR `no datagram socket
 *         on ADDRESS (errno:text)`).
 */
int32_t ohmara_svc_setDatagramOnDemand(svc_session *session, int32_t on);

/** @} */

/**
 * @name Freeing a session that never ran
 * @{
 */

/**
 * Frees a session that was never started (ohmara_svc_startup() frees the
 * sessions it ran): closes its sockets and releases everything it holds.
 *
 * @return 0, or -1 for a NULL session. Nothing is logged.
 *
 * Call it from the thread that created the session, instead of
 * ohmara_svc_startup(); never on a session that is running or that
 * ohmara_svc_startup() has freed.
 */
int32_t omr_svc_cleanup(svc_session *session);

/** @} */

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

/**
 * The application's callbacks with a context: the same slots as
 * svc_callback_registry, each called with the pointer given to
 * ohmara_svc_configRegistryWithContext first, so that one set of functions
 * serves many sessions (each with its own device behind it).
 */
/* clang-format off: one callback a line, aligned */
typedef struct ohmara_svc_ctx_registry {
    uint8_t (*get_units)(void *ctx);
    uint16_t (*get_usage)(void *ctx);
    uint32_t (*get_usage_caliber)(void *ctx);
    uint32_t (*get_usage_category)(void *ctx);
    uint8_t (*get_level)(void *ctx);
    int32_t (*set_level)(void *ctx, uint8_t level);           /**< negative = refused */
    void (*get_usage_vector)(void *ctx, uint16_t vector[11]); /**< host order */
    void (*get_delta_vector)(void *ctx, int32_t vector[11]);  /**< host order */
    uint32_t (*next_sequence)(void *ctx);
    void (*attribute_modified)(void *ctx, int32_t attribute);
    void (*listen_port_notify)(void *ctx, uint16_t port); /**< host order */
    void (*status_changed)(void *ctx, int32_t status);
    void (*alarm_reply)(void *ctx, int32_t request_id, uint32_t request_type, int32_t success);
} ohmara_svc_ctx_registry;
/* clang-format on */

/**
 * Sets the session's callbacks from a table that passes `ctx` to each; it
 * replaces a table set by ohmara_svc_configRegistry (and that call replaces
 * this one). The same slots are required (get_units to next_sequence) and
 * the same lines logged for missing ones as with ohmara_svc_configRegistry.
 * The table and whatever ctx points to must outlive the session; the
 * session never frees either. The callbacks run on the thread that runs the
 * session's loop (ohmara_svc_startup or ohmara_svc_turn), status_changed also
 * on a thread that calls ohmara_svc_shutdown.
 * Call before ohmara_svc_startup or ohmara_svc_open, from the thread that
 * created the session.
 * @return 0; -1 (logged) for a null table or a required slot left empty,
 *         -1 for a null session; the previous table is then kept.
 */
int32_t ohmara_svc_configRegistryWithContext(svc_session *session,
                                             const ohmara_svc_ctx_registry *registry, void *ctx);

#ifdef __cplusplus
}
#endif

#endif /* OMSDK_H */
