// Thin send helpers: the protocol engine sends through these and never
// touches socket calls itself.
#ifndef OMSDK_TRANSPORT_SEND_H
#define OMSDK_TRANSPORT_SEND_H

#include <netinet/in.h>
#include <stddef.h>
#include <stdint.h>
#include <sys/types.h>

namespace omsdk {

// One send() of the whole buffer on a connected socket, flags 0 apart from
// MSG_NOSIGNAL (a peer that already closed must not raise SIGPIPE). Returns
// what send() returned.
ssize_t send_on_connection(int fd, const uint8_t *buf, size_t len);

// One sendto() of the buffer to an IPv4 destination. Returns what sendto()
// returned.
ssize_t send_datagram(int fd, const uint8_t *buf, size_t len, const struct sockaddr_in *to);

}  // namespace omsdk

#endif
