// Held writes of the tap endpoint: the frames a GRE ingress thread writes
// for one batch of received datagrams are copied aside and handed to the
// kernel together before the thread receives again, so a batch costs one
// system call instead of one per frame. Nothing is held on any other thread.
#include <cstring>
#include <memory>

#include "vif/TAP"
#include "vif/tap_platform.h"

namespace lumora::vif {

namespace {

// An ordinary Ethernet frame fits; anything larger is written at once.
constexpr size_t kHeldRoom = 2048;

struct Held {
    TAP* tap;
    uint16_t length;
    uint8_t data[kHeldRoom];
};

struct HeldWrites {
    bool holding = false;
    unsigned count = 0;
    unsigned limit = 0;
    std::unique_ptr<Held[]> held;  // allocated the first time a thread holds
};

thread_local HeldWrites held_writes;

}  // namespace

bool (*TAP::write_batch_call)(const Outgoing*, unsigned, ssize_t*) = platform::writeFrames;

void TAP::holdWrites(bool hold) {
    HeldWrites& state = held_writes;
    if (!hold) {
        if (state.count != 0) flushHeldWrites();
        state.holding = false;
        return;
    }
    if (state.limit == 0) {
        state.limit = platform::writeBatchLimit();
        if (state.limit > kMaxHeldWrites) state.limit = kMaxHeldWrites;
    }
    if (state.limit <= 1) return;
    if (!state.held) state.held = std::make_unique<Held[]>(kMaxHeldWrites);
    state.holding = true;
}

unsigned TAP::heldWrites() { return held_writes.count; }

// Copies the frame aside when this thread holds its writes. A frame too
// large to hold is written at once, behind what is already held.
bool TAP::holdWrite(pdu::PDU p) {
    HeldWrites& state = held_writes;
    if (!state.holding) return false;
    const size_t length = p.length();
    if (length > kHeldRoom) {
        flushHeldWrites();
        return false;
    }
    Held& slot = state.held[state.count++];
    slot.tap = this;
    slot.length = static_cast<uint16_t>(length);
    std::memcpy(slot.data, p.data(), length);
    if (state.count >= state.limit) flushHeldWrites();
    return true;
}

// Hands the held frames over in order; a frame the device did not take
// whole is the usual short-write warning. Where the batch cannot be
// submitted at all, the frames are written one by one.
void TAP::flushHeldWrites() {
    HeldWrites& state = held_writes;
    const unsigned count = state.count;
    state.count = 0;
    if (count == 0) return;
    Outgoing frames[kMaxHeldWrites];
    ssize_t results[kMaxHeldWrites];
    for (unsigned i = 0; i < count; ++i)
        frames[i] = Outgoing{state.held[i].tap->fd, state.held[i].data, state.held[i].length};
    if (!write_batch_call(frames, count, results)) {
        for (unsigned i = 0; i < count; ++i)
            results[i] = write_call(frames[i].fd, frames[i].data, frames[i].length);
    }
    for (unsigned i = 0; i < count; ++i) {
        const Held& slot = state.held[i];
        if (results[i] != static_cast<ssize_t>(slot.length)) {
            slot.tap->logger->log(Warning, "%s short write: %d (req) > %d (sent)",
                                  slot.tap->name_text, static_cast<int>(slot.length),
                                  static_cast<int>(results[i]));
        }
    }
}

}  // namespace lumora::vif
