#include "tunnel/Pacing.h"

#include <thread>

namespace lumora {

void LoadPacing::beforeReceive() {
    if (!pause_next) return;
    pause_next = false;
    // Bounded: one pause per batch, kGather plus the kernel's timer slack.
    std::this_thread::sleep_for(kGather);
}

}  // namespace lumora
