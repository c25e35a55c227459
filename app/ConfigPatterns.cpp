// The whole-string patterns that the configuration parser and the -s option
// share.
#include <string>

#include "app/ConfigParser.h"

namespace lumora {

namespace {

// One IPv6 hexadecimal group, and the dotted quad that may end an address.
const std::string kGroup = "[0-9A-Fa-f]{1,4}";
const std::string kDottedQuad =
    "(([0-9]|[1-9][0-9]|1[0-9][0-9]|2[0-4][0-9]|25[0-5])\\.){3}"
    "([0-9]|[1-9][0-9]|1[0-9][0-9]|2[0-4][0-9]|25[0-5])";

// n repetitions of "group:" (n may be 0).
std::string groups(int n) {
    return n == 0 ? std::string() : "(" + kGroup + ":){" + std::to_string(n) + "}";
}

// Up to n groups joined by ':' (possibly none): the side of a "::" shorthand.
std::string optionalGroups(int n) {
    if (n == 0) return std::string();
    return "(" + kGroup + "(:" + kGroup + "){0," + std::to_string(n - 1) + "})?";
}

// The textual forms of an IPv6 address: eight groups, every placement of the
// "::" shorthand, each also ending in a dotted quad in place of the last two
// groups, and an optional zone suffix ("fe80::1%em0") as operators copy it
// from ifconfig. Such a zone is matched here but refused by inet_pton later.
std::string ipv6Expression() {
    const std::string tail32 = "(" + kGroup + ":" + kGroup + "|" + kDottedQuad + ")";
    std::string forms = groups(6) + tail32;
    // k groups after the "::" (before the last 32 bits) and at most 5 - k in front.
    for (int k = 5; k >= 0; --k) {
        forms += "|" + optionalGroups(5 - k) + "::" + groups(k) + tail32;
    }
    // "::" closing the last 32 bits or the last 16: a single group, or nothing.
    forms += "|" + optionalGroups(6) + "::" + kGroup;
    forms += "|" + optionalGroups(7) + "::";
    return "(" + forms + ")(%[0-9A-Za-z._~-]+)?";
}

// Built once at static initialisation and only read afterwards, so sharing
// them between the parser and the command line needs no lock.
const std::regex ipv4_pattern(kDottedQuad);
const std::regex ipv6_pattern(ipv6Expression());
const std::regex gre_key_pattern("^[0-9]+$");
const std::regex forward_vid_pattern("^[0-9]{1,4}$");

}  // namespace

const std::regex& ipv4Pattern() { return ipv4_pattern; }
const std::regex& ipv6Pattern() { return ipv6_pattern; }
const std::regex& greKeyPattern() { return gre_key_pattern; }
const std::regex& forwardVidPattern() { return forward_vid_pattern; }

}  // namespace lumora
