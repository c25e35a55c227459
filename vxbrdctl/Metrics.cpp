#include <cstdint>
#include <map>

#include "vxbrdctl/Output.h"

namespace lumora::ctl {

namespace {

// Label values: backslash, double quote and newline escaped.
std::string labelValue(std::string_view text) {
    std::string out;
    for (const char c : text) {
        if (c == '\\' || c == '"') {
            out += '\\';
            out += c;
        } else if (c == '\n') {
            out += "\\n";
        } else {
            out += c;
        }
    }
    return out;
}

// Bytes and frames in both directions, in the order of kTraffic.
struct Traffic {
    uint64_t values[4] = {};

    void add(const Client& client) {
        values[0] += client.bytesIn;
        values[1] += client.bytesOut;
        values[2] += client.packetsIn;
        values[3] += client.packetsOut;
    }
};

struct Series {
    std::string labels;  // {name="value",...}
    uint64_t count = 0;  // clients (peers and VLANs), peers (VLANs)
    uint64_t peers = 0;
    Traffic traffic;
};

// Series in the order first seen, found by their label set.
class SeriesList {
  public:
    Series& at(const std::string& labels) {
        const auto [entry, added] = index_.emplace(labels, list_.size());
        if (added) {
            list_.emplace_back();
            list_.back().labels = labels;
        }
        return list_[entry->second];
    }
    const std::vector<Series>& all() const { return list_; }

  private:
    std::vector<Series> list_;
    std::map<std::string, size_t> index_;
};

std::string peerLabels(const std::string& peer, uint16_t vlan) {
    return "{peer=\"" + labelValue(peer) + "\",vlan=\"" + std::to_string(vlan) + "\"}";
}

std::string vlanLabels(uint16_t vlan) { return "{vlan=\"" + std::to_string(vlan) + "\"}"; }

void family(std::string& out, const std::string& name, const char* type, const std::string& help) {
    out += "# HELP " + name + ' ' + help + "\n# TYPE " + name + ' ' + type + '\n';
}

void gauge(std::string& out, const char* name, const char* help, uint64_t value) {
    family(out, name, "gauge", help);
    out += std::string(name) + ' ' + std::to_string(value) + '\n';
}

void upAndBuild(std::string& out, bool up, const std::string& version) {
    gauge(out, "vxbrd_up", "Whether vxbrd answered on its control socket (1) or not (0).", up);
    family(out, "vxbrd_build_info", "gauge", "The version of the vxbrd tools that wrote these.");
    out += "vxbrd_build_info{version=\"" + labelValue(version) + "\"} 1\n";
}

// The four traffic families named prefix + the direction and unit.
void traffic(std::string& out, const std::string& prefix, const char* type, const char* suffix,
             const char* whose, const std::vector<Series>& series) {
    static const struct {
        const char* name;
        const char* help;
    } kTraffic[4] = {
        {"receive_bytes", "Bytes of frames received from the tunnel for "},
        {"transmit_bytes", "Bytes of frames sent towards "},
        {"receive_packets", "Frames received from the tunnel for "},
        {"transmit_packets", "Frames sent towards "},
    };
    for (int i = 0; i < 4; ++i) {
        const std::string name = prefix + kTraffic[i].name + suffix;
        family(out, name, type, std::string(kTraffic[i].help) + whose);
        for (const Series& one : series)
            out += name + one.labels + ' ' + std::to_string(one.traffic.values[i]) + '\n';
    }
}

void perClient(std::string& out, const std::vector<Client>& clients) {
    // The daemon keys clients by MAC and served VLAN, so two clients share a
    // label set only when one VLAN was reached both through the key policy
    // and without it; adding them keeps every series a proper counter.
    SeriesList series;
    for (const Client& client : clients) {
        series
            .at("{mac=\"" + labelValue(client.mac) + "\",peer=\"" +
                labelValue(client.peer.value_or("unknown")) + "\",vlan=\"" +
                std::to_string(client.servedVlan()) + "\"}")
            .traffic.add(client);
    }
    traffic(out, "vxbrd_client_", "counter", "_total", "the client.", series.all());
}

}  // namespace

std::string metrics(const std::vector<Peer>& peers, const std::vector<Client>& clients,
                    const MetricsOptions& options) {
    std::string out;
    upAndBuild(out, true, options.version);
    gauge(out, "vxbrd_peers", "Tunnel peers (access point address and VLAN) known.", peers.size());
    gauge(out, "vxbrd_clients", "Client devices (MAC address and VLAN) known.", clients.size());

    // A peer is an access point on one VLAN; its clients are those it
    // currently serves on that VLAN.
    SeriesList by_peer;
    std::map<uint16_t, Series> by_vlan;
    for (const Peer& peer : peers) {
        by_peer.at(peerLabels(peer.address, peer.vlan));
        ++by_vlan[peer.vlan].peers;
    }
    for (const Client& client : clients) {
        const uint16_t vlan = client.servedVlan();
        if (client.peer) {
            Series& peer = by_peer.at(peerLabels(*client.peer, vlan));
            ++peer.count;
            peer.traffic.add(client);
        }
        Series& served = by_vlan[vlan];
        ++served.count;
        served.traffic.add(client);
    }
    family(out, "vxbrd_peer_clients", "gauge", "Clients the peer currently serves on its VLAN.");
    for (const Series& peer : by_peer.all())
        out += "vxbrd_peer_clients" + peer.labels + ' ' + std::to_string(peer.count) + '\n';
    // Gauges: a client that moves to another access point takes its
    // counters along, so a peer's sums can fall.
    traffic(out, "vxbrd_peer_", "gauge", "",
            "the peer's current clients (falls when a client moves to another peer).",
            by_peer.all());

    std::vector<Series> vlans;
    for (auto& [vlan, series] : by_vlan) {
        series.labels = vlanLabels(vlan);
        vlans.push_back(series);
    }
    family(out, "vxbrd_vlan_peers", "gauge", "Peers on the VLAN.");
    for (const Series& vlan : vlans)
        out += "vxbrd_vlan_peers" + vlan.labels + ' ' + std::to_string(vlan.peers) + '\n';
    family(out, "vxbrd_vlan_clients", "gauge", "Clients served on the VLAN.");
    for (const Series& vlan : vlans)
        out += "vxbrd_vlan_clients" + vlan.labels + ' ' + std::to_string(vlan.count) + '\n';
    // The daemon never forgets a client, so these only grow until it restarts.
    traffic(out, "vxbrd_vlan_", "counter", "_total", "the VLAN's clients.", vlans);

    if (options.per_client) perClient(out, clients);
    return out;
}

std::string metricsDown(const std::string& reason, const MetricsOptions& options) {
    std::string out = "# vxbrd did not answer: " + reason + '\n';
    upAndBuild(out, false, options.version);
    return out;
}

}  // namespace lumora::ctl
