// SET queries: each attribute with its limits, notifications and log lines,
// then the whole path through query handling with the follow-up discovery
// update observed on a loopback UDP socket.
#include "query_fixture.h"

#include <optional>

namespace query_test {
namespace {

using omsdk_test::LogCapture;

constexpr uint16_t kSet = CV_ACTION_KVQR_CORVANE_QUERY_SET;

struct SetRow {
    const char *what;
    std::vector<QTlv> tlvs;
    int32_t result;
    // Expected state afterwards (the fixture starts from role "sensor",
    // name "lab-7", keywords "a,b", importance 50, level 42).
    const char *role, *name, *keywords;
    uint32_t importance;
    std::vector<uint8_t> levels_set;
    std::vector<int32_t> modified;
    uint32_t log_level;
    const char *logged;
    int32_t set_level_result = 0;
};

Bytes raw_text(const char *t) { return Bytes(t, t + strlen(t)); }

const char kDefaultName[] = "Endpoint@127.0.0.1";

std::vector<SetRow> set_rows() {
    return {
        {"role with a blank", {text(7, "pump room")}, 0, "pump room", "lab-7", "a,b", 50, {}, {2},
         2, "changed role to pump room"},
        {"role request logged", {text(7, "valve")}, 0, "valve", "lab-7", "a,b", 50, {}, {2}, 1,
         "set role valve request"},
        {"role refused", {text(7, "bad*")}, -1, "sensor", "lab-7", "a,b", 50, {}, {}, 3,
         "failed to set role"},
        {"role default", {none(7)}, 0, "Endpoint", "lab-7", "a,b", 50, {}, {2}, 2,
         "changed role to Endpoint"},
        {"name", {text(9, "lab-9")}, 0, "sensor", "lab-9", "a,b", 50, {}, {4}, 2,
         "changed name to lab-9"},
        {"name with a blank refused", {text(9, "a b")}, -1, "sensor", "lab-7", "a,b", 50, {}, {}, 3,
         "failed to set name"},
        {"name default", {none(9)}, 0, "sensor", kDefaultName, "a,b", 50, {}, {4}, 2,
         "changed name to Endpoint@127.0.0.1"},
        {"keywords without terminator", {bytes(10, raw_text("x,y"))}, 0, "sensor", "lab-7", "x,y", 50,
         {}, {5}, 1, "set keywords x,y request"},
        {"keywords refused", {bytes(10, raw_text("x y"))}, -1, "sensor", "lab-7", "a,b", 50, {}, {}, 3,
         "Failed to set KEYWORDS attribute to x y -- invalid or no characters defined."},
        {"keywords cleared", {none(10)}, 0, "sensor", "lab-7", "", 50, {}, {5}, 2,
         "Clearing keywords by request."},
        {"level", {u8(14, 77)}, 0, "sensor", "lab-7", "a,b", 50, {77}, {9}, 2,
         "changed level from 42 to 77"},
        {"level default", {none(14)}, 0, "sensor", "lab-7", "a,b", 50, {10}, {9}, 1,
         "set level 10 request"},
        {"level refused by the application", {u8(14, 77)}, -1, "sensor", "lab-7", "a,b", 50, {77},
         {}, 3, "failed to set level", -1},
        {"importance 100", {u8(16, 100)}, 0, "sensor", "lab-7", "a,b", 100, {}, {10}, 2,
         "changed importance to 100"},
        {"importance 0", {u8(16, 0)}, -1, "sensor", "lab-7", "a,b", 50, {}, {}, 3,
         "failed to set importance to 0"},
        {"importance 101", {u8(17, 101)}, -1, "sensor", "lab-7", "a,b", 50, {}, {}, 3,
         "failed to set importance to 101"},
        {"importance default", {none(16)}, 0, "sensor", "lab-7", "a,b", 1, {}, {10}, 1,
         "set importance 1 request"},
        {"importance_i", {u8(17, 9)}, 0, "sensor", "lab-7", "a,b", 9, {}, {10}, 2,
         "changed importance to 9"},
        {"domain ignored", {text(8, "other")}, 0, "sensor", "lab-7", "a,b", 50, {}, {}, 1,
         "count 0, type 8, len 6, tag 0"},
        {"tagged TLV skipped", {text(7, "zzz", 1)}, 0, "sensor", "lab-7", "a,b", 50, {}, {}, 1,
         "count 0, type 7, len 4, tag 1"},
        {"first change stays when the second fails", {u8(16, 20), text(7, "bad*")}, -1, "sensor",
         "lab-7", "a,b", 20, {}, {10}, 3, "failed to set role"},
    };
}

TEST_F(QueryTest, SetAppliesEachAttributeWithinItsLimits) {
    for (const SetRow &row : set_rows()) {
        // A fresh identity and application state for every row.
        ASSERT_EQ(0, ohmara_svc_configIdentity(s, "dom", "lab-7", "sensor", "a,b", "meter", 50));
        g_app = App();
        g_app.set_level_result = row.set_level_result;
        EventPtr q = query(CV_CLASS_QUERY, kSet, 30, row.tlvs);
        LogCapture cap(0);
        EXPECT_EQ(omr_doSetQuery(s, q.get()), row.result) << row.what;
        EXPECT_STREQ(s->role, row.role) << row.what;
        EXPECT_STREQ(s->name, row.name) << row.what;
        EXPECT_STREQ(s->keywords, row.keywords) << row.what;
        EXPECT_EQ(s->importance, row.importance) << row.what;
        EXPECT_EQ(g_app.levels_set, row.levels_set) << row.what;
        EXPECT_EQ(g_app.modified, row.modified) << row.what;
        EXPECT_TRUE(cap.has(row.log_level, "omr_doSetQuery", row.logged)) << row.what << "\n"
                                                                          << cap.dump();
    }
}

TEST_F(QueryTest, ClearingUnsetKeywordsLeavesThemUnset) {
    free(s->keywords);
    s->keywords = nullptr;
    EventPtr q = query(CV_CLASS_QUERY, kSet, 31, {none(10)});
    EXPECT_EQ(omr_doSetQuery(s, q.get()), 0);
    EXPECT_EQ(s->keywords, nullptr);
    EXPECT_EQ(g_app.modified, std::vector<int32_t>{5});
}

// A UDP socket on loopback standing in for the switch's discovery port.
struct SwitchPort {
    int fd = socket(AF_INET, SOCK_DGRAM, 0);
    struct sockaddr_in addr = {};
    SwitchPort() {
        addr.sin_family = AF_INET;
        addr.sin_addr.s_addr = inet_addr("127.0.0.1");
        socklen_t len = sizeof addr;
        EXPECT_EQ(0, bind(fd, reinterpret_cast<sockaddr *>(&addr), sizeof addr));
        EXPECT_EQ(0, getsockname(fd, reinterpret_cast<sockaddr *>(&addr), &len));
    }
    ~SwitchPort() { close(fd); }
    std::optional<Bytes> take() {
        Bytes b(1500);
        ssize_t n = recv(fd, b.data(), b.size(), MSG_DONTWAIT);
        if (n < 0) return std::nullopt;
        b.resize(static_cast<size_t>(n));
        return b;
    }
};

// Attached to a switch, discovery updates go unicast to its port.
void attach(svc_session *s, const SwitchPort &sw) {
    ASSERT_EQ(0, om_setStatusInitializing(s));
    ASSERT_EQ(0, om_setStatusUp(s));
    ASSERT_EQ(0, om_setStatusActive(s));
    s->parent_addr = sw.addr;
}

TEST_F(QueryTest, AcceptedSetIsAcknowledgedThenAnnounced) {
    SwitchPort sw;
    attach(s, sw);

    EventPtr q = query(CV_CLASS_QUERY, kSet, 0x0a0b0c0d,
                       {switch_reply_to(), own_identity(), text(7, "valve")});
    LogCapture cap(0);
    omr_processQueryMsg(s, q.get());
    EXPECT_TRUE(cap.has(1, "omr_processQueryMsg", "ack WILL (set)"));

    Bytes ack = read_message();
    ASSERT_GE(ack.size(), 80u);
    EXPECT_EQ(static_cast<int8_t>(ack[69]), -1);
    EXPECT_EQ(Bytes(ack.begin() + 32, ack.begin() + 36), hex("0a 0b 0c 0d"));
    EXPECT_EQ(ack[73], CV_CLASS_QUERY);
    EXPECT_EQ(be16(ack.data() + 74), kSet);
    EXPECT_EQ(Bytes(ack.begin() + 12, ack.begin() + 32),
              openssl_hmac(kNonceKey, ack.data() + 32, ack.size() - 32));
    EXPECT_TRUE(nothing_sent()) << "a SET gets no reply message";

    // The discovery update, signed with the domain key, carries the new role.
    std::optional<Bytes> update = sw.take();
    ASSERT_TRUE(update.has_value());
    EXPECT_EQ(Bytes(update->begin() + 12, update->begin() + 32),
              openssl_hmac(kKey, update->data() + 32, update->size() - 32));
    EXPECT_EQ((*update)[73], CV_CLASS_DISCOVERY);
    EXPECT_EQ(be16(update->data() + 74), CV_ACTION_KVQR_CORVANE_DISCOVERY_DISCOVERY_UPDATE);
    KeyCtx key(kKey);
    int32_t rc = -1;
    EventPtr ev = receive(*update, &key.ctx, &rc);
    ASSERT_EQ(rc, 0);
    int32_t index = 0;
    const char *role = static_cast<const char *>(
        cv_get_tlv_value(ev.get(), &index, CV_CORVANE_TLV_TYPE_ROLE, nullptr));
    ASSERT_NE(role, nullptr);
    EXPECT_STREQ(role, "valve");
}

TEST_F(QueryTest, RefusedSetIsAcknowledgedWontAndNotAnnounced) {
    SwitchPort sw;
    attach(s, sw);

    EventPtr q = query(CV_CLASS_QUERY, kSet, 77, {switch_reply_to(), own_identity(), u8(16, 0)});
    LogCapture cap(0);
    omr_processQueryMsg(s, q.get());
    EXPECT_TRUE(cap.has(1, "omr_processQueryMsg", "nak WON'T (set)"));
    Bytes ack = read_message();
    ASSERT_GE(ack.size(), 80u);
    EXPECT_EQ(static_cast<int8_t>(ack[69]), -2);
    EXPECT_EQ(Bytes(ack.begin() + 32, ack.begin() + 36), hex("00 00 00 4d"));
    EXPECT_TRUE(nothing_sent());
    EXPECT_FALSE(sw.take().has_value());
}

}  // namespace
}  // namespace query_test
