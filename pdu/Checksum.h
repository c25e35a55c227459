// Internet checksums the daemon computes itself.
#pragma once

#include "pdu/IPv4.h"

namespace lumora::pdu {

// Fills in the header checksum of a header whose checksum field is zero (the
// host left it to us); a non-zero field is left as it is, right or wrong.
void ipv4HeaderChecksum(IPv4PDU ip);

}  // namespace lumora::pdu
