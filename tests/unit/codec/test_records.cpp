// Record codecs: byte-exact layouts, decoder contract, clones and frees.
#include <gtest/gtest.h>
#include <stdlib.h>
#include <string.h>

#include <omsdk/codec.h>

#include "hex.h"

using codec_test::Bytes;
using codec_test::hex;

namespace {

const char kUsageHdrWire[] =
    "00 00 00 01 | FF FF FF FF | 00 00 00 02 61 62 | 00 00 00 00 | FD | 07 | C8 | 00 00 00 01 6B";

cv_usage_cmn_hdr sample_usage_hdr(char *name, char *role, char *keywords) {
    cv_usage_cmn_hdr h;
    memset(&h, 0, sizeof h);
    h.version = 1;
    h.caliber = -1;
    h.name = name;
    h.role = role;
    h.units = -3;
    h.level = 7;
    h.importance = 200;
    h.keywords = keywords;
    return h;
}

TEST(CodecRecord, UsageCommonHeaderLayout) {
    char name[] = "ab", role[] = "", kw[] = "k";
    cv_usage_cmn_hdr h = sample_usage_hdr(name, role, kw);
    const Bytes wire = hex(kUsageHdrWire);
    ASSERT_EQ(wire.size(), 26u);
    EXPECT_EQ(om_get_usage_cmn_hdr_size(&h), 26u);
    uint8_t out[40];
    EXPECT_EQ(om_pack_usage_cmn_hdr(out, &h), 26u);
    EXPECT_EQ(Bytes(out, out + 26), wire);

    cv_usage_cmn_hdr got;
    uint32_t consumed = 0;
    int32_t remaining = 30, status = -1;
    om_unpack_usage_cmn_hdr(wire.data(), &got, &consumed, &remaining, &status);
    ASSERT_EQ(status, 0);
    EXPECT_EQ(consumed, 26u);
    EXPECT_EQ(remaining, 4);
    EXPECT_EQ(got.version, 1u);
    EXPECT_EQ(got.caliber, -1);
    EXPECT_STREQ(got.name, "ab");
    EXPECT_STREQ(got.role, "");
    EXPECT_EQ(got.units, -3);
    EXPECT_EQ(got.level, 7);
    EXPECT_EQ(got.importance, 200);
    EXPECT_STREQ(got.keywords, "k");
    om_free_usage_cmn_hdr(&got);
}

TEST(CodecRecord, TruncatedRecordsLeaveNothingBehind) {
    // Cut each record inside its last field: nothing is consumed and the
    // texts decoded before the cut are released (the sanitizer build checks).
    const Bytes usage = hex(kUsageHdrWire);
    cv_usage_cmn_hdr h;
    memset(&h, 0, sizeof h);
    uint32_t consumed = 9;
    int32_t remaining = 25, status = -1;
    om_unpack_usage_cmn_hdr(usage.data(), &h, &consumed, &remaining, &status);
    EXPECT_EQ(status, 8);
    EXPECT_EQ(consumed, 0u);
    EXPECT_EQ(remaining, 25);
    EXPECT_EQ(h.name, nullptr);
    EXPECT_EQ(om_unpack_usage_cmn_hdr_ptr(usage.data(), &consumed, &remaining, &status), nullptr);

    const Bytes nb = hex("32x11 | 00 00 00 02 6E 31 | 00 00 00 01 AA | 00 00 00");
    remaining = static_cast<int32_t>(nb.size());
    EXPECT_EQ(om_unpack_neighbor_ptr(nb.data(), &consumed, &remaining, &status), nullptr);
    EXPECT_EQ(status, 8);
    const Bytes rec = hex("00 00 00 01 78 01");
    remaining = static_cast<int32_t>(rec.size());
    EXPECT_EQ(om_unpack_recurrence_ptr(rec.data(), &consumed, &remaining, &status), nullptr);
    EXPECT_EQ(status, 8);
    EXPECT_EQ(remaining, 6);
}

TEST(CodecRecord, FixedRecordsLayout) {
    cv_alarm a;
    memset(&a, 0, sizeof a);
    a.seconds = 60;
    a.param2 = 0x11;
    a.param1 = 0x22;
    a.id = -1;
    a.operation = 4;
    const Bytes alarm = hex("00 00 00 3C 11 22 FF FF FF FF 00 00 00 04");
    uint8_t out[64];
    EXPECT_EQ(om_pack_alarm(out, &a), 14u);
    EXPECT_EQ(Bytes(out, out + 14), alarm);
    EXPECT_EQ(om_get_alarm_size(&a), 14u);
    EXPECT_EQ(om_get_alarm_size(nullptr), 0u);
    uint32_t consumed = 0;
    int32_t remaining = 14, status = -1;
    cv_alarm *pa = om_unpack_alarm_ptr(alarm.data(), &consumed, &remaining, &status);
    ASSERT_NE(pa, nullptr);
    EXPECT_EQ(pa->seconds, 60u);
    EXPECT_EQ(pa->param2, 0x11);
    EXPECT_EQ(pa->param1, 0x22);
    EXPECT_EQ(pa->id, -1);
    EXPECT_EQ(pa->operation, 4);
    free(pa);

    cv_sender_id sid;
    memset(sid.id, 0x61, sizeof sid.id);
    sid.value = 1;
    EXPECT_EQ(om_pack_sender_id(out, &sid), 36u);
    EXPECT_EQ(Bytes(out, out + 36), hex("32x61 00 00 00 01"));
    EXPECT_EQ(om_get_sender_id_size(&sid), 36u);

    cv_event_id eid;
    eid.number = 7;
    for (int i = 0; i < 32; ++i) eid.id[i] = static_cast<uint8_t>(0xA0 + i);
    EXPECT_EQ(om_pack_event_id(out, &eid), 36u);
    EXPECT_EQ(Bytes(out, out + 36),
              hex("00 00 00 07 A0 A1 A2 A3 A4 A5 A6 A7 A8 A9 AA AB AC AD AE AF "
                  "B0 B1 B2 B3 B4 B5 B6 B7 B8 B9 BA BB BC BD BE BF"));
}

TEST(CodecRecord, EventIdReadsIdFromTheNumbersPosition) {
    const Bytes wire = hex("00 00 00 07 A0 A1 A2 A3 A4 A5 A6 A7 A8 A9 AA AB AC AD AE AF "
                           "B0 B1 B2 B3 B4 B5 B6 B7 B8 B9 BA BB BC BD BE BF");
    cv_event_id got;
    uint32_t consumed = 0;
    int32_t remaining = 36, status = -1;
    om_unpack_event_id(wire.data(), &got, &consumed, &remaining, &status);
    ASSERT_EQ(status, 0);
    EXPECT_EQ(got.number, 7u);
    EXPECT_EQ(consumed, 36u);
    EXPECT_EQ(remaining, 0);
    EXPECT_EQ(Bytes(got.id, got.id + 32),
              hex("00 00 00 07 A0 A1 A2 A3 A4 A5 A6 A7 A8 A9 AA AB AC AD AE AF "
                  "B0 B1 B2 B3 B4 B5 B6 B7 B8 B9 BA BB"));
    remaining = 35;
    om_unpack_event_id(wire.data(), &got, &consumed, &remaining, &status);
    EXPECT_EQ(status, 8);
}

TEST(CodecRecord, VariableRecordsLayoutAndClone) {
    char name[] = "n1";
    uint8_t blob[] = {0xAA};
    cv_neighbor nb;
    memset(&nb, 0, sizeof nb);
    memset(nb.id, 0x11, sizeof nb.id);
    nb.name = name;
    nb.blob = blob;
    nb.blob_len = 1;
    nb.flag = 1;
    const Bytes nb_wire = hex("32x11 | 00 00 00 02 6E 31 | 00 00 00 01 AA | 00 00 00 01");
    uint8_t out[64];
    EXPECT_EQ(om_get_neighbor_size(&nb), 47u);
    EXPECT_EQ(om_pack_neighbor(out, &nb), 47u);
    EXPECT_EQ(Bytes(out, out + 47), nb_wire);

    uint32_t consumed = 0;
    int32_t remaining = 47, status = -1;
    cv_neighbor *got = om_unpack_neighbor_ptr(nb_wire.data(), &consumed, &remaining, &status);
    ASSERT_NE(got, nullptr);
    EXPECT_STREQ(got->name, "n1");
    EXPECT_EQ(got->blob_len, 1u);
    EXPECT_EQ(got->flag, 1);
    cv_neighbor *copy = om_clone_neighbor(got, &status);
    ASSERT_NE(copy, nullptr);
    om_free_neighbor_ptr(got);  // the copy owns its own name and blob
    EXPECT_EQ(om_pack_neighbor(out, copy), 47u);
    EXPECT_EQ(Bytes(out, out + 47), nb_wire);
    om_free_neighbor_ptr(copy);

    char text[] = "x";
    cv_recurrence rec;
    memset(&rec, 0, sizeof rec);
    rec.text = text;
    rec.first = 1;
    rec.second = 2;
    const Bytes rec_wire = hex("00 00 00 01 78 | 01 | 02 | 00 00 00 00");
    EXPECT_EQ(om_get_recurrence_size(&rec), 11u);
    EXPECT_EQ(om_pack_recurrence(out, &rec), 11u);
    EXPECT_EQ(Bytes(out, out + 11), rec_wire);
    cv_recurrence *rc = om_clone_recurrence(&rec, &status);
    ASSERT_NE(rc, nullptr);
    text[0] = 'y';
    EXPECT_STREQ(rc->text, "x");
    om_free_recurrence_ptr(rc);

    uint8_t dh_blob[] = {1, 2, 3};
    cv_device_header dh;
    memset(dh.id, 0x41, sizeof dh.id);
    dh.blob = dh_blob;
    dh.blob_len = 3;
    EXPECT_EQ(om_get_deviceheader_size(&dh), 39u);
    EXPECT_EQ(om_pack_deviceheader(out, &dh), 39u);
    EXPECT_EQ(Bytes(out, out + 39), hex("32x41 00 00 00 03 01 02 03"));
    cv_device_header dc;
    om_clone_deviceheader(&dc, &dh, &status);
    ASSERT_EQ(status, 0);
    EXPECT_NE(dc.blob, dh.blob);
    EXPECT_EQ(memcmp(dc.blob, dh_blob, 3), 0);
    om_free_deviceheader(&dc);
    om_free_deviceheader(nullptr);
    om_clone_deviceheader(nullptr, &dh, &status);
    EXPECT_EQ(status, 4);
}

TEST(CodecRecord, UsageHeaderCloneStatus) {
    char name[] = "ab", role[] = "", kw[] = "k";
    cv_usage_cmn_hdr h = sample_usage_hdr(name, role, kw);
    cv_usage_cmn_hdr copy;
    int32_t status = -1;
    om_clone_usage_cmn_hdr(&copy, &h, &status);
    ASSERT_EQ(status, 0);
    EXPECT_NE(copy.name, h.name);
    EXPECT_STREQ(copy.name, "ab");
    EXPECT_STREQ(copy.keywords, "k");
    EXPECT_EQ(copy.importance, 200);
    om_free_usage_cmn_hdr(&copy);
    om_clone_usage_cmn_hdr(&copy, nullptr, &status);
    EXPECT_EQ(status, 4);
    om_clone_usage_cmn_hdr(nullptr, &h, &status);
    EXPECT_EQ(status, 4);
    om_free_usage_cmn_hdr(nullptr);
}

}  // namespace
