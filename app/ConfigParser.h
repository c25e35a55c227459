// The configuration file parser, and what it shares with the command line:
// both the "server" keyword and -s read a server address with the same rules
// and the same messages.
#pragma once

#include <netinet/in.h>

#include <cstdint>
#include <regex>

#include "core/Config.h"

namespace lumora {

// Parses path into cfg and parent_interfaces, checking interface names
// against system_interfaces. Diagnostics go straight to stderr; a fatal one
// throws int (errno of a failed open, else 22).
void parse_config(Config& cfg, const char* path);

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
