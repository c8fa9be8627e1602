// SPDX-License-Identifier: Apache-2.0
// What the wire format costs on top of the HMAC-SHA1 it cannot avoid.
//
// A typical discovery update (the TLVs an attached endpoint sends, in its
// order, with short identity strings) is built and signed, and received
// (raw copy, unpack, digest check); each is compared with the yardstick:
// OpenSSL's one-shot HMAC() over the same bytes (one per direction). The
// library's own per-message HMAC (hmac_sha_msg) is measured against it too.
//
// First the variants run one by one under Google Benchmark; then they are
// measured side by side: rounds that alternate every variant, each variant's
// median ns/op over the rounds, and the ratios. The goal for the whole path
// (encode, sign, decode, verify) is at most 1.2 times the yardstick.
//
// Usage: bench_codec [--rounds=N] [--side_by_side_only] [benchmark flags]
//        bench_codec --callgrind=N   runs each of cg_path, cg_yardstick and
//                                    cg_library_hmac N times and nothing else,
//                                    for instruction counts (bench/callgrind.sh)
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <algorithm>
#include <chrono>
#include <string>
#include <vector>

#include <benchmark/benchmark.h>
#include <openssl/evp.h>
#include <openssl/hmac.h>

#include <omsdk/enums.h>
#include <omsdk/event.h>
#include <omsdk/hmac.h>
#include <omsdk/pdu.h>

#include "discovery_update.h"
#include "omsdk.h"

