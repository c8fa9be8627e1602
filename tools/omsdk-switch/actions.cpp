// SPDX-License-Identifier: Apache-2.0
#include "actions.h"

#include <ctype.h>
#include <stdlib.h>

#include "text_util.h"

namespace omsdk_switch {

using omsdk_tools::parse_int;

namespace {

// "--opt=value" or "--opt value": the option's name and its value.
bool option_value(const std::vector<std::string> &words, size_t *i, const std::string &name,
                  std::string *value, bool *matched, std::string *why) {
    const std::string &w = words[*i];
    *matched = false;
    if (w == name) {
        *matched = true;
        if (*i + 1 >= words.size()) {
            *why = name + " needs a value";
            return false;
        }
        *value = words[*i + 1];
        *i += 2;
        return true;
    }
    if (w.size() > name.size() && w.compare(0, name.size(), name) == 0 && w[name.size()] == '=') {
        *matched = true;
        *value = w.substr(name.size() + 1);
        *i += 1;
        return true;
    }
    return true;
}

bool parse_seconds(const std::string &text, double *out) {
    if (text.empty()) return false;
    char *end = nullptr;
    double v = strtod(text.c_str(), &end);
    if (end == nullptr || *end != '\0' || !(v >= 0) || v > 86400.0 * 365) return false;
    *out = v;
    return true;
}

bool is_identifier(const std::string &s) {
    if (s.size() != 32) return false;
    for (char c : s)
        if (!isxdigit(static_cast<unsigned char>(c))) return false;
    return true;
}

// The sweep's own options: --rate QPS and --in-flight N. As parse_selector.
int parse_sweep_option(const std::vector<std::string> &words, size_t *i, Action *a,
                       std::string *why) {
    std::string value;
    bool matched = false;
    if (!option_value(words, i, "--rate", &value, &matched, why)) return -1;
    if (matched) {
        if (!parse_seconds(value, &a->rate) || a->rate > 1e6) {
            *why = "sweep: --rate needs queries per second, 0 (no limit) to 1000000";
            return -1;
        }
        return 1;
    }
    if (!option_value(words, i, "--in-flight", &value, &matched, why)) return -1;
    if (matched) {
        long long n = 0;
        if (!parse_int(value, 1, 4096, &n)) {
            *why = "sweep: --in-flight needs a number from 1 to 4096";
            return -1;
        }
        a->in_flight = static_cast<int>(n);
        return 1;
    }
    return 0;
}

}  // namespace

bool is_action_word(const std::string &w) {
    return w == "list" || w == "get" || w == "set" || w == "delete" || w == "wait" ||
           w == "wait-for" || w == "sweep";
}

bool split_words(const std::string &line, std::vector<std::string> *out, std::string *why) {
    out->clear();
    std::string cur;
    bool in_word = false;
    char quoted = 0;  // the quote that is open, as in a shell
    for (size_t i = 0; i < line.size(); ++i) {
        const char c = line[i];
        if (quoted == '\'' && c != '\'') {
            cur.push_back(c);  // nothing is special inside single quotes
        } else if (c == '\\' && i + 1 < line.size() &&
                   (quoted == 0 || line[i + 1] == '"' || line[i + 1] == '\\')) {
            cur.push_back(line[++i]);
            in_word = true;
        } else if ((c == '"' || c == '\'') && (quoted == 0 || quoted == c)) {
            quoted = quoted == 0 ? c : 0;
            in_word = true;
        } else if (quoted == 0 && (c == ' ' || c == '\t' || c == '\r' || c == '\n')) {
            if (in_word) out->push_back(cur);
            cur.clear();
            in_word = false;
        } else {
            cur.push_back(c);
            in_word = true;
        }
    }
    if (quoted != 0) {
        *why = "unterminated quote in '" + line + "'";
        return false;
    }
    if (in_word) out->push_back(cur);
    return true;
}

int parse_selector(const std::vector<std::string> &words, size_t *i, Selectors *sel,
                   bool *has_priority, std::string *why) {
    static const char *const names[] = {"--name",     "--role", "--keyword",
                                        "--category", "--id",   "--priority"};
    for (const char *n : names) {
        std::string value;
        bool matched = false;
        if (!option_value(words, i, n, &value, &matched, why)) return -1;
        if (!matched) continue;
        const std::string opt = n;
        if (opt == "--name" || opt == "--role" || opt == "--keyword") {
            if (value.empty()) {
                *why = opt + " needs a non-empty value";
                return -1;
            }
            if (opt == "--name") sel->names.push_back(value);
            if (opt == "--role") sel->roles.push_back(value);
            if (opt == "--keyword") sel->keywords.push_back(value);
        } else if (opt == "--category") {
            long long v = 0;
            if (!parse_int(value, INT32_MIN, INT32_MAX, &v)) {
                *why = "--category needs an integer, got '" + value + "'";
                return -1;
            }
            sel->categories.push_back(static_cast<int32_t>(v));
        } else if (opt == "--id") {
            if (!is_identifier(value)) {
                *why = "--id needs a 32-character hexadecimal identifier, got '" + value + "'";
                return -1;
            }
            sel->ids.push_back(value);
        } else {
            long long v = 0;
            if (!parse_int(value, 0, 255, &v)) {
                *why = "--priority needs a number from 0 to 255, got '" + value + "'";
                return -1;
            }
            sel->priority = static_cast<uint8_t>(v);
            *has_priority = true;
        }
        return 1;
    }
    return 0;
}

bool parse_action(const std::vector<std::string> &words, Action *out, std::string *why) {
    Action a;
    if (words.empty()) {
        *why = "empty action";
        return false;
    }
    for (const std::string &w : words) a.text += (a.text.empty() ? "" : " ") + w;
    const std::string &verb = words[0];
    std::vector<std::string> plain;  // the words that are not selector options
    for (size_t i = 1; i < words.size();) {
        if (verb == "sweep") {
            const int r = parse_sweep_option(words, &i, &a, why);
            if (r < 0) return false;
            if (r > 0) continue;
        }
        int r = parse_selector(words, &i, &a.sel, &a.has_priority, why);
        if (r < 0) {
            *why = verb + ": " + *why;
            return false;
        }
        if (r == 0) {
            if (words[i].compare(0, 2, "--") == 0) {
                *why = verb + ": unknown option " + words[i];
                return false;
            }
            plain.push_back(words[i]);
            ++i;
        }
    }
    const bool has_sel = !a.sel.names.empty() || !a.sel.roles.empty() || !a.sel.keywords.empty() ||
                         !a.sel.categories.empty() || !a.sel.ids.empty() || a.has_priority;

    if (verb == "list") {
        a.kind = Action::Kind::List;
        if (!plain.empty() || has_sel) {
            *why = "list takes no arguments";
            return false;
        }
    } else if (verb == "get" || verb == "sweep") {
        a.kind = verb == "get" ? Action::Kind::Get : Action::Kind::Sweep;
        for (const std::string &w : plain) {
            size_t at = 0;
            while (at <= w.size()) {
                size_t comma = w.find(',', at);
                std::string name =
                    w.substr(at, comma == std::string::npos ? std::string::npos : comma - at);
                at = comma == std::string::npos ? w.size() + 1 : comma + 1;
                if (name.empty()) continue;
                uint32_t type = 0;
                if (!omsdk_tools::get_attribute_type(name, &type)) {
                    *why = verb + ": unknown attribute '" + name + "'";
                    return false;
                }
                a.types.push_back(type);
            }
        }
        if (a.types.empty()) {
            *why = verb + " needs at least one attribute (e.g. " + verb + " level,usage)";
            return false;
        }
    } else if (verb == "set") {
        a.kind = Action::Kind::Set;
        for (const std::string &w : plain) {
            SetItem item;
            if (!omsdk_tools::parse_set_item(w, &item, why)) return false;
            a.items.push_back(item);
        }
        if (a.items.empty()) {
            *why = "set needs at least one NAME=VALUE (e.g. set level=3)";
            return false;
        }
    } else if (verb == "delete") {
        a.kind = Action::Kind::Delete;
        if (!plain.empty()) {
            *why = "delete takes only selector options, not '" + plain[0] + "'";
            return false;
        }
    } else if (verb == "wait") {
        a.kind = Action::Kind::Wait;
        if (plain.size() != 1 || has_sel || !parse_seconds(plain[0], &a.seconds)) {
            *why = "wait needs one number of seconds (e.g. wait 2.5)";
            return false;
        }
    } else if (verb == "wait-for") {
        a.kind = Action::Kind::WaitFor;
        a.seconds = 60;
        if (plain.empty() || plain.size() > 2 || has_sel ||
            !parse_int(plain[0], 1, 100000, &a.count) ||
            (plain.size() == 2 && !parse_seconds(plain[1], &a.seconds))) {
            *why =
                "wait-for needs a number of endpoints and optionally seconds (e.g. wait-for 2 30)";
            return false;
        }
    } else {
        *why = "unknown action '" + verb + "'";
        return false;
    }
    *out = a;
    return true;
}

bool parse_action_args(const std::vector<std::string> &args, std::vector<Action> *out,
                       std::string *why) {
    std::vector<std::vector<std::string>> groups;
    bool expect_value = false;  // the previous word was an option taking a value
    for (const std::string &arg : args) {
        const size_t blank = arg.find_first_of(" \t");
        if (!expect_value && blank != std::string::npos && is_action_word(arg.substr(0, blank))) {
            std::vector<std::string> words;
            if (!split_words(arg, &words, why)) return false;
            groups.push_back(words);
            continue;
        }
        if (!expect_value && is_action_word(arg)) {
            groups.push_back({arg});
            continue;
        }
        if (groups.empty()) {
            *why = "unexpected argument '" + arg +
                   "' (actions start with list, get, sweep, "
                   "set, delete, wait or wait-for)";
            return false;
        }
        groups.back().push_back(arg);
        expect_value =
            !expect_value && arg.compare(0, 2, "--") == 0 && arg.find('=') == std::string::npos;
    }
    for (const auto &g : groups) {
        Action a;
        if (!parse_action(g, &a, why)) return false;
        out->push_back(a);
    }
    return true;
}

bool parse_script(const std::string &text, std::vector<Action> *out, std::string *why) {
    size_t at = 0;
    int line_no = 0;
    while (at < text.size()) {
        size_t nl = text.find('\n', at);
        std::string line = text.substr(at, nl == std::string::npos ? std::string::npos : nl - at);
        at = nl == std::string::npos ? text.size() : nl + 1;
        ++line_no;
        std::vector<std::string> words;
        if (!split_words(line, &words, why)) {
            *why = "script line " + std::to_string(line_no) + ": " + *why;
            return false;
        }
        if (words.empty() || words[0][0] == '#') continue;
        Action a;
        if (!parse_action(words, &a, why)) {
            *why = "script line " + std::to_string(line_no) + ": " + *why;
            return false;
        }
        out->push_back(a);
    }
    return true;
}

bool wildcard_match(const std::string &own, const std::string &pattern) {
    if (!pattern.empty() && pattern.back() == '*')
        return own.compare(0, pattern.size() - 1, pattern, 0, pattern.size() - 1) == 0;
    return own == pattern;
}

bool selects(const omsdk_tools::EndpointInfo &ep, const Selectors &sel) {
    if (!sel.ids.empty()) {
        for (const std::string &id : sel.ids)
            if (id == ep.id) return true;
        return false;
    }
    if (ep.importance > sel.priority) return false;
    auto any_match = [](const std::string &own, const std::vector<std::string> &patterns) {
        if (patterns.empty()) return true;
        for (const std::string &p : patterns)
            if (wildcard_match(own, p)) return true;
        return false;
    };
    if (!any_match(ep.role, sel.roles) || !any_match(ep.name, sel.names)) return false;
    if (!sel.keywords.empty()) {
        bool found = false;
        size_t at = 0;
        while (at <= ep.keywords.size() && !found) {
            size_t comma = ep.keywords.find(',', at);
            std::string k =
                ep.keywords.substr(at, comma == std::string::npos ? std::string::npos : comma - at);
            at = comma == std::string::npos ? ep.keywords.size() + 1 : comma + 1;
            for (const std::string &w : sel.keywords)
                if (!k.empty() && k == w) found = true;
        }
        if (!found) return false;
    }
    if (!sel.categories.empty()) {
        bool found = false;
        for (int32_t c : sel.categories)
            if (c == ep.category) found = true;
        if (!found) return false;
    }
    return true;
}

}  // namespace omsdk_switch
