// fragment_probe: pushes one Ethernet frame through the tunnel's send path
// (tag, GRE header, inner IPv4 fragmentation) over a real GRE socket endpoint,
// so that an end-to-end test can capture and check what goes on the wire.
//
//   fragment_probe LOCAL INTERFACE PEER VLAN KEY MTU FRAME-HEX
//
// LOCAL and PEER are both IPv4 or both IPv6 addresses; KEY is a decimal GRE
// key or "-" for none; MTU is the "mtu" setting (0: not set); FRAME-HEX is the
// frame as read from a tap device. The frame is placed behind 64 bytes of
// headroom in a 4096-byte buffer, as a tap read leaves it.
//
// Exit status: 0 when send() returned, 1 for bad arguments, 2 when send() or
// the endpoint threw an errno value (printed on standard error).
#include <arpa/inet.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "core/Logger.h"
#include "pdu/PDU.h"
#include "tunnel/Send.h"
#include "vif/IP"

namespace {

constexpr uint16_t kHeadroom = 64;
constexpr uint16_t kBufferSize = 4096;

int usage() {
    std::fprintf(stderr, "usage: fragment_probe LOCAL INTERFACE PEER VLAN KEY MTU FRAME-HEX\n");
    return 1;
}

bool parseHex(const char* text, std::vector<uint8_t>& out) {
    const size_t n = std::strlen(text);
    if (n % 2 != 0) return false;
    for (size_t i = 0; i < n; i += 2) {
        char byte[3] = {text[i], text[i + 1], '\0'};
        char* end = nullptr;
        const unsigned long value = std::strtoul(byte, &end, 16);
        if (end != byte + 2) return false;
        out.push_back(static_cast<uint8_t>(value));
    }
    return true;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 8) return usage();
    const std::string interface = argv[2];
    const long vlan = std::strtol(argv[4], nullptr, 10);
    const bool keyed = std::strcmp(argv[5], "-") != 0;
    const uint32_t key = keyed ? static_cast<uint32_t>(std::strtoul(argv[5], nullptr, 10)) : 0;
    const long mtu_setting = std::strtol(argv[6], nullptr, 10);
    std::vector<uint8_t> frame;
    if (!parseHex(argv[7], frame) || frame.size() > kBufferSize - kHeadroom) return usage();
    if (vlan < 0 || vlan > 0xffff || mtu_setting < 0 || mtu_setting > 0xffff) return usage();

    lumora::Logger logger;
    logger.stream = stderr;
    logger.level = lumora::Info;

    lumora::Destination destination;
    destination.vlan = static_cast<uint16_t>(vlan);
    std::unique_ptr<lumora::vif::IP> endpoint;
    try {
        in_addr local4{};
        in6_addr local6{};
        if (inet_pton(AF_INET, argv[1], &local4) == 1) {
            if (inet_pton(AF_INET, argv[3], &destination.ipv4) != 1) return usage();
            destination.family = AF_INET;
            endpoint = std::make_unique<lumora::vif::IP>(&logger, local4, interface);
        } else if (inet_pton(AF_INET6, argv[1], &local6) == 1) {
            if (inet_pton(AF_INET6, argv[3], &destination.ipv6) != 1) return usage();
            destination.family = AF_INET6;
            endpoint = std::make_unique<lumora::vif::IP>(&logger, local6, interface);
        } else {
            return usage();
        }
        destination.endpoint = endpoint.get();

        std::vector<uint8_t> buffer(kBufferSize, 0);
        std::memcpy(buffer.data() + kHeadroom, frame.data(), frame.size());
        lumora::pdu::PDU pdu;
        pdu._buf = buffer.data();
        pdu._cap = kBufferSize;
        pdu._begin = kHeadroom;
        pdu._end = static_cast<uint16_t>(kHeadroom + frame.size());
        lumora::SendQueue sends;
        lumora::send(logger, destination, pdu, keyed ? &key : nullptr,
                     static_cast<uint16_t>(mtu_setting), sends, true);
        sends.flush();
    } catch (int error) {
        std::fprintf(stderr, "fragment_probe: error %d (%s)\n", error, std::strerror(error));
        return 2;
    }
    return 0;
}
