// SPDX-License-Identifier: Apache-2.0
#include "session/identity.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <utility>

#include "common/api.h"
#include "diag/log.h"
#include "session/session.h"
#include "util/mutex_guard.h"

namespace {

// The only characters an identity text may hold; the role may also hold
// blanks (kRoleExtra).
constexpr char kWhitelist[] =
    "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789~!@#$%^&()_-+={}[]\\:.,></";
constexpr char kRoleExtra[] = " ";

constexpr char kDefaultRole[] = "Endpoint";
constexpr char kDefaultDeviceType[] = "Unknown";

// The defaults are rebuilt here at every call; the session stores copies.
// One per thread: sessions configured on different threads at once must not
// write the same buffer. Initial-exec: a static TLS slot, no TLS resolver.
__attribute__((tls_model("initial-exec"))) thread_local char g_default_role[16];
__attribute__((tls_model("initial-exec"))) thread_local char g_default_name[32];

bool in_text(const char *set, char c) { return c != '\0' && strchr(set, c) != nullptr; }

}  // namespace

OMSDK_API int32_t omr_string_in_whitelist(const char *text, int32_t field) {
    if (text == nullptr || text[0] == '\0') return 0;
    for (const char *p = text; *p != '\0'; ++p) {
        if (in_text(kWhitelist, *p)) continue;
        if (field == OMSDK_FIELD_ROLE && in_text(kRoleExtra, *p)) continue;
        return 0;
    }
    return 1;
}

OMSDK_API char *getDefaultRole(void) {
    (void)snprintf(g_default_role, sizeof g_default_role, "%s", kDefaultRole);
    return g_default_role;
}

OMSDK_API char *getDefaultName(svc_session *session) {
    if (session == nullptr) return getDefaultRole();
    char addr[INET_ADDRSTRLEN];
    if (inet_ntop(AF_INET, &session->self_addr.sin_addr, addr, sizeof addr) == nullptr)
        addr[0] = '\0';
    (void)snprintf(g_default_name, sizeof g_default_name, "%s@%s", getDefaultRole(), addr);
    return g_default_name;
}

namespace omsdk {

namespace {

constexpr char kConfig[] = "ohmara_svc_configIdentity";

// A heap copy of text into *field; false when out of memory.
bool copy_into(char **field, const char *text) {
    free(*field);
    *field = strdup(text);
    return *field != nullptr;
}

}  // namespace

identity_texts::~identity_texts() {
    for (char *p : {domain, name, role, keywords, device_type}) free(p);
}

bool stage_identity(svc_session *s, const char *domain, const char *name, const char *role,
                    const char *keywords, const char *device_type, uint8_t importance,
                    identity_texts *out) {
    if (omr_string_in_whitelist(domain, OMSDK_FIELD_DOMAIN) == 0) {
        OM_LOG_AS(LOG_WARN, kConfig, "Invalid or no characters defined for domain");
        return false;
    }
    if (!copy_into(&out->domain, domain)) {
        OM_LOG_AS(LOG_ERROR, kConfig, "Error configuring identity, no memory available");
        return false;
    }

    if (omr_string_in_whitelist(name, OMSDK_FIELD_NAME) != 0) {
        if (!copy_into(&out->name, name)) {
            OM_LOG_AS(LOG_ERROR, kConfig, "Error configuring identity, no memory available");
            return false;
        }
    } else {
        const char *def = getDefaultName(s);
        if (!copy_into(&out->name, def)) {
            OM_LOG_AS(LOG_WARN, kConfig, "Invalid or no characters defined in name");
            return false;
        }
        OM_LOG_AS(LOG_INFO, kConfig, "Using default name of %s.", def);
    }

    if (omr_string_in_whitelist(role, OMSDK_FIELD_ROLE) != 0) {
        if (!copy_into(&out->role, role)) {
            OM_LOG_AS(LOG_ERROR, kConfig, "Error configuring identity, no memory available");
            return false;
        }
    } else {
        const char *def = getDefaultRole();
        if (!copy_into(&out->role, def)) {
            OM_LOG_AS(LOG_WARN, kConfig, "Invalid or no characters defined in role");
            return false;
        }
        OM_LOG_AS(LOG_INFO, kConfig, "Using default role of %s.", def);
    }

    // Keywords are optional: a failed copy leaves them unset rather than
    // failing the whole configuration.
    if (omr_string_in_whitelist(keywords, OMSDK_FIELD_KEYWORDS) != 0) {
        copy_into(&out->keywords, keywords);
    } else {
        OM_LOG_AS(LOG_WARN, kConfig, "Invalid or no characters defined for keywords");
        copy_into(&out->keywords, "");
    }

    if (importance >= 1 && importance <= 100) {
        out->importance = importance;
    } else {
        OM_LOG_AS(LOG_WARN, kConfig, "Invalid importance, defaulting to 1");
        out->importance = 1;
    }

    // The device type is free text: it is reported, never matched.
    if (device_type != nullptr) {
        copy_into(&out->device_type, device_type);
    } else {
        OM_LOG_AS(LOG_WARN, kConfig, "No device type specified");
        copy_into(&out->device_type, kDefaultDeviceType);
    }
    return true;
}

void commit_identity(svc_session *s, identity_texts *staged) {
    MutexGuard guard(&s->mutex);
    // The staged record takes the old texts and frees them when it goes.
    std::swap(s->domain, staged->domain);
    std::swap(s->name, staged->name);
    std::swap(s->role, staged->role);
    std::swap(s->keywords, staged->keywords);
    std::swap(s->device_type, staged->device_type);
    s->importance = staged->importance;
}

}  // namespace omsdk
