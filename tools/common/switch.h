// SPDX-License-Identifier: Apache-2.0
// The parent switch, played on the network: hears the endpoints' discovery
// datagrams, handshakes with each of them, keeps a table of endpoints,
// answers their alarm requests and sends them queries and deletes over
// TCP. Single-threaded: nothing happens unless the owner calls poll(),
// run_for(), wait_for() or one of the query calls, and every wait is
// bounded.
#ifndef OMSDK_TOOLS_SWITCH_H
#define OMSDK_TOOLS_SWITCH_H

#include <netinet/in.h>
#include <poll.h>
#include <stdint.h>
#include <time.h>

#include <deque>
#include <functional>
#include <memory>
#include <string>
#include <unordered_map>
#include <vector>

#include <omsdk/wire_types.h>

#include "attributes.h"
#include "net.h"
#include "pdu_view.h"
#include "text_util.h"

namespace omsdk_tools {

// How the switch answers an endpoint's alarm request: with status Ok (2),
// with status Failed (3), or not at all (the discovery update that carried
// it is still acknowledged, so the endpoint gives the request up as failed
// after two further updates).
enum class AlarmMode { Ok, Failed, Ignore };

struct SwitchConfig {
    uint32_t bind_addr = 0;    // UDP listening address, network order (0 = any)
    uint16_t port = 43440;     // UDP discovery port (0 = system's choice)
    Bytes secret;              // empty: each endpoint's identifier is its key
    uint32_t source_addr = 0;  // bind outgoing TCP connections here (0 = no bind)
    // Address announced in acknowledgements for the endpoints' unicast
    // discovery updates (port: the UDP port). 0: the bind address when it is
    // not the wildcard, else the local address of each connection.
    uint32_t reply_addr = 0;
    std::string switch_id;  // 32 characters; empty: a random one
    uint32_t nonce = 0;     // 0: a random one
    AlarmMode alarms = AlarmMode::Ok;
    int io_timeout_ms = 3000;  // bound of every connect, send and read
    uint32_t first_seq = 1;    // sequence number of the first query or delete
    // Acknowledgements on their way at once, at most (each holds a
    // connection); the others wait their turn in order.
    int acks_in_flight = 256;
};

enum class EndpointState {
    Heard,         // discovery seen, not acknowledged yet (or the acknowledgement failed)
    Acknowledged,  // our nonce was sent; waiting for the endpoint's nonce
    Active,        // both nonces known: queries can be signed
    Deleted,       // a discovery delete was sent; it will announce itself again
    Left           // it sent a discovery delete itself
};
const char *state_text(EndpointState s);

struct EndpointInfo {
    std::string id;  // the 32-byte identifier as text
    uint8_t raw_id[32] = {};
    std::string domain, name, role, keywords, device_type;
    sockaddr_in listener{};  // its TCP listener (queries go there)
    sockaddr_in source{};    // where its datagrams come from
    EndpointState state = EndpointState::Heard;
    time_t last_update = 0;  // wall clock of the last discovery event
    uint32_t last_seq = 0;
    uint32_t updates = 0;  // discovery events heard
    bool nonce_known = false;
    uint32_t endpoint_nonce = 0;
    bool nonce_sent = false;  // an acknowledgement carrying our nonce went out
    Bytes nonce_key;          // 20 bytes once derived
    // Last values announced in discovery (-1: not announced).
    int64_t importance = -1, level = -1, usage = -1, units = -1, category = -1, caliber = -1;
    int64_t nanny = -1;
};

struct AlarmRequest {
    uint32_t seconds = 0;
    uint8_t param2 = 0;
    uint8_t param1 = 0;
    int32_t id = 0;
    int32_t operation = 0;  // 1 set, 4 clear-all
};

// Selectors travel inside a query; each endpoint decides whether it is
// addressed. `priority`: the endpoint answers only when its importance is
// at most this.
struct Selectors {
    std::vector<std::string> names, roles, keywords, ids;
    std::vector<int32_t> categories;
    uint8_t priority = 100;
};

struct QueryValue {
    uint32_t type = 0;
    std::string name;  // attribute name, or the TLV name
    Entry entry;
};

struct QueryResult {
    std::string endpoint;
    bool sent = false;    // the query went out
    bool silent = false;  // the endpoint closed without a word: not addressed
    bool acknowledged = false;
    int ack_shipment = 0;  // CV_SHIPMENT_ACK_WILL / _WONT
    bool replied = false;
    DecodedPdu ack, reply;
    std::vector<QueryValue> values;  // aggregate entries of the reply
    std::string error;               // empty when nothing went wrong
    bool timed_out = false;          // the error is a connect, send or read that ran out of time

