// SPDX-License-Identifier: Apache-2.0
// Reading one attribute's value for a message.
#include "engine/attribute_table.h"

#include <string.h>

#include "session/callbacks.h"

namespace omsdk {

namespace {

// The attributes that are session texts.
struct text_source {
    attribute_source from;
    char *svc_session::*field;
};
constexpr text_source kTexts[] = {
    {attribute_source::role, &svc_session::role},
    {attribute_source::name, &svc_session::name},
    {attribute_source::keywords, &svc_session::keywords},
    {attribute_source::device_type, &svc_session::device_type},
};

}  // namespace

bool read_attribute(const svc_session *s, attribute_source from, attribute_value *out) {
    memset(out, 0, sizeof *out);
    // Set whatever happens: a value never read is sent as zeros of its size.
    out->size = value_size(from);
    for (const text_source &t : kTexts) {
        if (t.from != from) continue;
        const char *text = s->*t.field;
        out->text = text != nullptr ? text : "";
        return true;
    }
    if (from == attribute_source::importance) {
        out->held.u8 = static_cast<uint8_t>(s->importance);
        return true;
    }
    switch (from) {
    case attribute_source::units: return app_get_units(s, &out->held.u8);
    case attribute_source::usage: return app_get_usage(s, &out->held.u16);
    case attribute_source::caliber: return app_get_usage_caliber(s, &out->held.u32);
    case attribute_source::category: return app_get_usage_category(s, &out->held.u32);
    case attribute_source::level: return app_get_level(s, &out->held.u8);
    case attribute_source::usage_vector: return app_get_usage_vector(s, out->held.usage_vector);
    case attribute_source::delta_vector: return app_get_delta_vector(s, out->held.delta_vector);
    default: return false;
    }
}

}  // namespace omsdk
