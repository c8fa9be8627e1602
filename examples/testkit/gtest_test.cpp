// SPDX-License-Identifier: Apache-2.0
// The test kit from GoogleTest: a fixture gives each test a fresh session
// and switch; the device is a fan with three speeds.
#include <omsdk/testkit.h>

#include <gtest/gtest.h>

namespace {

struct Fan {
    uint8_t speed = 1;
    uint32_t sequence = 0;
    std::vector<int32_t> alarm_answers;
} fan;

svc_callback_registry callbacks = {
    [] { return uint8_t{0}; },
    [] { return static_cast<uint16_t>(15 * fan.speed); },
    [] { return 0u; },
    [] { return 1u; },
    [] { return fan.speed; },
    [](uint8_t to) { return to > 3 ? -1 : (fan.speed = to, 0); },
    [](uint16_t *v) {
        for (int i = 0; i < 11; ++i) v[i] = static_cast<uint16_t>(15 * (i > 3 ? 3 : i));
    },
    [](int32_t *v) {
        for (int i = 0; i < 11; ++i) v[i] = 15 * ((i > 3 ? 3 : i) - fan.speed);
    },
    [] { return ++fan.sequence; },
    nullptr,
    nullptr,
    nullptr,
    [](int32_t, uint32_t, int32_t ok) { fan.alarm_answers.push_back(ok); },
};

class FanTest : public ::testing::Test {
protected:
    void SetUp() override {
        fan = Fan();
        session = ohmara_svc_create("127.0.0.1", 47313, kId, kKey, sizeof kKey, 0);
        ASSERT_NE(session, nullptr);
        ohmara_svc_configIdentity(session, "lab", "fan", "cooling", "", "fan", 10);
        ohmara_svc_configRegistry(session, &callbacks);
        kit = ohmara_tk_create(session, kKey, sizeof kKey, kId);
        ASSERT_NE(kit, nullptr) << ohmara_tk_lastError(nullptr);
        ASSERT_EQ(ohmara_tk_handshake(kit), 0) << ohmara_tk_lastError(kit);
    }
    void TearDown() override { ohmara_tk_destroy(kit); }

    static constexpr char kId[] = "fa00000000000000000000000000000f";
    static constexpr uint8_t kKey[] = {'f', 'a', 'n', '-', 'k', 'e', 'y'};
    svc_session *session = nullptr;
    ohmara_tk *kit = nullptr;
};

TEST_F(FanTest, SpeedsBeyondThreeAreRefused) {
    EXPECT_EQ(ohmara_tk_set(kit, "level=3"), 1);
    EXPECT_EQ(ohmara_tk_set(kit, "level=4"), 0);
    int64_t watts = 0;
    ASSERT_EQ(ohmara_tk_getNumber(kit, "usage", &watts), 0) << ohmara_tk_lastError(kit);
    EXPECT_EQ(watts, 45);
}

TEST_F(FanTest, RefusedAlarmReachesTheDevice) {
    ASSERT_EQ(ohmara_tk_answerAlarms(kit, OHMARA_TK_ALARM_FAILED), 0);
    ASSERT_EQ(ohmara_svc_alarmAdd(session, 30, 2, 0), 0);
    ASSERT_EQ(ohmara_tk_run(kit), 0) << ohmara_tk_lastError(kit);
    ohmara_tk_alarm alarm;
    ASSERT_EQ(ohmara_tk_nextAlarm(kit, &alarm), 1);
    EXPECT_EQ(alarm.answered, 3);
    EXPECT_EQ(fan.alarm_answers, std::vector<int32_t>{0});
}

TEST_F(FanTest, DeleteSendsItBackToDiscovery) {
    ASSERT_EQ(ohmara_tk_sendDelete(kit), 0) << ohmara_tk_lastError(kit);
    EXPECT_EQ(ohmara_svc_getStatus(session), OHMARA_STATUS_UP);
    EXPECT_EQ(ohmara_tk_handshake(kit), 0) << ohmara_tk_lastError(kit);
}

}  // namespace
