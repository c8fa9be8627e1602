/* SPDX-License-Identifier: Apache-2.0 */
/**
 * @file omsdk/socket.h
 * @brief IPv4 socket helpers.
 *
 * Exported for applications (and used by session creation). The caller owns
 * every descriptor these calls return and closes it (closeSocket() or
 * close()). Any thread may call them; they keep no state. Their names carry
 * no prefix: a program that defines a closeSocket() or bindTcpListener() of
 * its own replaces the library's, for the library's own calls too (see
 * omsdk.h).
 */
#ifndef OMSDK_SOCKET_H
#define OMSDK_SOCKET_H

#include <stdint.h>
#include <netinet/in.h>

#ifdef __cplusplus
extern "C" {
#endif

/**
 * @name Listener, closing and error code (used by session creation)
 * @{
 */

/** Binds @p fd to 0.0.0.0:port (0 = system's choice); returns the bound port in
 *  host order, or -1 (logged at WARN with the error; @p fd stays open).
 *  Logs the port at DEBUG. It does not call listen(). */
int32_t bindTcpListener(int32_t fd, uint16_t port);
/** Closes @p fd; returns 0, also when close() failed. Nothing is logged. */
int32_t closeSocket(int32_t fd);
/** The calling thread's errno after a failed call. */
int32_t omr_getErrorCode(void);

/** @} */

/**
 * @name Connection and UDP helpers for applications
 * @{
 */

/** Filled by openConnectedSocket(). */
typedef struct socket_endpoint {
    int32_t sock;                   /**< descriptor, -1 when creation failed */
    struct sockaddr_in local_addr;  /**< the kernel's view after the connect */
    struct sockaddr_in remote_addr; /**< where the connect went */
} socket_endpoint;

/** Opens a TCP connection to address:port (dotted text, host-order port),
 *  blocking until the connect ends. Returns the descriptor, also when the
 *  connect itself failed (that is only logged at ERROR): check with a first
 *  send or getpeername(). -1 when @p endpoint is NULL or no socket could be
 *  created (ERROR). A NULL or malformed address connects to
 *  255.255.255.255, which fails. */
int32_t openConnectedSocket(socket_endpoint *endpoint, const char *address, uint16_t port);
/** A UDP socket bound to 0.0.0.0:port, or -1 (logged at ERROR or WARN; the
 *  socket is then closed). */
int32_t createUdpSocket(uint16_t port);
/** Binds @p sock to 0.0.0.0:port; returns sock, or -1 leaving sock open
 *  (logged at WARN). */
int32_t bindUdpSocket(int32_t sock, uint16_t port);

/** @} */

#ifdef __cplusplus
}
#endif

#endif /* OMSDK_SOCKET_H */
