// SPDX-License-Identifier: Apache-2.0
// The test kit: the tools' switch, carried through the session's output
// table and omr_processMsg instead of sockets, under a virtual clock.
#include <arpa/inet.h>
#include <string.h>

#include <new>

#include <deque>
#include <string>
#include <vector>

#include <omsdk/enums.h>
#include <omsdk/output.h>
#include <omsdk/testkit.h>

#include "attributes.h"
#include "drive.h"
#include "switch.h"
#include "transcript.h"

using omsdk_tools::Bytes;
using omsdk_tools::DecodedPdu;
using omsdk_tools::Switch;
using omsdk_tools::SwitchEvent;

namespace {

constexpr int64_t kStartSeconds = 1000000;
constexpr int64_t kHandshakeSeconds = 600;
constexpr int kRunTurns = 16;
constexpr int kMaxPumped = 256;               // datagrams handled per call, against a runaway loop
constexpr uint32_t kSwitchAddr = 0x0200007f;  // 127.0.0.2, network order

omsdk_tools::SwitchConfig config_for(const uint8_t *key, int32_t key_len) {
    omsdk_tools::SwitchConfig cfg;
    cfg.port = 0;
    cfg.secret.assign(key, key + key_len);
    cfg.reply_addr = kSwitchAddr;
    // Fixed, so that two runs of a test exchange the same bytes.
    cfg.switch_id = omsdk_testkit::kSwitchId;
    cfg.nonce = omsdk_testkit::kSwitchNonce;
    return cfg;
}

}  // namespace

struct ohmara_tk {
    svc_session *s = nullptr;
    ohmara_svc_output out{};
    Switch sw;
    std::string endpoint;
    std::string error;
    int64_t now_ms = kStartSeconds * 1000;
    std::deque<std::pair<Bytes, sockaddr_in>> datagrams;  // from the session, not yet heard
    std::vector<Bytes> *answers = nullptr;                // the connection being delivered
    std::deque<ohmara_tk_alarm> alarms;
    std::string transcript;
    uint32_t discoveries = 0;
    bool silent = false;
    bool stray = false;  // the session answered outside a connection

    ohmara_tk(const uint8_t *key, int32_t key_len, const char *id)
        : sw(config_for(key, key_len)), endpoint(id) {}

    int32_t fail(std::string why) {
        error = std::move(why);
        return -1;
    }

    // Hands the switch what the session sent, until nothing more comes.
    bool pump() {
        for (int i = 0; !datagrams.empty(); ++i) {
            if (i == kMaxPumped)
                return fail("the session sent more than " + std::to_string(kMaxPumped) +
                            " datagrams without pause"),
                       false;
            auto d = std::move(datagrams.front());
            datagrams.pop_front();
            sw.handle_datagram(d.first, d.second);
        }
        if (stray) {
            stray = false;
            return fail("the session sent a reply outside any connection"), false;
        }
        return true;
    }

    bool turn() {
        std::string why;
        if (!omsdk_testkit::drive_turn(s, &why)) return fail("the session's loop: " + why), false;
        return pump();
    }

    const omsdk_tools::EndpointInfo *peer() const { return sw.find(endpoint); }
    bool active() const {
        const omsdk_tools::EndpointInfo *ep = peer();
        return ep != nullptr && ep->state == omsdk_tools::EndpointState::Active &&
               ohmara_svc_getStatus(s) == OHMARA_STATUS_ACTIVE;
    }

    void observe(const SwitchEvent &ev) {
        switch (ev.kind) {
        case SwitchEvent::Kind::Received:
            if (ev.pdu->hdr.cls == CV_CLASS_DISCOVERY) ++discoveries;
            transcript += omsdk_testkit::transcript_line("< ", *ev.pdu);
            break;
        case SwitchEvent::Kind::Sent:
            transcript += omsdk_testkit::transcript_line("> ", *ev.pdu);
            break;
        case SwitchEvent::Kind::AlarmAnswered: {
            ohmara_tk_alarm a{};
            a.seconds = ev.alarm.seconds;
            a.first = ev.alarm.param1;
            a.second = ev.alarm.param2;
            a.id = ev.alarm.id;
            a.operation = ev.alarm.operation;
            a.answered = ev.alarm_status;
            alarms.push_back(a);
            break;
        }
        case SwitchEvent::Kind::Error: error = ev.text; break;
        default: break;
        }
    }

    // One query; the result when it went through, else null with the error.
    bool query(bool set, const std::vector<uint32_t> &types,
               const std::vector<omsdk_tools::SetItem> &items, omsdk_tools::QueryResult *r) {
        if (silent) return fail("the switch is silent"), false;
        if (!active()) return fail("no handshake: call ohmara_tk_handshake first"), false;
        omsdk_tools::Selectors all;
        *r = set ? sw.set(endpoint, items, all) : sw.get(endpoint, types, all);
        if (!pump()) return false;
        if (!r->error.empty()) return fail(r->error), false;
        if (r->silent) return fail("the session did not answer the query"), false;
        return true;
    }

