// The service loop: waits for the switch's connections, sends discovery
// updates when the timer runs out or a wake-up arrives, and drops back to UP
// when the switch goes quiet. Start-up runs it and frees the session after.
#include "service/loop.h"

#include <arpa/inet.h>
#include <errno.h>
#include <pthread.h>
#include <stdlib.h>
#include <netinet/in.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <time.h>
#include <unistd.h>

#include <omsdk/reception.h>

#include "common/api.h"
#include "diag/log.h"
#include "engine/discovery.h"
#include "engine/intake.h"
#include "transport/send.h"
#include "util/clock.h"
#include "util/mutex_guard.h"
#include "util/net_text.h"

namespace {

constexpr uint8_t kDiscoveryUpdate = CV_ACTION_KVQR_CORVANE_DISCOVERY_DISCOVERY_UPDATE;  // 10
constexpr uint8_t kDiscoveryShutdown = CV_ACTION_KVQR_CORVANE_DISCOVERY_DELETE;          // 12
constexpr int kTcpProtocol = 6;

int32_t api_callers(svc_session *s) {
    omsdk::MutexGuard guard(&s->mutex);
    return s->api_callers;
}

// A shutdown or wake-up call may still be between its status change and its
// connection when the loop ends; it only needs a few system calls more.
void wait_for_api_callers(svc_session *s) {
    while (api_callers(s) > 0) {
        struct timespec pause = {0, 1000000};
        nanosleep(&pause, nullptr);
    }
}

}  // namespace

namespace omsdk {

void enter_session(svc_session *s) {
    MutexGuard guard(&s->mutex);
    ++s->api_callers;
}

void leave_session(svc_session *s) {
    MutexGuard guard(&s->mutex);
    --s->api_callers;
}

}  // namespace omsdk

OMSDK_API uint32_t secondsToWait(svc_session *s, time_t since) {
    if (s == nullptr) return 0;
    const uint32_t interval = ohmara_svc_getStatus(s) == OHMARA_STATUS_ACTIVE && s->pending_seq == 0
                                  ? s->discovery_interval
                                  : s->retry_interval;
    const double elapsed = difftime(omsdk::clock_now(), since);
    if (elapsed < 0) return 0;
    if (elapsed >= static_cast<double>(interval)) return 0;
    return interval - static_cast<uint32_t>(elapsed);
}

OMSDK_API int32_t omr_svc_loop(svc_session *s) {
    if (s == nullptr) return -1;
    om_setStatusUp(s);
    OM_INFO("*Ohmara status:  UP, starting discovery...");
    time_t last_discovery = 0;
    uint8_t buf[omsdk::kLoopReceiveBuffer];

    while (ohmara_svc_getStatus(s) != OHMARA_STATUS_SHUTDOWN) {
        struct timeval timeout;
        timeout.tv_sec = static_cast<time_t>(secondsToWait(s, last_discovery));
        timeout.tv_usec = 0;

        uint32_t address =
            ohmara_svc_getStatus(s) == OHMARA_STATUS_ACTIVE ? s->peer_addr.s_addr : 0;
        const int32_t fd = waitfor_tcp_connect(s->listen_sock, &address, &timeout);
        bool out_of_band = false;
        if (address == s->self_addr.sin_addr.s_addr) {
            OM_DEBUG("out of band");
            out_of_band = true;
        } else if (address != 0) {
            // Our own wake-ups must not displace the switch: only a foreign
            // caller becomes the peer (a refused one on its next attempt).
            s->peer_addr.s_addr = address;
        }

        if (fd != -1) {
            s->tcp_sock = fd;
            const int32_t n =
                omr_read_tcp_message(fd, buf, static_cast<int32_t>(sizeof buf), nullptr);
            OM_DEBUG("bytes read %d for this event", n);
            if (n > 0) {
                OM_DEBUG("process message");
                omr_processMsg(s, buf, n);
                (void)omsdk::flush_replies(s);  // the answer leaves in one send
            }
            close(fd);
            s->tcp_sock = -1;
        }

        if (out_of_band || secondsToWait(s, last_discovery) == 0) {
            OM_DEBUG("sending discovery update event");
            sendDiscoveryEvent(s, kDiscoveryUpdate);
            last_discovery = omsdk::clock_now();
        }

        if (ohmara_svc_getStatus(s) == OHMARA_STATUS_ACTIVE) {
            const double idle = difftime(omsdk::clock_now(), s->last_ack_time);
            OM_DEBUG("time since last ACK %d", static_cast<int>(idle));
            if (idle > omsdk::kIdleLimitSeconds) {
                OM_INFO("*Connected peer %s is IDLE, status changing from ACTIVE to UP.  "
                        "Restarting discovery...",
                        omsdk::ip_text(s->peer_addr).text);
                om_setStatusUp(s);
                continue;
            }
        }
    }

    OM_DEBUG("sending discovery shutdown event");
    sendDiscoveryEvent(s, kDiscoveryShutdown);
    om_setStatusDown(s);
    return 0;
}

OMSDK_API int32_t ohmara_svc_startup(svc_session *s) {
    if (s == nullptr) return -1;
    s->run_marker = OMSDK_RUN_MARKER;
    s->start_marker = s->run_marker;
    om_setStatusInitializing(s);

    const uint16_t listen_port = ntohs(s->self_addr.sin_port);
    OM_DEBUG("local socket address %s:%d id: %s", omsdk::ip_text(s->self_addr.sin_addr).text,
             listen_port, s->sender_id);
    if (s->registry != nullptr && s->registry->listen_port_notify != nullptr)
        s->registry->listen_port_notify(listen_port);

    omr_svc_loop(s);

    wait_for_api_callers(s);
    omsdk::free_neighbor_tree(s->neighbor);
    s->neighbor = nullptr;
    free(s->pending_head);
    s->pending_head = nullptr;
    omr_svc_cleanup(s);
    OM_DEBUG("Everything is down.. returning");
    return 0;
}

OMSDK_API int32_t ohmara_svc_shutdown(svc_session *s) {
    if (s == nullptr) return -1;
    // Everything needed after the status change is taken first: once the
    // status reads SHUTDOWN the loop may end on its own.
    omsdk::enter_session(s);
    struct sockaddr_in self = s->self_addr;
    om_setStatusShutdown(s);

    const int fd = socket(AF_INET, SOCK_STREAM, kTcpProtocol);
    if (fd < 0) {
        OM_ERROR("= shut socket failed");
        omsdk::leave_session(s);
        return -1;
    }

    const uint16_t listen_port = self.sin_port;
    self.sin_family = AF_INET;
    self.sin_port = 0;
    if (bind(fd, reinterpret_cast<struct sockaddr *>(&self), sizeof self) != 0) {
        const int err = errno;
        OM_WARN("= Shut Bind failed fd = %d server:%s, port:%d error=%d", fd,
                omsdk::ip_text(self.sin_addr).text, ntohs(self.sin_port), err);
        close(fd);
        omsdk::leave_session(s);
        return -1;
    }

    self.sin_port = listen_port;
    const int rc = connect(fd, reinterpret_cast<struct sockaddr *>(&self), sizeof self);
    if (rc != 0) {
        const int err = errno;
        OM_ERROR("= Connect shut failed fd=%d %s:%d error=%d<%d>", fd,
                 omsdk::ip_text(self.sin_addr).text, ntohs(self.sin_port), rc, err);
        close(fd);
        omsdk::leave_session(s);
        return -1;
    }

    (void)send(fd, "", 0, MSG_NOSIGNAL);  // the connection itself is the message
    close(fd);
    omsdk::leave_session(s);
    return 0;
}
