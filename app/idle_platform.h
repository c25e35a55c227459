// The main thread's scheduling: once the tunnel threads run, main only
// sleeps in 1000 us steps for the life of the process. At the idle
// scheduling class its wake-ups never pre-empt a datapath thread on a busy
// core; it still runs whenever a core has nothing else to do.
#pragma once

namespace lumora::platform {

// Puts the calling thread (and only it) into the idle scheduling class.
// False when the kernel refuses; the thread then keeps its priority.
bool moveThisThreadToIdleClass();

}  // namespace lumora::platform
