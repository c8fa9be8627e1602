// SPDX-License-Identifier: Apache-2.0
#include "switch.h"

#include <arpa/inet.h>
#include <errno.h>
#include <poll.h>
#include <stdio.h>
#include <string.h>
#include <sys/socket.h>
#include <unistd.h>

#include <random>

#include <omsdk.h>
#include <omsdk/enums.h>
#include <omsdk/event.h>
#include <omsdk/hmac.h>
#include <omsdk/pdu.h>

#include "net.h"

namespace omsdk_tools {

namespace {

constexpr uint8_t kComm = 1;            // not powering anything
constexpr size_t kSecretNonceLen = 20;  // an application key is read as 20 bytes
constexpr int32_t kAlarmOk = 2;
constexpr int32_t kAlarmFailed = 3;
constexpr int kMaxDatagram = 2048;
constexpr int kMaxBatch = 64;

// A keyed HMAC context for one message; spent when it goes.
class KeyStore {
public:
    explicit KeyStore(const Bytes &key) {
        memset(&ctx_, 0, sizeof ctx_);
        if (!key.empty()) hmac_shainit(&ctx_, key.data(), static_cast<uint16_t>(key.size()));
    }
    ~KeyStore() {
        uint8_t out[OHMARA_SHA1_DIGEST_SIZE];
        hmac_shafinal(out, &ctx_);
    }
    KeyStore(const KeyStore &) = delete;
    KeyStore &operator=(const KeyStore &) = delete;
    const hmac_sha_ctx *get() const { return &ctx_; }

private:
    hmac_sha_ctx ctx_;
};

// An event being built; freed with everything it holds.
class EventBuilder {
public:
    EventBuilder() : ev_(corvane_create_my_packet()) {}
    ~EventBuilder() {
        if (ev_ != nullptr) corvane_try_gc(ev_);
    }
    EventBuilder(const EventBuilder &) = delete;
    EventBuilder &operator=(const EventBuilder &) = delete;
    cv_event *get() const { return ev_; }

    // Signs and frames the event; false when it cannot be built.
    bool finish(uint8_t pri, int32_t shipment, uint8_t cls, uint16_t action, const uint8_t *id,
                uint32_t seq, const KeyStore &key, Bytes *out) {
        if (ev_ == nullptr) return false;
        if (omr_createPdu(ev_, pri, shipment, cls, action, id, seq, key.get(), kComm) != 0 ||
            ev_->raw == nullptr)
            return false;
        out->assign(ev_->raw, ev_->raw + ev_->raw_len);
        return true;
    }

private:
    cv_event *ev_;
};

void add_reply_to(cv_event *ev, uint32_t addr, uint16_t port) {
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_port = htons(port);
    a.sin_addr.s_addr = addr;
    cv_add_tlv(ev, CV_CORVANE_TLV_TYPE_REPLY_TO, CV_TLV_HEADER_SIZE + sizeof a, &a);
}

void add_text(cv_event *ev, uint32_t type, const std::string &text, uint32_t qualifier) {
    cv_add_tlv_common(ev, type, static_cast<uint32_t>(CV_TLV_HEADER_SIZE + text.size() + 1),
                      text.c_str(), qualifier);
}

void add_selectors(cv_event *ev, const Selectors &sel) {
    constexpr uint32_t kSelector = 1;
    for (const std::string &id : sel.ids) {
        cv_sender_id sid{};
        memcpy(sid.id, id.data(), id.size() < sizeof sid.id ? id.size() : sizeof sid.id);
        sid.value = 1;
        cv_add_tlv_common(ev, CV_CORVANE_TLV_TYPE_OHMRZ_ID, CV_TLV_HEADER_SIZE + sizeof sid, &sid,
                          kSelector);
    }
    for (const std::string &r : sel.roles) add_text(ev, CV_CORVANE_TLV_TYPE_ROLE, r, kSelector);
    for (const std::string &n : sel.names) add_text(ev, CV_CORVANE_TLV_TYPE_NAME, n, kSelector);
    if (!sel.keywords.empty()) {
        // One run of NUL-terminated keywords: endpoints read only the first
        // keyword TLV.
        std::string run;
        for (const std::string &k : sel.keywords) {
            run += k;
            run.push_back('\0');
        }
        cv_add_tlv_common(ev, CV_CORVANE_TLV_TYPE_KEYWORDS,
                          static_cast<uint32_t>(CV_TLV_HEADER_SIZE + run.size()), run.data(),
                          kSelector);
    }
    for (int32_t c : sel.categories)
        cv_add_tlv_common(ev, 51, CV_TLV_HEADER_SIZE + sizeof c, &c, kSelector);
}

// What a GET asks for: one empty request TLV per type.
std::function<void(cv_event *)> get_filler(const std::vector<uint32_t> &types) {
    return [types](cv_event *ev) {
        for (uint32_t t : types) cv_add_tlv(ev, t, CV_TLV_HEADER_SIZE, nullptr);
    };
}

// What a SET changes: a text, a byte, or an empty TLV for the default.
std::function<void(cv_event *)> set_filler(const std::vector<SetItem> &items) {
    return [items](cv_event *ev) {
        for (const SetItem &it : items) {
            if (it.empty)
                cv_add_tlv(ev, it.type, CV_TLV_HEADER_SIZE, nullptr);
            else if (it.is_text)
                add_text(ev, it.type, it.text, 0);
            else
                cv_add_tlv(ev, it.type, CV_TLV_HEADER_SIZE + 1, &it.num);
        }
    };
}

sockaddr_in address_of(const Value &v) {
    sockaddr_in a{};
    if (v.bytes.size() == sizeof a) memcpy(&a, v.bytes.data(), sizeof a);
    a.sin_family = AF_INET;
    return a;
}

int64_t num_or(const DecodedPdu &p, uint32_t type, int64_t dflt) {
    const DecodedTlv *t = p.find(type);
    return t != nullptr && t->value.kind == Value::Kind::Int ? t->value.num : dflt;
}

std::string text_or(const DecodedPdu &p, uint32_t type, const std::string &dflt) {
    const DecodedTlv *t = p.find(type);
    return t != nullptr && t->value.kind == Value::Kind::Text ? t->value.text : dflt;
}

AlarmRequest alarm_of(const Value &v) {
    AlarmRequest a;
    for (const Field &f : v.fields) {
        if (f.name == "seconds") a.seconds = static_cast<uint32_t>(f.num);
        if (f.name == "param2") a.param2 = static_cast<uint8_t>(f.num);
        if (f.name == "param1") a.param1 = static_cast<uint8_t>(f.num);
        if (f.name == "id") a.id = static_cast<int32_t>(f.num);
        if (f.name == "operation") a.operation = static_cast<int32_t>(f.num);
    }
    return a;
}

// Why an answer is missing, in the user's terms: how long the switch
// waited and for whom.
// One connection to an endpoint's listener: TCP, or the owner's delivery
// (then the answers are all there once the message is delivered).
class Conn {
public:
    Conn(const Switch::Delivery &deliver, const SwitchConfig &cfg, const sockaddr_in &to)
        : deliver_(deliver), cfg_(cfg), to_(to) {}
    ~Conn() { close_fd(&fd_); }
    Conn(const Conn &) = delete;
    Conn &operator=(const Conn &) = delete;

