// The frames one GRE ingress loop writes to its taps for a batch of
// received datagrams, kept where they lie (in the GRE endpoint's receive
// slots) until the loop flushes, once per batch: then each run of frames
// for one tap goes in one batched write. A frame whose destination MAC was
// rewritten for the write (IPv6 multicast) gets its own bytes back after the
// flush. A full queue flushes itself.
#pragma once

#include <cstdint>

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

    unsigned size() const { return count; }

  private:
    struct Restore {
        uint8_t* destination;
        uint8_t original[6];
    };

    Endpoint* taps[kCapacity] = {};
    pdu::PDU frames[kCapacity];
    unsigned count = 0;
    Restore restores[kCapacity] = {};
    unsigned restore_count = 0;
};

}  // namespace lumora
