// SPDX-License-Identifier: Apache-2.0
// Query round trips per second through the real service loop, against a
// floor: a bare socket responder that does the same socket work (wait and
// accept, read one framed message, write the two answers in two sends,
// close) and the same HMACs (checks the query's, signs both answers, with
// OpenSSL from key states computed once). The two are alternated round by
// round and compared by their medians. Also reports what a session
// allocates from creation to ACTIVE.
//
// Usage: omsdk_loop_bench [queries-per-round] [rounds] [options]
//   --loop-only     no baseline rounds (for instruction counts under callgrind)
//   --bare-floor    the floor sends the answers' bytes as they are, without
//                   any HMAC (the socket work alone)
//   --keywords=N    the endpoint has N keywords and every query selects by N
//                   keywords, the one that matches last
//   --clients=N     N switch connections at once, each doing its share of the
//                   queries (from 127.0.0.2; with --spread from 127.0.0.2,
//                   127.0.0.3, ..., which the endpoint refuses once per change
//                   of caller)
//   --backlog=B     listen backlog of the endpoint and the baseline (default:
//                   the endpoint's own, 10 for the baseline)
//   --capture=FILE  the endpoint captures its traffic into FILE (its cost)
#include <arpa/inet.h>
#include <errno.h>
#include <malloc.h>
#include <netinet/in.h>
#include <poll.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/select.h>
#include <sys/socket.h>
#include <unistd.h>

#include <openssl/core_names.h>
#include <openssl/crypto.h>
#include <openssl/evp.h>
#include <openssl/hmac.h>
#include <openssl/params.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <string>
#include <thread>
#include <vector>

#include <omsdk/event.h>
#include <omsdk/hmac.h>
#include <omsdk/pdu.h>

#include "omsdk.h"
#include "session/session.h"

// ---- allocation accounting ---------------------------------------------
// A counting allocator interposed in this executable: it forwards to the C
// library and, while enabled for the calling thread, adds up what is asked
// for and what is still held.

namespace {
std::atomic<bool> g_counting{false};
thread_local bool t_counted_thread = false;
std::atomic<long long> g_alloc_calls{0};
std::atomic<long long> g_alloc_bytes{0};
std::atomic<long long> g_live_bytes{0};

inline bool counting() { return t_counted_thread && g_counting.load(std::memory_order_relaxed); }
}  // namespace

#ifndef OMSDK_BENCH_NO_MALLOC_HOOK
extern "C" {
void *__libc_malloc(size_t);
void *__libc_calloc(size_t, size_t);
void *__libc_realloc(void *, size_t);
void __libc_free(void *);
void *__libc_memalign(size_t, size_t);

void *malloc(size_t n) {
    void *p = __libc_malloc(n);
    if (p != nullptr && counting()) {
        ++g_alloc_calls;
        g_alloc_bytes += static_cast<long long>(n);
        g_live_bytes += static_cast<long long>(malloc_usable_size(p));
    }
    return p;
}
void *calloc(size_t a, size_t b) {
    void *p = __libc_calloc(a, b);
    if (p != nullptr && counting()) {
        ++g_alloc_calls;
        g_alloc_bytes += static_cast<long long>(a * b);
        g_live_bytes += static_cast<long long>(malloc_usable_size(p));
    }
    return p;
}
void *realloc(void *old, size_t n) {
    const long long before = old != nullptr ? static_cast<long long>(malloc_usable_size(old)) : 0;
    void *p = __libc_realloc(old, n);
    if (p != nullptr && counting()) {
        ++g_alloc_calls;
        g_alloc_bytes += static_cast<long long>(n);
        g_live_bytes += static_cast<long long>(malloc_usable_size(p)) - before;
    }
    return p;
}
void free(void *p) {
    if (p != nullptr && counting()) g_live_bytes -= static_cast<long long>(malloc_usable_size(p));
    __libc_free(p);
}
void *memalign(size_t align, size_t n) {
    void *p = __libc_memalign(align, n);
    if (p != nullptr && counting()) {
        ++g_alloc_calls;
        g_alloc_bytes += static_cast<long long>(n);
        g_live_bytes += static_cast<long long>(malloc_usable_size(p));
    }
    return p;
}
void *aligned_alloc(size_t align, size_t n) { return memalign(align, n); }
int posix_memalign(void **out, size_t align, size_t n) {
    void *p = memalign(align, n);
    if (p == nullptr) return ENOMEM;
    *out = p;
    return 0;
}
}
#endif

