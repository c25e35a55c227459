// One client device: an Ethernet source address on one policy VLAN, and the
// peer it currently sits behind. Records are heap-allocated by the client
// cache, never move and never die while the process runs.
//
// Locking: a client's mutex is always taken before its peer's, never the
// reverse, and no thread holds two peers' mutexes. The GRE ingress threads
// write; the tap threads and the control socket read through the locked
// operations below (or through a copy).
#pragma once

#include <cstdint>
#include <ctime>
#include <mutex>
#include <string>

#include "tunnel/PeerRecord.h"

namespace lumora {

// The four counters, read together so that they agree with each other.
struct Traffic {
    uint64_t bytesIn = 0;
    uint64_t bytesOut = 0;
    uint64_t packetsIn = 0;
    uint64_t packetsOut = 0;
};

// What the egress path needs to send one frame to a client, read under one
// lock and without allocating.
struct ClientRoute {
    bool hasPeer = false;
    PeerAddress address;                 // the peer's outer address
    vif::GreSocket* endpoint = nullptr;  // the peer's GRE socket
    uint8_t relayMark = 0;               // the peer stands for another gateway
    uint8_t hasKey = 0;
    uint32_t greKey = 0;
    uint8_t hasVlan = 0;
    int32_t vlan = 0;
};

// What one packet taught about a new or moving client.
struct Association {
    bool hasKey = false;
    uint32_t key = 0;
    uint16_t tagVlan = 0;     // 0: the frame was untagged
    uint16_t mappedVlan = 0;  // 0: leave mappedVlan as it is
};

class ClientRecord {
  public:
    uint8_t mac[6] = {};
    uint8_t hasVlan = 0;       // frames arrived with an 802.1Q tag
    uint8_t hasKey = 0;        // packets carried a GRE key
    int32_t vlan = 0;          // the tag's VLAN (read as u16), valid with hasVlan
    uint32_t greKey = 0;       // valid with hasKey
    int32_t mappedVlan = 0;    // policy VLAN when it differs from the tag's; 0 = none
    mutable std::mutex mutex;  // guards every field of a published record
    time_t lastSeen = 0;
    uint64_t bytesIn = 0;
    uint64_t bytesOut = 0;
    uint64_t packetsIn = 0;
    uint64_t packetsOut = 0;
    PeerRecord* peer = nullptr;

    // A new client: flags clear, no peer, lastSeen now.
    explicit ClientRecord(const uint8_t* address);
    // Copies every field but the mutex, under the source's mutex.
    ClientRecord(const ClientRecord& other);
    ClientRecord& operator=(const ClientRecord& other);

    void touch();  // lastSeen = now
    // A frame from this client, under one hold of its mutex: lastSeen = now,
    // frame_length bytes and one packet in, and whether candidate is the
    // peer it sits behind (as isSamePeer()). Learning's per-packet case.
    bool sighted(const PeerFields& candidate, uint64_t frame_length);
    // The flag setters, each under the client's mutex. A client is listed by
    // its peer with the pair its flags made when it was listed, so on a
    // client that is in a peer's list they are changed through associate()
    // only.
    void resetFlags();  // hasVlan = hasKey = 0
    void setKey(uint32_t key);
    void setVlan(int32_t id);
    void setMappedVlan(int32_t id);
    // Only before the record is published in the client cache.
    void setPeer(PeerRecord* record) { peer = record; }

    void addTraffic(uint64_t bytes_in, uint64_t bytes_out, uint64_t packets_in,
                    uint64_t packets_out);
    Traffic readTraffic() const;

    // The peer's address; family 0 when there is no peer.
    PeerAddress peerAddress() const;
    // The peer's address as text, "unknown" when there is no peer.
    std::string peerAddressText() const;
    // Copies the current peer's fixed fields into out. False, and out
    // untouched, when there is no peer.
    bool peerSnapshot(PeerFields& out) const;
    ClientRoute route() const;

    // True only for the same family and, for AF_INET6, the same VLAN and 16
    // address bytes, for AF_INET the same VLAN and address. The current peer's
    // full address is compared, not the peer table's shorter key.
    bool isSamePeer(const PeerFields& candidate) const;

    // Takes this client out of its peer's clients and forgets the peer; the
    // peer stays in the table even with no clients left.
    void detachClient();
    // Makes record this client's peer, listed at the end of its clients with
    // the pair the flags make. A client is listed once, by one peer at most:
    // one listed already is detached first.
    void attachClient(PeerRecord* record);

    // Learning's move of a new or re-associated client, done under one hold
    // of the client's mutex so that concurrent ingress threads leave it in
    // exactly one peer's list: detach from the current peer, reset and set
    // the flags from what, attach to record (none when null).
    void associate(PeerRecord* record, const Association& what);

  private:
    friend class ClientList;

    bool isSamePeerLocked(const PeerFields& candidate) const;
    void detachLocked();
    void attachLocked(PeerRecord* record);

    // Where the peer lists this client; see ClientListing for what guards
    // it. Never copied: a copy is listed nowhere.
    ClientListing listing;
};

}  // namespace lumora
