// Listener binding, closing and error code shared by the session and
// applications.
#include <arpa/inet.h>
#include <errno.h>
#include <netinet/in.h>
#include <string.h>
#include <sys/socket.h>
#include <unistd.h>

#include "common/api.h"
#include "diag/log.h"
#include "omsdk/socket.h"

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
        OM_WARN("Bind failed server:%s, port:%d(%s:%d)", "0.0.0.0", port, strerror(err), err);
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
