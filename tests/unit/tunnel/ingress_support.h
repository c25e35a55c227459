// The ingress tests' rig: one TunnelContext wired to a fresh Tables, a test
// Config, recording taps and GRE sockets and a memory logger; and builders for
// the GRE datagrams the access points send.
#pragma once

#include <gtest/gtest.h>

#include <deque>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "recording_support.h"
#include "tunnel/Context.h"
#include "tunnel/Ingress.h"

namespace lumora::test {

// Addresses of the rig: the access point's client and the host behind the tap.
inline const char* const kClientMac = "02 00 5e 00 00 0a";
inline const char* const kClientMacText = "02:00:5e:00:00:0a";
inline const char* const kHostMac = "02 00 5e 00 00 01";
inline const char* const kAccessPoint = "198.51.100.7";
inline const char* const kReceiverName = "eth0 (ip://192.0.2.1)";
// An ethertype the daemon never looks into, and a payload to go with it.
inline const char* const kOpaque = "88 b5  de ad be ef 00 01 02 03 04 05";

// GRE header: flags byte, protocol, then the optional words in wire order.
inline Bytes greHeader(uint8_t first, const char* protocol = "65 58", const char* words = "") {
    return join({Bytes{first, 0x00}, hexBytes(protocol), hexBytes(words)});
}

// Keyed GRE header (K bit) with key 30 unless told otherwise.
inline Bytes keyedGre(uint32_t key = 30, uint8_t extra_flags = 0) {
    Bytes header = greHeader(static_cast<uint8_t>(0x20 | extra_flags), "65 58", "00 00 00 00");
    pdu::store32(header.data() + 4, key);
    return header;
}

inline Bytes plainGre(uint8_t extra_flags = 0) { return greHeader(extra_flags); }

// An Ethernet frame from MAC texts and the rest in hex.
inline Bytes ethernet(const char* destination, const char* source, const char* rest = kOpaque) {
    return join({hexBytes(destination), hexBytes(source), hexBytes(rest)});
}

// host <- client frame, untagged, with an opaque payload.
inline Bytes untaggedFrame(const char* rest = kOpaque, const char* destination = kHostMac) {
    return join({hexBytes(destination), hexBytes(kClientMac), hexBytes(rest)});
}

// The same frame with an 802.1Q tag of the given TCI in front of rest.
inline Bytes taggedFrame(uint16_t tci, const char* rest = kOpaque,
                         const char* destination = kHostMac) {
    Bytes tag = hexBytes("81 00 00 00");
    pdu::store16(tag.data() + 2, tci);
    return join({hexBytes(destination), hexBytes(kClientMac), tag, hexBytes(rest)});
}

// A datagram as the IPv4 GRE endpoint hands it over: the outer IPv4 header
// (20 bytes) in front, the view starting at the GRE header, _cap at its end.
struct Received {
    explicit Received(const Bytes& datagram, uint16_t offset = 20)
        : storage(join({Bytes(offset, 0x45), datagram})) {
        pdu._buf = storage.data();
        pdu._cap = static_cast<uint16_t>(storage.size());
        pdu._begin = offset;
        pdu._end = pdu._cap;
    }
    // The datagram's bytes as they are now (the path edits them in place).
    Bytes now() const { return Bytes(storage.begin() + pdu._begin, storage.end()); }

    Bytes storage;
    pdu::PDU pdu;
};

class IngressRig {
  public:
    IngressRig() : receiver("eth0", "192.0.2.1"), forward("any", "0.0.0.0") {
        context.logger = &log.logger;
        context.config = &config;
        context.tables = &tables;
        context.interfaces = &interfaces;
        context.parents = &parents;
    }

    // A tap serving vid, named tapN unless named otherwise.
    RecordingTap& addTap(uint16_t vid, std::string name = "") {
        if (name.empty()) name = "tap" + std::to_string(vid);
        taps.push_back(std::make_unique<RecordingTap>(name));
        context.taps_by_vid[vid].store(taps.back().get());
        return *taps.back();
    }

    // Forwards VLAN vid to the upstream gateway at address.
    void forwardVlan(uint16_t vid, const char* address) {
        config.forward_vlans.set(vid);
        config.vlans.set(vid);
        config.forward_servers[vid] = ForwardServer{ipv4Of(address)};
    }

    void useForwardSocket() { context.forward_socket.store(&forward); }

    GreSource fromV4(const char* address = kAccessPoint) {
        GreSource s;
        s.endpoint = &receiver;
        s.family = AF_INET;
        s.ipv4 = ipv4Of(address);
        return s;
    }
    GreSource fromV6(const char* address) {
        GreSource s;
        s.endpoint = &receiver;
        s.family = AF_INET6;
        s.ipv6 = ipv6Of(address);
        return s;
    }

    // Runs one datagram (from the access point unless told otherwise) through
    // the ingress path as a batch of one, flushed as the loop flushes every
    // batch, thrown or not, and keeps its buffer for inspection in last().
    void run(const Bytes& datagram, const GreSource& source) {
        received.emplace_back(datagram);
        try {
            handleGreDatagram(context, source, received.back().pdu, batch);
        } catch (...) {
            batch.flush();
            throw;
        }
        batch.flush();
    }
    void run(const Bytes& datagram) { run(datagram, fromV4()); }
    const Received& last() const { return received.back(); }

    // Runs the datagram and returns the int it throws; a test failure when
    // it throws nothing or something else.
    int thrown(const Bytes& datagram) {
        try {
            run(datagram);
        } catch (int error) {
            return error;
        } catch (...) {
            ADD_FAILURE() << "threw something other than an int";
            return -1;
        }
        ADD_FAILURE() << "threw nothing for " << hexText(datagram);
        return -1;
    }

    // Frames written to every tap that got any, by tap name, as hex text.
    std::map<std::string, std::vector<std::string>> tapWrites() const {
        std::map<std::string, std::vector<std::string>> out;
        for (const auto& tap : taps)
            for (const Bytes& frame : tap->written()) out[tap->name()].push_back(hexText(frame));
        return out;
    }

    MemoryLog log;
    Config config;
    Tables tables;
    std::map<std::string, MacAddress> interfaces;
    std::map<std::string, std::string> parents;
    TunnelContext context;
    RecordingGreSocket receiver;
    RecordingGreSocket forward;
    IngressBatch batch;
    std::vector<std::unique_ptr<RecordingTap>> taps;
    std::deque<Received> received;
};

using WrittenFrames = std::map<std::string, std::vector<std::string>>;

// The two lines learning logs for the rig's client seen first from the
// access point; tail is what the device line adds (", grekey: 30, ...").
inline std::vector<std::string> learnedLines(int vlan, const std::string& tail,
                                             const char* peer = kAccessPoint, int total = 1) {
    return {"[peers] new peer: " + std::string(peer) + ", vlan: " + std::to_string(vlan) +
                ", interface: eth0[192.0.2.1] (total: " + std::to_string(total) + ")",
            "[cache] new device: " + std::string(kClientMacText) + ", peer: " + peer + tail};
}

}  // namespace lumora::test
