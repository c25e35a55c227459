#include "tunnel/Context.h"

namespace lumora {

TunnelContext& tunnelContext() {
    // Never destroyed: tunnel threads may still run while the process exits.
    static TunnelContext* context = [] {
        auto* made = new TunnelContext;
        made->config = &config;
        made->tables = &Tables::process();
        made->interfaces = &system_interfaces;
        made->parents = &parent_interfaces;
        return made;
    }();
    return *context;
}

}  // namespace lumora
