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
