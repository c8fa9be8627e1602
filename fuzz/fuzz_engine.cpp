// SPDX-License-Identifier: Apache-2.0
// libFuzzer target for the protocol engine behind a real session.
//
// One session per profile and key mode is made by ohmara_svc_create on
// 127.0.0.1 and kept for the whole run; its output seam is replaced by one
// that captures, so nothing it answers leaves the process. Each input is
// reset onto a known session state and then a few messages, each read
// through the TCP reader off one end of a socket pair and handed to
// omr_processMsg, as the loop does with each connection.
//
// Input: a flags byte, then chunks of (control byte, 2-byte big-endian
// length, message bytes) until the input ends:
//   flags   bit 0      HARDENED profile
//           bit 1      the sender identifier is the secret (no application key)
//           bits 2-3   status before the first message: UP, ACTIVE (parent
//                      at 127.0.0.3), INITIALIZING, SHUTDOWN
//           bit 4      an alarm request (id 9) is pending, carried by seq 40
//           bit 5      metered values withheld (nanny bit)
//           bit 6      logs formatted down to TRACE (otherwise WARN and up)
//           bit 7      identity without keywords or device type
//   control bits 0-1   signed with the key intake will check (0), with the
//                      other key (1), left as received (2), or signed and
//                      then one digest bit flipped (3)
//           bit 2      framing left as received (otherwise the TLV lengths,
//                      count and byte count and the digest length are made
//                      to agree with the bytes)
// Intake checks discovery-class messages against the shared secret and all
// others against the key agreed in the nonce exchange; the target derives
// that key itself (OpenSSL's HMAC) from the nonces the session holds.
//
// What must hold (any breach calls abort()):
//  - the reader returns no more than the buffer and the bytes written;
//  - everything the endpoint sends decodes, its framing agrees with its
//    length, and its digest verifies (by the library's check and by
//    OpenSSL's HMAC) with the key it must be signed with: the secret for
//    discovery-class messages, the agreed nonce key for the rest; a reply
//    before any key was agreed (application-key sessions) is a breach;
//  - the session checks the next message with the keys the switch holds:
//    the secret, and the key derived from both nonces once exchanged;
//  - an alarm answer reaches the application at most once per request;
//  - the status stays one of the five.
#include <arpa/inet.h>
#include <fcntl.h>
#include <stddef.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <unistd.h>

#include <openssl/evp.h>
#include <openssl/hmac.h>

#include <vector>

#include <omsdk/enums.h>
#include <omsdk/event.h>
#include <omsdk/pdu.h>
#include <omsdk/reception.h>

#include "corvane_util/event_internal.h"
#include "crypto/hmac_internal.h"
#include "engine/intake.h"
#include "framing.h"
#include "fuzz_key.h"
#include "omsdk.h"
#include "service/loop.h"
#include "session/io.h"
#include "session/request.h"
#include "session/session.h"
#include "util/clock.h"

