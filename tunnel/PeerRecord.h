// One remote tunnel peer: an access point (or another gateway) seen at one
// outer source address on one VLAN. Records live in the peer table for the
// whole life of the process and never move, so pointers to them stay valid.
#pragma once

#include <netinet/in.h>
#include <sys/socket.h>

#include <cstdint>
#include <ctime>
#include <mutex>
#include <vector>

#include "tunnel/VlanKeySet.h"

namespace lumora {

namespace vif {
class GreSocket;
}
class ClientRecord;

// inet_ntop of ipv4 when family is AF_INET, otherwise of ipv6: a record with
// any other family prints as an IPv6 address, as it always has. The text is
// in the calling thread's buffer, valid until its next address text.
const char* addressText(uint32_t family, const in_addr& ipv4, const in6_addr& ipv6);

// A peer's outer address; family 0 when there is no peer.
struct PeerAddress {
    uint32_t family = 0;
    in_addr ipv4{};
    in6_addr ipv6{};

    const char* text() const { return addressText(family, ipv4, ipv6); }
};

struct PeerRecord {
    // Fixed once the record is in the peer table; read without a lock.
    uint16_t vlan = 0;     // policy VLAN the peer was learned on
    in_addr ipv4{};        // outer source when family is AF_INET, network order
    in6_addr ipv6{};       // outer source when family is AF_INET6
    uint32_t family = 0;   // AF_INET or AF_INET6
    time_t firstSeen = 0;  // wall-clock seconds of the first packet
    // The GRE socket (a vif::IP in the daemon) the peer's packets arrive on;
    // replies to the peer leave through it.
    vif::GreSocket* endpoint = nullptr;
    uint8_t relayMark = 0;  // 1 when the first packet came relayed by another gateway
    uint64_t peerId = 0;    // the peer table's key, see peerIdOf()
    // Guarded by mutex.
    VlanKeySet vlanKeys;                 // rebuilt from clients after every change
    std::vector<ClientRecord*> clients;  // not owned; the client cache owns them
    mutable std::mutex mutex;

    PeerRecord() = default;
    // Copies every field but the mutex (the copy gets a fresh one), taking the
    // source's mutex for vlanKeys and clients. The client pointers are copied,
    // not followed.
    PeerRecord(const PeerRecord& other);
    PeerRecord& operator=(const PeerRecord& other);

    PeerAddress address() const { return {family, ipv4, ipv6}; }

    // Recomputes vlanKeys from clients, in vector order. Caller holds mutex.
    // Reads the clients' flags, which learning only changes while a client is
    // in no peer's list.
    void rebuildVlanKeys();

  private:
    void copyFieldsFrom(const PeerRecord& other);
};

}  // namespace lumora
