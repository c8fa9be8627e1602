// Query filters on events built in memory (selectors carry qualifier 1),
// and the keyword list utilities.
#include "engine_harness.h"

namespace {

using namespace engine_test;
using std::string;

constexpr char kOtherId[] = "fedcba9876543210fedcba9876543210";

// A bare session record holding only what the filters read; the category
// comes from dev().category, each call counted in dev().calls.
struct Bare {
    svc_session *s = static_cast<svc_session *>(calloc(1, sizeof(svc_session)));
    Bare(const char *name, const char *role, const char *keywords, uint32_t cat = 1) {
        memcpy(s->sender_id, kId, 32);
        s->name = name ? strdup(name) : nullptr;
        s->role = role ? strdup(role) : nullptr;
        s->keywords = keywords ? strdup(keywords) : nullptr;
        s->registry = &registry();
        dev() = Device();
        dev().category = cat;
    }
    ~Bare() { free(s->name), free(s->role), free(s->keywords), free(s); }
};

// Selectors: texts include their NUL, raw() gives the bytes as they are.
T sel(uint32_t type, const char *t) { return text(type, t, 1); }
T raw(uint32_t type, const string &b) { return {type, Bytes(b.begin(), b.end()), false, 1}; }
T empty(uint32_t type) { return {type, {}, true, 1}; }
T cat(uint32_t v) { return mem(CV_CORVANE_TLV_TYPE_USAGE_CATEGORY, v, 1); }

// A filter case: the endpoint's own value, the selectors, the verdict.
struct Row {
    const char *what, *own;
    std::vector<T> sels;
    int32_t want;
};

EventPtr query(const std::vector<T> &sels, uint8_t pri = 100) {
    EventPtr ev(corvane_create_my_packet());
    ev->pak->pri = pri;
    add(ev.get(), sels);
    return ev;
}

TEST(ExecFilter, PriorityBelowImportanceIsSkipped) {
    struct Case { uint8_t pri; int32_t importance, want; } cases[] = {
        {5, 5, 1}, {5, 6, 0}, {5, 4, 1}, {255, 100, 1}, {0, 1, 0}};
    for (const Case &c : cases) {
        SCOPED_TRACE(int(c.pri));
        Bare ep("lab-7", "sensor", "a,b");
        LogCapture cap(0);
        EXPECT_EQ(cv_exec_filter(query({}, c.pri).get(), ep.s, c.importance), c.want);
        EXPECT_EQ(cap.has(1, "cv_exec_filter",
                          "skipping query priority " + std::to_string(c.pri) + " > my importance " +
                              std::to_string(c.importance)),
                  c.want == 0)
            << cap.dump();
    }
}

TEST(SenderIdFilter, ExplicitIdentityOverridesSelectors) {
    struct Case {
        const char *what;
        std::vector<T> sels;
        int32_t want, category_calls;
    } cases[] = {
        {"own id, name mismatch", {identity(), sel(9, "other")}, 1, 0},
        {"other id, role and name match", {identity(kOtherId), sel(7, "sensor"), sel(9, "lab-7")}, 0, 0},
        {"second id matches", {identity(kOtherId), identity()}, 1, 0},
        {"id without value", {empty(CV_CORVANE_TLV_TYPE_OHMRZ_ID)}, 0, 0},
        {"qualifier 0 is no selector", {T{1, identity(kOtherId).value}}, 1, 1},
        {"no selectors at all, category 1", {}, 1, 1},
        {"stops at the first failing selector", {sel(7, "pump")}, 0, 0},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.what);
        Bare ep("lab-7", "sensor", "a,b");
        EXPECT_EQ(cv_sender_id_or_wildcard_filter(query(c.sels).get(), ep.s), c.want);
        EXPECT_EQ(dev().calls, c.category_calls);
    }
}

TEST(WildcardMatch, TrailingStarIsPrefixElseExact) {
    struct Case { const char *own, *pattern; int32_t want; } cases[] = {
        {"lab", "lab*", 1},   {"lab-7", "lab*", 1}, {"la", "lab*", 0},   {"Lab", "lab*", 0},
        {"lab", "lab", 1},    {"lab-7", "lab", 0},  {"lab", "la", 0},    {"lab", "LAB", 0},
        {"anything", "*", 1}, {"", "*", 1},         {"*lab", "*lab", 1}, {"xlab", "*lab", 0},
        {"lab", "", 0},       {"", "", 1},          {nullptr, "*", 0},   {"lab", nullptr, 0},
    };
    for (const Case &c : cases)
        EXPECT_EQ(cv_wildcard_match(c.own, c.pattern), c.want)
            << (c.own ? c.own : "(null)") << " ~ " << (c.pattern ? c.pattern : "(null)");
}

TEST(NameRoleFilter, PatternsAndMissingValues) {
    const Row cases[] = {  // selectors typed 9 here, retyped 7 for the role
        {"lab* matches lab", "lab", {sel(9, "lab*")}, 1},
        {"lab* matches lab-7", "lab-7", {sel(9, "lab*")}, 1},
        {"lab matches only lab", "lab-7", {sel(9, "lab")}, 0},
        {"lone star", "lab-7", {sel(9, "*")}, 1},
        {"second pattern matches", "lab-7", {sel(9, "x"), sel(9, "lab-7")}, 1},
        {"no selector", "lab-7", {}, 1},
        {"selector without value", "lab-7", {empty(9)}, 0},
        {"selector with qualifier 0 ignored", "lab-7", {text(9, "x")}, 1},
        {"unterminated pattern", "lab", {raw(9, "lab")}, 1},
        {"no own value, selector", nullptr, {sel(9, "*")}, 0},
        {"no own value, no selector", nullptr, {}, 0},
    };
    for (const Row &c : cases) {
        for (uint32_t type : {9u, 7u}) {
            SCOPED_TRACE(string(c.what) + (type == 9 ? ", name" : ", role"));
            Bare ep(type == 9 ? c.own : "n", type == 7 ? c.own : "r", "a");
            std::vector<T> sels = c.sels;
            for (T &s : sels) s.type = type;
            EventPtr ev = query(sels);
            EXPECT_EQ(type == 9 ? cv_name_filter(ev.get(), ep.s) : cv_role_filter(ev.get(), ep.s), c.want);
        }
    }
}

