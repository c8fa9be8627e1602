// SPDX-License-Identifier: Apache-2.0
// Options beyond the reference behaviour, set between creation and start-up.
#include "service/options.h"

#include <arpa/inet.h>
#include <errno.h>
#include <string.h>
#include <sys/socket.h>
#include <unistd.h>

#include "common/api.h"
#include "diag/log.h"
#include "util/net_text.h"
#include "transport/send.h"

namespace {

constexpr int32_t kReferenceBacklog = 10;
constexpr int32_t kHardenedBacklog = 128;
constexpr int32_t kMaxBacklog = 4096;

bool configurable(const char *func, const svc_session *s) {
    if (s == nullptr) return false;
    if (s->status != OHMARA_STATUS_DOWN || s->run_marker == OMSDK_RUN_MARKER) {
        OM_LOG_AS(omsdk::LOG_ERROR, func, "session already started");
        return false;
    }
    return true;
}

// Opens the listener afresh on the port it has: under the hardened profile
// bound to the session's local address, with address reuse so that a
// restart on a fixed port need not wait out the connections that linger
// after the last one; otherwise to any address, as creation does. -1 when
// the port could not be bound again (the session then has no listener).
int32_t reopen_listener(svc_session *s) {
    const bool hardened = omsdk::hardened(s);
    struct sockaddr_in at;
    memset(&at, 0, sizeof at);
    at.sin_family = AF_INET;
    at.sin_port = s->self_addr.sin_port;
    at.sin_addr.s_addr = hardened ? s->self_addr.sin_addr.s_addr : htonl(INADDR_ANY);
    const int fd = socket(AF_INET, SOCK_STREAM, 0);
    if (fd < 0) return -1;
    int one = 1, zero = 0;
    (void)setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &one, sizeof one);
    close(s->listen_sock);  // the same port cannot be bound while it is open
    s->listen_sock = -1;
    if (bind(fd, reinterpret_cast<struct sockaddr *>(&at), sizeof at) != 0 ||
        listen(fd, omsdk::listen_backlog(s)) != 0) {
        const int err = errno;
        OM_ERROR("listener on %s:%d failed (%d:%s)", omsdk::ip_text(at.sin_addr).text,
                 ntohs(at.sin_port), err, omsdk::errno_text(err).text);
        close(fd);
        return -1;
    }
    if (!hardened) (void)setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &zero, sizeof zero);
    s->listen_sock = fd;
    return 0;
}

}  // namespace

namespace omsdk {

int32_t listen_backlog(const svc_session *s) {
    if (s->listen_backlog > 0) return s->listen_backlog;
    return hardened(s) ? kHardenedBacklog : kReferenceBacklog;
}

}  // namespace omsdk

OMSDK_API int32_t ohmara_svc_setProfile(svc_session *session, uint32_t profile) {
    if (!configurable(__func__, session)) return -1;
    if (profile != OHMARA_PROFILE_REFERENCE && profile != OHMARA_PROFILE_HARDENED) {
        OM_ERROR("unknown profile %u", profile);
        return -1;
    }
    // The hardened nonce differs at every start, unlike the process's rand().
    if (profile == OHMARA_PROFILE_HARDENED && !omsdk::draw_local_nonce(session)) return -1;
    const bool changed = session->profile != profile;
    session->profile = profile;
    if (session->listen_sock < 0) return 0;
    if (changed) return reopen_listener(session);
    (void)listen(session->listen_sock, omsdk::listen_backlog(session));
    return 0;
}

OMSDK_API int32_t ohmara_svc_allowPeer(svc_session *session, const char *address) {
    if (!configurable(__func__, session) || address == nullptr) return -1;
    struct in_addr peer;
    if (inet_pton(AF_INET, address, &peer) != 1) {
        OM_ERROR("not an IPv4 address: %s", address);
        return -1;
    }
    if (session->allowed_peer_count >= OHMARA_MAX_ALLOWED_PEERS) {
        OM_ERROR("allow-list full (%d addresses)", OHMARA_MAX_ALLOWED_PEERS);
        return -1;
    }
    session->allowed_peers[session->allowed_peer_count++] = peer;
    return 0;
}

OMSDK_API int32_t ohmara_svc_setListenBacklog(svc_session *session, int32_t backlog) {
    if (!configurable(__func__, session)) return -1;
    if (backlog < 1 || backlog > kMaxBacklog) {
        OM_ERROR("listen backlog %d out of range 1..%d", backlog, kMaxBacklog);
        return -1;
    }
    session->listen_backlog = backlog;
    if (session->listen_sock >= 0 && listen(session->listen_sock, backlog) != 0) {
        OM_ERROR("listen() failed for backlog %d", backlog);
        return -1;
    }
    return 0;
}

OMSDK_API int32_t ohmara_svc_setDatagramOnDemand(svc_session *session, int32_t on) {
    if (!configurable(__func__, session)) return -1;
    if (on != 0) {
        if (session->udp_sock >= 0) close(session->udp_sock);
        session->udp_sock = -1;
        session->datagram_on_demand = 1;
        return 0;
    }
    if (session->datagram_on_demand != 0 && session->udp_sock < 0) {
        const int32_t fd = omsdk::open_datagram_socket(session, session->datagram_broadcast);
        if (fd < 0) {
            const int err = errno;
            OM_ERROR("no datagram socket on %s (%d:%s)",
                     omsdk::ip_text(session->self_addr.sin_addr).text, err,
                     omsdk::errno_text(err).text);
            return -1;
        }
        session->udp_sock = fd;
    }
    session->datagram_on_demand = 0;
    return 0;
}
