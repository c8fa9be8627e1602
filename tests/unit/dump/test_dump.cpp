// Trace dumps: identities, header summaries and hex lines.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include <omsdk/dump.h>

#include "log_capture.h"

namespace {

std::vector<std::string> texts(const omsdk_test::LogCapture &cap) {
    std::vector<std::string> out;
    for (const auto &l : cap.lines()) {
        EXPECT_EQ(0u, l.level);
        out.push_back(l.text);
    }
    return out;
}

TEST(Dump, IdentityZeroBytesPrintAsBackspaces) {
    uint8_t id[32] = {'s', 'w', '1'};
    char text[40];
    memset(text, 'x', sizeof text);
    ohmara_idtos(text, id, 33);
    EXPECT_EQ("sw1" + std::string(29, '\b'), std::string(text));
    EXPECT_EQ('\0', text[33]);
    EXPECT_EQ('x', text[34]);

    memset(text, 'x', sizeof text);
    ohmara_idtos(text, id, 2);
    EXPECT_STREQ("sw", text);
    EXPECT_EQ('x', text[3]);
    ohmara_idtos(text, id, 0);
    EXPECT_STREQ("", text);
}

const std::string kPrefix = "ohmara_dump_buf: ";

TEST(Dump, SixteenBytesMakeAnEmptyLineAndOneFullLine) {
    uint8_t b[16];
    for (int i = 0; i < 16; ++i) b[i] = static_cast<uint8_t>('A' + i);
    omsdk_test::LogCapture cap(0);
    ohmara_dump_buf(b, 16);
    const std::vector<std::string> expected = {
        kPrefix,
        kPrefix +
            "0x0000: 0x41 0x42 0x43 0x44 0x45 0x46 0x47 0x48 0x49 0x4a 0x4b 0x4c 0x4d 0x4e 0x4f "
            "0x50    ABCDEFGHIJKLMNOP",
    };
    EXPECT_EQ(expected, texts(cap));
}

TEST(Dump, SeventeenBytesPadTheLastLine) {
    uint8_t b[17];
    for (int i = 0; i < 16; ++i) b[i] = static_cast<uint8_t>(i * 0x11);
    b[7] = 0x7f;
    b[16] = 0x41;
    omsdk_test::LogCapture cap(0);
    ohmara_dump_buf(b, 17);
    const std::vector<std::string> expected = {
        kPrefix,
        kPrefix +
            "0x0000: 0x00 0x11 0x22 0x33 0x44 0x55 0x66 0x7f 0x88 0x99 0xaa 0xbb 0xcc 0xdd 0xee "
            "0xff    ..\"3DUf.........",
        kPrefix + "0x0010: 0x41 " + std::string(75, ' ') + "   A",
    };
    EXPECT_EQ(expected, texts(cap));
}

TEST(Dump, NoBytesGiveOneLineOfThreeBlanks) {
    omsdk_test::LogCapture cap(0);
    ohmara_dump_buf(nullptr, 0);
    EXPECT_EQ(std::vector<std::string>{kPrefix + "   "}, texts(cap));
}

TEST(Dump, PayloadFollowsTheEventHeader) {
    uint8_t msg[48 + 3] = {};
    msg[45] = 2;  // two TLV bytes
    msg[48] = 'o';
    msg[49] = 'k';
    msg[50] = 'X';
    omsdk_test::LogCapture cap(0);
    ohmara_dump_payload(msg);
    const std::vector<std::string> expected = {
        kPrefix,
        kPrefix + "0x0000: 0x6f 0x6b " + std::string(70, ' ') + "   ok",
    };
    EXPECT_EQ(expected, texts(cap));
    cap.clear();
    ohmara_dump_payload(nullptr);
    EXPECT_TRUE(cap.has(OHMARA_LOG_WARN, "ohmara_dump_payload", "NULL"));
}

TEST(Dump, PduSummary) {
    cv_sec_hdr sec = {};
    sec.enc_byte = 0x20;
    sec.auth_comm = 0x41;
    sec.digest_len = 20;
    cv_event_hdr pak = {};
    pak.seq = 4000000000u;
    memcpy(pak.id, "sw1", 3);
    pak.ver = 1;
    pak.shipment = -1;
    pak.pri = 100;
    pak.type = 10;
    pak.app = 17;
    pak.event_class = 10;
    pak.action = 11;
    pak.tlv_bytes = 163;
    pak.tlv_count = 4;
    cv_event ev = {};
    ev.sec = &sec;
    ev.pak = &pak;
    {
        omsdk_test::LogCapture cap(0);
        ohmara_dump_pdu(&ev);
        const std::string p = "ohmara_dump_pdu: ";
        const std::vector<std::string> expected = {
            p + "Ohmara protocol message body >>",
            p + "ohmaraid: sw1" + std::string(29, '\b'),
            p + "enc: 2 comm: 4 auth: 1 digest len: 20",
            p + "seq: 4000000000 ver: 1 shipment: -1 pri: 100 type: 10",
            p + "app: 17 class: 10 action: 11 ",
            p + "bytes: 243, TLV bytes: 163 TLV count: 4",
        };
        EXPECT_EQ(expected, texts(cap));
    }

    // Nothing at all above TRACE.
    omsdk_test::LogCapture quiet(1);
    ohmara_dump_pdu(&ev);
    uint8_t b[20] = {};
    ohmara_dump_buf(b, 20);
    uint8_t msg[50] = {};
    ohmara_dump_payload(msg);
    EXPECT_EQ(0u, quiet.lines().size());
}

}  // namespace
