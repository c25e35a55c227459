// The configuration file parser, and what it shares with the command line:
// both the "server" keyword and -s read a server address with the same rules
// and the same messages.
#pragma once

#include <netinet/in.h>

#include <cstdint>
#include <map>
#include <regex>
#include <string>
#include <vector>

#include "core/Config.h"

namespace lumora {

// Parses path into cfg and parent_interfaces, checking interface names
// against system_interfaces. Diagnostics go straight to stderr; a fatal one
// throws int (errno of a failed open, else 22).
void parse_config(Config& cfg, const char* path);

// What start-up does not need but an operator checking a file does: which
// line each setting came from and what the reader passed over. The daemon
// parses without it; vxbrdctl check asks for it.
struct ConfigNotes {
    struct Words {
        int line = 0;
        std::vector<std::string> words;
    };
    struct Tap {
        int line = 0;
        std::string vid;  // as written
    };
    struct DroppedForward {
        int line = 0;
        std::string vlan;  // the digits after "vlan"
        std::string address;
    };
    std::vector<Tap> taps;                         // one per element of Config::interfaces
    std::map<uint16_t, int> forward_lines;         // VLAN -> the forward line in effect
    std::vector<DroppedForward> dropped_forwards;  // IPv6 upstream lines, read and dropped
    int gre_key_line = 0;                          // the "grekey" line in effect, 0 for none
    std::string gre_key_text;                      // its key as written ("require" only)
    std::vector<Words> ignored_words;              // words beyond what a line's keyword reads
    std::vector<int> continued_lines;              // pieces of lines longer than 255 bytes
};

// parse_config that also fills notes (when not null). Same diagnostics,
// same result, same exceptions.
void parse_config(Config& cfg, const char* path, ConfigNotes* notes);

// Whole-string matchers shared by the parser and the -s option.
const std::regex& ipv4Pattern();
const std::regex& ipv6Pattern();
const std::regex& greKeyPattern();
const std::regex& forwardVidPattern();

// Reads text as an IPv4 address (family 1 into ipv4) or an IPv6 address
// (family 2 into ipv6), choosing by the shared whole-string patterns. On a
// bad address prints "<text>: invalid IPv4 address\n" (or "IPv6", or "IPv4 or
// IPv6") on stderr, leaves the outputs untouched and returns false.
bool parseServerAddress(const char* text, in_addr& ipv4, in6_addr& ipv6, uint8_t& family);

}  // namespace lumora
