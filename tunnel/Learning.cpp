#include "tunnel/Learning.h"

#include <sys/socket.h>

#include <ctime>
#include <memory>
#include <string>

#include "pdu/Text.h"
#include "vif/VIF"

namespace lumora {

namespace {

void logNewPeer(Logger* logger, const Sighting& s, size_t total) {
    // The endpoint's own address, empty for a family other than IPv4 and
    // IPv6. Copied out because the peer's text reuses the thread's buffer.
    std::string local;
    if (s.endpoint != nullptr) {
        const uint32_t family = s.endpoint->family();
        if (family == AF_INET || family == AF_INET6)
            local = addressText(family, s.endpoint->localIPv4(), s.endpoint->localIPv6());
    }
    VXBRD_LOG(*logger, Notice, "[peers] new peer: %s, vlan: %d, interface: %s[%s] (total: %lu)",
              addressText(s.family, s.ipv4, s.ipv6), static_cast<int>(s.policyVlan),
              s.endpoint != nullptr ? s.endpoint->interfaceName().c_str() : "", local.c_str(),
              static_cast<unsigned long>(total));
}

// "<MAC>, peer: <address>", the common middle of both client lines.
std::string clientText(const Sighting& s) {
    return std::string(pdu::macToText(s.mac)) + ", peer: " + addressText(s.family, s.ipv4, s.ipv6);
}

}  // namespace

ClientRecord* learn(Tables& tables, Logger* logger, const Sighting& s) {
    PeerFields candidate;
    candidate.vlan = s.policyVlan;
    candidate.ipv4 = s.ipv4;
    candidate.ipv6 = s.ipv6;
    candidate.family = s.family;
    candidate.firstSeen = time(nullptr);
    candidate.endpoint = s.endpoint;
    candidate.relayMark = s.relayMark;
    candidate.peerId = peerIdOf(s.family, s.ipv4, s.ipv6, s.policyVlan);

    bool new_peer = false;
    size_t total = 0;
    PeerRecord* peer = tables.insertPeer(candidate, new_peer, total);
    if (new_peer) logNewPeer(logger, s, total);

    const uint64_t key = clientKeyOf(s.mac, s.policyVlan);
    ClientRecord* client = tables.findClient(key);
    bool new_client = false;
    if (client == nullptr) {
        auto fresh = std::make_unique<ClientRecord>(s.mac);
        fresh->setPeer(peer);
        // Another ingress thread may have entered the same client meanwhile;
        // then its record is the one in use, learned as a found client.
        client = tables.insertClient(key, std::move(fresh), new_client);
    }

    // A new or moving client gets its flags and peer set below; the line
    // that tells about it is begun here and finished with what it learned.
    std::string line;
    if (new_client) {
        client->addTraffic(s.frameLength, 0, 1, 0);
        line = "[cache] new device: " + clientText(s);
        if (s.upstream != nullptr) {
            line += " FWD via VYM ";
            line += pdu::addressToText(AF_INET, s.upstream);
        }
    } else {
        // The per-packet case: seen, counted and compared in one lock.
        if (client->sighted(candidate, s.frameLength)) return client;
        line = "[cache] Update device peer: " + clientText(s);
        VXBRD_LOG(*logger, Notice, "Reassociating client to peer cache");
    }

    Association what;
    what.hasKey = s.hasKey;
    what.key = s.key;
    what.tagVlan = s.tagVlan;
    if (s.hasKey) line += ", grekey: " + std::to_string(s.key);
    if (s.tagVlan != 0) line += ", vlan: " + std::to_string(s.tagVlan);
    if (s.policyVlan != 0 && s.policyVlan != s.tagVlan) {
        what.mappedVlan = s.policyVlan;
        line += ", mapped to vlan: " + std::to_string(s.policyVlan);
    }
    client->associate(peer, what);
    VXBRD_LOG(*logger, Notice, line);
    return client;
}

}  // namespace lumora
