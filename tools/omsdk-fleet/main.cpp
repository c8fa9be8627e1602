// SPDX-License-Identifier: Apache-2.0
// omsdk-fleet: many endpoints in one process, on one thread, for testing a
// switch under load. Each endpoint is a session of its own (identity,
// loopback address or listener port, application state) driven by turns
// from one epoll loop; all of them join one domain with one key.
#include <arpa/inet.h>
#include <dirent.h>
#include <errno.h>
#include <malloc.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/epoll.h>
#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <queue>
#include <string>
#include <vector>

#include <omsdk.h>

#include "net.h"
#include "text_util.h"

using namespace omsdk_tools;

namespace {

const char kUsage[] = "usage: omsdk-fleet --port N [OPTIONS]\n"
                      "       omsdk-fleet --help | --version\n";

const char kHelp[] =
    "Runs N endpoints in this one process on one thread: each a session of its\n"
    "own with its own identity, its own loopback address (or its own listener\n"
    "port), and its own level; all join one domain with one key and announce\n"
    "themselves to the switch on the given UDP port. SIGINT or SIGTERM ends them\n"
    "all cleanly (each sends its discovery delete) and frees them.\n"
    "\n"
    "Options:\n"
    "  --port N          UDP port the switch hears discovery on (required)\n"
    "                      e.g. --port 47001\n"
    "  --count N         how many endpoints (default 10, at most 60000)\n"
    "  --first N         the first endpoint's number (default 1): names, keywords\n"
    "                    and identifiers follow the numbers, so fleets started with\n"
    "                    different --first never share an identifier\n"
    "                      e.g. --first 10001 --count 10000\n"
    "  --key KEY         shared secret of the domain, as text or hex:BYTES\n"
    "                    (default: none, each endpoint signs with its identifier)\n"
    "  --address ADDR    the first endpoint's address, in 127.0.0.0/8 (default\n"
    "                    127.1.0.1); the next ones count up from it, skipping .0\n"
    "                    and .255 in the last byte      e.g. --address 127.3.0.1\n"
    "  --shared-address  every endpoint on --address, each on its own listener port\n"
    "  --listen-port N   listener ports counted up from N, skipping those in use\n"
    "                    (default: each a port the system chooses). Below the\n"
    "                    system's ephemeral range, thousands of endpoints start\n"
    "                    faster: the system searches that range at every choice\n"
    "                      e.g. --listen-port 10000\n"
    "  --domain NAME     the domain (default fleet)\n"
    "  --name PREFIX     names are PREFIX-1 ... PREFIX-N (default node)\n"
    "  --role ROLE       every endpoint's role (default load)\n"
    "  --keywords LIST   every endpoint's keywords (default fleet); %n in it is\n"
    "                    replaced by the endpoint's number  e.g. --keywords rack%n\n"
    "  --importance N    1 to 100 (default 50)\n"
    "  --level MODEL     fixed:L (every endpoint at L, 0 to 10), spread (endpoint n\n"
    "                    at n mod 11) or walk (spread, then one step up or down at\n"
    "                    each read); a SET from the switch sets it (default spread)\n"
    "  --interval SECONDS  discovery update interval (default: the library's)\n"
    "  --start-rate N    endpoints started a second (default 2000): a gentler\n"
    "                    start than all at once for the switch's discovery port\n"
    "  --run-for SECONDS stop by itself after this long (default: until signalled)\n"
    "  --log-level N     the library's log level, 0 (fatal) to 6 (default 0)\n"
    "  --help            this text (--version: the tool's version)\n"
    "\n"
    "On standard error (the library writes stray text to standard output) it\n"
    "prints when every endpoint is ACTIVE (and how long that took), the heap\n"
    "and descriptors the endpoints hold, a count of the statuses every few\n"
    "seconds while some are not ACTIVE, and a last line when all have stopped.\n"
    "Exit status: 0 stopped cleanly; 1 an endpoint could not be made (address,\n"
    "descriptors, memory); 2 a bad argument.\n";

volatile sig_atomic_t g_stop = 0;
void on_signal(int) { g_stop = 1; }

[[noreturn]] void usage_error(const std::string &why) {
    fprintf(stderr, "omsdk-fleet: %s\n%s", why.c_str(), kUsage);
    exit(2);
}

enum class LevelModel { Fixed, Spread, Walk };

struct Options {
    uint16_t port = 0;
    long long count = 10;
    long long first = 1;
    Bytes key;
    uint32_t address = htonl(0x7F010001);  // 127.1.0.1
    bool shared_address = false;
    uint16_t listen_port = 0;  // 0: the system chooses
    std::string domain = "fleet", name = "node", role = "load", keywords = "fleet";
    uint8_t importance = 50;
    LevelModel level = LevelModel::Spread;
    uint8_t fixed_level = 0;
    int interval = 0;
    double start_rate = 2000;
    double run_for = 0;
    uint32_t log_level = OHMARA_LOG_FATAL;
};

// One endpoint: its session and the state of the device behind it.
struct Endpoint {
    svc_session *s = nullptr;
    uint32_t seq = 0;
    uint32_t gen = 0;    // which of its timer entries is current
    uint32_t stamp = 0;  // the loop pass that last turned it
    uint8_t level = 0;
    int8_t status = -1;
    bool walking_up = true;
    std::vector<int32_t> fds;  // registered with epoll
    int32_t listener = -1;     // the one it waits on when idle
};

// Each endpoint's callbacks get the endpoint as their context.
Options g_opt;
size_t g_active = 0;

void count_status(Endpoint *e, int32_t st) {
    if (e->status == OHMARA_STATUS_ACTIVE) --g_active;
    if (st == OHMARA_STATUS_ACTIVE) ++g_active;
    e->status = static_cast<int8_t>(st);
}

Endpoint *ep(void *ctx) { return static_cast<Endpoint *>(ctx); }

ohmara_svc_ctx_registry make_registry() {
    ohmara_svc_ctx_registry r{};
    r.get_units = [](void *) { return uint8_t{2}; };  // watts
    r.get_usage = [](void *c) {
        return static_cast<uint16_t>(ep(c)->level == 0 ? 1 : 4 + 6 * ep(c)->level);
    };
    r.get_usage_caliber = [](void *) { return uint32_t{1}; };
    r.get_usage_category = [](void *) { return uint32_t{1}; };
    r.get_level = [](void *c) {
        Endpoint *e = ep(c);
        if (g_opt.level == LevelModel::Walk) {
            if (e->level >= 10) e->walking_up = false;
            if (e->level == 0) e->walking_up = true;
            e->level = static_cast<uint8_t>(e->walking_up ? e->level + 1 : e->level - 1);
        }
        return e->level;
    };
    r.set_level = [](void *c, uint8_t l) -> int32_t {
        if (l > 10) return -1;
        ep(c)->level = l;
        return 0;
    };
    r.get_usage_vector = [](void *c, uint16_t v[11]) {
        for (int i = 0; i < 11; ++i) v[i] = static_cast<uint16_t>(i == ep(c)->level ? 1 : 0);
    };
    r.get_delta_vector = [](void *, int32_t v[11]) {
        for (int i = 0; i < 11; ++i) v[i] = 0;
    };
    r.next_sequence = [](void *c) { return ++ep(c)->seq; };
    r.attribute_modified = [](void *, int32_t) {};
    r.listen_port_notify = [](void *, uint16_t) {};
    r.status_changed = [](void *c, int32_t st) { count_status(ep(c), st); };
    r.alarm_reply = [](void *, int32_t, uint32_t, int32_t) {};
    return r;
}
const ohmara_svc_ctx_registry g_registry = make_registry();

// The n-th address from `first` (network order), skipping .0 and .255 in
// the last byte; false when it leaves 127.0.0.0/8.
bool nth_address(uint32_t first, size_t n, uint32_t *out) {
    uint64_t a = ntohl(first);
    for (size_t left = n; left > 0;) {
        const uint64_t last = a & 0xFF;
        const uint64_t room = 254 - last;  // steps before .254
        if (left <= room) {
            a += left;
            left = 0;
        } else {
            left -= room + 1;
            a = (a | 0xFF) + 2;  // .255 and the next .0 skipped: x.y.z+1.1
        }
    }
    if ((a >> 24) != 127) return false;
    *out = htonl(static_cast<uint32_t>(a));
    return true;
}

std::string keywords_for(uint64_t n) {
    std::string k = g_opt.keywords;
    for (size_t at; (at = k.find("%n")) != std::string::npos;) k.replace(at, 2, std::to_string(n));
    return k;
}

void raise_nofile(size_t count) {
    rlimit rl{};
    if (getrlimit(RLIMIT_NOFILE, &rl) != 0) return;
    // One a session while it waits (its listener: its discovery socket is
    // opened only to send), and a margin for the process's spare, the
    // datagram on its way and the switch's connections being served.
    const rlim_t want = static_cast<rlim_t>(count) + 512;
    if (rl.rlim_cur >= want) return;
    // Above the hard limit only with the privilege to raise it.
    rlimit up{want, std::max(want, rl.rlim_max)};
    if (setrlimit(RLIMIT_NOFILE, &up) == 0) return;
    up = rlimit{std::min(want, rl.rlim_max), rl.rlim_max};
    setrlimit(RLIMIT_NOFILE, &up);
    if (up.rlim_cur < want)
        fprintf(stderr,
                "omsdk-fleet: %zu endpoints want %llu descriptors, the limit is %llu: raise "
                "the hard limit (ulimit -Hn) for more\n",
                count, static_cast<unsigned long long>(want),
                static_cast<unsigned long long>(up.rlim_cur));
}

// Descriptors this process holds now.
size_t open_descriptors() {
    size_t n = 0;
    if (DIR *d = opendir("/proc/self/fd")) {
        while (const dirent *e = readdir(d)) n += e->d_name[0] != '.';
        closedir(d);
        --n;  // the directory's own
    }
    return n;
}

size_t heap_in_use() {
    const struct mallinfo2 m = mallinfo2();
    return m.uordblks + m.hblkhd;
}

// Endpoints started at most in one pass of the loop.
constexpr size_t kStartBatch = 32;
// Listener ports tried for one endpoint before it counts as not made: a
// fleet that just ended leaves its ports taken for a minute (connections in
// TIME_WAIT; 10,000 of them after a sweep of 10,000), and only the first
// endpoint skips them. The protocol's own port is never taken.
constexpr int kPortTries = 65536;
constexpr uint16_t kProtocolPort = 43440;

class Fleet {
public:
    // What the process holds before the fleet, so that the fleet's own
    // records count in the figures per endpoint.
    explicit Fleet(size_t n) : heap0_(heap_in_use()), fds0_(open_descriptors()) { eps_.resize(n); }
    int run();

private:
    struct Due {
        int64_t at;
        uint32_t index, gen;
        bool operator>(const Due &o) const { return at > o.at; }
    };

