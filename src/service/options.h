// SPDX-License-Identifier: Apache-2.0
// Options beyond the reference behaviour: what the rest of the service
// reads back from them.
#ifndef OMSDK_SERVICE_OPTIONS_H
#define OMSDK_SERVICE_OPTIONS_H

#include <stdint.h>

#include "session/session.h"

namespace omsdk {

// The listen backlog in force: the one set, else the profile's default.
int32_t listen_backlog(const svc_session *s);

}  // namespace omsdk

#endif
