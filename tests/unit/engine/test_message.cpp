// The outgoing message builder: a failed step is latched, so that nothing
// half-built is ever signed or sent.
#include "engine/message.h"
#include "fixture.h"

namespace {

using namespace engine_test;

TEST(Message, FirstFailureIsLatchedAndNothingIsSent) {
    World w;
    omsdk::message m(w.s);
    ASSERT_TRUE(m.created());
    EXPECT_EQ(m.send_reply(), -1);  // not signed yet
    m.add_domain(true).add_value(CV_CORVANE_TLV_TYPE_NAME, nullptr, 4).add_sender_id();
    EXPECT_FALSE(m.ok());
    EXPECT_EQ(m.event()->pak->tlv_count, 1);  // nothing added after the failure
    EXPECT_FALSE(m.sign(100, 0, CV_CLASS_DISCOVERY, 10, 1, &w.s->key_ctx));
    EXPECT_EQ(m.send_reply(), -1);
    EXPECT_EQ(m.send_datagram(&w.s->bcast_addr), -1);
    EXPECT_TRUE(w.take().empty());
}

}  // namespace
