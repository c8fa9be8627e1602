// SPDX-License-Identifier: Apache-2.0
// The kit's switch identity, and a decoded message as one transcript line:
// shared with the test that compares the kit with the switch on sockets.
#ifndef OMSDK_TESTKIT_TRANSCRIPT_H
#define OMSDK_TESTKIT_TRANSCRIPT_H

#include <stdint.h>

#include <string>

#include "pdu_view.h"

namespace omsdk_testkit {

constexpr char kSwitchId[] = "7e57c1770000000000000000000000ff";
constexpr uint32_t kSwitchNonce = 0x7e57c177;

// `dir` ("> " or "< "), the kind, action and shipment, then each TLV as
// name=value; without what differs between runs (sequence numbers, reply-to
// addresses, nonces, digests).
std::string transcript_line(const char *dir, const omsdk_tools::DecodedPdu &p);

}  // namespace omsdk_testkit

#endif
