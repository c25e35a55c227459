// Decoded and hex dumps of frames, written straight to a stdio stream (the
// logger's) at the Info and Debug levels. No lock is taken here; the tunnel
// threads dump under the logger's mutex (tunnel/FrameDump.h).
//
// Each decoded dump prints its layer's line indented by depth spaces, then
// makes the view of the layer inside and dumps it at depth + 1, following the
// same walk as Views.h. A layer that does not fit its view throws int 22 out
// of the dump, after the lines of the outer layers have been written; nothing
// else throws. The ARP sender lines read past the ARP view's fixed 8 bytes,
// bounded by the buffer (_cap) rather than the frame (_end).
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdio>

#include "pdu/Views.h"

namespace lumora::pdu {

void dump(EthernetPDU eth, FILE* out, int depth);
void dump(VlanPDU tag, FILE* out, int depth);
void dump(QinQPDU tag, FILE* out, int depth);
void dump(ArpPDU arp, FILE* out, int depth);
void dump(IPv4PDU ip, FILE* out, int depth);
void dump(IPv6PDU ip, FILE* out, int depth);
void dump(GrePDU gre, FILE* out, int depth);
void dump(TcpPDU tcp, FILE* out, int depth);
void dump(UdpPDU udp, FILE* out, int depth);
void dump(Icmpv4PDU icmp, FILE* out, int depth);
void dump(Icmpv6PDU icmp, FILE* out, int depth);

}  // namespace lumora::pdu
