// Helpers shared by the table and learning tests: addresses from text (from
// support/addresses.h), a sighting builder and a Notice-level logger whose
// lines can be read back.
#pragma once

#include <sys/socket.h>

#include <array>
#include <cstdint>
#include <ostream>
#include <string>
#include <vector>

#include "support/addresses.h"
#include "support/memory_log.h"
#include "tunnel/Learning.h"

namespace lumora {

// Readable (VLAN, key) pairs in failure messages.
inline void PrintTo(const VlanKey& pair, std::ostream* os) {
    *os << "(" << pair.vlan << ", " << pair.key << ")";
}

}  // namespace lumora

namespace lumora::test {

using Mac = std::array<uint8_t, 6>;

inline Mac mac(uint8_t last) { return {0x00, 0x11, 0x22, 0x33, 0x44, last}; }

// A packet from IPv4 source address on policy VLAN vlan, untagged, no key.
inline Sighting fromV4(const char* address, uint16_t vlan, const Mac& source) {
    Sighting s;
    s.family = AF_INET;
    s.ipv4 = v4(address);
    s.policyVlan = vlan;
    s.mac = source.data();
    s.frameLength = 60;
    return s;
}

inline Sighting fromV6(const char* address, uint16_t vlan, const Mac& source) {
    Sighting s;
    s.family = AF_INET6;
    s.ipv6 = v6(address);
    s.policyVlan = vlan;
    s.mac = source.data();
    s.frameLength = 60;
    return s;
}

// What a peer's vlanKeys must hold: each listed client's pair, read from its
// flags, inserted in listing order. The caller holds the peer's mutex, or no
// other thread runs.
inline std::vector<VlanKey> rebuiltKeys(const PeerRecord& peer) {
    VlanKeySet keys;
    for (const ClientRecord* client : peer.clients) {
        keys.insert({static_cast<uint16_t>(client->hasVlan ? client->vlan : 0),
                     client->hasKey ? client->greKey : 0});
    }
    return {keys.begin(), keys.end()};
}

// Learning's table changes are Notice lines, the level these tests listen
// at; newLines() is what was written since its previous call.
struct LogCapture : MemoryLog {
    LogCapture() : MemoryLog(Notice) {}
    std::vector<std::string> newLines() { return taken(); }
};

}  // namespace lumora::test
