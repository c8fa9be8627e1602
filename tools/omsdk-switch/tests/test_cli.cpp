// SPDX-License-Identifier: Apache-2.0
// The omsdk-switch command: its arguments, decode of messages made by hand
// from the layout, and whole runs against an endpoint on loopback.
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/wait.h>

#include <chrono>
#include <functional>
#include <thread>

#include <gtest/gtest.h>

#include "switch.h"
#include "endpoint.h"

using namespace switch_test;

namespace {

struct Outcome {
    int code = -1;  // exit status; -1 when killed at the time limit
    std::string out, err;
};
using Tick = std::function<void(const std::string &out)>;

// Runs the command with `input` on its standard input; while it runs,
// `tick` is called again and again with the output so far (and waits a
// little itself). Killed after 15 s.
Outcome run(
    const std::vector<std::string> &args, const std::string &input = "",
    const Tick &tick = [](const std::string &) { poll(nullptr, 0, 20); }) {
    int in[2], out[2], err[2];
    if (pipe(in) != 0 || pipe(out) != 0 || pipe(err) != 0) return Outcome();
    pid_t pid = fork();
    if (pid == 0) {
        dup2(in[0], 0), dup2(out[1], 1), dup2(err[1], 2);
        for (int fd : {in[0], in[1], out[0], out[1], err[0], err[1]}) close(fd);
        std::vector<char *> argv{const_cast<char *>(OMSDK_SWITCH_EXE)};
        for (const std::string &a : args) argv.push_back(const_cast<char *>(a.c_str()));
        argv.push_back(nullptr);
        execv(OMSDK_SWITCH_EXE, argv.data());
        _exit(127);
    }
    close(in[0]), close(out[1]), close(err[1]);
    signal(SIGPIPE, SIG_IGN);  // the command may end before reading its input
    ssize_t written = write(in[1], input.data(), input.size());
    (void)written;
    close(in[1]);
    fcntl(out[0], F_SETFL, O_NONBLOCK), fcntl(err[0], F_SETFL, O_NONBLOCK);
    Outcome r;
    char buf[4096];
    auto collect = [&](int fd, std::string &to) {
        for (ssize_t n; (n = read(fd, buf, sizeof buf)) > 0;) to.append(buf, size_t(n));
    };
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(15);
    int status = 0;
    while (collect(out[0], r.out), collect(err[0], r.err), waitpid(pid, &status, WNOHANG) != pid) {
        if (std::chrono::steady_clock::now() > deadline) kill(pid, SIGKILL);
        tick(r.out);
    }
    collect(out[0], r.out), collect(err[0], r.err);
    close(out[0]), close(err[0]);
    r.code = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    return r;
}

bool has(const std::string &s, const std::string &part) {
    return s.find(part) != std::string::npos;
}
std::string first_line(const std::string &s) { return s.substr(0, s.find('\n')); }

// A UDP port free a moment ago (never the protocol's own).
uint16_t udp_port() {
    ep_test::Fd fd{ep_test::bound_socket("0.0.0.0")};
    return ep_test::bound_port(fd.fd);
}

TEST(SwitchCli, HelpAndBadArguments) {
    Outcome help = run({"--help"});
    EXPECT_EQ(help.code, 0);
    EXPECT_TRUE(has(help.out, "usage: omsdk-switch")) << help.out;
    EXPECT_EQ(run({"--version"}).out.rfind("omsdk-switch 2.", 0), 0u);
    const struct {
        std::vector<std::string> args;
        const char *reason;
    } cases[] = {
        {{"--port", "0"}, "--port"},
        {{"--bogus"}, "unknown option --bogus"},
        {{"--key", "hex:zz"}, "hexadecimal"},
        {{"--port", "47011", "get volume"}, "unknown attribute 'volume'"},
        {{"--port", "47011", "frobnicate"}, "unexpected argument 'frobnicate'"},
        {{"decode", "00", "--nonce-key", "1234"}, "20 bytes"},
        {{"--port", "47011", "--script", "-"}, "script line 5"},  // (its input below)
    };
    for (const auto &c : cases) {
        Outcome r = run(c.args, "# lab\nlist\n\nget level,\nset level=x\n");
        SCOPED_TRACE(c.args.back() + "\n" + r.err);
        EXPECT_EQ(r.code, 2);
        EXPECT_EQ(first_line(r.err).rfind("omsdk-switch: ", 0), 0u);
        EXPECT_TRUE(has(first_line(r.err), c.reason));
        EXPECT_TRUE(has(r.err, "usage: omsdk-switch"));
        EXPECT_TRUE(r.out.empty()) << r.out;
    }
}

const Bytes kSecret = text("lab-secret");
const std::string kNonceKey = "000102030405060708090a0b0c0d0e0f10111213";

// A discovery update as an endpoint sends it, and a query from the switch.
const Bytes kDiscovery = message(
    7, kId, 0, 100, 14, 10,
    {tlv(8, text("dom")), tlv(23, hex("0002 1f90 7f000001 0000000000000000")),
     tlv(47, hex("12345678")), tlv(9, text("lamp-1")),
     tlv(10, hex("6b31 2c 6b32 00")),  // "k1,k2" and its NUL
     tlv(13, hex("0102")), tlv(12, hex("03")), tlv(14, hex("05")), tlv(51, hex("ffffffff")),
     tlv(50, hex("0000001e 02 01 00000007 00000001")), tlv(1, cat({text(kId), hex("00000001")}))},
    kSecret);
const Bytes kQuery = message(8, kSwitchId, 0, 100, 10, 11, {tlv(14, {}), tlv(9, text("lamp*"), 1)},
                             hex(kNonceKey.c_str()));

TEST(SwitchCli, DecodeVerifiesWithTheKeyItNeeds) {
    const std::string disc = omsdk_tools::to_hex(kDiscovery), query = omsdk_tools::to_hex(kQuery);
    const struct {
        std::vector<std::string> args;
        int code;
        const char *verdict;
    } cases[] = {
        {{"decode", disc, "--key", "lab-secret"}, 0, "digest verified"},
        {{"decode", disc, "--key", "lab-secreT"}, 1, "digest mismatch"},
        {{"decode", disc}, 0, "digest not verified"},
        {{"decode", query, "--nonce-key", kNonceKey}, 0, "digest verified"},
        {{"decode", query, "--key", "lab-secret"}, 0, "digest not verified"},
        {{"decode", query, "--nonce-key", "hex:" + std::string(40, '1')}, 1, "digest mismatch"},
        {{"decode", disc.substr(0, disc.size() - 2), "--key", "lab-secret"}, 1, "undecodable"},
    };
    for (const auto &c : cases) {
        Outcome r = run(c.args);
        EXPECT_EQ(r.code, c.code) << c.verdict << " " << c.args.back() << "\n" << r.out << r.err;
        EXPECT_TRUE(has(r.out, c.verdict)) << r.out;
    }
    Outcome r = run({"decode", disc, "--key", "lab-secret"});
    for (const char *part :
         {"CV_CLASS_DISCOVERY  CV_ACTION_KVQR_CORVANE_DISCOVERY_DISCOVERY_UPDATE  "
          "CV_SHIPMENT_SEND",
          "seq 7", kId, "USAGE                258 kW", "UNITS                3 (kilowatts)",
          "seconds=30 param2=2 param1=1 id=7 operation=1 (set)"})
        EXPECT_TRUE(has(r.out, part)) << part << "\n" << r.out;
    // The hex dump --verbose prints (time stamps and all) decodes again.
    r = run({"decode", disc, "--verbose"});
    Outcome again = run({"decode", "-", "--key", "lab-secret"}, r.out);
    EXPECT_EQ(again.code, 0) << r.out << again.err;
    EXPECT_TRUE(has(again.out, "digest verified")) << again.out;
    r = run({"decode", query, "--nonce-key", kNonceKey, "--json"});
    EXPECT_EQ(r.out.find('\n'), r.out.size() - 1) << r.out;  // one line
    for (const char *part : {"\"kind\":\"query\"", "\"digest\":\"verified\"",
                             "{\"type\":14,\"name\":\"LEVEL_CURRENT\",\"value\":null}",
                             "{\"type\":9,\"name\":\"NAME\",\"qualifier\":1,\"value\":\"lamp*\"}"})
        EXPECT_TRUE(has(r.out, part)) << part << "\n" << r.out;
}

// The endpoint: its service loop on a thread, started once the command
// hears (the loop broadcasts as it starts). With `alarm`, the application
// asks for one once attached; it wakes the loop, which carries it at once.
struct LoopEndpoint {
    explicit LoopEndpoint(bool alarm_) : alarm(alarm_) {}
    ~LoopEndpoint() {
        if (loop.joinable())
            ohmara_svc_shutdown(s), loop.join();  // it frees the session
        else if (s != nullptr)
            omr_svc_cleanup(s);
    }
    Tick tick() {
        return [this](const std::string &out) {
            if (!loop.joinable() && has(out, "hearing discovery"))
                loop = std::thread([this] { ohmara_svc_startup(s); });
            if (alarm && loop.joinable() && !asked &&
                ohmara_svc_getStatus(s) == OHMARA_STATUS_ACTIVE)
                asked = ohmara_svc_alarmAdd(s, 30, 1, 2) == 0;
            poll(nullptr, 0, 20);
        };
    }
    std::vector<std::string> args(std::vector<std::string> more) {
        more.insert(more.begin(), {"--port", std::to_string(port), "--source", "127.0.0.2", "--key",
                                   "lab-secret"});
        return more;
    }
    QuietLog quiet;
    bool alarm, asked = false;
    uint16_t port = udp_port();
    svc_session *s = new_session(port, kSecret);
    std::thread loop;
};

TEST(SwitchCli, ActionsRunAgainstAnEndpoint) {
    LoopEndpoint ep(false);
    ASSERT_NE(ep.s, nullptr);
    Outcome r =
        run(ep.args({"--json", "--verbose", "wait-for", "1", "5", "get level,name,importance",
                     "get level --name other*", "get usage --name 'lamp*'",
                     "set level=3 role=\"desk light\"", "wait 0.5", "list", "delete"}),
            "", ep.tick());
    EXPECT_EQ(r.code, 0) << r.out << r.err;
    EXPECT_TRUE(r.err.empty()) << r.err;
    for (size_t at = 0, nl; at < r.out.size(); at = nl + 1) {  // one JSON object a line
        nl = r.out.find('\n', at);
        ASSERT_NE(nl, std::string::npos);
        EXPECT_EQ(r.out.compare(at, 10, "{\"time\":\"2"), 0) << r.out.substr(at, nl - at);
        EXPECT_EQ(r.out[nl - 1], '}') << r.out.substr(at, nl - at);
    }
    const std::string id = kId,
                      will = "\",\"answer\":\"accepted\",\"ack\":\"CV_SHIPMENT_ACK_WILL\"";
    for (const std::string &part :
         {"\"event\":\"handshake\",\"id\":\"" + id + "\",\"state\":\"active\"",
          std::string("{\"type\":13,\"name\":\"usage\",\"entry\":1,\"value\":"),
          "\"event\":\"result\",\"action\":\"get\",\"endpoint\":\"" + id + will +
              ",\"values\":[{\"type\":14,\"name\":\"level\",\"entry\":1,\"value\":4},{\"type\":9,"
              "\"name\":\"name\",\"entry\":1,\"value\":\"lamp-1\"},{\"type\":17,\"name\":"
              "\"importance\",\"entry\":1,\"value\":40}]}",
          std::string("\"answer\":\"none\""),
          "\"event\":\"result\",\"action\":\"set\",\"endpoint\":\"" + id + will + "}",
          "\"event\":\"list\",\"id\":\"" + id + "\",\"state\":\"active\"",
          std::string("\"role\":\"desk light\""), "\"text\":\"delete " + id + ": sent\"",
          std::string("\"event\":\"sent\"")})
        EXPECT_TRUE(has(r.out, part)) << part << "\n" << r.out;
    EXPECT_EQ(app().copy(app().levels_set), std::vector<int32_t>{3});
    // The delete sent the endpoint back to UP.
    EXPECT_TRUE(
        loop_net::wait_until([&] { return ohmara_svc_getStatus(ep.s) == OHMARA_STATUS_UP; }));
}

// A discovery signed with another key is dropped, and said so.
TEST(SwitchCli, DropsADiscoveryWhoseDigestDoesNotVerify) {
    LoopEndpoint ep(false);
    ASSERT_NE(ep.s, nullptr);
    std::vector<std::string> args = ep.args({"wait-for", "1", "2"});
    args[5] = "lab-secreT";  // the switch's --key
    Outcome r = run(args, "", ep.tick());
    EXPECT_EQ(r.code, 1) << r.out << r.err;
    EXPECT_TRUE(has(r.out + r.err, "): digest mismatch (wrong key?)")) << r.out << r.err;
}

// A script on standard input; the alarm the application asks for is
// answered as --alarms says.
TEST(SwitchCli, ScriptCarriesAnAlarmAnswer) {
    LoopEndpoint ep(true);
    ASSERT_NE(ep.s, nullptr);
    Outcome r = run(ep.args({"--alarms", "failed", "--script", "-"}),
                    "# from standard input\nwait-for 1 10\nwait 1\n", ep.tick());
    EXPECT_EQ(r.code, 0) << r.out << r.err;
    const std::string id = kId;
    ASSERT_TRUE(ep.asked);
    EXPECT_TRUE(has(r.out, "alarm request from " + id + ": id 1 set seconds 30 params 1,2"))
        << r.out;
    EXPECT_TRUE(has(r.out, "alarm answer to " + id + ": id 1 failed")) << r.out;
    for (size_t at = 0; at < r.out.size(); at = r.out.find('\n', at) + 1)  // "12:34:56.789 ..."
        EXPECT_TRUE(r.out[at + 2] == ':' && r.out[at + 8] == '.' && r.out[at + 12] == ' ')
            << r.out.substr(at, 40);
    EXPECT_EQ(app().copy(app().replies), std::vector<Reply>({{1, 0, 0}}));
}

}  // namespace
