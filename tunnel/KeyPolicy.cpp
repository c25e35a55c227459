#include "tunnel/KeyPolicy.h"

#include "core/Config.h"

namespace lumora {

bool choosePolicyVlan(Logger& log, const char* endpoint_name, uint8_t mode, uint64_t configured_key,
                      const KeyedPacket& packet, uint16_t& policy_vlan) {
    const auto key_vlan = static_cast<uint16_t>(packet.key);
    // Keys on the wire are 32 bits: a configured key is compared, and
    // reported, as its low 32 bits.
    const auto required_key = static_cast<uint32_t>(configured_key);
    policy_vlan = packet.tag_vlan;
    switch (mode) {
        case Reject:
            if (packet.has_key) {
                VXBRD_LOG(log, Warning, "%s: ignoring PDU with GRE key %d", endpoint_name,
                          packet.key);
                return false;
            }
            return true;
        case Require:
            if (!packet.has_key) {
                VXBRD_LOG(log, Warning, "%s: ignoring PDU without GRE key", endpoint_name);
                return false;
            }
            if (packet.key != required_key) {
                VXBRD_LOG(log, Warning, "%s: ignoring PDU with invalid GRE key %d. Expecting %d",
                          endpoint_name, packet.key, required_key);
                return false;
            }
            return true;
        case VlanMap:
            if (!packet.has_key) {
                VXBRD_LOG(log, Warning, "%s: ignoring PDU without GRE key", endpoint_name);
                return false;
            }
            policy_vlan = key_vlan;
            return true;
        case PreferKey:
            if (packet.has_key) policy_vlan = key_vlan;
            return true;
        case PreferVlan:
            if (packet.has_key && packet.tag_vlan == 0) policy_vlan = key_vlan;
            return true;
        default:
            return true;
    }
}

}  // namespace lumora
