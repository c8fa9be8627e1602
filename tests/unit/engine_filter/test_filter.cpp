// Query filters on events built in memory (selectors carry qualifier 1),
// and the keyword list utilities.
#include <gtest/gtest.h>

#include <stdlib.h>
#include <string.h>

#include <string>
#include <vector>

#include <omsdk/enums.h>
#include <omsdk/event.h>
#include <omsdk/filter.h>

#include "engine/query.h"
#include "log_capture.h"
#include "service/session.h"
#include "wire_test_util.h"

namespace {

using omsdk_test::LogCapture;
using wire_test::EventPtr;

constexpr char kId[] = "0123456789abcdef0123456789abcdef";
constexpr char kOtherId[] = "fedcba9876543210fedcba9876543210";

uint32_t g_category = 1;
int g_category_calls = 0;
uint32_t category() {
    ++g_category_calls;
    return g_category;
}

// A bare session record holding only what the filters read.
struct Endpoint {
    svc_session *s;
    svc_callback_registry reg = {};
    Endpoint(const char *name, const char *role, const char *keywords, uint32_t cat = 1)
        : s(static_cast<svc_session *>(calloc(1, sizeof(svc_session)))) {
        memcpy(s->sender_id, kId, 32);
        s->name = name ? strdup(name) : nullptr;
        s->role = role ? strdup(role) : nullptr;
        s->keywords = keywords ? strdup(keywords) : nullptr;
        reg.get_usage_category = category;
        s->registry = &reg;
        g_category = cat;
        g_category_calls = 0;
    }
    ~Endpoint() {
        free(s->name);
        free(s->role);
        free(s->keywords);
        free(s);
    }
};

struct Sel {
    uint32_t type;
    std::string value;  // bytes as given; texts include their NUL
    bool no_value = false;
    uint32_t qualifier = 1;
};

Sel text(uint32_t type, const char *t) { return {type, std::string(t, strlen(t) + 1)}; }
Sel raw(uint32_t type, const std::string &bytes) { return {type, bytes}; }
Sel empty(uint32_t type) { return {type, "", true}; }
Sel cat(uint32_t v) { return {CV_CORVANE_TLV_TYPE_USAGE_CATEGORY, std::string(reinterpret_cast<char *>(&v), 4)}; }
Sel ident(const char *id) {
    cv_sender_id sid;
    memcpy(sid.id, id, 32);
    sid.value = 1;
    return {CV_CORVANE_TLV_TYPE_OHMRZ_ID, std::string(reinterpret_cast<char *>(&sid), sizeof sid)};
}

EventPtr query(const std::vector<Sel> &sels, uint8_t pri = 100) {
    EventPtr ev(corvane_create_my_packet());
    ev->pak->pri = pri;
    for (const Sel &s : sels) {
        uint32_t len = s.no_value ? 12 : static_cast<uint32_t>(12 + s.value.size());
        EXPECT_EQ(0, cv_add_tlv_common(ev.get(), s.type, len, s.no_value ? nullptr : s.value.data(),
                                       s.qualifier));
    }
    return ev;
}

TEST(ExecFilter, PriorityBelowImportanceIsSkipped) {
    struct Case {
        uint8_t pri;
        int32_t importance;
        int32_t want;
    } cases[] = {{5, 5, 1}, {5, 6, 0}, {5, 4, 1}, {255, 100, 1}, {0, 1, 0}};
    for (const Case &c : cases) {
        Endpoint ep("lab-7", "sensor", "a,b");
        LogCapture cap(0);
        EventPtr ev = query({}, c.pri);
        EXPECT_EQ(cv_exec_filter(ev.get(), ep.s, c.importance), c.want) << int(c.pri);
        std::string msg = "skipping query priority " + std::to_string(c.pri) + " > my importance " +
                          std::to_string(c.importance);
        EXPECT_EQ(cap.has(1, "cv_exec_filter", msg), c.want == 0) << cap.dump();
    }
}

TEST(SenderIdFilter, ExplicitIdentityOverridesSelectors) {
    struct Case {
        const char *what;
        std::vector<Sel> sels;
        int32_t want;
    } cases[] = {
        {"own id, name mismatch", {ident(kId), text(9, "other")}, 1},
        {"other id, role and name match", {ident(kOtherId), text(7, "sensor"), text(9, "lab-7")}, 0},
        {"second id matches", {ident(kOtherId), ident(kId)}, 1},
        {"id without value", {empty(CV_CORVANE_TLV_TYPE_OHMRZ_ID)}, 0},
        {"qualifier 0 is no selector", {{1, ident(kOtherId).value, false, 0}}, 1},
        {"no selectors at all, category 1", {}, 1},
    };
    for (const Case &c : cases) {
        Endpoint ep("lab-7", "sensor", "a,b");
        EventPtr ev = query(c.sels);
        EXPECT_EQ(cv_sender_id_or_wildcard_filter(ev.get(), ep.s), c.want) << c.what;
    }
}

TEST(SenderIdFilter, StopsAtFirstFailingSelector) {
    Endpoint ep("lab-7", "sensor", "a,b");
    EventPtr ev = query({text(7, "pump")});
    EXPECT_EQ(cv_sender_id_or_wildcard_filter(ev.get(), ep.s), 0);
    EXPECT_EQ(g_category_calls, 0);
}

TEST(WildcardMatch, TrailingStarIsPrefixElseExact) {
    struct Case {
        const char *own, *pattern;
        int32_t want;
    } cases[] = {
        {"lab", "lab*", 1},   {"lab-7", "lab*", 1}, {"la", "lab*", 0},  {"Lab", "lab*", 0},
        {"lab", "lab", 1},    {"lab-7", "lab", 0},  {"lab", "la", 0},   {"lab", "LAB", 0},
        {"anything", "*", 1}, {"", "*", 1},         {"*lab", "*lab", 1}, {"xlab", "*lab", 0},
        {"lab", "", 0},       {"", "", 1},          {nullptr, "*", 0},  {"lab", nullptr, 0},
    };
    for (const Case &c : cases)
        EXPECT_EQ(cv_wildcard_match(c.own, c.pattern), c.want)
            << (c.own ? c.own : "(null)") << " ~ " << (c.pattern ? c.pattern : "(null)");
}

TEST(NameRoleFilter, PatternsAndMissingValues) {
    struct Case {
        const char *what;
        const char *own_name;
        std::vector<Sel> sels;
        int32_t want;
    } cases[] = {
        {"lab* matches lab", "lab", {text(9, "lab*")}, 1},
        {"lab* matches lab-7", "lab-7", {text(9, "lab*")}, 1},
        {"lab matches only lab", "lab-7", {text(9, "lab")}, 0},
        {"lone star", "lab-7", {text(9, "*")}, 1},
        {"second pattern matches", "lab-7", {text(9, "x"), text(9, "lab-7")}, 1},
        {"no selector", "lab-7", {}, 1},
        {"selector without value", "lab-7", {empty(9)}, 0},
        {"selector with qualifier 0 ignored", "lab-7", {{9, "x", false, 0}}, 1},
        {"unterminated pattern", "lab", {raw(9, "lab")}, 1},
        {"no own name, selector", nullptr, {text(9, "*")}, 0},
        {"no own name, no selector", nullptr, {}, 0},
    };
    for (const Case &c : cases) {
        // The same rule for the role, with type 7.
        for (uint32_t type : {9u, 7u}) {
            Endpoint ep(type == 9 ? c.own_name : "n", type == 7 ? c.own_name : "r", "a");
            std::vector<Sel> sels = c.sels;
            for (Sel &s : sels) s.type = type;
            EventPtr ev = query(sels);
            int32_t got = type == 9 ? cv_name_filter(ev.get(), ep.s) : cv_role_filter(ev.get(), ep.s);
            EXPECT_EQ(got, c.want) << c.what << " type " << type;
        }
    }
}

TEST(KeywordFilter, ExactKeywordsWithinTheTlv) {
    using std::string;
    struct Case {
        const char *what;
        const char *own;
        std::vector<Sel> sels;
        int32_t want;
    } cases[] = {
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
        {"only the first keyword TLV counts", "a,b", {raw(10, string("x\0", 2)), raw(10, string("a\0", 2))}, 0},
    };
    for (const Case &c : cases) {
        Endpoint ep("n", "r", c.own);
        EventPtr ev = query(c.sels);
        EXPECT_EQ(cv_keyword_filter(ev.get(), ep.s), c.want) << c.what;
    }
}

TEST(KeywordFilter, NoOwnKeywordsFailsWithWarning) {
    for (const char *own : {"", (const char *)nullptr}) {
        Endpoint ep("n", "r", own);
        LogCapture cap(0);
        EventPtr ev = query({raw(10, std::string("a\0", 2))});
        EXPECT_EQ(cv_keyword_filter(ev.get(), ep.s), 0);
        EXPECT_TRUE(cap.has(3, "cv_keyword_filter", "No keywords defined!"));
    }
}

TEST(CategoryFilter, MatchOrCategoryOneDefault) {
    struct Case {
        const char *what;
        uint32_t own;
        std::vector<Sel> sels;
        int32_t want;
    } cases[] = {
        {"match", 7, {cat(7)}, 1},
        {"second matches", 7, {cat(3), cat(7)}, 1},
        {"mismatch", 7, {cat(3)}, 0},
        {"none, category 7", 7, {}, 0},
        {"none, category 1", 1, {}, 1},
        {"category 1 but other asked", 1, {cat(3)}, 0},
        {"selector without value", 1, {empty(51)}, 0},
    };
    for (const Case &c : cases) {
        Endpoint ep("n", "r", "a", c.own);
        LogCapture cap(0);
        EventPtr ev = query(c.sels);
        EXPECT_EQ(cv_category_filter(ev.get(), ep.s), c.want) << c.what;
        EXPECT_EQ(g_category_calls, 1) << c.what;
        EXPECT_EQ(cap.has(0, "cv_category_filter", "false"), c.sels.empty() && c.want == 0) << c.what;
    }
}

TEST(KeywordLists, CommaAndNulSeparatedConversions) {
    char s[] = "a,b,,c";
    EXPECT_EQ(cv_comma_list2kwl(s), 7);
    EXPECT_EQ(0, memcmp(s, "a\0b\0\0c\0", 7));
    EXPECT_EQ(cv_comma_list2kwl(nullptr), 0);

    const char in[] = "k1,k2";
    char *nul = corvane_conv_kw_list(in);
    ASSERT_NE(nul, nullptr);
    EXPECT_EQ(0, memcmp(nul, "k1\0k2\0", 6));
    EXPECT_STREQ(in, "k1,k2");
    free(nul);
    EXPECT_EQ(corvane_conv_kw_list(nullptr), nullptr);

    char *commas = cv_get_comma_sep_list("a\0b\0\0c\0", 7);
    ASSERT_NE(commas, nullptr);
    EXPECT_STREQ(commas, "a,b,,c");
    free(commas);
    // The last byte always ends the text.
    char *cut = cv_get_comma_sep_list("ab", 2);
    ASSERT_NE(cut, nullptr);
    EXPECT_STREQ(cut, "a");
    free(cut);
    EXPECT_EQ(cv_get_comma_sep_list("a", 0), nullptr);
    EXPECT_EQ(cv_get_comma_sep_list("a", -1), nullptr);
    EXPECT_EQ(cv_get_comma_sep_list(nullptr, 4), nullptr);
}

TEST(KeywordLists, CreateKeywordListSplitsAndFreesInOneBlock) {
    struct Case {
        const char *in;
        std::vector<std::string> want;
        int logged;
    } cases[] = {
        {", a,,b\t", {"a", "b"}, 3},
        {"a", {"a"}, 1},
        {"", {}, 1},
        {",,,", {}, 1},
        {"a b\tc,d", {"a", "b", "c", "d"}, 4},
        {"one,two ", {"one", "two"}, 3},
    };
    for (const Case &c : cases) {
        LogCapture cap(0);
        keyword_list list = createKeywordList(c.in);
        ASSERT_NE(list, nullptr) << c.in;
        std::vector<std::string> got;
        for (size_t i = 0; list[i] != nullptr; ++i) got.push_back(list[i]);
        EXPECT_EQ(got, c.want) << c.in;
        EXPECT_TRUE(cap.has(1, "createKeywordList",
                            "configuring keywords (" + std::to_string(c.logged) + ")"))
            << c.in << "\n" << cap.dump();
        free(list);  // the only release: the sanitizer build reports any leak
    }
    LogCapture cap(0);
    EXPECT_EQ(createKeywordList(nullptr), nullptr);
    EXPECT_TRUE(cap.has(4, "createKeywordList", "strdup failed"));
}

}  // namespace
