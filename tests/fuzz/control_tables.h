// What the control-socket fuzzers answer from: small tables filled once, with
// two peers (IPv4 and IPv6) and three clients (one keyed and tagged, one on a
// mapped VLAN, one without a peer), and the reply the protocol promises for a
// request, worked out without the daemon's own matching.
#pragma once

#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>
#include <string_view>

#include "control/Reports.h"
#include "tests/unit/tunnel/recording_support.h"
#include "tunnel/Learning.h"

namespace lumora::fuzz {

struct ControlTables {
    ControlTables() : socket("eth0", "192.0.2.1") {
        logger.stream = std::fopen("/dev/null", "w");
        if (logger.stream == nullptr) std::abort();

        const uint8_t keyed[6] = {0x00, 0x11, 0x22, 0x33, 0x44, 0x55};
        Sighting s;
        s.family = AF_INET;
        s.ipv4 = test::ipv4Of("192.0.2.10");
        s.endpoint = &socket;
        s.policyVlan = 20;
        s.tagVlan = 20;
        s.hasKey = true;
        s.key = 7;
        s.mac = keyed;
        s.frameLength = 60;
        learn(tables, &logger, s);

        const uint8_t mapped[6] = {0x02, 0x00, 0x5e, 0x00, 0x00, 0x0a};
        Sighting m;
        m.family = AF_INET6;
        m.ipv6 = test::ipv6Of("2001:db8::5");
        m.endpoint = &socket;
        m.policyVlan = 30;
        m.hasKey = true;
        m.key = 30;
        m.mac = mapped;
        m.frameLength = 1514;
        learn(tables, &logger, m);

        const uint8_t lonely[6] = {0x02, 0x00, 0x5e, 0x00, 0x00, 0xff};
        bool inserted = false;
        tables.insertClient(clientKeyOf(lonely, 0), std::make_unique<ClientRecord>(lonely),
                            inserted);

        peers = peersReport(tables);
        clients = clientsReport(tables);
        // The fuzzers are only worth running against reports that hold something.
        if (peers.find("peer: 192.0.2.10, vlan: 20\n") == std::string::npos ||
            peers.find("peer: 2001:db8::5, vlan: 30\n") == std::string::npos ||
            clients.find("  mapped vlan: 30\n") == std::string::npos ||
            clients.find("  peer: unknown\n") == std::string::npos)
            std::abort();
    }

    // The reply to the bytes of one read: with every newline removed,
    // "peers" and "clients" in any case get their reports; anything else
    // gets the unknown-request reply quoting the request.
    std::string expectedReply(std::string_view request) const {
        std::string text;
        for (char c : request)
            if (c != '\n') text += c;
        if (sameLetters(text, "peers")) return peers;
        if (sameLetters(text, "clients")) return clients;
        return "Unknown Request: '" + text + "'\nValid Requests: peers\n                clients\n";
    }

    Logger logger;
    test::RecordingGreSocket socket;
    Tables tables;
    std::string peers;
    std::string clients;

  private:
    static bool sameLetters(const std::string& text, const char* word) {
        size_t i = 0;
        for (; word[i] != '\0'; ++i) {
            if (i >= text.size()) return false;
            char c = text[i];
            if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
            if (c != word[i]) return false;
        }
        return i == text.size();
    }
};

}  // namespace lumora::fuzz