    // The first value of a GET of `attribute`, of kind `kind`.
    bool get(const char *attribute, omsdk_tools::Value::Kind kind, omsdk_tools::Value *found) {
        uint32_t type = 0;
        if (attribute == nullptr || !omsdk_tools::get_attribute_type(attribute, &type))
            return fail(std::string("unknown attribute ") + (attribute ? attribute : "(null)")),
                   false;
        omsdk_tools::QueryResult r;
        if (!query(false, {type}, {}, &r)) return false;
        if (!r.replied) return fail(std::string("no reply to the GET of ") + attribute), false;
        for (const omsdk_tools::QueryValue &v : r.values) {
            if (v.entry.value.kind != kind) continue;
            *found = v.entry.value;
            return true;
        }
        return fail(std::string("the reply holds no ") +
                    (kind == omsdk_tools::Value::Kind::Text ? "text" : "number") + " for " +
                    attribute),
               false;
    }
};

namespace {

int32_t tk_reply(void *ctx, const uint8_t *buf, uint32_t len) {
    ohmara_tk *kit = static_cast<ohmara_tk *>(ctx);
    if (kit->answers == nullptr) {
        kit->stray = true;
        return -1;
    }
    kit->answers->emplace_back(buf, buf + len);
    return static_cast<int32_t>(len);
}

int32_t tk_datagram(void *ctx, const uint8_t *buf, uint32_t len, uint32_t, uint16_t) {
    ohmara_tk *kit = static_cast<ohmara_tk *>(ctx);
    sockaddr_in from{};
    from.sin_family = AF_INET;
    from.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    kit->datagrams.emplace_back(Bytes(buf, buf + len), from);
    return static_cast<int32_t>(len);
}

thread_local std::string g_create_error;

int64_t tk_clock(void *ctx) { return static_cast<ohmara_tk *>(ctx)->now_ms; }

}  // namespace

// The kit's exports (its version script lists them).
#define TK_API __attribute__((visibility("default")))

