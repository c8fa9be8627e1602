// SPDX-License-Identifier: Apache-2.0
// omsdk-switch: plays the parent switch of an Ohmara domain for lab work
// and tests. It hears discovery, handshakes with every endpoint, answers
// alarm requests, runs GET/SET/delete actions and prints what it sees;
// `decode` checks one captured message.
#include <arpa/inet.h>
#include <ctype.h>
#include <errno.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/resource.h>
#include <time.h>

#include <fstream>
#include <iostream>
#include <sstream>
#include <string>
#include <vector>

#include <omsdk.h>

#include "actions.h"
#include "attributes.h"
#include "conform.h"
#include "diag/capture.h"
#include "net.h"
#include "pdu_view.h"
#include "sweep.h"
#include "switch.h"
#include "text_util.h"

using namespace omsdk_tools;
using namespace omsdk_switch;

namespace {

const char kUsage[] =
    "usage: omsdk-switch [OPTIONS] [ACTION...]\n"
    "       omsdk-switch decode HEX [--key KEY] [--nonce-key HEX] [--json] [--verbose]\n"
    "       omsdk-switch conform [OPTIONS] ENDPOINT   (see omsdk-switch conform --help)\n"
    "       omsdk-switch --help | --version\n";

const char kHelp[] =
    "Plays the parent switch of an Ohmara domain: hears the endpoints' discovery\n"
    "on a UDP port, handshakes with each of them, keeps a table of endpoints,\n"
    "answers their alarm requests, and runs the actions given after the options\n"
    "(or in a script). Without actions it serves until interrupted.\n"
    "\n"
    "Options:\n"
    "  --port N          UDP port to hear discovery on (default 43440)\n"
    "                      e.g. --port 47001\n"
    "  --bind ADDR       address of the UDP socket (default 0.0.0.0, every interface)\n"
    "                      e.g. --bind 0.0.0.0\n"
    "  --key KEY         shared secret of the domain, as text or hex:BYTES; without it\n"
    "                    each endpoint's own identifier serves as its key\n"
    "                      e.g. --key secret   --key hex:00112233445566778899\n"
    "  --source ADDR     bind outgoing TCP connections to this local address\n"
    "                    (default: no bind, the system chooses)\n"
    "                      e.g. --source 127.0.0.2\n"
    "  --alarms MODE     answer alarm requests ok, failed or ignore (default ok);\n"
    "                    ignore still acknowledges the discovery update that carries\n"
    "                    the request, without an answer to it\n"
    "                      e.g. --alarms failed\n"
    "  --script FILE     read actions from FILE, one a line ('-' for standard input);\n"
    "                    they run after the actions given on the command line\n"
    "                      e.g. --script lab.txt\n"
    "  --timeout SECONDS bound of each connect, send and read (default 3)\n"
    "                      e.g. --timeout 10\n"
    "  --acks-in-flight N  acknowledgements on their way at once, each on its own\n"
    "                    connection (default 256); the others wait their turn\n"
    "                      e.g. --acks-in-flight 32\n"
    "  --switch-id ID    the switch's own 32-character identifier (default: random)\n"
    "                      e.g. --switch-id fedcba9876543210fedcba9876543210\n"
    "  --capture FILE    write every message sent and received to FILE (pcapng, for\n"
    "                    tools/wireshark/ohmara.lua)    e.g. --capture lab.pcapng\n"
    "  --json            one JSON object per line (each with its \"time\") instead of\n"
    "                    readable lines      e.g. --json --script lab.txt\n"
    "  --verbose         show every message in full (each TLV, and a hex dump that\n"
    "                    decode accepts), what the switch sends, and the nonce key\n"
    "                    derived at each handshake; without it the results come first\n"
    "                    and each discovery is one line\n"
    "                      e.g. --verbose wait 60\n"
    "  --help            this text (--version: the tool's version)\n"
    "\n"
    "Selectors (before the actions: for every query; inside an action: for that one).\n"
    "They travel in the query and each endpoint decides whether it is addressed;\n"
    "for delete they choose the endpoints locally.\n"
    "  --name PATTERN    name, with a trailing * for a prefix   e.g. --name 'lamp*'\n"
    "  --role PATTERN    role, likewise                         e.g. --role light\n"
    "  --keyword WORD    one of the endpoint's keywords         e.g. --keyword floor2\n"
    "  --category N      usage category                          e.g. --category 1\n"
    "  --id IDENTIFIER   one endpoint's 32-character identifier (queries go only to it)\n"
    "                      e.g. --id 0123456789abcdef0123456789abcdef\n"
    "  --priority N      query priority; endpoints of higher importance stay silent\n"
    "                    (default 100)                           e.g. --priority 50\n"
    "\n"
    "Actions (each starts with its word; on the command line an action may be one\n"
    "quoted argument, in a script it is one line; '#' starts a comment line):\n"
    "  list                       print the endpoint table\n"
    "  get ATTR[,ATTR...]         query attributes of every active endpoint:\n"
    "                             level usage units caliber category usage-vector\n"
    "                             delta-vector usage-report usage-vector-report\n"
    "                             delta-vector-report importance name role keywords\n"
    "                             device-type\n"
    "                               e.g. get level,usage --name lamp*\n"
    "  sweep ATTR[,ATTR...] [--rate QPS] [--in-flight N]\n"
    "                             the GET of get sent to every active endpoint,\n"
    "                             up to N at once (default 64) and at most QPS\n"
    "                             started a second (default: no limit); prints the\n"
    "                             failures and one summary: how many answered,\n"
    "                             failed or timed out, latency min/p50/p90/p99/max\n"
    "                               e.g. sweep level,name --rate 2000 --in-flight 128\n"
    "  set NAME=VALUE...          change level=N importance=N name=S role=S\n"
    "                             keywords=S (an empty value asks for the default)\n"
    "                               e.g. set level=3   set \"role=desk light\"\n"
    "  delete                     send a discovery delete (endpoints go back to\n"
    "                             discovery and are handshaken again when heard)\n"
    "  wait SECONDS               keep serving for this long     e.g. wait 2.5\n"
    "  wait-for N [SECONDS]       wait until N endpoints are active (default limit\n"
    "                             60 s; exceeding it is an error) e.g. wait-for 2\n"
    "\n"
    "Examples:\n"
    "  omsdk-switch --port 47001 --key secret wait-for 1 \"get level,name\" \"set level=3\" delete\n"
    "  omsdk-switch --key secret --json --script lab.txt\n"
    "  omsdk-switch decode 0002...ab --key secret\n"
    "\n"
    "decode HEX: decodes one message given in hexadecimal, or as the hex dump that\n"
    "--verbose prints ('-' reads it from standard input), and checks its digest: a\n"
    "discovery message (and the switch's acknowledgement of one) with --key, any\n"
    "other with --nonce-key (the 20-byte key --verbose prints at each handshake).\n"
    "Without the needed key it says \"not verified\". An endpoint configured\n"
    "without a key signs discovery with its own identifier: give that as --key.\n"
    "\n"
    "Exit status: 0 done (an endpoint that stays silent because the selectors do\n"
    "not address it, or that refuses a SET, is a result, not an error); 1 a\n"
    "network error (bind, connect, an answer missing, malformed or failing its\n"
    "digest), a wait-for that ran out, an action with no active endpoint, or\n"
    "(decode) a digest mismatch or an undecodable message; 2 a bad argument.\n";

volatile sig_atomic_t g_stop = 0;
void on_signal(int) { g_stop = 1; }

[[noreturn]] void usage_error(const std::string &why) {
    fprintf(stderr, "omsdk-switch: %s\n%s", why.c_str(), kUsage);
    exit(2);
}

struct Options {
    SwitchConfig cfg;
    bool json = false;
    bool verbose = false;
    Selectors sel;  // global selectors
    bool has_priority = false;
    std::string script;
    std::string capture;  // pcapng file, or empty
    std::vector<Action> actions;
};

// Writes what the switch sends and receives into a pcapng file. The
// switch's side of each TCP connection gets a made-up port, a new one per
// connection it opens; the endpoint's side is its listener.
class Capturer {
public:
    bool open(const std::string &path, const SwitchConfig &cfg, uint16_t udp_port) {
        self_ = sockaddr_in{};
        self_.sin_family = AF_INET;
        self_.sin_addr.s_addr = cfg.source_addr != 0 ? cfg.source_addr : cfg.bind_addr;
        if (self_.sin_addr.s_addr == 0) self_.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        udp_port_ = htons(udp_port);
        return omsdk::capture_open(cap_, path.c_str(), 0);
    }
    void event(const SwitchEvent &ev) {
        if (cap_.file == nullptr || ev.pdu == nullptr || ev.info == nullptr) return;
        const Bytes &raw = ev.pdu->raw;
        const char *comment = verdict_comment(ev.pdu->verdict);
        sockaddr_in me = self_;
        if (ev.kind == SwitchEvent::Kind::Sent) {
            tcp_port_ = tcp_port_ >= 60999 ? 50000 : tcp_port_ + 1;  // a new connection
            me.sin_port = htons(tcp_port_);
            omsdk::capture_tcp(cap_, me, ev.info->listener, raw.data(), raw.size(), nullptr);
        } else if (ev.kind == SwitchEvent::Kind::Received &&
                   ev.pdu->hdr.cls == CV_CLASS_DISCOVERY && ev.pdu->hdr.shipment >= 0) {
            me.sin_port = udp_port_;
            omsdk::capture_udp(cap_, ev.info->source, me, raw.data(), raw.size(), comment);
        } else if (ev.kind == SwitchEvent::Kind::Received) {
            me.sin_port = htons(tcp_port_);
            omsdk::capture_tcp(cap_, ev.info->listener, me, raw.data(), raw.size(), comment);
        }
    }
    void close() { omsdk::capture_close(cap_); }

private:
    static const char *verdict_comment(Verdict v) {
        return v == Verdict::Verified   ? "digest ok"
               : v == Verdict::Mismatch ? "digest mismatch"
                                        : nullptr;
    }
    omsdk::capture cap_;
    sockaddr_in self_{};
    uint16_t udp_port_ = 0;
    uint16_t tcp_port_ = 50000;
};

std::string time_text(time_t t) {
    if (t == 0) return "-";
    char buf[32];
    struct tm tmv;
    localtime_r(&t, &tmv);
    strftime(buf, sizeof buf, "%Y-%m-%d %H:%M:%S", &tmv);
    return buf;
}

std::string alarm_json(const AlarmRequest &a) {
    return "{\"id\":" + std::to_string(a.id) + ",\"operation\":" + std::to_string(a.operation) +
           ",\"seconds\":" + std::to_string(a.seconds) + ",\"param1\":" + std::to_string(a.param1) +
           ",\"param2\":" + std::to_string(a.param2) + "}";
}

const char *alarm_op(int32_t op) { return op == 1 ? "set" : op == 4 ? "clear-all" : "unexpected"; }

// What an acknowledgement says, in words.
std::string answer_words(int shipment) {
    if (shipment == CV_SHIPMENT_ACK_WILL) return "accepted";
    if (shipment == CV_SHIPMENT_ACK_WONT) return "refused by the device";
    return shipment_name(shipment);
}

// One line for a message heard: who, what it announces, and its digest.
std::string summary(const DecodedPdu &p, const std::string &from) {
    std::string s = pdu_kind(p) + " from " + from + ": ";
    if (!p.ok) return s + "undecodable (" + p.error + ")";
    if (p.hdr.action == CV_ACTION_KVQR_CORVANE_DISCOVERY_DELETE && p.hdr.cls == CV_CLASS_DISCOVERY)
        return s + p.sender() + " leaves the domain, seq " + std::to_string(p.hdr.seq) +
               ", digest " + verdict_text(p.verdict);
    auto text = [&](uint32_t type) {
        const DecodedTlv *t = p.find(type);
        return t != nullptr ? t->value.render() : std::string("?");
    };
    s += text(CV_CORVANE_TLV_TYPE_NAME) + " (" + text(CV_CORVANE_TLV_TYPE_ROLE) + ")";
    const struct {
        uint32_t type;
        const char *label;
    } shown[] = {{CV_CORVANE_TLV_TYPE_LEVEL_CURRENT, "level"},
                 {CV_CORVANE_TLV_TYPE_USAGE, "usage"},
                 {CV_CORVANE_TLV_TYPE_IMPORTANCE, "importance"},
                 {CV_CORVANE_TLV_TYPE_NONCE, "nonce"}};
    for (const auto &x : shown)
        if (p.find(x.type) != nullptr) s += ", " + std::string(x.label) + " " + text(x.type);
    return s + ", seq " + std::to_string(p.hdr.seq) + ", digest " + verdict_text(p.verdict);
}

// Writes what the switch sees, readable or as JSON lines.
class Printer {
public:
    Printer(bool json, bool verbose) : json_(json), verbose_(verbose) {}

