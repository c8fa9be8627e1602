// Internal event helpers shared by the protocol engine.
#ifndef OMSDK_CORVANE_UTIL_EVENT_INTERNAL_H
#define OMSDK_CORVANE_UTIL_EVENT_INTERNAL_H

#include <omsdk/wire_types.h>

namespace omsdk {

// Frees an event completely: TLVs, headers, raw bytes and the record.
// cv_cleanup_event frees only reply events and omr_releasePacket leaves
// TLVs and headers, so the engine calls this once it is done with an event.
// Null-safe.
void event_release(cv_event *ev);

}  // namespace omsdk

#endif
