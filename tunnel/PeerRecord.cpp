#include "tunnel/PeerRecord.h"

#include "pdu/Text.h"

namespace lumora {

const char* addressText(uint32_t family, const in_addr& ipv4, const in6_addr& ipv6) {
    return family == AF_INET ? pdu::addressToText(AF_INET, &ipv4)
                             : pdu::addressToText(AF_INET6, &ipv6);
}

void PeerRecord::list(ClientRecord* client, VlanKey pair) {
    // A walk over the clients would meet a new pair last: it joins the set
    // unless an equal pair is there. A pair listed before was met earlier,
    // and its fate was settled then.
    if (clients.append(client, pair)) vlanKeys.insert(pair);
}

void PeerRecord::unlist(ClientRecord* client) {
    if (clients.remove(client, vlanKeys)) clients.firstPairs(vlanKeys);
}

}  // namespace lumora
