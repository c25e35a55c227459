// Frame builders shared by the benchmark's traffic tool and relays: fixed,
// well-formed frames built once before a run, never per packet.
#pragma once

#include <arpa/inet.h>

#include <cstdint>
#include <cstdio>
#include <cstring>
#include <stdexcept>
#include <string>
#include <vector>

namespace bench {

using Bytes = std::vector<uint8_t>;

inline void put16(uint8_t* at, uint16_t value) {
    at[0] = static_cast<uint8_t>(value >> 8);
    at[1] = static_cast<uint8_t>(value);
}

inline void put32(uint8_t* at, uint32_t value) {
    put16(at, static_cast<uint16_t>(value >> 16));
    put16(at + 2, static_cast<uint16_t>(value));
}

inline uint16_t ipChecksum(const uint8_t* header, size_t length) {
    uint32_t sum = 0;
    for (size_t i = 0; i + 1 < length; i += 2)
        sum += static_cast<uint32_t>(header[i] << 8 | header[i + 1]);
    while (sum >> 16) sum = (sum & 0xFFFF) + (sum >> 16);
    return static_cast<uint16_t>(~sum);
}

inline Bytes parseMac(const std::string& text) {
    Bytes out(6);
    unsigned v[6];
    if (std::sscanf(text.c_str(), "%x:%x:%x:%x:%x:%x", &v[0], &v[1], &v[2], &v[3], &v[4], &v[5]) !=
        6)
        throw std::runtime_error("bad MAC " + text);
    for (int i = 0; i < 6; ++i) out[i] = static_cast<uint8_t>(v[i]);
    return out;
}

inline in_addr parseIPv4(const std::string& text) {
    in_addr out{};
    if (inet_pton(AF_INET, text.c_str(), &out) != 1) throw std::runtime_error("bad IPv4 " + text);
    return out;
}

// An IPv4 header (20 bytes, DF, TTL 64) with its checksum, for `payload` bytes.
inline Bytes ipv4Header(in_addr source, in_addr destination, uint8_t protocol, size_t payload) {
    Bytes h(20, 0);
    h[0] = 0x45;
    put16(&h[2], static_cast<uint16_t>(20 + payload));
    put16(&h[4], 0x1234);
    put16(&h[6], 0x4000);
    h[8] = 64;
    h[9] = protocol;
    std::memcpy(&h[12], &source, 4);
    std::memcpy(&h[16], &destination, 4);
    put16(&h[10], ipChecksum(h.data(), h.size()));
    return h;
}

// An Ethernet frame of exactly `size` bytes (at least 42) carrying IPv4/UDP
// from 198.51.100.2 to 198.51.100.1, untagged, with a fixed pattern payload.
inline Bytes innerFrame(const Bytes& destination, const Bytes& source, size_t size) {
    if (size < 42) throw std::runtime_error("inner frames need at least 42 bytes");
    Bytes f;
    f.insert(f.end(), destination.begin(), destination.end());
    f.insert(f.end(), source.begin(), source.end());
    f.push_back(0x08);
    f.push_back(0x00);
    const size_t udp_length = size - 14 - 20;
    const Bytes ip =
        ipv4Header(parseIPv4("198.51.100.2"), parseIPv4("198.51.100.1"), 17, udp_length);
    f.insert(f.end(), ip.begin(), ip.end());
    Bytes udp(udp_length, 0);
    put16(&udp[0], 40000);
    put16(&udp[2], 9);  // discard
    put16(&udp[4], static_cast<uint16_t>(udp_length));
    for (size_t i = 8; i < udp_length; ++i) udp[i] = static_cast<uint8_t>(i);
    f.insert(f.end(), udp.begin(), udp.end());
    return f;
}

// Inserts an 802.1Q tag with `vlan` behind the MAC addresses.
inline Bytes tagged(const Bytes& frame, uint16_t vlan) {
    Bytes out(frame.begin(), frame.begin() + 12);
    out.push_back(0x81);
    out.push_back(0x00);
    out.push_back(static_cast<uint8_t>(vlan >> 8));
    out.push_back(static_cast<uint8_t>(vlan));
    out.insert(out.end(), frame.begin() + 12, frame.end());
    return out;
}

// A GRE header for transparent Ethernet bridging, with the key when keyed.
inline Bytes greHeader(bool keyed, uint32_t key) {
    Bytes g = {static_cast<uint8_t>(keyed ? 0x20 : 0x00), 0x00, 0x65, 0x58};
    if (keyed) {
        g.resize(8);
        put32(&g[4], key);
    }
    return g;
}

}  // namespace bench