namespace {

using Bytes = std::vector<uint8_t>;

constexpr char kId[] = "0123456789abcdef0123456789abcdef";
constexpr uint16_t kDiscoveryPort = 47001;  // never the protocol's own
constexpr uint16_t kForbiddenPort = 43440;
constexpr time_t kNow = 1700000000;
constexpr uint32_t kLocalNonce = 0x13572468;
constexpr int32_t kPendingId = 9;
constexpr uint32_t kPendingSeq = 40;
constexpr size_t kMaxChunk = 2048;
constexpr size_t kClassAt = 73;
constexpr size_t kDigestAt = 12;
constexpr size_t kBodyAt = 32;
constexpr uint8_t kSecretLenOwned = 20;  // the nonce derivation reads 20 bytes of a key

enum Flags : uint8_t {
    kHardened = 1,
    kIdAsSecret = 2,
    kStatusShift = 2,
    kPending = 16,
    kNoMetering = 32,
    kVerbose = 64,
    kSparseIdentity = 128,
};
enum Control : uint8_t { kSignMask = 3, kRawFraming = 4 };
enum Sign : uint8_t { kExpected, kOther, kAsReceived, kFlipped };

// What the seam captured during one input.
struct Sent {
    Bytes bytes;
    bool datagram;
};
std::vector<Sent> g_sent;
int g_alarm_replies = 0;
uint8_t g_level = 40;

const omsdk::session_io kCapture = {
    [](svc_session *, const uint8_t *b, size_t n) -> ssize_t {
        g_sent.push_back({Bytes(b, b + n), false});
        return static_cast<ssize_t>(n);
    },
    [](svc_session *, const uint8_t *b, size_t n, const sockaddr_in *) -> ssize_t {
        g_sent.push_back({Bytes(b, b + n), true});
        return static_cast<ssize_t>(n);
    },
};

// Fixed answers; the level is the one value a SET changes.
svc_callback_registry g_registry = {
    [] { return uint8_t{2}; },
    [] { return uint16_t{120}; },
    [] { return uint32_t{1000}; },
    [] { return uint32_t{1}; },  // category 1: unfiltered queries select it
    [] { return g_level; },
    [](uint8_t l) { return l > 100 ? -1 : (g_level = l, 0); },
    [](uint16_t *v) {
        for (int i = 0; i < 11; ++i) v[i] = static_cast<uint16_t>(i + 1);
    },
    [](int32_t *v) {
        for (int i = 0; i < 11; ++i) v[i] = i - 5;
    },
    [] { return uint32_t{77}; },
    [](int32_t) {},
    [](uint16_t) {},
    [](int32_t) {},
    [](int32_t, uint32_t, int32_t) { ++g_alarm_replies; },
};

Bytes secret_of(bool id_as_secret) {
    if (id_as_secret) return Bytes(kId, kId + 32);
    return Bytes(fuzz_wire::kSecret, fuzz_wire::kSecret + sizeof fuzz_wire::kSecret - 1);
}

Bytes hmac(const Bytes &key, const uint8_t *data, size_t len) {
    uint8_t out[EVP_MAX_MD_SIZE];
    unsigned int n = 0;
    HMAC(EVP_sha1(), key.data(), static_cast<int>(key.size()), data, len, out, &n);
    return Bytes(out, out + n);
}

// The sessions, made on first use; the bytes appended to the record by
// later work are saved as they stand after creation and put back for each
// input, so that no state outlives an input.
constexpr size_t kKnownEnd =
    offsetof(svc_session, allowed_peers) + sizeof(in_addr) * OHMARA_MAX_ALLOWED_PEERS;
struct Rig {
    svc_session *s = nullptr;
    uint8_t tail[sizeof(svc_session) - kKnownEnd + 1];
};
Rig g_rigs[4];

svc_session *make_session(uint8_t flags) {
    const bool id_as_secret = (flags & kIdAsSecret) != 0;
    const Bytes key = secret_of(false);
    for (int attempt = 0; attempt < 5; ++attempt) {
        svc_session *s =
            ohmara_svc_create("127.0.0.1", kDiscoveryPort, kId, id_as_secret ? nullptr : key.data(),
                              id_as_secret ? 0 : static_cast<int32_t>(key.size()), 0);
        if (s == nullptr) abort();
        if (ntohs(s->self_addr.sin_port) == kForbiddenPort) {
            omr_svc_cleanup(s);
            continue;
        }
        const uint32_t profile =
            (flags & kHardened) != 0 ? OHMARA_PROFILE_HARDENED : OHMARA_PROFILE_REFERENCE;
        if (ohmara_svc_setProfile(s, profile) != 0) abort();
        ohmara_svc_configRegistry(s, &g_registry);
        s->io = &kCapture;
        return s;
    }
    abort();
}

// Puts the session into the state the flags ask for.
svc_session *reset(uint8_t flags) {
    Rig &rig = g_rigs[flags & (kHardened | kIdAsSecret)];
    if (rig.s == nullptr) {
        rig.s = make_session(flags);
        memcpy(rig.tail, reinterpret_cast<uint8_t *>(rig.s) + kKnownEnd,
               sizeof(svc_session) - kKnownEnd);
    }
    svc_session *s = rig.s;
    memcpy(reinterpret_cast<uint8_t *>(s) + kKnownEnd, rig.tail, sizeof(svc_session) - kKnownEnd);
    omsdk::free_neighbor_tree(s->neighbor);
    s->neighbor = nullptr;
    free(s->pending_head);
    s->pending_head = nullptr;
    s->pending_seq = 0;
    s->pending_id = 0;
    s->request_counter = 0;
    s->local_nonce = kLocalNonce;
    s->remote_nonce = 0;
    omsdk::hmac_release(&s->nonce_ctx);
    if (s->key_owned == 0) hmac_shainit(&s->nonce_ctx, reinterpret_cast<const uint8_t *>(kId), 32);
    memset(&s->parent_addr, 0, sizeof s->parent_addr);
    memset(&s->peer_addr, 0, sizeof s->peer_addr);
    s->last_ack_time = 0;
    s->tcp_sock = -1;
    s->nanny_bits = (flags & kNoMetering) != 0 ? 0x20u : 0u;
    const bool sparse = (flags & kSparseIdentity) != 0;
    ohmara_svc_configIdentity(s, "lab", "ep-01", "meter", sparse ? "" : "kw1,kw2",
                              sparse ? nullptr : "plug", 40);
    static constexpr int32_t kStatuses[] = {OHMARA_STATUS_UP, OHMARA_STATUS_ACTIVE,
                                            OHMARA_STATUS_INITIALIZING, OHMARA_STATUS_SHUTDOWN};
    s->status = kStatuses[(flags >> kStatusShift) & 3];
    if (s->status == OHMARA_STATUS_ACTIVE) {
        s->parent_addr.sin_family = AF_INET;
        s->parent_addr.sin_port = htons(kDiscoveryPort);
        s->parent_addr.sin_addr.s_addr = inet_addr("127.0.0.3");
        s->last_ack_time = kNow;
    }
    if ((flags & kPending) != 0) {
        auto *req = static_cast<async_request *>(calloc(1, sizeof(async_request)));
        if (req == nullptr) abort();
        *req = async_request{OMSDK_REQ_ALARM_SET, kPendingId, 60, 1, 2};
        s->pending_head = req;
        s->pending_id = kPendingId;
        s->pending_seq = kPendingSeq;
        s->request_counter = kPendingId;
    }
    g_level = 40;
    return s;
}

// Whether a nonce was taken during this input: the remote nonce changed
// (a nonce of 0 counts once it replaces another).
bool g_exchanged = false;

// The key intake checks non-discovery messages against: none before a
// nonce exchange when an application key is the secret.
bool nonce_key(const svc_session *s, Bytes *out) {
    const bool id_as_secret = s->key_owned == 0;
    if (!g_exchanged) {
        if (!id_as_secret) return false;
        *out = secret_of(true);
        return true;
    }
    Bytes secret = secret_of(id_as_secret);
    if (!id_as_secret) secret.resize(kSecretLenOwned, 0);
    const uint32_t seed_word = htonl(s->local_nonce ^ s->remote_nonce);
    uint8_t seed[4];
    memcpy(seed, &seed_word, sizeof seed);
    *out = hmac(Bytes(seed, seed + 4), secret.data(), secret.size());
    return true;
}

bool discovery_class(const Bytes &m) { return m.size() > kClassAt && m[kClassAt] == 14; }

// The key a message is to be signed with (false: none exists yet).
bool key_for(const svc_session *s, bool discovery, Bytes *out) {
    if (discovery) {
        *out = secret_of(s->key_owned == 0);
        return true;
    }
    return nonce_key(s, out);
}

void sign(Bytes &m, const Bytes &key) {
    if (m.size() < kBodyAt) return;
    const Bytes d = hmac(key, m.data() + kBodyAt, m.size() - kBodyAt);
    memcpy(m.data() + kDigestAt, d.data(), d.size());
}

// Everything sent must decode and verify with the key it should carry.
void check_sent(const svc_session *s, const Sent &out) {
    const Bytes &m = out.bytes;
    if (m.size() < CV_PDU_FIXED_SIZE) abort();
    const uint32_t tlv_bytes = uint32_t{m[76]} << 8 | m[77];
    if (m.size() != CV_PDU_FIXED_SIZE + tlv_bytes) abort();
    Bytes key;
    if (!key_for(s, discovery_class(m), &key)) abort();  // a reply no key can check
    if (hmac(key, m.data() + kBodyAt, m.size() - kBodyAt) !=
        Bytes(m.begin() + kDigestAt, m.begin() + kBodyAt))
        abort();
    hmac_sha_ctx ctx;
    memset(&ctx, 0, sizeof ctx);
    hmac_shainit(&ctx, key.data(), static_cast<uint16_t>(key.size()));
    omsdk::owned_event ev(cv_mkevent_from_rawbuffer(static_cast<int32_t>(m.size()), m.data()));
    if (ev == nullptr) abort();
    const int32_t rc = cv_unpack_event(ev.get(), &ctx);
    omsdk::hmac_release(&ctx);
    if (rc != 0 || ev->digest_ok != 1 || ev->pak == nullptr) abort();
    if (ev->pak->tlv_count != (uint32_t{m[78]} << 8 | m[79])) abort();
}

// The keys intake will check the next message with are the ones the switch
// holds: the secret, and the key derived from both nonces (or none yet).
void check_keys(const svc_session *s) {
    auto holds = [](const hmac_sha_ctx &ctx, const Bytes &key) {
        return ctx.key != nullptr && ctx.key_len == key.size() &&
               memcmp(ctx.key, key.data(), key.size()) == 0;
    };
    Bytes key;
    if (!holds(s->key_ctx, secret_of(s->key_owned == 0))) abort();
    if (nonce_key(s, &key) ? !holds(s->nonce_ctx, key) : s->nonce_ctx.key != nullptr) abort();
}

// One message read the way the loop reads it, off a socket. The pair lives
// for the whole run and its reading end does not block: all of `m` is
// written before the read, so a message shorter than its header says ends
// the read (-1 instead of the 0 a closed connection gives; the loop drops
// both), and what the reader left is drained before the next message.
void deliver(svc_session *s, const Bytes &m) {
    static int fds[2] = {-1, -1};
    if (fds[0] < 0 &&
        (socketpair(AF_UNIX, SOCK_STREAM, 0, fds) != 0 || fcntl(fds[0], F_SETFL, O_NONBLOCK) != 0))
        abort();
    if (!m.empty() && write(fds[1], m.data(), m.size()) != static_cast<ssize_t>(m.size())) abort();
    uint8_t buf[omsdk::kLoopReceiveBuffer];
    s->tcp_sock = fds[0];
    const int32_t n = omr_read_tcp_message(fds[0], buf, static_cast<int32_t>(sizeof buf), nullptr);
    if (n > static_cast<int32_t>(sizeof buf) || n > static_cast<int32_t>(m.size())) abort();
    if (n > 0) omr_processMsg(s, buf, n);
    s->tcp_sock = -1;
    if (n != static_cast<int32_t>(m.size())) {
        uint8_t rest[4096];
        while (recv(fds[0], rest, sizeof rest, 0) > 0) {
        }
    }
}

void drop_line(uint32_t, const char *) {}

// OMSDK_FUZZ_TRACE=1 tells, per message, what the session did with it.
bool g_trace = false;

}  // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***) {
    // Session creation and re-keying print to stdout; libFuzzer reports on
    // stderr.
    const int null_fd = open("/dev/null", O_WRONLY);
    if (null_fd >= 0) {
        dup2(null_fd, STDOUT_FILENO);
        close(null_fd);
    }
    omsdk::clock_set_source([] { return kNow; });
    g_trace = getenv("OMSDK_FUZZ_TRACE") != nullptr;
    setLogCallback(drop_line);
    enableLogCallback(1);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    if (size < 1) return 0;
    const uint8_t flags = data[0];
    setLogLevel((flags & kVerbose) != 0 ? OHMARA_LOG_TRACE : OHMARA_LOG_WARN);
    svc_session *s = reset(flags);
    g_sent.clear();
    g_alarm_replies = 0;
    g_exchanged = false;

    size_t at = 1;
    while (size - at >= 3) {
        const uint8_t control = data[at];
        size_t len = size_t{data[at + 1]} << 8 | data[at + 2];
        at += 3;
        if (len > size - at) len = size - at;
        if (len > kMaxChunk) len = kMaxChunk;
        Bytes m(data + at, data + at + len);
        at += len;

        if ((control & kRawFraming) == 0 && m.size() >= CV_PDU_FIXED_SIZE) {
            m.resize(fuzz_wire::repair_framing(m.data(), m.size()));
            fuzz_wire::put_be16(m.data() + 10, OHMARA_SHA1_DIGEST_SIZE);
        }
        const bool discovery = discovery_class(m);
        Bytes key;
        switch (static_cast<Sign>(control & kSignMask)) {
        case kExpected:
            if (key_for(s, discovery, &key)) sign(m, key);
            break;
        case kOther:
            if (key_for(s, !discovery, &key)) sign(m, key);
            break;
        case kAsReceived: break;
        case kFlipped:
            if (key_for(s, discovery, &key)) sign(m, key);
            if (m.size() >= kBodyAt)
                m[kDigestAt + control % 20] ^= static_cast<uint8_t>(1u << (control >> 5));
            break;
        }

        const size_t before = g_sent.size();
        const uint32_t remote_nonce = s->remote_nonce;
        deliver(s, m);
        g_exchanged = g_exchanged || s->remote_nonce != remote_nonce;
        for (size_t i = before; i < g_sent.size(); ++i) check_sent(s, g_sent[i]);
        check_keys(s);
        if (g_trace)
            fprintf(stderr, "message of %zu bytes (class %d): status %d, %zu sent\n", m.size(),
                    m.size() > kClassAt ? m[kClassAt] : -1, ohmara_svc_getStatus(s),
                    g_sent.size() - before);
        if (ohmara_svc_getStatus(s) < OHMARA_STATUS_DOWN ||
            ohmara_svc_getStatus(s) > OHMARA_STATUS_SHUTDOWN)
            abort();
    }
    if (g_alarm_replies > 1) abort();
    return 0;
}

