// SPDX-License-Identifier: Apache-2.0
// Identity helpers behind ohmara_svc_configIdentity; exported like every
// named function of the library, but not part of the application headers.
#ifndef OMSDK_SERVICE_IDENTITY_H
#define OMSDK_SERVICE_IDENTITY_H

#include <stdint.h>

#include "omsdk.h"

// Field codes understood by omr_string_in_whitelist.
constexpr int32_t OMSDK_FIELD_ROLE = 2;
constexpr int32_t OMSDK_FIELD_DOMAIN = 3;
constexpr int32_t OMSDK_FIELD_NAME = 4;
constexpr int32_t OMSDK_FIELD_KEYWORDS = 5;

namespace omsdk {

// An identity checked and copied, not yet in the session: the texts are
// heap copies owned here (keywords and device type may be null when out of
// memory, as the session keeps them).
struct identity_texts {
    char *domain = nullptr;
    char *name = nullptr;
    char *role = nullptr;
    char *keywords = nullptr;
    char *device_type = nullptr;
    uint32_t importance = 0;

    identity_texts() = default;
    identity_texts(const identity_texts &) = delete;
    identity_texts &operator=(const identity_texts &) = delete;
    ~identity_texts();
};

// Checks and copies what ohmara_svc_configIdentity was given, logging on its
// behalf: invalid texts fall back to the defaults, as configuration always
// did. False (logged) when the domain is refused or memory runs out.
bool stage_identity(svc_session *s, const char *domain, const char *name, const char *role,
                    const char *keywords, const char *device_type, uint8_t importance,
                    identity_texts *out);
// Moves the staged identity into the session under its mutex (application
// threads copy attributes under it); the old texts are freed after.
void commit_identity(svc_session *s, identity_texts *staged);

}  // namespace omsdk

extern "C" {
// 1 when every character of the text is allowed for the field, else 0
// (a null or empty text is never valid).
int32_t omr_string_in_whitelist(const char *text, int32_t field);
// "Endpoint", in a 16-byte buffer rewritten at each call.
char *getDefaultRole(void);
// "Endpoint@<local address>" cut to 31 characters, in a 32-byte buffer
// rewritten at each call; the default role for a null session.
char *getDefaultName(svc_session *session);
}

#endif
