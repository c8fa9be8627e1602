// SPDX-License-Identifier: Apache-2.0
// Trace dumps: the identity text and the hex-line format.
#include <gtest/gtest.h>

#include <string>

#include <omsdk/dump.h>

#include "log_capture.h"

namespace {

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
