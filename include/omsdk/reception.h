/* SPDX-License-Identifier: Apache-2.0 */
/**
 * @file omsdk/reception.h
 * @brief Waiting for a connection and reading one framed message.
 *
 * Reception of whole messages: waiting for a connection on a listener and
 * reading one framed message (at most 1400 bytes) off a connected socket.
 * The caller owns the sockets and buffers; the calls block the calling
 * thread (any thread) for at most the time given or the receive time-out,
 * and log their steps at DEBUG and TRACE.
 */
#ifndef OMSDK_RECEPTION_H
#define OMSDK_RECEPTION_H

#include <stdint.h>
#include <netinet/in.h>
#include <sys/time.h>

#ifdef __cplusplus
extern "C" {
#endif

/** Waits up to *timeout (NULL: without limit) for one connection on the
 *  listener. *peer (IPv4, network order) is the expected caller, 0 for any; it
 *  is replaced by the caller's address. Returns the accepted socket (the
 *  caller closes it; it carries a receive time-out, 5 seconds by default), or -1 on
 *  time-out, failure (accept's error goes to stderr with perror() and to the
 *  log at ERROR), or a caller other than the expected one (closed; it is
 *  accepted on its next attempt). The name carries no prefix. */
int32_t waitfor_tcp_connect(int32_t listener, uint32_t *peer, struct timeval *timeout);
/** Reads one framed message of at most `size` bytes into buf: the byte
 *  count, 0 when the peer closed, a negative value on error, receive
 *  time-out, a NULL buffer, a size of 0 or less, or a message above 1400
 *  bytes. A message larger than `size` is cut: the count is then `size`.
 *  `from` is not written. */
int32_t omr_read_tcp_message(int32_t sock, uint8_t *buf, int32_t size, struct sockaddr_in *from);
/** Waits up to *timeout for the socket to become readable, then reads one
 *  message as omr_read_tcp_message() does; 0 when nothing arrived. The name
 *  carries no prefix. */
int32_t waitfor_tcp_message(int32_t sock, uint8_t *buf, int32_t size, struct timeval *timeout);
/** One datagram of up to `size` bytes: the count, or the failing receive's
 *  result (0 or negative); -1 for a NULL buffer or a negative size. Blocks
 *  unless the socket is non-blocking. `from` is not written. */
int32_t omr_read_udp_message(int32_t sock, uint8_t *buf, int32_t size, struct sockaddr_in *from);

#ifdef __cplusplus
}
#endif

#endif /* OMSDK_RECEPTION_H */
