// SPDX-License-Identifier: Apache-2.0
// SETs from the switch against readers on application threads.
#include <atomic>
#include <chrono>
#include <thread>

#include "fixture.h"

namespace {

using namespace engine_test;

// The switch renames the endpoint over and over while an application thread copies the name:
// every copy is whole (one of the names) and the sanitizer builds see no use after free.
TEST(Set, NameCopiedOnAnotherThreadWhileTheSwitchRenamesIt) {
    const char *names[] = {"n-1", "name-number-two-is-longer"};
    World w;
    w.active();
    omsdk_test::QuietLog quiet;
    std::atomic<bool> done{false};
    std::atomic<int> copies{0}, torn{0};
    std::thread reader([&] {
        char buf[64];
        while (!done.load()) {
            uint32_t len = 0;
            const bool copied = ohmara_svc_copyAttribute(w.s, 4, buf, sizeof buf, &len) == 0;
            const std::string got(copied ? buf : "");
            torn += got != names[0] && got != names[1] && got != "lab-7";
            ++copies;
        }
    });
    for (auto end = std::chrono::steady_clock::now() + std::chrono::seconds(2);
         copies.load() == 0 && std::chrono::steady_clock::now() < end;)
        std::this_thread::yield();  // the reader is running before the renames start (bounded)
    for (uint32_t i = 0; i < 3000; ++i) {
        w.deliver(from_switch(0, CV_CLASS_QUERY, 10, 100 + i,
                              {switch_reply_to(), identity(), {9, text(names[i % 2])}}, kNonceKey));
        w.take();
    }
    done = true;
    reader.join();
    EXPECT_EQ(torn.load(), 0);
    EXPECT_GT(copies.load(), 0);
    EXPECT_EQ(dev().modified.size(), 3000u);
}

}  // namespace
