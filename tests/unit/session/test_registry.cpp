// The callback registry: every value callback is required, the
// notifications are optional.
#include <gtest/gtest.h>

#include "endpoint.h"

namespace {

using R = svc_callback_registry;

TEST(ConfigRegistry, RefusesAMissingRequiredCallbackAndAcceptsMissingNotifications) {
    svc_session *s = new_svc_session();
    ASSERT_NE(s, nullptr);
    R accepted = ep_test::registry();
    ASSERT_EQ(ohmara_svc_configRegistry(s, &accepted), 0);
    void (*const required[])(R &) = {
        [](R &r) { r.get_units = nullptr; },         [](R &r) { r.get_usage = nullptr; },
        [](R &r) { r.get_usage_caliber = nullptr; }, [](R &r) { r.get_usage_category = nullptr; },
        [](R &r) { r.get_level = nullptr; },         [](R &r) { r.set_level = nullptr; },
        [](R &r) { r.get_usage_vector = nullptr; },  [](R &r) { r.get_delta_vector = nullptr; },
        [](R &r) { r.next_sequence = nullptr; },
    };
    omsdk_test::QuietLog quiet;
    for (auto clear : required) {
        R r = accepted;
        clear(r);
        EXPECT_EQ(ohmara_svc_configRegistry(s, &r), -1) << &clear - required;
        EXPECT_EQ(s->registry, &accepted);
    }
    EXPECT_EQ(ohmara_svc_configRegistry(s, nullptr), -1);
    EXPECT_EQ(s->registry, &accepted);
    R partial = accepted;
    partial.attribute_modified = nullptr;
    partial.listen_port_notify = nullptr;
    partial.status_changed = nullptr;
    partial.alarm_reply = nullptr;
    EXPECT_EQ(ohmara_svc_configRegistry(s, &partial), 0);
    EXPECT_EQ(s->registry, &partial);
    omr_svc_cleanup(s);
}

}  // namespace
