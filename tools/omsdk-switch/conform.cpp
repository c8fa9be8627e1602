// SPDX-License-Identifier: Apache-2.0
#include "conform.h"

#include <arpa/inet.h>
#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <fstream>
#include <functional>
#include <random>
#include <string>
#include <vector>

#include <omsdk/enums.h>

#include "attributes.h"
#include "net.h"
#include "pdu_view.h"
#include "switch.h"
#include "text_util.h"

using namespace omsdk_tools;

namespace omsdk_switch {

const char kConformHelp[] =
    "usage: omsdk-switch conform [OPTIONS] ENDPOINT\n"
    "\n"
    "Checks that an endpoint behaves on the wire as a switch expects. Start the\n"
    "command first, then the device: the suite hears its first discovery,\n"
    "handshakes with it and runs numbered cases against it (about 15 s).\n"
    "\n"
    "ENDPOINT says which device to check:\n"
    "  first             the first endpoint heard\n"
    "  IDENTIFIER        its 32-character identifier\n"
    "  ADDR              the address its discovery comes from or its listener's\n"
    "  ADDR:PORT         its TCP listener, as its discovery announces it\n"
    "\n"
    "Options:\n"
    "  --key KEY         the domain's shared secret (text or hex:BYTES); without\n"
    "                    it the device's identifier is its key\n"
    "  --port N          UDP port to hear discovery on (default 43440)\n"
    "  --from ADDR       local address of every connection to the device\n"
    "  --only ID,...     run only these cases (ids as the list prints them)\n"
    "  --junit FILE      write a JUnit XML report\n"
    "  --json FILE       write a JSON report\n"
    "  --wait SECONDS    how long to wait for the first discovery (default 40)\n"
    "  --slow            watch the 30 s retry of the discovery (the run then takes\n"
    "                    about 30 s longer)\n"
    "  --interval S      the device was configured to repeat its discovery every S\n"
    "                    seconds once attached (1 to 20): check that it does\n"
    "  --stop-command CMD  a shell command that stops the device at the end: the\n"
    "                    device must then say goodbye with a discovery delete\n"
    "  --list            print the cases and exit\n"
    "\n"
    "Exit status: 0 every required case passed, 1 a case failed (or the device\n"
    "was never heard), 2 bad usage.\n";

namespace {

enum class Verdict { Pass, Fail, Skip };
const char *verdict_word(Verdict v) {
    return v == Verdict::Pass ? "pass" : v == Verdict::Fail ? "fail" : "skipped";
}

struct Result {
    Verdict verdict = Verdict::Pass;
    std::string expected, observed, why;  // why: for a skip, or a note
    double seconds = 0;
    std::string started;  // wall clock
};

class Suite;
struct Case {
    const char *id;
    const char *rule;
    bool needs_handshake;
    void (Suite::*run)(Result &);
};

struct Options {
    SwitchConfig cfg;
    std::string endpoint;
    std::vector<std::string> only;
    std::string junit, json, stop_command;
    double wait_s = 40;
    bool slow = false;
    int interval = 0;
    bool list = false;
};

// One discovery datagram the suite heard from the endpoint under test.
struct Heard {
    int64_t ms = 0;
    DecodedPdu pdu;
    sockaddr_in from{};
};

// The identity as the suite believes it to be now, and as it found it.
struct Identity {
    std::string name, role, keywords;
    int64_t importance = -1, level = -1, category = -1;
};

constexpr uint32_t kLevel = CV_CORVANE_TLV_TYPE_LEVEL_CURRENT;
constexpr int64_t kMaxLevel = 10;     // one usage-vector entry per level, 0 to 10
constexpr int kFaultAnswerMs = 3000;  // how long a faulty message may wait for an answer
constexpr int kSilentHoldMs = 12000;  // a normal query behind a silent connection
constexpr int kTrickleStepMs = 100;   // a byte every 100 ms
constexpr int kBurst = 50;
constexpr int kGarbage = 200;
constexpr int kUpdateWaitMs = 3000;  // an update the endpoint owes us
constexpr int kHandshakeMs = 5000;
constexpr int64_t kRetrySeconds = 30;  // discovery retry while not attached

bool check(Result &r, bool ok, const std::string &expected, const std::string &observed) {
    if (ok || r.verdict == Verdict::Fail) return ok;
    r.verdict = Verdict::Fail;
    r.expected = expected;
    r.observed = observed;
    return false;
}

std::string num(int64_t v) { return std::to_string(v); }
double ms_to_s(int64_t ms) { return static_cast<double>(ms) / 1000.0; }
std::string seconds_text(double s) {
    char buf[32];
    snprintf(buf, sizeof buf, "%.2f", s);
    return buf;
}

std::string xml_escape(const std::string &s) {
    std::string o;
    for (char c : s) {
        const unsigned char u = static_cast<unsigned char>(c);
        if (c == '&')
            o += "&amp;";
        else if (c == '<')
            o += "&lt;";
        else if (c == '>')
            o += "&gt;";
        else if (c == '"')
            o += "&quot;";
        else if (u < 0x20 && c != '\n' && c != '\t')
            o += "?";  // not allowed in XML 1.0
        else if (u >= 0x80)
            o += "?";  // the device's bytes need not be UTF-8
        else
            o.push_back(c);
    }
    return o;
}

// The text value of the first entry of `type` in a reply, or the number.
std::string value_text(const QueryResult &q, uint32_t type) {
    std::vector<Value> v = q.values_of(type);
    if (v.empty()) return "(none)";
    Value x = v[0];
    x.note.clear();
    return x.render();
}

bool value_num(const QueryResult &q, uint32_t type, int64_t *out) {
    std::vector<Value> v = q.values_of(type);
    if (v.empty() || v[0].kind != Value::Kind::Int) return false;
    *out = v[0].num;
    return true;
}

// What became of a message sent raw: 1 an answer (in *answer), 0 closed
// or reset without a word, -1 nothing within the wait, -3 not delivered.
struct Raw {
    int outcome = -3;
    Bytes answer;
    std::string why;
};

class Suite {
public:
    explicit Suite(const Options &o) : opt_(o), sw_(o.cfg) {}

    int run();

    // ---- setup and helpers ----
    bool matches(const DecodedPdu &p, const sockaddr_in &from) const;
    void observe(const SwitchEvent &ev);
    const EndpointInfo *ep() const { return sw_.find(id_); }
    Selectors base() const;
    QueryResult get(const std::vector<uint32_t> &types, Selectors sel);
    QueryResult set(const std::vector<SetItem> &items);
    bool read_level(Result &r, int64_t *level);
    bool still_answers(Result &r, const char *after);
    Bytes make_set_level(int64_t level, const Bytes &key, uint32_t seq);
    uint32_t reply_addr() const;
    Raw send_raw(const Bytes &bytes, size_t cut, int wait_ms);
    bool no_answer(Result &r, const Raw &x, const char *what);
    int64_t other_level(int64_t level) const { return level >= 5 ? level - 3 : level + 3; }
    size_t heard_count() const { return heard_.size(); }
    bool wait_heard(const std::function<bool(const Heard &)> &pred, size_t from, int ms);
    void restore();
    void line(const std::string &text);
    void write_reports(double total);

