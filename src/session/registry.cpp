// SPDX-License-Identifier: Apache-2.0
// Accepting the application's callback table.
#include <stddef.h>

#include "common/api.h"
#include "diag/log.h"
#include "session/session.h"

namespace {

// Whether a table has the required slots; logs the first missing one, and
// warns of optional ones the application probably meant to set. Either kind
// of table: the slots have the same names.
template <typename Registry>
bool complete(const Registry *r, const char *func) {
    struct Required {
        bool present;
        const char *message;
    };
    const Required required[] = {
        {r->get_units != nullptr, "GET units callback handler not initialized properly"},
        {r->get_usage != nullptr, "GET usage callback handler not initialized properly"},
        {r->get_usage_caliber != nullptr,
         "GET usage caliber callback handler not initialized properly"},
        {r->get_usage_category != nullptr,
         "GET usage category callback handler not initialized properly"},
        {r->get_level != nullptr, "GET level handler not initialized properly"},
        {r->set_level != nullptr, "SET level callback handler not initialized properly"},
        {r->get_usage_vector != nullptr,
         "GET usage vector callback handler not initialized properly"},
        {r->get_delta_vector != nullptr,
         "GET delta vector callback handler not initialized properly"},
        {r->next_sequence != nullptr,
         "Next sequence number callback handler not initialized properly"},
    };
    for (const Required &slot : required) {
        if (!slot.present) {
            OM_LOG_AS(omsdk::LOG_ERROR, func, "%s", slot.message);
            return false;
        }
    }

    // Optional: the session works without them, but the application
    // probably meant to set them.
    if (r->attribute_modified == nullptr)
        OM_LOG_AS(omsdk::LOG_WARN, func,
                  "Modified attribute notification callback handler not initialized properly");
    if (r->listen_port_notify == nullptr)
        OM_LOG_AS(omsdk::LOG_WARN, func,
                  "TCP listen port notification callback handler not initialized properly");
    return true;
}

}  // namespace

OMSDK_API int32_t ohmara_svc_configRegistry(svc_session *s, svc_callback_registry *r) {
    if (r == nullptr) {
        OM_ERROR("No callback registry provided");
        return -1;
    }
    if (s == nullptr || !complete(r, __func__)) return -1;
    s->registry = r;
    s->ctx_registry = nullptr;
    s->registry_ctx = nullptr;
    return 0;
}

OMSDK_API int32_t ohmara_svc_configRegistryWithContext(svc_session *s,
                                                       const ohmara_svc_ctx_registry *r,
                                                       void *ctx) {
    if (r == nullptr) {
        OM_ERROR("No callback registry provided");
        return -1;
    }
    if (s == nullptr || !complete(r, __func__)) return -1;
    s->ctx_registry = r;
    s->registry_ctx = ctx;
    s->registry = nullptr;
    return 0;
}
