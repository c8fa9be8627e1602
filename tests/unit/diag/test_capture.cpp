// SPDX-License-Identifier: Apache-2.0
#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <stdio.h>
#include <time.h>
#include <unistd.h>

#include <string>

#include "diag/capture.h"
#include "wire_test_util.h"

namespace {

using wire_test::Bytes;
using wire_test::hex;

sockaddr_in addr(const char *ip, uint16_t port) {
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_port = htons(port);
    inet_pton(AF_INET, ip, &a.sin_addr);
    return a;
}

uint32_t le32(const Bytes &b, size_t at) {
    return b[at] | b[at + 1] << 8 | b[at + 2] << 16 | static_cast<uint32_t>(b[at + 3]) << 24;
}

uint64_t now_us() {
    timespec ts{};
    clock_gettime(CLOCK_REALTIME, &ts);
    return static_cast<uint64_t>(ts.tv_sec) * 1000000u + static_cast<uint64_t>(ts.tv_nsec) / 1000u;
}

class Capture : public testing::Test {
protected:
    std::string path_ = testing::TempDir() + "capture_" + std::to_string(getpid()) + ".pcapng";
    omsdk::capture cap_;
    const sockaddr_in a_ = addr("127.0.0.2", 5000), b_ = addr("127.0.0.1", 6000);

    void TearDown() override { unlink(path_.c_str()); }
    Bytes file() {
        omsdk::capture_close(cap_);
        Bytes out;
        FILE *f = fopen(path_.c_str(), "rb");
        if (f == nullptr) return out;
        for (int ch; (ch = fgetc(f)) != EOF;) out.push_back(static_cast<uint8_t>(ch));
        fclose(f);
        return out;
    }
};

const Bytes kHeaders = hex(
    "0A 0D 0D 0A | 1C 00 00 00 | 4D 3C 2B 1A | 01 00 00 00 | FF FF FF FF FF FF FF FF | 1C 00 00 00"
    "01 00 00 00 | 14 00 00 00 | 65 00 00 00 | 00 00 00 00 | 14 00 00 00");

TEST_F(Capture, OneDatagramWithCommentIsLaidOutByteForByte) {
    ASSERT_TRUE(omsdk::capture_open(cap_, path_.c_str(), 0));
    const uint64_t before = now_us();
    omsdk::capture_udp(cap_, a_, b_, reinterpret_cast<const uint8_t *>("hi!"), 3, "digest ok");
    const uint64_t after = now_us();
    Bytes got = file();
    ASSERT_EQ(got.size(), 48u + 84u);
    // Timestamp words (high, low) in microseconds; zeroed for the comparison.
    const uint64_t ts = static_cast<uint64_t>(le32(got, 60)) << 32 | le32(got, 64);
    EXPECT_GE(ts, before);
    EXPECT_LE(ts, after);
    std::fill(got.begin() + 60, got.begin() + 68, 0);
    const Bytes want = wire_test::cat(
        {kHeaders,
         hex("06 00 00 00 | 54 00 00 00 | 00 00 00 00 | 00 00 00 00 00 00 00 00 | 1F 00 00 00 1F 00 00 00"
             "45 00 00 1F | 00 00 40 00 | 40 11 3C CB | 7F 00 00 02 | 7F 00 00 01"  // IPv4
             "13 88 17 70 | 00 0B 00 00 | 68 69 21 | 00"                            // UDP, pad
             "01 00 09 00 | 64 69 67 65 73 74 20 6F 6B 00 00 00 | 00 00 00 00"      // comment, end
             "54 00 00 00")});
    EXPECT_EQ(got, want);
}

}  // namespace
