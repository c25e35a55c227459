#include "tunnel/SendQueue.h"

#include <cstring>
#include <span>

namespace lumora {

void SendQueue::queue(vif::GreSocket* endpoint, const vif::Datagram& d) {
    if (count == kCapacity) flush();
    endpoints[count] = endpoint;
    datagrams[count] = d;
    ++count;
}

void SendQueue::sendNow(vif::GreSocket* endpoint, const vif::Datagram& d) {
    flush();
    endpoint->sendTo(d.bytes, d.family, d.ipv4, d.ipv6);
}

void SendQueue::release(const uint8_t* from, const uint8_t* to) {
    for (unsigned i = 0; i < count; ++i) {
        vif::Datagram& d = datagrams[i];
        uint8_t* const begin = d.bytes.data();
        uint8_t* const end = begin + d.bytes.length();
        if (d.tail_length != 0 || end <= from || begin >= to) continue;
        uint8_t* const cut = begin < from ? const_cast<uint8_t*>(from) : begin;
        const auto moved = static_cast<uint16_t>(end - cut);
        // Cannot happen with headers no longer than a segment's: the rest
        // of the datagram is handed over before its bytes go.
        if (moved > kTailRoom) {
            flush();
            return;
        }
        std::memcpy(tails[i], cut, moved);
        d.bytes._end = static_cast<uint16_t>(d.bytes._end - moved);
        d.tail = tails[i];
        d.tail_length = moved;
    }
}

void SendQueue::flush() {
    for (unsigned next = 0; next < count;) {
        unsigned run = 1;
        while (next + run < count && endpoints[next + run] == endpoints[next]) ++run;
        endpoints[next]->sendBatch(std::span(datagrams + next, run));
        next += run;
    }
    count = 0;
}

}  // namespace lumora
