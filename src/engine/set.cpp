// SPDX-License-Identifier: Apache-2.0
// SET queries: the switch changes the endpoint's role, name, keywords,
// level or importance.
#include "engine/set.h"

#include <stdlib.h>
#include <string.h>

#include <omsdk/enums.h>
#include <omsdk/event.h>

#include "common/api.h"
#include "diag/log.h"
#include "session/callbacks.h"
#include "session/identity.h"
#include "util/mutex_guard.h"

namespace {

constexpr uint8_t kDefaultLevel = 10;
constexpr uint8_t kDefaultImportance = 1;
constexpr uint8_t kMaxImportance = 100;
constexpr const char kSet[] = "omr_doSetQuery";

void notify(const svc_session *s, int32_t attribute) {
    (void)omsdk::app_attribute_modified(s, attribute);
}

// A text field a SET may change. A TLV without a value asks for the
// default; keywords have none and are cleared instead.
struct text_field {
    uint32_t type;
    char *svc_session::*field;
    int32_t whitelist;
    int32_t attribute;
    const char *what;
    const char *(*fallback)(svc_session *s);  // null: an empty TLV clears
};

const char *default_role(svc_session *) { return getDefaultRole(); }
const char *default_name(svc_session *s) { return getDefaultName(s); }

constexpr text_field kTextFields[] = {
    {CV_CORVANE_TLV_TYPE_ROLE, &svc_session::role, OMSDK_FIELD_ROLE, OHMARA_ATTR_ROLE, "role",
     default_role},
    {CV_CORVANE_TLV_TYPE_NAME, &svc_session::name, OMSDK_FIELD_NAME, OHMARA_ATTR_NAME, "name",
     default_name},
    {CV_CORVANE_TLV_TYPE_KEYWORDS, &svc_session::keywords, OMSDK_FIELD_KEYWORDS,
     OHMARA_ATTR_KEYWORDS, "keywords", nullptr},
};

// Application threads copy the texts under the session's mutex
// (ohmara_svc_copyAttribute): a text is swapped under it and freed after.
void swap_text(svc_session *s, char **field, char *text) {
    char *old;
    {
        omsdk::MutexGuard guard(&s->mutex);
        old = *field;
        *field = text;
    }
    free(old);
}

const text_field *find_text_field(uint32_t type) {
    for (const text_field &f : kTextFields)
        if (f.type == type) return &f;
    return nullptr;
}

// Replaces the field by a terminated copy of at most `n` bytes of `text`
// when the copy is valid for the field; false otherwise (field unchanged).
// Received texts are not trusted to be terminated.
bool replace_text(svc_session *s, char **field, const char *text, size_t n,
                  int32_t whitelist_kind) {
    auto *copy = static_cast<char *>(malloc(n + 1));
    if (copy == nullptr) return false;
    memcpy(copy, text, n);
    copy[n] = '\0';
    if (omr_string_in_whitelist(copy, whitelist_kind) == 0) {
        free(copy);
        return false;
    }
    swap_text(s, field, copy);
    return true;
}

// Applies one text TLV; false when it was refused. Logs on behalf of
// omr_doSetQuery.
bool set_text(svc_session *s, const text_field &f, const void *value, uint32_t len) {
    char *&field = s->*f.field;
    if (len == 0 && f.fallback == nullptr) {
        OM_LOG_AS(omsdk::LOG_INFO, kSet, "Clearing keywords by request.");
        // Cleared keywords are empty, not unset; unset ones stay so.
        if (field != nullptr) swap_text(s, &field, strdup(""));
        notify(s, f.attribute);
        return true;
    }
    const char *text = len == 0 ? f.fallback(s) : static_cast<const char *>(value);
    size_t n = 0;
    bool ok = text != nullptr;
    if (ok) {
        n = len == 0 ? strlen(text) : strnlen(text, len);
        if (f.fallback != nullptr)
            OM_LOG_AS(omsdk::LOG_DEBUG, kSet, "set %s %.*s request", f.what, static_cast<int>(n),
                      text);
        ok = replace_text(s, &field, text, n, f.whitelist);
    }
    if (!ok) {
        if (f.fallback != nullptr)
            OM_LOG_AS(omsdk::LOG_WARN, kSet, "failed to set %s", f.what);
        else
            OM_LOG_AS(omsdk::LOG_WARN, kSet,
                      "Failed to set KEYWORDS attribute to %.*s -- invalid or no characters "
                      "defined.",
                      static_cast<int>(n), text != nullptr ? text : "");
        return false;
    }
    if (f.fallback == nullptr)
        OM_LOG_AS(omsdk::LOG_DEBUG, kSet, "set %s %s request", f.what, field);
    OM_LOG_AS(omsdk::LOG_INFO, kSet, "changed %s to %s", f.what, field);
    notify(s, f.attribute);
    return true;
}

// A one-byte value, or `fallback` for a TLV without one; false when the
// TLV claims a value it does not hold.
bool byte_value(const void *value, uint32_t len, uint8_t fallback, uint8_t *out) {
    if (len == 0) {
        *out = fallback;
        return true;
    }
    if (value == nullptr) return false;
    *out = *static_cast<const uint8_t *>(value);
    return true;
}

}  // namespace

