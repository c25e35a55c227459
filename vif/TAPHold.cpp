// Held writes of the tap endpoint: the frames a GRE ingress thread writes
// for one batch of received datagrams are handed to the kernel together
// before the thread receives again, so a batch costs one system call instead
// of one per frame. A held frame is not copied: it is remembered where it
// lies in the batch's receive slots, which the GRE endpoint leaves alone
// until the hold is flushed. Nothing is held on any other thread.
#include "vif/TAP"
#include "vif/tap_platform.h"

namespace lumora::vif {

namespace {

struct Held {
    TAP* tap;
    const uint8_t* data;
    uint16_t length;
};

struct HeldWrites {
    bool holding = false;
    unsigned count = 0;
    unsigned limit = 0;
    // Where the batch's datagrams lie: only a frame inside may be held.
    const uint8_t* begin = nullptr;
    const uint8_t* end = nullptr;
    Held held[TAP::kMaxHeldWrites];
};

thread_local HeldWrites held_writes;

}  // namespace

bool (*TAP::write_batch_call)(const Outgoing*, unsigned, ssize_t*) = platform::writeFrames;

void TAP::holdWrites(const uint8_t* begin, const uint8_t* end) {
    HeldWrites& state = held_writes;
    if (state.limit == 0) {
        state.limit = platform::writeBatchLimit();
        if (state.limit > kMaxHeldWrites) state.limit = kMaxHeldWrites;
    }
    if (state.limit <= 1) return;
    state.holding = true;
    state.begin = begin;
    state.end = end;
}

void TAP::stopHoldingWrites() {
    HeldWrites& state = held_writes;
    if (state.count != 0) flushHeldWrites();
    state.holding = false;
    state.begin = state.end = nullptr;
}

unsigned TAP::heldWrites() { return held_writes.count; }

// Remembers the frame when this thread holds its writes and the frame lies
// in the held batch. Any other frame is written at once, behind what is
// already held, so the thread's frames keep their order.
bool TAP::holdWrite(pdu::PDU p) {
    HeldWrites& state = held_writes;
    if (!state.holding) return false;
    const uint8_t* data = p.data();
    if (data < state.begin || data + p.length() > state.end) {
        flushHeldWrites();
        return false;
    }
    state.held[state.count++] = Held{this, data, p.length()};
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
            VXBRD_LOG(*slot.tap->logger, Warning, "%s short write: %d (req) > %d (sent)",
                      slot.tap->name_text, static_cast<int>(slot.length),
                      static_cast<int>(results[i]));
        }
    }
}

}  // namespace lumora::vif
