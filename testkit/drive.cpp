// SPDX-License-Identifier: Apache-2.0
#include "drive.h"

#include <omsdk/enums.h>

// Exported by the library for its own service loop.
extern "C" {
int32_t sendDiscoveryEvent(svc_session *s, uint8_t action);
int32_t om_setStatusInitializing(svc_session *s);
int32_t om_setStatusUp(svc_session *s);
int32_t om_setStatusShutdown(svc_session *s);
}

namespace omsdk_testkit {

// Until the library runs a session in turns: the session is put UP by
// hand, and every turn sends a discovery update; the clock is not the
// session's.
bool drive_open(svc_session *s, clock_fn, void *, std::string *) {
    om_setStatusInitializing(s);
    om_setStatusUp(s);
    return true;
}

bool drive_turn(svc_session *s, std::string *) {
    sendDiscoveryEvent(s, CV_ACTION_KVQR_CORVANE_DISCOVERY_DISCOVERY_UPDATE);
    return true;
}

bool drive_refresh(svc_session *s, std::string *) {
    sendDiscoveryEvent(s, CV_ACTION_KVQR_CORVANE_DISCOVERY_DISCOVERY_UPDATE);
    return true;
}

// The library's own ending: a start-up of a session already SHUTDOWN
// refuses the INITIALIZING and UP steps (logged), sends the shutdown event,
// and frees everything the session holds.
void drive_close(svc_session *s) {
    om_setStatusShutdown(s);
    ohmara_svc_startup(s);
}

}  // namespace omsdk_testkit
