// SPDX-License-Identifier: Apache-2.0
// Attribute names as a user types them, and the TLV types behind them.
#ifndef OMSDK_TOOLS_ATTRIBUTES_H
#define OMSDK_TOOLS_ATTRIBUTES_H

#include <stdint.h>

#include <string>
#include <vector>

namespace omsdk_tools {

struct AttributeName {
    const char *name;
    uint32_t type;
};

// The attributes a GET can ask for, in the order the help lists them.
const std::vector<AttributeName> &get_attributes();
// The attributes a SET can change.
const std::vector<AttributeName> &set_attributes();

// The TLV type of a GET attribute name; false when unknown.
bool get_attribute_type(const std::string &name, uint32_t *type);
// The user's name of a TLV type as a GET attribute ("" when none). The
// reply reports importance as type 17.
std::string attribute_name(uint32_t type);

// One change of a SET: a number for level and importance, a text for
// name, role and keywords. `empty` sends the TLV without a value, which
// asks the endpoint for its default.
struct SetItem {
    uint32_t type = 0;
    bool is_text = false;
    std::string text;
    uint8_t num = 0;
    bool empty = false;
};

// Parses "level=3", "name=lamp 7", "keywords=a,b", "role=" ... False with
// a reason when the name is unknown or the number is out of range.
bool parse_set_item(const std::string &assignment, SetItem *out, std::string *why);

}  // namespace omsdk_tools

#endif
