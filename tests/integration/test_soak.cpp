// Many queries through the loop: every one answered, and nothing left
// behind (descriptors always; resident memory where no sanitizer keeps
// freed memory in quarantine; leaks are the leak checker's business).
#include <gtest/gtest.h>

#include "world.h"

namespace {

#if defined(__SANITIZE_ADDRESS__)
constexpr bool kSanitized = true;
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
constexpr bool kSanitized = true;
#else
constexpr bool kSanitized = false;
#endif
#else
constexpr bool kSanitized = false;
#endif

struct QuietLog {
    uint32_t old = getLogLevel();
    QuietLog() { setLogLevel(OHMARA_LOG_WARN); }
    ~QuietLog() { setLogLevel(old); }
};

TEST(Soak, TwoThousandQueries) {
    QuietLog quiet;
    it::World w;
    ASSERT_TRUE(w.ok());
    ASSERT_TRUE(w.start());
    ASSERT_TRUE(w.attach());
    w.record(false);

    const std::vector<uint32_t> types = {CV_CORVANE_TLV_TYPE_LEVEL_CURRENT,
                                         CV_CORVANE_TLV_TYPE_USAGE, CV_CORVANE_TLV_TYPE_UNITS,
                                         CV_CORVANE_TLV_TYPE_NAME, CV_CORVANE_TLV_TYPE_ROLE};
    auto run = [&](int count) {
        int failed = 0;
        for (int i = 0; i < count; ++i) {
            omsdk_tools::QueryResult r = w.sw().get(it::kId, types, {});
            if (!r.replied || r.values.size() != types.size()) {
                if (++failed <= 3) ADD_FAILURE() << "query " << i << ": " << r.error;
            }
        }
        return failed;
    };
    ASSERT_EQ(run(100), 0);  // warm-up: caches and allocator settle
    // The loop takes connections one at a time: once it has closed this
    // one, it holds no other.
    ASSERT_TRUE(w.poke());
    const long fds = it::open_fds();
    const long rss = it::rss_kib();

    EXPECT_EQ(run(2000), 0);

    ASSERT_TRUE(w.poke());
    EXPECT_EQ(it::open_fds(), fds);
    if (!kSanitized) {
        EXPECT_LT(it::rss_kib() - rss, 2048) << "resident KiB grew";
    }
    EXPECT_EQ(w.status(), OHMARA_STATUS_ACTIVE);
}

}  // namespace
