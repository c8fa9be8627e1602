// Thin send helpers used by the protocol engine.
#include "transport/send.h"

#include <sys/socket.h>

namespace omsdk {

ssize_t send_on_connection(int fd, const uint8_t *buf, size_t len) {
    return send(fd, buf, len, MSG_NOSIGNAL);
}

ssize_t send_datagram(int fd, const uint8_t *buf, size_t len, const struct sockaddr_in *to) {
    return sendto(fd, buf, len, 0, reinterpret_cast<const struct sockaddr *>(to),
                  sizeof(struct sockaddr_in));
}

}  // namespace omsdk
