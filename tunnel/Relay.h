// Gateway-to-gateway relay replies: frames an upstream gateway sends back
// (recursion control 6) for the access points behind this one.
#pragma once

#include "pdu/PDU.h"
#include "tunnel/Context.h"
#include "tunnel/Ingress.h"

namespace lumora {

// Sends the inner frame (in the endpoint's buffer) on to the access point of
// its destination client, or, for a group destination, to every access point
// of its VLAN except the one it came from. Throws int for frames that cannot
// be built; logs and drops frames with no known destination.
void relayToAccessPoint(TunnelContext& context, const GreSource& source, pdu::PDU frame,
                        IngressBatch& batch);

}  // namespace lumora
