// A peer's clients, in the order they joined it, with the (VLAN, GRE key)
// pair each joined with. Joining and leaving cost the same whether the peer
// has ten clients or a hundred thousand: a flood of spoofed source addresses
// from one access point must not make every later packet of that peer slower.
//
// The list is intrusive: each client record carries its own links (its
// ClientListing), so joining allocates nothing and leaving needs no search.
// The clients listed with one pair are linked to each other as well, so the
// list knows each pair's first listing. A peer's vlanKeys depend on nothing
// else: a walk over the clients inserts each client's pair in turn, and a
// later listing of a pair meets that pair, or one equal to it, already in
// the set; so the set is what the distinct pairs make, inserted in the order
// of their first listings.
//
// Guarded by the owning peer's mutex; not thread-safe on its own.
#pragma once

#include <cstddef>
#include <cstdint>
#include <iterator>
#include <unordered_map>
#include <utility>
#include <vector>

#include "tunnel/VlanKeySet.h"

namespace lumora {

class ClientRecord;
class ClientList;

// Where one client is listed. The links belong to the list: they change when
// a neighbour joins or leaves, under the peer's mutex alone. The other fields
// change only when the client itself joins or leaves, under its own mutex too.
struct ClientListing {
    const ClientList* list = nullptr;  // null: listed nowhere
    ClientRecord* prev = nullptr;      // joining order
    ClientRecord* next = nullptr;
    ClientRecord* prevSame = nullptr;  // the clients listed with the same pair
    ClientRecord* nextSame = nullptr;
    uint64_t joined = 0;  // the list's count of joins before this one
    VlanKey pair;
};

class ClientList {
  public:
    // The clients in joining order.
    class const_iterator {
      public:
        using iterator_category = std::forward_iterator_tag;
        using value_type = ClientRecord*;
        using difference_type = std::ptrdiff_t;
        using pointer = ClientRecord* const*;
        using reference = ClientRecord* const&;

        const_iterator() = default;
        reference operator*() const { return at; }
        const_iterator& operator++() {
            at = nextOf(at);
            return *this;
        }
        const_iterator operator++(int) {
            const_iterator before = *this;
            ++*this;
            return before;
        }
        bool operator==(const const_iterator& other) const { return at == other.at; }

      private:
        friend class ClientList;
        explicit const_iterator(ClientRecord* client) : at(client) {}
        ClientRecord* at = nullptr;
    };
    using iterator = const_iterator;

    ClientList() = default;
    // The links live in the clients' records: a list cannot be copied.
    ClientList(const ClientList&) = delete;
    ClientList& operator=(const ClientList&) = delete;

    // Lists client, which must be listed nowhere, at the end with pair. True
    // when no other client here has that pair: this is its first listing.
    bool append(ClientRecord* client, VlanKey pair);
    // Takes client, which must be listed here, out of the list. True when it
    // held the first listing of a pair that keys holds: then keys must be
    // made again (firstPairs). Otherwise a walk over the clients makes the
    // same keys as before: a later listing leaves the order of first listings
    // as it was, and a pair the set refused at its first listing is refused
    // again at its next, the set having only grown by then.
    bool remove(ClientRecord* client, const VlanKeySet& keys);
    // True when client is listed here.
    bool holds(const ClientRecord* client) const;

    // Clears keys and inserts the distinct pairs in the order of their first
    // listings: the set a walk over every client makes. Costs what the number
    // of distinct pairs makes it, whatever the number of clients.
    void firstPairs(VlanKeySet& keys);

    size_t size() const { return count; }
    bool empty() const { return count == 0; }
    const_iterator begin() const { return const_iterator(head); }
    const_iterator end() const { return const_iterator(); }

    // The same clients in the same order.
    bool operator==(const std::vector<ClientRecord*>& clients) const;

  private:
    // The first and last clients listed with one pair.
    struct Group {
        ClientRecord* first = nullptr;
        ClientRecord* last = nullptr;
    };

    static uint64_t groupKey(VlanKey pair) { return uint64_t{pair.vlan} << 32 | pair.key; }
    static ClientListing& listingOf(ClientRecord* client);
    static ClientRecord* nextOf(const ClientRecord* client);

    ClientRecord* head = nullptr;
    ClientRecord* tail = nullptr;
    size_t count = 0;
    uint64_t joins = 0;
    std::unordered_map<uint64_t, Group> groups;  // by groupKey() of the pair
    // firstPairs()'s room to sort the first listings in, kept for its capacity.
    std::vector<std::pair<uint64_t, VlanKey>> firsts;
};

}  // namespace lumora
