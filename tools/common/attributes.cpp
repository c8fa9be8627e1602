// SPDX-License-Identifier: Apache-2.0
#include "attributes.h"

#include <omsdk/enums.h>

#include "text_util.h"

namespace omsdk_tools {

const std::vector<AttributeName> &get_attributes() {
    static const std::vector<AttributeName> table = {
        {"level", CV_CORVANE_TLV_TYPE_LEVEL_CURRENT},
        {"usage", CV_CORVANE_TLV_TYPE_USAGE},
        {"units", CV_CORVANE_TLV_TYPE_UNITS},
        {"caliber", 38},
        {"category", 51},
        {"usage-vector", 39},
        {"delta-vector", 36},
        {"usage-report", 43},
        {"usage-vector-report", 44},
        {"delta-vector-report", 45},
        {"importance", CV_CORVANE_TLV_TYPE_IMPORTANCE},
        {"name", CV_CORVANE_TLV_TYPE_NAME},
        {"role", CV_CORVANE_TLV_TYPE_ROLE},
        {"keywords", CV_CORVANE_TLV_TYPE_KEYWORDS},
        {"device-type", 48},
    };
    return table;
}

const std::vector<AttributeName> &set_attributes() {
    static const std::vector<AttributeName> table = {
        {"level", CV_CORVANE_TLV_TYPE_LEVEL_CURRENT},
        {"importance", CV_CORVANE_TLV_TYPE_IMPORTANCE},
        {"name", CV_CORVANE_TLV_TYPE_NAME},
        {"role", CV_CORVANE_TLV_TYPE_ROLE},
        {"keywords", CV_CORVANE_TLV_TYPE_KEYWORDS},
    };
    return table;
}

bool get_attribute_type(const std::string &name, uint32_t *type) {
    for (const AttributeName &a : get_attributes()) {
        if (name == a.name) {
            *type = a.type;
            return true;
        }
    }
    return false;
}

std::string attribute_name(uint32_t type) {
    if (type == CV_CORVANE_TLV_TYPE_IMPORTANCE_I) return "importance";
    for (const AttributeName &a : get_attributes())
        if (a.type == type) return a.name;
    return "";
}

bool parse_set_item(const std::string &assignment, SetItem *out, std::string *why) {
    const size_t eq = assignment.find('=');
    if (eq == std::string::npos || eq == 0) {
        *why = "set: expected NAME=VALUE, got '" + assignment + "'";
        return false;
    }
    const std::string name = assignment.substr(0, eq);
    const std::string value = assignment.substr(eq + 1);
    SetItem item;
    bool known = false;
    for (const AttributeName &a : set_attributes()) {
        if (name == a.name) {
            item.type = a.type;
            known = true;
        }
    }
    if (!known) {
        *why = "set: unknown attribute '" + name + "' (level, importance, name, role, keywords)";
        return false;
    }
    item.empty = value.empty();
    if (item.type == CV_CORVANE_TLV_TYPE_LEVEL_CURRENT ||
        item.type == CV_CORVANE_TLV_TYPE_IMPORTANCE) {
        long long v = 0;
        if (!item.empty && !parse_int(value, 0, 255, &v)) {
            *why = "set: " + name + " needs a number from 0 to 255, got '" + value + "'";
            return false;
        }
        item.num = static_cast<uint8_t>(v);
    } else {
        item.is_text = true;
        item.text = value;
    }
    *out = item;
    return true;
}

}  // namespace omsdk_tools
