// SPDX-License-Identifier: Apache-2.0
// Two sessions in one process, each with its own identifier, key and device
// behind the callbacks with a context, run by turns and queried by their
// switches at once. The thread-sanitizer build runs this too.
#include <gtest/gtest.h>

#include <atomic>
#include <memory>
#include <thread>

#include "live.h"

namespace {

using namespace ep_test;
using loop_net::wait_until;
constexpr uint32_t kLevel = CV_CORVANE_TLV_TYPE_LEVEL_CURRENT, kUsage = 13;

struct Device {
    std::atomic<uint8_t> level;
    uint16_t usage;
    std::atomic<uint32_t> seq{1};
    std::atomic<int> sets{0};
};
Device *dev(void *ctx) { return static_cast<Device *>(ctx); }

const ohmara_svc_ctx_registry kRegistry = [] {
    ohmara_svc_ctx_registry r{};
    r.get_units = [](void *) { return uint8_t{2}; };
    r.get_usage = [](void *c) { return dev(c)->usage; };
    r.get_usage_caliber = [](void *) { return uint32_t{1}; };
    r.get_usage_category = [](void *) { return uint32_t{1}; };
    r.get_level = [](void *c) { return dev(c)->level.load(); };
    r.set_level = [](void *c, uint8_t l) { return dev(c)->level = l, ++dev(c)->sets, 0; };
    r.get_usage_vector = [](void *, uint16_t *v) { std::fill(v, v + 11, uint16_t{0}); };
    r.get_delta_vector = [](void *, int32_t *v) { std::fill(v, v + 11, 0); };
    r.next_sequence = [](void *c) { return dev(c)->seq++; };
    r.attribute_modified = [](void *, int32_t) {};
    r.listen_port_notify = [](void *, uint16_t) {};
    return r;
}();

TEST(Contexts, TwoSessionsEachAnswerWithTheirOwnValues) {
    QuietLog quiet;
    const char *ids[2] = {"0123456789abcdef0123456789abcdef", "00112233445566778899aabbccddeeff"};
    Device devs[2];
    devs[0].level = 7, devs[0].usage = 111;
    devs[1].level = 42, devs[1].usage = 222;
    std::unique_ptr<live_test::Live> live[2];
    for (int k = 0; k < 2; ++k) {
        live[k] = std::make_unique<live_test::Live>(text(k ? "second key" : "first-secret"),
                                                    live_test::Mode::Turns,
                                                    OHMARA_PROFILE_REFERENCE, ids[k]);
        ASSERT_NE(live[k]->s, nullptr);
        ASSERT_EQ(ohmara_svc_configRegistryWithContext(live[k]->s, &kRegistry, &devs[k]), 0);
    }
    ohmara_svc_ctx_registry incomplete = kRegistry;  // refused, the previous one kept
    incomplete.next_sequence = nullptr;
    EXPECT_EQ(ohmara_svc_configRegistryWithContext(live[0]->s, &incomplete, nullptr), -1);
    EXPECT_EQ(live[0]->s->ctx_registry, &kRegistry);
    for (auto &l : live) ASSERT_TRUE(l->start() && l->attached());

    // Both switches query at once; each endpoint answers with its device's values.
    int wrong[2] = {0, 0};
    std::vector<std::thread> askers;
    for (int k = 0; k < 2; ++k)
        askers.emplace_back([&, k] {
            omsdk_tools::Switch &sw = *live[k]->sw;
            for (int i = 0; i < 50; ++i) {
                omsdk_tools::QueryResult r = sw.get(ids[k], {kLevel, kUsage}, {});
                auto lv = r.values_of(kLevel), us = r.values_of(kUsage);
                wrong[k] += !r.replied || lv.size() != 1 || us.size() != 1 ||
                            lv[0].num != devs[k].level.load() || us[0].num != devs[k].usage;
            }
            omsdk_tools::SetItem item;
            std::string why;
            omsdk_tools::parse_set_item(k == 0 ? "level=3" : "level=9", &item, &why);
            wrong[k] += !sw.set(ids[k], {item}, {}).will();
        });
    for (std::thread &t : askers) t.join();
    EXPECT_EQ(wrong[0] + wrong[1], 0);
    EXPECT_EQ(devs[0].level.load(), 3);
    EXPECT_EQ(devs[1].level.load(), 9);
    EXPECT_EQ(devs[0].sets + devs[1].sets, 2);
}

}  // namespace
