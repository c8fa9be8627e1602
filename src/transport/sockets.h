// SPDX-License-Identifier: Apache-2.0
// Internal socket helpers of the service.
#ifndef OMSDK_TRANSPORT_SOCKETS_H
#define OMSDK_TRANSPORT_SOCKETS_H

#include <netinet/in.h>

namespace omsdk {

// connect() that gives up after `ms` milliseconds (errno ETIMEDOUT): a
// listener whose backlog is full drops the attempt, and a blocking connect
// would retry for minutes. 0 when connected, else -1 with errno set; the
// socket is left non-blocking.
int connect_within(int fd, const struct sockaddr_in *to, int ms);

}  // namespace omsdk

#endif
