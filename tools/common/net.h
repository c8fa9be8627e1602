// SPDX-License-Identifier: Apache-2.0
// Socket helpers for the switch side: every wait is bounded by a time-out.
#ifndef OMSDK_TOOLS_NET_H
#define OMSDK_TOOLS_NET_H

#include <netinet/in.h>
#include <stdint.h>

#include <string>
#include <utility>

#include "text_util.h"

namespace omsdk_tools {

// Milliseconds and microseconds on a monotonic clock.
int64_t now_ms();
int64_t now_us();

// A UDP socket bound to addr:port (network-order address, host-order
// port; 0 lets the system choose). -1 with a reason on failure.
int open_udp(uint32_t addr, uint16_t port, std::string *why);

// The host-order port and the network-order address a socket is bound to.
uint16_t local_port(int fd);
uint32_t local_addr(int fd);

// A TCP connection to `to`, bound first to `source` (network order; 0 for
// no bind) with a system-chosen port. Gives up after timeout_ms. -1 with
// a reason on failure.
int connect_tcp(const sockaddr_in &to, uint32_t source, int timeout_ms, std::string *why);

// The first half of connect_tcp: a non-blocking socket (bound to `source`
// when not 0) whose connection to `to` has started; *pending says it is
// still under way (wait for POLLOUT, then finish_connect). -1 with a reason.
int start_connect(const sockaddr_in &to, uint32_t source, bool *pending, std::string *why);
// Whether the connection started by start_connect was made; false with a
// reason ("connect ADDR: ...").
bool finish_connect(int fd, const sockaddr_in &to, std::string *why);

// Writes all bytes within timeout_ms. False with a reason otherwise.
bool send_all(int fd, const Bytes &data, int timeout_ms, std::string *why);

// Reads one framed message (security header, padded digest, event header,
// TLVs; at most 1400 bytes) within timeout_ms.
//   1: a whole message is in *out;
//   0: the peer closed before sending anything;
//  -1: time-out, error, oversized or truncated message (reason in *why);
//  -2: the peer reset the connection before sending anything (it closed
//      without reading what was sent to it).
int read_message(int fd, Bytes *out, int timeout_ms, std::string *why);

// Gathers one framed message from a socket as its bytes arrive, without
// waiting: the reading half of read_message, for callers that wait for
// many sockets at once.
class MessageReader {
public:
    // Takes what the socket holds now. 1: a whole message is in message();
    // 2: more is to come (call again when the socket is readable); 0, -1,
    // -2: as read_message.
    int feed(int fd, std::string *why);
    const Bytes &message() const { return buf_; }
    // A whole message handed over without a socket.
    void take(Bytes whole) { buf_ = std::move(whole); }
    void reset();

private:
    Bytes buf_;
    size_t got_ = 0;
    int stage_ = 0;  // 0 security header, 1 digest and event header, 2 TLVs
};

// Closes fd when it is not -1 and sets it to -1.
void close_fd(int *fd);

}  // namespace omsdk_tools

#endif
