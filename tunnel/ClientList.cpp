#include "tunnel/ClientList.h"

#include <algorithm>

#include "tunnel/ClientRecord.h"

namespace lumora {

ClientListing& ClientList::listingOf(ClientRecord* client) { return client->listing; }

ClientRecord* ClientList::nextOf(const ClientRecord* client) { return client->listing.next; }

bool ClientList::append(ClientRecord* client, VlanKey pair) {
    ClientListing& listing = listingOf(client);
    listing.list = this;
    listing.pair = pair;
    listing.joined = joins++;
    listing.prev = tail;
    listing.next = nullptr;
    (tail != nullptr ? listingOf(tail).next : head) = client;
    tail = client;
    ++count;

    // Found first: a pair already listed, the common case, allocates nothing.
    auto group = groups.find(groupKey(pair));
    const bool first = group == groups.end();
    if (first) group = groups.emplace(groupKey(pair), Group{}).first;
    listing.prevSame = group->second.last;
    listing.nextSame = nullptr;
    (group->second.last != nullptr ? listingOf(group->second.last).nextSame : group->second.first) =
        client;
    group->second.last = client;
    return first;
}

bool ClientList::remove(ClientRecord* client, const VlanKeySet& keys) {
    ClientListing& listing = listingOf(client);
    (listing.prev != nullptr ? listingOf(listing.prev).next : head) = listing.next;
    (listing.next != nullptr ? listingOf(listing.next).prev : tail) = listing.prev;
    --count;

    const VlanKey pair = listing.pair;
    const auto group = groups.find(groupKey(pair));
    const bool was_first = group->second.first == client;
    (listing.prevSame != nullptr ? listingOf(listing.prevSame).nextSame : group->second.first) =
        listing.nextSame;
    (listing.nextSame != nullptr ? listingOf(listing.nextSame).prevSame : group->second.last) =
        listing.prevSame;
    if (group->second.first == nullptr) groups.erase(group);
    listing = ClientListing{};
    return was_first && keys.holds(pair);
}

bool ClientList::holds(const ClientRecord* client) const { return client->listing.list == this; }

void ClientList::firstPairs(VlanKeySet& keys) {
    firsts.clear();
    for (const auto& [key, group] : groups) {
        const ClientListing& first = listingOf(group.first);
        firsts.emplace_back(first.joined, first.pair);
    }
    std::sort(firsts.begin(), firsts.end(),
              [](const auto& a, const auto& b) { return a.first < b.first; });
    keys.clear();
    for (const auto& [joined, pair] : firsts) keys.insert(pair);
}

bool ClientList::operator==(const std::vector<ClientRecord*>& clients) const {
    return count == clients.size() && std::equal(begin(), end(), clients.begin());
}

}  // namespace lumora
