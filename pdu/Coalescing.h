// Merging consecutive TCP segments of one flow into one frame for a tap
// with offloads, as the host's own receive path merges them: the first
// segment's headers stand for the run, the later segments add only their
// payload, and the tap is told the segment size so that the host can cut
// the frame again wherever it must.
//
// Only segments the host would merge itself qualify: Ethernet, then IPv4
// without options and not a fragment, or the fixed IPv6 header, then TCP
// with ACK and nothing else but PSH, some payload, no padding behind it and
// a right checksum (a damaged segment reaches the host alone, to be dropped
// there). A run continues while the next segment has the same Ethernet
// header, addresses, ports, acknowledgement, TTL or hop limit, traffic
// class, DF bit or flow label, identical TCP options (timestamps included),
// the next sequence number, the next IPv4 ID, and a payload no longer than
// the first's; a shorter segment or one with PSH ends it.
#pragma once

#include <cstdint>

#include "pdu/Offload.h"
#include "pdu/PDU.h"

namespace lumora::pdu {

// What merging needs of one segment, read once.
struct TcpSegment {
    PDU frame;
    bool ipv6 = false;
    uint16_t transport = 0;  // TCP header, from the frame's first byte
    uint16_t payload = 0;    // payload, likewise
    uint16_t payload_length = 0;
    uint32_t sequence = 0;
    uint8_t flags = 0;
};

// True, with out filled, for a segment of the kind that may be merged.
bool readTcpSegment(PDU frame, TcpSegment& out);

// True, with out filled as readTcpSegment fills it, for a frame the host's
// own receive offload merged before the daemon saw it: the interface a GRE
// tunnel arrives on may merge consecutive datagrams of one inner TCP flow
// and hand the raw socket one datagram for them all, its inner checksum
// field holding only the pseudo-header sum over the merged length (as
// TcpRun::finish leaves it) and its flags those merging keeps: ACK, and
// PSH, FIN or ECE. A frame whose checksum is right is never one.
bool readHostMergedSegment(PDU frame, TcpSegment& out);

// What a tap with offloads must be told of such a frame: its checksum is to
// be completed and, when its payload is longer than segment_size (0: never
// cut), the host cuts it at segment_size wherever it must. The sizes the
// wire had are gone with the merge.
Offload hostMergedOffload(const TcpSegment& merged, uint16_t segment_size);

// A run of merged segments. The first segment's frame is edited by finish()
// only; the later ones are never touched.
class TcpRun {
  public:
    // The most payload a merged frame carries: its IP length must fit 16 bits.
    static constexpr uint32_t kMaxLength = 65535;

    void start(const TcpSegment& first);
    // True when next continues the run (it is then counted in).
    bool append(const TcpSegment& next);
    unsigned count() const { return segments; }
    // Rewrites the first segment's headers for the whole run: IPv4 total
    // length and header checksum or IPv6 payload length, PSH when the last
    // segment had it, and the TCP checksum field left holding the
    // pseudo-header sum, to be completed by whoever cuts the frame again.
    // Returns what the tap must be told. For runs of two or more.
    Offload finish();

  private:
    TcpSegment first;
    unsigned segments = 0;
    uint32_t total_payload = 0;
    bool closed = false;
    uint8_t last_flags = 0;
};

}  // namespace lumora::pdu
