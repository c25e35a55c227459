#include "tunnel/TapWrites.h"

#include <cstring>
#include <span>

namespace lumora {

void TapWrites::add(Endpoint* tap, pdu::PDU frame) {
    closeRun();
    if (count == kCapacity || piece_count == kCapacity) flush();
    pieces[piece_count] = frame;
    taps[count] = tap;
    frames[count] = TapFrame{pieces + piece_count, 1, pdu::Offload{}};
    ++piece_count;
    ++count;
}

void TapWrites::closeRun() {
    if (!run_open) return;
    run_open = false;
    if (run.count() > 1) frames[count - 1].offload = run.finish();
}

void TapWrites::queue(Endpoint* tap, pdu::PDU frame) {
    pdu::TcpSegment segment;
    if (!tap->offloads() || !pdu::readTcpSegment(frame, segment)) {
        add(tap, frame);
        return;
    }
    if (run_open && taps[count - 1] == tap && piece_count < kCapacity && run.append(segment)) {
        // Payload only: the run's first segment carries the headers.
        pdu::PDU payload = frame;
        payload._begin = static_cast<uint16_t>(frame._begin + segment.payload);
        pieces[piece_count++] = payload;
        ++frames[count - 1].piece_count;
        return;
    }
    add(tap, frame);
    run.start(segment);
    run_open = true;
}

void TapWrites::queueRewritten(Endpoint* tap, pdu::PDU frame, const uint8_t* original) {
    add(tap, frame);
    Restore& restore = restores[restore_count++];
    restore.destination = frame.data();
    std::memcpy(restore.original, original, sizeof restore.original);
}

void TapWrites::flush() {
    closeRun();
    for (unsigned next = 0; next < count;) {
        unsigned same = 1;
        while (next + same < count && taps[next + same] == taps[next]) ++same;
        taps[next]->writeFrames(std::span<const TapFrame>(frames + next, same));
        next += same;
    }
    count = 0;
    piece_count = 0;
    for (unsigned i = 0; i < restore_count; ++i)
        std::memcpy(restores[i].destination, restores[i].original, sizeof restores[i].original);
    restore_count = 0;
}

}  // namespace lumora
