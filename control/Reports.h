// The control socket's replies: the peers report, the clients report and the
// reply to anything else. Built from snapshots of the tables, so no table
// lock is held while a reply is formatted or sent.
#pragma once

#include <string>
#include <string_view>

#include "tunnel/Tables.h"

namespace lumora {

// One line per peer: "peer: ADDRESS, vlan: VLAN\n". Empty for no peers.
std::string peersReport(Tables& tables);
// Per client: its MAC, its peer ("unknown" without one), the VLAN, key and
// mapped VLAN lines where they apply, then the byte and packet counters.
std::string clientsReport(Tables& tables);
// The answer to one request (the bytes of one recv, newlines still in).
// "peers" and "clients" are matched without regard to case.
std::string replyTo(Tables& tables, std::string_view request);

}  // namespace lumora
