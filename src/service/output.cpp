// SPDX-License-Identifier: Apache-2.0
// The application's output table: the engine's output seam pointed at
// functions the program gives, for programs that carry the messages
// themselves.
#include <errno.h>

#include <omsdk/output.h>

#include "common/api.h"
#include "diag/log.h"
#include "session/io.h"
#include "transport/send.h"

namespace {

ssize_t app_reply(svc_session *s, const uint8_t *buf, size_t len) {
    const ohmara_svc_output *o = s->app_output;
    const int32_t n = o->reply(o->context, buf, static_cast<uint32_t>(len));
    if (n < 0) errno = EIO;
    return n;
}

ssize_t app_datagram(svc_session *s, const uint8_t *buf, size_t len, const struct sockaddr_in *to) {
    const ohmara_svc_output *o = s->app_output;
    const int32_t n =
        o->datagram(o->context, buf, static_cast<uint32_t>(len), to->sin_addr.s_addr, to->sin_port);
    if (n < 0) errno = EIO;
    return n;
}

constexpr omsdk::session_io kAppIo = {app_reply, app_datagram};

}  // namespace

OMSDK_API int32_t ohmara_svc_setOutput(svc_session *s, const ohmara_svc_output *output) {
    if (s == nullptr) return -1;
    if (s->status != OHMARA_STATUS_DOWN || s->run_marker == OMSDK_RUN_MARKER) {
        OM_ERROR("session already started");
        return -1;
    }
    if (output != nullptr && (output->reply == nullptr || output->datagram == nullptr)) {
        OM_ERROR("an output table needs both functions");
        return -1;
    }
    s->app_output = output;
    s->io = output != nullptr ? &kAppIo : &omsdk::socket_io;
    return 0;
}
