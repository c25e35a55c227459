#include "tunnel/SendQueue.h"

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