    void event(const SwitchEvent &ev) {
        switch (ev.kind) {
        case SwitchEvent::Kind::EndpointSeen:
            if (json_)
                line("{\"event\":\"endpoint\",\"id\":" + json_str(ev.info->id) +
                     ",\"from\":" + json_str(ev.text) + "}");
            else
                line("new endpoint " + ev.info->id + " from " + ev.text);
            break;
        case SwitchEvent::Kind::Received:
            // Results come first: without --verbose, discovery is one line
            // and acknowledgements and replies show in the action's result.
            if (json_ || verbose_)
                message("received", pdu_kind(*ev.pdu) + " from " + ev.text, *ev.pdu, "from",
                        ev.text);
            else if (ev.pdu->hdr.cls == CV_CLASS_DISCOVERY && ev.pdu->hdr.shipment == 0)
                line(summary(*ev.pdu, ev.text));
            break;
        case SwitchEvent::Kind::Sent:
            if (verbose_)
                message("sent", pdu_kind(*ev.pdu) + " to " + ev.text, *ev.pdu, "to", ev.text);
            break;
        case SwitchEvent::Kind::Acknowledged:
            if (json_)
                line("{\"event\":\"handshake\",\"id\":" + json_str(ev.info->id) +
                     ",\"state\":\"acknowledged\",\"listener\":" + json_str(ev.text) + "}");
            else
                line("handshake: acknowledged " + ev.info->id + " at " + ev.text);
            break;
        case SwitchEvent::Kind::HandshakeDone: {
            if (json_) {
                std::string s = "{\"event\":\"handshake\",\"id\":" + json_str(ev.info->id) +
                                ",\"state\":\"active\"";
                if (verbose_) s += ",\"nonce_key\":" + json_str(ev.text);
                line(s + "}");
            } else {
                line("handshake: " + ev.info->id + " active" +
                     (verbose_ ? "  nonce key " + ev.text : std::string()));
            }
            break;
        }
        case SwitchEvent::Kind::AlarmRequest:
            if (json_)
                line("{\"event\":\"alarm_request\",\"id\":" + json_str(ev.info->id) +
                     ",\"alarm\":" + alarm_json(ev.alarm) + "}");
            else
                line("alarm request from " + ev.info->id + ": id " + std::to_string(ev.alarm.id) +
                     " " + alarm_op(ev.alarm.operation) + " seconds " +
                     std::to_string(ev.alarm.seconds) + " params " +
                     std::to_string(ev.alarm.param1) + "," + std::to_string(ev.alarm.param2));
            break;
        case SwitchEvent::Kind::AlarmAnswered: {
            const char *st = ev.alarm_status == 2   ? "ok"
                             : ev.alarm_status == 3 ? "failed"
                                                    : "ignored";
            if (json_)
                line("{\"event\":\"alarm_answer\",\"id\":" + json_str(ev.info->id) +
                     ",\"request\":" + std::to_string(ev.alarm.id) + ",\"status\":" + json_str(st) +
                     "}");
            else
                line("alarm answer to " + ev.info->id + ": id " + std::to_string(ev.alarm.id) +
                     " " + st);
            break;
        }
        case SwitchEvent::Kind::QueryDone: break;  // results are printed by the action that asked
        case SwitchEvent::Kind::Error:
            if (json_)
                line("{\"event\":\"error\",\"text\":" + json_str(ev.text) + "}");
            else
                fprintf(stderr, "%s omsdk-switch: %s\n", clock_text().c_str(), ev.text.c_str());
            break;
        }
    }

