// SPDX-License-Identifier: Apache-2.0
// Query filters (is this endpoint addressed by a query?) and the keyword
// list utilities exported to applications.
//
// Every value read here comes from the network: texts and keyword runs are
// only ever walked within their TLV's value length.
#include "engine/filter.h"

#include <stdlib.h>
#include <string.h>

#include <omsdk/enums.h>
#include <omsdk/event.h>

#include "common/api.h"
#include "diag/log.h"
#include "session/callbacks.h"
#include "session/session.h"

namespace {

// Selectors of a query carry this qualifier in their TLV header.
constexpr uint32_t kSelector = 1;

// Length of a received text, bounded by its TLV value length.
size_t bounded_len(const void *value, uint32_t len) {
    return value == nullptr ? 0 : strnlen(static_cast<const char *>(value), len);
}

bool wildcard_match(const char *own, const char *pattern, size_t plen) {
    size_t olen = strlen(own);
    if (plen > 0 && pattern[plen - 1] == '*') {
        size_t prefix = plen - 1;
        return olen >= prefix && memcmp(own, pattern, prefix) == 0;
    }
    return olen == plen && memcmp(own, pattern, plen) == 0;
}

// Role and name filters: 1 when no TLV of the type selects, or one of them
// matches the endpoint's text; 0 otherwise, and always 0 when the endpoint
// has no such text.
int32_t text_filter(const cv_event *event, const char *own, uint32_t type) {
    if (own == nullptr) return 0;
    bool seen = false;
    int32_t index = 0;
    for (;;) {
        uint32_t len = 0;
        const void *value = cv_get_next_tlv_value(event, &index, type, &len, kSelector);
        if (index < 0) break;
        seen = true;
        // A selector without a value matches nothing.
        if (value != nullptr &&
            wildcard_match(own, static_cast<const char *>(value), bounded_len(value, len)))
            return 1;
        ++index;
    }
    return seen ? 0 : 1;
}

// The endpoint's own keywords (its comma-separated list, empty pieces left
// out) as an open-addressing hash set over the list's text, built per query:
// each query keyword is then looked up once, so a query costs time linear in
// both lists.
class keyword_set {
public:
    keyword_set() = default;
    keyword_set(const keyword_set &) = delete;
    keyword_set &operator=(const keyword_set &) = delete;
    ~keyword_set() {
        if (slots_ != inline_) free(slots_);
    }

    // False when the table for a long list cannot be allocated.
    bool build(const char *list) {
        text_ = list;
        size_t pieces = 1;
        size_t len = 0;
        for (; list[len] != '\0'; ++len) pieces += list[len] == ',' ? 1 : 0;
        size_t size = kMinSlots;
        while (size < 2 * pieces) size *= 2;
        if (size > kInlineSlots) {
            slots_ = static_cast<slot *>(malloc(size * sizeof(slot)));
            if (slots_ == nullptr) return false;
        }
        memset(slots_, 0, size * sizeof(slot));
        mask_ = size - 1;
        for (size_t start = 0, i = 0; i <= len; ++i) {
            if (list[i] != ',' && list[i] != '\0') continue;
            if (i > start) insert(start, i - start);
            start = i + 1;
        }
        return true;
    }

    bool contains(const char *word, size_t len) const {
        for (size_t i = hash(word, len) & mask_;; i = (i + 1) & mask_) {
            const slot &s = slots_[i];
            if (s.len == 0) return false;
            if (s.len == len && memcmp(text_ + s.at, word, len) == 0) return true;
        }
    }

private:
    struct slot {
        uint32_t at;   // offset of the keyword in the list
        uint32_t len;  // 0: free
    };
    static constexpr size_t kMinSlots = 16;
    static constexpr size_t kInlineSlots = 256;

    static size_t hash(const char *p, size_t len) {
        uint32_t h = 2166136261u;  // FNV-1a
        for (size_t i = 0; i < len; ++i) h = (h ^ static_cast<uint8_t>(p[i])) * 16777619u;
        return h;
    }

