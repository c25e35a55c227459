// The egress tests' rig: one TunnelContext wired to a fresh Tables, a test
// Config, a recording tap and GRE sockets and a memory logger; clients are
// learned as the ingress path learns them, and frames are handed to
// handleTapFrame as the tap loop hands over a read slot (behind the tap's
// headroom) and flushed as the loop flushes each batch.
#pragma once

#include <arpa/inet.h>
#include <gtest/gtest.h>

#include <deque>
#include <memory>
#include <string>
#include <vector>

#include "recording_support.h"
#include "tunnel/Context.h"
#include "tunnel/Egress.h"
#include "tunnel/Learning.h"
#include "vif/TAP"

namespace lumora::test {

// The host behind the tap and two clients of the access points.
inline const char* const kHost = "02 00 5e 00 00 01";
inline const char* const kClientA = "02 00 5e 00 00 0a";
inline const char* const kClientB = "02 00 5e 00 00 0b";
inline const char* const kBroadcast = "ff ff ff ff ff ff";
inline const char* const kPeerA = "198.51.100.7";
inline const char* const kPeerB = "198.51.100.8";

inline std::string ipv4Text(in_addr address) {
    char text[INET_ADDRSTRLEN];
    return inet_ntop(AF_INET, &address, text, sizeof text);
}

// A frame as a tap read leaves it: in a read slot, behind the headroom
// encapsulation writes into, _cap at the slot's end.
struct ReadSlot {
    explicit ReadSlot(const Bytes& frame) : storage(vif::TAP::kBufferSize, 0xee) {
        std::copy(frame.begin(), frame.end(), storage.begin() + vif::TAP::kHeadroom);
        pdu._buf = storage.data();
        pdu._cap = static_cast<uint16_t>(storage.size());
        pdu._begin = vif::TAP::kHeadroom;
        pdu._end = static_cast<uint16_t>(vif::TAP::kHeadroom + frame.size());
    }

    Bytes storage;
    pdu::PDU pdu;
};

class EgressRig {
  public:
    EgressRig() : tap("tap20"), socket("eth0", "192.0.2.1") {
        context.logger = &log.logger;
        context.config = &config;
        context.tables = &tables;
        context.interfaces = &interfaces;
        context.parents = &parents;
        config.vlans.set(20);
        batch = std::make_unique<EgressBatch>();
    }

    // Learns client (MAC in hex) behind the IPv4 peer on VLAN vlan, as a
    // frame with the given tag (0: untagged) and key (null: none) teaches it.
    void learnClient(const char* client, const char* peer, uint16_t vlan, uint16_t tag = 0,
                     const uint32_t* key = nullptr) {
        const Bytes mac = hexBytes(client);
        Sighting s;
        s.family = AF_INET;
        s.ipv4 = ipv4Of(peer);
        s.endpoint = &socket;
        s.policyVlan = vlan;
        s.tagVlan = tag;
        s.hasKey = key != nullptr;
        s.key = key != nullptr ? *key : 0;
        s.mac = mac.data();
        s.frameLength = 60;
        learn(tables, &log.logger, s);
        log.clear();
    }

    // Hands frame to the egress path from the tap serving device_vlan (0:
    // a trunk carrying tagged frames), then flushes as the loop does after
    // the batch, thrown or not.
    void run(const Bytes& frame, uint16_t device_vlan = 20) {
        slots.emplace_back(frame);
        try {
            handleTapFrame(context, tap, device_vlan, slots.back().pdu, *batch);
        } catch (...) {
            batch->sends.flush();
            throw;
        }
        batch->sends.flush();
    }

    // The int the frame throws; a test failure when it throws nothing.
    int thrown(const Bytes& frame, uint16_t device_vlan = 20) {
        try {
            run(frame, device_vlan);
        } catch (int error) {
            return error;
        }
        ADD_FAILURE() << "threw nothing for " << hexText(frame);
        return -1;
    }

    // Every datagram sent, as "address: hex" in the order sent.
    std::vector<std::string> sent() const {
        std::vector<std::string> out;
        for (size_t i = 0; i < socket.count(); ++i)
            out.push_back(ipv4Text(socket.at(i).ipv4) + ": " + hexText(socket.bytes(i)));
        return out;
    }

    Traffic trafficOf(const char* client, uint16_t vlan) {
        ClientRecord* record = tables.findClient(hexBytes(client).data(), vlan);
        EXPECT_NE(record, nullptr);
        return record != nullptr ? record->readTraffic() : Traffic{};
    }

    MemoryLog log{Notice};
    Config config;
    Tables tables;
    std::map<std::string, MacAddress> interfaces;
    std::map<std::string, std::string> parents;
    TunnelContext context;
    RecordingTap tap;
    RecordingGreSocket socket;
    std::unique_ptr<EgressBatch> batch;
    std::deque<ReadSlot> slots;
};

// The datagram a frame becomes: the GRE header in hex, then the frame.
inline std::string datagram(const char* gre, const Bytes& frame) {
    return hexText(join({hexBytes(gre), frame}));
}

}  // namespace lumora::test