    void result(const char *what, const QueryResult &r) {
        std::string ack = r.acknowledged ? shipment_name(r.ack_shipment) : "";
        if (json_) {
            std::string s = "{\"event\":\"result\",\"action\":" + json_str(what) +
                            ",\"endpoint\":" + json_str(r.endpoint);
            if (r.silent) s += ",\"answer\":\"none\"";
            if (r.acknowledged)
                s += ",\"answer\":" + json_str(answer_words(r.ack_shipment)) +
                     ",\"ack\":" + json_str(ack);
            if (r.replied) {
                s += ",\"values\":[";
                for (size_t i = 0; i < r.values.size(); ++i) {
                    const QueryValue &v = r.values[i];
                    if (i != 0) s += ",";
                    s += "{\"type\":" + std::to_string(v.type) + ",\"name\":" + json_str(v.name) +
                         ",\"entry\":" + std::to_string(v.entry.id) +
                         ",\"value\":" + v.entry.value.json();
                    if (!v.entry.value.unit.empty())
                        s += ",\"unit\":" + json_str(v.entry.value.unit);
                    if (!v.entry.value.note.empty())
                        s += ",\"note\":" + json_str(v.entry.value.note);
                    s += "}";
                }
                s += "]";
            }
            if (!r.error.empty()) s += ",\"error\":" + json_str(r.error);
            line(s + "}");
            return;
        }
        std::string s = std::string(what) + " " + r.endpoint + ": ";
        if (r.silent)
            s += "no answer (not addressed by the query)";
        else if (r.acknowledged)
            s += answer_words(r.ack_shipment);
        if (!r.error.empty()) s += (r.silent || r.acknowledged ? "; " : "") + r.error;
        line(s);
        for (const QueryValue &v : r.values) line("  " + v.name + " = " + v.entry.value.render());
    }