    void insert(size_t at, size_t len) {
        size_t i = hash(text_ + at, len) & mask_;
        while (slots_[i].len != 0) i = (i + 1) & mask_;
        slots_[i] = {static_cast<uint32_t>(at), static_cast<uint32_t>(len)};
    }

    const char *text_ = nullptr;
    size_t mask_ = 0;
    slot inline_[kInlineSlots];
    slot *slots_ = inline_;
};

bool is_keyword_separator(char c) { return c == ',' || c == ' ' || c == '\t'; }

}  // namespace

OMSDK_API int32_t cv_exec_filter(cv_event *event, svc_session *session, int32_t importance) {
    if (event == nullptr || event->pak == nullptr || session == nullptr) return 0;
    int32_t priority = event->pak->pri;
    if (importance > priority) {
        // The wording reads the test backwards; it is kept as operators know it.
        OM_DEBUG("skipping query priority %d > my importance %d", priority, importance);
        return 0;
    }
    return cv_sender_id_or_wildcard_filter(event, session);
}

OMSDK_API int32_t cv_sender_id_or_wildcard_filter(cv_event *event, svc_session *session) {
    if (event == nullptr || session == nullptr) return 0;
    bool identity_given = false;
    int32_t index = 0;
    for (;;) {
        uint32_t len = 0;
        const void *value =
            cv_get_next_tlv_value(event, &index, CV_CORVANE_TLV_TYPE_OHMRZ_ID, &len, kSelector);
        if (index < 0) break;
        identity_given = true;
        if (value != nullptr && len >= CV_CORVANE_ID_SIZE &&
            memcmp(value, session->sender_id, CV_CORVANE_ID_SIZE) == 0)
            return 1;
        ++index;
    }
    // An explicit identity overrides every selector.
    if (identity_given) return 0;
    return cv_role_filter(event, session) && cv_name_filter(event, session) &&
                   cv_keyword_filter(event, session) && cv_category_filter(event, session)
               ? 1
               : 0;
}

OMSDK_API int32_t cv_role_filter(cv_event *event, svc_session *session) {
    if (event == nullptr || session == nullptr) return 0;
    return text_filter(event, session->role, CV_CORVANE_TLV_TYPE_ROLE);
}

OMSDK_API int32_t cv_name_filter(cv_event *event, svc_session *session) {
    if (event == nullptr || session == nullptr) return 0;
    return text_filter(event, session->name, CV_CORVANE_TLV_TYPE_NAME);
}

OMSDK_API int32_t cv_keyword_filter(cv_event *event, svc_session *session) {
    if (event == nullptr || session == nullptr) return 0;
    int32_t index = 0;
    uint32_t tlv_len = 0;
    const void *value =
        cv_get_next_tlv_value(event, &index, CV_CORVANE_TLV_TYPE_KEYWORDS, &tlv_len, kSelector);
    if (index < 0) return 1;
    if (session->keywords == nullptr || session->keywords[0] == '\0') {
        OM_WARN("No keywords defined!");
        return 0;
    }
    keyword_set own;
    if (!own.build(session->keywords)) {
        // Letting the query through is the lesser harm.
        OM_ERROR("memory allocation failed");
        return 1;
    }
    const char *wanted = static_cast<const char *>(value);
    if (wanted == nullptr) tlv_len = 0;

    // The query's keywords are NUL-separated within the value; empty ones
    // ("\0\0") are not keywords and never match.
    for (uint32_t w = 0; w < tlv_len;) {
        size_t theirs_len = strnlen(wanted + w, tlv_len - w);
        if (theirs_len > 0 && own.contains(wanted + w, theirs_len)) return 1;
        w += static_cast<uint32_t>(theirs_len) + 1;
    }
    return 0;
}

