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
uint32_t be32(const Bytes &b, size_t at) {
    return static_cast<uint32_t>(b[at]) << 24 | b[at + 1] << 16 | b[at + 2] << 8 | b[at + 3];
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

// Two messages one way and an answer: sequence numbers run on per
// direction, the answer acknowledges both, and every TCP checksum holds.
TEST_F(Capture, TcpDirectionsKeepTheirOwnSequence) {
    ASSERT_TRUE(omsdk::capture_open(cap_, path_.c_str(), 0));
    const uint8_t data[] = {1, 2, 3, 4, 5};
    omsdk::capture_tcp(cap_, a_, b_, data, 5, nullptr);
    omsdk::capture_tcp(cap_, a_, b_, data, 3, nullptr);
    omsdk::capture_tcp(cap_, b_, a_, data, 2, nullptr);
    const Bytes got = file();
    // Without a comment each block is 28 + padded packet + 4 bytes.
    const size_t at[] = {48 + 28, 48 + 80 + 28, 48 + 80 + 76 + 28};
    ASSERT_EQ(got.size(), 48u + 80 + 76 + 76);
    const size_t lens[] = {5, 3, 2};
    for (int i = 0; i < 3; ++i) {
        const size_t tcp = at[i] + 20, n = 20 + lens[i];
        EXPECT_EQ(got[tcp + 13], 0x18) << i;  // PSH|ACK
        uint32_t sum = 6 + static_cast<uint32_t>(n);
        for (size_t k = 12; k < 20; k += 2) sum += got[at[i] + k] << 8 | got[at[i] + k + 1];
        for (size_t k = 0; k < n; k += 2)
            sum += got[tcp + k] << 8 | (k + 1 < n ? got[tcp + k + 1] : 0);
        while (sum >> 16) sum = (sum & 0xFFFF) + (sum >> 16);
        EXPECT_EQ(sum, 0xFFFFu) << i;
    }
    const uint32_t first = be32(got, at[0] + 24);
    EXPECT_EQ(be32(got, at[1] + 24), first + 5);
    EXPECT_EQ(be32(got, at[2] + 28), first + 8);  // ack of the answer
}

TEST_F(Capture, StopsBeforeThePacketThatWouldPassTheLimit) {
    const uint8_t d[3] = {};
    // Two 64-byte blocks after the 48 bytes of headers, then a 60-byte one:
    // past the limit in the first case; in the others it would fit in the
    // room a stop left, but nothing is written after a stop.
    const struct {
        size_t limit, size;
        bool stopped;
    } cases[] = {{176, 176, false}, {175, 112, true}, {111, 48, true}};
    for (const auto &c : cases) {
        ASSERT_TRUE(omsdk::capture_open(cap_, path_.c_str(), c.limit));
        omsdk::capture_udp(cap_, a_, b_, d, 3, nullptr);
        omsdk::capture_udp(cap_, a_, b_, d, 3, nullptr);
        EXPECT_EQ(cap_.stopped, c.stopped) << c.limit;
        omsdk::capture_udp(cap_, a_, b_, d, 0, nullptr);
        EXPECT_TRUE(cap_.stopped) << c.limit;
        EXPECT_EQ(file().size(), c.size) << c.limit;
    }
    EXPECT_FALSE(omsdk::capture_open(cap_, path_.c_str(), 47));
}

}  // namespace
