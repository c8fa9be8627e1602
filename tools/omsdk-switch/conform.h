// SPDX-License-Identifier: Apache-2.0
// omsdk-switch conform: the switch as the reference test of an endpoint.
// It hears a starting endpoint's discovery, handshakes with it and runs
// numbered cases against it, each checking one rule of the protocol as a
// switch sees it on the wire; reports as text, JUnit XML and JSON.
#ifndef OMSDK_SWITCH_CONFORM_H
#define OMSDK_SWITCH_CONFORM_H

#include <string>
#include <vector>

namespace omsdk_switch {

// Runs `omsdk-switch conform ARGS...` (the words after "conform").
// Returns the exit status: 0 every required case passed, 1 one failed,
// 2 bad usage.
int run_conform(const std::vector<std::string> &args);

// The help text of the command.
extern const char kConformHelp[];

}  // namespace omsdk_switch

#endif
