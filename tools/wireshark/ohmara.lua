-- SPDX-License-Identifier: Apache-2.0
-- Packet analyser plugin for the endpoint protocol: discovery datagrams on
-- UDP and the messages of TCP connections (acknowledgements, GET and SET
-- queries, replies). Shows the security header, the digest and whether it
-- verifies, the event header with its names, and every TLV with its value.
--
-- Load it with `-X lua_script:ohmara.lua` (tshark) or copy it to the
-- personal plugins folder. Preferences (prefix "ohmara."):
--   udp_port   discovery port (default 43440)
--   tcp_port   a TCP port to decode as this protocol; 0 leaves it to the
--              heuristic, which recognises a message by its security header
--   key        the shared secret as text, or "hex:" followed by its bytes;
--              empty when the endpoints run without one (they then sign with
--              their own 32-character identifier)
--   nonce_key  the per-connection key in hex, for captures that do not hold
--              the nonce exchange; otherwise it is derived from the nonces
--
-- Discovery events (and their acknowledgements) are signed with the secret,
-- all other messages with the nonce key: HMAC-SHA1 keyed with the 4-byte
-- big-endian XOR of the switch's and the endpoint's nonces, over the secret
-- padded or cut to 20 bytes (or over the endpoint's identifier when there is
-- no secret). The digest covers the event header and the TLVs.

local bit = bit32
if bit == nil then
    -- Lua 5.3 and later: the same functions on the native operators (loaded
    -- from text, which an older parser never sees).
    bit = load([[
        local m = 0xFFFFFFFF
        local function fold(op, a, ...)
            for _, b in ipairs({ ... }) do a = op(a, b) end
            return a & m
        end
        return {
            band = function(...) return fold(function(a, b) return a & b end, ...) end,
            bor = function(...) return fold(function(a, b) return a | b end, ...) end,
            bxor = function(...) return fold(function(a, b) return a ~ b end, ...) end,
            bnot = function(a) return ~a & m end,
            lrotate = function(a, n) a = a & m return ((a << n) | (a >> (32 - n))) & m end,
            rshift = function(a, n) return (a & m) >> n end,
        }]])()
end

---------------------------------------------------------------------------
-- SHA-1 and HMAC-SHA1 over Lua strings

local function be32(s, i)
    local a, b, c, d = s:byte(i, i + 3)
    return ((a * 256 + b) * 256 + c) * 256 + d
end

local function be32_bytes(v)
    return string.char(bit.rshift(v, 24), bit.band(bit.rshift(v, 16), 0xFF),
                       bit.band(bit.rshift(v, 8), 0xFF), bit.band(v, 0xFF))
end

