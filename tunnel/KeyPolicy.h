// The GRE key mode: which VLAN a packet belongs to, from its tag and its key,
// or whether it is dropped.
#pragma once

#include <cstdint>

#include "core/Logger.h"

namespace lumora {

struct KeyedPacket {
    bool has_key = false;
    uint32_t key = 0;
    uint16_t tag_vlan = 0;  // 0 when untagged
};

// Sets policy_vlan and returns true when the packet is accepted; logs the
// drop reason at Warning (prefixed with endpoint_name) and returns false
// otherwise. A key used as a VLAN keeps its low 16 bits. Unknown modes
// behave as "ignore".
bool choosePolicyVlan(Logger& log, const char* endpoint_name, uint8_t mode, uint64_t configured_key,
                      const KeyedPacket& packet, uint16_t& policy_vlan);

}  // namespace lumora
