// Every header view of a frame, for code that walks more than one layer.
//
// Walking from the Ethernet layer: Ethernet -> by ethertype -> 802.1Q/802.1ad
// tag (which may stack) or ARP or IPv4 or IPv6 -> by protocol -> TCP, UDP,
// ICMP, GRE or an inner IPv4 -> inside GRE carrying 0x6558, Ethernet again.
// Each step makes the next view at the current view's innerBegin(), e.g.
//     auto eth = EthernetPDU::at(frame, frame._begin);
//     auto ip = IPv4PDU::at(eth, eth.innerBegin());
//     auto tcp = TcpPDU::at(ip, ip.innerBegin());
// and every factory throws int 22 when the layer does not fit.
#pragma once

#include "pdu/Arp.h"
#include "pdu/Ethernet.h"
#include "pdu/GRE.h"
#include "pdu/IPv4.h"
#include "pdu/IPv6.h"
#include "pdu/PDU.h"
#include "pdu/Transport.h"
