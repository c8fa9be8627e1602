// SPDX-License-Identifier: Apache-2.0
#include "transcript.h"

#include <omsdk/enums.h>

namespace omsdk_testkit {

std::string transcript_line(const char *dir, const omsdk_tools::DecodedPdu &p) {
    std::string line = std::string(dir) + omsdk_tools::pdu_kind(p) + " " +
                       omsdk_tools::action_name(p.hdr.cls, p.hdr.action) + " " +
                       omsdk_tools::shipment_name(p.hdr.shipment);
    for (const omsdk_tools::DecodedTlv &t : p.tlvs) {
        if (t.type == CV_CORVANE_TLV_TYPE_REPLY_TO || t.type == CV_CORVANE_TLV_TYPE_NONCE) continue;
        line += " " + t.name + "=";
        if (!t.aggregate) {
            line += t.value.render();
            continue;
        }
        for (const omsdk_tools::Entry &e : t.entries) line += "[" + e.value.render() + "]";
    }
    return line + "\n";
}

}  // namespace omsdk_testkit
