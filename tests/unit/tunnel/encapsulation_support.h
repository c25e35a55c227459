// Helpers for the encapsulation tests: frames from readable hex, a frame
// buffer with headroom like a tap read's, a GRE socket that records every
// datagram it is asked to send, a logger whose lines can be read back, and an
// independent one's-complement checksum to compare the fragment headers with.
#pragma once

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <sys/socket.h>

#include <cctype>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <stdexcept>
#include <string>
#include <vector>

#include "app/Logger.h"
#include "pdu/PDU.h"
#include "tunnel/Encapsulation.h"
#include "vif/VIF"

namespace lumora::test::encap {

using Bytes = std::vector<uint8_t>;

// "45 00 05 94 ..." -> bytes; spaces and line breaks are ignored.
inline Bytes hex(const char* text) {
    Bytes out;
    int high = -1;
    for (const char* p = text; *p != '\0'; ++p) {
        if (std::isspace(static_cast<unsigned char>(*p))) continue;
        if (!std::isxdigit(static_cast<unsigned char>(*p))) throw std::invalid_argument(text);
        const int nibble = std::isdigit(static_cast<unsigned char>(*p))
                               ? *p - '0'
                               : std::tolower(static_cast<unsigned char>(*p)) - 'a' + 10;
        if (high < 0) {
            high = nibble;
        } else {
            out.push_back(static_cast<uint8_t>(high << 4 | nibble));
            high = -1;
        }
    }
    if (high >= 0) throw std::invalid_argument(text);
    return out;
}

// Bytes as "45 00 05 94": failure messages show where two frames differ.
inline std::string hexOf(const uint8_t* p, size_t n) {
    std::string out;
    char byte[4];
    for (size_t i = 0; i < n; ++i) {
        std::snprintf(byte, sizeof byte, i == 0 ? "%02x" : " %02x", p[i]);
        out += byte;
    }
    return out;
}
inline std::string hexOf(const Bytes& b) { return hexOf(b.data(), b.size()); }

inline Bytes concat(std::initializer_list<Bytes> parts) {
    Bytes out;
    for (const Bytes& part : parts) out.insert(out.end(), part.begin(), part.end());
    return out;
}

inline Bytes slice(const Bytes& b, size_t from, size_t count) {
    if (from + count > b.size()) throw std::out_of_range("slice");
    return Bytes(b.begin() + static_cast<long>(from), b.begin() + static_cast<long>(from + count));
}

// A payload whose bytes differ from their neighbours at every 8-byte step,
// so a fragment cut or placed at the wrong offset cannot go unnoticed.
inline Bytes pattern(size_t n) {
    Bytes out(n);
    for (size_t i = 0; i < n; ++i) out[i] = static_cast<uint8_t>((i * 7 + i / 251) & 0xff);
    return out;
}

inline void put16(Bytes& b, size_t at, uint16_t v) { pdu::store16(b.data() + at, v); }

// Documentation addresses and locally administered MACs used throughout.
inline const char* const kEthernetIPv4 = "02 00 5e 00 00 02  02 00 5e 00 00 01  08 00";
inline const char* const kMacs = "02 00 5e 00 00 02  02 00 5e 00 00 01";

// Ethernet + IPv4 (UDP, 192.0.2.1 -> 198.51.100.2) of the given total length.
// The header checksum is a deliberate 0xbeef, so a recomputed one shows; DF
// is set, so a fragment that kept it would show too. flags_offset replaces the
// flags/offset word.
inline Bytes ipv4Frame(uint16_t packet_length, uint16_t flags_offset = 0x4000) {
    Bytes header = hex("45 00 00 00 1c 46 00 00 40 11 be ef c0 00 02 01 c6 33 64 02");
    put16(header, 2, packet_length);
    put16(header, 6, flags_offset);
    return concat({hex(kEthernetIPv4), header, pattern(packet_length - 20u)});
}

// One's-complement sum folded until it fits (the textbook header checksum).
inline uint16_t referenceChecksum(const uint8_t* header, size_t length, size_t skip_word) {
    uint64_t sum = 0;
    for (size_t word = 0; word < length / 2; ++word) {
        if (word == skip_word) continue;
        sum += static_cast<uint16_t>(header[2 * word] << 8 | header[2 * word + 1]);
    }
    while (sum > 0xffff) sum = (sum & 0xffff) + (sum >> 16);
    return static_cast<uint16_t>(~sum & 0xffff);
}

// A 4096-byte buffer like a tap endpoint's, the frame copied in at `headroom`.
// cap_after_frame shrinks _cap to end that many bytes past the frame.
struct FrameBuffer {
    explicit FrameBuffer(const Bytes& frame, uint16_t headroom = 64, long cap_after_frame = -1)
        : storage(4096, 0xee) {
        if (!frame.empty()) std::memcpy(storage.data() + headroom, frame.data(), frame.size());
        pdu._buf = storage.data();
        pdu._begin = headroom;
        pdu._end = static_cast<uint16_t>(headroom + frame.size());
        pdu._cap = cap_after_frame < 0 ? static_cast<uint16_t>(storage.size())
                                       : static_cast<uint16_t>(pdu._end + cap_after_frame);
    }
    Bytes storage;
    pdu::PDU pdu;
};

inline Bytes bytesOf(pdu::PDU p) { return Bytes(p.data(), p.data() + p.length()); }

// Records every datagram handed to it: its bytes, family and both addresses.
// Storage is reserved up front, so recording itself allocates nothing while
// fewer than kSlots datagrams and kArena bytes in total have been recorded.
class RecordingGreSocket : public vif::GreSocket {
  public:
    static constexpr size_t kSlots = 64;
    static constexpr size_t kArena = 1 << 18;

