// Shared helpers for the session tests.
#ifndef OMSDK_TEST_SESSION_FIXTURE_H
#define OMSDK_TEST_SESSION_FIXTURE_H

#include <stdint.h>

#include "omsdk.h"

namespace session_test {

constexpr char kSenderId[] = "0123456789abcdef0123456789abcdef";

inline uint8_t units() { return 1; }
inline uint16_t usage() { return 2; }
inline uint32_t caliber() { return 3; }
inline uint32_t category() { return 4; }
inline uint8_t level() { return 5; }
inline int32_t set_level(uint8_t) { return 0; }
inline void usage_vector(uint16_t *) {}
inline void delta_vector(int32_t *) {}
inline uint32_t next_sequence() { return 1; }
inline void attribute_modified(int32_t) {}
inline void listen_port_notify(uint16_t) {}

inline svc_callback_registry full_registry() {
    svc_callback_registry r = {};
    r.get_units = units;
    r.get_usage = usage;
    r.get_usage_caliber = caliber;
    r.get_usage_category = category;
    r.get_level = level;
    r.set_level = set_level;
    r.get_usage_vector = usage_vector;
    r.get_delta_vector = delta_vector;
    r.next_sequence = next_sequence;
    r.attribute_modified = attribute_modified;
    r.listen_port_notify = listen_port_notify;
    return r;
}

}  // namespace session_test

#endif
