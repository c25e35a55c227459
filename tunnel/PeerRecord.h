// One remote tunnel peer: an access point (or another gateway) seen at one
// outer source address on one VLAN. Records live in the peer table for the
// whole life of the process and never move, so pointers to them stay valid.
#pragma once

#include <netinet/in.h>
#include <sys/socket.h>

#include <cstdint>
#include <ctime>
#include <mutex>

#include "tunnel/ClientList.h"
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

// A peer's fixed fields: what learning compares a packet's sender with, and
// all that sending to the peer or listing it needs. They never change once the
// record is in the peer table, so they are read and copied without a lock;
// a copy is a few words, whatever the peer's clients.
struct PeerFields {
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

    PeerAddress address() const { return {family, ipv4, ipv6}; }
};

// The record in the peer table: the fixed fields, and the clients behind the
// peer with the (VLAN, key) pairs they make. Not copyable: the clients list
// itself through their records; snapshots copy the fixed fields (and the
// pairs) only.
struct PeerRecord : PeerFields {
    // Guarded by mutex.
    VlanKeySet vlanKeys;  // what a walk over clients, in order, would make
    ClientList clients;   // not owned; the client cache owns them
    mutable std::mutex mutex;

    PeerRecord() = default;
    // A peer with these fields and no clients: the table's entry made from
    // a packet's candidate.
    explicit PeerRecord(const PeerFields& fields) : PeerFields(fields) {}
    PeerRecord(const PeerRecord&) = delete;
    PeerRecord& operator=(const PeerRecord&) = delete;

    // Lists client, which uses pair, at the end of clients and keeps vlanKeys
    // what a walk over the clients would make. The client is listed nowhere.
    // Caller holds mutex. Costs the same however many clients the peer has.
    void list(ClientRecord* client, VlanKey pair);
    // Takes client, listed here, out of clients and keeps vlanKeys as above.
    // Caller holds mutex. Only when the client held the first listing of a
    // pair in vlanKeys are the peer's distinct pairs walked again; never its
    // clients.
    void unlist(ClientRecord* client);
};

}  // namespace lumora
