#include "tunnel/Tables.h"

#include <sys/socket.h>

#include "pdu/Ethernet.h"

namespace lumora {

namespace {

// Little-endian read of n bytes, whatever the host's byte order.
uint64_t loadLittle(const uint8_t* p, int n) {
    uint64_t v = 0;
    for (int i = n - 1; i >= 0; --i) v = v << 8 | p[i];
    return v;
}

}  // namespace

uint64_t peerIdOf(uint32_t family, const in_addr& ipv4, const in6_addr& ipv6, uint16_t vlan) {
    uint64_t word = 0;
    if (family == AF_INET) {
        word = loadLittle(reinterpret_cast<const uint8_t*>(&ipv4), 4);
    } else if (family == AF_INET6) {
        word = loadLittle(ipv6.s6_addr, 8);
    }
    return word << 16 | vlan;
}

uint64_t clientKeyOf(const uint8_t* mac, uint16_t vlan) { return pdu::packMac(mac) << 16 | vlan; }

Tables& Tables::process() {
    static Tables* const tables = new Tables;
    return *tables;
}

PeerRecord* Tables::insertPeer(const PeerFields& candidate, bool& inserted, size_t& total) {
    std::lock_guard guard(peerTableMutex);
    // find first: a known peer, the per-packet case, must not allocate a node.
    auto it = peerTable.find(candidate.peerId);
    inserted = it == peerTable.end();
    if (inserted) it = peerTable.try_emplace(candidate.peerId, candidate).first;
    total = peerTable.size();
    return &it->second;
}

ClientRecord* Tables::insertClient(uint64_t key, std::unique_ptr<ClientRecord> record,
                                   bool& inserted) {
    std::lock_guard guard(clientCacheMutex);
    auto [it, added] = clientCache.try_emplace(key, std::move(record));
    inserted = added;
    return it->second.get();
}

PeerRecord* Tables::findPeer(uint64_t peerId) {
    std::lock_guard guard(peerTableMutex);
    auto it = peerTable.find(peerId);
    return it == peerTable.end() ? nullptr : &it->second;
}

ClientRecord* Tables::findClient(uint64_t key) {
    std::lock_guard guard(clientCacheMutex);
    auto it = clientCache.find(key);
    return it == clientCache.end() ? nullptr : it->second.get();
}

std::vector<PeerFields> Tables::copyPeers(uint32_t vlan, bool all) {
    std::vector<PeerFields> copies;
    std::lock_guard guard(peerTableMutex);
    // Counted and reserved first, so the list is the one allocation. The
    // fields are fixed: no peer's mutex is needed to copy them.
    size_t count = peerTable.size();
    if (!all) {
        count = 0;
        for (const auto& [id, peer] : peerTable) count += peer.vlan == vlan;
    }
    if (count == 0) return copies;
    copies.reserve(count);
    for (const auto& [id, peer] : peerTable) {
        if (all || peer.vlan == vlan) copies.push_back(peer);
    }
    return copies;
}

std::vector<PeerFields> Tables::peers(uint32_t vlan) { return copyPeers(vlan, vlan == kAllVlans); }

std::vector<PeerFields> Tables::floodPeers(uint32_t vlan) {
    if (vlan >= 65535) return {};
    return copyPeers(vlan, false);
}

std::vector<FloodCopy> Tables::floodCopies(uint32_t vlan) {
    std::vector<FloodCopy> copies;
    if (vlan >= 65535) return copies;
    std::lock_guard guard(peerTableMutex);
    // Counted first, so that the list is allocated once. Each peer's mutex is
    // taken only around its own pairs, so learning on other peers goes on.
    size_t count = 0;
    for (const auto& [id, peer] : peerTable) {
        if (peer.vlan != vlan) continue;
        std::lock_guard peer_guard(peer.mutex);
        count += peer.vlanKeys.size();
    }
    if (count == 0) return copies;
    copies.reserve(count);
    for (const auto& [id, peer] : peerTable) {
        if (peer.vlan != vlan) continue;
        const PeerFields& fields = peer;
        std::lock_guard peer_guard(peer.mutex);
        for (const VlanKey& pair : peer.vlanKeys) copies.push_back({fields, pair});
    }
    return copies;
}

bool Tables::relayPeer(const uint8_t* mac, uint16_t vlan, PeerFields& out) {
    const ClientRecord* client = findClient(mac, vlan);
    return client != nullptr && client->peerSnapshot(out);
}

std::vector<ClientRecord> Tables::clients() {
    std::vector<ClientRecord> copies;
    std::lock_guard guard(clientCacheMutex);
    copies.reserve(clientCache.size());
    for (const auto& [key, client] : clientCache) copies.push_back(*client);
    return copies;
}

size_t Tables::peerCount() {
    std::lock_guard guard(peerTableMutex);
    return peerTable.size();
}

size_t Tables::clientCount() {
    std::lock_guard guard(clientCacheMutex);
    return clientCache.size();
}

}  // namespace lumora
