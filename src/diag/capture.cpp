// SPDX-License-Identifier: Apache-2.0
// pcapng writer. Block fields are written little-endian whatever the host
// (the section header's byte-order magic says so); packet bytes are in
// network order.
#include "diag/capture.h"

#include <string.h>
#include <time.h>

namespace omsdk {

namespace {

constexpr uint32_t kSectionHeader = 0x0A0D0D0A;
constexpr uint32_t kByteOrderMagic = 0x1A2B3C4D;
constexpr uint32_t kInterfaceDescription = 0x00000001;
constexpr uint32_t kEnhancedPacket = 0x00000006;
constexpr uint16_t kLinkRawIp = 101;  // packets start at their IPv4 header
constexpr uint16_t kOptComment = 1;

constexpr size_t kSectionBlockLen = 28;
constexpr size_t kInterfaceBlockLen = 20;
constexpr size_t kPacketBlockHead = 28;  // type .. original length
constexpr size_t kIpHeader = 20;
constexpr size_t kUdpHeader = 8;
constexpr size_t kTcpHeader = 20;
constexpr size_t kMaxComment = 256;  // longer comments are cut
constexpr uint8_t kProtoTcp = 6;
constexpr uint8_t kProtoUdp = 17;
constexpr uint8_t kTcpPshAck = 0x18;

size_t pad4(size_t n) { return (n + 3) & ~static_cast<size_t>(3); }

size_t put_le32(uint8_t *p, uint32_t v) {
    p[0] = static_cast<uint8_t>(v);
    p[1] = static_cast<uint8_t>(v >> 8);
    p[2] = static_cast<uint8_t>(v >> 16);
    p[3] = static_cast<uint8_t>(v >> 24);
    return 4;
}
size_t put_le16(uint8_t *p, uint16_t v) {
    p[0] = static_cast<uint8_t>(v);
    p[1] = static_cast<uint8_t>(v >> 8);
    return 2;
}
size_t put_be16(uint8_t *p, uint16_t v) {
    p[0] = static_cast<uint8_t>(v >> 8);
    p[1] = static_cast<uint8_t>(v);
    return 2;
}
size_t put_be32(uint8_t *p, uint32_t v) {
    put_be16(p, static_cast<uint16_t>(v >> 16));
    return 2 + put_be16(p + 2, static_cast<uint16_t>(v));
}
// Addresses and ports of a sockaddr_in are already in network order.
size_t put_raw(uint8_t *p, const void *src, size_t n) {
    memcpy(p, src, n);
    return n;
}

// Ones' complement sum of big-endian 16-bit words, not yet folded.
uint32_t sum16(const uint8_t *p, size_t n, uint32_t sum = 0) {
    for (size_t i = 0; i + 1 < n; i += 2) sum += static_cast<uint32_t>(p[i] << 8 | p[i + 1]);
    if ((n & 1) != 0) sum += static_cast<uint32_t>(p[n - 1] << 8);
    return sum;
}
uint16_t fold(uint32_t sum) {
    while ((sum >> 16) != 0) sum = (sum & 0xFFFF) + (sum >> 16);
    return static_cast<uint16_t>(~sum);
}

bool write_all(capture &c, const void *p, size_t n) {
    if (n != 0 && fwrite(p, 1, n, c.file.get()) != n) {
        c.write_failed = true;
        c.stopped = true;
        return false;
    }
    c.written += n;
    return true;
}

uint64_t now_us() {
    timespec ts{};
    clock_gettime(CLOCK_REALTIME, &ts);
    return static_cast<uint64_t>(ts.tv_sec) * 1000000u + static_cast<uint64_t>(ts.tv_nsec) / 1000u;
}

capture_flow *find_flow(capture &c, const sockaddr_in &from, const sockaddr_in &to) {
    for (size_t i = 0; i < c.flow_count; ++i) {
        capture_flow &f = c.flows[i];
        if (f.src_ip == from.sin_addr.s_addr && f.dst_ip == to.sin_addr.s_addr &&
            f.src_port == from.sin_port && f.dst_port == to.sin_port)
            return &f;
    }
    return nullptr;
}

// The flow of this direction, made when new: in a free slot, else in place
// of the one least recently written. A new flow's first sequence number
// comes from the clock, so that a reused 4-tuple does not look like a
// retransmission of the flow it replaced.
capture_flow &flow_of(capture &c, const sockaddr_in &from, const sockaddr_in &to, uint64_t ts) {
    capture_flow *f = find_flow(c, from, to);
    if (f != nullptr) return *f;
    if (c.flow_count < capture::kFlows) {
        f = &c.flows[c.flow_count++];
    } else {
        f = &c.flows[0];
        for (capture_flow &g : c.flows)
            if (g.last_used < f->last_used) f = &g;
    }
    *f = capture_flow{from.sin_addr.s_addr, to.sin_addr.s_addr,        from.sin_port,
                      to.sin_port,          static_cast<uint32_t>(ts), 0};
    return *f;
}

void write_packet(capture &c, uint8_t proto, const sockaddr_in &from, const sockaddr_in &to,
                  const uint8_t *payload, size_t n, const char *comment) {
    if (!capture_active(c)) return;
    const size_t l4 = proto == kProtoTcp ? kTcpHeader : kUdpHeader;
    if (payload == nullptr && n != 0) return;
    if (n > 0xFFFF - kIpHeader - l4) return;  // beyond what one IPv4 packet holds
    const size_t ip_len = kIpHeader + l4 + n;
    const size_t comment_len = comment != nullptr ? strnlen(comment, kMaxComment) : 0;
    const size_t options = comment_len != 0 ? 4 + pad4(comment_len) + 4 : 0;
    const size_t block_len = kPacketBlockHead + pad4(ip_len) + options + 4;
    if (c.size_limit != 0 && c.written + block_len > c.size_limit) {
        c.stopped = true;
        (void)fflush(c.file.get());
        return;
    }
    const uint64_t ts = now_us();

    // Block head, IPv4 header and the UDP or TCP header: one write.
    uint8_t head[kPacketBlockHead + kIpHeader + kTcpHeader];
    uint8_t *p = head;
    p += put_le32(p, kEnhancedPacket);
    p += put_le32(p, static_cast<uint32_t>(block_len));
    p += put_le32(p, 0);  // interface
    p += put_le32(p, static_cast<uint32_t>(ts >> 32));
    p += put_le32(p, static_cast<uint32_t>(ts));
    p += put_le32(p, static_cast<uint32_t>(ip_len));  // captured
    p += put_le32(p, static_cast<uint32_t>(ip_len));  // original

    uint8_t *ip = p;
    *p++ = 0x45;  // version 4, 5 words
    *p++ = 0;
    p += put_be16(p, static_cast<uint16_t>(ip_len));
    p += put_be16(p, c.ip_id++);
    p += put_be16(p, 0x4000);  // don't fragment
    *p++ = 64;                 // TTL
    *p++ = proto;
    p += put_be16(p, 0);  // checksum, below
    p += put_raw(p, &from.sin_addr.s_addr, 4);
    p += put_raw(p, &to.sin_addr.s_addr, 4);
    put_be16(ip + 10, fold(sum16(ip, kIpHeader)));

    uint8_t *l4_at = p;
    p += put_raw(p, &from.sin_port, 2);
    p += put_raw(p, &to.sin_port, 2);
    if (proto == kProtoUdp) {
        p += put_be16(p, static_cast<uint16_t>(kUdpHeader + n));
        p += put_be16(p, 0);  // no checksum, as IPv4 allows
    } else {
        capture_flow &f = flow_of(c, from, to, ts);
        const capture_flow *back = find_flow(c, to, from);
        p += put_be32(p, f.next_seq);
        p += put_be32(p, back != nullptr ? back->next_seq : 0);
        *p++ = 5 << 4;  // 5 words
        *p++ = kTcpPshAck;
        p += put_be16(p, 0xFFFF);  // window
        p += put_be16(p, 0);       // checksum, below
        p += put_be16(p, 0);       // urgent pointer
        f.next_seq += static_cast<uint32_t>(n);
        f.last_used = c.packets;
        // Pseudo header (addresses, protocol, length), header, payload.
        uint32_t sum = sum16(ip + 12, 8) + kProtoTcp + static_cast<uint32_t>(kTcpHeader + n);
        sum = sum16(l4_at, kTcpHeader, sum);
        put_be16(l4_at + 16, fold(sum16(payload, n, sum)));
    }

    // Padding, the comment option with the end of options, the trailing length.
    uint8_t tail[3 + 4 + kMaxComment + 4 + 4] = {};
    uint8_t *t = tail + (pad4(ip_len) - ip_len);
    if (comment_len != 0) {
        t += put_le16(t, kOptComment);
        t += put_le16(t, static_cast<uint16_t>(comment_len));
        memcpy(t, comment, comment_len);
        t += pad4(comment_len) + 4;  // zero padding and opt_endofopt (0, 0)
    }
    t += put_le32(t, static_cast<uint32_t>(block_len));

    ++c.packets;
    if (write_all(c, head, static_cast<size_t>(p - head)) && write_all(c, payload, n))
        (void)write_all(c, tail, static_cast<size_t>(t - tail));
}

}  // namespace

bool capture_open(capture &c, const char *path, size_t size_limit) {
    capture_close(c);
    c = capture{};
    if (path == nullptr || (size_limit != 0 && size_limit < kSectionBlockLen + kInterfaceBlockLen))
        return false;
    c.file.reset(fopen(path, "wb"));
    if (c.file == nullptr) return false;
    c.size_limit = size_limit;

    uint8_t head[kSectionBlockLen + kInterfaceBlockLen];
    uint8_t *p = head;
    p += put_le32(p, kSectionHeader);
    p += put_le32(p, kSectionBlockLen);
    p += put_le32(p, kByteOrderMagic);
    p += put_le16(p, 1);  // version 1.0
    p += put_le16(p, 0);
    p += put_le32(p, 0xFFFFFFFF);  // section length unknown (-1, 64 bits)
    p += put_le32(p, 0xFFFFFFFF);
    p += put_le32(p, kSectionBlockLen);

    p += put_le32(p, kInterfaceDescription);
    p += put_le32(p, kInterfaceBlockLen);
    p += put_le16(p, kLinkRawIp);
    p += put_le16(p, 0);
    p += put_le32(p, 0);  // no snapshot limit
    put_le32(p, kInterfaceBlockLen);

    if (!write_all(c, head, sizeof head)) {
        c.file.reset();
        return false;
    }
    return true;
}

void capture_udp(capture &c, const sockaddr_in &from, const sockaddr_in &to, const uint8_t *payload,
                 size_t n, const char *comment) {
    write_packet(c, kProtoUdp, from, to, payload, n, comment);
}

void capture_tcp(capture &c, const sockaddr_in &from, const sockaddr_in &to, const uint8_t *payload,
                 size_t n, const char *comment) {
    write_packet(c, kProtoTcp, from, to, payload, n, comment);
}

void capture_close(capture &c) {
    if (c.file != nullptr && fclose(c.file.release()) != 0) c.write_failed = true;
}

}  // namespace omsdk
