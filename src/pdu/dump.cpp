// SPDX-License-Identifier: Apache-2.0
// Trace dumps of protocol messages. Reads only the in-memory layouts, so it
// needs nothing from the wire module.
#include <omsdk/dump.h>

#include <stdio.h>
#include <string.h>

#include "common/api.h"
#include "diag/log.h"
#include "codec/byte_order.h"

namespace {

constexpr int kBytesPerLine = 16;
constexpr size_t kLineSize = 136;

char printable(uint8_t b) { return b >= 0x20 && b <= 0x7E ? static_cast<char>(b) : '.'; }

}  // namespace

OMSDK_API void ohmara_idtos(char *text, const uint8_t *id, int32_t len) {
    int32_t n = len < CV_CORVANE_ID_SIZE ? len : CV_CORVANE_ID_SIZE;
    if (n < 0) n = 0;
    // A zero byte shows as a backspace so that padded identities keep their width.
    for (int32_t i = 0; i < n; ++i) text[i] = id[i] != 0 ? static_cast<char>(id[i]) : '\b';
    text[n] = '\0';
    if (len > CV_CORVANE_ID_SIZE) text[n + 1] = '\0';
}

OMSDK_API void ohmara_dump_pdu(const cv_event *ev) {
    if (ev == nullptr || ev->sec == nullptr || ev->pak == nullptr) return;
    const cv_sec_hdr *sec = ev->sec;
    const cv_event_hdr *pak = ev->pak;
    char id[CV_CORVANE_ID_SIZE + 2];
    ohmara_idtos(id, pak->id, CV_CORVANE_ID_SIZE + 1);

    OM_TRACE("Ohmara protocol message body >>");
    OM_TRACE("ohmaraid: %s", id);
    OM_TRACE("enc: %d comm: %d auth: %d digest len: %d", sec->enc_byte >> 4, sec->auth_comm >> 4,
             sec->auth_comm & 0x0F, sec->digest_len);
    OM_TRACE("seq: %u ver: %d shipment: %d pri: %d type: %d", pak->seq, pak->ver, pak->shipment,
             pak->pri, pak->type);
    OM_TRACE("app: %d class: %d action: %d ", pak->app, pak->event_class, pak->action);
    OM_TRACE("bytes: %d, TLV bytes: %d TLV count: %d", CV_PDU_FIXED_SIZE + pak->tlv_bytes,
             pak->tlv_bytes, pak->tlv_count);
}

OMSDK_API void ohmara_dump_payload(const uint8_t *wire_event_header) {
    if (wire_event_header == nullptr) {
        OM_WARN("NULL");
        return;
    }
    ohmara_dump_buf(wire_event_header + CV_EVENT_HEADER_SIZE,
                    omsdk::get_be16(wire_event_header + omsdk::kHdrTlvBytes));
}

OMSDK_API void ohmara_dump_buf(const uint8_t *bytes, int32_t count) {
    char line[kLineSize];
    char chars[kBytesPerLine + 1] = "";
    size_t at = 0;
    line[0] = '\0';
    int32_t i = 0;
    for (; i < count; ++i) {
        // Each line is logged when the next one starts, so the first record
        // is an empty line.
        if (i % kBytesPerLine == 0) {
            if (i != 0) (void)snprintf(line + at, sizeof line - at, "   %s", chars);
            OM_TRACE("%s", line);
            at = static_cast<size_t>(
                snprintf(line, sizeof line, "0x%04x: ", static_cast<unsigned>(i)));
        }
        at += static_cast<size_t>(snprintf(line + at, sizeof line - at, "0x%02x ", bytes[i]));
        chars[i % kBytesPerLine] = printable(bytes[i]);
        chars[i % kBytesPerLine + 1] = '\0';
    }
    for (; i % kBytesPerLine != 0; ++i)
        at += static_cast<size_t>(snprintf(line + at, sizeof line - at, "     "));
    (void)snprintf(line + at, sizeof line - at, "   %s", chars);
    OM_TRACE("%s", line);
}
