#include "session/identity.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "common/api.h"
#include "diag/log.h"
#include "session/session.h"

namespace {

// The only characters an identity text may hold; the role may also hold
// blanks (kRoleExtra).
constexpr char kWhitelist[] =
    "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789~!@#$%^&()_-+={}[]\\:.,></";
constexpr char kRoleExtra[] = " ";

constexpr char kDefaultRole[] = "Endpoint";
constexpr char kDefaultDeviceType[] = "Unknown";

// The defaults are rebuilt here at every call; the session stores copies.
char g_default_role[16];
char g_default_name[32];

bool in_text(const char *set, char c) { return c != '\0' && strchr(set, c) != nullptr; }

// Replaces *field by a heap copy of text (null when out of memory) and
// tells whether the copy succeeded. The copy is made before the old value
// is freed, so text may be the field's own current value.
bool replace_copy(char **field, const char *text) {
    char *copy = strdup(text);
    free(*field);
    *field = copy;
    return copy != nullptr;
}

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

OMSDK_API int32_t ohmara_svc_configIdentity(svc_session *session, const char *domain,
                                            const char *name, const char *role,
                                            const char *keywords, const char *device_type,
                                            uint8_t importance) {
    if (session == nullptr) return -1;

    if (omr_string_in_whitelist(domain, OMSDK_FIELD_DOMAIN) == 0) {
        OM_WARN("Invalid or no characters defined for domain");
        return -1;
    }
    if (!replace_copy(&session->domain, domain)) {
        OM_ERROR("Error configuring identity, no memory available");
        return -1;
    }

    if (omr_string_in_whitelist(name, OMSDK_FIELD_NAME) != 0) {
        if (!replace_copy(&session->name, name)) {
            OM_ERROR("Error configuring identity, no memory available");
            return -1;
        }
    } else {
        const char *def = getDefaultName(session);
        if (!replace_copy(&session->name, def)) {
            OM_WARN("Invalid or no characters defined in name");
            return -1;
        }
        OM_INFO("Using default name of %s.", def);
    }

    if (omr_string_in_whitelist(role, OMSDK_FIELD_ROLE) != 0) {
        if (!replace_copy(&session->role, role)) {
            OM_ERROR("Error configuring identity, no memory available");
            return -1;
        }
    } else {
        const char *def = getDefaultRole();
        if (!replace_copy(&session->role, def)) {
            OM_WARN("Invalid or no characters defined in role");
            return -1;
        }
        OM_INFO("Using default role of %s.", def);
    }

    // Keywords are optional: a failed copy leaves them unset rather than
    // failing the whole configuration.
    if (omr_string_in_whitelist(keywords, OMSDK_FIELD_KEYWORDS) != 0) {
        replace_copy(&session->keywords, keywords);
    } else {
        OM_WARN("Invalid or no characters defined for keywords");
        replace_copy(&session->keywords, "");
    }

    if (importance >= 1 && importance <= 100) {
        session->importance = importance;
    } else {
        OM_WARN("Invalid importance, defaulting to 1");
        session->importance = 1;
    }

    // The device type is free text: it is reported, never matched.
    if (device_type != nullptr) {
        replace_copy(&session->device_type, device_type);
    } else {
        OM_WARN("No device type specified");
        replace_copy(&session->device_type, kDefaultDeviceType);
    }
    return 0;
}
