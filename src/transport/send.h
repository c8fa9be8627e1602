// SPDX-License-Identifier: Apache-2.0
// The socket-backed output table the engine sends through.
#ifndef OMSDK_TRANSPORT_SEND_H
#define OMSDK_TRANSPORT_SEND_H

#include <stdint.h>

#include "session/io.h"

namespace omsdk {

// reply: the bytes are kept in the session's out buffer for its current
// connection and go out with the next flush_replies, so that an
// acknowledgement and the answer after it leave in one send(); a reply that
// does not fit is sent at once (after what is held). datagram: one sendto()
// on the session's UDP socket, after what is held for the connection, so
// that the order of everything sent stays as the engine sent it; with
// datagram_on_demand set, on a socket opened for it and closed after it.
extern const session_io socket_io;

// A UDP socket as creation makes the session's own: address reuse, bound to
// the session's local address on a port of the system's choosing, with
// SO_BROADCAST set when `broadcast` is not 0. The descriptor, or -1 with
// errno set. Logs nothing.
int32_t open_datagram_socket(const svc_session *s, int32_t broadcast);

// Writes what the session holds for its connection in one send() (with
// MSG_NOSIGNAL: a peer that already closed raises no SIGPIPE) and empties
// the buffer. Call it once the message is handled, before the connection is
// closed. Returns the bytes sent, 0 when nothing was held, or -1 with errno.
ssize_t flush_replies(svc_session *s);

}  // namespace omsdk

#endif
