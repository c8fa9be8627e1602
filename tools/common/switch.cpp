// SPDX-License-Identifier: Apache-2.0
#include "switch.h"

#include <arpa/inet.h>
#include <errno.h>
#include <poll.h>
#include <stdio.h>
#include <string.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
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
constexpr int kMaxDrain = 1024;  // datagrams a wake-up takes, so that flights go on too

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

enum class SendKind : uint8_t {
    Handshake,  // answers a discovery without the endpoint's nonce
    Update,     // answers an update (and its alarm requests)
    Rekey,      // answers the last update again with a new nonce
    Delete      // a discovery delete
};

// An acknowledgement (or a delete) on its way to an endpoint's listener:
// connect, send, close; nothing comes back. The switch's poll loop moves
// many of them at once, as the sweep does with queries.
class SendFlight {
public:
    enum class Stage { Connect, Send, Done };
    SendFlight(SendKind k, EndpointInfo *e) : kind(k), ep(e), to(e->listener) {}
    ~SendFlight() { close_fd(&fd); }
    SendFlight(const SendFlight &) = delete;
    SendFlight &operator=(const SendFlight &) = delete;

    SendKind kind;
    EndpointInfo *ep;
    sockaddr_in to;  // the listener when it was asked for
    // The discovery event answered: its priority, action and sequence number.
    uint8_t pri = 100;
    uint16_t action = 0;
    uint32_t seq = 0;
    std::vector<AlarmRequest> alarms;  // the requests it answers (0: ignored)
    int alarm_status = 0;
    Bytes key;  // signs it (discovery class: the secret)
    Stage stage = Stage::Connect;
    int fd = -1;
    Bytes pdu;
    size_t sent = 0;
    int64_t deadline = 0;
    bool ok = false;
    std::string error;
};

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

void Switch::set_state(EndpointInfo *ep, EndpointState s) {
    --in_state_[static_cast<size_t>(ep->state)];
    ++in_state_[static_cast<size_t>(s)];
    ep->state = s;
}

size_t Switch::acks_pending() const {
    size_t n = sending_.size() + queued_.size();
    for (const auto &b : behind_) n += b.second.size();
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
    fds_.clear();
    int64_t wake = now_ms() + (timeout_ms < 0 ? 0 : timeout_ms);
    const size_t n = watch(&fds_, &wake);
    const int64_t left = wake - now_ms();
    if (::poll(fds_.data(), n, left > 0 ? static_cast<int>(left) : 0) < 0) return 0;
    return serve(fds_.data(), n);
}

size_t Switch::watch(std::vector<pollfd> *fds, int64_t *wake_ms) const {
    if (udp_ < 0) return 0;
    fds->push_back(pollfd{udp_, POLLIN, 0});
    for (const auto &f : sending_) {
        fds->push_back(pollfd{f->fd, POLLOUT, 0});
        *wake_ms = std::min(*wake_ms, f->deadline);
    }
    return 1 + sending_.size();
}

int Switch::serve(const pollfd *fds, size_t n) {
    if (udp_ < 0 || n == 0) return 0;
    const int64_t now = now_ms();
    bool ended = false;
    for (size_t i = 0; i < sending_.size(); ++i) {
        SendFlight &f = *sending_[i];
        // Entries follow sending_ as watch() listed it; one not listed is
        // looked at anyway.
        const bool listed = i + 1 < n && fds[i + 1].fd == f.fd;
        if (listed && fds[i + 1].revents == 0 && now < f.deadline) continue;
        send_advance(f);
        if (f.stage != SendFlight::Stage::Done) continue;
        release(f);
        ended = true;
    }
    if (ended)
        sending_.erase(std::remove_if(sending_.begin(), sending_.end(),
                                      [](const std::unique_ptr<SendFlight> &f) {
                                          return f->stage == SendFlight::Stage::Done;
                                      }),
                       sending_.end());
    start_queued();
    return fds[0].fd == udp_ && fds[0].revents != 0 ? drain_udp() : 0;
}

