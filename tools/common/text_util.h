// SPDX-License-Identifier: Apache-2.0
// Small text helpers shared by the switch tools: hexadecimal, keys,
// identifiers, addresses and JSON strings.
#ifndef OMSDK_TOOLS_TEXT_UTIL_H
#define OMSDK_TOOLS_TEXT_UTIL_H

#include <netinet/in.h>
#include <stdint.h>

#include <string>
#include <vector>

namespace omsdk_tools {

using Bytes = std::vector<uint8_t>;

// Lower-case hexadecimal, two digits a byte, no separators.
std::string to_hex(const uint8_t *data, size_t len);
inline std::string to_hex(const Bytes &b) { return to_hex(b.data(), b.size()); }

// Parses hexadecimal digits; blanks, colons and a leading "0x" are
// allowed. False on any other character or an odd digit count.
bool parse_hex(const std::string &text, Bytes *out);

// A key as given on a command line: "hex:..." for bytes, anything else
// for the text's own bytes. False (with a reason) for an empty key or bad
// hexadecimal.
bool parse_key(const std::string &text, Bytes *out, std::string *why);

// An identifier of 32 bytes as text: printable bytes as they are, others
// as '.', so that a malformed identifier still prints on one line.
std::string id_text(const uint8_t *id);

// "a.b.c.d:port" of an IPv4 socket address.
std::string addr_text(const sockaddr_in &a);
std::string ip_text(uint32_t net_order_addr);

// Parses a dotted IPv4 address into network order. False when malformed.
bool parse_ipv4(const std::string &text, uint32_t *net_order);

// Parses a decimal integer in [lo, hi]. False when malformed or out of range.
bool parse_int(const std::string &text, long long lo, long long hi, long long *out);

// A JSON string literal (with quotes) for arbitrary bytes: control
// characters escaped, bytes above 0x7E written as \u00XX.
std::string json_str(const std::string &s);

// The wall clock now: "14:03:07.250" (local time, milliseconds), and
// "2024-05-01T14:03:07.250+02:00" for reports.
std::string clock_text();
std::string iso_time_text();

// Bytes from hexadecimal that may be a hex dump as hex_dump() writes it
// (each line's prefix up to '|', its offset and its character column are
// skipped), or plain digits as parse_hex() takes them.
bool parse_hex_or_dump(const std::string &text, Bytes *out);

// Hex dump, 16 bytes a line, each line prefixed by `indent`.
std::string hex_dump(const uint8_t *data, size_t len, const std::string &indent);

}  // namespace omsdk_tools

#endif