namespace {

using Bytes = std::vector<uint8_t>;
using Clock = std::chrono::steady_clock;

constexpr char kId[] = "0123456789abcdef0123456789abcdef";
constexpr char kSwitchId[] = "fedcba9876543210fedcba9876543210";
const Bytes kSecret(reinterpret_cast<const uint8_t *>("bench-shared-secret!"),
                    reinterpret_cast<const uint8_t *>("bench-shared-secret!") + 20);
constexpr uint32_t kRemoteNonce = 0x0BADCAFE;
constexpr int kIoTimeoutMs = 3000;

[[noreturn]] void die(const char *what) {
    fprintf(stderr, "loop_bench: %s (%s)\n", what, strerror(errno));
    exit(1);
}

Bytes hmac_sha1(const Bytes &key, const uint8_t *data, size_t len) {
    Bytes out(EVP_MAX_MD_SIZE);
    unsigned int n = 0;
    HMAC(EVP_sha1(), key.data(), static_cast<int>(key.size()), data, len, out.data(), &n);
    out.resize(n);
    return out;
}

void sign(Bytes &msg, const Bytes &key) {
    Bytes d = hmac_sha1(key, msg.data() + 32, msg.size() - 32);
    memcpy(msg.data() + 12, d.data(), d.size());
}

void put_be32(uint8_t *p, uint32_t v) {
    p[0] = static_cast<uint8_t>(v >> 24);
    p[1] = static_cast<uint8_t>(v >> 16);
    p[2] = static_cast<uint8_t>(v >> 8);
    p[3] = static_cast<uint8_t>(v);
}

sockaddr_in ipv4(const char *ip, uint16_t port) {
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_port = htons(port);
    a.sin_addr.s_addr = inet_addr(ip);
    return a;
}

uint16_t port_of(int fd) {
    sockaddr_in a{};
    socklen_t len = sizeof a;
    getsockname(fd, reinterpret_cast<sockaddr *>(&a), &len);
    return ntohs(a.sin_port);
}

int udp_on(const char *ip) {
    int fd = socket(AF_INET, SOCK_DGRAM, 0);
    sockaddr_in a = ipv4(ip, 0);
    if (fd < 0 || bind(fd, reinterpret_cast<sockaddr *>(&a), sizeof a) != 0) die("udp socket");
    return fd;
}

// One connection from the switch's address: send the message, read until
// the other side closes. Returns the bytes received, or -1.
long round_trip(const sockaddr_in &to, const Bytes &msg, Bytes *answer = nullptr,
                const char *source = "127.0.0.2") {
    int fd = socket(AF_INET, SOCK_STREAM, 0);
    if (fd < 0) return -1;
    int one = 1;
    // Let connect() pick the port by the whole address pair: many short
    // connections from one source address.
    setsockopt(fd, IPPROTO_IP, IP_BIND_ADDRESS_NO_PORT, &one, sizeof one);
    sockaddr_in from = ipv4(source, 0);
    timeval tv{kIoTimeoutMs / 1000, 0};
    setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof tv);
    setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &tv, sizeof tv);  // bounds connect() too
    if (bind(fd, reinterpret_cast<sockaddr *>(&from), sizeof from) != 0 ||
        connect(fd, reinterpret_cast<const sockaddr *>(&to), sizeof to) != 0 ||
        send(fd, msg.data(), msg.size(), MSG_NOSIGNAL) != static_cast<ssize_t>(msg.size())) {
        close(fd);
        return -1;
    }
    long total = 0;
    uint8_t buf[4096];
    for (;;) {
        ssize_t n = recv(fd, buf, sizeof buf, 0);
        if (n == 0) break;
        if (n < 0) {
            total = -1;
            break;
        }
        total += n;
        if (answer != nullptr) answer->insert(answer->end(), buf, buf + n);
    }
    // The responder closed first; ending with a reset spares it the
    // TIME_WAIT state, which would otherwise pile up over thousands of
    // connections and make reused address pairs stall.
    linger abort_close{1, 0};
    setsockopt(fd, SOL_SOCKET, SO_LINGER, &abort_close, sizeof abort_close);
    close(fd);
    return total;
}

