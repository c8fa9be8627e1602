// The socket-backed output table of a session.
#include "transport/send.h"

#include <sys/socket.h>

namespace omsdk {

namespace {

ssize_t reply_on_connection(svc_session *s, const uint8_t *buf, size_t len) {
    return send(s->tcp_sock, buf, len, MSG_NOSIGNAL);
}

ssize_t datagram_to(svc_session *s, const uint8_t *buf, size_t len, const struct sockaddr_in *to) {
    return sendto(s->udp_sock, buf, len, 0, reinterpret_cast<const struct sockaddr *>(to),
                  sizeof(struct sockaddr_in));
}

}  // namespace

const session_io socket_io = {reply_on_connection, datagram_to};

}  // namespace omsdk