OMSDK_API int32_t cv_category_filter(cv_event *event, svc_session *session) {
    if (event == nullptr || session == nullptr) return 0;
    uint32_t category = 0;
    (void)omsdk::app_get_usage_category(session, &category);
    bool seen = false;
    int32_t index = 0;
    for (;;) {
        uint32_t len = 0;
        const void *value = cv_get_next_tlv_value(event, &index, CV_CORVANE_TLV_TYPE_USAGE_CATEGORY,
                                                  &len, kSelector);
        if (index < 0) break;
        seen = true;
        uint32_t wanted = 0;
        if (value != nullptr && len >= sizeof wanted) {
            memcpy(&wanted, value, sizeof wanted);
            if (wanted == category) return 1;
        }
        ++index;
    }
    if (seen) return 0;
    // Category 1 endpoints answer queries that do not select a category.
    if (category == 1) return 1;
    OM_TRACE("false");
    return 0;
}

OMSDK_API int32_t cv_wildcard_match(const char *own, const char *pattern) {
    if (own == nullptr || pattern == nullptr) return 0;
    return wildcard_match(own, pattern, strlen(pattern)) ? 1 : 0;
}

OMSDK_API int32_t cv_comma_list2kwl(char *s) {
    if (s == nullptr) return 0;
    size_t len = strlen(s);
    for (size_t i = 0; i < len; ++i)
        if (s[i] == ',') s[i] = '\0';
    return static_cast<int32_t>(len + 1);
}

OMSDK_API char *corvane_conv_kw_list(const char *s) {
    if (s == nullptr) return nullptr;
    size_t size = strlen(s) + 1;
    auto *copy = static_cast<char *>(malloc(size));
    if (copy == nullptr) return nullptr;
    memcpy(copy, s, size);
    cv_comma_list2kwl(copy);
    return copy;
}

OMSDK_API char *cv_get_comma_sep_list(const char *list, int32_t size) {
    if (list == nullptr || size <= 0) return nullptr;
    size_t n = static_cast<size_t>(size);
    auto *copy = static_cast<char *>(malloc(n));
    if (copy == nullptr) return nullptr;
    memcpy(copy, list, n);
    copy[n - 1] = '\0';
    for (size_t first = strlen(copy); first + 1 < n; first = strlen(copy)) copy[first] = ',';
    return copy;
}

OMSDK_API keyword_list createKeywordList(const char *s) {
    char *dup = s != nullptr ? strdup(s) : nullptr;
    if (dup == nullptr) {
        OM_ERROR("strdup failed");
        return nullptr;
    }
    int32_t ended = 0;  // non-empty pieces that end at a separator
    size_t len = 0;
    for (size_t piece = 0; dup[len] != '\0'; ++len) {
        if (!is_keyword_separator(dup[len])) {
            ++piece;
            continue;
        }
        if (piece > 0) ++ended;
        piece = 0;
    }
    OM_DEBUG("configuring keywords (%d)", ended + 1);

    // Pointers and text in one block, so that one free() releases the list.
    size_t slots = static_cast<size_t>(ended) + 2;
    size_t text_at = slots * sizeof(char *);
    auto *block = static_cast<char *>(calloc(1, text_at + len + 1));
    if (block == nullptr) {
        OM_FATAL("out of memory");
        free(dup);
        return nullptr;
    }
    char *text = block + text_at;
    memcpy(text, dup, len + 1);
    free(dup);

    auto list = reinterpret_cast<keyword_list>(block);
    size_t n = 0;
    char *start = nullptr;
    for (size_t i = 0; i < len; ++i) {
        if (!is_keyword_separator(text[i])) {
            if (start == nullptr) start = text + i;
            continue;
        }
        text[i] = '\0';
        if (start != nullptr) list[n++] = start;
        start = nullptr;
    }
    if (start != nullptr) list[n++] = start;
    list[n] = nullptr;
    return list;
}
