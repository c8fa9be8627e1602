// SPDX-License-Identifier: Apache-2.0
// Security header byte order (whole messages are compared byte for byte by
// the engine's tests, through frame()), and the trace dumps: the identity
// text and the hex-line format.
#include <gtest/gtest.h>

#include <string>
#include <tuple>

#include <omsdk/dump.h>
#include <omsdk/enums.h>
#include <omsdk/pdu.h>

#include "log_capture.h"
#include "wire_test_util.h"

using namespace wire_test;

namespace {

TEST(PduHeaders, SecurityHeaderSwapsNibblesOfBytesZeroOneAndNine) {
    const Bytes wire = hex("12 34 56 78 9a bc de f0 11 2c 00 14");
    cv_sec_hdr h;
    ASSERT_EQ(0, cv_corvane_secure_nw_to_host(wire.data(), &h));
    // In memory comm is the high nibble and auth the low one.
    EXPECT_EQ(std::make_tuple(h.nibbles0, h.enc_byte, h.reserved16, h.hmac_tag, h.reserved8,
                              h.auth_comm, h.digest_len),
              std::make_tuple(uint8_t{0x21}, uint8_t{0x43}, uint16_t{0x5678}, 0x9abcdef0u,
                              uint8_t{0x11}, uint8_t{0xc2}, uint16_t{20}));
    Bytes back(12, 0xee);
    ASSERT_EQ(0, cv_corvane_secure_host_to_nw(&h, back.data()));
    EXPECT_EQ(wire, back);
}

// A value's size in memory: 0 when it varies, 255 for a type without a size.
TEST(PduHeaders, TypeLengths) {
    omsdk_test::QuietLog quiet;
    const std::pair<int32_t, uint32_t> cases[] = {
        {0, 0},   {9, 0},   {48, 0},  {1, 36},   {35, 36},  {2, 32},   {3, 4},
        {12, 1},  {13, 2},  {23, 16}, {28, 84},  {36, 44},  {39, 22},  {43, 26},
        {44, 46}, {45, 68}, {46, 12}, {37, 255}, {50, 255}, {52, 255}, {-1, 255}};
    for (const auto &[type, len] : cases) EXPECT_EQ(omr_getTypeLength(type), len) << type;
}

TEST(Dump, IdentityAndHexLines) {
    const uint8_t id[32] = {'s', 'w', '1'};
    char text[40];
    memset(text, 'x', sizeof text);
    ohmara_idtos(text, id, 33);  // zero bytes print as backspaces
    EXPECT_EQ("sw1" + std::string(29, '\b'), std::string(text));
    EXPECT_EQ(std::make_pair('\0', 'x'), std::make_pair(text[33], text[34]));
    uint8_t b[17];
    for (int i = 0; i < 16; ++i) b[i] = static_cast<uint8_t>(i * 0x11);
    b[7] = 0x7f;  // not printable either
    b[16] = 0x41;
    const std::string p = "ohmara_dump_buf: ";
    const std::string want[] = {
        p,
        p + "0x0000: 0x00 0x11 0x22 0x33 0x44 0x55 0x66 0x7f 0x88 0x99 0xaa 0xbb 0xcc 0xdd 0xee "
            "0xff    ..\"3DUf.........",
        p + "0x0010: 0x41 " + std::string(75, ' ') + "   A"};
    for (uint32_t level : {0u, 1u}) {  // nothing at all above TRACE
        omsdk_test::LogCapture cap(level);
        ohmara_dump_buf(b, 17);
        ASSERT_EQ(level == 0 ? 3u : 0u, cap.lines().size());
        for (size_t i = 0; i < cap.lines().size(); ++i) EXPECT_EQ(want[i], cap.lines()[i].text);
    }
}

}  // namespace
