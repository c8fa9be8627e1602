/* SPDX-License-Identifier: Apache-2.0 */
/**
 * @file omsdk/observe.h
 * @brief Observing a running session: counters, events, packet capture.
 *
 * Its counters, an event callback for every rejected message and status
 * change, and a packet capture of its traffic. Nothing here changes what the
 * session sends. Included by omsdk.h.
 */
#ifndef OMSDK_OBSERVE_H
#define OMSDK_OBSERVE_H

#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

struct svc_session;

/** Why a message was rejected: the reason of an OHMARA_EVENT_REJECTED event
 * and the index of the rejected_* counters. */
typedef enum ohmara_reason {
    OHMARA_REASON_NONE = 0,
    OHMARA_REASON_BAD_SECURITY_HEADER = 1, /**< not HMAC-SHA1 with a 20-byte digest */
    OHMARA_REASON_BAD_DIGEST = 2,          /**< signed with another key, or altered */
    OHMARA_REASON_MALFORMED = 3,           /**< lengths, TLVs or a required TLV wrong */
    OHMARA_REASON_STALE_SEQUENCE = 4,      /**< sequence number not newer than the last */
    OHMARA_REASON_FILTERED = 5,            /**< the query's selectors leave this endpoint out */
    OHMARA_REASON_OVERSIZED = 6,           /**< announces more than the message limit */
    OHMARA_REASON_RECEIVE_TIMEOUT = 7,     /**< did not arrive whole in time */
    OHMARA_REASON_UNEXPECTED_CLASS = 8,    /**< a class this endpoint does not take */
    OHMARA_REASON_COUNT = 9
} ohmara_reason;

/** The session's counters, as ohmara_svc_getCounters copies them. Every
 * field is a uint64_t; later versions append fields, never reorder them. */
struct ohmara_counters {
    uint64_t discovery_sent;       /**< discovery datagrams sent (broadcast or unicast) */
    uint64_t connections_accepted; /**< connections read from (own wake-ups not counted) */
    uint64_t connections_refused;  /**< connections closed unread (not admitted, no room) */
    uint64_t messages_received;    /**< = messages_accepted + every rejected_* counter */
    uint64_t messages_accepted;    /**< authenticated, in sequence, handled */
    uint64_t rejected_bad_security_header;
    uint64_t rejected_bad_digest;
    uint64_t rejected_malformed;
    uint64_t rejected_stale_sequence;
    uint64_t rejected_filtered;
    uint64_t rejected_oversized;
    uint64_t rejected_receive_timeout;
    uint64_t rejected_unexpected_class;
    uint64_t get_answered;               /**< GET queries answered with a reply */
    uint64_t set_accepted;               /**< SET queries applied (acknowledged WILL) */
    uint64_t set_refused;                /**< SET queries refused (acknowledged WONT) */
    uint64_t acks_sent;                  /**< acknowledgements sent to the switch */
    uint64_t alarms_sent;                /**< alarm requests carried by discovery updates */
    uint64_t alarms_answered;            /**< answers to them received (ok or failed) */
    uint64_t handshakes_completed;       /**< nonce exchanges that keyed the session */
    uint64_t seconds_since_switch_heard; /**< since the last authenticated message;
                                            UINT64_MAX when none yet */
    uint64_t parent_address;             /**< the parent switch's IPv4 address in host
                                            order (0 when none yet) */
    uint64_t parent_port;                /**< its discovery port, host order */
};

/** Copies the session's counters into *out: min(size, sizeof(struct
 * ohmara_counters)) bytes, so that a program built against an older, shorter
 * struct gets what it knows. Any thread may call it at any time while the
 * session exists (the counters are read one by one: they need not add up
 * exactly while messages are being handled). The caller owns *out.
 * Logs nothing. Returns 0, or -1 when session or out is NULL. */
int32_t ohmara_svc_getCounters(struct svc_session *session, struct ohmara_counters *out,
                               size_t size);

/** The kinds of ohmara_event. */
typedef enum ohmara_event_kind {
    OHMARA_EVENT_REJECTED = 1,      /**< a message was rejected: reason, peer, text */
    OHMARA_EVENT_STATUS_CHANGED = 2 /**< the session's status changed: status */
} ohmara_event_kind;

/** One event, valid only during the callback (the text is not the
 * callback's to keep). */
struct ohmara_event {
    int32_t kind;     /**< ohmara_event_kind */
    int32_t reason;   /**< REJECTED: an ohmara_reason; otherwise OHMARA_REASON_NONE */
    int32_t status;   /**< STATUS_CHANGED: the new ohmara_svc_status; otherwise -1 */
    uint32_t peer;    /**< REJECTED: the sender's IPv4 address, network order, 0 when
                         unknown; otherwise 0 */
    const char *text; /**< a short human text, never NULL */
};

/** The event callback: ctx as given to ohmara_svc_setEventCallback. */
typedef void (*ohmara_event_callback)(void *ctx, const struct ohmara_event *ev);

/** Sets (cb NULL: removes) the session's event callback. It is called for
 * every rejected message, after the matching counter has grown, and for
 * every status change, all on the loop's thread (the change to SHUTDOWN
 * that ohmara_svc_shutdown makes on another thread is told when the loop
 * takes it up, before the shutdown event goes out). It must not
 * block and must not call ohmara_svc_setEventCallback. Any thread may call
 * this at any time while the session exists; a callback already running
 * finishes with the old pointer. ctx stays the caller's. Logs nothing.
 * Returns 0, or -1 when session is NULL. */
int32_t ohmara_svc_setEventCallback(struct svc_session *session, ohmara_event_callback cb,
                                    void *ctx);

/** A short lower-case name of a reason ("bad digest"), "unknown" for a code
 * out of range. The text is static. Any thread. */
const char *ohmara_utl_reasonName(int32_t reason);

/** Starts writing every datagram and TCP message the session sends or
 * receives into a pcapng file at path (created or truncated; the session
 * owns it until stopped). Received messages carry a comment: "digest ok",
 * "digest mismatch" or "not decoded". size_limit: the most bytes the file
 * may grow to, 0 for no limit; the capture stops by itself (one warning in
 * the log) before a packet would pass it. Any thread may call it at any time
 * while the session exists. Returns 0, or -1 (logged) when session or path
 * is NULL, a capture is already running, or the file cannot be written. */
int32_t ohmara_svc_startCapture(struct svc_session *session, const char *path, size_t size_limit);

/** Stops the session's capture and closes its file (a capture that stopped
 * at its size limit is closed too). Any thread, any time while the session
 * exists; the session's end stops it as well. Logs the packets written.
 * Returns 0, or -1 when session is NULL or no capture was open. */
int32_t ohmara_svc_stopCapture(struct svc_session *session);

#ifdef __cplusplus
}
#endif

#endif /* OMSDK_OBSERVE_H */