    bool will() const { return acknowledged && ack_shipment == -1; }
    // Values of one TLV type.
    std::vector<Value> values_of(uint32_t type) const;
};

struct SwitchEvent {
    enum class Kind {
        EndpointSeen,   // a new endpoint (info)
        Received,       // a valid message (pdu; text: where from)
        Sent,           // a message the switch sent (pdu; text: where to)
        Acknowledged,   // handshake acknowledgement sent (info)
        HandshakeDone,  // nonce key derived and confirmed (info)
        AlarmRequest,   // an alarm request in a discovery update (info, alarm)
        AlarmAnswered,  // the answer that went out (info, alarm, alarm_status; 0 = ignored)
        QueryDone,      // a query finished (query)
        Error           // something was refused or failed (text; pdu when decodable)
    };
    SwitchEvent(Kind k, std::string t) : kind(k), text(std::move(t)) {}
    Kind kind;
    std::string text;
    const DecodedPdu *pdu = nullptr;
    const EndpointInfo *info = nullptr;
    const QueryResult *query = nullptr;
    AlarmRequest alarm;
    int alarm_status = 0;
};

class Switch;
class SendFlight;  // an acknowledgement or delete on its way (switch.cpp)
enum class SendKind : uint8_t;

// A query on its way, moved on without blocking: Switch::begin_get starts
// it, Switch::advance takes each step that needs no waiting. The owner
// waits for events() on fd() until deadline() (milliseconds, now_ms), then
// calls advance again, until done(). Every query the switch sends goes this
// way; get() and set() simply wait for one.
class QueryFlight {
public:
    ~QueryFlight() { close_fd(&fd_); }
    QueryFlight(const QueryFlight &) = delete;
    QueryFlight &operator=(const QueryFlight &) = delete;

    bool done() const { return stage_ == Stage::Done; }
    int fd() const { return fd_; }
    short events() const;
    int64_t deadline() const { return deadline_; }
    const QueryResult &result() const { return r_; }

private:
    friend class Switch;
    QueryFlight() = default;
    enum class Stage { Connect, Send, Ack, Reply, Done };
    Stage stage_ = Stage::Connect;
    QueryResult r_;
    EndpointInfo *ep_ = nullptr;
    uint16_t action_ = 0;
    bool expect_reply_ = false;
    std::function<void(cv_event *)> fill_;
    Selectors sel_;
    Bytes key_, pdu_;
    uint32_t seq_ = 0;
    int fd_ = -1;
    int attempt_ = 0;
    size_t sent_ = 0;
    MessageReader reader_;
    int64_t deadline_ = 0;
    std::vector<Bytes> answers_;  // with a delivery: what the endpoint answered
    size_t next_answer_ = 0;
};

class Switch {
public:
    explicit Switch(const SwitchConfig &cfg);
    ~Switch();
    Switch(const Switch &) = delete;
    Switch &operator=(const Switch &) = delete;

