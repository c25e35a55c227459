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
// a field. VLAN is the served VLAN everywhere; a client's TAG (the report's
// "associated vlan") and MAPPED VLAN have columns of their own.
std::string peersTable(const std::vector<Peer>& peers);
std::string clientsTable(const std::vector<Client>& clients);

// One JSON object on one line:
//   {"schema":"vxbrdctl/1","peers":[{"peer":"192.0.2.2","vlan":20}]}
//   {"schema":"vxbrdctl/1","clients":[{"client":"02:00:00:00:00:01","peer":"192.0.2.2",
//     "vlan":20,"associated_vlan":20,"gre_key":7,"mapped_vlan":null,"bytes_in":60,
//     "bytes_out":0,"packets_in":1,"packets_out":0}]}
// "vlan" is the served VLAN, as in the peers' objects and the metrics.
// Every key is always present; null stands for a line the daemon left out
// (and for the peer "unknown").
std::string peersJson(const std::vector<Peer>& peers);
std::string clientsJson(const std::vector<Client>& clients);

struct MetricsOptions {
    bool per_client = false;  // one series per client as well (-C)
    std::string version;      // of vxbrd_build_info
};

// Prometheus text exposition (format 0.0.4): vxbrd_up 1 and the build; the
// peer and client counts; per peer (address and VLAN) its clients and their
// traffic; per VLAN its peers, clients and their traffic; with per_client,
// each client's counters labelled mac, peer and vlan. "vlan" is always the
// served VLAN, the one whose tap carries the client's frames.
std::string metrics(const std::vector<Peer>& peers, const std::vector<Client>& clients,
                    const MetricsOptions& options);

// The exposition when the daemon does not answer: the reason as a comment,
// vxbrd_up 0 and the build, so that a scrape sees a down daemon rather than
// the last numbers it gave.
std::string metricsDown(const std::string& reason, const MetricsOptions& options);

}  // namespace lumora::ctl