TEST(KeywordFilter, ExactKeywordsWithinTheTlv) {
    const Row cases[] = {
        {"b of a,b", "a,b", {raw(10, string("b\0", 2))}, 1},
        {"bb is not b", "a,b", {raw(10, string("bb\0", 3))}, 0},
        {"second of two", "a,b", {raw(10, string("x\0a\0", 4))}, 1},
        {"last unterminated", "a,b", {raw(10, string("x\0b", 3))}, 1},
        {"unterminated bb", "a,b", {raw(10, "bb")}, 0},
        {"case matters", "a,b", {raw(10, string("B\0", 2))}, 0},
        {"prefix is not enough", "abc", {raw(10, string("ab\0", 3))}, 0},
        {"no keyword selector", "a,b", {}, 1},
        {"selector without value", "a,b", {empty(10)}, 0},
        {"empty keywords never match", "a,,b", {raw(10, string("\0\0", 2))}, 0},
        {"only the first keyword TLV counts", "a,b", {raw(10, string("x\0", 2)), raw(10, string("a\0", 2))},
         0},
        {"no own keywords", "", {raw(10, string("a\0", 2))}, 0},
        {"own keywords unset", nullptr, {raw(10, string("a\0", 2))}, 0},
    };
    for (const Row &c : cases) {
        SCOPED_TRACE(c.what);
        Bare ep("n", "r", c.own);
        LogCapture cap(0);
        EXPECT_EQ(cv_keyword_filter(query(c.sels).get(), ep.s), c.want);
        EXPECT_EQ(cap.has(3, "cv_keyword_filter", "No keywords defined!"), c.own == nullptr || !*c.own);
    }
}

TEST(CategoryFilter, MatchOrCategoryOneDefault) {
    struct Case {
        const char *what;
        uint32_t own;
        std::vector<T> sels;
        int32_t want;
    } cases[] = {
        {"match", 7, {cat(7)}, 1},           {"second matches", 7, {cat(3), cat(7)}, 1},
        {"mismatch", 7, {cat(3)}, 0},        {"none, category 7", 7, {}, 0},
        {"none, category 1", 1, {}, 1},      {"category 1 but other asked", 1, {cat(3)}, 0},
        {"selector without value", 1, {empty(51)}, 0},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.what);
        Bare ep("n", "r", "a", c.own);
        LogCapture cap(0);
        EXPECT_EQ(cv_category_filter(query(c.sels).get(), ep.s), c.want);
        EXPECT_EQ(dev().calls, 1);
        EXPECT_EQ(cap.has(0, "cv_category_filter", "false"), c.sels.empty() && c.want == 0);
    }
}

TEST(KeywordLists, CommaAndNulSeparatedConversions) {
    char s[] = "a,b,,c";
    EXPECT_EQ(cv_comma_list2kwl(s), 7);
    EXPECT_EQ(0, memcmp(s, "a\0b\0\0c\0", 7));
    EXPECT_EQ(cv_comma_list2kwl(nullptr), 0);

    const char in[] = "k1,k2";
    char *nul = corvane_conv_kw_list(in);
    EXPECT_EQ(string(nul, 6), string("k1\0k2\0", 6));
    EXPECT_STREQ(in, "k1,k2");
    free(nul);
    EXPECT_EQ(corvane_conv_kw_list(nullptr), nullptr);

    struct Case {
        const char *in;
        int32_t len;
        const char *want;  // null: no result
    } cases[] = {
        {"a\0b\0\0c\0", 7, "a,b,,c"}, {"ab", 2, "a"},  // the last byte always ends the text
        {"a", 0, nullptr}, {"a", -1, nullptr}, {nullptr, 4, nullptr},
    };
    for (const Case &c : cases) {
        char *commas = cv_get_comma_sep_list(c.in, c.len);
        EXPECT_EQ(commas ? string(commas) : "(null)", c.want ? c.want : "(null)");
        free(commas);
    }
}

TEST(KeywordLists, CreateKeywordListSplitsAndFreesInOneBlock) {
    struct Case {
        const char *in;
        std::vector<string> want;
        int logged;
    } cases[] = {
        {", a,,b\t", {"a", "b"}, 3}, {"a", {"a"}, 1}, {"", {}, 1}, {",,,", {}, 1},
        {"a b\tc,d", {"a", "b", "c", "d"}, 4}, {"one,two ", {"one", "two"}, 3},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.in);
        LogCapture cap(0);
        keyword_list list = createKeywordList(c.in);
        ASSERT_NE(list, nullptr);
        std::vector<string> got;
        for (size_t i = 0; list[i] != nullptr; ++i) got.push_back(list[i]);
        EXPECT_EQ(got, c.want);
        EXPECT_TRUE(cap.has(1, "createKeywordList",
                            "configuring keywords (" + std::to_string(c.logged) + ")"))
            << cap.dump();
        free(list);  // the only release: the sanitizer build reports any leak
    }
    LogCapture cap(0);
    EXPECT_EQ(createKeywordList(nullptr), nullptr);
    EXPECT_TRUE(cap.has(4, "createKeywordList", "strdup failed"));
}

}  // namespace
