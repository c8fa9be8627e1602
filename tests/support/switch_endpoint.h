// An endpoint session on loopback driven by hand for tests of the switch
// side: the test thread plays the service loop one turn at a time (send a
// discovery event, accept one connection, process its message). Uses the
// session record and engine entry points, all exported by the library.
#ifndef OMSDK_TEST_SWITCH_ENDPOINT_H
#define OMSDK_TEST_SWITCH_ENDPOINT_H

#include <netinet/in.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <vector>

#include <omsdk.h>
#include <omsdk/reception.h>

#include "engine/intake.h"
#include "engine/request.h"
#include "service/session.h"

namespace switch_test {

constexpr char kId[] = "0123456789abcdef0123456789abcdef";  // the endpoint

// ---- the application behind the endpoint ----------------------------

struct Device {
    uint8_t level = 4;
    uint16_t usage = 120;
    uint8_t units = 2;
    uint32_t category = 1;
    uint32_t seq = 100;
    std::vector<int32_t> set_levels;
    struct Reply {
        int32_t id;
        uint32_t type;
        int32_t ok;
    };
    std::vector<Reply> alarm_replies;
};

inline Device &dev() {
    static Device d;
    return d;
}

inline uint8_t cb_units() { return dev().units; }
inline uint16_t cb_usage() { return dev().usage; }
inline uint32_t cb_caliber() { return 1; }
inline uint32_t cb_category() { return dev().category; }
inline uint8_t cb_level() { return dev().level; }
inline int32_t cb_set_level(uint8_t l) {
    dev().set_levels.push_back(l);
    dev().level = l;
    return 0;
}
inline void cb_usage_vector(uint16_t *v) {
    for (int i = 0; i < 11; ++i) v[i] = static_cast<uint16_t>(i + 1);
}
inline void cb_delta_vector(int32_t *v) {
    for (int i = 0; i < 11; ++i) v[i] = -i;
}
inline uint32_t cb_next_sequence() { return dev().seq++; }
inline void cb_attr(int32_t) {}
inline void cb_port(uint16_t) {}
inline void cb_status(int32_t) {}
inline void cb_alarm(int32_t id, uint32_t type, int32_t ok) {
    dev().alarm_replies.push_back({id, type, ok});
}

inline svc_callback_registry &registry() {
    static svc_callback_registry r = {cb_units,         cb_usage,     cb_caliber,      cb_category,
                                      cb_level,         cb_set_level, cb_usage_vector, cb_delta_vector,
                                      cb_next_sequence, cb_attr,      cb_port,         cb_status,
                                      cb_alarm};
    return r;
}

inline void free_tree(neighbor_node *n) {
    if (n == nullptr) return;
    free_tree(n->lesser);
    free_tree(n->greater);
    free(n);
}

// ---- the endpoint ------------------------------------------------------

// A session on 127.0.0.1 whose protocol port is the switch's discovery
// port, configured and UP (broadcasting).
class Endpoint {
public:
    Endpoint(uint16_t port, const std::vector<uint8_t> &key) {
        dev() = Device();
        s = ohmara_svc_create("127.0.0.1", port, kId, key.empty() ? nullptr : key.data(),
                              static_cast<int32_t>(key.size()), 0);
        if (s == nullptr) return;
        ohmara_svc_configIdentity(s, "dom", "lamp-1", "light", "floor2,desk", "bulb", 40);
        ohmara_svc_configRegistry(s, &registry());
        om_setStatusInitializing(s);
        om_setStatusUp(s);
    }
    ~Endpoint() {
        if (s == nullptr) return;
        free_tree(s->neighbor);
        s->neighbor = nullptr;
        free(s->pending_head);
        s->pending_head = nullptr;
        omr_svc_cleanup(s);
    }
    Endpoint(const Endpoint &) = delete;
    Endpoint &operator=(const Endpoint &) = delete;

    int status() const { return ohmara_svc_getStatus(s); }

    // Accepts one connection within timeout_ms and processes its message as
    // the service loop does. False when none came.
    bool serve_one(int timeout_ms = 2000) {
        timeval tv{timeout_ms / 1000, (timeout_ms % 1000) * 1000};
        uint32_t peer = s->peer_addr.s_addr;
        int fd = waitfor_tcp_connect(s->listen_sock, &peer, &tv);
        s->peer_addr.s_addr = peer;
        if (fd < 0) return false;
        timeval rt{2, 0};  // the library's read has no time-out of its own
        setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &rt, sizeof rt);
        uint8_t buf[1400];
        int32_t n = omr_read_tcp_message(fd, buf, sizeof buf, nullptr);
        s->tcp_sock = fd;
        if (n > 0) omr_processMsg(s, buf, n);
        s->tcp_sock = -1;
        close(fd);
        return n > 0;
    }
    // Serves whatever connections are waiting.
    int drain() {
        int n = 0;
        while (serve_one(150)) ++n;
        return n;
    }
    void queue_alarm(uint32_t type, int32_t id, uint32_t seconds, uint8_t p1, uint8_t p2) {
        auto *r = static_cast<async_request *>(calloc(1, sizeof(async_request)));
        r->type = type;
        r->id = id;
        r->seconds = seconds;
        r->alarm_param1 = p1;
        r->alarm_param2 = p2;
        free(s->pending_head);
        s->pending_head = r;
    }

    svc_session *s = nullptr;
};

}  // namespace switch_test

#endif
