// The GRE datagrams one loop has made from a batch and not yet handed over.
// A datagram whose bytes stay put until the loop flushes (a frame
// encapsulated in its own read slot) is queued; one whose bytes are about to
// be reused (a fragment the next one overwrites, a flood copy) goes at once,
// behind everything queued before it, so each endpoint sends in the order
// the datagrams were made. The loop flushes once per batch; a full queue
// flushes itself.
//
// A queued datagram whose last bytes are about to be overwritten (the next
// TCP segment of a split super-frame takes them for its headers) keeps a
// copy of those bytes as its tail (release).
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
    // Every queued datagram with bytes in [from, to) keeps what it has
    // there as a tail of its own, so that the caller may overwrite the
    // range. A datagram may hold bytes in the range only at its end, and at
    // most kTailRoom of them.
    void release(const uint8_t* from, const uint8_t* to);

    // The most bytes release takes from one datagram.
    static constexpr unsigned kTailRoom = 160;

    unsigned size() const { return count; }

  private:
    vif::GreSocket* endpoints[kCapacity] = {};
    vif::Datagram datagrams[kCapacity];
    unsigned count = 0;
    uint8_t tails[kCapacity][kTailRoom];
};

}  // namespace lumora
