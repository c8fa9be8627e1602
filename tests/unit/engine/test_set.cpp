// SET queries: each attribute within its limits, the callbacks told, and
// the answer on the wire.
#include "fixture.h"

namespace {

using namespace engine_test;

constexpr uint16_t kSet = 10;

Tlv text(uint32_t type, const char *t, uint32_t qualifier = 0) { return {type, txt(t), qualifier}; }
Tlv u8(uint32_t type, uint8_t v) { return {type, {v}}; }

TEST(Set, EachAttributeWithinItsLimits) {
    const char kStart[] = "sensor|lab-7|a,b|50";  // role|name|keywords|importance; level 42
    const struct {
        const char *what;
        std::vector<Tlv> list;
        int32_t result;
        const char *state;  // afterwards, as kStart
        std::vector<uint8_t> levels_set;
        std::vector<int32_t> modified;
        uint32_t log_level;
        const char *logged;
        int32_t set_level_result = 0;
    } rows[] = {
        {"role with a blank",
         {text(7, "pump room")},
         0,
         "pump room|lab-7|a,b|50",
         {},
         {2},
         2,
         "changed role to pump room"},
        {"role request logged",
         {text(7, "valve")},
         0,
         "valve|lab-7|a,b|50",
         {},
         {2},
         1,
         "set role valve request"},
        {"role refused", {text(7, "bad*")}, -1, kStart, {}, {}, 3, "failed to set role"},
        {"role default",
         {ask(7)},
         0,
         "Endpoint|lab-7|a,b|50",
         {},
         {2},
         2,
         "changed role to Endpoint"},
        {"name", {text(9, "lab-9")}, 0, "sensor|lab-9|a,b|50", {}, {4}, 2, "changed name to lab-9"},
        {"name with a blank refused",
         {text(9, "a b")},
         -1,
         kStart,
         {},
         {},
         3,
         "failed to set name"},
        {"name default",
         {ask(9)},
         0,
         "sensor|Endpoint@127.0.0.1|a,b|50",
         {},
         {4},
         2,
         "changed name to Endpoint@127.0.0.1"},
        {"keywords",
         {text(10, "x,y")},
         0,
         "sensor|lab-7|x,y|50",
         {},
         {5},
         1,
         "set keywords x,y request"},
        {"keywords refused",
         {text(10, "x y")},
         -1,
         kStart,
         {},
         {},
         3,
         "Failed to set KEYWORDS attribute to x y -- invalid or no characters defined."},
        {"keywords cleared",
         {ask(10)},
         0,
         "sensor|lab-7||50",
         {},
         {5},
         2,
         "Clearing keywords by request."},
        {"level", {u8(14, 77)}, 0, kStart, {77}, {9}, 2, "changed level from 42 to 77"},
        {"level default", {ask(14)}, 0, kStart, {10}, {9}, 1, "set level 10 request"},
        {"level refused by the application",
         {u8(14, 200)},
         -1,
         kStart,
         {200},
         {},
         3,
         "failed to set level",
         -1},
        {"importance 100",
         {u8(16, 100)},
         0,
         "sensor|lab-7|a,b|100",
         {},
         {10},
         2,
         "changed importance to 100"},
        {"importance 0", {u8(16, 0)}, -1, kStart, {}, {}, 3, "failed to set importance to 0"},
        {"importance 101", {u8(17, 101)}, -1, kStart, {}, {}, 3, "failed to set importance to 101"},
        {"importance default",
         {ask(16)},
         0,
         "sensor|lab-7|a,b|1",
         {},
         {10},
         1,
         "set importance 1 request"},
        {"importance_i",
         {u8(17, 9)},
         0,
         "sensor|lab-7|a,b|9",
         {},
         {10},
         2,
         "changed importance to 9"},
        {"domain ignored",
         {text(8, "other")},
         0,
         kStart,
         {},
         {},
         1,
         "count 2, type 8, len 6, tag 0"},
        {"tagged TLV skipped",
         {text(7, "zzz", 1)},
         0,
         kStart,
         {},
         {},
         1,
         "count 2, type 7, len 4, tag 1"},
        {"first change stays when the second fails",
         {u8(16, 20), text(7, "bad*")},
         -1,
         "sensor|lab-7|a,b|20",
         {},
         {10},
         3,
         "failed to set role"},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.what);
        World w;
        w.active();
        dev().set_level_result = row.set_level_result;
        std::vector<Tlv> list = {switch_reply_to(), identity()};
        list.insert(list.end(), row.list.begin(), row.list.end());
        LogCapture cap(0);
        w.deliver(from_switch(0, CV_CLASS_QUERY, kSet, 30, list, kNonceKey));
        const svc_session *s = w.s;
        EXPECT_EQ(std::string(s->role) + "|" + s->name + "|" + s->keywords + "|" +
                      std::to_string(s->importance),
                  row.state);
        EXPECT_EQ(dev().levels_set, row.levels_set);
        EXPECT_EQ(dev().modified, row.modified);
        EXPECT_TRUE(cap.has(row.log_level, "omr_doSetQuery", row.logged)) << cap.dump();
        // WILL, then an update with the new values; or WONT alone. Never a reply message.
        auto out = w.take();
        ASSERT_EQ(out.size(), row.result == 0 ? 2u : 1u);
        EXPECT_EQ(static_cast<int8_t>(out[0].bytes.at(69)), row.result == 0 ? -1 : -2);
        if (row.result == 0) {
            EXPECT_EQ(parse(out[1].bytes).at(4).value, txt(s->role));
        }
    }
}

}  // namespace
