// SET queries: the switch changes the endpoint's role, name, keywords,
// level or importance.
#include <stdlib.h>
#include <string.h>

#include <omsdk/enums.h>
#include <omsdk/event.h>

#include "common/api.h"
#include "diag/log.h"
#include "engine/query.h"
#include "session/identity.h"
#include "session/session.h"

namespace {

constexpr uint8_t kDefaultLevel = 10;
constexpr uint8_t kDefaultImportance = 1;
constexpr uint8_t kMaxImportance = 100;

void notify(const svc_session *s, int32_t attribute) {
    if (s->registry != nullptr && s->registry->attribute_modified != nullptr)
        s->registry->attribute_modified(attribute);
}

// A terminated heap copy of at most `n` bytes of `text`; null when out of
// memory. Received texts are not trusted to be terminated.
char *copy_text(const char *text, size_t n) {
    auto *copy = static_cast<char *>(malloc(n + 1));
    if (copy == nullptr) return nullptr;
    memcpy(copy, text, n);
    copy[n] = '\0';
    return copy;
}

// Received value of a text TLV, bounded by its length.
size_t text_len(const void *value, uint32_t len) {
    return strnlen(static_cast<const char *>(value), len);
}

// Replaces the session's text field by a copy of the value when the value
// is valid for the field; false otherwise (the field is then unchanged).
bool replace_text(char **field, const char *value, size_t n, int32_t whitelist_kind) {
    char *copy = copy_text(value, n);
    if (copy == nullptr || omr_string_in_whitelist(copy, whitelist_kind) == 0) {
        free(copy);
        return false;
    }
    free(*field);
    *field = copy;
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

        switch (type) {
        case CV_CORVANE_TLV_TYPE_ROLE: {
            const char *text;
            size_t n;
            if (len == 0) {
                text = getDefaultRole();
                n = strlen(text);
            } else if (value == nullptr) {
                OM_WARN("failed to set role");
                return -1;
            } else {
                text = static_cast<const char *>(value);
                n = text_len(value, len);
            }
            OM_DEBUG("set role %.*s request", static_cast<int>(n), text);
            if (!replace_text(&session->role, text, n, OMSDK_FIELD_ROLE)) {
                OM_WARN("failed to set role");
                return -1;
            }
            OM_INFO("changed role to %s", session->role);
            notify(session, OHMARA_ATTR_ROLE);
            break;
        }
        case CV_CORVANE_TLV_TYPE_NAME: {
            const char *text;
            size_t n;
            if (len == 0) {
                text = getDefaultName(session);
                n = strlen(text);
            } else if (value == nullptr) {
                OM_WARN("failed to set name");
                return -1;
            } else {
                text = static_cast<const char *>(value);
                n = text_len(value, len);
            }
            OM_DEBUG("set name %.*s request", static_cast<int>(n), text);
            if (!replace_text(&session->name, text, n, OMSDK_FIELD_NAME)) {
                OM_WARN("failed to set name");
                return -1;
            }
            OM_INFO("changed name to %s", session->name);
            notify(session, OHMARA_ATTR_NAME);
            break;
        }
        case CV_CORVANE_TLV_TYPE_KEYWORDS: {
            if (len == 0) {
                OM_INFO("Clearing keywords by request.");
                // Cleared keywords are empty, not unset; unset ones stay so.
                if (session->keywords != nullptr) {
                    free(session->keywords);
                    session->keywords = strdup("");
                }
                notify(session, OHMARA_ATTR_KEYWORDS);
                break;
            }
            const char *text = value != nullptr ? static_cast<const char *>(value) : "";
            size_t n = value != nullptr ? text_len(value, len) : 0;
            if (value == nullptr ||
                !replace_text(&session->keywords, text, n, OMSDK_FIELD_KEYWORDS)) {
                OM_WARN("Failed to set KEYWORDS attribute to %.*s -- invalid or no characters "
                        "defined.",
                        static_cast<int>(n), text);
                return -1;
            }
            OM_DEBUG("set keywords %s request", session->keywords);
            OM_INFO("changed keywords to %s", session->keywords);
            notify(session, OHMARA_ATTR_KEYWORDS);
            break;
        }
        case CV_CORVANE_TLV_TYPE_LEVEL_CURRENT: {
            const svc_callback_registry *reg = session->registry;
            uint8_t level = kDefaultLevel;
            if (len != 0) {
                if (value == nullptr) {
                    OM_WARN("failed to set level");
                    return -1;
                }
                level = *static_cast<const uint8_t *>(value);
            }
            if (reg == nullptr || reg->get_level == nullptr || reg->set_level == nullptr) {
                OM_WARN("failed to set level");
                return -1;
            }
            uint8_t old_level = reg->get_level();
            OM_DEBUG("set level %d request", level);
            if (reg->set_level(level) < 0) {
                OM_WARN("failed to set level");
                return -1;
            }
            uint8_t new_level = reg->get_level();
            OM_INFO("changed level from %d to %d", old_level, new_level);
            notify(session, OHMARA_ATTR_LEVEL);
            break;
        }
        case CV_CORVANE_TLV_TYPE_IMPORTANCE:
        case CV_CORVANE_TLV_TYPE_IMPORTANCE_I: {
            uint8_t importance = kDefaultImportance;
            if (len != 0) {
                if (value == nullptr) {
                    OM_WARN("failed to set importance");
                    return -1;
                }
                importance = *static_cast<const uint8_t *>(value);
            }
            OM_DEBUG("set importance %d request", importance);
            if (importance == 0 || importance > kMaxImportance) {
                OM_WARN("failed to set importance to %d", importance);
                return -1;
            }
            session->importance = importance;
            OM_INFO("changed importance to %d", importance);
            notify(session, OHMARA_ATTR_IMPORTANCE);
            break;
        }
        default:
            break;  // not settable: domain, units, usage and the rest
        }
    }
    return 0;
}
