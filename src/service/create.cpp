// SPDX-License-Identifier: Apache-2.0
// Session creation: opens the session's sockets, binds its listener and
// keys its HMAC contexts, then hands the engine its way out.
#include <arpa/inet.h>
#include <errno.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>

#include <omsdk/socket.h>
#include <omsdk/version.h>

#include "common/api.h"
#include "diag/log.h"
#include "util/net_text.h"
#include "service/options.h"
#include "session/live.h"
#include "session/session.h"
#include "transport/send.h"

namespace {

constexpr uint32_t kRetryInterval = 30;
constexpr uint32_t kDiscoveryInterval = 180;
constexpr uint32_t kSenderIdLen = 32;
constexpr int kUdpProtocol = 17;
// Deliberately the raw value 2 in network order, not AF_INET: peers expect it.
constexpr uint16_t kSelfFamily = 2;

}  // namespace

OMSDK_API svc_session *ohmara_svc_create(const char *local_address, uint16_t port,
                                         const char *sender_id, const uint8_t *key, int32_t key_len,
                                         uint16_t listen_port) {
    if (sender_id == nullptr) {
        OM_FATAL("Sender identifier is required");
        return nullptr;
    }
    if (local_address == nullptr) {
        OM_FATAL("Local address is required");
        return nullptr;
    }

    OM_DEBUG("Converting %s (len=%u) to inet address", local_address,
             static_cast<unsigned>(strlen(local_address)));
    in_addr_t local = inet_addr(local_address);
    if (local == INADDR_NONE) {
        OM_FATAL("Badly formatted local address: %s", local_address);
        return nullptr;
    }

    svc_session *s = new_svc_session();
    if (s == nullptr) {
        OM_FATAL("Out of memory");
        return nullptr;
    }
    s->io = &omsdk::socket_io;
    s->port = port != 0 ? port : OMSDK_DEFAULT_PORT;

    s->udp_sock = socket(AF_INET, SOCK_DGRAM, kUdpProtocol);
    if (s->udp_sock < 0) {
        int err = errno;
        OM_FATAL("Error opening socket file descriptor (%d:%s)", err, omsdk::errno_text(err).text);
        omr_svc_cleanup(s);
        return nullptr;
    }

    int one = 1;
    if (setsockopt(s->udp_sock, SOL_SOCKET, SO_REUSEADDR, &one, sizeof one) == 0) {
        OM_DEBUG("Write socket set to reuse address");
    } else {
        int err = errno;
        OM_ERROR("Could not set socket to reuse address (%d:%s)", err, omsdk::errno_text(err).text);
    }

    struct sockaddr_in udp_addr;
    memset(&udp_addr, 0, sizeof udp_addr);
    udp_addr.sin_family = AF_INET;
    udp_addr.sin_addr.s_addr = local;
    udp_addr.sin_port = 0;
    if (bind(s->udp_sock, reinterpret_cast<struct sockaddr *>(&udp_addr), sizeof udp_addr) != 0) {
        int err = errno;
        OM_ERROR("Bind to broadcast socket %s:%d failed (%d:%s)", local_address, 0, err,
                 omsdk::errno_text(err).text);
        omr_svc_cleanup(s);
        return nullptr;
    }
    socklen_t addr_len = sizeof udp_addr;
    if (getsockname(s->udp_sock, reinterpret_cast<struct sockaddr *>(&udp_addr), &addr_len) == 0)
        OM_DEBUG("Bind to broadcast socket %s:%d", omsdk::ip_text(udp_addr.sin_addr).text,
                 ntohs(udp_addr.sin_port));

    int listener = socket(AF_INET, SOCK_STREAM, 0);
    if (listener < 0) {
        int err = errno;
        OM_ERROR("Socket creation failed (%d:%s)", err, omsdk::errno_text(err).text);
        omr_svc_cleanup(s);
        return nullptr;
    }
    s->listen_sock = listener;

    // Address reuse only while binding: the port may still hold connections
    // of a hardened session (which marks them reusable) that ended a moment
    // ago. The listener's own connections must not inherit it, so that it
    // is taken off again before any can arrive.
    (void)setsockopt(s->listen_sock, SOL_SOCKET, SO_REUSEADDR, &one, sizeof one);
    // listen() comes before the bind result is looked at.
    int32_t bound_port = bindTcpListener(s->listen_sock, listen_port);
    const int listening = listen(s->listen_sock, omsdk::listen_backlog(s));
    int zero = 0;
    (void)setsockopt(s->listen_sock, SOL_SOCKET, SO_REUSEADDR, &zero, sizeof zero);
    if (bound_port <= 0) {
        OM_ERROR("Failed to bind port");
        omr_svc_cleanup(s);
        return nullptr;
    }
    if (listening != 0) {
        // A bound port that does not listen would be announced all the same.
        int err = errno;
        OM_ERROR("listen() failed (%d:%s)", err, omsdk::errno_text(err).text);
        omr_svc_cleanup(s);
        return nullptr;
    }

    s->self_addr.sin_family = htons(kSelfFamily);
    s->self_addr.sin_port = htons(static_cast<uint16_t>(bound_port));
    s->self_addr.sin_addr.s_addr = local;
    OM_DEBUG("===== my srv addr %s:%d", omsdk::ip_text(s->self_addr.sin_addr).text, bound_port);

    s->bcast_addr.sin_family = AF_INET;
    s->bcast_addr.sin_port = htons(s->port);
    s->bcast_addr.sin_addr.s_addr = htonl(INADDR_BROADCAST);
    OM_TRACE("using destination port %d", s->port);
    // A shorter identifier is copied as it is and zero-padded: never read past its end.
    const size_t id_len = strnlen(sender_id, kSenderIdLen);
    if (id_len < kSenderIdLen)
        OM_WARN("sender identifier has %u characters, not %u: padded with zeros",
                static_cast<unsigned>(id_len), kSenderIdLen);
    memcpy(s->sender_id, sender_id, id_len);

    const uint8_t *own_id = reinterpret_cast<const uint8_t *>(s->sender_id);
    if (key_len < 1 || key == nullptr) {
        // Without a key the sender identifier doubles as the shared secret.
        OM_DEBUG("key_len zero");
        printf("@@@@@@@@@@@@@@@ ohmara_svc_create hmac_shainit key_context=%x",
               static_cast<unsigned>(reinterpret_cast<uintptr_t>(&s->key_ctx)));
        hmac_shainit(&s->key_ctx, own_id, kSenderIdLen);
        printf("@@@@@@@@@@@@@@@ ohmara_svc_create hmac_shainit nonce_context=%x",
               static_cast<unsigned>(reinterpret_cast<uintptr_t>(&s->nonce_ctx)));
        hmac_shainit(&s->nonce_ctx, own_id, kSenderIdLen);
        s->key = reinterpret_cast<uint8_t *>(s->sender_id);
        s->key_len = kSenderIdLen;
        s->key_owned = 0;
    } else {
        OM_DEBUG("key_len %d > 0", key_len);
        printf("@@@@@@@@@@@@@@@ ohmara_svc_create hmac_shainit key_context=%x",
               static_cast<unsigned>(reinterpret_cast<uintptr_t>(&s->key_ctx)));
        hmac_shainit(&s->key_ctx, key, static_cast<uint16_t>(key_len));
        s->key_len = static_cast<uint32_t>(key_len);
        s->key = static_cast<uint8_t *>(malloc(static_cast<size_t>(key_len)));
        if (s->key != nullptr) memcpy(s->key, key, static_cast<size_t>(key_len));
        s->key_owned = 1;
    }

    om_setStatusDown(s);
    s->retry_interval = kRetryInterval;
    s->discovery_interval = kDiscoveryInterval;
    // The process's rand() as it stands: an application that wants the nonce
    // to differ between starts seeds it.
    s->local_nonce =
        static_cast<uint32_t>(rand());  // NOLINT(cert-msc30-c,cert-msc50-cpp,concurrency-mt-unsafe)

    if (!omsdk::live_add(s)) {
        OM_ERROR("out of memory for the list of sessions");
        omr_svc_cleanup(s);
        return nullptr;
    }
    OM_DEBUG("opened session using bcast address %s:%d", "255.255.255.255", s->port);
    return s;
}

// One source of truth: the project version CMake writes into omsdk/version.h.
OMSDK_API const char *ohmara_utl_getVersion(void) { return OMSDK_VERSION_STRING; }
