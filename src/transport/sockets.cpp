// SPDX-License-Identifier: Apache-2.0
// Socket helpers shared by the session and applications: UDP sockets,
// connected TCP sockets, the listener's binding, closing and errno.
#include <arpa/inet.h>
#include <errno.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <string.h>
#include <sys/socket.h>
#include <unistd.h>

#include "common/api.h"
#include "diag/log.h"
#include "util/net_text.h"
#include "omsdk/socket.h"
#include "transport/sockets.h"

namespace {

constexpr int kProtoUdp = 17;

sockaddr_in any_address(uint16_t port) {
    sockaddr_in a;
    memset(&a, 0, sizeof a);
    a.sin_family = AF_INET;
    a.sin_port = htons(port);
    a.sin_addr.s_addr = htonl(INADDR_ANY);
    return a;
}

}  // namespace

namespace omsdk {

int connect_within(int fd, const struct sockaddr_in *to, int ms) {
    const int flags = fcntl(fd, F_GETFL);
    if (flags < 0 || fcntl(fd, F_SETFL, flags | O_NONBLOCK) != 0) return -1;
    if (connect(fd, reinterpret_cast<const sockaddr *>(to), sizeof *to) == 0) return 0;
    if (errno != EINPROGRESS) return -1;
    struct pollfd p = {fd, POLLOUT, 0};
    const int ready = poll(&p, 1, ms);
    if (ready <= 0) {
        if (ready == 0) errno = ETIMEDOUT;
        return -1;
    }
    int err = 0;
    socklen_t len = sizeof err;
    if (getsockopt(fd, SOL_SOCKET, SO_ERROR, &err, &len) != 0) return -1;
    if (err == 0) return 0;
    errno = err;
    return -1;
}

}  // namespace omsdk

OMSDK_API int32_t openConnectedSocket(socket_endpoint *endpoint, const char *address,
                                      uint16_t port) {
    if (endpoint == nullptr) return -1;
    int32_t s = socket(AF_INET, SOCK_STREAM, 0);
    endpoint->sock = s;
    if (s < 0) {
        OM_ERROR("Socket creation failed %d", s);
        return -1;
    }

    memset(&endpoint->remote_addr, 0, sizeof endpoint->remote_addr);
    endpoint->remote_addr.sin_family = AF_INET;
    endpoint->remote_addr.sin_port = htons(port);
    endpoint->remote_addr.sin_addr.s_addr = address != nullptr ? inet_addr(address) : INADDR_NONE;
    int rc = connect(s, reinterpret_cast<const sockaddr *>(&endpoint->remote_addr),
                     sizeof endpoint->remote_addr);
    // The caller finds out about a failed connect when it uses the socket.
    if (rc != 0) OM_ERROR("connect failed %d, errno = %d", rc, omr_getErrorCode());

    memset(&endpoint->local_addr, 0, sizeof endpoint->local_addr);
    socklen_t len = sizeof endpoint->local_addr;
    if (getsockname(s, reinterpret_cast<sockaddr *>(&endpoint->local_addr), &len) == 0)
        OM_DEBUG("local socket address %s:%d", omsdk::ip_text(endpoint->local_addr.sin_addr).text,
                 ntohs(endpoint->local_addr.sin_port));
    return s;
}

OMSDK_API int32_t createUdpSocket(uint16_t port) {
    int32_t s = socket(AF_INET, SOCK_DGRAM, kProtoUdp);
    if (s < 0) {
        OM_ERROR("Socket creation failed");
        closeSocket(s);
        return -1;
    }
    sockaddr_in a = any_address(port);
    if (bind(s, reinterpret_cast<const sockaddr *>(&a), sizeof a) == 0) {
        OM_DEBUG("Bind server:%s, port:%d", omsdk::ip_text(a.sin_addr).text, port);
        return s;
    }
    int err = errno;
    OM_WARN("Bind failed server:%s, port:%d(%s:%d)", omsdk::ip_text(a.sin_addr).text, port,
            omsdk::errno_text(err).text, err);
    closeSocket(s);
    return -1;
}

OMSDK_API int32_t bindUdpSocket(int32_t sock, uint16_t port) {
    sockaddr_in a = any_address(port);
    if (bind(sock, reinterpret_cast<const sockaddr *>(&a), sizeof a) == 0) {
        OM_DEBUG("Bind local server port:%d", port);
        return sock;
    }
    int32_t err = omr_getErrorCode();
    OM_WARN("Bind failed server:%s, port:%d(%s:%d)", omsdk::ip_text(a.sin_addr).text, port,
            omsdk::errno_text(err).text, err);
    return -1;
}

OMSDK_API int32_t bindTcpListener(int32_t fd, uint16_t port) {
    struct sockaddr_in addr;
    memset(&addr, 0, sizeof addr);
    addr.sin_family = AF_INET;
    addr.sin_addr.s_addr = htonl(INADDR_ANY);
    addr.sin_port = htons(port);

    socklen_t len = sizeof addr;
    if (bind(fd, reinterpret_cast<struct sockaddr *>(&addr), sizeof addr) != 0 ||
        getsockname(fd, reinterpret_cast<struct sockaddr *>(&addr), &len) != 0) {
        int err = errno;
        OM_WARN("Bind failed server:%s, port:%d(%s:%d)", "0.0.0.0", port,
                omsdk::errno_text(err).text, err);
        return -1;
    }
    OM_DEBUG("Bind local read port:%d", ntohs(addr.sin_port));
    return ntohs(addr.sin_port);
}

OMSDK_API int32_t closeSocket(int32_t fd) {
    close(fd);
    return 0;
}

OMSDK_API int32_t omr_getErrorCode(void) { return errno; }
