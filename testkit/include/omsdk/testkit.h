/* SPDX-License-Identifier: Apache-2.0 */
/*
 * omsdk test kit: the parent switch inside a unit test.
 *
 * The kit takes a session the application created and configured (its
 * identity and callbacks), runs the library's own code for it on the test's
 * thread, with no thread of its own and no network, and plays the switch:
 * handshake, GET and SET queries, answers to alarm requests, discovery
 * deletes, silence. Time is virtual: the session reads the kit's clock,
 * which moves only when the test calls ohmara_tk_advance, so a 300-second
 * time-out takes microseconds.
 *
 * Every message the session sends is decoded and its digest checked with
 * the session's keys, as a switch would; a message that does not verify is
 * a failure. Calls return plain values; after a failure
 * ohmara_tk_lastError tells what went wrong in words.
 *
 * Threads: a kit and its session belong to the thread that created the kit;
 * call everything from that thread, and the session's own calls too
 * (callbacks run inside the kit's calls, on that thread). Kits of different
 * sessions are independent and may live on different threads.
 *
 * Logging: the kit logs nothing itself; the session logs through the
 * library's log as it always does (setLogLevel quiets it).
 *
 * Link with libomsdk-testkit and libomsdk (pkg-config omsdk-testkit).
 */
#ifndef OMSDK_TESTKIT_H
#define OMSDK_TESTKIT_H

#include <stdint.h>

#include <omsdk.h>

