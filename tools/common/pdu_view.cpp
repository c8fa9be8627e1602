// SPDX-License-Identifier: Apache-2.0
#include "pdu_view.h"

#include <arpa/inet.h>
#include <ctype.h>
#include <string.h>

#include <omsdk/codec.h>
#include <omsdk/enum_names.h>
#include <omsdk/enums.h>
#include <omsdk/event.h>
#include <omsdk/wire_types.h>

namespace omsdk_tools {

namespace {

constexpr size_t kSecHdr = 12;
constexpr size_t kEventHdr = 48;

uint32_t be16(const uint8_t *p) { return static_cast<uint32_t>(p[0] << 8 | p[1]); }
uint32_t be32(const uint8_t *p) {
    return static_cast<uint32_t>(p[0]) << 24 | static_cast<uint32_t>(p[1]) << 16 |
           static_cast<uint32_t>(p[2]) << 8 | p[3];
}

// Names of the wire types that have no entry in the protocol's name table.
const char *extra_tlv_name(uint32_t type) {
    switch (type) {
    case 36: return "DELTA_VECTOR";
    case 38: return "USAGE_CALIBER";
    case 39: return "USAGE_VECTOR";
    case 43: return "USAGE_REPORT";
    case 44: return "USAGE_VECTOR_REPORT";
    case 45: return "DELTA_VECTOR_REPORT";
    case 47: return "NONCE";
    case 48: return "DEVICE_TYPE";
    case 50: return "ALARM";
    case 51: return "USAGE_CATEGORY";
    default: return nullptr;
    }
}

const char *alarm_op_text(int32_t op) {
    switch (op) {
    case 1: return "set";
    case 2:
    case 5: return "ok";
    case 3:
    case 6:
    case 7: return "failed";
    case 4: return "clear-all";
    default: return "unexpected";
    }
}

Field num_field(const char *name, int64_t v) {
    Field f;
    f.name = name;
    f.is_num = true;
    f.num = v;
    return f;
}

Field text_field(const char *name, const std::string &t) {
    Field f;
    f.name = name;
    f.text = t;
    return f;
}

Value int_value(int64_t v, const char *note = nullptr) {
    Value x;
    x.kind = Value::Kind::Int;
    x.num = v;
    if (note != nullptr) x.note = enum_words(note);
    return x;
}

Value text_value(const std::string &t) {
    Value x;
    x.kind = Value::Kind::Text;
    x.text = t;
    return x;
}

Value bytes_value(const void *v, uint32_t len) {
    Value x;
    x.kind = Value::Kind::Blob;
    const auto *p = static_cast<const uint8_t *>(v);
    x.bytes.assign(p, p + len);
    return x;
}

// Keyword runs are NUL-separated; a single keyword string may end in its
// NUL. Shown comma-separated either way.
Value keywords_value(const void *v, uint32_t len) {
    const auto *p = static_cast<const char *>(v);
    std::string out, cur;
    for (uint32_t i = 0; i < len; ++i) {
        if (p[i] == '\0') {
            if (!cur.empty()) {
                if (!out.empty()) out.push_back(',');
                out += cur;
            }
            cur.clear();
        } else {
            cur.push_back(p[i]);
        }
    }
    if (!cur.empty()) {
        if (!out.empty()) out.push_back(',');
        out += cur;
    }
    return text_value(out);
}

// The in-memory value the library decoded for a TLV (or aggregate entry)
// of this type, as a Value. `len` is the value length where the type has
// a variable one.
Value value_of(uint32_t type, const void *v, uint32_t len) {
    if (v == nullptr) return Value();
    switch (type) {
    case 5:
    case 6:
    case 7:
    case 8:
    case 9:
    case 11:
    case 27:
    case 40:
    case 48: return text_value(static_cast<const char *>(v));
    case 10: return keywords_value(v, len);
    case 23:
    case 24:
        if (len == sizeof(sockaddr_in)) {
            sockaddr_in a;
            memcpy(&a, v, sizeof a);
            Value x = text_value(addr_text(a));
            x.bytes.assign(static_cast<const uint8_t *>(v), static_cast<const uint8_t *>(v) + len);
            return x;
        }
        return bytes_value(v, len);
    case 0:
    case 4: return bytes_value(v, len);
    case 1: {
        const auto *sid = static_cast<const cv_sender_id *>(v);
        Value x = text_value(id_text(sid->id));
        x.num = sid->value;
        return x;
    }
    case 2:
    case 20:
    case 21:
    case 30: return text_value(id_text(static_cast<const uint8_t *>(v)));
    case 3:
    case 25:
    case 34:
    case 47: return int_value(*static_cast<const uint32_t *>(v));
    case 12: {
        Value x = int_value(*static_cast<const int8_t *>(v));
        x.note = unit_name(x.num);
        return x;
    }
    case 13:
    case 19:
    case 29:
    case 43:
    case 49: return int_value(*static_cast<const uint16_t *>(v));
    case 14:
    case 15:
    case 16:
    case 17:
    case 18:
    case 41: return int_value(*static_cast<const uint8_t *>(v));
    case 22: {
        int32_t n = *static_cast<const int32_t *>(v);
        return int_value(n, cv_util_e2s_entity_type(n));
    }
    case 26: {
        int32_t n = *static_cast<const int32_t *>(v);
        return int_value(n, cv_util_e2s_proxy_proto(n));
    }
    case 38: {
        int32_t n = *static_cast<const int32_t *>(v);
        return int_value(n, cv_util_e2s_corvane_usage_caliber(n));
    }
    case 51: {
        int32_t n = *static_cast<const int32_t *>(v);
        return int_value(n, cv_util_e2s_corvane_usage_category(n));
    }
    case 31:
    case 32:
    case 33: return int_value(*static_cast<const int32_t *>(v));
    case 36:
    case 45: {
        Value x;
        x.kind = Value::Kind::List;
        const auto *d = static_cast<const int32_t *>(v);
        for (int i = 0; i < CV_VECTOR_LEN; ++i) x.list.push_back(d[i]);
        return x;
    }
    case 39:
    case 44: {
        Value x;
        x.kind = Value::Kind::List;
        const auto *u = static_cast<const uint16_t *>(v);
        for (int i = 0; i < CV_VECTOR_LEN; ++i) x.list.push_back(u[i]);
        return x;
    }
    case 35: {
        const auto *e = static_cast<const cv_event_id *>(v);
        Value x;
        x.kind = Value::Kind::Record;
        x.fields.push_back(num_field("number", e->number));
        x.fields.push_back(text_field("id", id_text(e->id)));
        return x;
    }
    case 28: {
        const auto *n = static_cast<const cv_neighbor *>(v);
        Value x;
        x.kind = Value::Kind::Record;
        x.fields.push_back(text_field("id", id_text(n->id)));
        x.fields.push_back(text_field("name", n->name != nullptr ? n->name : ""));
        x.fields.push_back(num_field("blob_len", n->blob_len));
        x.fields.push_back(num_field("flag", n->flag));
        return x;
    }
    case 46: {
        const auto *r = static_cast<const cv_recurrence *>(v);
        Value x;
        x.kind = Value::Kind::Record;
        x.fields.push_back(text_field("text", r->text != nullptr ? r->text : ""));
        x.fields.push_back(num_field("first", r->first));
        x.fields.push_back(num_field("second", r->second));
        x.fields.push_back(num_field("flag", r->flag));
        return x;
    }
    case 50: {
        const auto *a = static_cast<const cv_alarm *>(v);
        Value x;
        x.kind = Value::Kind::Record;
        x.fields.push_back(num_field("seconds", a->seconds));
        x.fields.push_back(num_field("param2", a->param2));
        x.fields.push_back(num_field("param1", a->param1));
        x.fields.push_back(num_field("id", a->id));
        x.fields.push_back(num_field("operation", a->operation));
        x.note = alarm_op_text(a->operation);
        return x;
    }
    default: return Value();
    }
}

DecodedTlv decode_tlv(const cv_tlv *t) {
    DecodedTlv d;
    d.type = t->type & CV_TLV_TYPE_MASK;
    d.aggregate = (t->type & CV_TLV_AGGREGATE_FLAG) != 0;
    d.qualifier = t->qualifier;
    d.name = tlv_name(d.type);
    if (!d.aggregate) {
        uint32_t len = t->length > CV_TLV_HEADER_SIZE ? t->length - CV_TLV_HEADER_SIZE : 0;
        d.value = value_of(d.type, t->value, len);
        return d;
    }
    const auto *blk = static_cast<const cv_aggr_block *>(t->value);
    if (blk == nullptr) return d;
    d.device_id = id_text(blk->dh.id);
    if (blk->dh.blob != nullptr && blk->dh.blob_len > 0) {
        const auto *b = static_cast<const uint8_t *>(blk->dh.blob);
        d.device_blob.assign(b, b + blk->dh.blob_len);
    }
    const bool combo = cv_is_combo_tlv(t->type) != 0;
    for (uint32_t i = 0; i < blk->count && blk->entries != nullptr; ++i) {
        if (blk->entries[i] == nullptr) continue;
        Entry e;
        e.combo = combo;
        if (combo) {
            const auto *c = static_cast<const cv_combo_entry *>(blk->entries[i]);
            e.id = c->id;
            e.common.version = c->hdr.version;
            e.common.caliber = c->hdr.caliber;
            e.common.name = c->hdr.name != nullptr ? c->hdr.name : "";
            e.common.role = c->hdr.role != nullptr ? c->hdr.role : "";
            e.common.keywords = c->hdr.keywords != nullptr ? c->hdr.keywords : "";
            e.common.units = c->hdr.units;
            e.common.level = c->hdr.level;
            e.common.importance = c->hdr.importance;
            e.value = value_of(d.type, c->value, 0);
            e.value.unit = unit_symbol(e.common.units);
        } else {
            const auto *p = static_cast<const cv_aggr_entry *>(blk->entries[i]);
            e.id = p->id;
            e.value = value_of(d.type, p->value, p->len);
        }
        d.entries.push_back(e);
    }
    return d;
}

bool is_usage_type(uint32_t type) {
    return type == CV_CORVANE_TLV_TYPE_USAGE || type == CV_CORVANE_TLV_TYPE_USAGE_VECTOR ||
           type == CV_CORVANE_TLV_TYPE_DELTA_VECTOR;
}

// Usage figures mean little without their units: note the message's units
// beside them (combo entries carry their own).
void note_units(DecodedPdu *p) {
    bool have = false;
    int64_t units = 0;
    for (const DecodedTlv &t : p->tlvs) {
        if (t.type != CV_CORVANE_TLV_TYPE_UNITS) continue;
        if (!t.aggregate && t.value.kind == Value::Kind::Int) {
            units = t.value.num;
            have = true;
        } else if (t.aggregate && !t.entries.empty() &&
                   t.entries[0].value.kind == Value::Kind::Int) {
            units = t.entries[0].value.num;
            have = true;
        }
        break;
    }
    if (!have) return;
    const std::string unit = unit_symbol(units);
    for (DecodedTlv &t : p->tlvs) {
        if (!is_usage_type(t.type)) continue;
        if (!t.aggregate && t.value.kind != Value::Kind::None) t.value.unit = unit;
        for (Entry &e : t.entries)
            if (!e.combo && e.value.kind != Value::Kind::None) e.value.unit = unit;
    }
}

std::string fields_text(const std::vector<Field> &fields) {
    std::string s;
    for (const Field &f : fields) {
        if (!s.empty()) s.push_back(' ');
        s += f.name + "=" + (f.is_num ? std::to_string(f.num) : f.text);
    }
    return s;
}

std::string common_text(const UsageCommon &c) {
    std::string s =
        "version=" + std::to_string(c.version) + " caliber=" + std::to_string(c.caliber);
    const char *cal = cv_util_e2s_corvane_usage_caliber(c.caliber);
    if (cal != nullptr) s += "(" + enum_words(cal) + ")";
    s += " name=" + c.name + " role=" + c.role + " units=" + std::to_string(c.units) +
         " level=" + std::to_string(c.level) + " importance=" + std::to_string(c.importance) +
         " keywords=" + c.keywords;
    return s;
}

std::string common_json(const UsageCommon &c) {
    return "{\"version\":" + std::to_string(c.version) +
           ",\"caliber\":" + std::to_string(c.caliber) + ",\"name\":" + json_str(c.name) +
           ",\"role\":" + json_str(c.role) + ",\"units\":" + std::to_string(c.units) +
           ",\"level\":" + std::to_string(c.level) +
           ",\"importance\":" + std::to_string(c.importance) +
           ",\"keywords\":" + json_str(c.keywords) + "}";
}

std::string tlv_line_value(const DecodedTlv &t) {
    if (!t.aggregate) return t.value.render();
    std::string s = "device " + t.device_id + ", " + std::to_string(t.entries.size()) +
                    (t.entries.size() == 1 ? " entry" : " entries");
    return s;
}

std::string tlv_json(const DecodedTlv &t) {
    std::string s = "{\"type\":" + std::to_string(t.type) + ",\"name\":" + json_str(t.name);
    if (t.qualifier != 0) s += ",\"qualifier\":" + std::to_string(t.qualifier);
    if (!t.aggregate) {
        s += ",\"value\":" + t.value.json();
        if (!t.value.unit.empty()) s += ",\"unit\":" + json_str(t.value.unit);
        if (!t.value.note.empty()) s += ",\"note\":" + json_str(t.value.note);
        return s + "}";
    }
    s += ",\"aggregate\":true,\"device\":" + json_str(t.device_id);
    if (!t.device_blob.empty()) s += ",\"device_blob\":" + json_str(to_hex(t.device_blob));
    s += ",\"entries\":[";
    for (size_t i = 0; i < t.entries.size(); ++i) {
        const Entry &e = t.entries[i];
        if (i != 0) s += ",";
        s += "{\"id\":" + std::to_string(e.id) + ",\"value\":" + e.value.json();
        if (!e.value.unit.empty()) s += ",\"unit\":" + json_str(e.value.unit);
        if (!e.value.note.empty()) s += ",\"note\":" + json_str(e.value.note);
        if (e.combo) s += ",\"common\":" + common_json(e.common);
        s += "}";
    }
    return s + "]}";
}

}  // namespace

std::string Value::render() const {
    std::string s;
    switch (kind) {
    case Kind::None: s = "(no value)"; break;
    case Kind::Int: s = std::to_string(num); break;
    case Kind::Text: s = text; break;
    case Kind::List:
        s = "[";
        for (size_t i = 0; i < list.size(); ++i) {
            if (i != 0) s += ", ";
            s += std::to_string(list[i]);
        }
        s += "]";
        break;
    case Kind::Blob: s = bytes.empty() ? "(empty)" : to_hex(bytes); break;
    case Kind::Record: s = fields_text(fields); break;
    }
    if (!unit.empty()) s += " " + unit;
    if (!note.empty()) s += " (" + note + ")";
    return s;
}

std::string unit_symbol(int64_t units) {
    switch (units) {
    case -3: return "mW";
    case 0: return "W";
    case 3: return "kW";
    case 6: return "MW";
    default: return "x10^" + std::to_string(units) + " W";
    }
}

std::string unit_name(int64_t units) {
    switch (units) {
    case -3: return "milliwatts";
    case 0: return "watts";
    case 3: return "kilowatts";
    case 6: return "megawatts";
    default: return "watts x 10^" + std::to_string(units);
    }
}

std::string enum_words(const char *name) {
    if (name == nullptr) return "";
    static const char *const prefixes[] = {"CV_CORVANE_USAGE_CALIBER_", "CV_CORVANE_USAGE_",
                                           "CV_CORVANE_", "CV_"};
    std::string s = name;
    for (const char *p : prefixes) {
        if (s.compare(0, strlen(p), p) == 0) {
            s = s.substr(strlen(p));
            break;
        }
    }
    for (char &c : s)
        c = c == '_' ? ' ' : static_cast<char>(tolower(static_cast<unsigned char>(c)));
    return s;
}

std::string Value::json() const {
    switch (kind) {
    case Kind::None: return "null";
    case Kind::Int: return std::to_string(num);
    case Kind::Text: return json_str(text);
    case Kind::List: {
        std::string s = "[";
        for (size_t i = 0; i < list.size(); ++i) {
            if (i != 0) s += ",";
            s += std::to_string(list[i]);
        }
        return s + "]";
    }
    case Kind::Blob: return json_str(to_hex(bytes));
    case Kind::Record: {
        std::string s = "{";
        for (size_t i = 0; i < fields.size(); ++i) {
            if (i != 0) s += ",";
            s += json_str(fields[i].name) + ":" +
                 (fields[i].is_num ? std::to_string(fields[i].num) : json_str(fields[i].text));
        }
        return s + "}";
    }
    }
    return "null";
}

const char *verdict_text(Verdict v) {
    switch (v) {
    case Verdict::Verified: return "verified";
    case Verdict::Mismatch: return "digest mismatch";
    case Verdict::NotVerified: return "not verified";
    }
    return "not verified";
}

bool peek_header(const Bytes &raw, RawHeader *out) {
    if (raw.size() < kSecHdr) return false;
    const size_t digest_room = (be16(&raw[10]) + 3u) & ~3u;
    const size_t at = kSecHdr + digest_room;
    if (raw.size() < at + kEventHdr) return false;
    const uint8_t *h = &raw[at];
    out->seq = be32(h);
    memcpy(out->id, h + 4, 32);
    out->shipment = static_cast<int8_t>(h[37]);
    out->pri = h[38];
    out->cls = h[41];
    out->action = static_cast<int>(be16(h + 42));
    out->tlv_bytes = static_cast<int>(be16(h + 44));
    out->tlv_count = static_cast<int>(be16(h + 46));
    return true;
}

const DecodedTlv *DecodedPdu::find(uint32_t type) const {
    for (const DecodedTlv &t : tlvs)
        if (!t.aggregate && t.type == type) return &t;
    return nullptr;
}

std::vector<Value> DecodedPdu::values_of(uint32_t type) const {
    std::vector<Value> out;
    for (const DecodedTlv &t : tlvs) {
        if (t.type != type) continue;
        if (!t.aggregate)
            out.push_back(t.value);
        else
            for (const Entry &e : t.entries) out.push_back(e.value);
    }
    return out;
}

DecodedPdu decode_pdu(const Bytes &raw, const hmac_sha_ctx *key) {
    DecodedPdu p;
    p.raw = raw;
    if (!peek_header(raw, &p.hdr)) {
        p.error = "too short for the message headers (" + std::to_string(raw.size()) + " bytes)";
        return p;
    }
    p.framed = true;
    p.comm = raw[9] & 0x0F;
    cv_event *ev = cv_mkevent_from_rawbuffer(static_cast<int32_t>(raw.size()), raw.data());
    if (ev == nullptr) {
        p.error = "too short to be a message";
        return p;
    }
    const int32_t rc = cv_unpack_event(ev, key);
    if (rc != 0) {
        switch (rc) {
        case 3:
            p.error = "length does not match the header (" + std::to_string(raw.size()) +
                      " bytes, header says " + std::to_string(p.hdr.tlv_bytes + 80) + ")";
            break;
        case 5: p.error = "unacceptable security header"; break;
        default: p.error = "malformed TLVs"; break;
        }
        corvane_try_gc(ev);
        return p;
    }
    p.ok = true;
    if (key == nullptr)
        p.verdict = Verdict::NotVerified;
    else
        p.verdict = ev->digest_ok == 1 ? Verdict::Verified : Verdict::Mismatch;
    const int count = ev->pak != nullptr ? ev->pak->tlv_count : 0;
    for (int i = 0; i < count && i < ev->tlv_capacity; ++i)
        if (ev->tlvs[i] != nullptr) p.tlvs.push_back(decode_tlv(ev->tlvs[i]));
    corvane_try_gc(ev);
    note_units(&p);
    return p;
}

std::string tlv_name(uint32_t type) {
    const char *n = cv_util_e2s_corvane_tlv_type(static_cast<int32_t>(type));
    if (n != nullptr) {
        static const char prefix[] = "CV_CORVANE_TLV_TYPE_";
        if (strncmp(n, prefix, sizeof prefix - 1) == 0) return n + sizeof prefix - 1;
        return n;
    }
    const char *x = extra_tlv_name(type);
    if (x != nullptr) return x;
    return "TYPE_" + std::to_string(type);
}

std::string class_name(int cls) {
    const char *n = cv_util_e2s_class(cls);
    return n != nullptr ? n : "class " + std::to_string(cls);
}

std::string action_name(int cls, int action) {
    const char *n = nullptr;
    switch (cls) {
    case CV_CLASS_QUERY: n = cv_util_e2s_action_kvqr_corvane_query(action); break;
    case CV_CLASS_AGGREGATE: n = cv_util_e2s_action_kvqr_corvane_aggregate(action); break;
    case CV_CLASS_NOTIFY: n = cv_util_e2s_action_kvqr_corvane_notify(action); break;
    case CV_CLASS_REPLY: n = cv_util_e2s_action_kvqr_corvane_reply(action); break;
    case CV_CLASS_DISCOVERY: n = cv_util_e2s_action_kvqr_corvane_discovery(action); break;
    default: break;
    }
    return n != nullptr ? n : "action " + std::to_string(action);
}

std::string shipment_name(int shipment) {
    const char *n = cv_util_e2s_shipment(shipment);
    return n != nullptr ? n : "shipment " + std::to_string(shipment);
}

std::string pdu_kind(const DecodedPdu &p) {
    if (p.hdr.shipment < 0) return "ack";
    if (p.hdr.shipment > 0) return "reply";
    if (p.hdr.cls == CV_CLASS_DISCOVERY)
        return p.hdr.action == CV_ACTION_KVQR_CORVANE_DISCOVERY_DELETE ? "delete" : "discovery";
    if (p.hdr.cls == CV_CLASS_QUERY || p.hdr.cls == CV_CLASS_AGGREGATE) return "query";
    return "message";
}

std::string render_text(const DecodedPdu &p, const std::string &title, bool verbose) {
    std::string s = title + "\n";
    if (p.framed) {
        s += "  endpoint " + p.sender() + "  seq " + std::to_string(p.hdr.seq) + "\n";
        s += "  " + class_name(p.hdr.cls) + "  " + action_name(p.hdr.cls, p.hdr.action) + "  " +
             shipment_name(p.hdr.shipment) + "  pri " + std::to_string(p.hdr.pri) + "\n";
    }
    if (!p.ok) {
        s += "  undecodable: " + p.error + "\n";
    } else {
        s += std::string("  digest ") + verdict_text(p.verdict) + "\n";
        for (const DecodedTlv &t : p.tlvs) {
            std::string name = t.name;
            if (t.qualifier != 0) name += "[q" + std::to_string(t.qualifier) + "]";
            if (name.size() < 20) name.resize(20, ' ');
            s += "  " + name + " " + tlv_line_value(t) + "\n";
            for (const Entry &e : t.entries) {
                s += "      entry " + std::to_string(e.id) + ": " + e.value.render() + "\n";
                if (e.combo) s += "        " + common_text(e.common) + "\n";
            }
        }
    }
    if (verbose) s += hex_dump(p.raw.data(), p.raw.size(), "  | ");
    return s;
}

std::string render_json(const DecodedPdu &p, const std::string &extra, bool verbose) {
    std::string s = "{";
    if (!extra.empty()) s += extra + ",";
    if (p.framed)
        s += "\"kind\":" + json_str(pdu_kind(p)) + ",\"endpoint\":" + json_str(p.sender()) +
             ",\"seq\":" + std::to_string(p.hdr.seq) +
             ",\"class\":" + json_str(class_name(p.hdr.cls)) +
             ",\"action\":" + json_str(action_name(p.hdr.cls, p.hdr.action)) +
             ",\"shipment\":" + json_str(shipment_name(p.hdr.shipment)) +
             ",\"pri\":" + std::to_string(p.hdr.pri) + ",";
    s += "\"size\":" + std::to_string(p.raw.size());
    if (!p.ok) {
        s += ",\"error\":" + json_str(p.error);
    } else {
        s += ",\"digest\":" + json_str(verdict_text(p.verdict)) + ",\"tlvs\":[";
        for (size_t i = 0; i < p.tlvs.size(); ++i) {
            if (i != 0) s += ",";
            s += tlv_json(p.tlvs[i]);
        }
        s += "]";
    }
    if (verbose) s += ",\"hex\":" + json_str(to_hex(p.raw));
    return s + "}";
}

}  // namespace omsdk_tools