// A message built with the library's event functions and signed here.
struct Tlv {
    uint32_t type;
    Bytes value;
    uint32_t qualifier = 0;  // 1: a selector
};

Bytes build(int8_t shipment, uint8_t cls, uint16_t action, uint32_t seq,
            const std::vector<Tlv> &tlvs, const Bytes &key) {
    cv_event *ev = corvane_create_my_packet();
    if (ev == nullptr) die("event");
    for (const auto &t : tlvs)
        cv_add_tlv_common(ev, t.type, static_cast<uint32_t>(12 + t.value.size()),
                          t.value.empty() ? nullptr : t.value.data(), t.qualifier);
    omr_createPdu(ev, 100, shipment, cls, action, reinterpret_cast<const uint8_t *>(kSwitchId), seq,
                  nullptr, 1);
    Bytes raw(ev->raw, ev->raw + ev->raw_len);
    corvane_try_gc(ev);
    sign(raw, key);
    return raw;
}

Bytes addr_bytes(const sockaddr_in &a) {
    const uint8_t *p = reinterpret_cast<const uint8_t *>(&a);
    return Bytes(p, p + sizeof a);
}

// ---- the application --------------------------------------------------

svc_callback_registry app_registry() {
    svc_callback_registry r{};
    r.get_units = [] { return uint8_t{2}; };
    r.get_usage = [] { return uint16_t{1234}; };
    r.get_usage_caliber = [] { return uint32_t{10}; };
    r.get_usage_category = [] { return uint32_t{1}; };
    r.get_level = [] { return uint8_t{7}; };
    r.set_level = [](uint8_t) { return int32_t{0}; };
    r.get_usage_vector = [](uint16_t *v) { memset(v, 0, 22); };
    r.get_delta_vector = [](int32_t *v) { memset(v, 0, 44); };
    r.next_sequence = [] {
        static std::atomic<uint32_t> seq{1};
        return seq++;
    };
    r.attribute_modified = [](int32_t) {};
    r.listen_port_notify = [](uint16_t) {};
    r.status_changed = [](int32_t) {};
    r.alarm_reply = [](int32_t, uint32_t, int32_t) {};
    return r;
}

// ---- the baseline responder --------------------------------------------

// HMAC-SHA1 under one key, its key states computed once: each message
// starts from them again (a MAC initialised without a key keeps its key).
class KeyedMac {
public:
    explicit KeyedMac(const Bytes &key) {
        mac_ = EVP_MAC_fetch(nullptr, "HMAC", nullptr);
        ctx_ = mac_ != nullptr ? EVP_MAC_CTX_new(mac_) : nullptr;
        char digest[] = "SHA1";
        OSSL_PARAM params[] = {OSSL_PARAM_construct_utf8_string(OSSL_MAC_PARAM_DIGEST, digest, 0),
                               OSSL_PARAM_construct_end()};
        if (ctx_ == nullptr || EVP_MAC_init(ctx_, key.data(), key.size(), params) != 1)
            die("HMAC context");
    }
    ~KeyedMac() {
        EVP_MAC_CTX_free(ctx_);
        EVP_MAC_free(mac_);
    }
    KeyedMac(const KeyedMac &) = delete;
    KeyedMac &operator=(const KeyedMac &) = delete;
    // The digest of a message (bytes 32 on) into out[20].
    bool digest(const uint8_t *msg, size_t len, uint8_t *out) {
        size_t n = 0;
        return len >= 32 && EVP_MAC_init(ctx_, nullptr, 0, nullptr) == 1 &&
               EVP_MAC_update(ctx_, msg + 32, len - 32) == 1 &&
               EVP_MAC_final(ctx_, out, &n, 20) == 1 && n == 20;
    }

private:
    EVP_MAC *mac_ = nullptr;
    EVP_MAC_CTX *ctx_ = nullptr;
};