    void table(const std::deque<EndpointInfo> &eps) {
        if (json_) {
            for (const EndpointInfo &e : eps) {
                line("{\"event\":\"list\",\"id\":" + json_str(e.id) +
                     ",\"state\":" + json_str(state_text(e.state)) +
                     ",\"address\":" + json_str(addr_text(e.listener)) +
                     ",\"name\":" + json_str(e.name) + ",\"role\":" + json_str(e.role) +
                     ",\"domain\":" + json_str(e.domain) + ",\"keywords\":" + json_str(e.keywords) +
                     ",\"importance\":" + std::to_string(e.importance) +
                     ",\"last_update\":" + std::to_string(static_cast<long long>(e.last_update)) +
                     ",\"last_seq\":" + std::to_string(e.last_seq) + "}");
            }
            if (eps.empty()) line("{\"event\":\"list\",\"endpoints\":0}");
            return;
        }
        if (eps.empty()) {
            line("no endpoints");
            return;
        }
        char buf[512];
        snprintf(buf, sizeof buf, "%-32s  %-12s  %-21s  %-12s  %-10s  %-8s  %-12s  %s", "ID",
                 "STATUS", "ADDRESS", "NAME", "ROLE", "DOMAIN", "KEYWORDS", "LAST UPDATE");
        line(buf);
        for (const EndpointInfo &e : eps) {
            snprintf(buf, sizeof buf, "%-32s  %-12s  %-21s  %-12s  %-10s  %-8s  %-12s  %s",
                     e.id.c_str(), state_text(e.state), addr_text(e.listener).c_str(),
                     e.name.c_str(), e.role.c_str(), e.domain.c_str(), e.keywords.c_str(),
                     time_text(e.last_update).c_str());
            line(buf);
        }
    }

