// SPDX-License-Identifier: Apache-2.0
#include "text_util.h"

#include <arpa/inet.h>
#include <ctype.h>
#include <errno.h>
#include <stdio.h>
#include <stdlib.h>
#include <time.h>

namespace omsdk_tools {

std::string to_hex(const uint8_t *data, size_t len) {
    static const char digits[] = "0123456789abcdef";
    std::string s;
    s.reserve(len * 2);
    for (size_t i = 0; i < len; ++i) {
        s.push_back(digits[data[i] >> 4]);
        s.push_back(digits[data[i] & 0x0F]);
    }
    return s;
}

bool parse_hex(const std::string &text, Bytes *out) {
    out->clear();
    size_t i = 0;
    if (text.size() >= 2 && text[0] == '0' && (text[1] == 'x' || text[1] == 'X')) i = 2;
    int hi = -1;
    for (; i < text.size(); ++i) {
        const unsigned char c = static_cast<unsigned char>(text[i]);
        if (isspace(c) || c == ':') continue;
        int v;
        if (c >= '0' && c <= '9')
            v = c - '0';
        else if (c >= 'a' && c <= 'f')
            v = c - 'a' + 10;
        else if (c >= 'A' && c <= 'F')
            v = c - 'A' + 10;
        else
            return false;
        if (hi < 0) {
            hi = v;
        } else {
            out->push_back(static_cast<uint8_t>(hi << 4 | v));
            hi = -1;
        }
    }
    return hi < 0;
}

bool parse_key(const std::string &text, Bytes *out, std::string *why) {
    if (text.compare(0, 4, "hex:") == 0) {
        if (!parse_hex(text.substr(4), out)) {
            *why = "key: bad hexadecimal after hex:";
            return false;
        }
    } else {
        out->assign(text.begin(), text.end());
    }
    if (out->empty()) {
        *why = "key: empty";
        return false;
    }
    if (out->size() > 65535) {
        *why = "key: longer than 65535 bytes";
        return false;
    }
    return true;
}

std::string id_text(const uint8_t *id) {
    std::string s;
    for (int i = 0; i < 32; ++i) {
        const unsigned char c = id[i];
        s.push_back(isprint(c) ? static_cast<char>(c) : '.');
    }
    return s;
}

std::string ip_text(uint32_t net_order_addr) {
    char buf[INET_ADDRSTRLEN] = {};
    in_addr a;
    a.s_addr = net_order_addr;
    inet_ntop(AF_INET, &a, buf, sizeof buf);
    return buf;
}

std::string addr_text(const sockaddr_in &a) {
    return ip_text(a.sin_addr.s_addr) + ":" + std::to_string(ntohs(a.sin_port));
}

bool parse_ipv4(const std::string &text, uint32_t *net_order) {
    in_addr a;
    if (inet_pton(AF_INET, text.c_str(), &a) != 1) return false;
    *net_order = a.s_addr;
    return true;
}

bool parse_int(const std::string &text, long long lo, long long hi, long long *out) {
    if (text.empty()) return false;
    errno = 0;
    char *end = nullptr;
    long long v = strtoll(text.c_str(), &end, 10);
    if (errno != 0 || end == nullptr || *end != '\0') return false;
    if (v < lo || v > hi) return false;
    *out = v;
    return true;
}

std::string json_str(const std::string &s) {
    std::string o = "\"";
    for (char ch : s) {
        const unsigned char c = static_cast<unsigned char>(ch);
        switch (c) {
        case '"': o += "\\\""; break;
        case '\\': o += "\\\\"; break;
        case '\n': o += "\\n"; break;
        case '\r': o += "\\r"; break;
        case '\t': o += "\\t"; break;
        default:
            if (c < 0x20 || c > 0x7E) {
                char buf[8];
                snprintf(buf, sizeof buf, "\\u%04x", c);
                o += buf;
            } else {
                o.push_back(static_cast<char>(c));
            }
        }
    }
    o.push_back('"');
    return o;
}

std::string hex_dump(const uint8_t *data, size_t len, const std::string &indent) {
    std::string out;
    for (size_t at = 0; at < len; at += 16) {
        char buf[32];
        snprintf(buf, sizeof buf, "%04zx  ", at);
        out += indent;
        out += buf;
        std::string chars;
        for (size_t i = 0; i < 16; ++i) {
            if (at + i < len) {
                const uint8_t b = data[at + i];
                snprintf(buf, sizeof buf, "%02x ", b);
                out += buf;
                chars.push_back(isprint(b) ? static_cast<char>(b) : '.');
            } else {
                out += "   ";
            }
            if (i == 7) out.push_back(' ');
        }
        out += " ";
        out += chars;
        out += "\n";
    }
    return out;
}

}  // namespace omsdk_tools

namespace omsdk_tools {

namespace {

int hex_digit(char c) {
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    return -1;
}

std::string clock_format(bool iso) {
    timespec ts;
    clock_gettime(CLOCK_REALTIME, &ts);
    struct tm tmv;
    localtime_r(&ts.tv_sec, &tmv);
    char base[40], out[64];
    strftime(base, sizeof base, iso ? "%Y-%m-%dT%H:%M:%S" : "%H:%M:%S", &tmv);
    snprintf(out, sizeof out, "%s.%03ld", base, ts.tv_nsec / 1000000);
    if (!iso) return out;
    char zone[8];
    strftime(zone, sizeof zone, "%z", &tmv);  // +0200: written +02:00
    std::string z = zone;
    if (z.size() == 5) z.insert(3, ":");
    return out + z;
}

}  // namespace

std::string clock_text() { return clock_format(false); }
std::string iso_time_text() { return clock_format(true); }

bool parse_hex_or_dump(const std::string &text, Bytes *out) {
    if (text.find('|') == std::string::npos) return parse_hex(text, out);
    out->clear();
    // Dump lines: "<prefix>| OOOO  xx xx xx xx xx xx xx xx  xx ... chars".
    // Other lines (a pasted block's title and TLVs) are passed over; the
    // offsets must follow on, and a second message (offset 0 again) ends
    // the first. The bytes stand in fixed columns after the offset, and the
    // column of characters (which may look like hexadecimal) is never read.
    size_t at = 0;
    while (at < text.size()) {
        size_t nl = text.find('\n', at);
        const std::string line = text.substr(at, nl == std::string::npos ? nl : nl - at);
        at = nl == std::string::npos ? text.size() : nl + 1;
        const size_t bar = line.find('|');
        const size_t p = bar == std::string::npos ? bar : line.find_first_not_of(' ', bar + 1);
        if (p == std::string::npos) continue;
        size_t digits = 0, offset = 0;
        for (int d; p + digits < line.size() && (d = hex_digit(line[p + digits])) >= 0; ++digits)
            offset = offset * 16 + static_cast<size_t>(d);
        if (digits < 4 || line.compare(p + digits, 2, "  ") != 0) continue;
        if (offset != out->size()) {
            if (offset == 0 && !out->empty()) break;
            return false;
        }
        const size_t first = p + digits + 2;
        for (size_t i = 0; i < 16; ++i) {
            const size_t col = first + 3 * i + (i >= 8 ? 1 : 0);
            if (col + 1 >= line.size()) break;
            const int hi = hex_digit(line[col]), lo = hex_digit(line[col + 1]);
            if (hi < 0 || lo < 0) break;
            out->push_back(static_cast<uint8_t>(hi << 4 | lo));
        }
    }
    return !out->empty();
}

}  // namespace omsdk_tools
