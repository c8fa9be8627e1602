// The omsdk-switch command: arguments, decode, and whole runs against an
// endpoint session driven by hand on loopback.
#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <signal.h>
#include <stdio.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "hand_pdu.h"
#include "switch_endpoint.h"

using hand_pdu::Bytes;
using switch_test::Endpoint;
using switch_test::kId;

namespace {

struct Outcome {
    int code = -1;  // exit status, -1 when killed at the time limit
    std::string out, err;
};

int64_t now_ms() {
    timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<int64_t>(ts.tv_sec) * 1000 + ts.tv_nsec / 1000000;
}

// Runs the simulator with `args` and `input` on standard input; while it
// runs, `tick` is called again and again with the output so far (it waits
// a little itself). Killed after limit_ms.
using Tick = std::function<void(const std::string &out)>;
Outcome run(const std::vector<std::string> &args, const std::string &input = "",
            const Tick &tick = nullptr, int limit_ms = 15000) {
    int in[2], out[2], err[2];
    if (pipe(in) != 0 || pipe(out) != 0 || pipe(err) != 0) return Outcome();
    pid_t pid = fork();
    if (pid == 0) {
        dup2(in[0], 0);
        dup2(out[1], 1);
        dup2(err[1], 2);
        for (int fd : {in[0], in[1], out[0], out[1], err[0], err[1]}) close(fd);
        std::vector<char *> argv;
        argv.push_back(const_cast<char *>(OMSDK_SWITCH_EXE));
        for (const std::string &a : args) argv.push_back(const_cast<char *>(a.c_str()));
        argv.push_back(nullptr);
        execv(OMSDK_SWITCH_EXE, argv.data());
        _exit(127);
    }
    close(in[0]);
    close(out[1]);
    close(err[1]);
    if (!input.empty()) {
        ssize_t w = write(in[1], input.data(), input.size());
        (void)w;
    }
    close(in[1]);
    fcntl(out[0], F_SETFL, O_NONBLOCK);
    fcntl(err[0], F_SETFL, O_NONBLOCK);

    Outcome r;
    const int64_t deadline = now_ms() + limit_ms;
    int status = 0;
    bool exited = false;
    auto collect = [&]() {
        char buf[4096];
        ssize_t n;
        while ((n = read(out[0], buf, sizeof buf)) > 0) r.out.append(buf, static_cast<size_t>(n));
        while ((n = read(err[0], buf, sizeof buf)) > 0) r.err.append(buf, static_cast<size_t>(n));
    };
    while (!exited) {
        collect();
        if (waitpid(pid, &status, WNOHANG) == pid) {
            exited = true;
            break;
        }
        if (now_ms() > deadline) {
            kill(pid, SIGKILL);
            waitpid(pid, &status, 0);
            collect();
            close(out[0]);
            close(err[0]);
            return r;  // code -1
        }
        if (tick)
            tick(r.out);
        else
            poll(nullptr, 0, 20);
    }
    collect();
    close(out[0]);
    close(err[0]);
    r.code = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    return r;
}

std::string first_line(const std::string &s) { return s.substr(0, s.find('\n')); }

size_t lines(const std::string &s) {
    size_t n = 0;
    for (char c : s) n += c == '\n';
    return n;
}

// A UDP port that was free a moment ago.
uint16_t free_port() {
    int fd = socket(AF_INET, SOCK_DGRAM, 0);
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_addr.s_addr = htonl(INADDR_ANY);
    bind(fd, reinterpret_cast<sockaddr *>(&a), sizeof a);
    socklen_t len = sizeof a;
    getsockname(fd, reinterpret_cast<sockaddr *>(&a), &len);
    close(fd);
    return ntohs(a.sin_port);
}

TEST(SwitchCli, HelpDocumentsEveryOption) {
    Outcome r = run({"--help"});
    EXPECT_EQ(r.code, 0);
    for (const char *opt : {"--port", "--bind", "--key", "--source", "--alarms", "--script",
                            "--timeout", "--switch-id", "--json", "--verbose", "--name", "--role",
                            "--keyword", "--category", "--id", "--priority", "decode",
                            "--nonce-key", "wait-for", "delete", "list", "usage-vector-report",
                            "device-type"})
        EXPECT_NE(r.out.find(opt), std::string::npos) << opt;
    EXPECT_NE(r.out.find("e.g."), std::string::npos);
}

TEST(SwitchCli, BadArgumentsExitTwoWithOneLineReason) {
    struct Case {
        std::vector<std::string> args;
        const char *reason_part;
    } cases[] = {
        {{"--port", "0"}, "--port"},
        {{"--port", "seven"}, "--port"},
        {{"--alarms", "maybe"}, "--alarms"},
        {{"--bogus"}, "unknown option --bogus"},
        {{"--key", "hex:zz"}, "hexadecimal"},
        {{"--key", ""}, "empty"},
        {{"--source", "127.0.0"}, "--source"},
        {{"--port", "47011", "get"}, "at least one attribute"},
        {{"--port", "47011", "get volume"}, "unknown attribute 'volume'"},
        {{"--port", "47011", "set level=300"}, "0 to 255"},
        {{"--port", "47011", "set colour=red"}, "unknown attribute 'colour'"},
        {{"--port", "47011", "wait"}, "wait needs"},
        {{"--port", "47011", "wait-for", "0"}, "wait-for needs"},
        {{"--port", "47011", "get level --id xyz"}, "--id"},
        {{"--port", "47011", "frobnicate"}, "unexpected argument 'frobnicate'"},
        {{"--port", "47011", "--script", "/nonexistent/script"}, "cannot read script"},
        {{"decode"}, "needs the message"},
        {{"decode", "zz"}, "not hexadecimal"},
        {{"decode", "00", "--nonce-key", "1234"}, "20 bytes"},
        {{"decode", "00", "11"}, "second argument"},
    };
    for (const Case &c : cases) {
        std::string all;
        for (const std::string &a : c.args) all += a + " ";
        Outcome r = run(c.args);
        EXPECT_EQ(r.code, 2) << all << "\n" << r.err;
        EXPECT_EQ(first_line(r.err).rfind("omsdk-switch: ", 0), 0u) << all << "\n" << r.err;
        EXPECT_NE(first_line(r.err).find(c.reason_part), std::string::npos) << all << "\n" << r.err;
        EXPECT_NE(r.err.find("usage: omsdk-switch"), std::string::npos) << all;
        EXPECT_TRUE(r.out.empty()) << all << "\n" << r.out;
    }
}

TEST(SwitchCli, ScriptErrorsNameTheLine) {
    Outcome r = run({"--port", "47011", "--script", "-"}, "# lab\nlist\n\nget level,\nset level=x\n");
    EXPECT_EQ(r.code, 2);
    EXPECT_NE(first_line(r.err).find("script line 5"), std::string::npos) << r.err;
}

// ---- decode --------------------------------------------------------------

const Bytes kSecret = hand_pdu::text("lab-secret");
const Bytes kNonceKey = hand_pdu::hex("000102030405060708090a0b0c0d0e0f10111213");

std::string hex_of(const Bytes &b) {
    static const char d[] = "0123456789abcdef";
    std::string s;
    for (uint8_t x : b) {
        s.push_back(d[x >> 4]);
        s.push_back(d[x & 15]);
    }
    return s;
}

Bytes discovery_pdu() {
    using namespace hand_pdu;
    return message(7, kId, 0, 100, 14, 10,
                   {tlv(8, text("dom")), tlv(23, hex("0002 1f90 7f000001 0000000000000000")),
                    tlv(9, text("lamp-1")), tlv(14, hex("05"))},
                   kSecret);
}

Bytes query_pdu() {
    using namespace hand_pdu;
    return message(8, "fedcba9876543210fedcba9876543210", 0, 100, 10, 11,
                   {tlv(23, hex("0002 1f90 7f000002 0000000000000000")), tlv(14, Bytes()),
                    tlv(9, text("lamp*"), 1)},
                   kNonceKey);
}

TEST(SwitchCli, DecodeVerifiesWithTheKeyItNeeds) {
    const std::string disc = hex_of(discovery_pdu());
    const std::string query = hex_of(query_pdu());
    struct Case {
        std::vector<std::string> args;
        int code;
        const char *verdict;
    } cases[] = {
        {{"decode", disc, "--key", "lab-secret"}, 0, "digest verified"},
        {{"decode", disc, "--key", "hex:6c61622d736563726574"}, 0, "digest verified"},
        {{"decode", disc, "--key", "lab-secreT"}, 1, "digest mismatch"},
        {{"decode", disc}, 0, "digest not verified"},
        {{"decode", disc, "--nonce-key", hex_of(kNonceKey)}, 0, "digest not verified"},
        {{"decode", query, "--nonce-key", hex_of(kNonceKey)}, 0, "digest verified"},
        {{"decode", query, "--key", "lab-secret"}, 0, "digest not verified"},
        {{"decode", query, "--nonce-key", "hex:" + hex_of(Bytes(20, 1))}, 1, "digest mismatch"},
    };
    for (const Case &c : cases) {
        Outcome r = run(c.args);
        EXPECT_EQ(r.code, c.code) << c.args[2] << "\n" << r.out << r.err;
        EXPECT_NE(r.out.find(c.verdict), std::string::npos) << r.out;
    }

    Outcome r = run({"decode", disc, "--key", "lab-secret"});
    for (const char *part : {"discovery", "CV_CLASS_DISCOVERY",
                             "CV_ACTION_KVQR_CORVANE_DISCOVERY_DISCOVERY_UPDATE", "CV_SHIPMENT_SEND",
                             "seq 7", kId, "DOMAIN", "dom", "REPLY_TO", "127.0.0.1:8080", "NAME",
                             "lamp-1", "LEVEL_CURRENT"})
        EXPECT_NE(r.out.find(part), std::string::npos) << part << "\n" << r.out;

    r = run({"decode", query, "--nonce-key", hex_of(kNonceKey), "--json"});
    EXPECT_EQ(r.code, 0);
    EXPECT_EQ(lines(r.out), 1u) << r.out;
    for (const char *part : {"\"kind\":\"query\"", "\"digest\":\"verified\"",
                             "{\"type\":14,\"name\":\"LEVEL_CURRENT\",\"value\":null}",
                             "{\"type\":9,\"name\":\"NAME\",\"qualifier\":1,\"value\":\"lamp*\"}"})
        EXPECT_NE(r.out.find(part), std::string::npos) << part << "\n" << r.out;

    Bytes cut = discovery_pdu();
    cut.pop_back();
    r = run({"decode", hex_of(cut), "--key", "lab-secret"});
    EXPECT_EQ(r.code, 1);
    EXPECT_NE(r.out.find("undecodable"), std::string::npos) << r.out;
}

// ---- whole runs ------------------------------------------------------------

TEST(SwitchCli, NetworkErrorsExitOne) {
    // The port is taken by a socket that does not share it.
    int fd = socket(AF_INET, SOCK_DGRAM, 0);
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_addr.s_addr = htonl(INADDR_ANY);
    ASSERT_EQ(bind(fd, reinterpret_cast<sockaddr *>(&a), sizeof a), 0);
    socklen_t len = sizeof a;
    getsockname(fd, reinterpret_cast<sockaddr *>(&a), &len);
    Outcome r = run({"--port", std::to_string(ntohs(a.sin_port)), "list"});
    close(fd);
    EXPECT_EQ(r.code, 1);
    EXPECT_NE(r.err.find("bind"), std::string::npos) << r.err;

    r = run({"--port", std::to_string(free_port()), "wait-for", "1", "0.3", "list"});
    EXPECT_EQ(r.code, 1);
    EXPECT_NE(r.err.find("only 0 active"), std::string::npos) << r.err;
    EXPECT_EQ(r.out.find("no endpoints"), std::string::npos) << "list ran after the failure";
}

// Plays the endpoint while the simulator runs: broadcasts discovery while
// UP, serves each connection the simulator opens.
Tick endpoint_turns(Endpoint &ep) {
    auto last = std::make_shared<int64_t>(0);
    return [&ep, last](const std::string &) {
        if (ep.status() == OHMARA_STATUS_UP && now_ms() - *last > 300) {
            sendDiscoveryEvent(ep.s, CV_ACTION_KVQR_CORVANE_DISCOVERY_DISCOVERY_UPDATE);
            *last = now_ms();
        }
        ep.serve_one(50);
    };
}

TEST(SwitchCli, ActionsRunAgainstAnEndpoint) {
    const uint32_t old = getLogLevel();
    setLogLevel(OHMARA_LOG_FATAL);
    const uint16_t port = free_port();
    Endpoint ep(port, kSecret);
    ASSERT_NE(ep.s, nullptr);
    Outcome r = run({"--port", std::to_string(port), "--source", "127.0.0.2", "--key", "lab-secret",
                 "--json", "--verbose", "wait-for", "1", "5", "get level,name,importance",
                 "get level --name other*", "set level=3 role=\"desk light\"", "wait 0.5", "list",
                 "delete"},
                "", endpoint_turns(ep));
    setLogLevel(old);
    EXPECT_EQ(r.code, 0) << r.out << r.err;
    EXPECT_TRUE(r.err.empty()) << r.err;
    // One JSON object a line.
    size_t at = 0;
    while (at < r.out.size()) {
        size_t nl = r.out.find('\n', at);
        ASSERT_NE(nl, std::string::npos);
        EXPECT_EQ(r.out[at], '{') << r.out.substr(at, nl - at);
        EXPECT_EQ(r.out[nl - 1], '}') << r.out.substr(at, nl - at);
        at = nl + 1;
    }
    for (const std::string &part :
         {std::string("\"event\":\"handshake\",\"id\":\"") + kId + "\",\"state\":\"active\"",
          std::string("\"nonce_key\":\""),
          std::string("{\"event\":\"result\",\"action\":\"get\",\"endpoint\":\"") + kId +
              "\",\"ack\":\"CV_SHIPMENT_ACK_WILL\",\"values\":[{\"type\":14,\"name\":\"level\","
              "\"entry\":1,\"value\":4},{\"type\":9,\"name\":\"name\",\"entry\":1,\"value\":"
              "\"lamp-1\"},{\"type\":17,\"name\":\"importance\",\"entry\":1,\"value\":40}]}",
          std::string("\"answer\":\"none\""),
          std::string("{\"event\":\"result\",\"action\":\"set\",\"endpoint\":\"") + kId +
              "\",\"ack\":\"CV_SHIPMENT_ACK_WILL\"}",
          std::string("\"event\":\"list\",\"id\":\"") + kId + "\",\"state\":\"active\"",
          std::string("\"role\":\"desk light\""),
          std::string("\"text\":\"delete ") + kId + ": sent\"",
          std::string("\"event\":\"sent\""), std::string("\"hex\":\"")})
        EXPECT_NE(r.out.find(part), std::string::npos) << part << "\n" << r.out;
    EXPECT_EQ(switch_test::dev().set_levels, std::vector<int32_t>{3});
    // The delete reached the endpoint (possibly served after the simulator
    // exited).
    for (int i = 0; i < 10 && ep.status() != OHMARA_STATUS_UP; ++i) ep.serve_one(100);
    EXPECT_EQ(ep.status(), OHMARA_STATUS_UP);
}

// The endpoint's own service loop on a thread of its own; the actions come
// from standard input.
TEST(SwitchCli, RunsAgainstTheServiceLoop) {
    const uint32_t old = getLogLevel();
    setLogLevel(OHMARA_LOG_FATAL);
    switch_test::dev() = switch_test::Device();
    const uint16_t port = free_port();
    svc_session *s = ohmara_svc_create("127.0.0.1", port, kId, kSecret.data(),
                                       static_cast<int32_t>(kSecret.size()), 0);
    ASSERT_NE(s, nullptr);
    ohmara_svc_configIdentity(s, "dom", "lamp-1", "light", "floor2,desk", "bulb", 40);
    ohmara_svc_configRegistry(s, &switch_test::registry());
    std::thread loop;

    bool asked = false;
    const int32_t alarm_id = 1;  // the session's first request
    auto tick = [&](const std::string &out) {
        // The loop broadcasts its first discovery as it starts: start it
        // once the simulator hears.
        if (!loop.joinable() && out.find("hearing discovery") != std::string::npos)
            loop = std::thread([s] { ohmara_svc_startup(s); });
        // Once attached, the application asks for an alarm: it wakes the
        // loop, which carries it on a discovery update at once.
        if (loop.joinable() && !asked && ohmara_svc_getStatus(s) == OHMARA_STATUS_ACTIVE)
            asked = ohmara_svc_alarmAdd(s, 30, 1, 2) == 0;
        poll(nullptr, 0, 20);
    };
    Outcome r = run({"--port", std::to_string(port), "--source", "127.0.0.2", "--key",
                     "lab-secret", "--alarms", "failed", "--script", "-"},
                    "# from standard input\nwait-for 1 10\nget level,usage\nset level=6\n"
                    "wait 1\nget level\n",
                    tick);
    if (loop.joinable()) {
        ohmara_svc_shutdown(s);  // the loop frees the session when it returns
        loop.join();
    } else {
        omr_svc_cleanup(s);
    }
    setLogLevel(old);

    EXPECT_EQ(r.code, 0) << r.out << r.err;
    const size_t first = r.out.find(std::string("get ") + kId + ": CV_SHIPMENT_ACK_WILL\n  level = 4");
    const size_t set = r.out.find(std::string("set ") + kId + ": CV_SHIPMENT_ACK_WILL");
    const size_t second = r.out.find(std::string("get ") + kId + ": CV_SHIPMENT_ACK_WILL\n  level = 6");
    EXPECT_NE(first, std::string::npos) << r.out;
    EXPECT_NE(set, std::string::npos) << r.out;
    EXPECT_NE(second, std::string::npos) << r.out;
    EXPECT_LT(first, set);
    EXPECT_LT(set, second);
    EXPECT_NE(r.out.find("  usage = 120\n"), std::string::npos) << r.out;
    ASSERT_TRUE(asked);
    EXPECT_NE(r.out.find(std::string("alarm request from ") + kId + ": id " +
                         std::to_string(alarm_id) + " set seconds 30 params 1,2"),
              std::string::npos)
        << r.out;
    EXPECT_NE(r.out.find(std::string("alarm answer to ") + kId + ": id " +
                         std::to_string(alarm_id) + " failed"),
              std::string::npos)
        << r.out;
    ASSERT_EQ(switch_test::dev().alarm_replies.size(), 1u);
    EXPECT_EQ(switch_test::dev().alarm_replies[0].id, alarm_id);
    EXPECT_EQ(switch_test::dev().alarm_replies[0].ok, 0);
}

}  // namespace
