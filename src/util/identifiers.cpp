// SPDX-License-Identifier: Apache-2.0
#include <stdio.h>
#include <string.h>
#include <uuid/uuid.h>

#include <omsdk/utility.h>
#include <omsdk/uuid.h>

#include "common/api.h"
#include "diag/log.h"

namespace {

constexpr size_t kUuidSize = 16;
constexpr size_t kUuidTextSize = 32;
// Marks a UUID as derived from a MAC address rather than random.
constexpr uint8_t kMacUuidPrefix[4] = {0xE0, 0xD0, 0x0D, 0xE0};
constexpr size_t kMacSize = 6;
constexpr char kHexDigits[] = "0123456789abcdef";

}  // namespace

// Written digit by digit: the text has no terminator, so a formatted print
// would write one byte past the 32 the caller provides.
OMSDK_API int32_t convertUuidString(char *out, const uint8_t *uuid) {
    memset(out, 0, kUuidTextSize);
    for (size_t i = 0; i < kUuidSize; ++i) {
        out[2 * i] = kHexDigits[uuid[i] >> 4];
        out[2 * i + 1] = kHexDigits[uuid[i] & 0x0F];
    }
    return 0;
}

OMSDK_API int32_t uuidFromMacAddress(uint8_t *uuid, const uint8_t *mac) {
    memset(uuid, 0, kUuidSize);
    memcpy(uuid, kMacUuidPrefix, sizeof kMacUuidPrefix);
    memcpy(uuid + kUuidSize - kMacSize, mac, kMacSize);
    return 0;
}

OMSDK_API int32_t generateUuid(uint8_t *uuid) {
    uuid_generate(uuid);
    return 0;
}

OMSDK_API char *newUUID(uint8_t *buffer) {
    generateUuid(buffer);
    char *text = reinterpret_cast<char *>(buffer + kUuidSize);
    convertUuidString(text, buffer);
    return text;
}

OMSDK_API int32_t ohmara_utl_createUuid(char *out) {
    if (out == nullptr) {
        OM_ERROR("no output buffer");
        return -1;
    }
    uint8_t uuid[kUuidSize];
    generateUuid(uuid);
    return convertUuidString(out, uuid);
}

OMSDK_API int32_t ohmara_utl_createUuidFromMac(char *out, const uint8_t *mac) {
    if (out == nullptr || mac == nullptr) {
        OM_ERROR("%s is null", out == nullptr ? "output buffer" : "MAC address");
        return -1;
    }
    uint8_t uuid[kUuidSize];
    uuidFromMacAddress(uuid, mac);
    return convertUuidString(out, uuid);
}

OMSDK_API int32_t ohmara_utl_createUuidFromDetails(char *out, const char *first, const char *second,
                                                   const char *third, const char *fourth) {
    if (out == nullptr || first == nullptr || second == nullptr || third == nullptr ||
        fourth == nullptr)
        return -1;
    memcpy(out, first, 18);
    memcpy(out + 18, second, 3);
    memcpy(out + 21, third, 5);
    memcpy(out + 26, fourth, 6);
    return 0;
}

OMSDK_API int32_t ohmara_utl_senderId(char *out, const uint8_t *mac) {
    if (out == nullptr) {
        OM_ERROR("no output buffer");
        return -1;
    }
    uint8_t uuid[kUuidSize];
    if (mac == nullptr) {
        OM_DEBUG("creating unique session UUID");
        generateUuid(uuid);
    } else {
        uuidFromMacAddress(uuid, mac);
    }
    convertUuidString(out, uuid);
    // The text carries no terminator of its own; never read past it.
    OM_DEBUG("UUID %.32s", out);
    return 0;
}

OMSDK_API int32_t macAddressToString(char *out, const uint8_t *mac) {
    (void)snprintf(out, 18, "%02X:%02X:%02X:%02X:%02X:%02X", mac[0], mac[1], mac[2], mac[3], mac[4],
                   mac[5]);
    return 0;
}