#ifdef __cplusplus
extern "C" {
#endif

typedef struct ohmara_tk ohmara_tk; /* opaque */

/* How the kit's switch answers the session's alarm requests. */
typedef enum ohmara_tk_alarm_answer {
    OHMARA_TK_ALARM_OK = 0,     /* accepted (the default) */
    OHMARA_TK_ALARM_FAILED = 1, /* refused */
    OHMARA_TK_ALARM_IGNORE = 2  /* not answered: the session gives up later */
} ohmara_tk_alarm_answer;

/* One alarm request the session sent (ohmara_svc_alarmAdd,
 * ohmara_svc_alarmClearAll), as the switch decoded it. */
typedef struct ohmara_tk_alarm {
    uint32_t seconds;
    uint8_t first;     /* ohmara_svc_alarmAdd's `first` */
    uint8_t second;    /* ohmara_svc_alarmAdd's `second` */
    int32_t id;        /* the request id the session gave it */
    int32_t operation; /* 1 set, 4 clear all */
    int32_t answered;  /* the answer the switch sent: 2 ok, 3 failed, 0 none */
} ohmara_tk_alarm;

/**
 * Creates a test switch for `session` and takes the session over.
 *
 * `session` comes from ohmara_svc_create (local address 127.0.0.1 or
 * another loopback address; the kit sends nothing on the network) and is
 * configured but not started. From here on the kit runs it and frees it in
 * ohmara_tk_destroy: do not start, shut down or clean it up yourself.
 * `key`/`key_len`: the shared key the session was created with (copied).
 * `endpoint_id`: the 32-character sender identifier the session announces;
 * a session announcing another one fails the handshake.
 *
 * The virtual clock starts at 1,000,000 seconds and the session starts at
 * once (status UP); its first discovery event goes out at the first turn of
 * its loop (ohmara_tk_handshake or ohmara_tk_advance). The switch hears
 * discovery but answers none before ohmara_tk_handshake.
 *
 * @return the kit, or NULL (a NULL argument, a key_len of 0 or above 255,
 *         an identifier not 32 characters long, a session already started
 *         or lack of memory; the session is then left to the caller).
 *         ohmara_tk_lastError(NULL) then tells why, on this thread.
 */
ohmara_tk *ohmara_tk_create(svc_session *session, const uint8_t *key, int32_t key_len,
                            const char *endpoint_id);

/**
 * Shuts the session down (its last discovery event, a delete, goes to the
 * switch), frees it and the kit. NULL is ignored.
 */
void ohmara_tk_destroy(ohmara_tk *kit);

/**
 * What the last failed call of this kit went wrong with, in words; "" when
 * none failed yet. The text is the kit's and valid until its next call.
 * With NULL: why the last ohmara_tk_create of this thread returned NULL.
 */
const char *ohmara_tk_lastError(const ohmara_tk *kit);

/**
 * Acknowledges the session's discovery events until both sides know each
 * other's nonce. Runs a turn of the session's loop now and, while the
 * handshake is not done, moves the clock a second at a time (at most 600
 * seconds) so that the session's next discovery event comes.
 * @return 0 when the session is ACTIVE with the switch; -1 otherwise.
 */
int32_t ohmara_tk_handshake(ohmara_tk *kit);

/**
 * GET of one attribute, named as omsdk-switch names it: "level", "usage",
 * "units", "caliber", "category", "importance", "name", "role",
 * "keywords", "device-type" (ohmara_tk_getNumber or ohmara_tk_getText) and
 * "usage-vector", "delta-vector" (ohmara_tk_getVector).
 * Each returns 0 with the decoded value, or -1 (nothing written) when the
 * query failed, the reply does not verify, the attribute is unknown or of
 * the other kind, or (getText) the text with its NUL does not fit `size`.
 */
int32_t ohmara_tk_getNumber(ohmara_tk *kit, const char *attribute, int64_t *value);
int32_t ohmara_tk_getText(ohmara_tk *kit, const char *attribute, char *text, uint32_t size);
/** Writes up to `max` numbers into `values` and their count in *count;
 * -1 (nothing written) as above, or when the vector has more than `max`. */
int32_t ohmara_tk_getVector(ohmara_tk *kit, const char *attribute, int64_t *values, uint32_t max,
                            uint32_t *count);

/**
 * SET of one attribute, written "level=3", "name=hall lamp", "keywords=a,b",
 * "importance=40", "role=..." ("name=" asks for the default).
 * @return 1 when the session accepted it, 0 when it refused it (its
 *         set_level callback said no, or the value is out of range), -1
 *         when the query failed (see ohmara_tk_lastError).
 */
int32_t ohmara_tk_set(ohmara_tk *kit, const char *assignment);

/**
 * How the switch answers alarm requests from now on. 0, or -1 for an
 * unknown answer.
 */
int32_t ohmara_tk_answerAlarms(ohmara_tk *kit, int32_t answer);

/**
 * Takes the oldest alarm request the switch received and not yet handed
 * out. Alarm requests travel in discovery updates: after
 * ohmara_svc_alarmAdd, move the clock (ohmara_tk_advance) or call
 * ohmara_tk_run so that the session sends one.
 * @return 1 with *alarm filled, 0 when there is none, -1 for NULL.
 */
int32_t ohmara_tk_nextAlarm(ohmara_tk *kit, ohmara_tk_alarm *alarm);

/**
 * Runs the session's loop at the present virtual time until it has nothing
 * more to do (at most 16 turns): what the application asked for on its own
 * (ohmara_svc_alarmAdd, ohmara_svc_discoveryRefresh wake the loop) goes out
 * now and the switch answers it. 0, or -1 when the session's loop failed.
 */
int32_t ohmara_tk_run(ohmara_tk *kit);

/**
 * Sends a discovery delete: the switch forgets the session, which goes
 * back to UP and announces itself again. 0, or -1 when it could not be
 * sent (no handshake yet).
 */
int32_t ohmara_tk_sendDelete(ohmara_tk *kit);

/**
 * Silent (on non-zero): the switch hears the session's discovery events
 * but acknowledges none and sends no query (GET and SET fail), as a switch
 * that went away. 0 always (-1 for NULL).
 */
int32_t ohmara_tk_setSilent(ohmara_tk *kit, int32_t on);

/**
 * Moves the virtual clock by `seconds`, one second at a time, running the
 * session's loop at each step: discovery updates fall due, the switch
 * acknowledges them (unless silent), alarm requests are answered, and a
 * session that heard nothing for 300 seconds drops back to UP.
 * @return 0, or -1 when the session's loop failed.
 */
int32_t ohmara_tk_advance(ohmara_tk *kit, uint32_t seconds);

/** The virtual clock, in seconds. */
int64_t ohmara_tk_now(const ohmara_tk *kit);

/** Discovery events the switch heard from the session so far. */
uint32_t ohmara_tk_discoveries(const ohmara_tk *kit);

/**
 * Everything the switch and the session exchanged so far, decoded, one
 * message a line ("> " sent by the switch, "< " by the session), without
 * what changes from run to run (sequence numbers, nonces, addresses,
 * digests). Writes at most `size` bytes with a NUL; returns the length of
 * the whole text (so a NULL text with size 0 asks for the size), -1 for a
 * NULL kit.
 */
int32_t ohmara_tk_transcript(const ohmara_tk *kit, char *text, uint32_t size);

#ifdef __cplusplus
}
#endif

#endif /* OMSDK_TESTKIT_H */