class Baseline {
public:
    // `key` null: the bare floor, which sends the answers as they are.
    Baseline(const Bytes &ack, const Bytes &reply, int backlog, const Bytes *key)
        : ack_(ack), reply_(reply) {
        if (key != nullptr) {
            mac_ = new KeyedMac(*key);
            // The same HMACs as the endpoint's: over the answers' bytes, the
            // endpoint's own digests.
            uint8_t d[20];
            for (const Bytes *b : {&ack_, &reply_})
                if (!mac_->digest(b->data(), b->size(), d) || memcmp(d, b->data() + 12, 20) != 0)
                    die("the floor's digest differs from the endpoint's");
        }
        lst_ = socket(AF_INET, SOCK_STREAM, 0);
        sockaddr_in a = ipv4("127.0.0.1", 0);
        if (lst_ < 0 || bind(lst_, reinterpret_cast<sockaddr *>(&a), sizeof a) != 0 ||
            listen(lst_, backlog) != 0)
            die("baseline listener");
        addr_ = ipv4("127.0.0.1", port_of(lst_));
        t_ = std::thread([this] { run(); });
    }
    ~Baseline() {
        stop_ = true;
        t_.join();
        close(lst_);
        delete mac_;
    }
    Baseline(const Baseline &) = delete;
    Baseline &operator=(const Baseline &) = delete;
    const sockaddr_in &addr() const { return addr_; }

private:
    // Checks the query's digest and signs both answers; false when the
    // query's digest is wrong (then nothing is sent).
    bool sign_answers(const uint8_t *msg, size_t len) {
        if (mac_ == nullptr) return true;
        uint8_t d[20];
        if (!mac_->digest(msg, len, d) || CRYPTO_memcmp(d, msg + 12, 20) != 0) return false;
        return mac_->digest(ack_.data(), ack_.size(), ack_.data() + 12) &&
               mac_->digest(reply_.data(), reply_.size(), reply_.data() + 12);
    }

    void run() {
        uint8_t buf[1400];
        while (!stop_) {
            fd_set set;
            FD_ZERO(&set);
            FD_SET(lst_, &set);
            timeval tv{0, 100000};
            if (select(lst_ + 1, &set, nullptr, nullptr, &tv) < 1) continue;
            sockaddr_in from{};
            socklen_t len = sizeof from;
            int fd = accept(lst_, reinterpret_cast<sockaddr *>(&from), &len);
            if (fd < 0) continue;
            timeval rt{kIoTimeoutMs / 1000, 0};
            setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &rt, sizeof rt);
            // The same three framed reads as the endpoint's.
            if (recv(fd, buf, 12, MSG_WAITALL) == 12) {
                const int digest = ((buf[10] << 8 | buf[11]) + 3) & ~3;
                if (recv(fd, buf + 12, static_cast<size_t>(digest + 48), MSG_WAITALL) ==
                    digest + 48) {
                    const int tlv = buf[12 + digest + 44] << 8 | buf[12 + digest + 45];
                    if (tlv + digest + 60 <= 1400 &&
                        (tlv == 0 || recv(fd, buf + 60 + digest, static_cast<size_t>(tlv),
                                          MSG_WAITALL) == tlv) &&
                        digest == 20 && sign_answers(buf, static_cast<size_t>(60 + digest + tlv))) {
                        send(fd, ack_.data(), ack_.size(), MSG_NOSIGNAL);
                        send(fd, reply_.data(), reply_.size(), MSG_NOSIGNAL);
                    }
                }
            }
            close(fd);
        }
    }

    Bytes ack_, reply_;
    KeyedMac *mac_ = nullptr;
    int lst_ = -1;
    sockaddr_in addr_{};
    std::atomic<bool> stop_{false};
    std::thread t_;
};

