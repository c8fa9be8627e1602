// SPDX-License-Identifier: Apache-2.0
// The endpoint's attributes as messages carry them: one row per TLV type,
// read by GET replies (looked up by type) and by discovery updates (the
// rows marked for them, in table order).
#ifndef OMSDK_ENGINE_ATTRIBUTE_TABLE_H
#define OMSDK_ENGINE_ATTRIBUTE_TABLE_H

#include <stdint.h>

#include <omsdk/enums.h>
#include <omsdk/wire_types.h>

#include "session/session.h"

// Nanny function bit that withholds metered values (units, usage, caliber,
// usage and delta vectors) from discovery updates and plain GET replies.
constexpr uint32_t OMSDK_NANNY_NO_METERING = 0x20;

namespace omsdk {

// Where a value comes from: an application callback or a session field.
enum class attribute_source : uint8_t {
    units,
    usage,
    caliber,
    category,
    level,
    usage_vector,
    delta_vector,
    importance,
    role,
    name,
    keywords,
    device_type,
    count_
};

// Row flags.
enum : uint8_t {
    ATTR_METERED = 1,    // withheld under OMSDK_NANNY_NO_METERING
    ATTR_COMBO = 2,      // the GET entry carries the usage common header
    ATTR_IN_UPDATE = 4,  // sent in a discovery update
};

struct attribute {
    uint32_t type;  // as asked for, and as an update carries it
    attribute_source from;
    uint8_t flags;
    const char *what;          // logged as "<what> query reply"
    uint32_t answered_as = 0;  // type of the GET entry; 0: as asked

    constexpr bool has(uint8_t flag) const { return (flags & flag) != 0; }
    constexpr uint32_t reply_type() const { return answered_as != 0 ? answered_as : type; }
};

// The update rows come first, in the order an update carries them.
inline constexpr attribute kAttributes[] = {
    {CV_CORVANE_TLV_TYPE_USAGE, attribute_source::usage, ATTR_METERED | ATTR_IN_UPDATE, "usage"},
    {CV_CORVANE_TLV_TYPE_UNITS, attribute_source::units, ATTR_METERED | ATTR_IN_UPDATE, "units"},
    {CV_CORVANE_TLV_TYPE_USAGE_CALIBER, attribute_source::caliber, ATTR_METERED | ATTR_IN_UPDATE,
     "caliber"},
    {CV_CORVANE_TLV_TYPE_USAGE_VECTOR, attribute_source::usage_vector,
     ATTR_METERED | ATTR_IN_UPDATE, "usage vector"},
    {CV_CORVANE_TLV_TYPE_DELTA_VECTOR, attribute_source::delta_vector,
     ATTR_METERED | ATTR_IN_UPDATE, "delta vector"},
    {CV_CORVANE_TLV_TYPE_LEVEL_CURRENT, attribute_source::level, ATTR_IN_UPDATE, "level"},
    {CV_CORVANE_TLV_TYPE_IMPORTANCE, attribute_source::importance, ATTR_IN_UPDATE, "importance",
     CV_CORVANE_TLV_TYPE_IMPORTANCE_I},
    {CV_CORVANE_TLV_TYPE_USAGE_CATEGORY, attribute_source::category, ATTR_IN_UPDATE, "category"},
    {CV_CORVANE_TLV_TYPE_IMPORTANCE_I, attribute_source::importance, 0, "importance"},
    {CV_CORVANE_TLV_TYPE_ROLE, attribute_source::role, 0, "role"},
    {CV_CORVANE_TLV_TYPE_NAME, attribute_source::name, 0, "name"},
    {CV_CORVANE_TLV_TYPE_KEYWORDS, attribute_source::keywords, 0, "keywords"},
    {CV_CORVANE_TLV_TYPE_DEVICE_TYPE, attribute_source::device_type, 0, "device type"},
    {CV_CORVANE_TLV_TYPE_USAGE_REPORT, attribute_source::usage, ATTR_COMBO, "usage"},
    {CV_CORVANE_TLV_TYPE_USAGE_VECTOR_REPORT, attribute_source::usage_vector, ATTR_COMBO,
     "usage vector"},
    {CV_CORVANE_TLV_TYPE_DELTA_VECTOR_REPORT, attribute_source::delta_vector, ATTR_COMBO,
     "delta vector"},
};

// The row of a type, or null for a type no message carries as an attribute.
constexpr const attribute *find_attribute(uint32_t type) {
    for (const attribute &a : kAttributes)
        if (a.type == type) return &a;
    return nullptr;
}

// One value as read for a message: a number or vector held here, or a text
// of the session ("" when unset).
struct attribute_value {
    union {
        uint8_t u8;
        uint16_t u16;
        uint32_t u32;
        cv_usage_vector usage_vector;
        cv_delta_vector delta_vector;
    } held;
    const char *text;
    uint32_t size;  // of the held value; 0 for a text

    const void *data() const { return text != nullptr ? static_cast<const void *>(text) : &held; }
};

// Bytes of a value as messages carry it; 0 for the texts, whose size varies.
constexpr uint32_t value_size(attribute_source from) {
    switch (from) {
    case attribute_source::units:
    case attribute_source::level:
    case attribute_source::importance: return sizeof(uint8_t);
    case attribute_source::usage: return sizeof(uint16_t);
    case attribute_source::caliber:
    case attribute_source::category: return sizeof(uint32_t);
    case attribute_source::usage_vector: return sizeof(cv_usage_vector);
    case attribute_source::delta_vector: return sizeof(cv_delta_vector);
    default: return 0;
    }
}

// Reads the value once (calling its callback once). False, with nothing
// called and the value zeros of its size, when the callback is not registered.
bool read_attribute(const svc_session *s, attribute_source from, attribute_value *out);

}  // namespace omsdk

#endif
