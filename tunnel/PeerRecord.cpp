#include "tunnel/PeerRecord.h"

#include "pdu/Text.h"
#include "tunnel/ClientRecord.h"

namespace lumora {

const char* addressText(uint32_t family, const in_addr& ipv4, const in6_addr& ipv6) {
    return family == AF_INET ? pdu::addressToText(AF_INET, &ipv4)
                             : pdu::addressToText(AF_INET6, &ipv6);
}

PeerRecord::PeerRecord(const PeerRecord& other) { copyFieldsFrom(other); }

PeerRecord& PeerRecord::operator=(const PeerRecord& other) {
    if (this != &other) copyFieldsFrom(other);
    return *this;
}

void PeerRecord::copyFieldsFrom(const PeerRecord& other) {
    // Both mutexes, in one deadlock-free acquisition: the target may be a
    // caller's reused record just as well as a fresh one.
    std::scoped_lock guard(mutex, other.mutex);
    vlan = other.vlan;
    ipv4 = other.ipv4;
    ipv6 = other.ipv6;
    family = other.family;
    firstSeen = other.firstSeen;
    endpoint = other.endpoint;
    relayMark = other.relayMark;
    peerId = other.peerId;
    vlanKeys = other.vlanKeys;
    clients = other.clients;
}

void PeerRecord::rebuildVlanKeys() {
    vlanKeys.clear();
    for (const ClientRecord* client : clients) {
        vlanKeys.insert({static_cast<uint16_t>(client->hasVlan ? client->vlan : 0),
                         client->hasKey ? client->greKey : 0});
    }
}

}  // namespace lumora