namespace {

const uint8_t kSecret[20] = {'b', 'e', 'n', 'c', 'h', '-', 's', 'h', 'a', 'r',
                             'e', 'd', '-', 's', 'e', 'c', 'r', 'e', 't', '!'};
const uint8_t kSender[CV_CORVANE_ID_SIZE + 1] = "5f0c2a9e7d3b41c8a6e9f01b2c3d4e5f";

hmac_sha_ctx g_key;
std::vector<uint8_t> g_message;  // one signed discovery update

void die(const char *what) {
    fprintf(stderr, "bench_codec: %s\n", what);
    exit(1);
}

cv_event *build_update() {
    cv_event *ev = make_discovery_update(kSender, false);
    if (ev == nullptr) die("cannot build the update");
    return ev;
}

// Builds and signs one update; returns its size.
uint32_t encode_sign() {
    cv_event *ev = build_update();
    if (omr_createPdu(ev, 100, CV_SHIPMENT_SEND, CV_CLASS_DISCOVERY,
                      CV_ACTION_KVQR_CORVANE_DISCOVERY_DISCOVERY_UPDATE, kSender, 4711, &g_key,
                      1) != 0)
        die("omr_createPdu failed");
    benchmark::DoNotOptimize(ev->raw);
    uint32_t n = ev->raw_len;
    corvane_try_gc(ev);
    return n;
}

// Receives the update: copy, unpack, digest check.
void decode_verify(const uint8_t *bytes, uint32_t len) {
    cv_event *ev = cv_mkevent_from_rawbuffer(static_cast<int32_t>(len), bytes);
    if (ev == nullptr || cv_unpack_event(ev, &g_key) != 0 || ev->digest_ok != 1)
        die("the update did not decode and verify");
    benchmark::DoNotOptimize(ev->tlvs);
    corvane_try_gc(ev);
}

// The yardstick: the HMAC work of one direction by OpenSSL's one-shot
// HMAC() over the signed part (all but the first 32 bytes).
void hmac_alone() {
    uint8_t digest[EVP_MAX_MD_SIZE];
    unsigned int n = 0;
    HMAC(EVP_sha1(), kSecret, sizeof kSecret, g_message.data() + 32, g_message.size() - 32, digest,
         &n);
    benchmark::DoNotOptimize(digest);
    benchmark::ClobberMemory();
}

// The library's HMAC over the same bytes, from its keyed context.
void library_hmac() {
    uint8_t digest[OHMARA_SHA1_DIGEST_SIZE];
    hmac_sha_msg(&g_key, g_message.data() + 32, static_cast<uint16_t>(g_message.size() - 32),
                 digest);
    benchmark::DoNotOptimize(digest);
    benchmark::ClobberMemory();
}

void path() {
    cv_event *ev = build_update();
    if (omr_createPdu(ev, 100, CV_SHIPMENT_SEND, CV_CLASS_DISCOVERY,
                      CV_ACTION_KVQR_CORVANE_DISCOVERY_DISCOVERY_UPDATE, kSender, 4711, &g_key,
                      1) != 0)
        die("omr_createPdu failed");
    decode_verify(ev->raw, ev->raw_len);
    corvane_try_gc(ev);
}

void hmac_twice() {
    hmac_alone();
    hmac_alone();
}

void decode_once() { decode_verify(g_message.data(), static_cast<uint32_t>(g_message.size())); }
void encode_once() { encode_sign(); }

struct Variant {
    const char *name;
    void (*run)();
};

// Pairs: the wire variant and its bare HMAC counterpart.
const Variant kVariants[] = {
    {"encode+sign", encode_once},
    {"  HMAC() (1x)", hmac_alone},
    {"decode+verify", decode_once},
    {"  HMAC() (1x)", hmac_alone},
    {"encode+sign+decode+verify", path},
    {"  HMAC() (2x)", hmac_twice},
    {"hmac_sha_msg (library)", library_hmac},
    {"  HMAC() (1x)", hmac_alone},
};
constexpr size_t kVariantCount = sizeof kVariants / sizeof kVariants[0];

void BM_EncodeSign(benchmark::State &state) {
    for (auto _ : state) encode_once();
}
void BM_DecodeVerify(benchmark::State &state) {
    for (auto _ : state) decode_once();
}
void BM_Path(benchmark::State &state) {
    for (auto _ : state) path();
}
void BM_HmacAlone(benchmark::State &state) {
    for (auto _ : state) hmac_alone();
}
void BM_LibraryHmac(benchmark::State &state) {
    for (auto _ : state) library_hmac();
}
BENCHMARK(BM_EncodeSign);
BENCHMARK(BM_DecodeVerify);
BENCHMARK(BM_Path);
BENCHMARK(BM_HmacAlone);
BENCHMARK(BM_LibraryHmac);

double ns_per_op(void (*run)(), long iterations) {
    auto start = std::chrono::steady_clock::now();
    for (long i = 0; i < iterations; ++i) run();
    auto end = std::chrono::steady_clock::now();
    return std::chrono::duration<double, std::nano>(end - start).count() /
           static_cast<double>(iterations);
}

double median(std::vector<double> v) {
    std::sort(v.begin(), v.end());
    size_t n = v.size();
    return n % 2 != 0 ? v[n / 2] : (v[n / 2 - 1] + v[n / 2]) / 2;
}

// Every round runs every variant for about 20 ms, in forward order on even
// rounds and backward on odd ones, so drifts of the machine hit all alike.
void side_by_side(int rounds) {
    long iterations[kVariantCount];
    for (size_t v = 0; v < kVariantCount; ++v) {
        double warm = ns_per_op(kVariants[v].run, 200);
        iterations[v] = std::max(100L, static_cast<long>(20e6 / warm));
    }
    std::vector<double> samples[kVariantCount];
    for (int r = 0; r < rounds; ++r) {
        for (size_t k = 0; k < kVariantCount; ++k) {
            size_t v = r % 2 == 0 ? k : kVariantCount - 1 - k;
            samples[v].push_back(ns_per_op(kVariants[v].run, iterations[v]));
        }
    }
    double med[kVariantCount];
    for (size_t v = 0; v < kVariantCount; ++v) med[v] = median(samples[v]);

    printf("\nside by side: %d rounds, median ns/op (min .. max)\n", rounds);
    printf("discovery update: %zu bytes, HMAC over %zu bytes per direction; yardstick: "
           "OpenSSL's HMAC()\n",
           g_message.size(), g_message.size() - 32);
    for (size_t v = 0; v < kVariantCount; ++v) {
        auto mm = std::minmax_element(samples[v].begin(), samples[v].end());
        printf("  %-28s %9.0f  (%.0f .. %.0f)\n", kVariants[v].name, med[v], *mm.first, *mm.second);
        if (v % 2 == 1) printf("  %-28s %9.2f\n", "  ratio", med[v - 1] / med[v]);
    }
    double whole = med[4] / med[5];
    printf("whole path / HMAC() = %.2f (goal <= 1.20: %s)\n", whole,
           whole <= 1.2 ? "met" : "missed");
}

}  // namespace