    void sweep(const SweepReport &rep) { line(json_ ? rep.json() : rep.text()); }

    void note(const std::string &text) {
        if (json_)
            line("{\"event\":\"note\",\"text\":" + json_str(text) + "}");
        else
            line(text);
    }

    void failure(const std::string &text) {
        if (json_)
            line("{\"event\":\"error\",\"text\":" + json_str(text) + "}");
        else
            fprintf(stderr, "%s omsdk-switch: %s\n", clock_text().c_str(), text.c_str());
    }

    void message(const char *event, const std::string &title, const DecodedPdu &p,
                 const char *peer_key, const std::string &peer) {
        if (json_) {
            std::string extra = "\"event\":" + json_str(event);
            if (peer_key != nullptr)
                extra += ",\"" + std::string(peer_key) + "\":" + json_str(peer);
            line(render_json(p, extra, verbose_));
        } else {
            std::string block = render_text(p, title, verbose_);
            if (!block.empty() && block.back() == '\n') block.pop_back();
            line(block);
        }
    }

private:
    // Every line carries the time; a JSON object its "time" member first.
    void line(const std::string &s) {
        const std::string stamp = json_ ? iso_time_text() : clock_text();
        if (json_ && !s.empty() && s[0] == '{') {
            printf("{\"time\":%s,%s\n", json_str(stamp).c_str(), s.c_str() + 1);
        } else {
            for (size_t at = 0; at <= s.size();) {
                const size_t nl = s.find('\n', at);
                const std::string part = s.substr(at, nl == std::string::npos ? nl : nl - at);
                printf("%s %s\n", stamp.c_str(), part.c_str());
                at = nl == std::string::npos ? s.size() + 1 : nl + 1;
            }
        }
        fflush(stdout);
    }
    bool json_;
    bool verbose_;
};

bool read_file(const std::string &path, std::string *out, std::string *why) {
    if (path == "-") {
        std::stringstream ss;
        ss << std::cin.rdbuf();
        *out = ss.str();
        return true;
    }
    std::ifstream f(path);
    if (!f) {
        *why = "cannot read script " + path + ": " + strerror(errno);
        return false;
    }
    std::stringstream ss;
    ss << f.rdbuf();
    *out = ss.str();
    return true;
}

void merge(Selectors *into, const Selectors &from, bool from_priority) {
    into->names.insert(into->names.end(), from.names.begin(), from.names.end());
    into->roles.insert(into->roles.end(), from.roles.begin(), from.roles.end());
    into->keywords.insert(into->keywords.end(), from.keywords.begin(), from.keywords.end());
    into->categories.insert(into->categories.end(), from.categories.begin(), from.categories.end());
    into->ids.insert(into->ids.end(), from.ids.begin(), from.ids.end());
    if (from_priority) into->priority = from.priority;
}

// ---- decode -----------------------------------------------------------

int run_decode(const std::vector<std::string> &args) {
    std::string hex, why;
    Bytes key, nonce_key;
    bool json = false, verbose = false, have_hex = false;
    for (size_t i = 0; i < args.size(); ++i) {
        const std::string &a = args[i];
        auto value = [&](const char *name) -> std::string {
            if (a.size() > strlen(name) && a.compare(0, strlen(name), name) == 0 &&
                a[strlen(name)] == '=')
                return a.substr(strlen(name) + 1);
            if (i + 1 >= args.size()) usage_error(std::string(name) + " needs a value");
            return args[++i];
        };
        auto is = [&](const char *name) {
            return a == name || (a.compare(0, strlen(name), name) == 0 && a.size() > strlen(name) &&
                                 a[strlen(name)] == '=');
        };
        if (is("--key")) {
            if (!parse_key(value("--key"), &key, &why)) usage_error(why);
        } else if (is("--nonce-key")) {
            std::string v = value("--nonce-key");
            if (v.compare(0, 4, "hex:") == 0) v = v.substr(4);
            if (!parse_hex(v, &nonce_key) || nonce_key.size() != 20)
                usage_error("--nonce-key needs 20 bytes in hexadecimal (40 digits)");
        } else if (a == "--json") {
            json = true;
        } else if (a == "--verbose") {
            verbose = true;
        } else if (a.compare(0, 2, "--") == 0) {
            usage_error("decode: unknown option " + a);
        } else if (!have_hex) {
            hex = a;
            have_hex = true;
        } else {
            usage_error("decode takes one message, got a second argument '" + a + "'");
        }
    }
    if (!have_hex) usage_error("decode needs the message in hexadecimal");
    if (hex == "-") {  // pasted on standard input, e.g. the dump --verbose printed
        std::stringstream ss;
        ss << std::cin.rdbuf();
        hex = ss.str();
    }
    Bytes raw;
    if (!parse_hex_or_dump(hex, &raw) || raw.empty())
        usage_error(
            "decode: the message is neither hexadecimal nor a hex dump as --verbose prints");

    RawHeader h;
    const bool framed = peek_header(raw, &h);
    // Discovery (and the acknowledgement of it) is signed with the shared
    // secret; everything else with the nonce key of the handshake.
    const bool discovery = framed && h.cls == CV_CLASS_DISCOVERY;
    const Bytes &use = discovery ? key : nonce_key;
    hmac_sha_ctx ctx;
    memset(&ctx, 0, sizeof ctx);
    if (!use.empty()) hmac_shainit(&ctx, use.data(), static_cast<uint16_t>(use.size()));
    DecodedPdu p = decode_pdu(raw, use.empty() ? nullptr : &ctx);
    uint8_t spent[OHMARA_SHA1_DIGEST_SIZE];
    hmac_shafinal(spent, &ctx);

    Printer out(json, verbose);
    std::string title = pdu_kind(p);
    if (p.ok && p.verdict == Verdict::NotVerified)
        title += discovery ? " (not verified: give the shared secret with --key)"
                           : " (not verified: give the nonce key with --nonce-key)";
    out.message("decoded", title, p, nullptr, "");
    if (!p.ok) return 1;
    return p.verdict == Verdict::Mismatch ? 1 : 0;
}

// ---- serving and actions ---------------------------------------------

class Runner {
public:
    Runner(Options &opt, Switch &sw, Printer &out) : opt_(opt), sw_(sw), out_(out) {}

