// The (VLAN, GRE key) combinations that a peer's clients use. The egress flood
// sends one copy per pair, and the control socket lists them in this order.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

namespace lumora {

struct VlanKey {
    uint16_t vlan = 0;  // the client's tag VLAN, 0 when untagged
    uint32_t key = 0;   // the client's GRE key, 0 when it sends none

    bool operator==(const VlanKey&) const = default;
};

// A small ordered set with the peer's historical ordering: a pair sorts before
// another only when both its VLAN and its key are smaller, and two pairs are
// equal when neither sorts before the other. So (10, 5) and (5, 10) count as
// one combination, and so does any pair sharing a VLAN or a key with a listed
// one; deployed access points receive exactly one flood copy per such pair.
//
// That relation is not a strict weak ordering, so the pairs live in a vector.
// A pair is inserted only when it is unequal to every pair held; hence every
// pair held is strictly below or strictly above each other pair in both VLAN
// and key, and the list is ascending in both. A new pair goes in front of the
// first pair it sorts before, or at the end.
class VlanKeySet {
  public:
    static bool before(const VlanKey& a, const VlanKey& b) {
        return a.vlan < b.vlan && a.key < b.key;
    }
    static bool equivalent(const VlanKey& a, const VlanKey& b) {
        return !before(a, b) && !before(b, a);
    }

    // False (and nothing changes) when an equal pair is already held.
    bool insert(VlanKey pair);
    // Keeps the capacity, so a peer making its pairs again stops allocating
    // once grown.
    void clear() { pairs.clear(); }
    // True when this very pair (not merely an equal one) is held.
    bool holds(VlanKey pair) const;

    size_t size() const { return pairs.size(); }
    bool empty() const { return pairs.empty(); }
    const VlanKey& operator[](size_t i) const { return pairs[i]; }
    std::vector<VlanKey>::const_iterator begin() const { return pairs.begin(); }
    std::vector<VlanKey>::const_iterator end() const { return pairs.end(); }

  private:
    std::vector<VlanKey> pairs;
};

}  // namespace lumora
