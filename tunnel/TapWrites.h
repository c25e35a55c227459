// The frames one GRE ingress loop writes to its taps for a batch of
// received datagrams, kept where they lie (in the GRE endpoint's receive
// slots) until the loop flushes, once per batch: then each run of frames
// for one tap goes in one batched write. A frame whose destination MAC was
// rewritten for the write (IPv6 multicast) gets its own bytes back after the
// flush. A full queue flushes itself.
//
// For a tap with offloads, consecutive TCP segments of one flow that the
// host would merge itself (pdu/Coalescing.h) become one frame: the first
// segment's headers are rewritten for the whole run at the flush, the later
// segments are written from where they lie, payload only. Nothing is
// copied, and every datagram has had its own decisions, counters and log
// lines before it got here.
//
// A datagram the receiving interface already merged from several (the
// host's receive offload hands a raw socket one datagram for a run of one
// flow's TCP segments, its checksum left partial) is written with its
// checksum and cutting left to the host, or cut and finished here for a
// tap without offloads; written as it came, the host would drop it.
#pragma once

#include <cstdint>

#include "pdu/Coalescing.h"
#include "pdu/PDU.h"
#include "vif/VIF"

namespace lumora {

class TapWrites {
  public:
    static constexpr unsigned kCapacity = 32;

    // Keeps frame for tap until flush(); the caller leaves its bytes alone.
    void queue(Endpoint* tap, pdu::PDU frame);
    // The same for a frame whose destination MAC the caller has just
    // replaced: original (6 bytes) goes back over it after the write.
    void queueRewritten(Endpoint* tap, pdu::PDU frame, const uint8_t* original);
    // Writes what is queued, in order, then restores the rewritten frames.
    void flush();

    // Frames queued (a merged run counts once).
    unsigned size() const { return count; }

  private:
    struct Restore {
        uint8_t* destination;
        uint8_t original[6];
    };

    // Starts a frame of one piece; full queues are flushed first.
    void add(Endpoint* tap, pdu::PDU frame);
    // A TCP frame the receiving interface merged from several datagrams
    // (pdu::readHostMergedSegment): for a tap with offloads it is queued
    // with its checksum and cutting left to the host; for one without, it
    // is finished and queued, or, when it must be cut, what is queued is
    // written first and its segments then go out at once.
    void queueHostMerged(Endpoint* tap, const pdu::TcpSegment& merged);
    // Ends the run the last frame is, rewriting its headers if it merged.
    void closeRun();

    Endpoint* taps[kCapacity] = {};
    TapFrame frames[kCapacity];
    unsigned count = 0;
    pdu::PDU pieces[kCapacity];
    unsigned piece_count = 0;
    // The TCP run the last frame is, while later segments may join it.
    pdu::TcpRun run;
    bool run_open = false;
    Restore restores[kCapacity] = {};
    unsigned restore_count = 0;
};

}  // namespace lumora
