// SPDX-License-Identifier: Apache-2.0
// Two sessions in one process, each with its own identity, key and device
// behind the callbacks with a context, queried by their switches at once,
// both run on one thread by turns. The thread-sanitizer build runs this too.
#include <gtest/gtest.h>
#include <poll.h>

#include <atomic>
#include <memory>
#include <thread>

#include "endpoint.h"
#include "switch.h"

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

struct Side {
    const char *id;
    Bytes key;
    Device device;
    std::unique_ptr<omsdk_tools::Switch> sw;
    svc_session *s = nullptr;
};

TEST(Contexts, TwoSessionsOnOneThreadEachAnswerWithTheirOwnValues) {
    QuietLog quiet;
    Side sides[2] = {{"0123456789abcdef0123456789abcdef", text("first-secret"), {}, {}, nullptr},
                     {"00112233445566778899aabbccddeeff", text("second key"), {}, {}, nullptr}};
    sides[0].device.level = 7, sides[0].device.usage = 111;
    sides[1].device.level = 42, sides[1].device.usage = 222;
    for (Side &d : sides) {
        omsdk_tools::SwitchConfig c;  // port 0: never the protocol's own
        c.port = 0, c.secret = d.key, c.source_addr = inet_addr("127.0.0.2");
        std::string why;
        d.sw = std::make_unique<omsdk_tools::Switch>(c);
        ASSERT_TRUE(d.sw->start(&why) && d.sw->udp_port() != kForbiddenPort) << why;
        d.s = ohmara_svc_create("127.0.0.1", d.sw->udp_port(), d.id, d.key.data(),
                                int32_t(d.key.size()), 0);
        ASSERT_NE(d.s, nullptr);
        ASSERT_NE(ntohs(d.s->self_addr.sin_port), kForbiddenPort);
        ASSERT_EQ(ohmara_svc_configIdentity(d.s, "dom", d.id + 26, "light", "", "bulb", 40), 0);
        ASSERT_EQ(ohmara_svc_configRegistryWithContext(d.s, &kRegistry, &d.device), 0);
    }
    ohmara_svc_ctx_registry incomplete = kRegistry;  // refused, the previous one kept
    incomplete.next_sequence = nullptr;
    EXPECT_EQ(ohmara_svc_configRegistryWithContext(sides[0].s, &incomplete, nullptr), -1);
    EXPECT_EQ(sides[0].s->ctx_registry, &kRegistry);
    std::atomic<int> ended{0};
    svc_session *run[2] = {sides[0].s, sides[1].s};  // the driver's own copies
    std::thread loop([run, &ended]() mutable {
        for (svc_session *s : run) ohmara_svc_open(s);
        for (int running = 2; running > 0;) {
            pollfd p[2 * OHMARA_WAIT_MAX_FDS];
            nfds_t n = 0;
            int timeout = 500;
            for (svc_session *s : run) {
                ohmara_wait w;
                if (s == nullptr || ohmara_svc_getWait(s, &w) != 0) continue;
                for (int32_t i = 0; i < w.count; ++i) p[n++] = {w.fds[i], w.events[i], 0};
                timeout = std::min(timeout, int(w.timeout_ms));
            }
            poll(p, n, timeout);
            for (svc_session *&s : run)
                if (s != nullptr && ohmara_svc_turn(s) == 0)
                    ohmara_svc_close(s), s = nullptr, --running, ++ended;
        }
    });
    for (Side &d : sides)
        ASSERT_TRUE(d.sw->wait_for(
            [&] { return d.sw->count_in(omsdk_tools::EndpointState::Active) == 1; }, 3000));

    // Both switches query at once; each endpoint answers with its device's values.
    int wrong[2] = {0, 0};
    std::vector<std::thread> askers;
    for (int k = 0; k < 2; ++k)
        askers.emplace_back([&, k] {
            Side &d = sides[k];
            for (int i = 0; i < 50; ++i) {
                omsdk_tools::QueryResult r = d.sw->get(d.id, {kLevel, kUsage}, {});
                auto lv = r.values_of(kLevel), us = r.values_of(kUsage);
                wrong[k] += !r.replied || lv.size() != 1 || us.size() != 1 ||
                            lv[0].num != d.device.level.load() || us[0].num != d.device.usage;
            }
            omsdk_tools::SetItem item;
            std::string why;
            omsdk_tools::parse_set_item(k == 0 ? "level=3" : "level=9", &item, &why);
            wrong[k] += !d.sw->set(d.id, {item}, {}).will();
        });
    for (std::thread &t : askers) t.join();
    EXPECT_EQ(wrong[0] + wrong[1], 0);
    EXPECT_EQ(sides[0].device.level.load(), 3);
    EXPECT_EQ(sides[1].device.level.load(), 9);
    EXPECT_EQ(sides[0].device.sets + sides[1].device.sets, 2);

    for (Side &d : sides) ohmara_svc_shutdown(d.s);
    if (!wait_until([&] { return ended == 2; }, 5000)) std::abort();  // never hang
    loop.join();
}

}  // namespace