extern "C" size_t LLVMFuzzerMutate(uint8_t *data, size_t size, size_t max_size);

// Half the mutants change the bytes of one chunk alone and fix its length
// prefix, so that the chunks behind it stay whole.
extern "C" size_t LLVMFuzzerCustomMutator(uint8_t *data, size_t size, size_t max_size,
                                          unsigned int seed) {
    if (seed % 2 == 0 || size < 4 || max_size <= size)
        return LLVMFuzzerMutate(data, size, max_size);
    size_t starts[64];
    size_t n = 0;
    for (size_t at = 1; size - at >= 3 && n < 64;) {
        starts[n++] = at;
        const size_t len = size_t{data[at + 1]} << 8 | data[at + 2];
        at += 3 + (len < size - at - 3 ? len : size - at - 3);
    }
    if (n == 0) return LLVMFuzzerMutate(data, size, max_size);
    const size_t at = starts[(seed / 2) % n];
    size_t old_len = size_t{data[at + 1]} << 8 | data[at + 2];
    if (old_len > size - at - 3) old_len = size - at - 3;
    const size_t body = at + 3;
    const size_t tail = size - body - old_len;
    size_t room = max_size - (size - old_len);  // more than old_len
    if (room > kMaxChunk) room = old_len > kMaxChunk ? old_len : kMaxChunk;
    Bytes chunk(data + body, data + body + old_len);
    chunk.resize(room + 1, 0);  // an empty chunk grows from one zero byte
    const size_t new_len = LLVMFuzzerMutate(chunk.data(), old_len > 0 ? old_len : 1, room);
    memmove(data + body + new_len, data + body + old_len, tail);
    memcpy(data + body, chunk.data(), new_len);
    fuzz_wire::put_be16(data + at + 1, static_cast<uint32_t>(new_len));
    return body + new_len + tail;
}
