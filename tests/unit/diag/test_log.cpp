#include <gtest/gtest.h>

#include <stdio.h>
#include <time.h>

#include <string>
#include <utility>
#include <vector>

#include "diag/log.h"
#include "omsdk.h"

namespace {

std::vector<std::pair<uint32_t, std::string>> g_received;
void record(uint32_t level, const char *text) { g_received.emplace_back(level, text); }

std::string read_all(FILE *f) {
    fflush(f);
    rewind(f);
    std::string s;
    char buf[256];
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
TEST_F(Log, DefaultsStdoutAndFilteredLevels) {
    EXPECT_EQ(getLogLevel(), 2u);
    EXPECT_EQ(getLogFile(), stdout);
    EXPECT_EQ(getLogCallback(), nullptr);
    EXPECT_EQ(getLogCallbackEnable(), 0);

    setLogFile(file_);
    setLogFile(nullptr);  // back to stdout
    EXPECT_EQ(getLogFile(), stdout);
    int evaluated = 0;
    testing::internal::CaptureStdout();
    OM_DEBUG("hidden %d", ++evaluated);
    OM_INFO("shown %d", 1);
    enableLogCallback(1);  // no callback set: output stays on the stream
    OM_ERROR("still shown");
    std::string out = testing::internal::GetCapturedStdout();
    EXPECT_FALSE(has(out, "hidden"));
    EXPECT_TRUE(has(out, " [INFO] TestBody: shown 1\n")) << out;
    EXPECT_TRUE(has(out, " [ERROR] TestBody: still shown\n")) << out;
    EXPECT_EQ(read_all(file_), "");
    EXPECT_EQ(evaluated, 0);  // filtered lines are not even formatted
}

TEST_F(Log, StreamLineFormat) {
    setLogFile(file_);
    setLogLevel(OHMARA_LOG_TRACE);
    const time_t before = time(nullptr);
    OM_TRACE("t");
    OM_DEBUG("d %s", "x");
    OM_INFO("i");
    OM_WARN("w");
    OM_ERROR("e");
    OM_FATAL("f %d%%", 100);
    const time_t after = time(nullptr);
    // Each line: the local time as ctime() writes it, the level, the function.
    const std::string t0 = std::string(ctime(&before), 24), t1 = std::string(ctime(&after), 24);
    std::string text = read_all(file_);
    for (const char *w : {"[TRACE] TestBody: t", "[DEBUG] TestBody: d x", "[INFO] TestBody: i",
                          "[WARN] TestBody: w", "[ERROR] TestBody: e",
                          "[FATAL] TestBody: f 100%"}) {
        const std::string line = text.substr(0, text.find('\n') + 1);
        text.erase(0, line.size());
        ASSERT_GT(line.size(), 25u) << w;
        EXPECT_TRUE(line.substr(0, 24) == t0 || line.substr(0, 24) == t1) << line;
        EXPECT_EQ(line.substr(24), std::string(" ") + w + "\n");
    }
    EXPECT_EQ(text, "");  // nothing else written
}

TEST_F(Log, CallbackTakesLinesAnnouncedThroughTheOldSettings) {
    setLogFile(file_);
    setLogLevel(OHMARA_LOG_DEBUG);
    EXPECT_EQ(setLogCallback(record), 1);
    EXPECT_EQ(setLogCallback(nullptr), 0);  // refused, the old one stays
    EXPECT_EQ(getLogCallback(), record);
    enableLogCallback(1);  // announced before the change: on the stream
    std::string text = read_all(file_);
    const std::string set_line = "setLogCallback: Setting log callback address to ";
    EXPECT_TRUE(has(text, set_line)) << text;
    EXPECT_TRUE(has(text, "enableLogCallback: Log callback feature is being ENABLED\n")) << text;
    EXPECT_TRUE(g_received.empty());

    const long pos = ftell(file_);
    OM_WARN("w %d", 3);
    setLogCallback([](uint32_t, const char *) {});  // announced to the callback in force
    setLogCallback(record);
    enableLogCallback(0);  // announced to the callback, later lines to the stream
    OM_INFO("back");
    ASSERT_EQ(g_received.size(), 3u);
    EXPECT_EQ(g_received[0], std::make_pair(3u, std::string("TestBody: w 3")));  // no newline
    EXPECT_EQ(g_received[1].first, 1u);
    EXPECT_EQ(g_received[1].second.rfind(set_line, 0), 0u);
    EXPECT_EQ(g_received[2].second, "enableLogCallback: Log callback feature is being DISABLED");
    text = read_all(file_).substr(static_cast<size_t>(pos));
    EXPECT_FALSE(has(text, "w 3"));
    EXPECT_TRUE(has(text, "[INFO] TestBody: back\n")) << text;

    // Long lines: whole on the stream, cut to 511 bytes for the callback.
    std::string msg(600, 'x');
    OM_INFO("%s", msg.c_str());
    EXPECT_TRUE(has(read_all(file_), "TestBody: " + msg + "\n"));
    enableLogCallback(1);
    g_received.clear();
    OM_INFO("%s", msg.c_str());
    ASSERT_EQ(g_received.size(), 1u);
    EXPECT_EQ(g_received[0].second, "TestBody: " + std::string(511 - 10, 'x'));
}

}  // namespace
