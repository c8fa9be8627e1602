#include <gtest/gtest.h>

#include <stdio.h>
#include <string.h>
#include <time.h>

#include <regex>
#include <string>
#include <utility>
#include <vector>

#include "diag/log.h"
#include "omsdk.h"

namespace {

std::vector<std::pair<uint32_t, std::string>> g_received;
void record(uint32_t level, const char *text) { g_received.emplace_back(level, text); }
void other(uint32_t, const char *) {}

std::string read_all(FILE *f) {
    fflush(f);
    rewind(f);
    std::string s;
    char buf[256];
    size_t n;
    while ((n = fread(buf, 1, sizeof buf, f)) > 0) s.append(buf, n);
    return s;
}

// Restores the process-wide settings after each test.
class Log : public testing::Test {
protected:
    void SetUp() override {
        file_ = tmpfile();
        ASSERT_NE(file_, nullptr);
        g_received.clear();
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
TEST_F(Log, DefaultsAndFlagWithoutCallback) {
    EXPECT_EQ(getLogLevel(), 2u);
    EXPECT_EQ(getLogFile(), stdout);
    EXPECT_EQ(getLogCallback(), nullptr);
    EXPECT_EQ(getLogCallbackEnable(), 0);

    testing::internal::CaptureStdout();
    OM_DEBUG("hidden");
    OM_INFO("shown %d", 1);
    enableLogCallback(1);  // no callback set: output stays on the stream
    OM_INFO("still shown");
    std::string out = testing::internal::GetCapturedStdout();
    EXPECT_EQ(out.find("hidden"), std::string::npos);
    EXPECT_NE(out.find(" [INFO] TestBody: shown 1\n"), std::string::npos) << out;
    EXPECT_NE(out.find(" [INFO] TestBody: still shown\n"), std::string::npos) << out;
}

TEST_F(Log, StreamLineFormat) {
    setLogFile(file_);
    EXPECT_EQ(getLogFile(), file_);
    setLogLevel(OHMARA_LOG_TRACE);
    time_t before = time(nullptr);
    OM_TRACE("t");
    OM_DEBUG("d %s", "x");
    OM_INFO("i");
    OM_WARN("w");
    OM_ERROR("e");
    OM_FATAL("f %d%%", 100);
    time_t after = time(nullptr);

    std::string text = read_all(file_);
    std::regex line(R"(([A-Z][a-z]{2} [A-Z][a-z]{2} [ 0-9]\d \d\d:\d\d:\d\d \d{4}) \[([A-Z]+)\] TestBody: ([^\n]*)\n)");
    const std::pair<const char *, const char *> want[] = {
        {"TRACE", "t"}, {"DEBUG", "d x"}, {"INFO", "i"}, {"WARN", "w"}, {"ERROR", "e"}, {"FATAL", "f 100%"}};
    size_t i = 0;
    auto it = std::sregex_iterator(text.begin(), text.end(), line);
    size_t matched = 0;
    for (; it != std::sregex_iterator() && i < 6; ++it, ++i) {
        const std::smatch &m = *it;
        matched += static_cast<size_t>(m.length());
        EXPECT_EQ(m[2].str(), want[i].first);
        EXPECT_EQ(m[3].str(), want[i].second);
        std::string stamp = m[1].str();
        std::string t0 = ctime(&before), t1 = ctime(&after);
        t0.pop_back();
        t1.pop_back();
        EXPECT_TRUE(stamp == t0 || stamp == t1) << stamp;
    }
    EXPECT_EQ(i, 6u);
    EXPECT_EQ(matched, text.size()) << text;  // nothing else written
}

TEST_F(Log, FilteredLevelsAreNotFormatted) {
    setLogFile(file_);
    int evaluated = 0;
    OM_DEBUG("%d", ++evaluated);
    EXPECT_EQ(evaluated, 0);
    setLogLevel(6);  // above FATAL silences everything
    OM_FATAL("%d", ++evaluated);
    EXPECT_EQ(evaluated, 0);
    EXPECT_EQ(read_all(file_), "");
    setLogLevel(OHMARA_LOG_DEBUG);
    OM_DEBUG("%d", ++evaluated);
    EXPECT_EQ(evaluated, 1);
}

TEST_F(Log, CallbackReceivesPrefixedLinesAndNotTheStream) {
    setLogFile(file_);
    setLogLevel(OHMARA_LOG_DEBUG);
    EXPECT_EQ(setLogCallback(record), 1);
    EXPECT_EQ(getLogCallback(), record);
    // Set but not enabled: this line still goes to the stream.
    EXPECT_NE(read_all(file_).find("setLogCallback: Setting log callback address to "),
              std::string::npos);

    EXPECT_EQ(setLogCallback(nullptr), 0);
    EXPECT_EQ(getLogCallback(), record);

    enableLogCallback(1);  // the announcement goes out before the change: stream
    EXPECT_NE(read_all(file_).find("enableLogCallback: Log callback feature is being ENABLED\n"),
              std::string::npos);
    EXPECT_TRUE(g_received.empty());

    long pos = ftell(file_);
    OM_WARN("w %d", 3);
    ASSERT_EQ(g_received.size(), 1u);
    EXPECT_EQ(g_received[0].first, 3u);
    EXPECT_EQ(g_received[0].second, "TestBody: w 3");  // no newline appended

    // Replacing the callback is announced to the one in force.
    setLogCallback(other);
    setLogCallback(record);
    ASSERT_EQ(g_received.size(), 2u);
    EXPECT_EQ(g_received[1].first, 1u);
    EXPECT_EQ(g_received[1].second.rfind("setLogCallback: Setting log callback address to ", 0), 0u);

    enableLogCallback(0);  // announced to the callback, later lines to the stream
    ASSERT_EQ(g_received.size(), 3u);
    EXPECT_EQ(g_received[2].second, "enableLogCallback: Log callback feature is being DISABLED");
    EXPECT_EQ(getLogCallbackEnable(), 0);
    OM_INFO("back");
    EXPECT_EQ(g_received.size(), 3u);
    std::string text = read_all(file_);
    EXPECT_EQ(text.substr(static_cast<size_t>(pos)).find("w 3"), std::string::npos);
    EXPECT_NE(text.find("[INFO] TestBody: back\n"), std::string::npos);
}

TEST_F(Log, LongMessagesAreCutOnlyForTheCallback) {
    setLogFile(file_);
    std::string msg(600, 'x');
    OM_INFO("%s", msg.c_str());
    EXPECT_NE(read_all(file_).find("TestBody: " + msg + "\n"), std::string::npos);

    setLogCallback(record);
    enableLogCallback(1);
    OM_INFO("%s", msg.c_str());
    ASSERT_EQ(g_received.size(), 1u);
    EXPECT_EQ(g_received[0].second, "TestBody: " + std::string(511 - 10, 'x'));
}

TEST_F(Log, NullFileReturnsToStdout) {
    setLogFile(file_);
    setLogFile(nullptr);
    EXPECT_EQ(getLogFile(), stdout);
    testing::internal::CaptureStdout();
    OM_ERROR("to stdout");
    std::string out = testing::internal::GetCapturedStdout();
    EXPECT_NE(out.find("[ERROR] TestBody: to stdout\n"), std::string::npos);
    EXPECT_EQ(read_all(file_), "");
}

}  // namespace
