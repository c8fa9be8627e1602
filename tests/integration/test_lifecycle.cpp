// The whole life of an endpoint against the test switch: start-up, the
// broadcasts while UP, the handshake, GET and SET, a delete from the switch
// and a second handshake, and shutdown from another thread.
#include <gtest/gtest.h>

#include "log_capture.h"
#include "world.h"

namespace {

using it::World;
using omsdk_test::LogCapture;

const omsdk_tools::DecodedTlv *tlv(const omsdk_tools::DecodedPdu &p, uint32_t type) {
    return p.find(type);
}

int64_t num(const std::vector<omsdk_tools::Value> &v) { return v.empty() ? -1 : v[0].num; }
std::string text(const std::vector<omsdk_tools::Value> &v) { return v.empty() ? "?" : v[0].text; }

TEST(Lifecycle, StartupHandshakeQueriesDeleteAndShutdown) {
    LogCapture cap(OHMARA_LOG_DEBUG);
    World w;
    ASSERT_TRUE(w.ok());
    const std::string port = std::to_string(w.sw().udp_port());

    ASSERT_TRUE(w.start());
    EXPECT_EQ(w.s()->start_marker, 0xAAAAAAAAu);
    EXPECT_EQ(it::app().listen_port.load(), w.listen_port());
    EXPECT_TRUE(cap.has(OHMARA_LOG_DEBUG, "ohmara_svc_startup",
                        "local socket address 127.0.0.1:" + std::to_string(w.listen_port()) +
                            " id: " + it::kId));

    // UP: the first discovery is a broadcast without a nonce.
    ASSERT_TRUE(w.hear(1));
    const omsdk_tools::DecodedPdu first = w.heard()[0];
    EXPECT_EQ(first.hdr.action, CV_ACTION_KVQR_CORVANE_DISCOVERY_DISCOVERY_UPDATE);
    EXPECT_EQ(tlv(first, CV_CORVANE_TLV_TYPE_NONCE), nullptr);
    EXPECT_TRUE(it::wait_until([&] {
        return cap.contains("sendDiscoveryEvent: broadcast ") &&
               cap.contains(" bytes to 255.255.255.255:" + port);
    })) << cap.dump();

    // The switch acknowledges; the endpoint goes ACTIVE and tells the
    // switch its nonce by unicast.
    ASSERT_TRUE(w.attach());
    bool nonce_seen = false;
    for (const omsdk_tools::DecodedPdu &p : w.heard())
        if (const omsdk_tools::DecodedTlv *n = tlv(p, CV_CORVANE_TLV_TYPE_NONCE))
            nonce_seen = static_cast<uint32_t>(n->value.num) == w.s()->local_nonce;
    EXPECT_TRUE(nonce_seen);
    // (the log line follows the datagram, so the switch may be first)
    EXPECT_TRUE(it::wait_until([&] {
        return cap.contains("sendDiscoveryEvent: unicast ") &&
               cap.contains(" bytes to 127.0.0.2:" + port);
    })) << cap.dump();

    // GET: acknowledged WILL, then a reply with one entry per attribute.
    omsdk_tools::Selectors by_name;
    by_name.names = {"lamp-*"};
    omsdk_tools::QueryResult g = w.sw().get(
        it::kId,
        {CV_CORVANE_TLV_TYPE_LEVEL_CURRENT, CV_CORVANE_TLV_TYPE_USAGE, CV_CORVANE_TLV_TYPE_NAME,
         CV_CORVANE_TLV_TYPE_ROLE, CV_CORVANE_TLV_TYPE_IMPORTANCE},
        by_name);
    ASSERT_TRUE(g.will()) << g.error;
    ASSERT_TRUE(g.replied) << g.error;
    EXPECT_TRUE(g.error.empty()) << g.error;
    EXPECT_EQ(g.reply.hdr.shipment, CV_SHIPMENT_REPLY_NO_ERROR);
    EXPECT_EQ(g.reply.hdr.seq, g.ack.hdr.seq);
    EXPECT_EQ(num(g.values_of(CV_CORVANE_TLV_TYPE_LEVEL_CURRENT)), 7);
    EXPECT_EQ(num(g.values_of(CV_CORVANE_TLV_TYPE_USAGE)), 1234);
    EXPECT_EQ(text(g.values_of(CV_CORVANE_TLV_TYPE_NAME)), "lamp-1");
    EXPECT_EQ(text(g.values_of(CV_CORVANE_TLV_TYPE_ROLE)), "lamp");
    EXPECT_EQ(num(g.values_of(CV_CORVANE_TLV_TYPE_IMPORTANCE_I)), 10);

    // A query for somebody else is not answered at all.
    omsdk_tools::Selectors other;
    other.names = {"fan-*"};
    omsdk_tools::QueryResult skip = w.sw().get(it::kId, {CV_CORVANE_TLV_TYPE_LEVEL_CURRENT}, other);
    EXPECT_TRUE(skip.silent) << skip.error;

    // SET: WILL, the application is told, and an update shows the level.
    const size_t before_set = w.heard_count();
    omsdk_tools::SetItem level;
    std::string why;
    ASSERT_TRUE(omsdk_tools::parse_set_item("level=3", &level, &why)) << why;
    omsdk_tools::QueryResult st = w.sw().set(it::kId, {level}, {});
    EXPECT_TRUE(st.will()) << st.error;
    EXPECT_FALSE(st.replied);
    EXPECT_EQ(it::app().copy(it::app().levels_set), std::vector<uint8_t>({3}));
    ASSERT_TRUE(w.hear(before_set + 1));
    const omsdk_tools::DecodedPdu update = w.heard().back();
    const omsdk_tools::DecodedTlv *lv = tlv(update, CV_CORVANE_TLV_TYPE_LEVEL_CURRENT);
    ASSERT_NE(lv, nullptr);
    EXPECT_EQ(lv->value.num, 3);

    // A delete from the switch: back to UP, broadcasting when the retry
    // interval has passed.
    ASSERT_TRUE(w.sw().send_delete(it::kId, &why)) << why;
    ASSERT_TRUE(it::wait_until([&] { return w.status() == OHMARA_STATUS_UP; }));
    const size_t before_retry = w.heard_count();
    ASSERT_TRUE(w.tick(30));
    ASSERT_TRUE(w.hear(before_retry + 1));
    EXPECT_EQ(tlv(w.heard()[before_retry], CV_CORVANE_TLV_TYPE_NONCE), nullptr);
    ASSERT_TRUE(it::wait_until([&] { return w.status() == OHMARA_STATUS_ACTIVE; }));
    // The nonces did not change, so the endpoint keeps its key and sends its
    // nonce with the next periodic update only.
    ASSERT_TRUE(w.tick(180));
    ASSERT_TRUE(w.attach());
    omsdk_tools::QueryResult again = w.sw().get(it::kId, {CV_CORVANE_TLV_TYPE_LEVEL_CURRENT}, {});
    ASSERT_TRUE(again.replied) << again.error;
    EXPECT_EQ(num(again.values_of(CV_CORVANE_TLV_TYPE_LEVEL_CURRENT)), 3);

    // Shutdown from this thread: one update, then the shutdown event.
    ASSERT_TRUE(w.idle(cap));
    const size_t before_stop = w.heard_count();
    EXPECT_EQ(w.stop(), 0);
    EXPECT_EQ(w.startup_result(), 0);
    ASSERT_TRUE(w.hear(before_stop + 2));
    std::vector<omsdk_tools::DecodedPdu> all = w.heard();
    EXPECT_EQ(all[before_stop].hdr.action, CV_ACTION_KVQR_CORVANE_DISCOVERY_DISCOVERY_UPDATE);
    EXPECT_EQ(all[before_stop + 1].hdr.action, CV_ACTION_KVQR_CORVANE_DISCOVERY_DELETE);
    EXPECT_EQ(w.endpoint()->state, omsdk_tools::EndpointState::Left);
    EXPECT_EQ(it::app().copy(it::app().statuses),
              std::vector<int32_t>({OHMARA_STATUS_INITIALIZING, OHMARA_STATUS_UP,
                                    OHMARA_STATUS_ACTIVE, OHMARA_STATUS_UP, OHMARA_STATUS_ACTIVE,
                                    OHMARA_STATUS_SHUTDOWN, OHMARA_STATUS_DOWN}));
    EXPECT_TRUE(cap.has(OHMARA_LOG_DEBUG, "ohmara_svc_startup", "Everything is down.. returning"));
}

TEST(Lifecycle, ShutdownWhileUpEndsTheLoop) {
    LogCapture cap(OHMARA_LOG_DEBUG);
    World w;
    ASSERT_TRUE(w.ok());
    ASSERT_TRUE(w.start());
    // The switch is not listened to, so nothing acknowledges the broadcast.
    ASSERT_TRUE(w.idle(cap));
    EXPECT_EQ(w.stop(), 0);
    EXPECT_EQ(w.startup_result(), 0);
    EXPECT_EQ(it::app().copy(it::app().statuses),
              std::vector<int32_t>({OHMARA_STATUS_INITIALIZING, OHMARA_STATUS_UP,
                                    OHMARA_STATUS_SHUTDOWN, OHMARA_STATUS_DOWN}));
}

}  // namespace
