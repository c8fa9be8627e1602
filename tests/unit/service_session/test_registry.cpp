#include <gtest/gtest.h>

#include "log_capture.h"
#include "service/session.h"
#include "session_fixture.h"

namespace {

using session_test::full_registry;

TEST(ConfigRegistry, RefusesEachMissingRequiredSlot) {
    svc_session *s = new_svc_session();
    ASSERT_NE(s, nullptr);
    svc_callback_registry accepted = full_registry();
    ASSERT_EQ(ohmara_svc_configRegistry(s, &accepted), 0);

    const struct {
        void (*clear)(svc_callback_registry &);
        const char *message;
    } cases[] = {
        {[](svc_callback_registry &r) { r.get_units = nullptr; },
         "GET units callback handler not initialized properly"},
        {[](svc_callback_registry &r) { r.get_usage = nullptr; },
         "GET usage callback handler not initialized properly"},
        {[](svc_callback_registry &r) { r.get_usage_caliber = nullptr; },
         "GET usage caliber callback handler not initialized properly"},
        {[](svc_callback_registry &r) { r.get_usage_category = nullptr; },
         "GET usage category callback handler not initialized properly"},
        {[](svc_callback_registry &r) { r.get_level = nullptr; },
         "GET level handler not initialized properly"},
        {[](svc_callback_registry &r) { r.set_level = nullptr; },
         "SET level callback handler not initialized properly"},
        {[](svc_callback_registry &r) { r.get_usage_vector = nullptr; },
         "GET usage vector callback handler not initialized properly"},
        {[](svc_callback_registry &r) { r.get_delta_vector = nullptr; },
         "GET delta vector callback handler not initialized properly"},
        {[](svc_callback_registry &r) { r.next_sequence = nullptr; },
         "Next sequence number callback handler not initialized properly"},
    };
    for (const auto &c : cases) {
        svc_callback_registry r = full_registry();
        c.clear(r);
        omsdk_test::LogCapture cap(0);
        EXPECT_EQ(ohmara_svc_configRegistry(s, &r), -1) << c.message;
        EXPECT_TRUE(cap.has(4, "ohmara_svc_configRegistry", c.message)) << cap.dump();
        EXPECT_EQ(cap.lines().size(), 1u) << cap.dump();
        EXPECT_EQ(s->registry, &accepted);
    }

    // With several null slots only the first is reported.
    svc_callback_registry many = {};
    omsdk_test::LogCapture cap(0);
    EXPECT_EQ(ohmara_svc_configRegistry(s, &many), -1);
    EXPECT_TRUE(cap.has(4, "ohmara_svc_configRegistry",
                        "GET units callback handler not initialized properly"));
    EXPECT_EQ(cap.lines().size(), 1u) << cap.dump();

    cap.clear();
    EXPECT_EQ(ohmara_svc_configRegistry(s, nullptr), -1);
    EXPECT_TRUE(cap.has(4, "ohmara_svc_configRegistry", "No callback registry provided"));
    EXPECT_EQ(s->registry, &accepted);
    omr_svc_cleanup(s);
}

TEST(ConfigRegistry, OptionalSlotsOnlyWarn) {
    svc_session *s = new_svc_session();
    ASSERT_NE(s, nullptr);
    svc_callback_registry r = full_registry();
    {
        omsdk_test::LogCapture cap(0);
        EXPECT_EQ(ohmara_svc_configRegistry(s, &r), 0);
        EXPECT_TRUE(cap.lines().empty()) << cap.dump();
    }
    svc_callback_registry partial = full_registry();
    partial.attribute_modified = nullptr;
    partial.listen_port_notify = nullptr;
    omsdk_test::LogCapture cap(0);
    EXPECT_EQ(ohmara_svc_configRegistry(s, &partial), 0);
    EXPECT_EQ(s->registry, &partial);
    EXPECT_TRUE(cap.has(3, "ohmara_svc_configRegistry",
                        "Modified attribute notification callback handler not initialized properly"));
    EXPECT_TRUE(cap.has(3, "ohmara_svc_configRegistry",
                        "TCP listen port notification callback handler not initialized properly"));
    EXPECT_EQ(cap.lines().size(), 2u) << cap.dump();
    omr_svc_cleanup(s);
}

}  // namespace
