// SPDX-License-Identifier: Apache-2.0
// The one way to the application's callbacks: from the table with a context
// when the application set one, else from the plain table. Each call returns
// false, its result untouched, when the slot is empty (or no table is set).
#ifndef OMSDK_SESSION_CALLBACKS_H
#define OMSDK_SESSION_CALLBACKS_H

#include <stdint.h>

#include "session/session.h"

namespace omsdk {

inline bool has_callbacks(const svc_session *s) {
    return s->ctx_registry != nullptr || s->registry != nullptr;
}

namespace detail {

template <typename R, typename... P, typename... A>
bool call_app(const svc_session *s, R (*svc_callback_registry::*plain)(P...),
              R (*ohmara_svc_ctx_registry::*with_ctx)(void *, P...), R *out, A... args) {
    if (s->ctx_registry != nullptr) {
        R (*f)(void *, P...) = s->ctx_registry->*with_ctx;
        if (f == nullptr) return false;
        *out = f(s->registry_ctx, args...);
        return true;
    }
    if (s->registry == nullptr || s->registry->*plain == nullptr) return false;
    *out = (s->registry->*plain)(args...);
    return true;
}

template <typename... P, typename... A>
bool call_app(const svc_session *s, void (*svc_callback_registry::*plain)(P...),
              void (*ohmara_svc_ctx_registry::*with_ctx)(void *, P...), A... args) {
    if (s->ctx_registry != nullptr) {
        void (*f)(void *, P...) = s->ctx_registry->*with_ctx;
        if (f == nullptr) return false;
        f(s->registry_ctx, args...);
        return true;
    }
    if (s->registry == nullptr || s->registry->*plain == nullptr) return false;
    (s->registry->*plain)(args...);
    return true;
}

}  // namespace detail

// One slot each, named as in the tables.
#define OMSDK_SLOT(name) &svc_callback_registry::name, &ohmara_svc_ctx_registry::name
inline bool app_get_units(const svc_session *s, uint8_t *out) {
    return detail::call_app(s, OMSDK_SLOT(get_units), out);
}
inline bool app_get_usage(const svc_session *s, uint16_t *out) {
    return detail::call_app(s, OMSDK_SLOT(get_usage), out);
}
inline bool app_get_usage_caliber(const svc_session *s, uint32_t *out) {
    return detail::call_app(s, OMSDK_SLOT(get_usage_caliber), out);
}
inline bool app_get_usage_category(const svc_session *s, uint32_t *out) {
    return detail::call_app(s, OMSDK_SLOT(get_usage_category), out);
}
inline bool app_get_level(const svc_session *s, uint8_t *out) {
    return detail::call_app(s, OMSDK_SLOT(get_level), out);
}
inline bool app_set_level(const svc_session *s, uint8_t level, int32_t *out) {
    return detail::call_app(s, OMSDK_SLOT(set_level), out, level);
}
inline bool app_get_usage_vector(const svc_session *s, uint16_t *vector) {
    return detail::call_app(s, OMSDK_SLOT(get_usage_vector), vector);
}
inline bool app_get_delta_vector(const svc_session *s, int32_t *vector) {
    return detail::call_app(s, OMSDK_SLOT(get_delta_vector), vector);
}
inline bool app_next_sequence(const svc_session *s, uint32_t *out) {
    return detail::call_app(s, OMSDK_SLOT(next_sequence), out);
}
inline bool app_attribute_modified(const svc_session *s, int32_t attribute) {
    return detail::call_app(s, OMSDK_SLOT(attribute_modified), attribute);
}
inline bool app_listen_port_notify(const svc_session *s, uint16_t port) {
    return detail::call_app(s, OMSDK_SLOT(listen_port_notify), port);
}
inline bool app_status_changed(const svc_session *s, int32_t status) {
    return detail::call_app(s, OMSDK_SLOT(status_changed), status);
}
inline bool app_alarm_reply(const svc_session *s, int32_t id, uint32_t type, int32_t success) {
    return detail::call_app(s, OMSDK_SLOT(alarm_reply), id, type, success);
}
#undef OMSDK_SLOT

}  // namespace omsdk

#endif
