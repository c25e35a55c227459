// Helpers for the report tests: addresses from text (from
// support/addresses.h), quiet learning into a Tables instance, and clients
// placed in a table by hand (for states that traffic cannot produce, such as
// a client without a peer).
#pragma once

#include <arpa/inet.h>
#include <sys/socket.h>

#include <array>
#include <cstdint>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include "core/Logger.h"
#include "support/addresses.h"
#include "tunnel/Learning.h"
#include "tunnel/Tables.h"

namespace lumora::test {

using Mac = std::array<uint8_t, 6>;

// A logger that never emits: learning's Notice lines are not what these
// tests look at.
inline Logger* quietLogger() {
    static Logger logger;
    logger.level = -1;
    return &logger;
}

// One packet as the ingress path hands it to learning.
struct Packet {
    const char* address;      // outer source, IPv4 or IPv6 text
    Mac mac;                  // inner source
    uint16_t policyVlan = 0;  // after the key/VLAN policy
    uint16_t tagVlan = 0;     // 0: untagged
    bool hasKey = false;
    uint32_t key = 0;
    size_t frameLength = 60;
};

inline ClientRecord* learnPacket(Tables& tables, const Packet& p) {
    Sighting s;
    in6_addr six{};
    if (inet_pton(AF_INET6, p.address, &six) == 1) {
        s.family = AF_INET6;
        s.ipv6 = six;
    } else {
        s.family = AF_INET;
        s.ipv4 = v4(p.address);
    }
    s.policyVlan = p.policyVlan;
    s.tagVlan = p.tagVlan;
    s.hasKey = p.hasKey;
    s.key = p.key;
    s.mac = p.mac.data();
    s.frameLength = p.frameLength;
    return learn(tables, quietLogger(), s);
}

// A client entered in the cache directly, with no peer: what the report
// shows for a record whose peer is unset.
inline ClientRecord* insertOrphan(Tables& tables, const Mac& mac, uint16_t vlan) {
    bool inserted = false;
    ClientRecord* record = tables.insertClient(
        clientKeyOf(mac.data(), vlan), std::make_unique<ClientRecord>(mac.data()), inserted);
    if (!inserted) throw std::logic_error("client already present");
    return record;
}

// The report cut into its per-client blocks, each starting at a "client: "
// line, so that reports can be compared without depending on the cache's
// iteration order.
inline std::vector<std::string> clientBlocks(const std::string& report) {
    std::vector<std::string> blocks;
    size_t start = 0;
    while (start < report.size()) {
        size_t next = report.find("\nclient: ", start);
        const size_t end = next == std::string::npos ? report.size() : next + 1;
        blocks.push_back(report.substr(start, end - start));
        start = end;
    }
    return blocks;
}

}  // namespace lumora::test