extern "C" {

TK_API ohmara_tk *ohmara_tk_create(svc_session *session, const uint8_t *key, int32_t key_len,
                                   const char *endpoint_id) {
    if (session == nullptr || key == nullptr || key_len <= 0 || key_len > 255 ||
        endpoint_id == nullptr || strlen(endpoint_id) != 32) {
        g_create_error = "bad argument";
        return nullptr;
    }
    ohmara_tk *kit = new (std::nothrow) ohmara_tk(key, key_len, endpoint_id);
    if (kit == nullptr) {
        g_create_error = "out of memory";
        return nullptr;
    }
    kit->s = session;
    kit->out = {tk_reply, tk_datagram, kit};
    if (ohmara_svc_setOutput(session, &kit->out) != 0) {
        g_create_error = "the session is already started";
        delete kit;
        return nullptr;
    }
    kit->sw.set_observer([kit](const SwitchEvent &ev) { kit->observe(ev); });
    kit->sw.set_delivery(
        [kit](const sockaddr_in &, const Bytes &msg, std::vector<Bytes> *answers, std::string *) {
            kit->answers = answers;
            omr_processMsg(kit->s, msg.data(), static_cast<int32_t>(msg.size()));
            kit->answers = nullptr;
            return true;
        });
    // Discovery waits for the handshake: nothing is acknowledged before.
    kit->sw.set_acknowledging(false);
    std::string why;
    if (!omsdk_testkit::drive_open(session, tk_clock, kit, &why)) {
        ohmara_svc_setOutput(session, nullptr);
        g_create_error = why;
        delete kit;
        return nullptr;
    }
    g_create_error.clear();
    return kit;
}

TK_API void ohmara_tk_destroy(ohmara_tk *kit) {
    if (kit == nullptr) return;
    omsdk_testkit::drive_close(kit->s);
    kit->datagrams.clear();
    delete kit;
}

TK_API const char *ohmara_tk_lastError(const ohmara_tk *kit) {
    return kit != nullptr ? kit->error.c_str() : g_create_error.c_str();
}

TK_API int32_t ohmara_tk_handshake(ohmara_tk *kit) {
    if (kit == nullptr) return -1;
    if (kit->silent) return kit->fail("the switch is silent");
    kit->sw.set_acknowledging(true);
    kit->error.clear();
    // A turn at the present second, then a second at a time: discovery
    // comes at the session's retry interval until it is answered.
    for (int64_t waited = 0; waited <= kHandshakeSeconds; ++waited) {
        if (waited > 0) kit->now_ms += 1000;
        if (!kit->turn()) return -1;
        if (kit->active()) return 0;
        if (kit->sw.find(kit->endpoint) == nullptr && !kit->sw.endpoints().empty())
            return kit->fail("expected endpoint " + kit->endpoint + ", heard " +
                             kit->sw.endpoints().front().id);
    }
    return kit->fail("no handshake within " + std::to_string(kHandshakeSeconds) +
                     " virtual seconds" + (kit->error.empty() ? "" : ": " + kit->error));
}

TK_API int32_t ohmara_tk_getNumber(ohmara_tk *kit, const char *attribute, int64_t *value) {
    if (kit == nullptr || value == nullptr) return -1;
    omsdk_tools::Value v;
    if (!kit->get(attribute, omsdk_tools::Value::Kind::Int, &v)) return -1;
    *value = v.num;
    return 0;
}

TK_API int32_t ohmara_tk_getText(ohmara_tk *kit, const char *attribute, char *text, uint32_t size) {
    if (kit == nullptr || text == nullptr) return -1;
    omsdk_tools::Value v;
    if (!kit->get(attribute, omsdk_tools::Value::Kind::Text, &v)) return -1;
    if (v.text.size() + 1 > size) return kit->fail("the text does not fit: " + v.text);
    memcpy(text, v.text.c_str(), v.text.size() + 1);
    return 0;
}

TK_API int32_t ohmara_tk_getVector(ohmara_tk *kit, const char *attribute, int64_t *values,
                                   uint32_t max, uint32_t *count) {
    if (kit == nullptr || values == nullptr || count == nullptr) return -1;
    omsdk_tools::Value v;
    if (!kit->get(attribute, omsdk_tools::Value::Kind::List, &v)) return -1;
    if (v.list.size() > max) return kit->fail("the vector does not fit");
    for (size_t i = 0; i < v.list.size(); ++i) values[i] = v.list[i];
    *count = static_cast<uint32_t>(v.list.size());
    return 0;
}

TK_API int32_t ohmara_tk_set(ohmara_tk *kit, const char *assignment) {
    if (kit == nullptr || assignment == nullptr) return -1;
    omsdk_tools::SetItem item;
    std::string why;
    if (!omsdk_tools::parse_set_item(assignment, &item, &why)) return kit->fail(why);
    omsdk_tools::QueryResult r;
    if (!kit->query(true, {}, {item}, &r)) return -1;
    if (!r.acknowledged) return kit->fail("the SET was not acknowledged");
    return r.will() ? 1 : 0;
}

TK_API int32_t ohmara_tk_answerAlarms(ohmara_tk *kit, int32_t answer) {
    if (kit == nullptr) return -1;
    static constexpr omsdk_tools::AlarmMode kModes[] = {
        omsdk_tools::AlarmMode::Ok, omsdk_tools::AlarmMode::Failed, omsdk_tools::AlarmMode::Ignore};
    if (answer < 0 || answer > 2) return kit->fail("unknown alarm answer");
    kit->sw.set_alarm_mode(kModes[answer]);
    return 0;
}

TK_API int32_t ohmara_tk_nextAlarm(ohmara_tk *kit, ohmara_tk_alarm *alarm) {
    if (kit == nullptr || alarm == nullptr) return -1;
    if (kit->alarms.empty()) return 0;
    *alarm = kit->alarms.front();
    kit->alarms.pop_front();
    return 1;
}

TK_API int32_t ohmara_tk_run(ohmara_tk *kit) {
    if (kit == nullptr) return -1;
    // A wake-up takes a turn to be accepted and one to be served; two quiet
    // turns in a row: nothing is left.
    for (int turns = 0, quiet = 0; turns < kRunTurns && quiet < 2; ++turns) {
        const uint32_t before = kit->discoveries;
        if (!kit->turn()) return -1;
        quiet = kit->discoveries == before ? quiet + 1 : 0;
    }
    return 0;
}

TK_API int32_t ohmara_tk_sendDelete(ohmara_tk *kit) {
    if (kit == nullptr) return -1;
    std::string why;
    if (!kit->sw.send_delete(kit->endpoint, &why)) return kit->fail(why);
    return kit->pump() ? 0 : -1;
}

TK_API int32_t ohmara_tk_setSilent(ohmara_tk *kit, int32_t on) {
    if (kit == nullptr) return -1;
    kit->silent = on != 0;
    kit->sw.set_acknowledging(!kit->silent);
    return 0;
}

TK_API int32_t ohmara_tk_advance(ohmara_tk *kit, uint32_t seconds) {
    if (kit == nullptr) return -1;
    for (uint32_t i = 0; i < seconds; ++i) {
        kit->now_ms += 1000;
        if (!kit->turn()) return -1;
    }
    return 0;
}

TK_API int64_t ohmara_tk_now(const ohmara_tk *kit) {
    return kit != nullptr ? kit->now_ms / 1000 : 0;
}

TK_API uint32_t ohmara_tk_discoveries(const ohmara_tk *kit) {
    return kit != nullptr ? kit->discoveries : 0;
}

TK_API int32_t ohmara_tk_transcript(const ohmara_tk *kit, char *text, uint32_t size) {
    if (kit == nullptr) return -1;
    const std::string &t = kit->transcript;
    if (text != nullptr && size > 0) {
        const size_t n = t.size() < size - 1 ? t.size() : size - 1;
        memcpy(text, t.data(), n);
        text[n] = '\0';
    }
    return static_cast<int32_t>(t.size());
}

}  // extern "C"
