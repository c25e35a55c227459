#include "tunnel/ClientRecord.h"

#include <cstring>

namespace lumora {

ClientRecord::ClientRecord(const uint8_t* address) : lastSeen(time(nullptr)) {
    std::memcpy(mac, address, sizeof mac);
}

ClientRecord::ClientRecord(const ClientRecord& other) { *this = other; }

ClientRecord& ClientRecord::operator=(const ClientRecord& other) {
    if (this == &other) return *this;
    std::scoped_lock guard(mutex, other.mutex);
    std::memcpy(mac, other.mac, sizeof mac);
    hasVlan = other.hasVlan;
    hasKey = other.hasKey;
    vlan = other.vlan;
    greKey = other.greKey;
    mappedVlan = other.mappedVlan;
    lastSeen = other.lastSeen;
    bytesIn = other.bytesIn;
    bytesOut = other.bytesOut;
    packetsIn = other.packetsIn;
    packetsOut = other.packetsOut;
    peer = other.peer;
    return *this;
}

void ClientRecord::touch() {
    std::lock_guard guard(mutex);
    lastSeen = time(nullptr);
}

bool ClientRecord::sighted(const PeerFields& candidate, uint64_t frame_length) {
    std::lock_guard guard(mutex);
    lastSeen = time(nullptr);
    bytesIn += frame_length;
    packetsIn += 1;
    return isSamePeerLocked(candidate);
}

void ClientRecord::resetFlags() {
    std::lock_guard guard(mutex);
    hasVlan = 0;
    hasKey = 0;
}

void ClientRecord::setKey(uint32_t key) {
    std::lock_guard guard(mutex);
    greKey = key;
    hasKey = 1;
}

void ClientRecord::setVlan(int32_t id) {
    std::lock_guard guard(mutex);
    vlan = id;
    hasVlan = 1;
}

void ClientRecord::setMappedVlan(int32_t id) {
    std::lock_guard guard(mutex);
    mappedVlan = id;
}

void ClientRecord::addTraffic(uint64_t bytes_in, uint64_t bytes_out, uint64_t packets_in,
                              uint64_t packets_out) {
    std::lock_guard guard(mutex);
    bytesIn += bytes_in;
    bytesOut += bytes_out;
    packetsIn += packets_in;
    packetsOut += packets_out;
}

Traffic ClientRecord::readTraffic() const {
    std::lock_guard guard(mutex);
    return {bytesIn, bytesOut, packetsIn, packetsOut};
}

PeerAddress ClientRecord::peerAddress() const {
    std::lock_guard guard(mutex);
    return peer != nullptr ? peer->address() : PeerAddress{};
}

std::string ClientRecord::peerAddressText() const {
    std::lock_guard guard(mutex);
    return peer != nullptr ? peer->address().text() : "unknown";
}

bool ClientRecord::peerSnapshot(PeerFields& out) const {
    std::lock_guard guard(mutex);
    if (peer == nullptr) return false;
    out = *peer;
    return true;
}

ClientRoute ClientRecord::route() const {
    std::lock_guard guard(mutex);
    ClientRoute r;
    if (peer != nullptr) {
        r.hasPeer = true;
        r.address = peer->address();
        r.endpoint = peer->endpoint;
        r.relayMark = peer->relayMark;
    }
    r.hasKey = hasKey;
    r.greKey = greKey;
    r.hasVlan = hasVlan;
    r.vlan = vlan;
    return r;
}

bool ClientRecord::isSamePeer(const PeerFields& candidate) const {
    std::lock_guard guard(mutex);
    return isSamePeerLocked(candidate);
}

bool ClientRecord::isSamePeerLocked(const PeerFields& candidate) const {
    if (peer == nullptr || peer->family != candidate.family) return false;
    if (candidate.family == AF_INET6) {
        return peer->vlan == candidate.vlan &&
               std::memcmp(&peer->ipv6, &candidate.ipv6, sizeof candidate.ipv6) == 0;
    }
    if (candidate.family == AF_INET) {
        return peer->vlan == candidate.vlan && peer->ipv4.s_addr == candidate.ipv4.s_addr;
    }
    return false;
}

void ClientRecord::detachClient() {
    std::lock_guard guard(mutex);
    detachLocked();
}

void ClientRecord::attachClient(PeerRecord* record) {
    std::lock_guard guard(mutex);
    attachLocked(record);
}

void ClientRecord::associate(PeerRecord* record, const Association& what) {
    std::lock_guard guard(mutex);
    // Flags change only while the client is in no peer's list, so the pair
    // it is listed with is always what its flags say.
    detachLocked();
    hasVlan = 0;
    hasKey = 0;
    if (what.hasKey) {
        greKey = what.key;
        hasKey = 1;
    }
    if (what.tagVlan != 0) {
        vlan = what.tagVlan;
        hasVlan = 1;
    }
    if (what.mappedVlan != 0) mappedVlan = what.mappedVlan;
    if (record != nullptr) attachLocked(record);
}

void ClientRecord::detachLocked() {
    if (peer == nullptr) return;
    {
        std::lock_guard peer_guard(peer->mutex);
        // A client given its peer before it was published is not listed yet.
        if (peer->clients.holds(this)) peer->unlist(this);
    }
    peer = nullptr;
}

void ClientRecord::attachLocked(PeerRecord* record) {
    detachLocked();
    {
        std::lock_guard peer_guard(record->mutex);
        record->list(this, {static_cast<uint16_t>(hasVlan ? vlan : 0), hasKey ? greKey : 0});
    }
    peer = record;
}

}  // namespace lumora
