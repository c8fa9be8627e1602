// SPDX-License-Identifier: Apache-2.0
// One scenario with the demo lamp, played by the kit and by the tools'
// switch over loopback sockets against the library's own thread: both
// transcripts (every message decoded and verified) must be the same.
#include <omsdk/testkit.h>

#include <stdio.h>
#include <string.h>

#include <sstream>
#include <string>
#include <thread>

#include <gtest/gtest.h>

#include "switch.h"
#include "transcript.h"

extern "C" {
#include "device.h"
}

namespace {

constexpr char kId[] = "c0c0c0c0c0c0c0c0c0c0c0c0c0c0c0c0";
constexpr char kKey[] = "compare-shared-key";
constexpr uint16_t kPort = 47321;

// What both switches do once the handshake is done.
struct Step {
    bool set;
    const char *what;  // an attribute to GET, or an assignment to SET
};
constexpr Step kScenario[] = {{false, "level"},        {false, "usage"},     {false, "name"},
                              {false, "usage-vector"}, {true, "level=3"},    {true, "level=11"},
                              {false, "delta-vector"}, {true, "name=porch"}, {true, "level=10"}};

svc_session *lamp_session(FILE *out) {
    svc_session *s = ohmara_svc_create("127.0.0.1", kPort, kId,
                                       reinterpret_cast<const uint8_t *>(kKey), strlen(kKey), 0);
    if (s == nullptr) return nullptr;
    lamp_device_attach(s, out, nullptr);
    ohmara_svc_configIdentity(s, "compare", "lamp7", "light", "hall", "lamp", 40);
    ohmara_svc_configRegistry(s, lamp_device_registry());
    return s;
}

std::string through_kit(FILE *out) {
    svc_session *s = lamp_session(out);
    ohmara_tk *kit = ohmara_tk_create(s, reinterpret_cast<const uint8_t *>(kKey),
                                      static_cast<int32_t>(strlen(kKey)), kId);
    if (kit == nullptr) return "no kit";
    if (ohmara_tk_handshake(kit) != 0) return ohmara_tk_lastError(kit);
    for (const Step &st : kScenario) {
        char text[256];
        int64_t vec[16];
        uint32_t n = 0;
        if (st.set)
            (void)ohmara_tk_set(kit, st.what);
        else if (strstr(st.what, "vector") != nullptr)
            (void)ohmara_tk_getVector(kit, st.what, vec, 16, &n);
        else if (strcmp(st.what, "name") == 0)
            (void)ohmara_tk_getText(kit, st.what, text, sizeof text);
        else
            (void)ohmara_tk_getNumber(kit, st.what, vec);
    }
    std::string t(static_cast<size_t>(ohmara_tk_transcript(kit, nullptr, 0)) + 1, '\0');
    ohmara_tk_transcript(kit, &t[0], static_cast<uint32_t>(t.size()));
    t.pop_back();
    ohmara_tk_destroy(kit);
    return t;
}

std::string through_sockets(FILE *out) {
    omsdk_tools::SwitchConfig cfg;
    cfg.port = kPort;
    cfg.source_addr = htonl(0x7f000002);  // 127.0.0.2
    cfg.secret.assign(kKey, kKey + strlen(kKey));
    cfg.switch_id = omsdk_testkit::kSwitchId;
    cfg.nonce = omsdk_testkit::kSwitchNonce;
    omsdk_tools::Switch sw(cfg);
    std::string t, why;
    sw.set_observer([&t](const omsdk_tools::SwitchEvent &ev) {
        if (ev.kind == omsdk_tools::SwitchEvent::Kind::Received)
            t += omsdk_testkit::transcript_line("< ", *ev.pdu);
        if (ev.kind == omsdk_tools::SwitchEvent::Kind::Sent)
            t += omsdk_testkit::transcript_line("> ", *ev.pdu);
    });
    // The switch listens before the lamp's first broadcast.
    if (!sw.start(&why)) return why;
    svc_session *s = lamp_session(out);
    if (s == nullptr) return "no session";
    std::thread loop([s] { ohmara_svc_startup(s); });
    if (!sw.wait_for(
            [&] {
                const omsdk_tools::EndpointInfo *ep = sw.find(kId);
                return ep != nullptr && ep->state == omsdk_tools::EndpointState::Active;
            },
            5000))
        t += "no handshake";
    else
        for (const Step &st : kScenario) {
            omsdk_tools::SetItem item;
            uint32_t type = 0;
            // An accepted SET has the lamp announce itself again: the kit
            // hears that at once, the network a moment later.
            const uint32_t updates = sw.find(kId)->updates;
            if (st.set && omsdk_tools::parse_set_item(st.what, &item, &why) &&
                sw.set(kId, {item}, {}).will())
                sw.wait_for([&] { return sw.find(kId)->updates > updates; }, 3000);
            else if (!st.set && omsdk_tools::get_attribute_type(st.what, &type))
                sw.get(kId, {type}, {});
        }
    ohmara_svc_shutdown(s);
    loop.join();
    return t;
}

TEST(KitAgainstSockets, SameDecodedExchanges) {
    setLogLevel(OHMARA_LOG_ERROR);
    FILE *out = fopen("/dev/null", "w");
    ASSERT_NE(out, nullptr);
    const std::string kit = through_kit(out);
    const std::string sockets = through_sockets(out);
    fclose(out);
    EXPECT_NE(kit.find("< reply"), std::string::npos) << kit;
    // Line by line, so that a difference shows as one line.
    std::istringstream a(kit), b(sockets);
    for (int line = 1; a || b; ++line) {
        std::string la, lb;
        std::getline(a, la);
        std::getline(b, lb);
        ASSERT_EQ(la, lb) << "line " << line;
    }
}

}  // namespace