    // ---- the cases ----
    void discovery_well_formed(Result &r);
    void discovery_signed(Result &r);
    void handshake_active(Result &r);
    void nonce_key_in_use(Result &r);
    void discovery_repeated(Result &r);
    void get_every_attribute(Result &r);
    void get_signed(Result &r);
    void get_stable(Result &r);
    void set_level(Result &r);
    void set_level_refused(Result &r);
    void set_text(Result &r, uint32_t type, const std::string &value, std::string *tracked);
    void set_name(Result &r) { set_text(r, CV_CORVANE_TLV_TYPE_NAME, "cf-name-7", &now_.name); }
    void set_role(Result &r) { set_text(r, CV_CORVANE_TLV_TYPE_ROLE, "cf-role", &now_.role); }
    void set_keywords(Result &r) {
        set_text(r, CV_CORVANE_TLV_TYPE_KEYWORDS, "cf-k1,cf-k2", &now_.keywords);
    }
    void set_importance(Result &r);
    void filter(Result &r, const Selectors &hit, const Selectors &miss, const char *what);
    void filter_role(Result &r);
    void filter_name(Result &r);
    void filter_keyword(Result &r);
    void filter_category(Result &r);
    void filter_importance(Result &r);
    void fault_bad_digest(Result &r);
    void fault_old_key(Result &r);
    void fault_replay(Result &r);
    void fault_truncated(Result &r);
    void fault_oversized(Result &r);
    void fault_silent(Result &r);
    void fault_trickle(Result &r);
    void fault_burst(Result &r);
    void fault_garbage(Result &r);
    void discovery_sequence(Result &r);
    void shutdown(Result &r);

private:
    const Options &opt_;
    Switch sw_;
    std::string id_;
    std::vector<Heard> heard_;
    Identity found_, now_;
    bool handshake_ok_ = false;
    bool replaying_ = false;
    int64_t retry_gap_ms_ = -1;  // --slow: the gap between the first two broadcasts
    std::string retry_why_;
    std::vector<const Case *> ran_;
    std::vector<Result> results_;
    std::string started_;
};

const Case kCases[] = {
    {"discovery-well-formed",
     "the first discovery is an update that decodes, names its sender, its listener, domain, "
     "name, level (0 to 10), importance (1 to 100) and category",
     false, &Suite::discovery_well_formed},
    {"discovery-signed", "discovery is signed with the domain's shared secret", false,
     &Suite::discovery_signed},
    {"handshake-active",
     "acknowledged, the endpoint sends an update carrying its nonce within 5 s (it is ACTIVE)",
     false, &Suite::handshake_active},
    {"nonce-key-in-use",
     "after the handshake queries and answers are signed with the nonce key: an answer does not "
     "verify with the shared secret, and a query signed with the shared secret is not answered",
     true, &Suite::nonce_key_in_use},
    {"discovery-repeated",
     "discovery repeats at its interval: every 30 s until acknowledged, every configured "
     "interval once attached",
     true, &Suite::discovery_repeated},
    {"get-every-attribute",
     "a GET of every attribute is accepted and answered with one entry per attribute, agreeing "
     "with the discovery",
     true, &Suite::get_every_attribute},
    {"get-signed",
     "the acknowledgement and the reply of a GET echo its class, action and sequence number and "
     "verify with the nonce key",
     true, &Suite::get_signed},
    {"get-stable", "repeated GETs of unchanged attributes give the same values", true,
     &Suite::get_stable},
    {"set-level",
     "a SET of the level within 0 to 10 is accepted, read back by a GET and announced in a "
     "discovery update",
     true, &Suite::set_level},
    {"set-level-refused",
     "a SET of level 11 is refused on the wire (acknowledgement WONT) and changes nothing", true,
     &Suite::set_level_refused},
    {"set-name", "a SET of the name is accepted and read back", true, &Suite::set_name},
    {"set-role", "a SET of the role is accepted and read back", true, &Suite::set_role},
    {"set-keywords", "a SET of the keywords is accepted and read back", true, &Suite::set_keywords},
    {"set-importance", "a SET of the importance (1 to 100) is accepted and read back", true,
     &Suite::set_importance},
    {"filter-role", "a query selecting the endpoint's role is answered, another role is not", true,
     &Suite::filter_role},
    {"filter-name",
     "a query selecting the endpoint's name (exactly or by prefix*) is answered, another name is "
     "not",
     true, &Suite::filter_name},
    {"filter-keyword",
     "a query selecting one of the endpoint's keywords is answered, another keyword is not", true,
     &Suite::filter_keyword},
    {"filter-category",
     "a query selecting the endpoint's usage category is answered, another category is not", true,
     &Suite::filter_category},
    {"filter-importance",
     "a query of priority equal to the endpoint's importance is answered, of a lower one is not",
     true, &Suite::filter_importance},
    {"fault-bad-digest",
     "a SET whose digest is wrong is not answered and changes nothing; the next query is answered",
     true, &Suite::fault_bad_digest},
    {"fault-old-key",
     "after a new switch nonce, a SET signed with the previous nonce key is not answered and "
     "changes nothing; the next query is answered",
     true, &Suite::fault_old_key},
    {"fault-replay",
     "a SET replayed with its sequence number already used is not answered and changes nothing",
     true, &Suite::fault_replay},
    {"fault-truncated",
     "a SET cut off halfway is not answered and changes nothing; the next query is answered", true,
     &Suite::fault_truncated},
    {"fault-oversized",
     "a SET whose header announces more than 1400 bytes is not answered and changes nothing; the "
     "next query is answered",
     true, &Suite::fault_oversized},
    {"fault-silent",
     "a connection that sends nothing does not keep the endpoint from answering the next query",
     true, &Suite::fault_silent},
    {"fault-trickle",
     "a SET trickled a byte every 100 ms is cut off unanswered and changes nothing; the next "
     "query is answered",
     true, &Suite::fault_trickle},
    {"fault-burst", "a burst of 50 GETs is answered, each one, and so is the next query", true,
     &Suite::fault_burst},
    {"fault-garbage", "200 garbage datagrams change nothing and the next query is answered", true,
     &Suite::fault_garbage},
    {"discovery-sequence", "every discovery carries a larger sequence number than the one before",
     false, &Suite::discovery_sequence},
    {"shutdown",
     "stopped by its operator, the endpoint sends a signed discovery delete within 10 s", false,
     &Suite::shutdown},
};
constexpr size_t kCaseCount = sizeof kCases / sizeof kCases[0];

void Suite::line(const std::string &text) {
    size_t at = 0;
    const std::string stamp = clock_text();
    do {
        const size_t nl = text.find('\n', at);
        const std::string part = text.substr(at, nl == std::string::npos ? nl : nl - at);
        printf("%s %s\n", stamp.c_str(), part.c_str());
        at = nl == std::string::npos ? text.size() : nl + 1;
    } while (at < text.size());
    fflush(stdout);
}

bool Suite::matches(const DecodedPdu &p, const sockaddr_in &from) const {
    if (!id_.empty()) return p.sender() == id_;
    const std::string &e = opt_.endpoint;
    if (e == "first") return true;
    if (e.size() == 32) return p.sender() == e;
    sockaddr_in listener{};
    if (const DecodedTlv *t = p.find(CV_CORVANE_TLV_TYPE_REPLY_TO))
        if (t->value.bytes.size() == sizeof listener)
            memcpy(&listener, t->value.bytes.data(), sizeof listener);
    if (listener.sin_addr.s_addr == 0) listener.sin_addr = from.sin_addr;
    if (e.find(':') != std::string::npos) return addr_text(listener) == e;
    return ip_text(from.sin_addr.s_addr) == e || ip_text(listener.sin_addr.s_addr) == e;
}

void Suite::observe(const SwitchEvent &ev) {
    if (replaying_ || ev.pdu == nullptr || !ev.pdu->framed) return;
    const bool discovery = ev.pdu->hdr.cls == CV_CLASS_DISCOVERY && ev.pdu->hdr.shipment == 0;
    const bool heard = ev.kind == SwitchEvent::Kind::Received ||
                       (ev.kind == SwitchEvent::Kind::Error && ev.pdu->ok);
    if (!discovery || !heard) return;
    // The source address is not in the event: the endpoint table has it,
    // and a dropped (unverified) discovery names it in its text.
    sockaddr_in from{};
    if (ev.info != nullptr) {
        from = ev.info->source;
    } else {
        const size_t at = ev.text.find(" from ");
        const std::string rest = at == std::string::npos ? "" : ev.text.substr(at + 6);
        uint32_t a = 0;
        const size_t colon = rest.find(':');
        if (colon != std::string::npos && parse_ipv4(rest.substr(0, colon), &a)) {
            from.sin_addr.s_addr = a;
            from.sin_port = htons(static_cast<uint16_t>(atoi(rest.c_str() + colon + 1)));
        }
    }
    from.sin_family = AF_INET;
    if (!matches(*ev.pdu, from)) return;
    if (id_.empty()) id_ = ev.pdu->sender();
    Heard h;
    h.ms = now_ms();
    h.pdu = *ev.pdu;
    h.from = from;
    heard_.push_back(h);
}

Selectors Suite::base() const {
    Selectors s;
    // An endpoint of another category than 1 answers only queries that
    // name its category.
    if (now_.category >= 0 && now_.category != 1)
        s.categories.push_back(static_cast<int32_t>(now_.category));
    return s;
}

QueryResult Suite::get(const std::vector<uint32_t> &types, Selectors sel) {
    QueryResult q = sw_.get(id_, types, sel);
    sw_.poll(0);
    return q;
}

QueryResult Suite::set(const std::vector<SetItem> &items) {
    QueryResult q = sw_.set(id_, items, base());
    sw_.poll(0);
    return q;
}

bool Suite::read_level(Result &r, int64_t *level) {
    QueryResult q = get({kLevel}, base());
    return check(r, q.replied && value_num(q, kLevel, level), "a GET of the level answered",
                 q.error.empty() ? "no level in the answer" : q.error);
}

bool Suite::still_answers(Result &r, const char *after) {
    QueryResult q = get({CV_CORVANE_TLV_TYPE_NAME}, base());
    return check(r, q.replied, std::string("a normal GET answered after ") + after,
                 q.silent          ? "the connection closed without an answer"
                 : q.error.empty() ? "no reply"
                                   : q.error);
}

uint32_t Suite::reply_addr() const {
    if (opt_.cfg.source_addr != 0) return opt_.cfg.source_addr;
    return htonl(INADDR_LOOPBACK);
}

Bytes Suite::make_set_level(int64_t level, const Bytes &key, uint32_t seq) {
    SetItem it;
    it.type = kLevel;
    it.num = static_cast<uint8_t>(level);
    return sw_.build_query(id_, true, {}, {it}, base(), key, seq, reply_addr());
}

// Sends the first `cut` bytes (all when cut is 0) on a new connection and
// waits for whatever comes back; a cut message half-closes the sending side.
Raw Suite::send_raw(const Bytes &bytes, size_t cut, int wait_ms) {
    Raw x;
    const EndpointInfo *e = ep();
    if (e == nullptr || bytes.empty()) {
        x.why = "the message could not be built";
        return x;
    }
    int fd = connect_tcp(e->listener, opt_.cfg.source_addr, sw_.io_timeout_ms(), &x.why);
    if (fd < 0) return x;
    const Bytes part = cut == 0 ? bytes : Bytes(bytes.begin(), bytes.begin() + cut);
    if (!send_all(fd, part, sw_.io_timeout_ms(), &x.why)) {
        close_fd(&fd);
        return x;
    }
    if (cut != 0) ::shutdown(fd, SHUT_WR);
    const int rr = read_message(fd, &x.answer, wait_ms, &x.why);
    close_fd(&fd);
    x.outcome = rr == 1 ? 1 : rr == 0 || rr == -2 ? 0 : -1;
    if (rr == -1 && x.why.find("timed out") == std::string::npos) x.outcome = 0;
    sw_.poll(0);
    return x;
}

bool Suite::no_answer(Result &r, const Raw &x, const char *what) {
    if (!check(r, x.outcome != -3, std::string("the ") + what + " delivered",
               "could not send it: " + x.why))
        return false;
    std::string seen = "an answer";
    if (x.outcome == 1) {
        DecodedPdu p = decode_pdu(x.answer, nullptr);
        seen = "an answer: " + (p.framed ? pdu_kind(p) + " " + shipment_name(p.hdr.shipment)
                                         : std::to_string(x.answer.size()) + " bytes");
    }
    return check(r, x.outcome != 1, std::string("no answer to the ") + what, seen);
}

bool Suite::wait_heard(const std::function<bool(const Heard &)> &pred, size_t from, int ms) {
    return sw_.wait_for(
        [&] {
            for (size_t i = from; i < heard_.size(); ++i)
                if (pred(heard_[i])) return true;
            return false;
        },
        ms);
}

// ---- discovery and handshake ----------------------------------------

void Suite::discovery_well_formed(Result &r) {
    const DecodedPdu &p = heard_.front().pdu;
    if (!check(r, p.ok, "a decodable message", p.error)) return;
    check(r,
          p.hdr.cls == CV_CLASS_DISCOVERY &&
              p.hdr.action == CV_ACTION_KVQR_CORVANE_DISCOVERY_DISCOVERY_UPDATE &&
              p.hdr.shipment == CV_SHIPMENT_SEND,
          "class discovery, action update, shipment send",
          class_name(p.hdr.cls) + " " + action_name(p.hdr.cls, p.hdr.action) + " " +
              shipment_name(p.hdr.shipment));
    const DecodedTlv *sid = p.find(CV_CORVANE_TLV_TYPE_OHMRZ_ID);
    check(r, sid != nullptr && sid->value.text == p.sender(),
          "a sender-id TLV equal to the header's identifier",
          sid == nullptr ? "none" : sid->value.text);
    const DecodedTlv *to = p.find(CV_CORVANE_TLV_TYPE_REPLY_TO);
    sockaddr_in a{};
    if (to != nullptr && to->value.bytes.size() == sizeof a)
        memcpy(&a, to->value.bytes.data(), sizeof a);
    check(r, a.sin_port != 0, "a reply-to TLV with the listener's port",
          to == nullptr ? "none" : to->value.render());
    for (uint32_t t : {CV_CORVANE_TLV_TYPE_DOMAIN, CV_CORVANE_TLV_TYPE_NAME}) {
        const DecodedTlv *x = p.find(t);
        check(r, x != nullptr && x->value.kind == Value::Kind::Text && !x->value.text.empty(),
              "a non-empty " + tlv_name(t), x == nullptr ? "none" : "'" + x->value.text + "'");
    }
    const struct {
        uint32_t type;
        int64_t lo, hi;
    } ranges[] = {{kLevel, 0, kMaxLevel},
                  {CV_CORVANE_TLV_TYPE_IMPORTANCE, 1, 100},
                  {CV_CORVANE_TLV_TYPE_USAGE_CATEGORY, INT32_MIN, INT32_MAX}};
    for (const auto &rg : ranges) {
        const DecodedTlv *x = p.find(rg.type);
        const bool in = x != nullptr && x->value.kind == Value::Kind::Int &&
                        x->value.num >= rg.lo && x->value.num <= rg.hi;
        check(r, in, tlv_name(rg.type) + " from " + num(rg.lo) + " to " + num(rg.hi),
              x == nullptr ? "none" : x->value.render());
    }
}

void Suite::discovery_signed(Result &r) {
    const DecodedPdu &p = heard_.front().pdu;
    check(r, p.verdict == omsdk_tools::Verdict::Verified,
          opt_.cfg.secret.empty() ? "a digest made with the endpoint's identifier as the key"
                                  : "a digest made with the --key secret",
          std::string(verdict_text(p.verdict)) + " (is the device configured with this key?)");
}

void Suite::handshake_active(Result &r) {
    if (opt_.slow) {
        // The retry is watched before the handshake: nothing answers the
        // first broadcast until the second has come.
        const int64_t first = heard_.front().ms;
        const bool again = wait_heard([](const Heard &) { return true; }, 1,
                                      static_cast<int>((kRetrySeconds + 5) * 1000));
        if (again)
            retry_gap_ms_ = heard_[1].ms - first;
        else
            retry_why_ = "no second broadcast within " + num(kRetrySeconds + 5) + " s";
        sw_.set_acknowledging(true);
        replaying_ = true;
        const Heard &last = heard_.back();
        sw_.handle_datagram(last.pdu.raw, last.from);
        replaying_ = false;
    }
    const bool known = ep() != nullptr;
    if (!check(r, known, "a discovery the switch accepts, to acknowledge",
               "its digest did not verify: no handshake"))
        return;
    const bool active =
        sw_.wait_for([&] { return ep()->state == EndpointState::Active; }, kHandshakeMs);
    const bool nonce = std::any_of(heard_.begin(), heard_.end(), [](const Heard &h) {
        return h.pdu.find(CV_CORVANE_TLV_TYPE_NONCE) != nullptr;
    });
    handshake_ok_ = check(r, active && nonce, "an update carrying the endpoint's nonce",
                          std::string("state ") + state_text(ep()->state) + " after " +
                              num(kHandshakeMs / 1000) + " s");
    if (handshake_ok_) {
        const EndpointInfo *e = ep();
        found_.name = e->name;
        found_.role = e->role;
        found_.keywords = e->keywords;
        found_.importance = e->importance;
        found_.level = e->level;
        found_.category = e->category;
        now_ = found_;
    }
}

void Suite::nonce_key_in_use(Result &r) {
    QueryResult q = get({CV_CORVANE_TLV_TYPE_NAME}, base());
    if (!check(r, q.replied, "a GET signed with the nonce key answered",
               q.error.empty() ? "no answer" : q.error))
        return;
    const Bytes secret =
        opt_.cfg.secret.empty() ? Bytes(ep()->raw_id, ep()->raw_id + 32) : opt_.cfg.secret;
    hmac_sha_ctx ctx;
    memset(&ctx, 0, sizeof ctx);
    hmac_shainit(&ctx, secret.data(), static_cast<uint16_t>(secret.size()));
    const DecodedPdu with_secret = decode_pdu(q.reply.raw, &ctx);
    uint8_t spent[OHMARA_SHA1_DIGEST_SIZE];
    hmac_shafinal(spent, &ctx);
    check(r, with_secret.verdict == omsdk_tools::Verdict::Mismatch,
          "a reply that does not verify with the shared secret",
          std::string("with the shared secret: ") + verdict_text(with_secret.verdict));
    const Bytes wrong = sw_.build_query(id_, false, {CV_CORVANE_TLV_TYPE_NAME}, {}, base(), secret,
                                        sw_.take_seq(), reply_addr());
    no_answer(r, send_raw(wrong, 0, kFaultAnswerMs), "GET signed with the shared secret");
}

void Suite::discovery_repeated(Result &r) {
    if (opt_.slow) {
        if (!check(r, retry_gap_ms_ >= 0, "a second broadcast 30 s after the first", retry_why_))
            return;
        check(r,
              retry_gap_ms_ >= (kRetrySeconds - 2) * 1000 &&
                  retry_gap_ms_ <= (kRetrySeconds + 2) * 1000,
              "a second broadcast 30 s (+-2 s) after the first",
              "after " + seconds_text(ms_to_s(retry_gap_ms_)) + " s");
        if (opt_.interval == 0) return;
    }
    if (opt_.interval > 0) {
        // Updates the timer sends: nothing else asks for one meanwhile.
        const size_t from = heard_count();
        const int limit = (2 * opt_.interval + 3) * 1000;
        if (!check(r, wait_heard([](const Heard &) { return true; }, from + 1, limit),
                   "two updates within " + num(limit / 1000) + " s",
                   num(static_cast<int64_t>(heard_count() - from)) + " update(s)"))
            return;
        const int64_t gap = heard_[from + 1].ms - heard_[from].ms;
        check(r, gap >= (opt_.interval - 1) * 1000 - 500 && gap <= (opt_.interval + 1) * 1000 + 500,
              "an update every " + num(opt_.interval) + " s (+-1.5 s)",
              "updates " + seconds_text(ms_to_s(gap)) + " s apart");
        return;
    }
    if (!opt_.slow) {
        r.verdict = Verdict::Skip;
        r.why = "not observable within the run's time: the device repeats its broadcast every "
                "30 s until answered and its update every 180 s once attached (give --slow to "
                "watch the retry, or --interval S for a device set to a short interval)";
    }
}

// ---- GET ----------------------------------------------------------------

void Suite::get_every_attribute(Result &r) {
    // Two GETs: the reports carry the identity again in every entry, and
    // with them all in one reply it would pass the 1400-byte limit.
    std::vector<uint32_t> plain, reports;
    for (const AttributeName &a : get_attributes())
        (a.type >= CV_CORVANE_TLV_TYPE_USAGE_REPORT && a.type <= 45 ? reports : plain)
            .push_back(a.type);
    QueryResult q = get(plain, base());
    if (!check(r, q.replied, "an acknowledgement WILL and a reply",
               q.error.empty() ? "no reply" : q.error))
        return;
    QueryResult more = get(reports, base());
    if (!check(r, more.replied, "an acknowledgement WILL and a reply to a GET of the reports",
               more.error.empty() ? "no reply" : more.error))
        return;
    q.values.insert(q.values.end(), more.values.begin(), more.values.end());
    const EndpointInfo *e = ep();
    const bool metering = e->nanny < 0 || (e->nanny & 0x20) == 0;
    const uint32_t metered[] = {CV_CORVANE_TLV_TYPE_USAGE, CV_CORVANE_TLV_TYPE_UNITS, 38, 39, 36};
    for (const AttributeName &a : get_attributes()) {
        const uint32_t t = a.type == CV_CORVANE_TLV_TYPE_IMPORTANCE
                               ? static_cast<uint32_t>(CV_CORVANE_TLV_TYPE_IMPORTANCE_I)
                               : a.type;
        bool is_metered = false;
        for (uint32_t m : metered) is_metered = is_metered || m == t;
        const size_t want = is_metered && !metering ? 0 : 1;
        const size_t have = q.values_of(t).size();
        check(r, have == want, num(static_cast<int64_t>(want)) + " entry for " + a.name,
              num(static_cast<int64_t>(have)));
    }
    for (uint32_t t : {36u, 39u}) {
        std::vector<Value> v = q.values_of(t);
        check(r, v.empty() || v[0].list.size() == 11, tlv_name(t) + " of 11 entries",
              v.empty() ? "none" : v[0].render());
    }
    const struct {
        uint32_t type;
        std::string want;
    } agree[] = {{kLevel, num(e->level)},
                 {CV_CORVANE_TLV_TYPE_IMPORTANCE_I, num(e->importance)},
                 {CV_CORVANE_TLV_TYPE_USAGE_CATEGORY, num(e->category)},
                 {CV_CORVANE_TLV_TYPE_NAME, e->name},
                 {CV_CORVANE_TLV_TYPE_ROLE, e->role},
                 {CV_CORVANE_TLV_TYPE_KEYWORDS, e->keywords}};
    for (const auto &x : agree)
        check(r, value_text(q, x.type) == x.want,
              attribute_name(x.type) + " " + x.want + " as in the discovery",
              value_text(q, x.type));
}

void Suite::get_signed(Result &r) {
    QueryResult q = get({kLevel}, base());
    if (!check(r, q.replied, "an acknowledgement and a reply that verify with the nonce key",
               q.error.empty() ? "no reply" : q.error))
        return;
    for (const DecodedPdu *p : {&q.ack, &q.reply})
        check(r,
              p->hdr.cls == CV_CLASS_QUERY && p->hdr.action == CV_ACTION_KVQR_CORVANE_QUERY_COLLECT,
              "class query, action collect echoed",
              class_name(p->hdr.cls) + " " + action_name(p->hdr.cls, p->hdr.action));
    check(r, q.ack.hdr.shipment == CV_SHIPMENT_ACK_WILL, "acknowledgement WILL",
          shipment_name(q.ack.hdr.shipment));
    check(r, q.reply.hdr.shipment == CV_SHIPMENT_REPLY_NO_ERROR, "reply without error",
          shipment_name(q.reply.hdr.shipment));
    check(r, q.error.empty() && q.reply.hdr.seq == q.ack.hdr.seq,
          "the query's sequence number in both",
          q.error.empty()
              ? "reply " + num(q.reply.hdr.seq) + ", acknowledgement " + num(q.ack.hdr.seq)
              : q.error);
}

void Suite::get_stable(Result &r) {
    const std::vector<uint32_t> types = {kLevel,
                                         CV_CORVANE_TLV_TYPE_UNITS,
                                         38,
                                         CV_CORVANE_TLV_TYPE_USAGE_CATEGORY,
                                         CV_CORVANE_TLV_TYPE_IMPORTANCE,
                                         CV_CORVANE_TLV_TYPE_NAME,
                                         CV_CORVANE_TLV_TYPE_ROLE,
                                         CV_CORVANE_TLV_TYPE_KEYWORDS,
                                         48};
    std::string first;
    for (int i = 0; i < 3; ++i) {
        QueryResult q = get(types, base());
        if (!check(r, q.replied, "every GET answered", q.error.empty() ? "no reply" : q.error))
            return;
        std::string all;
        for (const QueryValue &v : q.values) all += v.name + "=" + v.entry.value.render() + " ";
        if (i == 0) first = all;
        check(r, all == first, first, all);
    }
}

// ---- SET ----------------------------------------------------------------

void Suite::set_level(Result &r) {
    int64_t level = 0;
    if (!read_level(r, &level)) return;
    const int64_t target = other_level(level);
    SetItem it;
    it.type = kLevel;
    it.num = static_cast<uint8_t>(target);
    const size_t from = heard_count();
    QueryResult q = set({it});
    if (!check(r, q.will(), "acknowledgement WILL for level " + num(target),
               q.acknowledged ? shipment_name(q.ack_shipment) : q.error))
        return;
    int64_t back = -1;
    if (!read_level(r, &back)) return;
    check(r, back == target, "level " + num(target) + " read back", "level " + num(back));
    now_.level = back;
    const bool announced = wait_heard(
        [&](const Heard &h) {
            const DecodedTlv *t = h.pdu.find(kLevel);
            return t != nullptr && t->value.num == target;
        },
        from, kUpdateWaitMs);
    check(r, announced, "a discovery update announcing level " + num(target),
          "none within " + num(kUpdateWaitMs / 1000) + " s");
}

void Suite::set_level_refused(Result &r) {
    int64_t level = 0;
    if (!read_level(r, &level)) return;
    SetItem it;
    it.type = kLevel;
    it.num = static_cast<uint8_t>(kMaxLevel + 1);
    QueryResult q = set({it});
    check(r, q.acknowledged && q.ack_shipment == CV_SHIPMENT_ACK_WONT,
          "acknowledgement WONT (refused) for level 11",
          q.acknowledged ? shipment_name(q.ack_shipment) : q.error);
    int64_t after = -1;
    if (read_level(r, &after))
        check(r, after == level, "level " + num(level) + " unchanged", "level " + num(after));
    now_.level = after;
}

void Suite::set_text(Result &r, uint32_t type, const std::string &value, std::string *tracked) {
    SetItem it;
    it.type = type;
    it.is_text = true;
    it.text = value;
    QueryResult q = set({it});
    if (!check(r, q.will(), "acknowledgement WILL",
               q.acknowledged ? shipment_name(q.ack_shipment) : q.error))
        return;
    *tracked = value;
    QueryResult back = get({type}, base());
    check(r, back.replied && value_text(back, type) == value, "'" + value + "' read back",
          back.replied ? "'" + value_text(back, type) + "'" : back.error);
}

void Suite::set_importance(Result &r) {
    const int64_t target = now_.importance == 30 ? 31 : 30;
    SetItem it;
    it.type = CV_CORVANE_TLV_TYPE_IMPORTANCE;
    it.num = static_cast<uint8_t>(target);
    QueryResult q = set({it});
    if (!check(r, q.will(), "acknowledgement WILL",
               q.acknowledged ? shipment_name(q.ack_shipment) : q.error))
        return;
    now_.importance = target;
    QueryResult back = get({CV_CORVANE_TLV_TYPE_IMPORTANCE}, base());
    int64_t v = -1;
    check(r, value_num(back, CV_CORVANE_TLV_TYPE_IMPORTANCE_I, &v) && v == target,
          "importance " + num(target) + " read back", back.replied ? num(v) : back.error);
}

// ---- filters --------------------------------------------------------------

void Suite::filter(Result &r, const Selectors &hit, const Selectors &miss, const char *what) {
    QueryResult a = get({CV_CORVANE_TLV_TYPE_NAME}, hit);
    check(r, a.replied, std::string("a query selecting its ") + what + " answered",
          a.silent ? "not answered (closed without a word)" : a.error);
    QueryResult b = get({CV_CORVANE_TLV_TYPE_NAME}, miss);
    check(r, b.silent, std::string("a query selecting another ") + what + " not answered",
          b.acknowledged ? "answered " + shipment_name(b.ack_shipment) : b.error);
}

void Suite::filter_role(Result &r) {
    Selectors hit = base(), miss = base();
    hit.roles.push_back(now_.role);
    miss.roles.push_back(now_.role + "-other");
    filter(r, hit, miss, "role");
}

void Suite::filter_name(Result &r) {
    Selectors hit = base(), prefix = base(), miss = base();
    hit.names.push_back(now_.name);
    prefix.names.push_back(now_.name.substr(0, 2) + "*");
    miss.names.push_back("zz-" + now_.name);
    filter(r, hit, miss, "name");
    filter(r, prefix, miss, "name by prefix");
}

void Suite::filter_keyword(Result &r) {
    const std::string k = now_.keywords.substr(now_.keywords.rfind(',') + 1);
    if (k.empty()) {
        r.verdict = Verdict::Skip;
        r.why = "the endpoint has no keywords";
        return;
    }
    Selectors hit = base(), miss = base();
    hit.keywords.push_back(k);
    miss.keywords.push_back(k + "-other");
    filter(r, hit, miss, "keyword");
}

void Suite::filter_category(Result &r) {
    Selectors hit, miss;
    hit.categories.push_back(static_cast<int32_t>(now_.category));
    miss.categories.push_back(static_cast<int32_t>(now_.category + 1));
    filter(r, hit, miss, "category");
}

void Suite::filter_importance(Result &r) {
    Selectors hit = base(), miss = base();
    hit.priority = static_cast<uint8_t>(now_.importance);
    miss.priority = static_cast<uint8_t>(now_.importance - 1);
    filter(r, hit, miss, "importance (as the priority)");
}

// ---- faults -------------------------------------------------------------

void Suite::fault_bad_digest(Result &r) {
    int64_t level = 0;
    if (!read_level(r, &level)) return;
    Bytes m = make_set_level(other_level(level), {}, sw_.take_seq());
    if (m.size() > 12) m[12] ^= 0xFF;  // the digest's first byte
    no_answer(r, send_raw(m, 0, kFaultAnswerMs), "SET with a wrong digest");
    int64_t after = -1;
    if (still_answers(r, "the bad digest") && read_level(r, &after))
        check(r, after == level, "level " + num(level) + " unchanged", "level " + num(after));
}

void Suite::fault_old_key(Result &r) {
    int64_t level = 0;
    if (!read_level(r, &level)) return;
    const Bytes old_key = ep()->nonce_key;
    const size_t from = heard_count();
    std::string why;
    if (!check(r, sw_.rekey(id_, sw_.nonce() ^ 0x5A5A5A5Au, &why),
               "an acknowledgement with a new switch nonce delivered", why))
        return;
    const bool told =
        wait_heard([](const Heard &h) { return h.pdu.find(CV_CORVANE_TLV_TYPE_NONCE) != nullptr; },
                   from, kUpdateWaitMs);
    if (!check(r, told, "an update carrying its nonce after the new switch nonce",
               "none within " + num(kUpdateWaitMs / 1000) + " s"))
        return;
    no_answer(
        r, send_raw(make_set_level(other_level(level), old_key, sw_.take_seq()), 0, kFaultAnswerMs),
        "SET signed with the previous nonce key");
    int64_t after = -1;
    if (still_answers(r, "the new nonce key") && read_level(r, &after))
        check(r, after == level, "level " + num(level) + " unchanged", "level " + num(after));
}

void Suite::fault_replay(Result &r) {
    int64_t level = 0;
    if (!read_level(r, &level)) return;
    const Bytes first = make_set_level(other_level(level), {}, sw_.take_seq());
    Raw a = send_raw(first, 0, sw_.io_timeout_ms());
    DecodedPdu ack = decode_pdu(a.answer, nullptr);
    if (!check(r, a.outcome == 1 && ack.hdr.shipment == CV_SHIPMENT_ACK_WILL,
               "the SET to replay accepted",
               a.outcome == 1 ? shipment_name(ack.hdr.shipment) : "no answer: " + a.why))
        return;
    SetItem back;
    back.type = kLevel;
    back.num = static_cast<uint8_t>(level);
    QueryResult q = set({back});
    int64_t settled = -1;
    if (!check(r, q.will(), "a second SET accepted", q.error) || !read_level(r, &settled)) return;
    no_answer(r, send_raw(first, 0, kFaultAnswerMs), "replayed SET");
    int64_t after = -1;
    if (read_level(r, &after))
        check(r, after == settled, "level " + num(settled) + " unchanged by the replay",
              "level " + num(after));
}

void Suite::fault_truncated(Result &r) {
    int64_t level = 0;
    if (!read_level(r, &level)) return;
    const Bytes m = make_set_level(other_level(level), {}, sw_.take_seq());
    no_answer(r, send_raw(m, m.size() / 2, kFaultAnswerMs), "truncated SET");
    int64_t after = -1;
    if (still_answers(r, "the truncated message") && read_level(r, &after))
        check(r, after == level, "level " + num(level) + " unchanged", "level " + num(after));
}

void Suite::fault_oversized(Result &r) {
    int64_t level = 0;
    if (!read_level(r, &level)) return;
    Bytes m = make_set_level(other_level(level), {}, sw_.take_seq());
    if (m.size() > 12) {
        const size_t digest_room = ((static_cast<size_t>(m[10]) << 8 | m[11]) + 3u) & ~size_t{3};
        const size_t at = 12 + digest_room + 44;  // the event header's TLV byte count
        if (at + 1 < m.size()) m[at] = 0xFF, m[at + 1] = 0xFF;
    }
    no_answer(r, send_raw(m, 0, kFaultAnswerMs), "SET announcing 65535 TLV bytes");
    int64_t after = -1;
    if (still_answers(r, "the oversized message") && read_level(r, &after))
        check(r, after == level, "level " + num(level) + " unchanged", "level " + num(after));
}

void Suite::fault_silent(Result &r) {
    std::string why;
    int fd = connect_tcp(ep()->listener, opt_.cfg.source_addr, sw_.io_timeout_ms(), &why);
    if (!check(r, fd >= 0, "a connection to the listener", why)) return;
    const int64_t t0 = now_ms();
    const int saved = sw_.io_timeout_ms();
    sw_.set_io_timeout_ms(kSilentHoldMs);
    const bool ok = still_answers(r, "a silent connection (waiting up to 12 s)");
    sw_.set_io_timeout_ms(saved);
    close_fd(&fd);
    if (ok) r.why = "answered after " + seconds_text(ms_to_s(now_ms() - t0)) + " s";
}

void Suite::fault_trickle(Result &r) {
    int64_t level = 0;
    if (!read_level(r, &level)) return;
    const Bytes m = make_set_level(other_level(level), {}, sw_.take_seq());
    std::string why;
    int fd = connect_tcp(ep()->listener, opt_.cfg.source_addr, sw_.io_timeout_ms(), &why);
    if (!check(r, fd >= 0, "a connection to the listener", why)) return;
    const int64_t t0 = now_ms();
    size_t sent = 0;
    bool cut = false;
    while (sent < m.size() && !cut) {
        if (send(fd, &m[sent], 1, MSG_NOSIGNAL) != 1) break;
        ++sent;
        pollfd p{fd, POLLIN, 0};
        cut = poll(&p, 1, kTrickleStepMs) > 0;  // closed (or, wrongly, an answer)
    }
    Bytes answer;
    const int rr = read_message(fd, &answer, kFaultAnswerMs, &why);
    close_fd(&fd);
    r.why = num(static_cast<int64_t>(sent)) + " of " + num(static_cast<int64_t>(m.size())) +
            " bytes sent in " + seconds_text(ms_to_s(now_ms() - t0)) + " s";
    check(r, rr != 1, "no answer to the trickled SET", "an answer after " + r.why);
    int64_t after = -1;
    if (still_answers(r, "the trickle") && read_level(r, &after))
        check(r, after == level, "level " + num(level) + " unchanged", "level " + num(after));
}

void Suite::fault_burst(Result &r) {
    std::vector<int> fds;
    std::string why;
    for (int i = 0; i < kBurst; ++i) {
        const Bytes m = sw_.build_query(id_, false, {CV_CORVANE_TLV_TYPE_NAME}, {}, base(), {},
                                        sw_.take_seq(), reply_addr());
        int fd = connect_tcp(ep()->listener, opt_.cfg.source_addr, sw_.io_timeout_ms(), &why);
        if (fd >= 0 && !send_all(fd, m, sw_.io_timeout_ms(), &why)) close_fd(&fd);
        if (fd >= 0) fds.push_back(fd);
    }
    hmac_sha_ctx ctx;
    memset(&ctx, 0, sizeof ctx);
    hmac_shainit(&ctx, ep()->nonce_key.data(), static_cast<uint16_t>(ep()->nonce_key.size()));
    int answered = 0;
    const int64_t deadline = now_ms() + 15000;
    for (int &fd : fds) {
        Bytes ack, reply;
        const int left = static_cast<int>(std::max<int64_t>(1, deadline - now_ms()));
        if (read_message(fd, &ack, left, &why) == 1 &&
            read_message(fd, &reply, std::max(1, left), &why) == 1 &&
            decode_pdu(reply, &ctx).verdict == omsdk_tools::Verdict::Verified)
            ++answered;
        close_fd(&fd);
    }
    uint8_t spent[OHMARA_SHA1_DIGEST_SIZE];
    hmac_shafinal(spent, &ctx);
    sw_.poll(0);
    check(r, answered == kBurst, num(kBurst) + " GETs answered",
          num(answered) + " answered" + (why.empty() ? "" : " (last trouble: " + why + ")"));
    still_answers(r, "the burst");
}

void Suite::fault_garbage(Result &r) {
    int64_t level = 0;
    if (!read_level(r, &level)) return;
    std::string why;
    int fd = open_udp(opt_.cfg.source_addr, 0, &why);
    if (!check(r, fd >= 0, "a UDP socket", why)) return;
    std::mt19937 rng(20240501u);  // the same garbage every run
    const Bytes real = heard_.front().pdu.raw;
    sockaddr_in to[2] = {heard_.back().from, ep()->listener};
    int sent = 0;
    for (int i = 0; i < kGarbage; ++i) {
        // Random bytes, every fourth one behind a real message's headers.
        Bytes g(1 + rng() % 1400);
        for (uint8_t &b : g) b = static_cast<uint8_t>(rng());
        if (i % 4 == 0)
            std::copy(real.begin(), real.begin() + std::min(real.size(), g.size()) / 2, g.begin());
        const sockaddr_in &dst = to[i % 2];
        if (sendto(fd, g.data(), g.size(), 0, reinterpret_cast<const sockaddr *>(&dst),
                   sizeof dst) > 0)
            ++sent;
    }
    close_fd(&fd);
    r.why = num(sent) + " datagrams sent to " + addr_text(to[0]) + " and " + addr_text(to[1]);
    int64_t after = -1;
    if (still_answers(r, "the garbage") && read_level(r, &after))
        check(r, after == level, "level " + num(level) + " unchanged", "level " + num(after));
}

// ---- the run as a whole -------------------------------------------------

void Suite::discovery_sequence(Result &r) {
    if (heard_.size() < 2) {
        r.verdict = Verdict::Skip;
        r.why = "only one discovery heard";
        return;
    }
    for (size_t i = 1; i < heard_.size(); ++i) {
        const uint32_t a = heard_[i - 1].pdu.hdr.seq, b = heard_[i].pdu.hdr.seq;
        if (!check(r, static_cast<int32_t>(b - a) > 0,
                   "sequence numbers rising: more than " + num(a) + " after " + num(a),
                   num(b) + " (discovery " + num(static_cast<int64_t>(i + 1)) + " of " +
                       num(static_cast<int64_t>(heard_.size())) + ")"))
            return;
    }
    r.why = num(static_cast<int64_t>(heard_.size())) + " discovery events";
}

void Suite::shutdown(Result &r) {
    if (opt_.stop_command.empty()) {
        r.verdict = Verdict::Skip;
        r.why = "no --stop-command given";
        return;
    }
    const size_t from = heard_count();
    const pid_t pid = fork();
    if (pid == 0) {
        execl("/bin/sh", "sh", "-c", opt_.stop_command.c_str(), static_cast<char *>(nullptr));
        _exit(127);
    }
    int status = 0;
    bool done = false;
    for (int i = 0; i < 100 && !done && pid > 0; ++i) {  // at most 10 s
        done = waitpid(pid, &status, WNOHANG) == pid;
        if (!done) sw_.poll(100);
    }
    if (!done && pid > 0) {
        kill(pid, SIGKILL);
        waitpid(pid, &status, 0);
    }
    if (!check(r, done && WIFEXITED(status) && WEXITSTATUS(status) == 0,
               "the stop command succeeded", "it failed or ran over 10 s"))
        return;
    const bool left = wait_heard(
        [](const Heard &h) {
            return h.pdu.hdr.action == CV_ACTION_KVQR_CORVANE_DISCOVERY_DELETE &&
                   h.pdu.verdict == omsdk_tools::Verdict::Verified;
        },
        from, 10000);
    check(r, left, "a signed discovery delete", "none within 10 s");
}

// Leaves the device as it was found, as far as the suite changed it.
void Suite::restore() {
    if (!handshake_ok_) return;
    std::vector<SetItem> items;
    auto text = [&](uint32_t type, const std::string &was, const std::string &is) {
        if (was == is) return;
        SetItem it;
        it.type = type;
        it.is_text = true;
        it.text = was;
        items.push_back(it);
    };
    text(CV_CORVANE_TLV_TYPE_NAME, found_.name, now_.name);
    text(CV_CORVANE_TLV_TYPE_ROLE, found_.role, now_.role);
    text(CV_CORVANE_TLV_TYPE_KEYWORDS, found_.keywords, now_.keywords);
    for (const auto &n :
         {std::make_pair(kLevel, found_.level),
          std::make_pair(uint32_t{CV_CORVANE_TLV_TYPE_IMPORTANCE}, found_.importance)}) {
        if (n.second < 0) continue;
        SetItem it;
        it.type = n.first;
        it.num = static_cast<uint8_t>(n.second);
        items.push_back(it);
    }
    QueryResult q = set(items);
    line(q.will() ? "conform: the device's level and identity are restored"
                  : "conform: could not restore the device's identity: " +
                        (q.acknowledged ? shipment_name(q.ack_shipment) : q.error));
}

void Suite::write_reports(double total) {
    int failed = 0, skipped = 0;
    for (const Result &x : results_) {
        failed += x.verdict == Verdict::Fail;
        skipped += x.verdict == Verdict::Skip;
    }
    const int n = static_cast<int>(results_.size());
    if (!opt_.junit.empty()) {
        std::ofstream f(opt_.junit);
        f << "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
          << "<testsuites name=\"omsdk-switch conform\" tests=\"" << n << "\" failures=\"" << failed
          << "\" errors=\"0\" skipped=\"" << skipped << "\" time=\"" << seconds_text(total)
          << "\">\n"
          << "  <testsuite name=\"conform " << xml_escape(id_) << "\" tests=\"" << n
          << "\" failures=\"" << failed << "\" errors=\"0\" skipped=\"" << skipped << "\" time=\""
          << seconds_text(total) << "\" timestamp=\"" << started_.substr(0, 19) << "\">\n"
          << "    <properties><property name=\"endpoint\" value=\"" << xml_escape(id_)
          << "\"/></properties>\n";
        for (size_t i = 0; i < ran_.size(); ++i) {
            const Result &x = results_[i];
            f << "    <testcase classname=\"conform\" name=\"" << ran_[i]->id << "\" time=\""
              << seconds_text(x.seconds) << "\">\n";
            if (x.verdict == Verdict::Fail)
                f << "      <failure message=\"" << xml_escape("expected " + x.expected)
                  << "\" type=\"nonconformance\">"
                  << xml_escape("rule: " + std::string(ran_[i]->rule))
                  << "\nexpected: " << xml_escape(x.expected)
                  << "\nobserved: " << xml_escape(x.observed) << "</failure>\n";
            if (x.verdict == Verdict::Skip)
                f << "      <skipped message=\"" << xml_escape(x.why) << "\"/>\n";
            f << "      <system-out>" << xml_escape(ran_[i]->rule) << "</system-out>\n"
              << "    </testcase>\n";
        }
        f << "  </testsuite>\n</testsuites>\n";
        if (!f) line("conform: cannot write " + opt_.junit);
    }
    if (!opt_.json.empty()) {
        std::ofstream f(opt_.json);
        f << "{\"tool\":\"omsdk-switch conform\",\"version\":" << json_str(OMSDK_TOOLS_VERSION)
          << ",\"started\":" << json_str(started_) << ",\"finished\":" << json_str(iso_time_text())
          << ",\"endpoint\":" << json_str(id_) << ",\"seconds\":" << seconds_text(total)
          << ",\"passed\":" << n - failed - skipped << ",\"failed\":" << failed
          << ",\"skipped\":" << skipped << ",\"cases\":[";
        for (size_t i = 0; i < ran_.size(); ++i) {
            const Result &x = results_[i];
            f << (i == 0 ? "" : ",") << "\n{\"n\":" << i + 1 << ",\"id\":" << json_str(ran_[i]->id)
              << ",\"rule\":" << json_str(ran_[i]->rule) << ",\"required\":"
              << (ran_[i]->run != &Suite::shutdown || !opt_.stop_command.empty() ? "true" : "false")
              << ",\"verdict\":" << json_str(verdict_word(x.verdict))
              << ",\"started\":" << json_str(x.started)
              << ",\"seconds\":" << seconds_text(x.seconds);
            if (x.verdict == Verdict::Fail)
                f << ",\"expected\":" << json_str(x.expected)
                  << ",\"observed\":" << json_str(x.observed);
            if (!x.why.empty()) f << ",\"note\":" << json_str(x.why);
            f << "}";
        }
        f << "\n]}\n";
        if (!f) line("conform: cannot write " + opt_.json);
    }
}

int Suite::run() {
    started_ = iso_time_text();
    std::string why;
    if (!sw_.start(&why)) {
        fprintf(stderr, "omsdk-switch conform: %s\n", why.c_str());
        return 1;
    }
    signal(SIGPIPE, SIG_IGN);
    sw_.set_observer([this](const SwitchEvent &ev) { observe(ev); });
    sw_.set_acknowledging(!opt_.slow);
    for (const Case &c : kCases) {
        bool chosen = opt_.only.empty();
        for (const std::string &o : opt_.only) chosen = chosen || o == c.id;
        if (chosen) ran_.push_back(&c);
    }
    const int64_t t0 = now_ms();
    line("conform: hearing discovery on " + ip_text(opt_.cfg.bind_addr) + ":" +
         num(sw_.udp_port()) + "; start the device now (waiting up to " +
         seconds_text(opt_.wait_s) + " s for " + opt_.endpoint + ")");
    const bool heard =
        sw_.wait_for([&] { return !heard_.empty(); }, static_cast<int>(opt_.wait_s * 1000));
    if (heard) {
        const Heard &h = heard_.front();
        line("conform: endpoint " + id_ + " heard from " + addr_text(h.from));
    } else {
        line("conform: no discovery from " + opt_.endpoint + " in " + seconds_text(opt_.wait_s) +
             " s on UDP port " + num(sw_.udp_port()) +
             " (is the device started, on this port, in this broadcast domain?)");
    }
    // The handshake runs whatever --only says: most cases need it.
    bool handshake_run = false;
    const int width = ran_.size() >= 10 ? 2 : 1;
    for (size_t i = 0; i < ran_.size(); ++i) {
        const Case &c = *ran_[i];
        if (heard && !handshake_run && c.needs_handshake) {
            Result scratch;
            handshake_active(scratch);
            handshake_run = true;
        }
        if (c.run == &Suite::handshake_active) handshake_run = true;
        Result r;
        r.started = iso_time_text();
        const int64_t c0 = now_ms();
        if (!heard && c.run != &Suite::shutdown) {
            r.verdict = c.run == &Suite::discovery_well_formed ? Verdict::Fail : Verdict::Skip;
            r.expected = "a discovery from the device";
            r.observed = "none in " + seconds_text(opt_.wait_s) + " s";
            r.why = "no discovery heard";
        } else if (c.needs_handshake && !handshake_ok_) {
            r.verdict = Verdict::Skip;
            r.why = "needs the handshake, which did not complete";
        } else {
            (this->*c.run)(r);
        }
        r.seconds = ms_to_s(now_ms() - c0);
        results_.push_back(r);
        char head[64];
        snprintf(head, sizeof head, "[%*zu/%zu] ", width, i + 1, ran_.size());
        std::string text = head + std::string(c.id) + " ... " + verdict_word(r.verdict) + " " +
                           seconds_text(r.seconds) + " s";
        if (r.verdict == Verdict::Fail)
            text += "\n      expected: " + r.expected + "\n      observed: " + r.observed;
        else if (!r.why.empty())
            text += "\n      " + r.why;
        line(text);
        if (i + 2 == ran_.size() && ran_.back()->run == &Suite::shutdown) restore();
    }
    if (ran_.empty() || ran_.back()->run != &Suite::shutdown) restore();
    const double total = ms_to_s(now_ms() - t0);

    int failed = 0, skipped = 0;
    std::string table = "summary of " + (id_.empty() ? opt_.endpoint : id_) + ":\n";
    for (size_t i = 0; i < ran_.size(); ++i) {
        char row[160];
        snprintf(row, sizeof row, "  %2zu  %-22s %-8s %6s s", i + 1, ran_[i]->id,
                 verdict_word(results_[i].verdict), seconds_text(results_[i].seconds).c_str());
        table += row + std::string("\n");
        failed += results_[i].verdict == Verdict::Fail;
        skipped += results_[i].verdict == Verdict::Skip;
    }
    const int passed = static_cast<int>(ran_.size()) - failed - skipped;
    table += "  " + num(passed) + " passed, " + num(failed) + " failed, " + num(skipped) +
             " skipped in " + seconds_text(total) + " s";
    line(table);
    write_reports(total);
    return failed > 0 || !heard ? 1 : 0;
}

[[noreturn]] void usage_error(const std::string &why) {
    fprintf(stderr, "omsdk-switch conform: %s\n%s", why.c_str(), kConformHelp);
    exit(2);
}

}  // namespace

int run_conform(const std::vector<std::string> &args) {
    Options o;
    std::string why;
    bool have_endpoint = false;
    for (size_t i = 0; i < args.size(); ++i) {
        std::string a = args[i], value;
        const size_t eq = a.find('=');
        const bool takes = a == "--key" || a == "--port" || a == "--from" || a == "--only" ||
                           a == "--junit" || a == "--json" || a == "--wait" || a == "--interval" ||
                           a == "--stop-command";
        if (a.compare(0, 2, "--") == 0 && eq != std::string::npos) {
            value = a.substr(eq + 1);
            a = a.substr(0, eq);
        } else if (takes) {
            if (i + 1 >= args.size()) usage_error(a + " needs a value");
            value = args[++i];
        }
        long long n = 0;
        if (a == "--help" || a == "-h") {
            fputs(kConformHelp, stdout);
            exit(0);
        } else if (a == "--slow") {
            o.slow = true;
        } else if (a == "--list") {
            o.list = true;
        } else if (a == "--key") {
            if (!parse_key(value, &o.cfg.secret, &why)) usage_error(why);
        } else if (a == "--port") {
            if (!parse_int(value, 1, 65535, &n))
                usage_error("--port needs a number from 1 to 65535");
            o.cfg.port = static_cast<uint16_t>(n);
        } else if (a == "--from") {
            if (!parse_ipv4(value, &o.cfg.source_addr) || o.cfg.source_addr == 0)
                usage_error("--from needs an IPv4 address, got '" + value + "'");
        } else if (a == "--only") {
            for (size_t at = 0; at <= value.size();) {
                size_t comma = value.find(',', at);
                const std::string id =
                    value.substr(at, comma == std::string::npos ? comma : comma - at);
                at = comma == std::string::npos ? value.size() + 1 : comma + 1;
                if (id.empty()) continue;
                bool known = false;
                for (const Case &c : kCases) known = known || id == c.id;
                if (!known) usage_error("--only: no case '" + id + "' (--list shows them)");
                o.only.push_back(id);
            }
        } else if (a == "--junit") {
            o.junit = value;
        } else if (a == "--json") {
            o.json = value;
        } else if (a == "--stop-command") {
            o.stop_command = value;
        } else if (a == "--wait") {
            if (!parse_int(value, 1, 3600, &n)) usage_error("--wait needs seconds from 1 to 3600");
            o.wait_s = static_cast<double>(n);
        } else if (a == "--interval") {
            if (!parse_int(value, 1, 20, &n)) usage_error("--interval needs seconds from 1 to 20");
            o.interval = static_cast<int>(n);
        } else if (a.compare(0, 1, "-") == 0) {
            usage_error("unknown option " + a);
        } else if (!have_endpoint) {
            uint32_t addr = 0;
            const std::string host = a.substr(0, a.find(':'));
            bool ok = a == "first" || parse_ipv4(host, &addr);
            if (a.size() == 32) ok = true;
            if (!ok)
                usage_error("ENDPOINT is first, an identifier, ADDR or ADDR:PORT; got '" + a + "'");
            o.endpoint = a;
            have_endpoint = true;
        } else {
            usage_error("one ENDPOINT only, got a second: '" + a + "'");
        }
    }
    if (o.list) {
        for (size_t i = 0; i < kCaseCount; ++i)
            printf("%2zu  %-22s %s%s\n", i + 1, kCases[i].id, kCases[i].rule,
                   kCases[i].run == &Suite::shutdown ? " (optional)" : "");
        return 0;
    }
    if (!have_endpoint) usage_error("which endpoint? (first, an identifier, ADDR or ADDR:PORT)");
    Suite suite(o);
    return suite.run();
}

}  // namespace omsdk_switch
