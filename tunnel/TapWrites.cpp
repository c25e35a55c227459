#include "tunnel/TapWrites.h"

#include <cstring>
#include <span>

#include "pdu/Ethernet.h"
#include "pdu/Segmentation.h"

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
        if (pdu::readHostMergedSegment(frame, segment)) {
            queueHostMerged(tap, segment);
            return;
        }
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

// The host cuts (or this does, for a tap without offloads) at the largest
// segment the tap's MTU carries behind these headers: the sizes the wire
// had are not known, and a segment no larger than the MTU can go on from
// the tap wherever the host sends it.
void TapWrites::queueHostMerged(Endpoint* tap, const pdu::TcpSegment& merged) {
    const long headers = merged.payload - pdu::EthernetPDU::kHeaderLength;
    const long room = tap->mtu() - headers;
    const auto segment_size = static_cast<uint16_t>(room > 0 && room <= 0xffff ? room : 0);
    const pdu::Offload offload = pdu::hostMergedOffload(merged, segment_size);
    if (tap->offloads()) {
        add(tap, merged.frame);
        frames[count - 1].offload = offload;
        return;
    }
    // A tap without offloads takes finished frames only, so the frame is
    // finished here. One that needs no cutting is queued like any other;
    // the segments of one that does are written one by one as they are
    // built (building one writes its headers over the end of the one
    // before), behind everything queued before them.
    if (!offload.segmented()) {
        pdu::completePartialChecksum(merged.frame, offload);
        add(tap, merged.frame);
        return;
    }
    flush();
    pdu::Segmenter segments(merged.frame, offload);
    for (unsigned i = 0; i < segments.count(); ++i) tap->write(segments.build(i));
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