    // Opens the UDP socket. False with a reason (bind failure...).
    bool start(std::string *why);
    uint16_t udp_port() const { return udp_port_; }
    const std::string &id() const { return id_; }
    uint32_t nonce() const { return nonce_; }
    void set_alarm_mode(AlarmMode m) { cfg_.alarms = m; }
    // Off: discovery is heard and reported but not acknowledged (an
    // endpoint then keeps broadcasting at its retry interval).
    void set_acknowledging(bool on) { acknowledging_ = on; }
    int io_timeout_ms() const { return cfg_.io_timeout_ms; }
    void set_io_timeout_ms(int ms) { cfg_.io_timeout_ms = ms; }
    // The sequence number the next query or delete would use, taken.
    uint32_t take_seq() { return next_seq_++; }
    void set_observer(std::function<void(const SwitchEvent &)> fn) { observer_ = std::move(fn); }
    // Carries the switch's connections without TCP: `fn` gets each message
    // the switch would send on a connection to an endpoint's listener and
    // appends, in order, what the endpoint answered on it. False (with a
    // reason) when it could not be delivered. Empty: TCP again.
    using Delivery = std::function<bool(const sockaddr_in &to, const Bytes &msg,
                                        std::vector<Bytes> *answers, std::string *why)>;
    void set_delivery(Delivery fn) { deliver_ = std::move(fn); }

    // Waits at most timeout_ms for datagrams or for the acknowledgements in
    // flight, then handles what is ready; returns how many datagrams were
    // handled.
    int poll(int timeout_ms);
    // For an owner that waits on more than the switch: appends the
    // descriptors the switch waits on to *fds and lowers *wake_ms (now_ms)
    // to its nearest deadline; returns how many it appended. serve() then
    // takes those entries, with their revents, once the wait is over.
    size_t watch(std::vector<pollfd> *fds, int64_t *wake_ms) const;
    int serve(const pollfd *fds, size_t n);
    // Acknowledgements started and not finished, or waiting to start.
    size_t acks_pending() const;
    // Handles everything that arrives during ms milliseconds.
    void run_for(int ms);
    // Polls until pred() holds or timeout_ms pass; returns pred().
    bool wait_for(const std::function<bool()> &pred, int timeout_ms);
    // Processes one datagram as if it had arrived from `from`. Its
    // acknowledgement goes on its way (at once with a delivery).
    void handle_datagram(const Bytes &raw, const sockaddr_in &from);

    // References stay valid while the switch lives.
    const std::deque<EndpointInfo> &endpoints() const { return endpoints_; }
    const EndpointInfo *find(const std::string &id) const;
    size_t count_in(EndpointState s) const { return in_state_[static_cast<size_t>(s)]; }

    // GET: one request TLV per type, the selectors, and reading back the
    // acknowledgement and the reply.
    QueryResult get(const std::string &endpoint, const std::vector<uint32_t> &types,
                    const Selectors &sel);
    // SET: the changes and the selectors; reads back the acknowledgement.
    QueryResult set(const std::string &endpoint, const std::vector<SetItem> &items,
                    const Selectors &sel);
    // The GET of get(), started and left in flight (see QueryFlight). It may
    // be done at once (unknown endpoint, no handshake yet).
    std::unique_ptr<QueryFlight> begin_get(const std::string &endpoint,
                                           const std::vector<uint32_t> &types,
                                           const Selectors &sel);
    // Takes every step of the query that can be taken without waiting.
    void advance(QueryFlight &q);
    // The UDP socket discovery arrives on (-1 before start): readable means
    // poll(0) has work.
    int udp_fd() const { return udp_; }
    // The bytes of a GET (`set` false) or SET exactly as get() and set()
    // send them, but signed with `key` (empty: the endpoint's nonce key)
    // under `seq`, announcing `reply_addr` (network order). Empty when the
    // endpoint is unknown or has no key yet.
    Bytes build_query(const std::string &endpoint, bool set, const std::vector<uint32_t> &types,
                      const std::vector<SetItem> &items, const Selectors &sel, const Bytes &key,
                      uint32_t seq, uint32_t reply_addr);
    // A fresh acknowledgement of the endpoint's last discovery carrying a
    // new switch nonce: both sides derive a new nonce key (the endpoint
    // tells its nonce again in an update). False with a reason when it
    // could not be sent.
    bool rekey(const std::string &endpoint, uint32_t new_nonce, std::string *why);
    // Discovery delete; false with a reason when it could not be sent.
    bool send_delete(const std::string &endpoint, std::string *why);

