// The peer table and the client cache. The GRE ingress threads write them
// (through learn()); the tap threads and the control socket read them through
// the lookups and snapshots below. Each table's mutex is held only around one
// lookup, insertion or copy, and the two are never held together; copies take
// each record's own mutex inside the table's. Records are never removed: both
// tables only grow until the process exits.
//
// A peer snapshot copies what sending to a peer or listing it needs, never
// the peer's clients: the flood, the relayed broadcast and the peers report
// cost what the number of peers (and their pairs) makes them, however many
// clients sit behind each.
#pragma once

#include <netinet/in.h>

#include <cstdint>
#include <memory>
#include <mutex>
#include <unordered_map>
#include <vector>

#include "tunnel/ClientRecord.h"
#include "tunnel/PeerRecord.h"

namespace lumora {

// The VLAN filter that selects every peer of the peers report.
inline constexpr uint32_t kAllVlans = 65535;

// The peer table's key: (address word << 16) | vlan. The IPv4 word is the
// four address bytes as the x86-64 daemon reads them from memory (little-
// endian); the IPv6 word is the first eight address bytes as a little-endian
// u64, of which the shift keeps the low 48 bits, so IPv6 peers differing only
// in their last ten address bytes share one record (the key peers have always
// had; isSamePeer() still compares whole addresses). Other families: 0.
uint64_t peerIdOf(uint32_t family, const in_addr& ipv4, const in6_addr& ipv6, uint16_t vlan);

// The client cache's key: (the six MAC bytes as a 48-bit little-endian
// number << 16) | policy VLAN. A MAC seen on two VLANs is two clients.
uint64_t clientKeyOf(const uint8_t* mac, uint16_t vlan);

// One copy of a flooded frame: the peer it goes to and the (VLAN, key) pair
// it is tagged and keyed with.
struct FloodCopy {
    PeerFields peer;
    VlanKey pair;
};

class Tables {
  public:
    Tables() = default;
    Tables(const Tables&) = delete;
    Tables& operator=(const Tables&) = delete;

    // The daemon's tables, made on first use and never destroyed, so threads
    // still running while the process exits never see them go.
    static Tables& process();

    // Learning side (GRE ingress threads).
    // Inserts a record with candidate's fields unless one with its peerId
    // exists. Returns the record in the table; inserted tells which case it
    // was and total the table's size right after.
    PeerRecord* insertPeer(const PeerFields& candidate, bool& inserted, size_t& total);
    // Inserts record under key unless the key is taken. Returns the record in
    // the cache: record's own when inserted, else the one already there (and
    // record is freed).
    ClientRecord* insertClient(uint64_t key, std::unique_ptr<ClientRecord> record, bool& inserted);

    // Lookups; null when absent. The pointers stay valid for the process's life.
    PeerRecord* findPeer(uint64_t peerId);
    ClientRecord* findClient(uint64_t key);
    // The egress unicast lookup: destination MAC on the frame's VLAN. Holds
    // the cache's mutex for the find only and allocates nothing.
    ClientRecord* findClient(const uint8_t* mac, uint16_t vlan) {
        return findClient(clientKeyOf(mac, vlan));
    }

    // The fields of the peers whose vlan equals vlan, kAllVlans meaning every
    // peer, in table order, taken under the table's mutex (the peers report).
    std::vector<PeerFields> peers(uint32_t vlan = kAllVlans);
    // The fields of the peers whose vlan equals vlan (a relayed broadcast's
    // targets); a VLAN of 65535 or more has none.
    std::vector<PeerFields> floodPeers(uint32_t vlan);
    // The egress flood's copies of a frame on vlan: for each peer of that
    // VLAN, in table order, one per pair of its vlanKeys, in the set's order.
    // A VLAN of 65535 or more has none. The list is the flood's one
    // allocation (none when empty); only a pair learned while the list is
    // taken can cost it a second.
    std::vector<FloodCopy> floodCopies(uint32_t vlan);
    // The relay path's target: the fields of the peer of the client (mac,
    // vlan), copied into out. False when the client is unknown or has no peer.
    bool relayPeer(const uint8_t* mac, uint16_t vlan, PeerFields& out);
    // Copies of every client, in cache order, taken under the cache's mutex.
    std::vector<ClientRecord> clients();

    size_t peerCount();
    size_t clientCount();

  private:
    std::vector<PeerFields> copyPeers(uint32_t vlan, bool all);

    std::unordered_map<uint64_t, PeerRecord> peerTable;
    std::mutex peerTableMutex;
    std::unordered_map<uint64_t, std::unique_ptr<ClientRecord>> clientCache;
    std::mutex clientCacheMutex;
};

}  // namespace lumora
