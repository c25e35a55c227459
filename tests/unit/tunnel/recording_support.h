// Endpoints that stand in for the daemon's tap devices and GRE sockets in
// tests of the tunnel paths, with the hex, address and memory-log helpers
// those tests use alongside them.
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

#include <netinet/in.h>
#include <sys/socket.h>

#include <cstdint>
#include <stdexcept>
#include <string>
#include <vector>

#include "pdu/PDU.h"
#include "tests/unit/support/addresses.h"
#include "tests/unit/support/bytes.h"
#include "tests/unit/support/memory_log.h"
#include "vif/VIF"

namespace lumora::test {

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
    // Where a datagram was sent.
    struct Address {
        uint32_t family;
        in_addr ipv4;
        in6_addr ipv6;
    };
    // Where, and what.
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
    const Address& at(size_t i) const { return sends.at(i); }
    Bytes bytes(size_t i) const { return datagrams.unit(i); }
    Sent sent(size_t i) const {
        const Address& a = sends.at(i);
        return Sent{a.family, a.ipv4, a.ipv6, datagrams.unit(i)};
    }
    void clear() {
        datagrams.clear();
        sends.clear();
    }

  private:
    std::string interface_name;
    std::string name_text;
    uint32_t own_family;
    in_addr own_ipv4{};
    in6_addr own_ipv6{};
    long mtu_value = 1480;
    UnitLog datagrams;
    std::vector<Address> sends;
};

}  // namespace lumora::test
