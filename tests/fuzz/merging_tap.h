// A recording tap that may take merged TCP frames, for the ingress fuzzer.
// Every merged frame it is given is checked as the host will treat it: cut
// again at the segment size it was told, it must give back one segment per
// piece, each carrying that piece's payload behind the run's headers under a
// right TCP checksum. Anything else aborts.
#pragma once

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <span>
#include <string>

#include "pdu/Checksum.h"
#include "pdu/Offload.h"
#include "pdu/PDU.h"
#include "pdu/Segmentation.h"
#include "tests/unit/tunnel/recording_support.h"

namespace lumora::fuzz {

class MergingTap : public test::RecordingTap {
  public:
    MergingTap(std::string name, size_t slots, size_t bytes)
        : RecordingTap(std::move(name), slots, bytes), joined(new uint8_t[kJoinedSize]) {}

    bool offloads() const override { return merging; }
    void writeFrames(std::span<const TapFrame> frames) override {
        for (const TapFrame& frame : frames) {
            if (frame.piece_count == 1 && !frame.offload.segmented()) {
                write(frame.pieces[0]);
                continue;
            }
            if (!merging || frame.piece_count < 2) std::abort();
            checkMerged(frame);
        }
    }

    bool merging = false;

  private:
    static constexpr size_t kJoinedSize = 65535;
    static constexpr uint16_t kNetwork = 14;  // merged frames are never tagged

    void checkMerged(const TapFrame& frame) {
        size_t length = 0;
        for (unsigned i = 0; i < frame.piece_count; ++i) length += frame.pieces[i].length();
        // A merged IP packet fits 16 bits; behind its Ethernet header the
        // frame may not, and a view cannot hold it: only recorded whole.
        if (length > kJoinedSize) {
            if (length > kJoinedSize + kNetwork) std::abort();
            return;
        }
        size_t at = 0;
        for (unsigned i = 0; i < frame.piece_count; ++i) {
            std::memcpy(joined.get() + at, frame.pieces[i].data(), frame.pieces[i].length());
            at += frame.pieces[i].length();
        }
        const pdu::PDU whole{
            joined.get(), static_cast<uint16_t>(length), 0, static_cast<uint16_t>(length), {0, 0}};
        write(whole);

        try {
            pdu::Segmenter split(whole, frame.offload);
            if (split.count() != frame.piece_count) std::abort();
            const uint16_t headers = split.headerLength();
            for (unsigned i = 0; i < split.count(); ++i) {
                const pdu::PDU& piece = frame.pieces[i];
                const uint8_t* payload = piece.data() + (i == 0 ? headers : 0);
                const size_t payload_length = piece.length() - (i == 0 ? headers : 0);
                const pdu::PDU segment = split.build(i);
                if (segment.length() != headers + payload_length ||
                    std::memcmp(segment.data() + headers, payload, payload_length) != 0 ||
                    !tcpChecksumRight(segment,
                                      frame.offload.segmentation == pdu::Offload::kTcpIPv6))
                    std::abort();
            }
        } catch (int) {
            std::abort();
        }
    }

    static bool tcpChecksumRight(pdu::PDU segment, bool ipv6) {
        const uint8_t* ip = segment.data() + kNetwork;
        const uint16_t transport = ipv6 ? 40 : static_cast<uint16_t>((ip[0] & 0x0f) * 4);
        const uint32_t length = segment.length() - kNetwork - transport;
        const uint64_t pseudo = ipv6 ? pdu::pseudoHeaderSumIPv6(ip + 8, ip + 24, 6, length)
                                     : pdu::pseudoHeaderSumIPv4(ip + 12, ip + 16, 6, length);
        return pdu::foldSum(pdu::sumBytes(ip + transport, length, pseudo)) == 0xffff;
    }

    std::unique_ptr<uint8_t[]> joined;
};

}  // namespace lumora::fuzz
