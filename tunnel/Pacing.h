// When a tunnel loop goes back to its endpoint for the next batch. A loop
// that just handled a batch of several frames is under load: more are on
// their way, so it pauses a few tens of microseconds and then takes what has
// gathered in one receive, instead of waking once per frame. A batch of one
// says the link is quiet, and the next receive waits at once, so the first
// frame after a quiet spell is handled the moment it arrives; a full batch
// says frames are already waiting, and the next receive goes at once too.
// The receive after a pause still waits as it always does (with its read
// time-out) when the pause gathered nothing. Only small frames are worth
// gathering: a batch of large ones (bulk TCP) goes on at once, because its
// wake-ups are few for the bytes it moves and a pause there only stretches
// the round trip that paces the sender.
#pragma once

#include <chrono>
#include <cstddef>

namespace lumora {

class LoadPacing {
  public:
    // A batch at least this large (and not full) counts as load.
    static constexpr unsigned kLoadedBatch = 2;
    // How long a loaded loop lets frames gather before its next receive:
    // at 50 and 150 kpps of 64-byte frames it took the CPU per frame of
    // either direction well below a loop that wakes for every frame, and
    // 100 µs cost less at 50 kpps than 50 µs did with the same loss-free
    // rate (bench/README.md). A link faster than 16 frames per pause fills
    // the batch, and the full-batch rule takes over; a socket buffer holds
    // far more than one pause gathers.
    static constexpr std::chrono::microseconds kGather{100};
    // Frames averaging at least this many bytes are not gathered for: one
    // TCP stream through two daemons carried 1.23-1.25x as much with data
    // batches unpaced as with every batch paced, four streams 1.28-1.40x
    // (bench/README.md); acknowledgements and 64-byte frames stay below it.
    static constexpr size_t kLargeFrames = 512;

    // Called with the size of each batch handled, the most one receive
    // takes and the batch's bytes as received.
    void handled(unsigned count, unsigned most, size_t bytes) {
        pause_next = count >= kLoadedBatch && count < most && bytes / count < kLargeFrames;
    }
    // Whether the next beforeReceive() pauses.
    bool pausesNext() const { return pause_next; }
    // Called before each receive: pauses after a loaded batch, once.
    void beforeReceive();

  private:
    bool pause_next = false;
};

}  // namespace lumora
