// SPDX-License-Identifier: Apache-2.0
#include "drive.h"

namespace omsdk_testkit {

bool drive_open(svc_session *s, clock_fn now_ms, void *ctx, std::string *why) {
    if (ohmara_svc_setClock(s, now_ms, ctx) != 0) {
        *why = "the session refused the kit's clock (already started?)";
        return false;
    }
    if (ohmara_svc_open(s) != 0) {
        *why = "the session could not be opened (already started?)";
        return false;
    }
    return true;
}

bool drive_turn(svc_session *s, std::string *why) {
    if (ohmara_svc_turn(s) >= 0) return true;
    *why = "ohmara_svc_turn failed";
    return false;
}

void drive_close(svc_session *s) { (void)ohmara_svc_close(s); }

}  // namespace omsdk_testkit
