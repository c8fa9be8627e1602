// SPDX-License-Identifier: Apache-2.0
// Header byte order, size helpers and type lengths. (Whole messages are
// compared byte for byte by the engine's tests, through frame().)
#include <gtest/gtest.h>

#include <tuple>

#include <omsdk/enums.h>
#include <omsdk/pdu.h>

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

TEST(PduHelpers, SizeAddressBoundsAndTypeLengths) {
    Bytes hdr(48 + 0x102, 0);
    hdr[44] = 0x01;
    hdr[45] = 0x02;
    EXPECT_EQ(48u + 0x102u, omr_getPduSize(hdr.data()));
    const uint8_t *p = hdr.data();
    EXPECT_EQ(1, omr_isValidPduAddress(p, p));
    EXPECT_EQ(1, omr_isValidPduAddress(p, p + 48 + 0x101));
    EXPECT_EQ(0, omr_isValidPduAddress(p, p + 48 + 0x102));
    EXPECT_EQ(0, omr_isValidPduAddress(p + 1, p));
    // Length figures of types 0..51; 255 is "unexpected type".
    const uint32_t lengths[52] = {0,  36, 32, 4, 0,  0,  0,  0,  0,   0,  0,   0,   1,
                                  2,  1,  1,  1, 1,  1,  2,  32, 32,  4,  16,  16,  4,
                                  4,  0,  84, 2, 32, 4,  4,  4,  4,   36, 44,  255, 4,
                                  22, 0,  1,  4, 26, 46, 68, 12, 255, 0,  255, 255, 4};
    for (int32_t t = 0; t < 52; ++t) EXPECT_EQ(lengths[t], omr_getTypeLength(t)) << "type " << t;
    for (int32_t t : {52, 1000, -1}) EXPECT_EQ(255u, omr_getTypeLength(t)) << "type " << t;
}

}  // namespace
