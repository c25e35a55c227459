#include "tunnel/TapWrites.h"

#include <cstring>
#include <span>

namespace lumora {

void TapWrites::queue(Endpoint* tap, pdu::PDU frame) {
    if (count == kCapacity) flush();
    taps[count] = tap;
    frames[count] = frame;
    ++count;
}

void TapWrites::queueRewritten(Endpoint* tap, pdu::PDU frame, const uint8_t* original) {
    queue(tap, frame);
    Restore& restore = restores[restore_count++];
    restore.destination = frame.data();
    std::memcpy(restore.original, original, sizeof restore.original);
}

void TapWrites::flush() {
    for (unsigned next = 0; next < count;) {
        unsigned run = 1;
        while (next + run < count && taps[next + run] == taps[next]) ++run;
        taps[next]->writeBatch(std::span<const pdu::PDU>(frames + next, run));
        next += run;
    }
    count = 0;
    for (unsigned i = 0; i < restore_count; ++i)
        std::memcpy(restores[i].destination, restores[i].original, sizeof restores[i].original);
    restore_count = 0;
}

}  // namespace lumora
