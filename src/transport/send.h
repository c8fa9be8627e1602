// The socket-backed output table the engine sends through.
#ifndef OMSDK_TRANSPORT_SEND_H
#define OMSDK_TRANSPORT_SEND_H

#include "session/io.h"

namespace omsdk {

// reply: one send() on the session's current connection, with MSG_NOSIGNAL
// so that a peer that already closed raises no SIGPIPE; datagram: one
// sendto() on the session's UDP socket.
extern const session_io socket_io;

}  // namespace omsdk

#endif
