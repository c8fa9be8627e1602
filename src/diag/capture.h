// SPDX-License-Identifier: Apache-2.0
// Packet capture for field diagnosis: every datagram and TCP message the
// endpoint sends or receives, written as a pcapng file that packet analysers
// open directly. The IPv4, UDP and TCP headers around each payload are made
// up here (the sockets never show them): checksums are valid, and each TCP
// direction gets its own running sequence number so that analysers put split
// and coalesced messages back together. Connections carry no SYN or FIN.
//
// Not thread-safe: the caller serialises the calls on one capture.
#ifndef OMSDK_DIAG_CAPTURE_H
#define OMSDK_DIAG_CAPTURE_H

#include <netinet/in.h>
#include <stddef.h>
#include <stdint.h>
#include <stdio.h>

#include <memory>

namespace omsdk {

struct capture_file_closer {
    void operator()(FILE *f) const {
        if (f != nullptr) (void)fclose(f);
    }
};

// One direction of a TCP conversation and the next sequence number it sends.
struct capture_flow {
    uint32_t src_ip;  // network order, as in sockaddr_in
    uint32_t dst_ip;
    uint16_t src_port;  // network order
    uint16_t dst_port;
    uint32_t next_seq;
    uint32_t last_used;  // the capture's packet count when last written
};

struct capture {
    static constexpr size_t kFlows = 16;

    std::unique_ptr<FILE, capture_file_closer> file;
    size_t size_limit = 0;  // bytes; 0 for none
    size_t written = 0;     // bytes in the file so far
    uint32_t packets = 0;
    uint16_t ip_id = 0;
    // Set when a packet did not fit under the limit or a write failed; the
    // file then ends after the last whole packet and nothing more is written.
    bool stopped = false;
    bool write_failed = false;
    size_t flow_count = 0;
    capture_flow flows[kFlows] = {};
};

// Creates (truncates) `path` and writes the section and interface headers.
// false when the file cannot be written or the headers alone would pass a
// non-zero `size_limit`; the capture is closed then.
bool capture_open(capture &c, const char *path, size_t size_limit);

// One datagram or TCP message (or part of one, or several: exactly the bytes
// one send or receive moved), with an optional comment shown beside it.
// Nothing happens on a closed or stopped capture.
void capture_udp(capture &c, const sockaddr_in &from, const sockaddr_in &to, const uint8_t *payload,
                 size_t n, const char *comment);
void capture_tcp(capture &c, const sockaddr_in &from, const sockaddr_in &to, const uint8_t *payload,
                 size_t n, const char *comment);

// Flushes and closes the file; the capture may be opened again.
void capture_close(capture &c);

inline bool capture_active(const capture &c) { return c.file != nullptr && !c.stopped; }

}  // namespace omsdk

#endif
