// SPDX-License-Identifier: Apache-2.0
// Test helpers: keeps the library's log quiet, or captures its lines
// through the log callback.
#ifndef OMSDK_TEST_LOG_CAPTURE_H
#define OMSDK_TEST_LOG_CAPTURE_H

#include <stdint.h>

#include <mutex>
#include <string>
#include <vector>

#include "omsdk.h"

namespace omsdk_test {

// Keeps the library's lines below `level` out of the test's output.
struct QuietLog {
    uint32_t old = getLogLevel();
    explicit QuietLog(uint32_t level = OHMARA_LOG_FATAL + 1) { setLogLevel(level); }
    ~QuietLog() { setLogLevel(old); }
};

struct LogLine {
    uint32_t level;
    std::string text;  // "function: message"
};

// While alive, every log line at or above `level` is recorded instead of
// being written to the stream. Not nestable.
class LogCapture {
public:
    explicit LogCapture(uint32_t level = 0) : old_level_(getLogLevel()) {
        active_ = this;
        setLogLevel(level);
        setLogCallback(&LogCapture::sink);
        enableLogCallback(1);
        std::lock_guard<std::mutex> g(mu_);
        lines_.clear();  // drop the configuration lines themselves
    }
    ~LogCapture() {
        enableLogCallback(0);
        setLogLevel(old_level_);
        active_ = nullptr;
    }
    LogCapture(const LogCapture &) = delete;
    LogCapture &operator=(const LogCapture &) = delete;

    std::vector<LogLine> lines() const {
        std::lock_guard<std::mutex> g(mu_);
        return lines_;
    }
    // True when some line equals "func: message" exactly at the given level.
    bool has(uint32_t level, const std::string &func, const std::string &message) const {
        std::lock_guard<std::mutex> g(mu_);
        for (const LogLine &l : lines_)
            if (l.level == level && l.text == func + ": " + message) return true;
        return false;
    }
    // True when some line contains the fragment.
    bool contains(const std::string &fragment) const {
        std::lock_guard<std::mutex> g(mu_);
        for (const LogLine &l : lines_)
            if (l.text.find(fragment) != std::string::npos) return true;
        return false;
    }
    std::string dump() const {
        std::lock_guard<std::mutex> g(mu_);
        std::string out;
        for (const LogLine &l : lines_) out += std::to_string(l.level) + " " + l.text + "\n";
        return out;
    }

private:
    static inline LogCapture *active_ = nullptr;
    static void sink(uint32_t level, const char *text) {
        LogCapture *c = active_;
        if (c == nullptr) return;
        std::lock_guard<std::mutex> g(c->mu_);
        c->lines_.push_back({level, text});
    }

    uint32_t old_level_;
    mutable std::mutex mu_;
    std::vector<LogLine> lines_;
};

}  // namespace omsdk_test

#endif
