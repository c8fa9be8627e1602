// SPDX-License-Identifier: Apache-2.0
#include <stdint.h>
#include <string.h>

#include "common/api.h"
#include "omsdk.h"
#include "session/session.h"
#include "util/mutex_guard.h"

namespace {

constexpr int32_t kMinDiscoveryInterval = 180;

const void *text_attribute(const char *text, uint32_t *length) {
    *length = static_cast<uint32_t>(strlen(text) + 1);
    return text;
}

}  // namespace

OMSDK_API int32_t ohmara_svc_configPowerSource(svc_session *session, uint32_t source) {
    if (session == nullptr) return -1;
    session->power_source = source == 1 ? 1u : 0u;
    return 0;
}

// A short interval is stored all the same; the result only tells the
// application that it is shorter than the protocol expects.
OMSDK_API int32_t ohmara_svc_setDiscoveryInterval(svc_session *session, int32_t seconds) {
    if (session == nullptr) return 0;
    session->discovery_interval = static_cast<uint32_t>(seconds);
    return seconds >= kMinDiscoveryInterval ? 1 : 0;
}

OMSDK_API int32_t ohmara_svc_setNannyFunctionBit(svc_session *session, uint32_t bit, uint8_t on) {
    int32_t pos = om_get_internal_nanny_bit_type(bit);
    if (session == nullptr || pos < 1) return -1;
    uint32_t mask = pos < 32 ? (1u << pos) : 0u;
    if (on != 0)
        session->nanny_bits |= mask;
    else
        session->nanny_bits &= ~mask;
    return 0;
}

// Answers from the session's own storage. A text that is not set yet falls
// through to the next one down this list, ending at the importance.
struct ChainLink {
    int32_t id;
    char *svc_session::*text;
};
constexpr ChainLink kFallThrough[] = {
    {OHMARA_ATTR_DOMAIN, &svc_session::domain},
    {OHMARA_ATTR_KEYWORDS, &svc_session::keywords},
    {OHMARA_ATTR_NAME, &svc_session::name},
    {OHMARA_ATTR_ROLE, &svc_session::role},
};

namespace {

// Where an attribute's value lives, with its length (texts with their NUL);
// null for an id that is not answered here.
const void *find_attribute(svc_session *session, int32_t id, uint32_t *length) {
    if (id == OHMARA_ATTR_DEVICE_TYPE && session->device_type != nullptr)
        return text_attribute(session->device_type, length);

    bool started = false;
    for (const ChainLink &link : kFallThrough) {
        started = started || link.id == id;
        if (started && session->*link.text != nullptr)
            return text_attribute(session->*link.text, length);
    }
    if (started || id == OHMARA_ATTR_IMPORTANCE) {
        // One byte: the low-order byte of the stored value on little-endian hosts.
        *length = 1;
        return &session->importance;
    }
    *length = 0;
    return nullptr;
}

}  // namespace

OMSDK_API const void *ohmara_svc_getAttribute(svc_session *session, int32_t id, uint32_t *length) {
    if (session == nullptr || length == nullptr) return nullptr;
    return find_attribute(session, id, length);
}

// The texts are replaced under the same mutex (SETs, configuration), so the
// copy is whole and never reads freed storage.
OMSDK_API int32_t ohmara_svc_copyAttribute(svc_session *session, int32_t id, void *buffer,
                                           uint32_t size, uint32_t *length) {
    if (session == nullptr || length == nullptr) return -1;
    *length = 0;
    if (buffer == nullptr && size > 0) return -1;
    omsdk::MutexGuard guard(&session->mutex);
    const void *value = find_attribute(session, id, length);
    if (value == nullptr || *length > size) return -1;
    memcpy(buffer, value, *length);
    return 0;
}
