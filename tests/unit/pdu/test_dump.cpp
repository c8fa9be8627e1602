// Trace dumps: identities, header summaries and hex lines.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include <omsdk/dump.h>

#include "log_capture.h"

namespace {

using Lines = std::vector<std::string>;

// The captured lines, all at TRACE.
Lines texts(const omsdk_test::LogCapture &cap) {
    Lines out;
    for (const auto &l : cap.lines()) {
        EXPECT_EQ(0u, l.level);
        out.push_back(l.text);
    }
    return out;
}

TEST(Dump, IdentityZeroBytesPrintAsBackspaces) {
    const uint8_t id[32] = {'s', 'w', '1'};
    char text[40];
    memset(text, 'x', sizeof text);
    ohmara_idtos(text, id, 33);
    EXPECT_EQ("sw1" + std::string(29, '\b'), std::string(text));
    EXPECT_EQ(std::make_pair('\0', 'x'), std::make_pair(text[33], text[34]));
    memset(text, 'x', sizeof text);
    ohmara_idtos(text, id, 2);
    EXPECT_STREQ("sw", text);
    EXPECT_EQ('x', text[3]);
    ohmara_idtos(text, id, 0);
    EXPECT_STREQ("", text);
}

const std::string kP = "ohmara_dump_buf: ";

TEST(Dump, HexLines) {
    uint8_t b[17];
    for (int i = 0; i < 16; ++i) b[i] = static_cast<uint8_t>(i * 0x11);
    b[7] = 0x7f;  // not printable either
    b[16] = 0x41;
    uint8_t letters[16];
    for (int i = 0; i < 16; ++i) letters[i] = static_cast<uint8_t>('A' + i);
    const struct {
        const uint8_t *bytes;
        int32_t count;
        Lines expected;  // the first line is always empty
    } cases[] = {
        {letters,
         16,
         {kP, kP + "0x0000: 0x41 0x42 0x43 0x44 0x45 0x46 0x47 0x48 0x49 0x4a 0x4b 0x4c 0x4d "
                   "0x4e 0x4f 0x50    ABCDEFGHIJKLMNOP"}},
        {b,
         17,
         {kP,
          kP + "0x0000: 0x00 0x11 0x22 0x33 0x44 0x55 0x66 0x7f 0x88 0x99 0xaa 0xbb 0xcc "
               "0xdd 0xee 0xff    ..\"3DUf.........",
          kP + "0x0010: 0x41 " + std::string(75, ' ') + "   A"}},
        {nullptr, 0, {kP + "   "}},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.count);
        omsdk_test::LogCapture cap(0);
        ohmara_dump_buf(c.bytes, c.count);
        EXPECT_EQ(c.expected, texts(cap));
    }
}

// The payload follows the event header; nothing at all is dumped above TRACE.
TEST(Dump, PayloadAndNothingAboveTrace) {
    uint8_t msg[48 + 3] = {};
    msg[45] = 2;  // two TLV bytes
    msg[48] = 'o';
    msg[49] = 'k';
    msg[50] = 'X';
    cv_sec_hdr sec = {};
    cv_event_hdr pak = {};
    cv_event ev = {};
    ev.sec = &sec;
    ev.pak = &pak;
    for (uint32_t level : {0u, 1u}) {
        omsdk_test::LogCapture cap(level);
        ohmara_dump_payload(msg);
        const Lines ok = {kP, kP + "0x0000: 0x6f 0x6b " + std::string(70, ' ') + "   ok"};
        EXPECT_EQ(level == 0 ? ok : Lines(), texts(cap));
        ohmara_dump_pdu(&ev);
        ohmara_dump_buf(msg, 20);
        ohmara_dump_payload(nullptr);  // a warning
        EXPECT_EQ(level == 0 ? 2u + 6u + 3u + 1u : 1u, cap.lines().size());
    }
}

}  // namespace