    bool start(size_t i);
    void turn(size_t i);
    void sync(Endpoint &e, size_t i, const ohmara_wait &w);
    void stop_all();

    size_t heap0_, fds0_;
    std::vector<Endpoint> eps_;
    int epoll_ = -1;
    size_t started_ = 0, live_ = 0;
    uint32_t next_port_ = g_opt.listen_port;
    uint32_t pass_ = 0;
    std::priority_queue<Due, std::vector<Due>, std::greater<Due>> timers_;
};

bool Fleet::start(size_t i) {
    Endpoint &e = eps_[i];
    uint32_t addr = g_opt.address;
    if (!g_opt.shared_address && !nth_address(g_opt.address, i, &addr)) {
        fprintf(stderr, "omsdk-fleet: endpoint %zu would leave 127.0.0.0/8\n", i + 1);
        return false;
    }
    // A made-up, locally administered MAC per endpoint: its identifier.
    const uint64_t number = static_cast<uint64_t>(g_opt.first) + i;
    const uint8_t mac[6] = {0x02,
                            0x0f,
                            static_cast<uint8_t>(number >> 24),
                            static_cast<uint8_t>(number >> 16),
                            static_cast<uint8_t>(number >> 8),
                            static_cast<uint8_t>(number)};
    char id[40] = {};
    ohmara_utl_senderId(id, mac);
    const std::string where = ip_text(addr);
    // A port of our choice may be taken: the next ones are tried.
    for (int tries = 0; e.s == nullptr && tries < kPortTries && next_port_ <= 65535; ++tries) {
        const uint16_t port = static_cast<uint16_t>(next_port_);
        if (port == kProtocolPort) {
            ++next_port_;
            continue;
        }
        e.s = ohmara_svc_create(where.c_str(), g_opt.port, id,
                                g_opt.key.empty() ? nullptr : g_opt.key.data(),
                                static_cast<int32_t>(g_opt.key.size()), port);
        if (port == 0) break;
        ++next_port_;
    }
    if (e.s == nullptr) {
        fprintf(stderr, "omsdk-fleet: endpoint %zu on %s could not be made (%s)\n", i + 1,
                where.c_str(), strerror(errno));
        return false;
    }
    const std::string name = g_opt.name + "-" + std::to_string(number);
    e.level =
        g_opt.level == LevelModel::Fixed ? g_opt.fixed_level : static_cast<uint8_t>(number % 11);
    if (ohmara_svc_configIdentity(e.s, g_opt.domain.c_str(), name.c_str(), g_opt.role.c_str(),
                                  keywords_for(number).c_str(), "fleet node",
                                  g_opt.importance) != 0 ||
        ohmara_svc_configRegistryWithContext(e.s, &g_registry, &e) != 0 ||
        ohmara_svc_setDatagramOnDemand(e.s, 1) != 0 ||
        (g_opt.interval > 0 && ohmara_svc_setDiscoveryInterval(e.s, g_opt.interval) != 0)) {
        fprintf(stderr, "omsdk-fleet: endpoint %zu refused its configuration\n", i + 1);
        omr_svc_cleanup(e.s);
        e.s = nullptr;
        return false;
    }
    if (ohmara_svc_open(e.s) != 0) {
        omr_svc_cleanup(e.s);
        e.s = nullptr;
        return false;
    }
    ohmara_wait w{};
    ohmara_svc_getWait(e.s, &w);
    e.listener = w.count == 1 ? w.fds[0] : -1;  // before any connection: the listener alone
    ++live_;
    turn(i);  // the first discovery goes now
    return true;
}

// Registers the session's descriptors for this turn: a descriptor number may
// have been closed and reused inside the turn, so each is modified or added
// afresh, and the ones gone are removed.
void Fleet::sync(Endpoint &e, size_t i, const ohmara_wait &w) {
    // Most turns leave the session waiting on its listener alone, as before:
    // no system call then. (A connection's number may be reused by the next
    // one within a turn; the listener stays open while the session runs.)
    if (w.count == 1 && w.fds[0] == e.listener && e.fds.size() == 1 && e.fds[0] == e.listener)
        return;
    for (int32_t fd : e.fds) {
        bool kept = false;
        for (int k = 0; k < w.count; ++k) kept = kept || w.fds[k] == fd;
        if (!kept) epoll_ctl(epoll_, EPOLL_CTL_DEL, fd, nullptr);
    }
    e.fds.assign(w.fds, w.fds + w.count);
    for (int k = 0; k < w.count; ++k) {
        epoll_event ev{};
        ev.events = static_cast<uint32_t>(w.events[k]);
        ev.data.u64 = i;
        if (epoll_ctl(epoll_, EPOLL_CTL_MOD, w.fds[k], &ev) != 0 && errno == ENOENT)
            epoll_ctl(epoll_, EPOLL_CTL_ADD, w.fds[k], &ev);
    }
}

void Fleet::turn(size_t i) {
    Endpoint &e = eps_[i];
    if (e.s == nullptr) return;
    e.stamp = pass_;
    const int32_t r = ohmara_svc_turn(e.s);
    ohmara_wait w{};
    if (r == 1) ohmara_svc_getWait(e.s, &w);
    if (r != 1) {
        for (int32_t fd : e.fds) epoll_ctl(epoll_, EPOLL_CTL_DEL, fd, nullptr);
        e.fds.clear();
        ohmara_svc_close(e.s);
        e.s = nullptr;
        --live_;
        return;
    }
    sync(e, i, w);
    timers_.push(Due{now_ms() + w.timeout_ms, static_cast<uint32_t>(i), ++e.gen});
}

void Fleet::stop_all() {
    // Closing a running session ends it as a shutdown does: status
    // SHUTDOWN, its discovery delete, status DOWN; then it is freed.
    // Newest first: each session is then found at once in the library's
    // list of live sessions, where the newest come first.
    for (auto it = eps_.rbegin(); it != eps_.rend(); ++it) {
        Endpoint &e = *it;
        if (e.s == nullptr) continue;
        for (int32_t fd : e.fds) epoll_ctl(epoll_, EPOLL_CTL_DEL, fd, nullptr);
        e.fds.clear();
        e.fds.shrink_to_fit();
        ohmara_svc_close(e.s);
        e.s = nullptr;
        --live_;
    }
}

int Fleet::run() {
    const size_t n = eps_.size();
    epoll_ = epoll_create1(EPOLL_CLOEXEC);
    if (epoll_ < 0) {
        fprintf(stderr, "omsdk-fleet: epoll: %s\n", strerror(errno));
        return 1;
    }
    const int64_t t0 = now_ms();
    const int64_t end = g_opt.run_for > 0 ? t0 + static_cast<int64_t>(g_opt.run_for * 1000) : 0;
    int64_t next_report = t0 + 5000;
    bool all_active = false, failed = false;
    std::vector<epoll_event> events(1024);
    fprintf(stderr, "fleet: %zu endpoints from %s on UDP port %u\n", n,
            ip_text(g_opt.address).c_str(), g_opt.port);
    fflush(stderr);

    while (!g_stop && (end == 0 || now_ms() < end)) {
        ++pass_;
        // Start the endpoints whose time has come, a batch at a time between
        // turns: the handshakes of the first ones need not wait behind the
        // start-up of thousands.
        const int64_t now = now_ms();
        const size_t due = std::min(
            n, static_cast<size_t>(static_cast<double>(now - t0) * g_opt.start_rate / 1000.0) + 1);
        for (size_t batch = 0; started_ < due && batch < kStartBatch && !failed; ++batch)
            failed = !start(started_++);
        if (failed) break;
        if (started_ == n && !all_active && g_active == n) {
            all_active = true;
            const size_t heap = heap_in_use() - heap0_, fds = open_descriptors() - fds0_;
            fprintf(stderr, "fleet: all %zu endpoints ACTIVE after %.3f s\n", n,
                    static_cast<double>(now_ms() - t0) / 1000.0);
            fprintf(
                stderr,
                "fleet: heap %zu bytes for %zu endpoints (%zu each), %zu descriptors (%.2f each)\n",
                heap, n, heap / n, fds, static_cast<double>(fds) / static_cast<double>(n));
            fflush(stderr);
        }
        if (!all_active && now >= next_report) {
            fprintf(stderr, "fleet: %zu started, %zu ACTIVE after %.1f s\n", started_, g_active,
                    static_cast<double>(now - t0) / 1000.0);
            fflush(stderr);
            next_report = now + 5000;
        }
        // Wait for a descriptor, the nearest time-out, or the next start.
        int64_t wake = now + 200;
        if (!timers_.empty()) wake = std::min(wake, timers_.top().at);
        if (started_ < n)  // the next start: now, when behind
            wake = std::min(wake, t0 + static_cast<int64_t>(static_cast<double>(started_) * 1000.0 /
                                                            g_opt.start_rate));
        if (end != 0) wake = std::min(wake, end);
        const int64_t left = wake - now_ms();
        const int k = epoll_wait(epoll_, events.data(), static_cast<int>(events.size()),
                                 left > 0 ? static_cast<int>(left) : 0);
        for (int j = 0; j < k; ++j) {
            const size_t i = static_cast<size_t>(events[static_cast<size_t>(j)].data.u64);
            if (eps_[i].stamp != pass_) turn(i);
        }
        for (const int64_t t = now_ms(); !timers_.empty() && timers_.top().at <= t;) {
            const Due d = timers_.top();
            timers_.pop();
            Endpoint &e = eps_[d.index];
            if (d.gen == e.gen && e.stamp != pass_) turn(d.index);
        }
    }
    const size_t stopping = live_;
    stop_all();
    close(epoll_);
    fprintf(stderr, "fleet: %zu endpoints stopped%s\n", stopping,
            failed ? " (one could not be made)" : "");
    return failed ? 1 : 0;
}

Options parse_options(int argc, char **argv) {
    Options o;
    std::string why;
    bool have_port = false;
    for (int i = 1; i < argc; ++i) {
        std::string a = argv[i], value;
        if (a == "--shared-address") {
            o.shared_address = true;
            continue;
        }
        const size_t eq = a.find('=');
        const std::string name = a.substr(0, eq);
        static const char *const known[] = {
            "--port",       "--count",   "--first",     "--key",        "--address", "--domain",
            "--name",       "--role",    "--keywords",  "--importance", "--level",   "--interval",
            "--start-rate", "--run-for", "--log-level", "--listen-port"};
        bool is_known = false;
        for (const char *k : known) is_known = is_known || name == k;
        if (!is_known) usage_error("unknown option " + a);
        if (eq != std::string::npos) {
            value = a.substr(eq + 1);
        } else {
            if (i + 1 >= argc) usage_error(name + " needs a value");
            value = argv[++i];
        }
        long long v = 0;
        char *endp = nullptr;
        if (name == "--port") {
            if (!parse_int(value, 1, 65535, &v))
                usage_error("--port needs a number from 1 to 65535");
            o.port = static_cast<uint16_t>(v);
            have_port = true;
        } else if (name == "--count") {
            if (!parse_int(value, 1, 60000, &v))
                usage_error("--count needs a number from 1 to 60000");
            o.count = v;
        } else if (name == "--first") {
            if (!parse_int(value, 1, 0xFFFFFFFFLL, &v))
                usage_error("--first needs a number from 1");
            o.first = v;
        } else if (name == "--key") {
            if (!parse_key(value, &o.key, &why)) usage_error(why);
        } else if (name == "--address") {
            if (!parse_ipv4(value, &o.address) || (ntohl(o.address) >> 24) != 127 ||
                (ntohl(o.address) & 0xFF) == 0 || (ntohl(o.address) & 0xFF) == 255)
                usage_error("--address needs a loopback address 127.x.y.z (z from 1 to 254)");
        } else if (name == "--domain") {
            o.domain = value;
        } else if (name == "--name") {
            if (value.empty()) usage_error("--name needs a prefix");
            o.name = value;
        } else if (name == "--role") {
            o.role = value;
        } else if (name == "--keywords") {
            o.keywords = value;
        } else if (name == "--importance") {
            if (!parse_int(value, 1, 100, &v)) usage_error("--importance needs 1 to 100");
            o.importance = static_cast<uint8_t>(v);
        } else if (name == "--level") {
            if (value == "spread") {
                o.level = LevelModel::Spread;
            } else if (value == "walk") {
                o.level = LevelModel::Walk;
            } else if (value.compare(0, 6, "fixed:") == 0 &&
                       parse_int(value.substr(6), 0, 10, &v)) {
                o.level = LevelModel::Fixed;
                o.fixed_level = static_cast<uint8_t>(v);
            } else {
                usage_error("--level needs fixed:L (L from 0 to 10), spread or walk");
            }
        } else if (name == "--interval") {
            if (!parse_int(value, 1, 86400, &v)) usage_error("--interval needs 1 to 86400 seconds");
            o.interval = static_cast<int>(v);
        } else if (name == "--start-rate") {
            o.start_rate = strtod(value.c_str(), &endp);
            if (value.empty() || *endp != '\0' || !(o.start_rate > 0) || o.start_rate > 1e6)
                usage_error("--start-rate needs endpoints a second, above 0");
        } else if (name == "--run-for") {
            o.run_for = strtod(value.c_str(), &endp);
            if (value.empty() || *endp != '\0' || !(o.run_for > 0) || o.run_for > 86400 * 365)
                usage_error("--run-for needs seconds, above 0");
        } else if (name == "--listen-port") {
            if (!parse_int(value, 1024, 65535, &v))
                usage_error("--listen-port needs a port from 1024 to 65535");
            o.listen_port = static_cast<uint16_t>(v);
        } else if (name == "--log-level") {
            if (!parse_int(value, 0, 6, &v)) usage_error("--log-level needs 0 to 6");
            o.log_level = static_cast<uint32_t>(v);
        }
    }
    if (!have_port) usage_error("--port is required: the UDP port the switch hears on");
    uint32_t last = 0;
    if (!o.shared_address && !nth_address(o.address, static_cast<size_t>(o.count - 1), &last))
        usage_error("--count " + std::to_string(o.count) + " from --address " + ip_text(o.address) +
                    " leaves 127.0.0.0/8");
    return o;
}

}  // namespace

int main(int argc, char **argv) {
    for (int i = 1; i < argc; ++i) {
        if (strcmp(argv[i], "--version") == 0) {
            printf("omsdk-fleet %s\n", OMSDK_TOOLS_VERSION);
            return 0;
        }
        if (strcmp(argv[i], "--help") == 0 || strcmp(argv[i], "-h") == 0) {
            fputs(kUsage, stdout);
            fputs("\n", stdout);
            fputs(kHelp, stdout);
            return 0;
        }
    }
    g_opt = parse_options(argc, argv);
    setLogLevel(g_opt.log_level);
    raise_nofile(static_cast<size_t>(g_opt.count));
    signal(SIGINT, on_signal);
    signal(SIGTERM, on_signal);
    signal(SIGPIPE, SIG_IGN);
    Fleet fleet(static_cast<size_t>(g_opt.count));
    return fleet.run();
}
