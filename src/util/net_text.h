// SPDX-License-Identifier: Apache-2.0
// Texts for log lines that the C library would otherwise format in one
// static buffer (inet_ntoa, strerror): each value carries its own, so that
// threads logging at once cannot see each other's text.
#ifndef OMSDK_UTIL_NET_TEXT_H
#define OMSDK_UTIL_NET_TEXT_H

#include <arpa/inet.h>
#include <netinet/in.h>
#include <string.h>

namespace omsdk {

// Dotted text of an IPv4 address in network order, as inet_ntoa writes it.
struct ip_text {
    char text[INET_ADDRSTRLEN];
    explicit ip_text(struct in_addr addr) {
        if (inet_ntop(AF_INET, &addr, text, sizeof text) == nullptr) text[0] = '\0';
    }
};

// strerror's text for an error number.
struct errno_text {
    char buf[128];
    const char *text;
    explicit errno_text(int err) : buf{}, text(strerror_r(err, buf, sizeof buf)) {}
};

}  // namespace omsdk

#endif
