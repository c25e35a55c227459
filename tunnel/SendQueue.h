// The GRE datagrams one loop has made from a batch and not yet handed over.
// A datagram whose bytes stay put until the loop flushes (a frame
// encapsulated in its own read slot) is queued; one whose bytes are about to
// be reused (a fragment the next one overwrites, a flood copy) goes at once,
// behind everything queued before it, so each endpoint sends in the order
// the datagrams were made. The loop flushes once per batch; a full queue
// flushes itself.
#pragma once

#include <cstdint>

#include "vif/VIF"

namespace lumora {

class SendQueue {
  public:
    static constexpr unsigned kCapacity = 32;

    // Keeps d until flush(); the caller leaves its bytes untouched till then.
    void queue(vif::GreSocket* endpoint, const vif::Datagram& d);
    // Sends what is queued, then d.
    void sendNow(vif::GreSocket* endpoint, const vif::Datagram& d);
    // Hands over what is queued, in order: each run of datagrams for one
    // endpoint in one batched send.
    void flush();

    unsigned size() const { return count; }

  private:
    vif::GreSocket* endpoints[kCapacity] = {};
    vif::Datagram datagrams[kCapacity];
    unsigned count = 0;
};

}  // namespace lumora
