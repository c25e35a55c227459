#include "control/Reports.h"

#include <regex>

#include "pdu/Ethernet.h"
#include "pdu/Text.h"

namespace lumora {

namespace {

const std::regex& peersRequest() {
    static const std::regex pattern("^peers$", std::regex::ECMAScript | std::regex::icase);
    return pattern;
}

const std::regex& clientsRequest() {
    static const std::regex pattern("^clients$", std::regex::ECMAScript | std::regex::icase);
    return pattern;
}

void appendClient(std::string& out, const ClientRecord& client) {
    // The MAC text is appended at once, before anything else is formatted.
    out += "client: ";
    out += pdu::packedMacToText(pdu::packMac(client.mac));
    out += "\n  peer: ";
    out += client.peerAddressText();
    out += '\n';
    if (client.hasVlan == 1) {
        out += "  associated vlan: ";
        out += std::to_string(static_cast<uint16_t>(client.vlan));
        out += '\n';
    }
    if (client.hasKey == 1) {
        out += "  gre key: ";
        out += std::to_string(client.greKey);
        out += '\n';
    }
    if (static_cast<uint16_t>(client.mappedVlan) != 0) {
        out += "  mapped vlan: ";
        out += std::to_string(static_cast<uint16_t>(client.mappedVlan));
        out += '\n';
    }
    const Traffic traffic = client.readTraffic();
    out += "  bytes in: " + std::to_string(traffic.bytesIn) +
           ", bytes out: " + std::to_string(traffic.bytesOut) + '\n';
    out += "  packets in: " + std::to_string(traffic.packetsIn) +
           ", packets out: " + std::to_string(traffic.packetsOut) + '\n';
}

}  // namespace

std::string peersReport(Tables& tables) {
    std::string out;
    for (const PeerFields& peer : tables.peers(kAllVlans)) {
        out += "peer: ";
        out += peer.address().text();
        out += ", vlan: ";
        out += std::to_string(peer.vlan);
        out += '\n';
    }
    return out;
}

std::string clientsReport(Tables& tables) {
    std::string out;
    for (const ClientRecord& client : tables.clients()) appendClient(out, client);
    return out;
}

std::string replyTo(Tables& tables, std::string_view request) {
    std::string text;
    text.reserve(request.size());
    for (char c : request)
        if (c != '\n') text += c;
    if (std::regex_search(text, peersRequest())) return peersReport(tables);
    if (std::regex_search(text, clientsRequest())) return clientsReport(tables);
    return "Unknown Request: '" + text + "'\nValid Requests: peers\n                clients\n";
}

}  // namespace lumora
