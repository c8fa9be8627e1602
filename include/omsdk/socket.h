/* SPDX-License-Identifier: Apache-2.0 */
/* IPv4 socket helpers exported for applications. */
#ifndef OMSDK_SOCKET_H
#define OMSDK_SOCKET_H

#include <stdint.h>
#include <netinet/in.h>

#ifdef __cplusplus
extern "C" {
#endif

/* ---- Listener, closing and error code (used by session creation) ---- */

/* Binds fd to 0.0.0.0:port (0 = system's choice); returns the bound port in
 * host order, or -1. */
int32_t bindTcpListener(int32_t fd, uint16_t port);
/* Closes fd; returns 0. */
int32_t closeSocket(int32_t fd);
/* The calling thread's errno after a failed call. */
int32_t omr_getErrorCode(void);

/* ---- Connection and UDP helpers for applications ---- */

/* Filled by openConnectedSocket. */
typedef struct socket_endpoint {
    int32_t sock;                   /* descriptor, -1 when creation failed */
    struct sockaddr_in local_addr;  /* the kernel's view after the connect */
    struct sockaddr_in remote_addr; /* where the connect went */
} socket_endpoint;

/* Opens a TCP connection to address:port (dotted text, host-order port).
 * Returns the descriptor, also when the connect itself failed (that is only
 * logged); -1 when no socket could be created. */
int32_t openConnectedSocket(socket_endpoint *endpoint, const char *address, uint16_t port);
/* A UDP socket bound to 0.0.0.0:port, or -1 (the socket is then closed). */
int32_t createUdpSocket(uint16_t port);
/* Binds sock to 0.0.0.0:port; returns sock, or -1 leaving sock open. */
int32_t bindUdpSocket(int32_t sock, uint16_t port);

#ifdef __cplusplus
}
#endif

#endif /* OMSDK_SOCKET_H */
