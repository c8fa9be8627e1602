// SPDX-License-Identifier: Apache-2.0
// Query filters (selectors carry qualifier 1) and the keyword list
// utilities, on queries typed by hand.
#include "fixture.h"

namespace {

using namespace engine_test;
using std::string;

Tlv sel(uint32_t type, const string &v) { return {type, Bytes(v.begin(), v.end()), 1}; }
Tlv empty(uint32_t type) { return {type, {}, 1}; }
Tlv cat_sel(uint32_t v) { return {CV_CORVANE_TLV_TYPE_USAGE_CATEGORY, be(v, 4), 1}; }

EventPtr query(const std::vector<Tlv> &sels, uint8_t pri = 100) {
    return World::decoded(from_switch(0, CV_CLASS_QUERY, 11, 1, sels, kNonceKey, pri));
}
void set_text(char *&field, const char *v) {
    free(field);
    field = v ? strdup(v) : nullptr;
}

TEST(Filter, PriorityThenIdentityThenSelectors) {
    const char kOther[] = "fedcba9876543210fedcba9876543210";
    const std::tuple<const char *, uint8_t, std::vector<Tlv>, int32_t, int32_t> cases[] = {
        {"priority = importance", 50, {}, 1, 1},
        {"priority below importance", 49, {identity()}, 0, 0},
        {"own id, name mismatch", 100, {identity(), sel(9, "other")}, 1, 0},
        {"other id, name matches", 100, {identity(kOther), sel(9, "lab-7")}, 0, 0},
        {"second id matches", 100, {identity(kOther), identity()}, 1, 0},
        {"id without value", 100, {empty(CV_CORVANE_TLV_TYPE_OHMRZ_ID)}, 0, 0},
        {"qualifier 0 is no selector", 100, {{1, identity(kOther).value}}, 1, 1},
        {"stops at the first failing selector", 100, {sel(7, "pump")}, 0, 0},
    };
    for (const auto &[what, pri, sels, want, category_calls] : cases) {
        SCOPED_TRACE(what);
        World w;
        dev().category = 1;
        LogCapture cap(0);
        EXPECT_EQ(cv_exec_filter(query(sels, pri).get(), w.s, 50), want);
        EXPECT_EQ(dev().calls, category_calls);
        EXPECT_EQ(cap.has(1, "cv_exec_filter", "skipping query priority 49 > my importance 50"),
                  pri == 49);
    }
}

TEST(Filter, NameRoleKeywordAndCategorySelectors) {
    // 300 own keywords k0,..,k299 (more than fit the filter's inline table) and selectors
    // x0\0..x299\0 with one of the own keywords, or a near miss, last.
    string many, others;
    for (int i = 0; i < 300; ++i) {
        many += (i ? ",k" : "k") + std::to_string(i);
        others += "x" + std::to_string(i) + string(1, '\0');
    }
    // The filter of `type` (7 role, 9 name, 10 keywords, 51 category) with the endpoint's value.
    const std::tuple<const char *, uint32_t, const char *, std::vector<Tlv>, int32_t> rows[] = {
        {"name pattern", 9, "lab-7", {sel(9, "lab*")}, 1},
        {"name exact only", 9, "lab-7", {sel(9, "lab")}, 0},
        {"shorter than the prefix", 9, "la", {sel(9, "lab*")}, 0},
        {"case matters, a leading * is literal", 9, "lab-7", {sel(9, "Lab*"), sel(9, "*7")}, 0},
        {"second name matches", 9, "lab-7", {sel(9, "x"), sel(9, "lab-7")}, 1},
        {"role is not the name", 9, "lab-7", {sel(9, "sensor")}, 0},
        {"name selector without value", 9, "lab-7", {empty(9)}, 0},
        {"no own name", 9, nullptr, {}, 0},
        {"role pattern", 7, "sensor", {sel(7, "sen*")}, 1},
        {"name is not the role", 7, "sensor", {sel(7, "lab-7")}, 0},
        {"no role selector", 7, "sensor", {sel(9, "zzz")}, 1},
        {"keyword b of a,b", 10, "a,b", {sel(10, string("b\0", 2))}, 1},
        {"keyword bb is not b", 10, "a,b", {sel(10, string("bb\0", 3))}, 0},
        {"keyword prefix is not enough", 10, "abc", {sel(10, string("ab\0", 3))}, 0},
        {"second keyword, unterminated", 10, "a,b", {sel(10, string("x\0b", 3))}, 1},
        {"empty keywords never match", 10, "a,,b", {sel(10, string("\0\0", 2))}, 0},
        {"only the first TLV counts", 10, "a,b", {sel(10, string("x\0", 2)), sel(10, "a")}, 0},
        {"no own keywords", 10, "", {sel(10, string("a\0", 2))}, 0},
        {"no keyword selector", 10, "", {}, 1},
        {"long lists, last matches", 10, many.c_str(), {sel(10, others + "k299")}, 1},
        {"long lists, near misses",
         10,
         many.c_str(),
         {sel(10, others + string("k300\0k2990", 10))},
         0},
        {"category match", 51, "7", {cat_sel(3), cat_sel(7)}, 1},
        {"category mismatch", 51, "7", {cat_sel(3)}, 0},
        {"no category selector, category 7", 51, "7", {}, 0},
        {"no category selector, category 1", 51, "1", {}, 1},
        {"category 1 but another asked", 51, "1", {cat_sel(3)}, 0},
    };
    for (const auto &[what, type, own, sels, want] : rows) {
        SCOPED_TRACE(what);
        World w;
        EventPtr q = query(sels);
        switch (type) {
        case 7:
            set_text(w.s->role, own);
            EXPECT_EQ(cv_role_filter(q.get(), w.s), want);
            break;
        case 9:
            set_text(w.s->name, own);
            EXPECT_EQ(cv_name_filter(q.get(), w.s), want);
            break;
        case 10:
            set_text(w.s->keywords, own);
            EXPECT_EQ(cv_keyword_filter(q.get(), w.s), want);
            break;
        default:
            dev().category = static_cast<uint32_t>(atoi(own));
            EXPECT_EQ(cv_category_filter(q.get(), w.s), want);
        }
    }
}

TEST(TextUtilities, WildcardAndKeywordLists) {
    EXPECT_EQ(cv_wildcard_match("", "*") + cv_wildcard_match("", ""), 2);
    EXPECT_EQ(cv_wildcard_match(nullptr, "*") + cv_wildcard_match("lab", nullptr), 0);
    char s[] = "a,b,,c";
    EXPECT_EQ(cv_comma_list2kwl(s), 7);
    EXPECT_EQ(string(s, 7), string("a\0b\0\0c\0", 7));
    std::unique_ptr<char, decltype(&free)> commas(cv_get_comma_sep_list("a\0b\0\0c\0", 7), free);
    EXPECT_STREQ(commas.get(), "a,b,,c");
    std::unique_ptr<char *, decltype(&free)> list(createKeywordList(", a,,b\tc d"),
                                                  free);  // one block
    std::vector<string> got;
    for (size_t i = 0; list && list.get()[i] != nullptr; ++i) got.push_back(list.get()[i]);
    EXPECT_EQ(got, std::vector<string>({"a", "b", "c", "d"}));
}

}  // namespace
