// Endpoints that stand in for the daemon's tap devices and GRE sockets in
// tests of the tunnel paths, and a logger whose lines can be read back.
//
// RecordingTap and RecordingGreSocket keep a copy of everything written or
// sent to them. Their storage is reserved when they are made, so recording
// allocates nothing while it stays within the capacity given: a test can
// prove a path allocation-free with recorders in place. Beyond the capacity
// they throw std::length_error (never an int, so a full recorder cannot pass
// for a packet error).
//
// Free of GoogleTest, so the fuzz targets can use it as well.
#pragma once

#include <arpa/inet.h>
#include <sys/socket.h>

#include <cctype>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <initializer_list>
#include <stdexcept>
#include <string>
#include <vector>

#include "app/Logger.h"
#include "pdu/PDU.h"
#include "vif/VIF"

namespace lumora::test {

using Bytes = std::vector<uint8_t>;

// "45 00 05 94 ..." -> bytes; blanks and line breaks are ignored.
inline Bytes hexBytes(const char* text) {
    Bytes out;
    int high = -1;
    for (const char* p = text; *p != '\0'; ++p) {
        const auto c = static_cast<unsigned char>(*p);
        if (std::isspace(c)) continue;
        if (!std::isxdigit(c)) throw std::invalid_argument(text);
        const int nibble = std::isdigit(c) ? c - '0' : std::tolower(c) - 'a' + 10;
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

// Bytes as "45 00 05 94", so that failure messages show where frames differ.
inline std::string hexText(const Bytes& bytes) {
    std::string out;
    char byte[4];
    for (size_t i = 0; i < bytes.size(); ++i) {
        std::snprintf(byte, sizeof byte, i == 0 ? "%02x" : " %02x", bytes[i]);
        out += byte;
    }
    return out;
}

inline Bytes join(std::initializer_list<Bytes> parts) {
    Bytes out;
    for (const Bytes& part : parts) out.insert(out.end(), part.begin(), part.end());
    return out;
}

inline in_addr ipv4Of(const char* text) {
    in_addr a{};
    if (inet_pton(AF_INET, text, &a) != 1) throw std::invalid_argument(text);
    return a;
}

inline in6_addr ipv6Of(const char* text) {
    in6_addr a{};
    if (inet_pton(AF_INET6, text, &a) != 1) throw std::invalid_argument(text);
    return a;
}

// Byte storage for recorders: units appended into one reserved arena.
class UnitLog {
  public:
    UnitLog(size_t slots, size_t bytes) : slot_limit(slots), byte_limit(bytes) {
        spans.reserve(slots);
        arena.reserve(bytes);
    }

    // Returns the new unit's index.
    size_t add(const uint8_t* data, size_t length) {
        if (spans.size() == slot_limit || arena.size() + length > byte_limit)
            throw std::length_error("recorder is full");
        spans.push_back(Span{arena.size(), length});
        arena.insert(arena.end(), data, data + length);
        return spans.size() - 1;
    }
    size_t count() const { return spans.size(); }
    Bytes unit(size_t i) const {
        const Span& s = spans.at(i);
        return Bytes(arena.begin() + static_cast<long>(s.offset),
                     arena.begin() + static_cast<long>(s.offset + s.length));
    }
    void clear() {
        spans.clear();
        arena.clear();
    }

  private:
    struct Span {
        size_t offset;
        size_t length;
    };
    size_t slot_limit;
    size_t byte_limit;
    std::vector<Span> spans;
    Bytes arena;
};

// A tap device as the GRE ingress path sees it: writes are recorded, and
// there is never anything to read.
class RecordingTap : public Endpoint {
  public:
    explicit RecordingTap(std::string name, size_t slots = 64, size_t bytes = 1 << 18)
        : name_text(std::move(name)), frames(slots, bytes) {}

    const char* name() const override { return name_text.c_str(); }
    void setMtu(long mtu) override { mtu_value = mtu; }
    long mtu() const override { return mtu_value; }
    pdu::PDU read() override { throw ReadError{}; }
    IReadWriter& write(pdu::PDU p) override {
        frames.add(p.data(), p.length());
        return *this;
    }

    size_t count() const { return frames.count(); }
    Bytes frame(size_t i) const { return frames.unit(i); }
    // Every frame written so far, in order.
    std::vector<Bytes> written() const {
        std::vector<Bytes> out;
        for (size_t i = 0; i < frames.count(); ++i) out.push_back(frames.unit(i));
        return out;
    }
    void clear() { frames.clear(); }

  private:
    std::string name_text;
    long mtu_value = 1500;
    UnitLog frames;
};

// A GRE socket endpoint that records every addressed send. Its identity
// (name, interface, family, own address) is what the log lines print.
class RecordingGreSocket : public vif::GreSocket {
  public:
    struct Sent {
        uint32_t family;
        in_addr ipv4;
        in6_addr ipv6;
        Bytes bytes;
    };

    // An IPv4 endpoint named like the daemon names its sockets.
    RecordingGreSocket(std::string interface, const char* local_ipv4, size_t slots = 64,
                       size_t bytes = 1 << 18)
        : interface_name(std::move(interface)),
          name_text(interface_name + " (ip://" + local_ipv4 + ")"),
          own_family(AF_INET),
          own_ipv4(ipv4Of(local_ipv4)),
          datagrams(slots, bytes) {
        sends.reserve(slots);
    }

    // An IPv6 endpoint.
    static RecordingGreSocket ipv6(std::string interface, const char* local_ipv6, size_t slots = 64,
                                   size_t bytes = 1 << 18) {
        RecordingGreSocket socket(std::move(interface), "0.0.0.0", slots, bytes);
        socket.own_family = AF_INET6;
        socket.own_ipv4 = in_addr{};
        socket.own_ipv6 = ipv6Of(local_ipv6);
        socket.name_text = socket.interface_name + " (ip://" + local_ipv6 + ")";
        return socket;
    }

    const char* name() const override { return name_text.c_str(); }
    long mtu() const override { return mtu_value; }
    void sendTo(pdu::PDU p, uint32_t family, in_addr ipv4, const in6_addr& ipv6) override {
        datagrams.add(p.data(), p.length());
        sends.push_back(Address{family, ipv4, ipv6});
    }
    const std::string& interfaceName() const override { return interface_name; }
    uint32_t family() const override { return own_family; }
    in_addr localIPv4() const override { return own_ipv4; }
    const in6_addr& localIPv6() const override { return own_ipv6; }

    void setMtuValue(long mtu) { mtu_value = mtu; }
    size_t count() const { return datagrams.count(); }
    Sent sent(size_t i) const {
        const Address& a = sends.at(i);
        return Sent{a.family, a.ipv4, a.ipv6, datagrams.unit(i)};
    }
    void clear() {
        datagrams.clear();
        sends.clear();
    }

  private:
    struct Address {
        uint32_t family;
        in_addr ipv4;
        in6_addr ipv6;
    };
    std::string interface_name;
    std::string name_text;
    uint32_t own_family;
    in_addr own_ipv4{};
    in6_addr own_ipv6{};
    long mtu_value = 1480;
    UnitLog datagrams;
    std::vector<Address> sends;
};

// A Debug-level logger writing into memory (open_memstream). lines() gives
// what it wrote, each line without its "HH:MM:SS.uuuuuu " timestamp.
class MemoryLog {
  public:
    MemoryLog() {
        logger.stream = open_memstream(&text, &size);
        if (logger.stream == nullptr) throw std::runtime_error("open_memstream");
        logger.level = Debug;
    }
    ~MemoryLog() {
        std::fclose(logger.stream);
        std::free(text);
    }
    MemoryLog(const MemoryLog&) = delete;
    MemoryLog& operator=(const MemoryLog&) = delete;

    std::vector<std::string> lines() {
        std::fflush(logger.stream);
        std::vector<std::string> out;
        size_t start = 0;
        for (size_t i = 0; i < size; ++i) {
            if (text[i] != '\n') continue;
            std::string line(text + start, i - start);
            const bool stamped = line.size() >= 16 && line[2] == ':' && line[5] == ':' &&
                                 line[8] == '.' && line[15] == ' ';
            out.push_back(stamped ? line.substr(16) : "<no timestamp: " + line + ">");
            start = i + 1;
        }
        return out;
    }

    // Lines written since the previous call of taken().
    std::vector<std::string> taken() {
        std::vector<std::string> all = lines();
        std::vector<std::string> fresh(all.begin() + static_cast<long>(seen), all.end());
        seen = all.size();
        return fresh;
    }

    Logger logger;

  private:
    char* text = nullptr;
    size_t size = 0;
    size_t seen = 0;
};

}  // namespace lumora::test