    struct Datagram {
        size_t offset;
        size_t length;
        uint32_t family;
        in_addr ipv4;
        in6_addr ipv6;
    };

    explicit RecordingGreSocket(long mtu_value = 1480,
                                const char* name_text = "eth1 (ip://192.0.2.1)")
        : mtu_value(mtu_value), name_text(name_text), interface_name("eth1") {
        records.reserve(kSlots);
        arena.reserve(kArena);
    }

    const char* name() const override { return name_text.c_str(); }
    long mtu() const override { return mtu_value; }
    void sendTo(pdu::PDU p, uint32_t family, in_addr ipv4, const in6_addr& ipv6) override {
        if (records.size() == kSlots || arena.size() + p.length() > kArena)
            throw std::length_error("RecordingGreSocket is full");
        records.push_back(Datagram{arena.size(), p.length(), family, ipv4, ipv6});
        arena.insert(arena.end(), p.data(), p.data() + p.length());
    }
    const std::string& interfaceName() const override { return interface_name; }
    uint32_t family() const override { return AF_INET; }
    in_addr localIPv4() const override { return in_addr{}; }
    const in6_addr& localIPv6() const override { return local_ipv6; }

    size_t count() const { return records.size(); }
    const Datagram& at(size_t i) const { return records.at(i); }
    Bytes bytes(size_t i) const {
        const Datagram& d = records.at(i);
        return Bytes(arena.begin() + static_cast<long>(d.offset),
                     arena.begin() + static_cast<long>(d.offset + d.length));
    }
    void clear() {
        records.clear();
        arena.clear();
    }

  private:
    long mtu_value;
    std::string name_text;
    std::string interface_name;
    in6_addr local_ipv6{};
    std::vector<Datagram> records;
    Bytes arena;
};

// A logger writing to a temporary file at Debug level; lines() returns what
// it wrote with the "HH:MM:SS.uuuuuu " timestamp removed.
class LogLines {
  public:
    LogLines() {
        logger.stream = std::tmpfile();
        if (logger.stream == nullptr) throw std::runtime_error("tmpfile");
        logger.level = Debug;
    }
    ~LogLines() { std::fclose(logger.stream); }
    LogLines(const LogLines&) = delete;
    LogLines& operator=(const LogLines&) = delete;

    std::vector<std::string> lines() {
        std::fflush(logger.stream);
        std::rewind(logger.stream);
        std::vector<std::string> out;
        char buffer[512];
        while (std::fgets(buffer, sizeof buffer, logger.stream) != nullptr) {
            std::string line(buffer);
            if (!line.empty() && line.back() == '\n') line.pop_back();
            const bool stamped = line.size() >= 16 && line[2] == ':' && line[5] == ':' &&
                                 line[8] == '.' && line[15] == ' ';
            out.push_back(stamped ? line.substr(16) : "<no timestamp: " + line + ">");
        }
        std::fseek(logger.stream, 0, SEEK_END);
        return out;
    }

    Logger logger;
};

inline in_addr v4(const char* text) {
    in_addr a{};
    if (inet_pton(AF_INET, text, &a) != 1) throw std::invalid_argument(text);
    return a;
}

inline in6_addr v6(const char* text) {
    in6_addr a{};
    if (inet_pton(AF_INET6, text, &a) != 1) throw std::invalid_argument(text);
    return a;
}

// An IPv4 peer on the given VLAN behind the recording socket.
inline Destination peerV4(RecordingGreSocket& socket, uint16_t vlan,
                          const char* address = "203.0.113.9") {
    Destination d;
    d.vlan = vlan;
    d.family = AF_INET;
    d.ipv4 = v4(address);
    d.endpoint = &socket;
    return d;
}

// Runs f and returns the int it throws; fails the test when nothing or
// something else is thrown.
template <typename F>
int thrownInt(F&& f) {
    try {
        f();
    } catch (int e) {
        return e;
    } catch (...) {
        ADD_FAILURE() << "threw something other than int";
        return -1;
    }
    ADD_FAILURE() << "threw nothing";
    return -1;
}

}  // namespace lumora::test::encap
