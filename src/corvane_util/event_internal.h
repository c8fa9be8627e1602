// Internal event helpers shared by the protocol engine.
#ifndef OMSDK_CORVANE_UTIL_EVENT_INTERNAL_H
#define OMSDK_CORVANE_UTIL_EVENT_INTERNAL_H

#include <memory>

#include <omsdk/wire_types.h>

namespace omsdk {

// Frees an event completely: TLVs, headers, raw bytes and the record.
// cv_cleanup_event frees only reply events and omr_releasePacket leaves
// TLVs and headers, so the engine calls this once it is done with an event.
// Null-safe.
void event_release(cv_event *ev);

// Owner of an event that releases it completely when it goes out of scope.
struct event_deleter {
    void operator()(cv_event *e) const { event_release(e); }
};
using owned_event = std::unique_ptr<cv_event, event_deleter>;

}  // namespace omsdk

#endif
