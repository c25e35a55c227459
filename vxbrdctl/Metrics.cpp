#include <cstdint>

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

struct Series {
    std::string labels;  // {mac="...",peer="...",vlan="..."}
    uint64_t values[4];  // receive bytes, transmit bytes, receive packets, transmit packets
};

// One series per label set. The daemon keys clients by MAC and served VLAN,
// so two clients share a label set only when one VLAN was reached both
// through the policy and without it; their counters are added, which keeps
// every series a proper counter.
std::vector<Series> seriesOf(const std::vector<Client>& clients) {
    std::vector<Series> all;
    for (const Client& client : clients) {
        const std::string labels = "{mac=\"" + labelValue(client.mac) + "\",peer=\"" +
                                   labelValue(client.peer.value_or("unknown")) + "\",vlan=\"" +
                                   std::to_string(client.servedVlan()) + "\"}";
        const uint64_t values[4] = {client.bytesIn, client.bytesOut, client.packetsIn,
                                    client.packetsOut};
        Series* same = nullptr;
        for (Series& series : all)
            if (series.labels == labels) same = &series;
        if (same == nullptr) {
            all.push_back({labels, {values[0], values[1], values[2], values[3]}});
        } else {
            for (int i = 0; i < 4; ++i) same->values[i] += values[i];
        }
    }
    return all;
}

void family(std::string& out, const char* name, const char* type, const char* help) {
    out += "# HELP ";
    out += name;
    out += ' ';
    out += help;
    out += "\n# TYPE ";
    out += name;
    out += ' ';
    out += type;
    out += '\n';
}

}  // namespace

std::string metrics(const std::vector<Peer>& peers, const std::vector<Client>& clients) {
    std::string out;
    family(out, "vxbrd_peers", "gauge", "Tunnel peers (access point address and VLAN) known.");
    out += "vxbrd_peers " + std::to_string(peers.size()) + '\n';
    family(out, "vxbrd_clients", "gauge", "Client devices (MAC address and VLAN) known.");
    out += "vxbrd_clients " + std::to_string(clients.size()) + '\n';

    static const struct {
        const char* name;
        const char* help;
    } counters[4] = {
        {"vxbrd_client_receive_bytes_total",
         "Bytes of frames received from the tunnel for the client (bytes in)."},
        {"vxbrd_client_transmit_bytes_total",
         "Bytes of frames sent towards the client (bytes out)."},
        {"vxbrd_client_receive_packets_total",
         "Frames received from the tunnel for the client (packets in)."},
        {"vxbrd_client_transmit_packets_total", "Frames sent towards the client (packets out)."},
    };
    const std::vector<Series> all = seriesOf(clients);
    for (int i = 0; i < 4; ++i) {
        family(out, counters[i].name, "counter", counters[i].help);
        for (const Series& series : all)
            out += counters[i].name + series.labels + ' ' + std::to_string(series.values[i]) + '\n';
    }
    return out;
}

}  // namespace lumora::ctl
