// SPDX-License-Identifier: Apache-2.0
// The engine's one way out: everything the protocol engine sends goes
// through this table, which the transport fills when a session is created
// and tests replace to capture the bytes.
#ifndef OMSDK_SESSION_IO_H
#define OMSDK_SESSION_IO_H

#include <errno.h>
#include <netinet/in.h>
#include <stddef.h>
#include <stdint.h>
#include <sys/types.h>

#include "session/session.h"

namespace omsdk {

struct session_io {
    // Sends the whole buffer on the connection of the message being handled.
    // Returns the bytes sent, or -1 with errno set.
    ssize_t (*reply)(svc_session *s, const uint8_t *buf, size_t len);
    // Sends one datagram to an IPv4 destination. Same result convention.
    ssize_t (*datagram)(svc_session *s, const uint8_t *buf, size_t len,
                        const struct sockaddr_in *to);
};

// A session without a table (made by new_svc_session alone) sends nothing.
inline ssize_t send_reply(svc_session *s, const uint8_t *buf, size_t len) {
    if (s->io == nullptr) {
        errno = ENOTCONN;
        return -1;
    }
    return s->io->reply(s, buf, len);
}

inline ssize_t send_datagram(svc_session *s, const uint8_t *buf, size_t len,
                             const struct sockaddr_in *to) {
    if (s->io == nullptr) {
        errno = ENOTCONN;
        return -1;
    }
    return s->io->datagram(s, buf, len, to);
}

}  // namespace omsdk

#endif