    // Runs every action; false when one of them failed.
    bool run(const std::vector<Action> &actions) {
        bool ok = true;
        for (const Action &a : actions) {
            if (g_stop) break;
            if (!one(a)) {
                ok = false;
                if (a.kind == Action::Kind::WaitFor) break;  // what follows needs the endpoints
            }
        }
        return ok;
    }

private:
    std::vector<std::string> targets(const Selectors &sel) {
        std::vector<std::string> ids;
        for (const EndpointInfo &e : sw_.endpoints()) {
            if (e.state != EndpointState::Active) continue;
            if (!sel.ids.empty()) {
                bool listed = false;
                for (const std::string &id : sel.ids) listed = listed || id == e.id;
                if (!listed) continue;
            }
            ids.push_back(e.id);
        }
        return ids;
    }

    bool one(const Action &a) {
        Selectors sel = opt_.sel;
        merge(&sel, a.sel, a.has_priority);
        switch (a.kind) {
        case Action::Kind::List:
            sw_.poll(0);
            out_.table(sw_.endpoints());
            return true;
        case Action::Kind::Wait: serve(static_cast<int64_t>(a.seconds * 1000)); return true;
        case Action::Kind::WaitFor: {
            const int64_t deadline = now_ms() + static_cast<int64_t>(a.seconds * 1000);
            while (!g_stop && sw_.count_in(EndpointState::Active) < static_cast<size_t>(a.count)) {
                const int64_t left = deadline - now_ms();
                if (left <= 0) break;
                sw_.poll(static_cast<int>(left < 100 ? left : 100));
            }
            const size_t have = sw_.count_in(EndpointState::Active);
            if (have < static_cast<size_t>(a.count)) {
                out_.failure("wait-for " + std::to_string(a.count) + ": only " +
                             std::to_string(have) + " active endpoint(s) after " +
                             std::to_string(a.seconds) + " s");
                return false;
            }
            return true;
        }
        case Action::Kind::Get:
        case Action::Kind::Set: {
            sw_.poll(0);
            std::vector<std::string> ids = targets(sel);
            if (ids.empty()) {
                out_.failure(a.text + ": " + nobody(sel));
                return false;
            }
            bool ok = true;
            for (const std::string &id : ids) {
                QueryResult r = a.kind == Action::Kind::Get ? sw_.get(id, a.types, sel)
                                                            : sw_.set(id, a.items, sel);
                out_.result(a.kind == Action::Kind::Get ? "get" : "set", r);
                if (!r.error.empty()) ok = false;
                sw_.poll(0);
            }
            return ok;
        }
        case Action::Kind::Sweep: {
            sw_.poll(0);
            std::vector<std::string> ids = targets(sel);
            if (ids.empty()) {
                out_.failure(a.text + ": " + nobody(sel));
                return false;
            }
            SweepOptions so;
            so.types = a.types, so.sel = sel, so.rate = a.rate, so.in_flight = a.in_flight;
            const SweepReport rep = sweep(
                sw_, ids, so,
                [this](const QueryResult &r, int64_t) {
                    if (!r.error.empty() || opt_.verbose) out_.result("sweep", r);
                },
                &g_stop);
            out_.sweep(rep);
            return rep.ok();
        }
        case Action::Kind::Delete: {
            sw_.poll(0);
            std::vector<std::string> ids;
            for (const EndpointInfo &e : sw_.endpoints())
                if (e.state == EndpointState::Active && selects(e, sel)) ids.push_back(e.id);
            if (ids.empty()) {
                out_.failure(a.text + ": no active endpoint selected");
                return false;
            }
            bool ok = true;
            for (const std::string &id : ids) {
                std::string why;
                if (sw_.send_delete(id, &why)) {
                    out_.note("delete " + id + ": sent");
                } else {
                    out_.failure("delete " + id + ": " + why);
                    ok = false;
                }
            }
            return ok;
        }
        }
        return false;
    }