    // The nonce key both sides derive from the two nonces and the secret
    // (or, with no secret, the endpoint's identifier).
    static Bytes derive_nonce_key(uint32_t switch_nonce, uint32_t endpoint_nonce,
                                  const Bytes &secret, const uint8_t *endpoint_id);

private:
    // The query went out: marked and reported to the observer.
    void note_sent(QueryFlight &q, const sockaddr_in &to);
    EndpointInfo *find_mut(const std::string &id);
    Bytes secret_for(const uint8_t *endpoint_id) const;
    void emit(SwitchEvent &&ev);
    void error(const std::string &text, const DecodedPdu *pdu = nullptr);
    void on_discovery(const DecodedPdu &p, const sockaddr_in &from);
    void set_state(EndpointInfo *ep, EndpointState s);
    std::unique_ptr<SendFlight> ack_flight(SendKind kind, EndpointInfo *ep,
                                           const DecodedPdu &discovery,
                                           std::vector<AlarmRequest> alarms, int alarm_status);
    bool build_send(SendFlight &f, uint32_t reply_addr, std::string *why);
    // Puts an acknowledgement on its way: behind the endpoint's earlier one,
    // or behind the others once the cap is reached.
    void acknowledge(std::unique_ptr<SendFlight> f);
    void start_queued();
    bool send_step(SendFlight &f);  // one step; false when it has to wait
    void send_advance(SendFlight &f);
    void send_done(SendFlight &f, std::string why);
    void release(const SendFlight &f);  // the endpoint's next acknowledgement may go
    // Runs one flight to its end, waiting for nothing else (rekey, delete).
    bool send_now(SendFlight &f, std::string *why);
    // Waits, without reading datagrams, until every acknowledgement asked
    // for has gone (or failed): what get(), set(), rekey() and
    // send_delete() send follows them on the wire.
    void settle_acks();
    int drain_udp();  // datagrams handled
    uint32_t reply_addr_for(int fd) const;
    QueryResult query(const std::string &endpoint, uint16_t action, bool expect_reply,
                      const std::function<void(cv_event *)> &fill, const Selectors &sel);
    std::unique_ptr<QueryFlight> begin(const std::string &endpoint, uint16_t action,
                                       bool expect_reply, std::function<void(cv_event *)> fill,
                                       const Selectors &sel);
    bool step(QueryFlight &q);  // one step; false when it has to wait
    void finish(QueryFlight &q, const std::string &error, bool timed_out = false);
    void take_ack(QueryFlight &q);
    void take_reply(QueryFlight &q);
    bool build(uint16_t action, const std::function<void(cv_event *)> &fill, const Selectors &sel,
               const Bytes &key, uint32_t seq, uint32_t reply_addr, Bytes *out) const;

    SwitchConfig cfg_;
    std::string id_;
    uint8_t raw_id_[32] = {};
    uint32_t nonce_ = 0;
    uint32_t next_seq_ = 1;
    int udp_ = -1;
    uint16_t udp_port_ = 0;
    bool acknowledging_ = true;
    std::deque<EndpointInfo> endpoints_;
    std::unordered_map<std::string, size_t> index_;     // identifier -> place in endpoints_
    size_t in_state_[5] = {};                           // endpoints in each state
    std::vector<std::unique_ptr<SendFlight>> sending_;  // connections open
    std::deque<std::unique_ptr<SendFlight>> queued_;    // waiting for the cap
    // Endpoints with an acknowledgement started or queued -> the ones asked
    // for after it, which wait for it to end.
    std::unordered_map<const EndpointInfo *, std::deque<std::unique_ptr<SendFlight>>> behind_;
    std::vector<pollfd> fds_;  // poll()'s own list, kept to spare allocations
    Bytes datagram_;           // likewise the datagram being handled
    std::function<void(const SwitchEvent &)> observer_;
    Delivery deliver_;
};

}  // namespace omsdk_tools

#endif
