// Client requests from the application's thread, carried to the switch by
// the discovery update that the wake-up triggers, and their answers.
#include <gtest/gtest.h>

#include "log_capture.h"
#include "world.h"

namespace {

using it::World;
using omsdk_test::LogCapture;

// The alarm carried by a discovery update, as the switch decoded it.
struct Alarm {
    bool present = false;
    int64_t seconds = -1, param1 = -1, param2 = -1, id = -99, operation = -1;
};

Alarm alarm_in(const omsdk_tools::DecodedPdu &p) {
    Alarm a;
    const omsdk_tools::DecodedTlv *t = p.find(CV_CORVANE_TLV_TYPE_ALARM);
    if (t == nullptr) return a;
    a.present = true;
    for (const omsdk_tools::Field &f : t->value.fields) {
        if (f.name == "seconds") a.seconds = f.num;
        if (f.name == "param1") a.param1 = f.num;
        if (f.name == "param2") a.param2 = f.num;
        if (f.name == "id") a.id = f.num;
        if (f.name == "operation") a.operation = f.num;
    }
    return a;
}

std::vector<it::Reply> replies() { return it::app().copy(it::app().replies); }

TEST(RequestsThroughSwitch, CarriedAnsweredAndGivenUp) {
    LogCapture cap(OHMARA_LOG_DEBUG);
    World w;
    ASSERT_TRUE(w.ok());
    ASSERT_TRUE(w.start());

    // Not attached yet.
    EXPECT_EQ(ohmara_svc_alarmAdd(w.s(), 60, 0x11, 0x22), -1);
    EXPECT_TRUE(cap.has(OHMARA_LOG_INFO, "ohmara_svc_alarmAdd", "status is not connected"));
    ASSERT_TRUE(w.attach());

    // Answered Ok. The clock does not move: the wake-up alone sends it.
    size_t n = w.heard_count();
    ASSERT_EQ(ohmara_svc_alarmAdd(w.s(), 60, 0x11, 0x22), 0);
    // One at a time until the switch has answered.
    EXPECT_EQ(ohmara_svc_discoveryRefresh(w.s()), -1);
    EXPECT_TRUE(cap.has(OHMARA_LOG_INFO, "ohmara_svc_discoveryRefresh", "request already pending"));
    ASSERT_TRUE(w.hear(n + 1));
    Alarm a = alarm_in(w.heard()[n]);
    ASSERT_TRUE(a.present);
    EXPECT_EQ(a.seconds, 60);
    EXPECT_EQ(a.param1, 0x11);
    EXPECT_EQ(a.param2, 0x22);
    EXPECT_EQ(a.id, 1);
    EXPECT_EQ(a.operation, 1);
    ASSERT_TRUE(it::wait_until([] { return replies().size() == 1; }));
    EXPECT_EQ(replies()[0], (it::Reply{1, 0, 1}));

    // Answered Failed: a clear-all, id -1.
    w.sw().set_alarm_mode(omsdk_tools::AlarmMode::Failed);
    n = w.heard_count();
    ASSERT_EQ(ohmara_svc_alarmClearAll(w.s()), 0);
    ASSERT_TRUE(w.hear(n + 1));
    a = alarm_in(w.heard()[n]);
    EXPECT_EQ(a.id, -1);
    EXPECT_EQ(a.operation, 4);
    ASSERT_TRUE(it::wait_until([] { return replies().size() == 2; }));
    EXPECT_EQ(replies()[1], (it::Reply{-1, 1, 0}));

    // Not answered: the request rides once, the two following updates do
    // not carry it, and the second of them gives it up as failed.
    w.sw().set_alarm_mode(omsdk_tools::AlarmMode::Ignore);
    n = w.heard_count();
    ASSERT_EQ(ohmara_svc_alarmAdd(w.s(), 5, 3, 4), 0);
    ASSERT_TRUE(w.hear(n + 1));
    a = alarm_in(w.heard()[n]);
    EXPECT_EQ(a.id, 2);  // the clear-all did not advance the counter
    for (int further = 1; further <= 2; ++further) {
        SCOPED_TRACE(further);
        ASSERT_TRUE(w.tick(30));  // the retry interval, while a request is outstanding
        ASSERT_TRUE(w.hear(n + 1 + static_cast<size_t>(further)));
        EXPECT_FALSE(alarm_in(w.heard().back()).present);
    }
    ASSERT_TRUE(it::wait_until([] { return replies().size() == 3; }));
    EXPECT_EQ(replies()[2], (it::Reply{2, 0, 0}));
    EXPECT_TRUE(cap.has(OHMARA_LOG_WARN, "sendDiscoveryEvent",
                        "no response to Wake Up request.  Dropping request"));

    // The slot is free again.
    w.sw().set_alarm_mode(omsdk_tools::AlarmMode::Ok);
    EXPECT_EQ(ohmara_svc_discoveryRefresh(w.s()), 0);
}

}  // namespace
