#ifndef __FreeBSD__
#error "writering_freebsd.cpp is the FreeBSD write ring"
#endif

// FreeBSD has no submission ring for writes to a tap: each frame is its own
// write(2), which the endpoints do when open() gives them no ring.

#include "vif/WriteRing.h"

namespace lumora::vif {

std::unique_ptr<WriteRing> WriteRing::open() { return nullptr; }

}  // namespace lumora::vif
