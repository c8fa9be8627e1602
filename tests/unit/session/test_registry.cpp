// SPDX-License-Identifier: Apache-2.0
// The callback registry: a value callback is required, the notifications are
// optional.
#include <gtest/gtest.h>

#include "endpoint.h"

namespace {

TEST(ConfigRegistry, RefusesAMissingRequiredCallbackAndAcceptsMissingNotifications) {
    svc_session *s = new_svc_session();
    ASSERT_NE(s, nullptr);
    svc_callback_registry accepted = ep_test::registry(), r = accepted;
    ASSERT_EQ(ohmara_svc_configRegistry(s, &accepted), 0);
    omsdk_test::QuietLog quiet;
    r.next_sequence = nullptr;
    EXPECT_EQ(ohmara_svc_configRegistry(s, &r), -1);
    EXPECT_EQ(ohmara_svc_configRegistry(s, nullptr), -1);
    EXPECT_EQ(s->registry, &accepted);
    r = accepted;
    r.attribute_modified = nullptr, r.listen_port_notify = nullptr;
    r.status_changed = nullptr, r.alarm_reply = nullptr;
    EXPECT_EQ(ohmara_svc_configRegistry(s, &r), 0);
    EXPECT_EQ(s->registry, &r);
    omr_svc_cleanup(s);
}

}  // namespace
