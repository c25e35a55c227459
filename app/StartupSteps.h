// Small pieces of start-up that decide or format something without touching
// the system, kept apart so they can be checked on their own.
#pragma once

#include <netinet/in.h>

#include <cstddef>
#include <cstdint>
#include <string>

#include "core/Config.h"

namespace lumora {

// The keyword printed in "GRE Key Mode: %s". The lookup indexes the list of
// keywords by the mode's value, so VlanMap (4) prints "preferkey": kept as
// deployed log parsers know it. PreferKey and PreferVlan, whose values lie
// beyond the list, print their own keywords; other values print "unknown".
const char* greKeyModeKeyword(unsigned mode);

// Interfaces named "vlan..." carrying more than two IPv4 addresses are
// addressing hubs of the site, not tunnel endpoints: no GRE socket on them.
bool skipsVlanInterface(const std::string& name, std::size_t ipv4_count);

std::string addressText(in_addr address);
std::string addressText(const in6_addr& address);
std::string macText(const MacAddress& mac);

}  // namespace lumora
