// SPDX-License-Identifier: Apache-2.0
// Reading one attribute's value for a message.
#include "engine/attribute_table.h"

#include <string.h>

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

// Calls `get` into the held value when it is registered.
template <typename Field, typename Get>
bool call(Get get, Field *field) {
    if (get == nullptr) return false;
    *field = get();
    return true;
}

template <typename Field, typename Fill>
bool fill(Fill get, Field &field) {
    if (get == nullptr) return false;
    get(field);
    return true;
}

}  // namespace

bool read_attribute(const svc_session *s, attribute_source from, attribute_value *out) {
    memset(out, 0, sizeof *out);
    // Set whatever happens: a value never read is sent as zeros of its size.
    out->size = value_size(from);
    const svc_callback_registry *reg = s->registry;
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
    if (reg == nullptr) return false;
    switch (from) {
    case attribute_source::units: return call(reg->get_units, &out->held.u8);
    case attribute_source::usage: return call(reg->get_usage, &out->held.u16);
    case attribute_source::caliber: return call(reg->get_usage_caliber, &out->held.u32);
    case attribute_source::category: return call(reg->get_usage_category, &out->held.u32);
    case attribute_source::level: return call(reg->get_level, &out->held.u8);
    case attribute_source::usage_vector: return fill(reg->get_usage_vector, out->held.usage_vector);
    case attribute_source::delta_vector: return fill(reg->get_delta_vector, out->held.delta_vector);
    default: return false;
    }
}

}  // namespace omsdk
