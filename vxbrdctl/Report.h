// The daemon's control-socket reports, read back into records. The daemon
// prints them for people; vxbrdctl turns them into tables, JSON and metrics,
// so the reading is strict: anything the daemon would never print is refused
// with the line number, rather than guessed at.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

namespace lumora::ctl {

// One line of the peers report: "peer: ADDRESS, vlan: VLAN".
struct Peer {
    std::string address;  // the daemon's text form (inet_ntop), IPv4 or IPv6
    uint16_t vlan = 0;

    bool operator==(const Peer&) const = default;
};

// One block of the clients report. Optional fields are the lines the daemon
// prints only when they apply.
struct Client {
    std::string mac;                     // "client: " line, as printed
    std::optional<std::string> peer;     // "  peer: "; empty when reported "unknown"
    std::optional<uint16_t> vlan;        // "  associated vlan: " (the 802.1Q tag)
    std::optional<uint32_t> greKey;      // "  gre key: "
    std::optional<uint16_t> mappedVlan;  // "  mapped vlan: " (the key/VLAN policy's choice)
    uint64_t bytesIn = 0;                // from the tunnel, i.e. sent by the client
    uint64_t bytesOut = 0;               // towards the client
    uint64_t packetsIn = 0;
    uint64_t packetsOut = 0;

    // The VLAN whose tap serves the client: the mapped VLAN when there is
    // one, else the tag's VLAN, else 0 (untagged).
    uint16_t servedVlan() const;

    bool operator==(const Client&) const = default;
};

// A reply that is not a well-formed report. line() is 1-based; the message
// already names it.
class ReportError : public std::runtime_error {
  public:
    ReportError(size_t line, const std::string& message);
    size_t line() const { return line_; }

  private:
    size_t line_;
};

// Both throw ReportError. An empty reply is an empty table.
std::vector<Peer> parsePeers(std::string_view reply);
std::vector<Client> parseClients(std::string_view reply);

// True for the daemon's answer to a request it does not know
// ("Unknown Request: '...").
bool isUnknownRequestReply(std::string_view reply);

}  // namespace lumora::ctl
