// Test bench for the endpoints: real kernel objects in network namespaces
// that each test builds and removes itself.
//
//   netns <prefix>-hub                              netns <prefix>-ap
//   +------------------------------+                +-----------------------+
//   | vxh0 192.0.2.1/24            |  veth, mtu 1600 | vxa0 192.0.2.2/24     |
//   |      2001:db8::1/64          |<--------------->|      2001:db8::2/64   |
//   |      fe80::1/64              |                 |      fe80::2/64       |
//   | vxtap0 tap 00:00:5e:00:53:01 |                +-----------------------+
//   |        mtu 1400, no IPv6     |
//   | vxtun0 tun (not a tap)       |
//   +------------------------------+
//
// The endpoint under test lives in the hub; the ap namespace plays the access
// point with plain raw sockets. Namespaces are entered per thread (setns), and
// a socket stays in the namespace it was created in, so one test thread can
// drive both sides. <prefix> carries the pid; namespaces left behind by a
// crashed run are removed by the next one.
#pragma once

#include <gtest/gtest.h>
#include <netinet/in.h>

#include <cstdint>
#include <cstdio>
#include <string>
#include <vector>

#include "core/Descriptor.h"
#include "core/Logger.h"
#include "pdu/PDU.h"
#include "support/memory_log.h"

namespace vxbrd_test {

// A Logger at Debug level writing into memory; lines() returns what was
// logged since the last clear(), each without its 16-character timestamp.
class LogCapture {
  public:
    lumora::Logger* logger() { return &memory.logger; }
    std::vector<std::string> lines() { return memory.lines(); }
    void clear() { memory.clear(); }

  private:
    lumora::test::MemoryLog memory;
};

// Runs a shell command; returns its exit status and appends its output.
int run(const std::string& command, std::string* output = nullptr);

// Switches the calling thread into a named network namespace until destroyed.
class ScopedNetns {
  public:
    explicit ScopedNetns(const std::string& name);
    ~ScopedNetns();
    ScopedNetns(const ScopedNetns&) = delete;
    ScopedNetns& operator=(const ScopedNetns&) = delete;

  private:
    int saved = -1;
};

// Number of descriptors the process has open.
int openDescriptors();

// A frame in a buffer of its own, as the tap reads it: 64 bytes of headroom
// and 32 of tailroom around it, both filled with 0xEE so that a send of
// anything but _begin.._end shows. Byte i of the frame is first + i * step.
struct Frame {
    explicit Frame(size_t length, uint8_t first = 1, uint8_t step = 7);
    std::vector<uint8_t> payload() const;  // _begin.._end
    std::vector<uint8_t> storage;
    lumora::pdu::PDU pdu;
};

in_addr ipv4(const char* text);
in6_addr ipv6(const char* text);
std::string text(in_addr address);
std::string text(const in6_addr& address);

// Builds the topology above before each test and removes it after.
class VifNetTest : public ::testing::Test {
  protected:
    void SetUp() override;
    void TearDown() override;

    // A socket created inside the given namespace, with a 2 s receive time-out.
    lumora::Descriptor socketIn(const std::string& ns, int domain, int type, int protocol);
    // Interface index, flags and MTU as the namespace's kernel sees them.
    unsigned indexIn(const std::string& ns, const char* interface);
    int flagsIn(const std::string& ns, const char* interface);
    int mtuIn(const std::string& ns, const char* interface);
    // A packet socket in the hub that receives the frames of one ethertype
    // crossing the interface (both ways: check sll_pkttype).
    lumora::Descriptor packetReceiver(const char* interface, uint16_t ethertype);

    // Set by fixtures that send over the veth pair before SetUp runs.
    bool needs_link = false;
    std::string hub;
    std::string ap;
    LogCapture capture;
};

}  // namespace vxbrd_test