    // Why no endpoint can be asked, in terms of what to check.
    std::string nobody(const Selectors &sel) const {
        const size_t heard = sw_.endpoints().size();
        if (heard == 0)
            return "no endpoint heard on UDP port " + std::to_string(sw_.udp_port()) +
                   " (is the device running, on this port? add wait-for N before the action)";
        if (sw_.count_in(EndpointState::Active) == 0)
            return std::to_string(heard) +
                   " endpoint(s) heard but none has completed the handshake (does --key "
                   "match the device's secret?)";
        return "no active endpoint has the identifier given with --id" +
               std::string(sel.ids.empty() ? "" : " " + sel.ids[0]);
    }

    void serve(int64_t ms) {
        const int64_t deadline = now_ms() + ms;
        while (!g_stop) {
            const int64_t left = deadline - now_ms();
            if (left <= 0) return;
            sw_.poll(static_cast<int>(left < 100 ? left : 100));
        }
    }

    Options &opt_;
    Switch &sw_;
    Printer &out_;
};

Options parse_options(const std::vector<std::string> &args) {
    Options o;
    std::vector<std::string> rest;
    size_t i = 0;
    std::string why;
    for (; i < args.size();) {
        const std::string &a = args[i];
        if (a.compare(0, 2, "--") != 0) break;  // the actions begin
        if (a == "--json") {
            o.json = true;
            ++i;
            continue;
        }
        if (a == "--verbose") {
            o.verbose = true;
            ++i;
            continue;
        }
        int r = parse_selector(args, &i, &o.sel, &o.has_priority, &why);
        if (r < 0) usage_error(why);
        if (r > 0) continue;
        // Options with a value.
        const size_t eq = a.find('=');
        const std::string name = a.substr(0, eq);
        static const char *const known[] = {
            "--port",   "--bind",    "--key",       "--source",  "--alarms",
            "--script", "--timeout", "--switch-id", "--capture", "--acks-in-flight"};
        bool is_known = false;
        for (const char *k : known) is_known = is_known || name == k;
        if (!is_known) usage_error("unknown option " + name);
        std::string value;
        if (eq != std::string::npos) {
            value = a.substr(eq + 1);
            ++i;
        } else {
            if (i + 1 >= args.size()) usage_error(name + " needs a value");
            value = args[i + 1];
            i += 2;
        }
        long long n = 0;
        if (name == "--port") {
            if (!parse_int(value, 1, 65535, &n))
                usage_error("--port needs a number from 1 to 65535");
            o.cfg.port = static_cast<uint16_t>(n);
        } else if (name == "--bind") {
            if (!parse_ipv4(value, &o.cfg.bind_addr))
                usage_error("--bind needs an IPv4 address, got '" + value + "'");
        } else if (name == "--key") {
            if (!parse_key(value, &o.cfg.secret, &why)) usage_error(why);
        } else if (name == "--source") {
            if (!parse_ipv4(value, &o.cfg.source_addr) || o.cfg.source_addr == 0)
                usage_error("--source needs an IPv4 address, got '" + value + "'");
        } else if (name == "--alarms") {
            if (value == "ok")
                o.cfg.alarms = AlarmMode::Ok;
            else if (value == "failed")
                o.cfg.alarms = AlarmMode::Failed;
            else if (value == "ignore")
                o.cfg.alarms = AlarmMode::Ignore;
            else
                usage_error("--alarms needs ok, failed or ignore, got '" + value + "'");
        } else if (name == "--script") {
            if (value.empty()) usage_error("--script needs a file name or -");
            o.script = value;
        } else if (name == "--acks-in-flight") {
            if (!parse_int(value, 1, 4096, &n))
                usage_error("--acks-in-flight needs a number from 1 to 4096");
            o.cfg.acks_in_flight = static_cast<int>(n);
        } else if (name == "--timeout") {
            char *end = nullptr;
            double s = strtod(value.c_str(), &end);
            if (value.empty() || *end != '\0' || !(s > 0) || s > 3600)
                usage_error("--timeout needs seconds, more than 0 and at most 3600");
            o.cfg.io_timeout_ms = static_cast<int>(s * 1000);
        } else if (name == "--capture") {
            if (value.empty()) usage_error("--capture needs a file name");
            o.capture = value;
        } else if (name == "--switch-id") {
            bool hexid = value.size() == 32;
            for (char c : value) hexid = hexid && isxdigit(static_cast<unsigned char>(c));
            if (!hexid) usage_error("--switch-id needs 32 hexadecimal characters");
            o.cfg.switch_id = value;
        } else {
            usage_error("unknown option " + name);
        }
    }
    rest.assign(args.begin() + static_cast<std::ptrdiff_t>(i), args.end());
    if (!parse_action_args(rest, &o.actions, &why)) usage_error(why);
    if (!o.script.empty()) {
        std::string text;
        if (!read_file(o.script, &text, &why)) usage_error(why);
        if (!parse_script(text, &o.actions, &why)) usage_error(why);
    }
    return o;
}

}  // namespace

