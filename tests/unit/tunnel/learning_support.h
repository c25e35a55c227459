// Helpers shared by the table and learning tests: addresses from text, a
// sighting builder and a logger whose lines can be read back.
#pragma once

#include <arpa/inet.h>
#include <sys/socket.h>

#include <array>
#include <cstdio>
#include <ostream>
#include <stdexcept>
#include <string>
#include <vector>

#include "app/Logger.h"
#include "tunnel/Learning.h"

namespace lumora {

// Readable (VLAN, key) pairs in failure messages.
inline void PrintTo(const VlanKey& pair, std::ostream* os) {
    *os << "(" << pair.vlan << ", " << pair.key << ")";
}

}  // namespace lumora

namespace lumora::test {

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

using Mac = std::array<uint8_t, 6>;

inline Mac mac(uint8_t last) { return {0x00, 0x11, 0x22, 0x33, 0x44, last}; }

// A packet from IPv4 source address on policy VLAN vlan, untagged, no key.
inline Sighting fromV4(const char* address, uint16_t vlan, const Mac& source) {
    Sighting s;
    s.family = AF_INET;
    s.ipv4 = v4(address);
    s.policyVlan = vlan;
    s.mac = source.data();
    s.frameLength = 60;
    return s;
}

inline Sighting fromV6(const char* address, uint16_t vlan, const Mac& source) {
    Sighting s;
    s.family = AF_INET6;
    s.ipv6 = v6(address);
    s.policyVlan = vlan;
    s.mac = source.data();
    s.frameLength = 60;
    return s;
}

// A Notice-level logger writing to a temporary file; lines() returns what it
// wrote with the 16-character "HH:MM:SS.uuuuuu " timestamps removed.
class LogCapture {
  public:
    LogCapture() {
        logger.stream = std::tmpfile();
        if (logger.stream == nullptr) throw std::runtime_error("tmpfile");
        logger.level = Notice;
    }
    ~LogCapture() { std::fclose(logger.stream); }
    LogCapture(const LogCapture&) = delete;
    LogCapture& operator=(const LogCapture&) = delete;

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
        // Later lines append at the end again.
        std::fseek(logger.stream, 0, SEEK_END);
        return out;
    }

    // Lines written since the previous call.
    std::vector<std::string> newLines() {
        auto all = lines();
        std::vector<std::string> fresh(all.begin() + static_cast<long>(seen), all.end());
        seen = all.size();
        return fresh;
    }

    Logger logger;

  private:
    size_t seen = 0;
};

}  // namespace lumora::test
