// SPDX-License-Identifier: Apache-2.0
// The simulator's actions, as given on the command line or one per line
// in a script: parsing into Action records.
#ifndef OMSDK_SWITCH_ACTIONS_H
#define OMSDK_SWITCH_ACTIONS_H

#include <stdint.h>

#include <string>
#include <vector>

#include "attributes.h"
#include "switch.h"

namespace omsdk_switch {

using omsdk_tools::Selectors;
using omsdk_tools::SetItem;

struct Action {
    enum class Kind { List, Get, Set, Delete, Wait, WaitFor, Sweep };
    Kind kind = Kind::List;
    std::string text;             // as written, for messages
    std::vector<uint32_t> types;  // get, sweep
    std::vector<SetItem> items;   // set
    Selectors sel;                // selectors given with the action
    bool has_priority = false;
    double seconds = 0;   // wait; wait-for's time limit
    long long count = 0;  // wait-for
    double rate = 0;      // sweep: queries per second (0: no limit)
    int in_flight = 64;   // sweep: queries open at once
};

// True for the words that begin an action.
bool is_action_word(const std::string &w);

// Splits a line into words at blanks as a shell does: single and double
// quotes group words and are removed, a backslash takes the next character
// as it is (inside double quotes only before " and \). False with a reason
// for an unterminated quote.
bool split_words(const std::string &line, std::vector<std::string> *out, std::string *why);

// Parses one action from its words. False with a one-line reason.
bool parse_action(const std::vector<std::string> &words, Action *out, std::string *why);

// Parses a selector option at words[*i] (and its value at words[*i + 1],
// or after '=' in the same word). Returns 1 when consumed (advancing *i
// past the value), 0 when words[*i] is not a selector option, -1 on error.
int parse_selector(const std::vector<std::string> &words, size_t *i, Selectors *sel,
                   bool *has_priority, std::string *why);

// Groups command-line words into actions: an element that starts with an
// action word followed by a blank is a whole action line; other elements
// are single words, and each action word starts a new action.
bool parse_action_args(const std::vector<std::string> &args, std::vector<Action> *out,
                       std::string *why);

// Parses a script: one action a line; blank lines and lines starting
// with '#' are skipped. Reasons name the line number.
bool parse_script(const std::string &text, std::vector<Action> *out, std::string *why);

// Whether a table entry matches the selectors locally (used for deletes,
// which endpoints do not filter): the patterns end in '*' for a prefix.
bool selects(const omsdk_tools::EndpointInfo &ep, const Selectors &sel);
bool wildcard_match(const std::string &own, const std::string &pattern);

}  // namespace omsdk_switch

#endif