// Entry points for instruction counts, each running its variant n times;
// bench/callgrind.sh reads their inclusive costs.
extern "C" __attribute__((noinline)) void cg_path(long n) {
    for (long i = 0; i < n; ++i) path();
}
extern "C" __attribute__((noinline)) void cg_yardstick(long n) {
    for (long i = 0; i < n; ++i) hmac_alone();
}
extern "C" __attribute__((noinline)) void cg_library_hmac(long n) {
    for (long i = 0; i < n; ++i) library_hmac();
}

int main(int argc, char **argv) {
    int rounds = 15;
    long callgrind = 0;
    bool only_side_by_side = false;
    std::vector<char *> rest;
    for (int i = 0; i < argc; ++i) {
        if (strncmp(argv[i], "--callgrind=", 12) == 0) {
            callgrind = atol(argv[i] + 12);
            if (callgrind < 1) die("--callgrind needs a positive number");
        } else if (strncmp(argv[i], "--rounds=", 9) == 0) {
            rounds = atoi(argv[i] + 9);
            if (rounds < 1) die("--rounds needs a positive number");
        } else if (strcmp(argv[i], "--side_by_side_only") == 0) {
            only_side_by_side = true;
        } else {
            rest.push_back(argv[i]);
        }
    }
    int rest_count = static_cast<int>(rest.size());

    setLogLevel(OHMARA_LOG_ERROR);
    memset(&g_key, 0, sizeof g_key);
    hmac_shainit(&g_key, kSecret, sizeof kSecret);
    {
        cv_event *ev = build_update();
        if (omr_createPdu(ev, 100, CV_SHIPMENT_SEND, CV_CLASS_DISCOVERY,
                          CV_ACTION_KVQR_CORVANE_DISCOVERY_DISCOVERY_UPDATE, kSender, 4711, &g_key,
                          1) != 0)
            die("omr_createPdu failed");
        g_message.assign(ev->raw, ev->raw + ev->raw_len);
        corvane_try_gc(ev);
    }
    decode_once();  // dies unless the update decodes and verifies
    {
        // The two HMACs must agree, or the comparison means nothing.
        uint8_t ours[OHMARA_SHA1_DIGEST_SIZE], theirs[EVP_MAX_MD_SIZE];
        unsigned int n = 0;
        hmac_sha_msg(&g_key, g_message.data() + 32, static_cast<uint16_t>(g_message.size() - 32),
                     ours);
        HMAC(EVP_sha1(), kSecret, sizeof kSecret, g_message.data() + 32, g_message.size() - 32,
             theirs, &n);
        if (n != sizeof ours || memcmp(ours, theirs, n) != 0) die("the HMACs differ");
    }
    if (callgrind > 0) {
        path();  // first use of everything outside the counts
        hmac_alone();
        cg_path(callgrind);
        cg_yardstick(callgrind);
        cg_library_hmac(callgrind);
        printf("bench_codec: %ld runs each of cg_path, cg_yardstick, cg_library_hmac (%zu bytes "
               "signed)\n",
               callgrind, g_message.size() - 32);
        uint8_t spent[OHMARA_SHA1_DIGEST_SIZE];
        hmac_shafinal(spent, &g_key);
        return 0;
    }

    benchmark::Initialize(&rest_count, rest.data());
    if (!only_side_by_side) {
        if (benchmark::ReportUnrecognizedArguments(rest_count, rest.data())) return 1;
        benchmark::RunSpecifiedBenchmarks();
    }
    side_by_side(rounds);
    benchmark::Shutdown();

    uint8_t spent[OHMARA_SHA1_DIGEST_SIZE];
    hmac_shafinal(spent, &g_key);
    return 0;
}
