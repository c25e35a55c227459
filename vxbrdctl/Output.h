// What vxbrdctl makes of the reports: aligned tables for people, JSON for
// programs, and the metrics exposition for monitoring.
#pragma once

#include <string>
#include <vector>

#include "vxbrdctl/Report.h"

namespace lumora::ctl {

// The version of the JSON layout. It changes only when a field is removed or
// changes meaning; consumers should check it.
inline constexpr const char* kJsonSchema = "vxbrdctl/1";

// Tables: a header line, then one line per record in the daemon's order;
// columns two blanks apart, numbers right-aligned, "-" where a client lacks
// a field.
std::string peersTable(const std::vector<Peer>& peers);
std::string clientsTable(const std::vector<Client>& clients);

// One JSON object on one line:
//   {"schema":"vxbrdctl/1","peers":[{"peer":"192.0.2.2","vlan":20}]}
//   {"schema":"vxbrdctl/1","clients":[{"client":"02:00:00:00:00:01","peer":"192.0.2.2",
//     "associated_vlan":20,"gre_key":7,"mapped_vlan":null,"bytes_in":60,"bytes_out":0,
//     "packets_in":1,"packets_out":0}]}
// Every key is always present; null stands for a line the daemon left out
// (and for the peer "unknown").
std::string peersJson(const std::vector<Peer>& peers);
std::string clientsJson(const std::vector<Client>& clients);

// Prometheus text exposition (format 0.0.4): the peer and client counts as
// gauges, each client's byte and packet counters in both directions as
// counters labelled mac, peer and vlan (the served VLAN).
std::string metrics(const std::vector<Peer>& peers, const std::vector<Client>& clients);

}  // namespace lumora::ctl