local function sha1(msg)
    local h0, h1, h2, h3, h4 = 0x67452301, 0xEFCDAB89, 0x98BADCFE, 0x10325476, 0xC3D2E1F0
    local bits = #msg * 8
    msg = msg .. "\128" .. string.rep("\0", (55 - #msg) % 64) ..
          be32_bytes(math.floor(bits / 4294967296)) .. be32_bytes(bits % 4294967296)
    local w = {}
    for chunk = 1, #msg, 64 do
        for i = 0, 15 do w[i] = be32(msg, chunk + i * 4) end
        for i = 16, 79 do
            w[i] = bit.lrotate(bit.bxor(w[i - 3], w[i - 8], w[i - 14], w[i - 16]), 1)
        end
        local a, b, c, d, e = h0, h1, h2, h3, h4
        for i = 0, 79 do
            local f, k
            if i < 20 then
                f, k = bit.bor(bit.band(b, c), bit.band(bit.bnot(b), d)), 0x5A827999
            elseif i < 40 then
                f, k = bit.bxor(b, c, d), 0x6ED9EBA1
            elseif i < 60 then
                f, k = bit.bor(bit.band(b, c), bit.band(b, d), bit.band(c, d)), 0x8F1BBCDC
            else
                f, k = bit.bxor(b, c, d), 0xCA62C1D6
            end
            local t = (bit.lrotate(a, 5) + f + e + k + w[i]) % 4294967296
            a, b, c, d, e = t, a, bit.lrotate(b, 30), c, d
        end
        h0, h1 = (h0 + a) % 4294967296, (h1 + b) % 4294967296
        h2, h3 = (h2 + c) % 4294967296, (h3 + d) % 4294967296
        h4 = (h4 + e) % 4294967296
    end
    return be32_bytes(h0) .. be32_bytes(h1) .. be32_bytes(h2) .. be32_bytes(h3) .. be32_bytes(h4)
end

local function hmac_sha1(key, msg)
    if #key > 64 then key = sha1(key) end
    key = key .. string.rep("\0", 64 - #key)
    local ipad, opad = {}, {}
    for i = 1, 64 do
        local k = key:byte(i)
        ipad[i] = string.char(bit.bxor(k, 0x36))
        opad[i] = string.char(bit.bxor(k, 0x5C))
    end
    return sha1(table.concat(opad) .. sha1(table.concat(ipad) .. msg))
end

local function to_hex(s)
    return (s:gsub(".", function(c) return string.format("%02x", c:byte()) end))
end

-- Hex digits to bytes, blanks and colons ignored; nil when not hex.
local function from_hex(text)
    text = text:gsub("[%s:]", "")
    if #text % 2 ~= 0 or text:find("[^%x]") then return nil end
    return (text:gsub("%x%x", function(h) return string.char(tonumber(h, 16)) end))
end

---------------------------------------------------------------------------
-- Names

local class_names = { [10] = "QUERY", [11] = "AGGREGATE", [12] = "NOTIFY", [13] = "REPLY",
                      [14] = "DISCOVERY" }
local action_names = {
    [10] = { [10] = "SET", [11] = "COLLECT", [12] = "COMMIT", [13] = "INVENTORY" },
    [11] = { [10] = "SUM", [11] = "AVERAGE", [12] = "MIN", [13] = "MAX" },
    [12] = { [10] = "CREATE", [11] = "UPDATE", [12] = "DELETE" },
    [13] = { [10] = "DONE", [11] = "DIDNOT" },
    [14] = { [10] = "DISCOVERY_UPDATE", [11] = "KEEPALIVE", [12] = "DELETE" },
}
local shipment_names = { [-4] = "ACK_LATER", [-3] = "ACK_ILL", [-2] = "ACK_WONT", [-1] = "ACK_WILL",
                         [0] = "SEND", [1] = "REPLY_NO_ERROR", [2] = "REPLY_WITH_ERROR" }
local CLASS_DISCOVERY = 14

-- Every TLV type: its name and the form of its value.
local tlv_types = {
    [0] = { "RESERVED", "blob" },         [1] = { "OHMRZ_ID", "sender_id" },
    [2] = { "ID", "id" },                 [3] = { "ENT_ID", "u32" },
    [4] = { "AUTHORIZATION", "blob" },    [5] = { "ADDRESSEE", "text" },
    [6] = { "RECUR", "text" },            [7] = { "ROLE", "text" },
    [8] = { "DOMAIN", "text" },           [9] = { "NAME", "text" },
    [10] = { "KEYWORDS", "keywords" },    [11] = { "ERROR_STRING", "text" },
    [12] = { "UNITS", "i8" },             [13] = { "USAGE", "u16" },
    [14] = { "LEVEL_CURRENT", "u8" },     [15] = { "LEVEL_PROVISIONED", "u8" },
    [16] = { "IMPORTANCE", "u8" },        [17] = { "IMPORTANCE_I", "u8" },
    [18] = { "IMPORTANCE_E", "u8" },      [19] = { "IMPORTANCE_MAX", "u16" },
    [20] = { "IMPORTANCE_MAX_ID", "id" }, [21] = { "IMPORTANCE_PARENT", "id" },
    [22] = { "ENTITY_TYPE", "i32", "entity" }, [23] = { "REPLY_TO", "sockaddr" },
    [24] = { "PROXY_ADDRESS", "sockaddr" }, [25] = { "PROXY_PORT", "u32" },
    [26] = { "PROXY_PROTO", "i32", "proxy_proto" }, [27] = { "PROXY_CLASS", "text" },
    [28] = { "NEIGHBOR", "neighbor" },    [29] = { "NEIGHBOR_COUNT", "u16" },
    [30] = { "PARENT", "id" },            [31] = { "HEARTBEAT", "i32" },
    [32] = { "CLOCK", "i32" },            [33] = { "SENDER_CLOCK", "i32" },
    [34] = { "NANNY_VECTOR", "u32" },     [35] = { "EVENT_ID", "event_id" },
    [36] = { "DELTA_VECTOR", "dvec" },    [37] = { "TYPE_37", "none" },
    [38] = { "USAGE_CALIBER", "i32", "caliber" }, [39] = { "USAGE_VECTOR", "uvec" },
    [40] = { "TYPE_40", "text" },         [41] = { "TYPE_41", "u8" },
    [42] = { "TYPE_42", "none" },             [43] = { "USAGE_REPORT", "u16" },
    [44] = { "USAGE_VECTOR_REPORT", "uvec" }, [45] = { "DELTA_VECTOR_REPORT", "dvec" },
    [46] = { "TYPE_46", "recurrence" }, [47] = { "NONCE", "u32" },
    [48] = { "DEVICE_TYPE", "text" },     [49] = { "TYPE_49", "u16" },
    [50] = { "ALARM", "alarm" },          [51] = { "USAGE_CATEGORY", "i32", "category" },
}
local TLV_NONCE, TLV_REPLY_TO = 47, 23

local enum_notes = {
    entity = { [0] = "NONE", [1] = "LOCAL", [2] = "REMOTE", [3] = "CORVANE", [4] = "ADMIN_OFF",
               [5] = "NON_POE" },
    proxy_proto = { [10] = "TCP", [11] = "UDP", [12] = "HTTP", [13] = "SNMP" },
    caliber = { [-2] = "MAX", [-1] = "PRESUMED", [0] = "UNKNOWN", [1] = "ACTUAL", [2] = "TRUSTED" },
    category = { [-1] = "PRODUCER", [0] = "METER", [1] = "CONSUMER" },
}
local alarm_ops = { [1] = "set", [2] = "ok", [5] = "ok", [3] = "failed", [6] = "failed",
                    [7] = "failed", [4] = "clear-all" }

local function tlv_name(t)
    local row = tlv_types[t]
    return row ~= nil and row[1] or ("TYPE_" .. t)
end

local tlv_name_vs = {}
for t, row in pairs(tlv_types) do tlv_name_vs[t] = row[1] end

---------------------------------------------------------------------------
-- Protocol, fields, preferences

local proto = Proto("ohmara", "Ohmara endpoint protocol")

local f = {
    sec = ProtoField.bytes("ohmara.sec", "Security header"),
    enc = ProtoField.uint8("ohmara.sec.enc", "Encoding", base.DEC, nil, 0x0F),
    tag = ProtoField.uint32("ohmara.sec.tag", "HMAC tag"),
    auth = ProtoField.uint8("ohmara.sec.auth", "Authentication", base.DEC,
                            { [1] = "HMAC-SHA1" }, 0xF0),
    comm = ProtoField.uint8("ohmara.sec.comm", "Comm", base.DEC, nil, 0x0F),
    digest_len = ProtoField.uint16("ohmara.sec.digest_len", "Digest length"),
    digest = ProtoField.bytes("ohmara.digest", "Digest"),
    digest_status = ProtoField.string("ohmara.digest.status", "Digest status"),
    digest_key = ProtoField.string("ohmara.digest.key", "Verified with"),
    digest_computed = ProtoField.bytes("ohmara.digest.computed", "Computed digest"),
    nonce_key = ProtoField.bytes("ohmara.digest.nonce_key", "Derived nonce key"),
    seq = ProtoField.uint32("ohmara.seq", "Sequence number"),
    id = ProtoField.string("ohmara.id", "Sender identifier"),
    ver = ProtoField.uint8("ohmara.ver", "Version"),
    shipment = ProtoField.int8("ohmara.shipment", "Shipment", base.DEC, shipment_names),
    pri = ProtoField.uint8("ohmara.pri", "Priority"),
    type = ProtoField.uint8("ohmara.type", "Type", base.DEC, { [10] = "KVQR" }),
    app = ProtoField.uint8("ohmara.app", "Application"),
    class = ProtoField.uint8("ohmara.class", "Class", base.DEC, class_names),
    action = ProtoField.uint16("ohmara.action", "Action"),
    action_name = ProtoField.string("ohmara.action.name", "Action name"),
    tlv_bytes = ProtoField.uint16("ohmara.tlv_bytes", "TLV bytes"),
    tlv_count = ProtoField.uint16("ohmara.tlv_count", "TLV count"),
    tlv = ProtoField.bytes("ohmara.tlv", "TLV"),
    tlv_type = ProtoField.uint32("ohmara.tlv.type", "Type", base.DEC, tlv_name_vs, 0x3FFFFFFF),
    tlv_aggr = ProtoField.bool("ohmara.tlv.aggregate", "Aggregate", 32, nil, 0x80000000),
    tlv_name = ProtoField.string("ohmara.tlv.name", "Name"),
    tlv_len = ProtoField.uint32("ohmara.tlv.length", "Length"),
    tlv_qual = ProtoField.uint32("ohmara.tlv.qualifier", "Qualifier"),
    tlv_value = ProtoField.string("ohmara.tlv.value", "Value"),
    v_uint = ProtoField.uint32("ohmara.uint", "Unsigned"),
    v_int = ProtoField.int32("ohmara.int", "Signed"),
    v_text = ProtoField.string("ohmara.text", "Text"),
    v_bytes = ProtoField.bytes("ohmara.bytes", "Bytes"),
    v_id = ProtoField.string("ohmara.ident", "Identifier"),
    v_ipv4 = ProtoField.ipv4("ohmara.ipv4", "Address"),
    v_port = ProtoField.uint16("ohmara.port", "Port"),
    v_family = ProtoField.uint16("ohmara.family", "Address family"),
    v_member = ProtoField.string("ohmara.member", "Member"),
    v_len = ProtoField.uint32("ohmara.len", "Length prefix"),
    device = ProtoField.string("ohmara.aggr.device", "Device"),
    count = ProtoField.uint32("ohmara.aggr.count", "Entries"),
    entry = ProtoField.string("ohmara.entry", "Entry"),
    entry_id = ProtoField.uint32("ohmara.entry.id", "Entry id"),
    usage = ProtoField.string("ohmara.usage", "Usage header"),
}
local field_list = {}
for _, v in pairs(f) do field_list[#field_list + 1] = v end
proto.fields = field_list

local ef = {
    bad_digest = ProtoExpert.new("ohmara.digest.bad", "Digest mismatch", expert.group.CHECKSUM,
                                 expert.severity.ERROR),
    no_key = ProtoExpert.new("ohmara.digest.nokey", "Digest not verified: no key known",
                             expert.group.CHECKSUM, expert.severity.NOTE),
    malformed = ProtoExpert.new("ohmara.malformed", "Malformed message", expert.group.MALFORMED,
                                expert.severity.ERROR),
    length = ProtoExpert.new("ohmara.length", "Length differs from the event header",
                             expert.group.MALFORMED, expert.severity.ERROR),
}
proto.experts = { ef.bad_digest, ef.no_key, ef.malformed, ef.length }

proto.prefs.udp_port = Pref.uint("Discovery UDP port", 43440, "UDP port of discovery datagrams")
proto.prefs.tcp_port = Pref.uint("TCP port", 0,
    "A TCP port to decode as this protocol (0: recognise messages by their header)")
proto.prefs.key = Pref.string("Shared secret", "",
    "The secret as text, or hex: and its bytes; empty when endpoints run without one")
proto.prefs.nonce_key = Pref.string("Nonce key (hex)", "",
    "The per-connection key; derived from the captured nonce exchange when empty")

---------------------------------------------------------------------------
-- Capture-wide state: what the nonce exchange taught, and the key chosen
-- for each message on the first pass (later passes reuse it).

local endpoints_by_id, endpoints_by_ip, message_keys

local function reset_state()
    endpoints_by_id, endpoints_by_ip, message_keys = {}, {}, {}
end
proto.init = reset_state
reset_state()

local function endpoint_for(id)
    local rec = endpoints_by_id[id]
    if rec == nil then
        rec = { id = id }
        endpoints_by_id[id] = rec
    end
    return rec
end

local function secret_bytes()
    local k = proto.prefs.key or ""
    if k:sub(1, 4) == "hex:" then return from_hex(k:sub(5)) or "" end
    return k
end

local function derive_nonce_key(rec)
    local seed = be32_bytes(bit.bxor(rec.nonce, rec.switch_nonce))
    local secret = secret_bytes()
    local data
    if secret ~= "" then
        data = (secret .. string.rep("\0", 20)):sub(1, 20)
    else
        data = rec.id
    end
    return hmac_sha1(seed, data)
end

-- The key of one message: bytes (or nil) and what they are.
local function choose_key(m, src, dst)
    local secret = secret_bytes()
    if m.class == CLASS_DISCOVERY then
        if secret ~= "" then return secret, "secret" end
        if m.shipment >= 0 then return m.id, "endpoint identifier" end
        local rec = endpoints_by_ip[dst]
        if rec ~= nil then return rec.id, "endpoint identifier" end
        return nil, "no endpoint identifier seen yet"
    end
    local pref = from_hex(proto.prefs.nonce_key or "")
    if pref ~= nil and pref ~= "" then return pref, "nonce key (preference)" end
    local rec = endpoints_by_id[m.id] or endpoints_by_ip[dst] or endpoints_by_ip[src]
    if rec ~= nil and rec.nonce ~= nil and rec.switch_nonce ~= nil then
        return derive_nonce_key(rec), "nonce key (derived)", true
    end
    -- Before any nonce exchange an endpoint without a secret signs with its
    -- identifier.
    if rec ~= nil and secret == "" then return rec.id, "endpoint identifier" end
    return nil, "no nonce exchange seen"
end

-- What a message teaches: an endpoint's identifier, address and nonce from
-- its discovery events, the switch's nonce from the acknowledgements.
local function learn(m, src, dst)
    if m.class ~= CLASS_DISCOVERY then return end
    if m.shipment >= 0 then
        local rec = endpoint_for(m.id)
        endpoints_by_ip[src] = rec
        if m.reply_to ~= nil then endpoints_by_ip[m.reply_to] = rec end
        if m.nonce ~= nil then rec.nonce = m.nonce end
    elseif m.nonce ~= nil then
        local rec = endpoints_by_ip[dst]
        if rec ~= nil then rec.switch_nonce = m.nonce end
    end
end

---------------------------------------------------------------------------
-- Values

local function printable(s)
    return (s:gsub("[^\32-\126]", "."))
end

local function id_text(r)
    return printable(r:raw())
end

local function note(n, names)
    local name = names and names[n]
    return name and string.format("%d (%s)", n, name) or tostring(n)
end

-- Keyword runs are NUL-separated; shown comma-separated.
local function keywords_text(s)
    local out = {}
    for k in s:gmatch("[^%z]+") do out[#out + 1] = k end
    return table.concat(out, ",")
end

local function sockaddr_text(r)
    if r:len() ~= 16 then return to_hex(r:raw()) end
    return string.format("%s:%d", tostring(r:range(4, 4):ipv4()), r:range(2, 2):uint())
end

-- A reader over one TLV value: every take is bounded by the value's end.
local function reader(tvb, offset, limit)
    return { tvb = tvb, at = offset, stop = offset + limit }
end
local function take(rd, n)
    if n < 0 or rd.at + n > rd.stop then error("short", 0) end
    local r = rd.tvb:range(rd.at, n)
    rd.at = rd.at + n
    return r
end
-- A length-prefixed run of bytes (its range, possibly empty, and prefix).
local function take_prefixed(rd, tree)
    local pr = take(rd, 4)
    local n = pr:int()
    tree:add(f.v_len, pr)
    if n == 0 then return nil, 0 end
    return take(rd, n), n
end

local function int_of(r, signed)
    return signed and r:int() or r:uint()
end

local decode = {}

local function fixed(n, signed)
    return function(rd, tree, _, names)
        local r = take(rd, n)
        local v = int_of(r, signed)
        tree:add(signed and f.v_int or f.v_uint, r, v)
        return note(v, names)
    end
end
decode.u8, decode.u16, decode.u32 = fixed(1), fixed(2), fixed(4)
decode.i8, decode.i32 = fixed(1, true), fixed(4, true)
decode.none = function() return "(no value)" end

function decode.id(rd, tree)
    local r = take(rd, 32)
    local t = id_text(r)
    tree:add(f.v_id, r, t)
    return t
end

-- Texts and blobs are bare in a plain TLV (the TLV length gives theirs) and
-- length-prefixed in aggregate entries and records.
local function bare_or_prefixed(rd, tree, aggr)
    if aggr then return (take_prefixed(rd, tree)) end
    local n = rd.stop - rd.at
    return n > 0 and take(rd, n) or nil
end

function decode.text(rd, tree, aggr)
    local r = bare_or_prefixed(rd, tree, aggr)
    local t = r and printable(r:raw():gsub("%z+$", "")) or ""
    if r then tree:add(f.v_text, r, t) end
    return t
end

function decode.keywords(rd, tree, aggr)
    local r = bare_or_prefixed(rd, tree, aggr)
    local t = r and keywords_text(r:raw()) or ""
    if r then tree:add(f.v_text, r, t) end
    return t
end

function decode.blob(rd, tree, aggr)
    local r = bare_or_prefixed(rd, tree, aggr)
    if r == nil then return "(empty)" end
    tree:add(f.v_bytes, r)
    return to_hex(r:raw())
end

function decode.sockaddr(rd, tree, aggr)
    local r = bare_or_prefixed(rd, tree, aggr)
    if r == nil then return "(empty)" end
    if r:len() == 16 then
        tree:add_le(f.v_family, r:range(0, 2))
        tree:add(f.v_port, r:range(2, 2))
        tree:add(f.v_ipv4, r:range(4, 4))
    else
        tree:add(f.v_bytes, r)
    end
    return sockaddr_text(r)
end

local function vector(n, signed)
    return function(rd, tree)
        local out = {}
        for i = 1, 11 do
            local r = take(rd, n)
            out[i] = tostring(int_of(r, signed))
            tree:add(signed and f.v_int or f.v_uint, r, int_of(r, signed))
        end
        return "[" .. table.concat(out, ", ") .. "]"
    end
end
decode.uvec, decode.dvec = vector(2, false), vector(4, true)

-- Records: members in wire order, each a name and a form.
local function record(members)
    return function(rd, tree)
        local out = {}
        for _, m in ipairs(members) do
            local start = rd.at
            local sub = tree:add(f.v_member, rd.tvb:range(start, 0), m[1])
            local v = decode[m[2]](rd, sub, true, m[3])
            sub:set_len(rd.at - start)
            sub:set_text(m[1] .. ": " .. v)
            out[#out + 1] = m[1] .. "=" .. v
        end
        return table.concat(out, " ")
    end
end
decode.sender_id = record({ { "id", "id" }, { "value", "u32" } })
decode.event_id = record({ { "number", "u32" }, { "id", "id" } })
decode.neighbor = record({ { "id", "id" }, { "name", "text" }, { "blob", "blob" },
                           { "flag", "i32" } })
decode.recurrence = record({ { "text", "text" }, { "first", "u8" }, { "second", "u8" },
                             { "flag", "i32" } })
local decode_alarm = record({ { "seconds", "u32" }, { "param2", "u8" }, { "param1", "u8" },
                              { "id", "i32" }, { "operation", "i32" } })
function decode.alarm(rd, tree)
    local start = rd.at
    local t = decode_alarm(rd, tree)
    local op = rd.tvb:range(start + 10, 4):int()
    return t .. " (" .. (alarm_ops[op] or "unexpected") .. ")"
end
local decode_usage = record({ { "version", "u32" }, { "caliber", "i32", enum_notes.caliber },
                              { "name", "text" }, { "role", "text" }, { "units", "i8" },
                              { "level", "u8" }, { "importance", "u8" },
                              { "keywords", "text" } })

local function combo(t) return t == 43 or t == 44 or t == 45 end

-- An aggregate: device header (identifier, length-prefixed blob), entry
-- count, entries (id, the usage header in combo types, the value).
local function decode_aggregate(rd, tree, t, form, names)
    local dr = take(rd, 32)
    local device = id_text(dr)
    tree:add(f.device, dr, device)
    local blob = take_prefixed(rd, tree)
    if blob then tree:add(f.v_bytes, blob) end
    local cr = take(rd, 4)
    local n = cr:uint()
    tree:add(f.count, cr)
    local out = {}
    for _ = 1, n do
        local start = rd.at
        local et = tree:add(f.entry, rd.tvb:range(start, 0), "")
        local ir = take(rd, 4)
        et:add(f.entry_id, ir)
        local text = "#" .. ir:uint() .. " "
        local usage
        if combo(t) then
            local us = rd.at
            local ut = et:add(f.usage, rd.tvb:range(us, 0), "")
            usage = decode_usage(rd, ut)
            ut:set_len(rd.at - us)
            ut:set_text("Usage header: " .. usage)
        end
        text = text .. decode[form](rd, et, true, names)
        if usage then text = text .. " {" .. usage .. "}" end
        et:set_len(rd.at - start)
        et:set_text("Entry " .. text)
        out[#out + 1] = text
    end
    return string.format("device %s, %d %s%s%s", device, n, n == 1 and "entry" or "entries",
                         n > 0 and ": " or "", table.concat(out, "; "))
end

---------------------------------------------------------------------------
-- Messages

local SEC, EVENT = 12, 48

-- Whole length of the message at `offset` (nil while its headers are not
-- all there).
local function message_length(tvb, offset)
    local left = tvb:len() - offset
    if left < SEC then return nil end
    local room = bit.band(tvb:range(offset + 10, 2):uint() + 3, 0xFFFC)
    if left < SEC + room + EVENT then return nil end
    return SEC + room + EVENT + tvb:range(offset + SEC + room + 44, 2):uint()
end

-- The fixed part of a security header as the library writes it.
local function looks_like_header(tvb, offset)
    if tvb:len() - offset < SEC then return false end
    local b1, b9 = tvb:range(offset + 1, 1):uint(), tvb:range(offset + 9, 1):uint()
    return bit.band(b1, 0x0F) == 2 and bit.rshift(b9, 4) == 1 and bit.band(b9, 0x0F) <= 4 and
           tvb:range(offset + 10, 2):uint() == 20
end

local function add_tlvs(tvb, tree, m, at, stop, count, pinfo)
    local names = {}
    for _ = 1, count do
        if stop - at < 12 then
            tree:add_proto_expert_info(ef.malformed, "TLVs end before the count says")
            return names
        end
        local word = tvb:range(at, 4):uint()
        local len = tvb:range(at + 4, 4):uint()
        if len < 12 or len > stop - at then
            tree:add_tvb_expert_info(ef.malformed, tvb:range(at, 8), "TLV length out of bounds")
            return names
        end
        local t = bit.band(word, 0x3FFFFFFF)
        local aggr = bit.band(word, 0x80000000) ~= 0
        local name = tlv_name(t)
        local tt = tree:add(f.tlv, tvb:range(at, len))
        tt:add(f.tlv_type, tvb:range(at, 4))
        tt:add(f.tlv_aggr, tvb:range(at, 4))
        tt:add(f.tlv_name, tvb:range(at, 4), name):set_generated()
        tt:add(f.tlv_len, tvb:range(at + 4, 4))
        local qual = tvb:range(at + 8, 4):uint()
        tt:add(f.tlv_qual, tvb:range(at + 8, 4))
        local row = tlv_types[t]
        local value
        local rd = reader(tvb, at + 12, len - 12)
        if len == 12 then
            value = "(no value)"
        elseif row == nil then
            value = to_hex(tvb:range(at + 12, len - 12):raw())
        else
            local names_of = row[3] and enum_notes[row[3]]
            local ok, v = pcall(function()
                if aggr then return decode_aggregate(rd, tt, t, row[2], names_of) end
                return decode[row[2]](rd, tt, false, names_of)
            end)
            if ok and rd.at ~= rd.stop then
                ok, v = false, "value shorter than the TLV"
            end
            if ok then
                value = v
            else
                tt:add_proto_expert_info(ef.malformed, name .. ": " .. tostring(v))
                value = "malformed: " .. to_hex(tvb:range(at + 12, len - 12):raw())
            end
        end
        tt:add(f.tlv_value, tvb:range(at, len), value):set_generated()
        tt:set_text(string.format("%s%s%s: %s", name, aggr and " (aggregate)" or "",
                                  qual ~= 0 and (" [q" .. qual .. "]") or "", value))
        if not aggr and len > 12 then
            if t == TLV_NONCE and len == 16 then m.nonce = tvb:range(at + 12, 4):uint() end
            if t == TLV_REPLY_TO and len == 28 then
                m.reply_to = tostring(tvb:range(at + 16, 4):ipv4())
            end
        end
        names[#names + 1] = name
        at = at + len
    end
    if at ~= stop then
        tree:add_proto_expert_info(ef.malformed, "TLV bytes left over after the last TLV")
    end
    return names
end

-- One whole message in tvb (exactly its bytes).
local function dissect_message(tvb, pinfo, root)
    local total = tvb:len()
    local tree = root:add(proto, tvb:range(0, total))
    local room = bit.band(tvb:range(10, 2):uint() + 3, 0xFFFC)
    local body = SEC + room
    local sec = tree:add(f.sec, tvb:range(0, SEC))
    sec:add(f.enc, tvb:range(1, 1))
    sec:add(f.tag, tvb:range(4, 4))
    sec:add(f.auth, tvb:range(9, 1))
    sec:add(f.comm, tvb:range(9, 1))
    sec:add(f.digest_len, tvb:range(10, 2))
    sec:set_text("Security header")
    if total < body + EVENT then
        tree:add_proto_expert_info(ef.malformed, "Too short for the event header")
        return
    end
    local digest_range = tvb:range(SEC, tvb:range(10, 2):uint())
    local dt = tree:add(f.digest, digest_range)

    local h = tvb:range(body, EVENT)
    local m = {
        seq = h:range(0, 4):uint(),
        id = h:range(4, 32):raw(),
        shipment = h:range(37, 1):int(),
        class = h:range(41, 1):uint(),
        action = h:range(42, 2):uint(),
    }
    local ht = tree:add(h, "Event header")
    ht:add(f.seq, h:range(0, 4))
    ht:add(f.id, h:range(4, 32), printable(m.id))
    ht:add(f.ver, h:range(36, 1))
    ht:add(f.shipment, h:range(37, 1))
    ht:add(f.pri, h:range(38, 1))
    ht:add(f.type, h:range(39, 1))
    ht:add(f.app, h:range(40, 1))
    ht:add(f.class, h:range(41, 1))
    ht:add(f.action, h:range(42, 2))
    local class_name = class_names[m.class] or ("class " .. m.class)
    local action_name = (action_names[m.class] or {})[m.action] or ("action " .. m.action)
    local shipment_name = shipment_names[m.shipment] or ("shipment " .. m.shipment)
    ht:add(f.action_name, h:range(42, 2), action_name):set_generated()
    ht:add(f.tlv_bytes, h:range(44, 2))
    ht:add(f.tlv_count, h:range(46, 2))
    local tlv_bytes = h:range(44, 2):uint()
    if total ~= body + EVENT + tlv_bytes then
        tree:add_proto_expert_info(ef.length, string.format(
            "%d bytes, the event header makes it %d", total, body + EVENT + tlv_bytes))
    end
    local stop = math.min(total, body + EVENT + tlv_bytes)
    add_tlvs(tvb, tree, m, body + EVENT, stop, h:range(46, 2):uint(), pinfo)

    -- Digest: the key comes from what earlier messages taught; later passes
    -- reuse the first pass's choice.
    local src, dst = tostring(pinfo.src), tostring(pinfo.dst)
    local slot = pinfo.number .. ":" .. to_hex(digest_range:raw())
    local chosen = message_keys[slot]
    if chosen == nil or not pinfo.visited then
        local key, what, derived = choose_key(m, src, dst)
        chosen = { key = key, what = what, derived = derived }
        message_keys[slot] = chosen
        learn(m, src, dst)
    end
    local status
    if chosen.key == nil then
        status = "not verified"
        dt:add(f.digest_status, digest_range, status):set_generated()
        dt:add(f.digest_key, digest_range, chosen.what):set_generated()
        dt:add_proto_expert_info(ef.no_key, "Digest not verified: " .. chosen.what)
    else
        local computed = hmac_sha1(chosen.key, tvb:range(body, total - body):raw())
        status = computed == digest_range:raw() and "ok" or "mismatch"
        dt:add(f.digest_status, digest_range, status):set_generated()
        dt:add(f.digest_key, digest_range, chosen.what):set_generated()
        if chosen.derived then
            dt:add(f.nonce_key, digest_range, chosen.key):set_generated()
        end
        if status ~= "ok" then
            local ct = dt:add(f.digest_computed, digest_range, computed)
            ct:set_generated()
            dt:add_proto_expert_info(ef.bad_digest, "Digest mismatch (" .. chosen.what .. ")")
        end
    end
    dt:set_text("Digest: " .. to_hex(digest_range:raw()) .. " [" .. status .. "]")

    tree:set_text(string.format("Ohmara %s %s %s, seq %d, digest %s", class_name, action_name,
                                shipment_name, m.seq, status))
    local info = string.format("%s %s %s seq=%d [%s]", class_name, action_name, shipment_name,
                               m.seq, status == "ok" and "digest ok" or ("digest " .. status))
    local prev = tostring(pinfo.cols.info)
    if pinfo.private.ohmara_msgs == pinfo.number .. "" then
        pinfo.cols.info:set(prev .. "; " .. info)
    else
        pinfo.cols.info:set(info)
        pinfo.private.ohmara_msgs = pinfo.number .. ""
    end
end

local function pdu_length(tvb, pinfo, offset)
    return message_length(tvb, offset) or -1  -- -1: one more segment
end

local function dissect_pdu(tvb, pinfo, tree)
    pinfo.cols.protocol:set("OHMARA")
    dissect_message(tvb, pinfo, tree)
    return tvb:len()
end

local function dissect_tcp(tvb, pinfo, tree)
    if not looks_like_header(tvb, 0) then return 0 end
    dissect_tcp_pdus(tvb, tree, SEC + 20 + EVENT, pdu_length, dissect_pdu)
    return tvb:len()
end

function proto.dissector(tvb, pinfo, tree)
    if pinfo.port_type == 3 then  -- UDP: one datagram, one message
        if not looks_like_header(tvb, 0) then return 0 end
        return dissect_pdu(tvb, pinfo, tree)
    end
    return dissect_tcp(tvb, pinfo, tree)
end

local function heuristic_tcp(tvb, pinfo, tree)
    if not looks_like_header(tvb, 0) then return false end
    if tvb:len() >= SEC + 20 + EVENT then
        local h = SEC + 20
        -- type KVQR, application 17, sizes the endpoint would accept
        local tlv_bytes, tlv_count = tvb:range(h + 44, 2):uint(), tvb:range(h + 46, 2):uint()
        if tvb:range(h + 39, 1):uint() ~= 10 or tvb:range(h + 40, 1):uint() ~= 17 or
           message_length(tvb, 0) > 1400 or tlv_count * 12 > tlv_bytes then
            return false
        end
    end
    pinfo.conversation = proto
    dissect_tcp(tvb, pinfo, tree)
    return true
end
proto:register_heuristic("tcp", heuristic_tcp)

local registered = {}
local function register_ports()
    local udp, tcp = DissectorTable.get("udp.port"), DissectorTable.get("tcp.port")
    if registered.udp then udp:remove(registered.udp, proto) end
    if registered.tcp then tcp:remove(registered.tcp, proto) end
    registered.udp, registered.tcp = nil, nil
    if proto.prefs.udp_port ~= 0 then
        udp:add(proto.prefs.udp_port, proto)
        registered.udp = proto.prefs.udp_port
    end
    if proto.prefs.tcp_port ~= 0 then
        tcp:add(proto.prefs.tcp_port, proto)
        registered.tcp = proto.prefs.tcp_port
    end
end
proto.prefs_changed = register_ports
register_ports()