int Switch::drain_udp() {
    int handled = 0;
    // What is queued, all of it up to a bound: a burst of discovery waits
    // in the socket's buffer, not in the network.
    while (handled < kMaxDrain) {
        uint8_t buf[kMaxDatagram];
        sockaddr_in from{};
        socklen_t flen = sizeof from;
        const ssize_t n = recvfrom(udp_, buf, sizeof buf, MSG_DONTWAIT,
                                   reinterpret_cast<sockaddr *>(&from), &flen);
        if (n < 0) {
            if (errno == EINTR) continue;
            break;
        }
        datagram_.assign(buf, buf + n);
        handle_datagram(datagram_, from);
        ++handled;
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
        ++in_state_[static_cast<size_t>(ep->state)];
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
        set_state(ep, EndpointState::Left);
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
        set_state(ep, EndpointState::Heard);
        acknowledge(ack_flight(SendKind::Handshake, ep, p, {}, 0));
        return;
    }

    const uint32_t endpoint_nonce = static_cast<uint32_t>(nonce->value.num);
    if (!ep->nonce_known || ep->endpoint_nonce != endpoint_nonce) {
        ep->endpoint_nonce = endpoint_nonce;
        ep->nonce_known = true;
        ep->nonce_key = derive_nonce_key(nonce_, endpoint_nonce, cfg_.secret, ep->raw_id);
        if (ep->state == EndpointState::Active) set_state(ep, EndpointState::Acknowledged);
    }
    // The endpoint keys itself with our nonce once it has seen it; until an
    // acknowledgement of ours has reached it (say, after a restart of the
    // switch) its key is another one.
    if (ep->nonce_sent && ep->state != EndpointState::Active) {
        set_state(ep, EndpointState::Active);
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
    acknowledge(ack_flight(SendKind::Update, ep, p, std::move(alarms), status));
}

uint32_t Switch::reply_addr_for(int fd) const {
    if (cfg_.reply_addr != 0) return cfg_.reply_addr;
    if (cfg_.bind_addr != 0) return cfg_.bind_addr;
    return local_addr(fd);
}

std::unique_ptr<SendFlight> Switch::ack_flight(SendKind kind, EndpointInfo *ep,
                                               const DecodedPdu &discovery,
                                               std::vector<AlarmRequest> alarms, int alarm_status) {
    std::unique_ptr<SendFlight> f(new SendFlight(kind, ep));
    // An acknowledgement answers one discovery event: its action, sequence
    // number and priority byte come back.
    f->pri = static_cast<uint8_t>(discovery.hdr.pri);
    f->action = static_cast<uint16_t>(discovery.hdr.action);
    f->seq = discovery.hdr.seq;
    f->alarms = std::move(alarms);
    f->alarm_status = alarm_status;
    f->key = secret_for(ep->raw_id);
    return f;
}

bool Switch::build_send(SendFlight &f, uint32_t reply_addr, std::string *why) {
    EventBuilder ev;
    KeyStore key(f.key);  // discovery class: signed with the secret
    if (f.kind == SendKind::Delete) {
        if (ev.get() != nullptr) add_reply_to(ev.get(), reply_addr, udp_port_);
        if (ev.finish(100, CV_SHIPMENT_SEND, CV_CLASS_DISCOVERY,
                      CV_ACTION_KVQR_CORVANE_DISCOVERY_DELETE, raw_id_, next_seq_++, key, &f.pdu))
            return true;
        *why = "delete could not be built";
        return false;
    }
    if (ev.get() == nullptr) {
        *why = "out of memory";
        return false;
    }
    add_reply_to(ev.get(), reply_addr, udp_port_);
    // The nonce as it is when the message is made: a rekey in between
    // holds for the acknowledgements still waiting.
    cv_add_tlv(ev.get(), CV_CORVANE_TLV_TYPE_NONCE, CV_TLV_HEADER_SIZE + sizeof nonce_, &nonce_);
    for (const AlarmRequest &a : f.alarm_status != 0 ? f.alarms : std::vector<AlarmRequest>()) {
        cv_alarm answer{};
        answer.seconds = a.seconds;
        answer.param2 = a.param2;
        answer.param1 = a.param1;
        answer.id = a.id;
        answer.operation = f.alarm_status;
        cv_add_tlv(ev.get(), CV_CORVANE_TLV_TYPE_ALARM, CV_TLV_HEADER_SIZE + sizeof answer,
                   &answer);
    }
    if (ev.finish(f.pri, CV_SHIPMENT_ACK_WILL, CV_CLASS_DISCOVERY, f.action, raw_id_, f.seq, key,
                  &f.pdu))
        return true;
    *why = "message could not be built";
    return false;
}

void Switch::acknowledge(std::unique_ptr<SendFlight> f) {
    // One at a time per endpoint, in order: it takes an acknowledgement
    // older than one it has taken as stale.
    const auto it = behind_.find(f->ep);
    if (it != behind_.end()) {
        it->second.push_back(std::move(f));
        return;
    }
    behind_[f->ep];
    queued_.push_back(std::move(f));
    start_queued();
}

void Switch::start_queued() {
    const size_t cap = static_cast<size_t>(cfg_.acks_in_flight > 0 ? cfg_.acks_in_flight : 1);
    while (!queued_.empty() && sending_.size() < cap) {
        std::unique_ptr<SendFlight> f = std::move(queued_.front());
        queued_.pop_front();
        send_advance(*f);
        if (f->stage == SendFlight::Stage::Done)
            release(*f);
        else
            sending_.push_back(std::move(f));
    }
}

void Switch::release(const SendFlight &f) {
    const auto it = behind_.find(f.ep);
    if (it == behind_.end()) return;
    if (it->second.empty()) {
        behind_.erase(it);
        return;
    }
    queued_.push_back(std::move(it->second.front()));
    it->second.pop_front();
}

void Switch::send_advance(SendFlight &f) {
    while (f.stage != SendFlight::Stage::Done && send_step(f)) {
    }
}

bool Switch::send_step(SendFlight &f) {
    using Stage = SendFlight::Stage;
    std::string why;
    if (f.stage == Stage::Connect) {
        if (deliver_) {  // no connection: delivered at once
            std::vector<Bytes> answers;
            if (!build_send(f, reply_addr_for(-1), &why)) {
                send_done(f, why);
            } else if (!deliver_(f.to, f.pdu, &answers, &why)) {
                send_done(f, "to " + addr_text(f.to) + ": " + why);
            } else {
                f.ok = true;
                send_done(f, "");
            }
            return false;
        }
        if (f.fd < 0) {
            bool pending = false;
            f.fd = start_connect(f.to, cfg_.source_addr, &pending, &why);
            if (f.fd < 0) {
                send_done(f, why);
                return false;
            }
            f.deadline = now_ms() + cfg_.io_timeout_ms;
            if (pending) return true;  // the next step looks whether it is made
        } else {
            pollfd p{f.fd, POLLOUT, 0};
            if (::poll(&p, 1, 0) <= 0) {
                if (now_ms() >= f.deadline) {
                    sockaddr_in dst = f.to;
                    dst.sin_family = AF_INET;
                    send_done(f, "connect " + addr_text(dst) + ": timed out");
                }
                return false;
            }
            if (!finish_connect(f.fd, f.to, &why)) {
                send_done(f, why);
                return false;
            }
        }
        if (!build_send(f, reply_addr_for(f.fd), &why)) {
            send_done(f, why);
            return false;
        }
        f.stage = Stage::Send;
        f.sent = 0;
        f.deadline = now_ms() + cfg_.io_timeout_ms;
        return true;
    }
    if (f.stage != Stage::Send) return false;
    const ssize_t k = send(f.fd, f.pdu.data() + f.sent, f.pdu.size() - f.sent, MSG_NOSIGNAL);
    if (k < 0) {
        if (errno == EINTR) return true;
        if (errno != EAGAIN && errno != EWOULDBLOCK)
            send_done(f, "to " + addr_text(f.to) + ": send: " + strerror(errno));
        else if (now_ms() >= f.deadline)
            send_done(f, "to " + addr_text(f.to) + ": send: timed out");
        return false;
    }
    f.sent += static_cast<size_t>(k);
    if (f.sent < f.pdu.size()) return true;
    f.ok = true;
    send_done(f, "");
    return false;
}

void Switch::send_done(SendFlight &f, std::string why) {
    close_fd(&f.fd);
    f.stage = SendFlight::Stage::Done;
    f.error = std::move(why);
    EndpointInfo *ep = f.ep;
    if (!f.ok) {
        if (f.kind != SendKind::Delete) error("cannot acknowledge " + ep->id + ": " + f.error);
        return;
    }
    if (f.kind == SendKind::Delete) {
        set_state(ep, EndpointState::Deleted);
        ep->nonce_known = false;
        ep->nonce_sent = false;
        ep->nonce_key.clear();
    }
    {
        KeyStore key(f.key);
        DecodedPdu sent = decode_pdu(f.pdu, key.get());
        SwitchEvent ev{SwitchEvent::Kind::Sent, addr_text(ep->listener)};
        ev.pdu = &sent;
        ev.info = ep;
        emit(std::move(ev));
    }
    // A goodbye heard since it was asked for stands.
    const bool gone = ep->state == EndpointState::Left || ep->state == EndpointState::Deleted;
    if (f.kind == SendKind::Handshake && !gone) {
        ep->nonce_sent = true;
        if (ep->state != EndpointState::Active) {
            set_state(ep, EndpointState::Acknowledged);
            SwitchEvent ev{SwitchEvent::Kind::Acknowledged, addr_text(ep->listener)};
            ev.info = ep;
            emit(std::move(ev));
        }
    } else if (f.kind == SendKind::Update) {
        if (!ep->nonce_sent && !gone) {
            ep->nonce_sent = true;
            if (ep->state != EndpointState::Active) set_state(ep, EndpointState::Acknowledged);
        }
        for (const AlarmRequest &a : f.alarms) {
            SwitchEvent ev{SwitchEvent::Kind::AlarmAnswered, ""};
            ev.info = ep;
            ev.alarm = a;
            ev.alarm_status = f.alarm_status;
            emit(std::move(ev));
        }
    }
}

void Switch::settle_acks() {
    for (;;) {
        start_queued();
        if (sending_.empty()) return;
        fds_.clear();
        int64_t wake = INT64_MAX;
        const size_t n = watch(&fds_, &wake);
        if (n == 0) return;
        fds_[0].fd = -1;  // datagrams wait
        const int64_t left = wake - now_ms();
        if (::poll(fds_.data(), n, left > 0 ? static_cast<int>(left) : 0) < 0 && errno != EINTR)
            return;
        serve(fds_.data(), n);
    }
}

bool Switch::send_now(SendFlight &f, std::string *why) {
    settle_acks();
    send_advance(f);
    while (f.stage != SendFlight::Stage::Done) {
        pollfd p{f.fd, POLLOUT, 0};
        const int64_t left = f.deadline - now_ms();
        if (::poll(&p, 1, left > 0 ? static_cast<int>(left) : 0) < 0 && errno != EINTR) {
            send_done(f, std::string("poll: ") + strerror(errno));
            break;
        }
        send_advance(f);
    }
    *why = f.error;
    return f.ok;
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
    settle_acks();
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
    std::unique_ptr<SendFlight> f = ack_flight(SendKind::Rekey, ep, last, {}, 0);
    std::string failed;
    if (!send_now(*f, &failed)) {
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
    SendFlight f(SendKind::Delete, ep);
    f.key = secret_for(ep->raw_id);
    return send_now(f, why);
}

}  // namespace omsdk_tools
