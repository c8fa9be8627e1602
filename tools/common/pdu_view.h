// SPDX-License-Identifier: Apache-2.0
// A readable view of one protocol message: headers, every TLV with its
// name and decoded value, aggregate entries, and the digest verdict.
// Decoding goes through the library's own event functions; rendering gives
// an indented text block or one JSON object.
#ifndef OMSDK_TOOLS_PDU_VIEW_H
#define OMSDK_TOOLS_PDU_VIEW_H

#include <stdint.h>

#include <string>
#include <vector>

#include <omsdk/hmac.h>

#include "text_util.h"

namespace omsdk_tools {

// One named part of a record value (alarm, neighbor, event id...).
struct Field {
    std::string name;
    bool is_num = false;
    int64_t num = 0;
    std::string text;
};

struct Value {
    enum class Kind { None, Int, Text, List, Blob, Record };
    Kind kind = Kind::None;
    int64_t num = 0;
    std::string text;
    std::vector<int64_t> list;
    Bytes bytes;  // Blob; also the raw socket address behind an address Text
    std::vector<Field> fields;
    std::string unit;  // "W", "kW"...: written after the number
    std::string note;  // what a number means ("consumer", "watts"...)

    std::string render() const;  // one line of text
    std::string json() const;
};

struct UsageCommon {
    uint32_t version = 0;
    int32_t caliber = 0;
    std::string name, role, keywords;
    int units = 0;
    int level = 0;
    int importance = 0;
};

struct Entry {
    uint32_t id = 0;
    bool combo = false;
    UsageCommon common;
    Value value;
};

struct DecodedTlv {
    uint32_t type = 0;  // without the aggregate flag
    bool aggregate = false;
    uint32_t qualifier = 0;
    std::string name;
    Value value;            // plain TLV
    std::string device_id;  // aggregate TLV
    Bytes device_blob;
    std::vector<Entry> entries;
};

enum class Verdict { Verified, Mismatch, NotVerified };
const char *verdict_text(Verdict v);

// Header fields as they stand on the wire, readable before any decoding.
struct RawHeader {
    uint32_t seq = 0;
    uint8_t id[32] = {};
    int shipment = 0;
    int pri = 0;
    int cls = 0;
    int action = 0;
    int tlv_bytes = 0;
    int tlv_count = 0;
};
// False when the bytes are too few to hold the headers.
bool peek_header(const Bytes &raw, RawHeader *out);

struct DecodedPdu {
    bool framed = false;  // the headers could be read
    bool ok = false;      // headers and TLVs decoded
    std::string error;    // why not
    Bytes raw;
    RawHeader hdr;
    int comm = 0;
    Verdict verdict = Verdict::NotVerified;
    std::vector<DecodedTlv> tlvs;

    std::string sender() const { return id_text(hdr.id); }
    // The first plain TLV of the type, or null.
    const DecodedTlv *find(uint32_t type) const;
    // Every value of the type in the message: plain values and aggregate
    // entries, in message order.
    std::vector<Value> values_of(uint32_t type) const;
};

// Decodes `raw` and checks its digest with `key` (null: not verified).
DecodedPdu decode_pdu(const Bytes &raw, const hmac_sha_ctx *key);

// The unit of usage figures for a units value (a power of ten of watts):
// "W", "kW", "mW"..., and its name ("watts", "kilowatts"...).
std::string unit_symbol(int64_t units);
std::string unit_name(int64_t units);
// An enumerator's name as words: "CV_CORVANE_USAGE_CONSUMER" -> "consumer".
std::string enum_words(const char *name);

// Names: the short TLV name ("LEVEL_CURRENT"; "TYPE_37" for unnamed ones),
// and the class, action and shipment enumerator names (numbers when
// unknown).
std::string tlv_name(uint32_t type);
std::string class_name(int cls);
std::string action_name(int cls, int action);
std::string shipment_name(int shipment);
// "discovery", "delete", "ack", "reply", "query" or "message".
std::string pdu_kind(const DecodedPdu &p);

// An indented block: a title line, the header line, the digest verdict and
// one line per TLV; `verbose` appends a hex dump of the bytes.
std::string render_text(const DecodedPdu &p, const std::string &title, bool verbose);
// One JSON object (no newline). `extra` is inserted as further members
// (e.g. "\"event\":\"received\""), without braces; may be empty.
std::string render_json(const DecodedPdu &p, const std::string &extra, bool verbose);

}  // namespace omsdk_tools

#endif
