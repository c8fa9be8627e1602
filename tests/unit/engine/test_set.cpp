// SET queries: each attribute within its limits, the callbacks told, and
// the answer on the wire.
#include "fixture.h"

namespace {

using namespace engine_test;

Tlv text(uint32_t type, const char *t, uint32_t qualifier = 0) { return {type, txt(t), qualifier}; }
Tlv u8(uint32_t type, uint8_t v) { return {type, {v}}; }

TEST(Set, EachAttributeWithinItsLimits) {
    // State as role|name|keywords|importance (null: unchanged); level 42, the device refuses >100.
    // A refusal logs a warning (3) and is answered WONT alone; else WILL, then an update.
    const struct {
        std::vector<Tlv> list;
        const char *state;
        int level_set, modified;  // -1 / 0: none
        uint32_t log_level;
        const char *logged;
    } rows[] = {
        {{text(7, "pump room")}, "pump room|lab-7|a,b|50", -1, 2, 2, "changed role to pump room"},
        {{text(7, "valve")}, "valve|lab-7|a,b|50", -1, 2, 1, "set role valve request"},
        {{text(7, "bad*")}, nullptr, -1, 0, 3, "failed to set role"},
        {{ask(7)}, "Endpoint|lab-7|a,b|50", -1, 2, 2, "changed role to Endpoint"},
        {{text(9, "lab-9")}, "sensor|lab-9|a,b|50", -1, 4, 2, "changed name to lab-9"},
        {{text(9, "a b")}, nullptr, -1, 0, 3, "failed to set name"},
        {{ask(9)},
         "sensor|Endpoint@127.0.0.1|a,b|50",
         -1,
         4,
         1,
         "set name Endpoint@127.0.0.1 request"},
        {{text(10, "x,y")}, "sensor|lab-7|x,y|50", -1, 5, 1, "set keywords x,y request"},
        {{text(10, "x y")},
         nullptr,
         -1,
         0,
         3,
         "Failed to set KEYWORDS attribute to x y -- invalid or no characters defined."},
        {{ask(10)}, "sensor|lab-7||50", -1, 5, 2, "Clearing keywords by request."},
        {{u8(14, 77)}, nullptr, 77, 9, 2, "changed level from 42 to 77"},
        {{ask(14)}, nullptr, 10, 9, 1, "set level 10 request"},
        {{u8(14, 200)}, nullptr, 200, 0, 3, "failed to set level"},
        {{u8(16, 100)}, "sensor|lab-7|a,b|100", -1, 10, 2, "changed importance to 100"},
        {{u8(16, 0)}, nullptr, -1, 0, 3, "failed to set importance to 0"},
        {{u8(17, 101)}, nullptr, -1, 0, 3, "failed to set importance to 101"},
        {{ask(16)}, "sensor|lab-7|a,b|1", -1, 10, 1, "set importance 1 request"},
        {{u8(17, 9)}, "sensor|lab-7|a,b|9", -1, 10, 2, "changed importance to 9"},
        {{text(8, "other")}, nullptr, -1, 0, 1, "count 2, type 8, len 6, tag 0"},   // domain
        {{text(7, "zzz", 1)}, nullptr, -1, 0, 1, "count 2, type 7, len 4, tag 1"},  // skipped
        {{u8(16, 20), text(7, "bad*")}, "sensor|lab-7|a,b|20", -1, 10, 3, "failed to set role"},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.logged);
        World w;
        w.active();
        std::vector<Tlv> list = {switch_reply_to(), identity()};
        list.insert(list.end(), row.list.begin(), row.list.end());
        LogCapture cap(0);
        w.deliver(from_switch(0, CV_CLASS_QUERY, 10, 30, list, kNonceKey));
        const svc_session *s = w.s;
        EXPECT_EQ(std::string(s->role) + "|" + s->name + "|" + s->keywords + "|" +
                      std::to_string(s->importance),
                  row.state ? row.state : "sensor|lab-7|a,b|50");
        EXPECT_EQ(dev().levels_set, row.level_set < 0 ? Bytes() : Bytes{uint8_t(row.level_set)});
        EXPECT_EQ(dev().modified,
                  row.modified ? std::vector<int32_t>{row.modified} : std::vector<int32_t>{});
        EXPECT_TRUE(cap.has(row.log_level, "omr_doSetQuery", row.logged)) << cap.dump();
        const bool ok = row.log_level != 3;
        auto out = w.take();
        ASSERT_EQ(out.size(), ok ? 2u : 1u);
        EXPECT_EQ(static_cast<int8_t>(out[0].bytes.at(69)), ok ? -1 : -2);
        if (ok) EXPECT_EQ(parse(out[1].bytes).at(4).value, txt(s->role));
    }
}

}  // namespace