OMSDK_API int32_t omr_doSetQuery(svc_session *session, cv_event *query) {
    if (session == nullptr || query == nullptr || query->pak == nullptr) return -1;
    int32_t count = query->pak->tlv_count;
    if (query->tlvs == nullptr || count > query->tlv_capacity) count = 0;

    for (int32_t i = 0; i < count; ++i) {
        const cv_tlv *tlv = query->tlvs[i];
        if (tlv == nullptr) continue;
        uint32_t type = tlv->type;  // aggregate TLVs match no case below
        uint32_t len = tlv->length > CV_TLV_HEADER_SIZE ? tlv->length - CV_TLV_HEADER_SIZE : 0;
        uint32_t tag = tlv->qualifier;
        const void *value = tlv->value;
        OM_DEBUG("count %d, type %d, len %d, tag %d", i, static_cast<int>(type),
                 static_cast<int>(len), static_cast<int>(tag));
        if (tag != 0) continue;

        if (const text_field *f = find_text_field(type)) {
            if (!set_text(session, *f, value, len)) return -1;
            continue;
        }
        switch (type) {
        case CV_CORVANE_TLV_TYPE_LEVEL_CURRENT: {
            uint8_t level = 0, old_level = 0, new_level = 0;
            if (!byte_value(value, len, kDefaultLevel, &level) ||
                !omsdk::app_get_level(session, &old_level)) {
                OM_WARN("failed to set level");
                return -1;
            }
            OM_DEBUG("set level %d request", level);
            int32_t verdict = -1;
            if (!omsdk::app_set_level(session, level, &verdict) || verdict < 0) {
                OM_WARN("failed to set level");
                return -1;
            }
            (void)omsdk::app_get_level(session, &new_level);
            OM_INFO("changed level from %d to %d", old_level, new_level);
            notify(session, OHMARA_ATTR_LEVEL);
            break;
        }
        case CV_CORVANE_TLV_TYPE_IMPORTANCE:
        case CV_CORVANE_TLV_TYPE_IMPORTANCE_I: {
            uint8_t importance = 0;
            if (!byte_value(value, len, kDefaultImportance, &importance)) {
                OM_WARN("failed to set importance");
                return -1;
            }
            OM_DEBUG("set importance %d request", importance);
            if (importance == 0 || importance > kMaxImportance) {
                OM_WARN("failed to set importance to %d", importance);
                return -1;
            }
            {
                omsdk::MutexGuard guard(&session->mutex);
                session->importance = importance;
            }
            OM_INFO("changed importance to %d", importance);
            notify(session, OHMARA_ATTR_IMPORTANCE);
            break;
        }
        default: break;  // not settable: domain, units, usage and the rest
        }
    }
    return 0;
}