int main(int argc, char **argv) {
    std::vector<std::string> args(argv + 1, argv + argc);
    if (!args.empty() && args[0] == "conform") {
        setLogLevel(OHMARA_LOG_FATAL);
        return run_conform(std::vector<std::string>(args.begin() + 1, args.end()));
    }
    for (const std::string &a : args) {
        if (a == "--version") {
            printf("omsdk-switch %s\n", OMSDK_TOOLS_VERSION);
            return 0;
        }
        if (a == "--help" || a == "-h") {
            fputs(kUsage, stdout);
            fputs("\n", stdout);
            fputs(kHelp, stdout);
            return 0;
        }
    }
    // The library's own log lines would mix with the output; keep only the
    // fatal ones.
    setLogLevel(OHMARA_LOG_FATAL);

    // "decode" may follow output options: everything else goes to decode too.
    for (size_t i = 0; i < args.size(); ++i) {
        if (args[i] == "decode") {
            std::vector<std::string> d(args.begin(), args.begin() + static_cast<std::ptrdiff_t>(i));
            d.insert(d.end(), args.begin() + static_cast<std::ptrdiff_t>(i) + 1, args.end());
            return run_decode(d);
        }
        if (args[i].compare(0, 2, "--") != 0) break;
        if (args[i] != "--json" && args[i] != "--verbose" && args[i].find('=') == std::string::npos)
            ++i;  // skip the option's value
    }

    Options opt = parse_options(args);
    // Each acknowledgement and query in flight holds a descriptor: up to
    // the hard limit, for a sweep of many at once.
    rlimit nofile{};
    if (getrlimit(RLIMIT_NOFILE, &nofile) == 0 && nofile.rlim_cur < nofile.rlim_max) {
        nofile.rlim_cur = nofile.rlim_max;
        setrlimit(RLIMIT_NOFILE, &nofile);
    }
    Printer out(opt.json, opt.verbose);
    Switch sw(opt.cfg);
    Capturer capturer;
    sw.set_observer([&out, &capturer](const SwitchEvent &ev) {
        capturer.event(ev);
        out.event(ev);
    });
    std::string why;
    if (!sw.start(&why)) {
        fprintf(stderr, "omsdk-switch: %s\n", why.c_str());
        return 1;
    }
    if (!opt.capture.empty() && !capturer.open(opt.capture, opt.cfg, sw.udp_port())) {
        fprintf(stderr, "omsdk-switch: cannot write %s: %s\n", opt.capture.c_str(),
                strerror(errno));
        return 1;
    }
    signal(SIGINT, on_signal);
    signal(SIGTERM, on_signal);
    signal(SIGPIPE, SIG_IGN);
    out.note("switch " + sw.id() + " hearing discovery on " + ip_text(opt.cfg.bind_addr) + ":" +
             std::to_string(sw.udp_port()));

    Runner runner(opt, sw, out);
    if (opt.actions.empty()) {
        while (!g_stop) sw.poll(200);
        capturer.close();
        return 0;
    }
    const bool ok = runner.run(opt.actions);
    capturer.close();
    return ok ? 0 : 1;
}
