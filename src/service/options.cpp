// Options beyond the reference behaviour, set between creation and start-up.
#include "service/options.h"

#include <arpa/inet.h>
#include <sys/socket.h>

#include "common/api.h"
#include "diag/log.h"

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
    session->profile = profile;
    if (session->listen_sock >= 0)
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