    bool open(std::string *why) {
        close_fd(&fd_);
        answers_.clear();
        next_ = 0;
        if (deliver_) return true;
        fd_ = connect_tcp(to_, cfg_.source_addr, cfg_.io_timeout_ms, why);
        return fd_ >= 0;
    }
    int fd() const { return fd_; }
    bool send(const Bytes &pdu, std::string *why) {
        const bool ok = deliver_ ? deliver_(to_, pdu, &answers_, why)
                                 : send_all(fd_, pdu, cfg_.io_timeout_ms, why);
        if (!ok) {
            *why = "to " + addr_text(to_) + ": " + *why;
            close_fd(&fd_);
        }
        return ok;
    }
    // As read_message.
    int read(Bytes *out, std::string *why) {
        if (!deliver_) return read_message(fd_, out, cfg_.io_timeout_ms, why);
        if (next_ >= answers_.size()) return 0;
        *out = answers_[next_++];
        return 1;
    }
    void close() { close_fd(&fd_); }

private:
    const Switch::Delivery &deliver_;
    const SwitchConfig &cfg_;
    sockaddr_in to_;
    int fd_ = -1;
    std::vector<Bytes> answers_;
    size_t next_ = 0;
};

std::string no_answer(const sockaddr_in &from, const char *what, const std::string &why,
                      int timeout_ms) {
    if (why.find("timed out") == std::string::npos)
        return std::string("no ") + what + " from " + addr_text(from) + ": " + why;
    char secs[32];
    snprintf(secs, sizeof secs, "%g", timeout_ms / 1000.0);
    return std::string("no ") + what + " in " + secs + " s from " + addr_text(from) +
           ": the device took the connection but sent nothing (raise --timeout for a slow one)";
}

uint32_t random_u32() {
    std::random_device rd;
    uint32_t v = 0;
    while (v == 0) v = static_cast<uint32_t>(rd());
    return v;
}

}  // namespace

const char *state_text(EndpointState s) {
    switch (s) {
    case EndpointState::Heard: return "heard";
    case EndpointState::Acknowledged: return "acknowledged";
    case EndpointState::Active: return "active";
    case EndpointState::Deleted: return "deleted";
    case EndpointState::Left: return "left";
    }
    return "?";
}

std::vector<Value> QueryResult::values_of(uint32_t type) const {
    std::vector<Value> out;
    for (const QueryValue &v : values)
        if (v.type == type) out.push_back(v.entry.value);
    return out;
}

Switch::Switch(const SwitchConfig &cfg) : cfg_(cfg), next_seq_(cfg.first_seq) {
    if (cfg_.switch_id.size() == 32) {
        id_ = cfg_.switch_id;
    } else {
        char buf[40] = {};
        if (ohmara_utl_createUuid(buf) != 0 || strlen(buf) < 32) {
            static const char digits[] = "0123456789abcdef";
            for (int i = 0; i < 32; ++i) buf[i] = digits[random_u32() & 0x0F];
        }
        id_.assign(buf, 32);
    }
    memcpy(raw_id_, id_.data(), 32);
    nonce_ = cfg_.nonce != 0 ? cfg_.nonce : random_u32();
}

Switch::~Switch() { close_fd(&udp_); }

bool Switch::start(std::string *why) {
    if (udp_ >= 0) return true;
    udp_ = open_udp(cfg_.bind_addr, cfg_.port, why);
    if (udp_ < 0) return false;
    udp_port_ = local_port(udp_);
    return true;
}

void Switch::emit(SwitchEvent &&ev) {
    if (observer_) observer_(ev);
}

void Switch::error(const std::string &text, const DecodedPdu *pdu) {
    SwitchEvent ev{SwitchEvent::Kind::Error, text};
    ev.pdu = pdu;
    emit(std::move(ev));
}

const EndpointInfo *Switch::find(const std::string &id) const {
    const auto it = index_.find(id);
    return it == index_.end() ? nullptr : &endpoints_[it->second];
}

EndpointInfo *Switch::find_mut(const std::string &id) {
    const auto it = index_.find(id);
    return it == index_.end() ? nullptr : &endpoints_[it->second];
}

size_t Switch::count_in(EndpointState s) const {
    size_t n = 0;
    for (const EndpointInfo &e : endpoints_)
        if (e.state == s) ++n;
    return n;
}

Bytes Switch::secret_for(const uint8_t *endpoint_id) const {
    if (!cfg_.secret.empty()) return cfg_.secret;
    return Bytes(endpoint_id, endpoint_id + 32);
}

Bytes Switch::derive_nonce_key(uint32_t switch_nonce, uint32_t endpoint_nonce, const Bytes &secret,
                               const uint8_t *endpoint_id) {
    const uint32_t seed_net = htonl(switch_nonce ^ endpoint_nonce);
    uint8_t seed[4];
    memcpy(seed, &seed_net, sizeof seed);
    // An application key is read as exactly 20 bytes (a shorter one padded
    // with zeros); without one the endpoint's 32-byte identifier serves.
    Bytes data;
    if (!secret.empty()) {
        data.assign(kSecretNonceLen, 0);
        memcpy(data.data(), secret.data(),
               secret.size() < kSecretNonceLen ? secret.size() : kSecretNonceLen);
    } else {
        data.assign(endpoint_id, endpoint_id + 32);
    }
    Bytes key(OHMARA_SHA1_DIGEST_SIZE, 0);
    ohmara_utl_composeNonce(seed, sizeof seed, data.data(), static_cast<uint16_t>(data.size()),
                            key.data());
    return key;
}

int Switch::poll(int timeout_ms) {
    if (udp_ < 0) return 0;
    int handled = 0;
    int wait = timeout_ms < 0 ? 0 : timeout_ms;
    // A bounded batch, so that a flood of datagrams cannot hold the caller.
    while (handled < kMaxBatch) {
        pollfd p{udp_, POLLIN, 0};
        int r = ::poll(&p, 1, wait);
        if (r < 0 && errno == EINTR) return handled;
        if (r <= 0) return handled;
        uint8_t buf[kMaxDatagram];
        sockaddr_in from{};
        socklen_t flen = sizeof from;
        ssize_t n = recvfrom(udp_, buf, sizeof buf, MSG_DONTWAIT,
                             reinterpret_cast<sockaddr *>(&from), &flen);
        if (n < 0) return handled;
        handle_datagram(Bytes(buf, buf + n), from);
        ++handled;
        wait = 0;  // drain what is already there, then return
    }
    return handled;
}

void Switch::run_for(int ms) {
    const int64_t deadline = now_ms() + ms;
    for (;;) {
        const int64_t left = deadline - now_ms();
        if (left <= 0) return;
        poll(static_cast<int>(left < 100 ? left : 100));
    }
}

bool Switch::wait_for(const std::function<bool()> &pred, int timeout_ms) {
    const int64_t deadline = now_ms() + timeout_ms;
    while (!pred()) {
        const int64_t left = deadline - now_ms();
        if (left <= 0) return pred();
        poll(static_cast<int>(left < 50 ? left : 50));
    }
    return true;
}

void Switch::handle_datagram(const Bytes &raw, const sockaddr_in &from) {
    RawHeader h;
    if (!peek_header(raw, &h)) {
        error("ignored " + std::to_string(raw.size()) + "-byte datagram from " + addr_text(from) +
              ": too short for a message");
        return;
    }
    // Discovery is signed with the shared secret; the class says which key
    // to check with before anything else is trusted.
    const Bytes secret = secret_for(h.id);
    KeyStore key(secret);
    DecodedPdu p = decode_pdu(raw, key.get());
    if (!p.ok) {
        error("ignored datagram from " + addr_text(from) + ": " + p.error, &p);
        return;
    }
    if (p.hdr.cls != CV_CLASS_DISCOVERY) {
        error("ignored " + class_name(p.hdr.cls) + " datagram from " + addr_text(from) +
                  ": only discovery travels by datagram",
              &p);
        return;
    }
    if (p.verdict != Verdict::Verified) {
        error("dropped discovery from " + addr_text(from) + " (" + p.sender() +
                  "): digest mismatch (wrong key?)",
              &p);
        return;
    }
    if (p.hdr.shipment != CV_SHIPMENT_SEND) {
        error("ignored discovery " + shipment_name(p.hdr.shipment) + " from " + addr_text(from),
              &p);
        return;
    }
    on_discovery(p, from);
}

void Switch::on_discovery(const DecodedPdu &p, const sockaddr_in &from) {
    const std::string id = p.sender();
    EndpointInfo *ep = find_mut(id);
    const bool is_new = ep == nullptr;
    if (is_new) {
        index_.emplace(id, endpoints_.size());
        endpoints_.emplace_back();
        ep = &endpoints_.back();
        ep->id = id;
        memcpy(ep->raw_id, p.hdr.id, 32);
    }
    ep->domain = text_or(p, CV_CORVANE_TLV_TYPE_DOMAIN, ep->domain);
    ep->name = text_or(p, CV_CORVANE_TLV_TYPE_NAME, ep->name);
    ep->role = text_or(p, CV_CORVANE_TLV_TYPE_ROLE, ep->role);
    ep->keywords = text_or(p, CV_CORVANE_TLV_TYPE_KEYWORDS, ep->keywords);
    ep->device_type = text_or(p, 48, ep->device_type);
    if (const DecodedTlv *r = p.find(CV_CORVANE_TLV_TYPE_REPLY_TO)) {
        ep->listener = address_of(r->value);
        // An endpoint bound to the wildcard address announces 0.0.0.0: its
        // listener is then where its datagrams come from.
        if (ep->listener.sin_addr.s_addr == 0) ep->listener.sin_addr = from.sin_addr;
    }
    ep->source = from;
    ep->importance = num_or(p, CV_CORVANE_TLV_TYPE_IMPORTANCE, ep->importance);
    ep->level = num_or(p, CV_CORVANE_TLV_TYPE_LEVEL_CURRENT, ep->level);
    ep->usage = num_or(p, CV_CORVANE_TLV_TYPE_USAGE, ep->usage);
    ep->units = num_or(p, CV_CORVANE_TLV_TYPE_UNITS, ep->units);
    ep->category = num_or(p, 51, ep->category);
    ep->caliber = num_or(p, 38, ep->caliber);
    ep->nanny = num_or(p, CV_CORVANE_TLV_TYPE_NANNY_VECTOR, ep->nanny);
    ep->last_seq = p.hdr.seq;
    ep->last_update = time(nullptr);
    ++ep->updates;

    if (is_new) {
        SwitchEvent ev{SwitchEvent::Kind::EndpointSeen, addr_text(from)};
        ev.info = ep;
        emit(std::move(ev));
    }
    {
        SwitchEvent ev{SwitchEvent::Kind::Received, addr_text(from)};
        ev.pdu = &p;
        ev.info = ep;
        emit(std::move(ev));
    }

    if (p.hdr.action == CV_ACTION_KVQR_CORVANE_DISCOVERY_DELETE) {
        ep->state = EndpointState::Left;
        ep->nonce_known = false;
        ep->nonce_sent = false;
        ep->nonce_key.clear();
        return;
    }

    if (!acknowledging_) return;
    const DecodedTlv *nonce = p.find(CV_CORVANE_TLV_TYPE_NONCE);
    if (nonce == nullptr) {
        // Not attached (yet, or any more): handshake afresh.
        ep->nonce_known = false;
        ep->nonce_sent = false;
        ep->nonce_key.clear();
        ep->state = EndpointState::Heard;
        if (acknowledge(ep, p, {}, 0)) {
            ep->nonce_sent = true;
            ep->state = EndpointState::Acknowledged;
            SwitchEvent ev{SwitchEvent::Kind::Acknowledged, addr_text(ep->listener)};
            ev.info = ep;
            emit(std::move(ev));
        }
        return;
    }

    const uint32_t endpoint_nonce = static_cast<uint32_t>(nonce->value.num);
    if (!ep->nonce_known || ep->endpoint_nonce != endpoint_nonce) {
        ep->endpoint_nonce = endpoint_nonce;
        ep->nonce_known = true;
        ep->nonce_key = derive_nonce_key(nonce_, endpoint_nonce, cfg_.secret, ep->raw_id);
        if (ep->state == EndpointState::Active) ep->state = EndpointState::Acknowledged;
    }
    // The endpoint keys itself with our nonce once it has seen it; until an
    // acknowledgement of ours has reached it (say, after a restart of the
    // switch) its key is another one.
    if (ep->nonce_sent && ep->state != EndpointState::Active) {
        ep->state = EndpointState::Active;
        SwitchEvent ev{SwitchEvent::Kind::HandshakeDone, to_hex(ep->nonce_key)};
        ev.info = ep;
        emit(std::move(ev));
    }

    std::vector<AlarmRequest> alarms;
    for (const DecodedTlv &t : p.tlvs) {
        if (t.aggregate || t.type != CV_CORVANE_TLV_TYPE_ALARM) continue;
        AlarmRequest a = alarm_of(t.value);
        alarms.push_back(a);
        SwitchEvent ev{SwitchEvent::Kind::AlarmRequest, ""};
        ev.info = ep;
        ev.alarm = a;
        emit(std::move(ev));
    }
    int status = 0;
    if (cfg_.alarms == AlarmMode::Ok) status = kAlarmOk;
    if (cfg_.alarms == AlarmMode::Failed) status = kAlarmFailed;

    // Every update is acknowledged: it keeps the endpoint's last-heard time
    // fresh and carries the answers to its alarm requests.
    if (acknowledge(ep, p, status != 0 ? alarms : std::vector<AlarmRequest>(), status)) {
        if (!ep->nonce_sent) {
            ep->nonce_sent = true;
            if (ep->state != EndpointState::Active) ep->state = EndpointState::Acknowledged;
        }
        for (const AlarmRequest &a : alarms) {
            SwitchEvent ev{SwitchEvent::Kind::AlarmAnswered, ""};
            ev.info = ep;
            ev.alarm = a;
            ev.alarm_status = status;
            emit(std::move(ev));
        }
    }
}

uint32_t Switch::reply_addr_for(int fd) const {
    if (cfg_.reply_addr != 0) return cfg_.reply_addr;
    if (cfg_.bind_addr != 0) return cfg_.bind_addr;
    return local_addr(fd);
}

bool Switch::acknowledge(EndpointInfo *ep, const DecodedPdu &discovery,
                         const std::vector<AlarmRequest> &alarms, int alarm_status) {
    std::string why;
    Conn conn(deliver_, cfg_, ep->listener);
    if (!conn.open(&why)) {
        error("cannot acknowledge " + ep->id + ": " + why);
        return false;
    }
    EventBuilder ev;
    if (ev.get() == nullptr) {
        error("cannot acknowledge " + ep->id + ": out of memory");
        return false;
    }
    add_reply_to(ev.get(), reply_addr_for(conn.fd()), udp_port_);
    cv_add_tlv(ev.get(), CV_CORVANE_TLV_TYPE_NONCE, CV_TLV_HEADER_SIZE + sizeof nonce_, &nonce_);
    for (const AlarmRequest &a : alarms) {
        cv_alarm answer{};
        answer.seconds = a.seconds;
        answer.param2 = a.param2;
        answer.param1 = a.param1;
        answer.id = a.id;
        answer.operation = alarm_status;
        cv_add_tlv(ev.get(), CV_CORVANE_TLV_TYPE_ALARM, CV_TLV_HEADER_SIZE + sizeof answer,
                   &answer);
    }
    // An acknowledgement answers one discovery event: its action, sequence
    // number and priority byte come back, and (being of class DISCOVERY) it
    // is signed with the secret.
    KeyStore key(secret_for(ep->raw_id));
    Bytes pdu;
    if (!ev.finish(static_cast<uint8_t>(discovery.hdr.pri), CV_SHIPMENT_ACK_WILL,
                   CV_CLASS_DISCOVERY, static_cast<uint16_t>(discovery.hdr.action), raw_id_,
                   discovery.hdr.seq, key, &pdu)) {
        error("cannot acknowledge " + ep->id + ": message could not be built");
        return false;
    }
    if (!conn.send(pdu, &why)) {
        error("cannot acknowledge " + ep->id + ": " + why);
        return false;
    }
    conn.close();
    DecodedPdu sent = decode_pdu(pdu, key.get());
    SwitchEvent sev{SwitchEvent::Kind::Sent, addr_text(ep->listener)};
    sev.pdu = &sent;
    sev.info = ep;
    emit(std::move(sev));
    return true;
}

short QueryFlight::events() const {
    return stage_ == Stage::Connect || stage_ == Stage::Send ? POLLOUT : POLLIN;
}

std::unique_ptr<QueryFlight> Switch::begin(const std::string &endpoint, uint16_t action,
                                           bool expect_reply, std::function<void(cv_event *)> fill,
                                           const Selectors &sel) {
    std::unique_ptr<QueryFlight> q(new QueryFlight());
    q->r_.endpoint = endpoint;
    q->action_ = action;
    q->expect_reply_ = expect_reply;
    q->fill_ = std::move(fill);
    q->sel_ = sel;
    q->ep_ = find_mut(endpoint);
    if (q->ep_ == nullptr) {
        finish(*q, "unknown endpoint " + endpoint);
    } else if (q->ep_->state != EndpointState::Active || q->ep_->nonce_key.empty()) {
        finish(*q, "endpoint " + endpoint + " has not completed the handshake (" +
                       state_text(q->ep_->state) + ")");
    } else {
        q->key_ = q->ep_->nonce_key;
        q->seq_ = next_seq_++;
    }
    return q;
}

void Switch::finish(QueryFlight &q, const std::string &error, bool timed_out) {
    close_fd(&q.fd_);
    q.stage_ = QueryFlight::Stage::Done;
    q.r_.error = error;
    q.r_.timed_out = timed_out;
    SwitchEvent ev{SwitchEvent::Kind::QueryDone, q.r_.error};
    ev.query = &q.r_;
    ev.info = q.ep_;
    emit(std::move(ev));
}

void Switch::note_sent(QueryFlight &q, const sockaddr_in &to) {
    q.r_.sent = true;
    KeyStore key(q.key_);
    DecodedPdu sent = decode_pdu(q.pdu_, key.get());
    SwitchEvent ev{SwitchEvent::Kind::Sent, addr_text(to)};
    ev.pdu = &sent;
    ev.info = q.ep_;
    emit(std::move(ev));
}

void Switch::advance(QueryFlight &q) {
    while (q.stage_ != QueryFlight::Stage::Done && step(q)) {
    }
}

bool Switch::step(QueryFlight &q) {
    using Stage = QueryFlight::Stage;
    const sockaddr_in &to = q.ep_->listener;
    const bool late = now_ms() >= q.deadline_;
    std::string why;
    switch (q.stage_) {
    case Stage::Connect: {
        if (deliver_) {  // no connection: the owner hands over the answers
            q.answers_.clear();
            q.next_answer_ = 0;
            if (q.pdu_.empty() &&
                !build(q.action_, q.fill_, q.sel_, q.key_, q.seq_, reply_addr_for(-1), &q.pdu_)) {
                finish(q, "query could not be built");
                return false;
            }
            if (!deliver_(to, q.pdu_, &q.answers_, &why)) {
                finish(q, "to " + addr_text(to) + ": " + why);
                return false;
            }
            note_sent(q, to);
            q.stage_ = Stage::Ack;
            q.reader_.reset();
            return true;
        }
        if (q.fd_ < 0) {
            bool pending = false;
            q.fd_ = start_connect(to, cfg_.source_addr, &pending, &why);
            if (q.fd_ < 0) {
                finish(q, why);
                return false;
            }
            q.deadline_ = now_ms() + cfg_.io_timeout_ms;
            if (pending) return true;  // the next step looks whether it is made
        } else {
            pollfd p{q.fd_, POLLOUT, 0};
            if (::poll(&p, 1, 0) <= 0) {
                if (late) finish(q, "connect " + addr_text(to) + ": timed out", true);
                return false;
            }
            if (!finish_connect(q.fd_, to, &why)) {
                finish(q, why);
                return false;
            }
        }
        if (q.pdu_.empty() &&
            !build(q.action_, q.fill_, q.sel_, q.key_, q.seq_, reply_addr_for(q.fd_), &q.pdu_)) {
            finish(q, "query could not be built");
            return false;
        }
        q.stage_ = Stage::Send;
        q.sent_ = 0;
        q.deadline_ = now_ms() + cfg_.io_timeout_ms;
        return true;
    }
    case Stage::Send: {
        const ssize_t k =
            send(q.fd_, q.pdu_.data() + q.sent_, q.pdu_.size() - q.sent_, MSG_NOSIGNAL);
        if (k < 0) {
            if (errno == EINTR) return true;
            if (errno != EAGAIN && errno != EWOULDBLOCK)
                finish(q, "to " + addr_text(to) + ": send: " + strerror(errno));
            else if (late)
                finish(q, "to " + addr_text(to) + ": send: timed out", true);
            return false;
        }
        q.sent_ += static_cast<size_t>(k);
        if (q.sent_ < q.pdu_.size()) return true;
        note_sent(q, to);
        // One connection carries the acknowledgement and then, for a GET,
        // the reply; an endpoint that is not addressed closes it without a
        // word.
        q.stage_ = Stage::Ack;
        q.reader_.reset();
        q.deadline_ = now_ms() + cfg_.io_timeout_ms;
        return true;
    }
    case Stage::Ack:
    case Stage::Reply: {
        int rr = 0;
        if (!deliver_)
            rr = q.reader_.feed(q.fd_, &why);
        else if (q.next_answer_ < q.answers_.size())
            rr = (q.reader_.take(q.answers_[q.next_answer_++]), 1);
        if (rr == 2) {
            if (!late) return false;
            rr = -1;
            why = "timed out waiting for the answer";
        }
        const bool ack = q.stage_ == Stage::Ack;
        if (ack && rr == -2 && q.attempt_ == 0) {
            // An endpoint takes a connection from a new peer address only
            // at its second attempt: it resets the first one unread, and
            // the query goes again once.
            close_fd(&q.fd_);
            q.attempt_ = 1;
            q.stage_ = Stage::Connect;
            return true;
        }
        const bool timed_out = why == "timed out waiting for the answer";
        if (ack && rr == 0) {
            q.r_.silent = true;
            finish(q, "");
        } else if (rr < 0) {
            finish(q, no_answer(to, ack ? "answer" : "reply", why, cfg_.io_timeout_ms), timed_out);
        } else if (rr == 0) {
            finish(q, "no reply from " + addr_text(to) +
                          ": it closed the connection after its acknowledgement");
        } else if (ack) {
            take_ack(q);
        } else {
            take_reply(q);
        }
        return q.stage_ != Stage::Done;
    }
    case Stage::Done: break;
    }
    return false;
}

void Switch::take_ack(QueryFlight &q) {
    QueryResult &r = q.r_;
    KeyStore key(q.key_);
    r.ack = decode_pdu(q.reader_.message(), key.get());
    if (!r.ack.ok || r.ack.verdict != Verdict::Verified) {
        const std::string why = "acknowledgement refused: " +
                                (r.ack.ok ? std::string(verdict_text(r.ack.verdict)) : r.ack.error);
        error(why, &r.ack);
        finish(q, why);
        return;
    }
    {
        SwitchEvent ev{SwitchEvent::Kind::Received, addr_text(q.ep_->listener)};
        ev.pdu = &r.ack;
        ev.info = q.ep_;
        emit(std::move(ev));
    }
    r.acknowledged = true;
    r.ack_shipment = r.ack.hdr.shipment;
    std::string mismatch;
    if (r.ack.hdr.seq != q.seq_)
        mismatch = "acknowledgement for sequence number " + std::to_string(r.ack.hdr.seq) +
                   ", sent " + std::to_string(q.seq_);
    if (!q.expect_reply_ || !r.will()) {
        finish(q, mismatch);
        return;
    }
    r.error = mismatch;
    q.stage_ = QueryFlight::Stage::Reply;
    q.reader_.reset();
    q.deadline_ = now_ms() + cfg_.io_timeout_ms;
}

void Switch::take_reply(QueryFlight &q) {
    QueryResult &r = q.r_;
    const EndpointInfo *ep = q.ep_;
    KeyStore key(q.key_);
    r.reply = decode_pdu(q.reader_.message(), key.get());
    if (!r.reply.ok || r.reply.verdict != Verdict::Verified) {
        const std::string why =
            "reply refused: " +
            (r.reply.ok ? std::string(verdict_text(r.reply.verdict)) : r.reply.error);
        error(why, &r.reply);
        finish(q, why);
        return;
    }
    {
        SwitchEvent ev{SwitchEvent::Kind::Received, addr_text(ep->listener)};
        ev.pdu = &r.reply;
        ev.info = ep;
        emit(std::move(ev));
    }
    r.replied = true;
    for (const DecodedTlv &t : r.reply.tlvs) {
        if (!t.aggregate) continue;
        for (const Entry &e : t.entries) {
            QueryValue v;
            v.type = t.type;
            v.name = attribute_name(t.type);
            if (v.name.empty()) v.name = t.name;
            v.entry = e;
            // Usage without the units in the same reply: the units the
            // endpoint announced in its discovery.
            const bool usage = t.type == CV_CORVANE_TLV_TYPE_USAGE || t.type == 36 || t.type == 39;
            if (usage && v.entry.value.unit.empty() && ep->units >= 0)
                v.entry.value.unit = unit_symbol(ep->units);
            r.values.push_back(v);
        }
    }
    finish(q, r.error);  // a sequence mismatch in the acknowledgement stays
}

QueryResult Switch::query(const std::string &endpoint, uint16_t action, bool expect_reply,
                          const std::function<void(cv_event *)> &fill, const Selectors &sel) {
    std::unique_ptr<QueryFlight> q = begin(endpoint, action, expect_reply, fill, sel);
    advance(*q);
    while (!q->done()) {
        pollfd p{q->fd(), q->events(), 0};
        const int64_t left = q->deadline() - now_ms();
        if (::poll(&p, 1, left > 0 ? static_cast<int>(left) : 0) < 0 && errno != EINTR) {
            finish(*q, std::string("poll: ") + strerror(errno));
            break;
        }
        advance(*q);
    }
    return q->result();
}

bool Switch::build(uint16_t action, const std::function<void(cv_event *)> &fill,
                   const Selectors &sel, const Bytes &key, uint32_t seq, uint32_t reply_addr,
                   Bytes *out) const {
    KeyStore keyed(key);
    EventBuilder ev;
    if (ev.get() != nullptr) {
        // The endpoint ignores a query without a reply-to address.
        add_reply_to(ev.get(), reply_addr, udp_port_);
        if (fill) fill(ev.get());
        add_selectors(ev.get(), sel);
    }
    return ev.finish(sel.priority, CV_SHIPMENT_SEND, CV_CLASS_QUERY, action, raw_id_, seq, keyed,
                     out);
}

Bytes Switch::build_query(const std::string &endpoint, bool set, const std::vector<uint32_t> &types,
                          const std::vector<SetItem> &items, const Selectors &sel, const Bytes &key,
                          uint32_t seq, uint32_t reply_addr) {
    const EndpointInfo *ep = find(endpoint);
    const Bytes &use = key.empty() && ep != nullptr ? ep->nonce_key : key;
    Bytes out;
    if (ep == nullptr || use.empty()) return out;
    const uint16_t action =
        set ? CV_ACTION_KVQR_CORVANE_QUERY_SET : CV_ACTION_KVQR_CORVANE_QUERY_COLLECT;
    if (!build(action, set ? set_filler(items) : get_filler(types), sel, use, seq, reply_addr,
               &out))
        out.clear();
    return out;
}

bool Switch::rekey(const std::string &endpoint, uint32_t new_nonce, std::string *why) {
    EndpointInfo *ep = find_mut(endpoint);
    if (ep == nullptr || ep->state != EndpointState::Active) {
        *why = "endpoint " + endpoint + " is not active";
        return false;
    }
    const uint32_t old = nonce_;
    nonce_ = new_nonce;
    // The acknowledgement answers the endpoint's last discovery update
    // again, now with the new nonce.
    DecodedPdu last;
    last.hdr.pri = 100;
    last.hdr.action = CV_ACTION_KVQR_CORVANE_DISCOVERY_DISCOVERY_UPDATE;
    last.hdr.seq = ep->last_seq;
    if (!acknowledge(ep, last, {}, 0)) {
        nonce_ = old;
        *why = "the acknowledgement with the new nonce could not be sent";
        return false;
    }
    ep->nonce_key = derive_nonce_key(nonce_, ep->endpoint_nonce, cfg_.secret, ep->raw_id);
    return true;
}

std::unique_ptr<QueryFlight> Switch::begin_get(const std::string &endpoint,
                                               const std::vector<uint32_t> &types,
                                               const Selectors &sel) {
    return begin(endpoint, CV_ACTION_KVQR_CORVANE_QUERY_COLLECT, true, get_filler(types), sel);
}

QueryResult Switch::get(const std::string &endpoint, const std::vector<uint32_t> &types,
                        const Selectors &sel) {
    return query(endpoint, CV_ACTION_KVQR_CORVANE_QUERY_COLLECT, true, get_filler(types), sel);
}

QueryResult Switch::set(const std::string &endpoint, const std::vector<SetItem> &items,
                        const Selectors &sel) {
    return query(endpoint, CV_ACTION_KVQR_CORVANE_QUERY_SET, false, set_filler(items), sel);
}

bool Switch::send_delete(const std::string &endpoint, std::string *why) {
    EndpointInfo *ep = find_mut(endpoint);
    if (ep == nullptr) {
        *why = "unknown endpoint " + endpoint;
        return false;
    }
    Conn conn(deliver_, cfg_, ep->listener);
    if (!conn.open(why)) return false;
    KeyStore key(secret_for(ep->raw_id));
    Bytes pdu;
    {
        EventBuilder ev;
        if (ev.get() != nullptr) add_reply_to(ev.get(), reply_addr_for(conn.fd()), udp_port_);
        if (!ev.finish(100, CV_SHIPMENT_SEND, CV_CLASS_DISCOVERY,
                       CV_ACTION_KVQR_CORVANE_DISCOVERY_DELETE, raw_id_, next_seq_++, key, &pdu)) {
            *why = "delete could not be built";
            return false;
        }
    }
    if (!conn.send(pdu, why)) return false;
    conn.close();
    ep->state = EndpointState::Deleted;
    ep->nonce_known = false;
    ep->nonce_sent = false;
    ep->nonce_key.clear();
    DecodedPdu sent = decode_pdu(pdu, key.get());
    SwitchEvent ev{SwitchEvent::Kind::Sent, addr_text(ep->listener)};
    ev.pdu = &sent;
    ev.info = ep;
    emit(std::move(ev));
    return true;
}

}  // namespace omsdk_tools
