// Lowering the TCP maximum segment size of connection openings, so that the
// segments of a connection through the tunnel fit the path once wrapped in
// GRE (the outer packets may not be fragmented).
#pragma once

#include <cstdint>

#include "pdu/Transport.h"

namespace lumora::pdu {

// Walks the TCP options of tcp's header and lowers every MSS option above mss
// to mss, patching the TCP checksum incrementally (the carry out of 16 bits
// is dropped, not added back, as deployed peers have always seen it). Returns
// true when an option was lowered. Never throws. The caller picks which
// segments get here (SYN, and SYN+ACK on egress).
//
// Warning: an option of unknown kind with length byte 0 does not advance the
// walk, and this call then never returns; callers live with that, it is not
// guarded here.
bool clampMSS(TcpPDU tcp, uint16_t mss);

}  // namespace lumora::pdu
