#include "tunnel/VlanKeySet.h"

namespace lumora {

bool VlanKeySet::insert(VlanKey pair) {
    auto position = pairs.end();
    for (auto it = pairs.begin(); it != pairs.end(); ++it) {
        if (equivalent(pair, *it)) return false;
        // Every pair held is comparable with the new one, so the first one it
        // sorts before is its place in the ascending list.
        if (position == pairs.end() && before(pair, *it)) position = it;
    }
    pairs.insert(position, pair);
    return true;
}

bool VlanKeySet::holds(VlanKey pair) const {
    for (const VlanKey& held : pairs)
        if (held == pair) return true;
    return false;
}

}  // namespace lumora
