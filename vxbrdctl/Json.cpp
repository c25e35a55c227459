#include <cstdio>

#include "vxbrdctl/Output.h"

namespace lumora::ctl {

namespace {

// Addresses and MACs never need escaping, but a string is a string.
std::string string(std::string_view text) {
    std::string out = "\"";
    for (const char c : text) {
        const auto byte = static_cast<unsigned char>(c);
        if (c == '"' || c == '\\') {
            out += '\\';
            out += c;
        } else if (byte < 0x20) {
            char escape[8];
            std::snprintf(escape, sizeof escape, "\\u%04x", byte);
            out += escape;
        } else {
            out += c;
        }
    }
    return out + "\"";
}

template <typename T>
std::string orNull(const std::optional<T>& value) {
    return value ? std::to_string(*value) : "null";
}

std::string document(const char* list, const std::vector<std::string>& objects) {
    std::string out = "{\"schema\":" + string(kJsonSchema) + ",\"" + list + "\":[";
    for (size_t i = 0; i < objects.size(); ++i) {
        if (i > 0) out += ',';
        out += objects[i];
    }
    return out + "]}\n";
}

}  // namespace

std::string peersJson(const std::vector<Peer>& peers) {
    std::vector<std::string> objects;
    for (const Peer& peer : peers)
        objects.push_back("{\"peer\":" + string(peer.address) +
                          ",\"vlan\":" + std::to_string(peer.vlan) + "}");
    return document("peers", objects);
}

std::string clientsJson(const std::vector<Client>& clients) {
    std::vector<std::string> objects;
    for (const Client& client : clients) {
        objects.push_back("{\"client\":" + string(client.mac) +
                          ",\"peer\":" + (client.peer ? string(*client.peer) : "null") +
                          ",\"vlan\":" + std::to_string(client.servedVlan()) +
                          ",\"associated_vlan\":" + orNull(client.vlan) + ",\"gre_key\":" +
                          orNull(client.greKey) + ",\"mapped_vlan\":" + orNull(client.mappedVlan) +
                          ",\"bytes_in\":" + std::to_string(client.bytesIn) +
                          ",\"bytes_out\":" + std::to_string(client.bytesOut) +
                          ",\"packets_in\":" + std::to_string(client.packetsIn) +
                          ",\"packets_out\":" + std::to_string(client.packetsOut) + "}");
    }
    return document("clients", objects);
}

}  // namespace lumora::ctl
