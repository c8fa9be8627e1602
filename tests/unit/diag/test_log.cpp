// SPDX-License-Identifier: Apache-2.0
#include <gtest/gtest.h>

#include <stdio.h>
#include <time.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <string>
#include <thread>
#include <vector>

#include "diag/log.h"
#include "omsdk.h"

namespace {

std::string read_all(FILE *f) {
    fflush(f);
    rewind(f);
    std::string s;
    char buf[4096];
    for (size_t n; (n = fread(buf, 1, sizeof buf, f)) > 0;) s.append(buf, n);
    return s;
}
bool has(const std::string &s, const std::string &p) { return s.find(p) != std::string::npos; }

// Restores the process-wide settings after each test.
class Log : public testing::Test {
protected:
    void SetUp() override {
        file_ = tmpfile();
        ASSERT_NE(file_, nullptr);
    }
    void TearDown() override {
        enableLogCallback(0);
        setLogFile(nullptr);
        setLogLevel(OHMARA_LOG_INFO);
        fclose(file_);
    }
    FILE *file_ = nullptr;
};

// Runs first in a fresh process, before any test installs a callback.
TEST_F(Log, DefaultsStdoutFilteredLevelsAndLineFormat) {
    EXPECT_EQ(getLogLevel(), 2u);
    EXPECT_EQ(getLogFile(), stdout);
    EXPECT_EQ(getLogCallbackEnable(), 0);
    int evaluated = 0;
    testing::internal::CaptureStdout();
    OM_DEBUG("hidden %d", ++evaluated);
    OM_INFO("shown %d", 1);
    enableLogCallback(1);  // no callback set: output stays on the stream
    OM_ERROR("still shown");
    const std::string out = testing::internal::GetCapturedStdout();
    EXPECT_FALSE(has(out, "hidden"));
    EXPECT_TRUE(has(out, " [INFO] TestBody: shown 1\n")) << out;
    EXPECT_TRUE(has(out, " [ERROR] TestBody: still shown\n")) << out;
    EXPECT_EQ(evaluated, 0);  // filtered lines are not even formatted

    setLogFile(file_);
    setLogLevel(OHMARA_LOG_TRACE);
    const time_t before = time(nullptr);
    OM_TRACE("t");
    OM_DEBUG("d %s", "x");
    OM_WARN("w");
    OM_FATAL("f %d%%", 100);
    const time_t after = time(nullptr);
    // Each line: the local time as ctime() writes it, the level, the function.
    const std::string t0 = std::string(ctime(&before), 24), t1 = std::string(ctime(&after), 24);
    std::string text = read_all(file_);
    for (const char *w : {"[TRACE] TestBody: t", "[DEBUG] TestBody: d x", "[WARN] TestBody: w",
                          "[FATAL] TestBody: f 100%"}) {
        const std::string line = text.substr(0, text.find('\n') + 1);
        text.erase(0, line.size());
        EXPECT_TRUE(line.substr(0, 24) == t0 || line.substr(0, 24) == t1) << line;
        EXPECT_EQ(line.substr(std::min<size_t>(24, line.size())), std::string(" ") + w + "\n");
    }
    EXPECT_EQ(text, "");
}

// Lines from several threads never interleave: each is written whole. A
// stream locked per call would break a line only now and then, so up to
// three bursts are written (to fresh files) while every line stays whole.
TEST_F(Log, LinesFromThreadsStayWhole) {
    constexpr int kThreads = 4, kLines = 2000;
    const std::string payload(100, 'p');
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
    for (int burst = 0; burst < 3 && !HasFailure(); ++burst) {
        FILE *f = tmpfile();
        ASSERT_NE(f, nullptr);
        setLogFile(f);
        std::atomic<int> ready{0};
        std::vector<std::thread> threads;
        for (int t = 0; t < kThreads; ++t)
            threads.emplace_back([&, t] {
                for (++ready; ready < kThreads;) std::this_thread::yield();  // all start at once
                for (int i = 0; i < kLines && std::chrono::steady_clock::now() < deadline; ++i)
                    OM_WARN("thread %d line %04d %s", t, i, payload.c_str());
            });
        for (std::thread &th : threads) th.join();
        setLogFile(nullptr);
        const std::string text = read_all(f);
        fclose(f);
        // "<24-character stamp> [WARN] operator(): thread T line NNNN <payload>": all
        // of one length, so a line with a piece of another is longer or shorter.
        const std::string head = " [WARN] operator(): thread ", tail = " " + payload;
        size_t lines = 0, whole = 0;
        for (size_t at = 0, nl; at < text.size(); at = nl + 1, ++lines) {
            nl = std::min(text.find('\n', at), text.size());
            whole += nl - at == 24 + head.size() + 11 + tail.size() &&
                     text.compare(at + 24, head.size(), head) == 0 &&
                     text.compare(nl - tail.size(), tail.size(), tail) == 0;
        }
        EXPECT_EQ(lines, size_t(kThreads * kLines)) << "burst " << burst;
        EXPECT_EQ(whole, lines) << "burst " << burst << "\n" << text.substr(0, 2000);
    }
}

}  // namespace