double median(std::vector<double> v) {
    std::sort(v.begin(), v.end());
    const size_t n = v.size();
    return n % 2 == 1 ? v[n / 2] : (v[n / 2 - 1] + v[n / 2]) / 2;
}

template <typename Pred>
bool wait_for(Pred pred, int ms) {
    auto end = Clock::now() + std::chrono::milliseconds(ms);
    while (!pred()) {
        if (Clock::now() > end) return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return true;
}

size_t message_size(const Bytes &b, size_t at) {
    if (at + 80 > b.size()) return 0;
    return 80 + static_cast<size_t>(b[at + 76] << 8 | b[at + 77]);
}

}  // namespace

int main(int argc, char **argv) {
    int queries = 2000, rounds = 7, keywords = 0, clients = 1, backlog = 0, positional = 0;
    bool loop_only = false, spread = false, bare_floor = false, ok = true;
    const char *capture = nullptr;
    for (int i = 1; i < argc; ++i) {
        const char *a = argv[i];
        if (strcmp(a, "--loop-only") == 0)
            loop_only = true;
        else if (strcmp(a, "--bare-floor") == 0)
            bare_floor = true;
        else if (strcmp(a, "--spread") == 0)
            spread = true;
        else if (strncmp(a, "--keywords=", 11) == 0)
            keywords = atoi(a + 11);
        else if (strncmp(a, "--clients=", 10) == 0)
            clients = atoi(a + 10);
        else if (strncmp(a, "--backlog=", 10) == 0)
            backlog = atoi(a + 10);
        else if (strncmp(a, "--capture=", 10) == 0)
            capture = a + 10;
        else if (a[0] != '-' && positional == 0 && ++positional)
            queries = atoi(a);
        else if (a[0] != '-' && positional == 1 && ++positional)
            rounds = atoi(a);
        else
            ok = false;
    }
    if (!ok || queries < 1 || rounds < 1 || keywords < 0 || clients < 1 || clients > 200 ||
        backlog < 0) {
        fprintf(
            stderr,
            "usage: %s [queries-per-round] [rounds] [--loop-only] [--bare-floor] [--keywords=N] "
            "[--clients=N [--spread]] [--backlog=B] [--capture=FILE]\n",
            argv[0]);
        return 2;
    }
    setLogLevel(OHMARA_LOG_WARN);

    // Discovery goes to a port of our own; unicast updates to `parent`.
    int discovery = udp_on("0.0.0.0");
    int parent = udp_on("127.0.0.1");
    static svc_callback_registry registry = app_registry();

    // The crypto library sets itself up on first use: do that before
    // counting, so that only the session's own allocations are counted.
    hmac_sha1(kSecret, kSecret.data(), kSecret.size());
    uint8_t warm[20];
    hmac_sha(kSecret.data(), static_cast<uint16_t>(kSecret.size()), kSecret.data(), 20, warm);

    // ---- creation to ACTIVE, with allocations counted ----
    t_counted_thread = true;
    g_counting = true;
    svc_session *s = ohmara_svc_create("127.0.0.1", port_of(discovery), kId, kSecret.data(),
                                       static_cast<int32_t>(kSecret.size()), 0);
    if (s == nullptr) die("session");
    std::string own_keywords = "a,b";
    Bytes selector;  // x0 .. x(N-2), then the endpoint's last keyword
    if (keywords > 0) {
        own_keywords.clear();
        for (int i = 0; i < keywords; ++i) {
            own_keywords += (i > 0 ? ",k" : "k") + std::to_string(i);
            std::string w = (i + 1 < keywords ? "x" : "k") + std::to_string(i);
            selector.insert(selector.end(), w.begin(), w.end());
            selector.push_back(0);
        }
    }
    ohmara_svc_configIdentity(s, "bench", "lamp-1", "lamp", own_keywords.c_str(), "meter", 10);
    ohmara_svc_configRegistry(s, &registry);
    if (backlog > 0 && ohmara_svc_setListenBacklog(s, backlog) != 0) die("backlog");
    if (capture != nullptr && ohmara_svc_startCapture(s, capture, 0) != 0) die("capture");
    t_counted_thread = false;
    const uint32_t local_nonce = s->local_nonce;
    const sockaddr_in endpoint = ipv4("127.0.0.1", ntohs(s->self_addr.sin_port));

    std::thread loop([s] {
        t_counted_thread = true;
        ohmara_svc_startup(s);
        t_counted_thread = false;
    });
    if (!wait_for([s] { return ohmara_svc_getStatus(s) == OHMARA_STATUS_UP; }, kIoTimeoutMs))
        die("the endpoint did not come UP");

    sockaddr_in parent_addr = ipv4("127.0.0.1", port_of(parent));
    uint32_t nonce_host = kRemoteNonce;
    Bytes nonce(reinterpret_cast<uint8_t *>(&nonce_host),
                reinterpret_cast<uint8_t *>(&nonce_host) + 4);
    Bytes ack = build(CV_SHIPMENT_ACK_WILL, CV_CLASS_DISCOVERY,
                      CV_ACTION_KVQR_CORVANE_DISCOVERY_DISCOVERY_UPDATE, 1,
                      {{CV_CORVANE_TLV_TYPE_REPLY_TO, addr_bytes(parent_addr)},
                       {CV_CORVANE_TLV_TYPE_NONCE, nonce}},
                      kSecret);
    if (round_trip(endpoint, ack) != 0) die("handshake");
    pollfd p{parent, POLLIN, 0};
    if (poll(&p, 1, kIoTimeoutMs) != 1 || ohmara_svc_getStatus(s) != OHMARA_STATUS_ACTIVE)
        die("no handshake update");
    // Let the loop finish the pass that sent it before counting stops.
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    g_counting = false;
    const long long calls = g_alloc_calls, bytes = g_alloc_bytes, live = g_live_bytes;

    // ---- the nonce key and the GET template ----
    uint8_t seed[4];
    put_be32(seed, local_nonce ^ kRemoteNonce);
    const Bytes nonce_key = hmac_sha1(Bytes(seed, seed + 4), kSecret.data(), kSecret.size());
    std::vector<Tlv> asked = {{CV_CORVANE_TLV_TYPE_REPLY_TO, addr_bytes(ipv4("127.0.0.2", 9))},
                              {CV_CORVANE_TLV_TYPE_LEVEL_CURRENT, {}},
                              {CV_CORVANE_TLV_TYPE_USAGE, {}},
                              {CV_CORVANE_TLV_TYPE_UNITS, {}},
                              {CV_CORVANE_TLV_TYPE_NAME, {}},
                              {CV_CORVANE_TLV_TYPE_ROLE, {}}};
    if (keywords > 0) asked.push_back({CV_CORVANE_TLV_TYPE_KEYWORDS, selector, 1});
    const Bytes query = build(CV_SHIPMENT_SEND, CV_CLASS_QUERY,
                              CV_ACTION_KVQR_CORVANE_QUERY_COLLECT, 0, asked, nonce_key);
    // Every query carries a new sequence number (the endpoint drops repeats).
    std::atomic<uint32_t> seq{100};
    auto next_query = [&] {
        Bytes q = query;
        put_be32(q.data() + 32, ++seq);
        sign(q, nonce_key);
        return q;
    };

    // One query to learn the answer's shape: acknowledgement WILL, reply.
    Bytes answer;
    if (round_trip(endpoint, next_query(), &answer) <= 0) die("first query");
    const size_t ack_size = message_size(answer, 0);
    const size_t reply_size = message_size(answer, ack_size);
    if (ack_size == 0 || reply_size == 0 || ack_size + reply_size != answer.size() ||
        static_cast<int8_t>(answer[69]) != CV_SHIPMENT_ACK_WILL ||
        static_cast<int8_t>(answer[ack_size + 69]) != CV_SHIPMENT_REPLY_NO_ERROR) {
        fprintf(stderr, "loop_bench: unexpected answer of %zu bytes\n", answer.size());
        return 1;
    }
    const long expected = static_cast<long>(answer.size());
    Baseline baseline(Bytes(answer.begin(), answer.begin() + static_cast<long>(ack_size)),
                      Bytes(answer.begin() + static_cast<long>(ack_size), answer.end()),
                      backlog > 0 ? backlog : 10, bare_floor ? nullptr : &nonce_key);

    // ---- alternated rounds ----
    std::vector<double> loop_qps, base_qps;
    std::atomic<long> bad{0}, refused{0};
    // `clients` threads at once, each with its share of the round's queries.
    auto run_round = [&](const sockaddr_in &to) {
        auto t0 = Clock::now();
        std::vector<std::thread> threads;
        for (int c = 0; c < clients; ++c) {
            threads.emplace_back([&, c] {
                char source[32];
                snprintf(source, sizeof source, "127.0.0.%d", spread ? 2 + c : 2);
                for (int i = c; i < queries; i += clients) {
                    const long got = round_trip(to, next_query(), nullptr, source);
                    if (got == 0)
                        ++refused;  // closed unanswered
                    else if (got != expected)
                        ++bad;
                }
            });
        }
        for (auto &t : threads) t.join();
        std::chrono::duration<double> dt = Clock::now() - t0;
        return queries / dt.count();
    };
    printf("round  loop q/s  baseline q/s\n");
    for (int r = 0; r < rounds; ++r) {
        loop_qps.push_back(run_round(endpoint));
        if (!loop_only) base_qps.push_back(run_round(baseline.addr()));
        printf("%5d  %8.0f  %12.0f\n", r + 1, loop_qps.back(), loop_only ? 0.0 : base_qps.back());
    }

    ohmara_svc_shutdown(s);
    loop.join();
    close(discovery);
    close(parent);

    const double lm = median(loop_qps), bm = loop_only ? 0.0 : median(base_qps);
    printf("\nGET of 5 attributes, one connection per query, %d queries x %d rounds\n", queries,
           rounds);
    printf("clients at once: %d from %s, listen backlog %d; keywords: %d\n", clients,
           spread ? "127.0.0.2 and up" : "127.0.0.2", backlog > 0 ? backlog : 10, keywords);
    printf("answer: acknowledgement %zu bytes + reply %zu bytes\n", ack_size, reply_size);
    printf("median loop     %.0f q/s\n", lm);
    if (!loop_only) {
        printf("median baseline %.0f q/s\n", bm);
        printf("floor           %s\n", bare_floor ? "bare (no HMAC)" : "with the same HMACs");
        printf("ratio           %.3f (goal >= 0.97)\n", lm / bm);
    }
    printf("failed round trips: %ld; closed unanswered: %ld%s\n", bad.load(), refused.load(),
           clients > 1 ? " (the endpoint drops a sequence number below the last one seen, and "
                         "refuses a new caller once)"
                       : "");
#ifndef OMSDK_BENCH_NO_MALLOC_HOOK
    printf("session from create to ACTIVE: %lld allocations, %lld bytes requested, "
           "%lld bytes held at ACTIVE\n",
           calls, bytes, live);
#else
    (void)calls;
    (void)bytes;
    (void)live;
    printf("allocation figures unavailable in a sanitizer build\n");
#endif
    return bad == 0 && (refused == 0 || clients > 1) ? 0 : 1;
}
