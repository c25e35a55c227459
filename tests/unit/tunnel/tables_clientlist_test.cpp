// A peer's client list: joining order, leaving from anywhere, each pair's
// first listing, and when the peer's pairs must be made again.
#include <gtest/gtest.h>

#include <algorithm>
#include <vector>

#include "learning_support.h"
#include "tunnel/ClientList.h"
#include "tunnel/ClientRecord.h"

namespace lumora {
namespace {

const uint8_t kMac[6] = {0x02, 0x00, 0x5e, 0x00, 0x00, 0x01};

std::vector<ClientRecord*> inOrder(const ClientList& list) { return {list.begin(), list.end()}; }

std::vector<VlanKey> pairsOf(const VlanKeySet& keys) { return {keys.begin(), keys.end()}; }

// Keys made from the list itself, as a peer makes them again.
std::vector<VlanKey> firstPairs(ClientList& list) {
    VlanKeySet keys;
    keys.insert({99, 99});  // cleared first: never in the result
    list.firstPairs(keys);
    return pairsOf(keys);
}

TEST(TablesClientList, ANewListIsEmpty) {
    ClientList list;
    EXPECT_TRUE(list.empty());
    EXPECT_EQ(list.size(), 0u);
    EXPECT_TRUE(list.begin() == list.end());
    EXPECT_EQ(list, std::vector<ClientRecord*>{});
    EXPECT_EQ(firstPairs(list), std::vector<VlanKey>{});
}

TEST(TablesClientList, ClientsAreListedInJoiningOrderAndFirstListingsAreTold) {
    ClientList list, other;
    ClientRecord a(kMac), b(kMac), c(kMac), d(kMac);
    EXPECT_TRUE(list.append(&a, {0, 0}));
    EXPECT_FALSE(list.append(&b, {0, 0})) << "the pair is listed already";
    EXPECT_TRUE(list.append(&c, {5, 5}));
    EXPECT_EQ(list.size(), 3u);
    EXPECT_FALSE(list.empty());
    EXPECT_EQ(inOrder(list), (std::vector<ClientRecord*>{&a, &b, &c}));
    EXPECT_EQ(list, (std::vector<ClientRecord*>{&a, &b, &c}));
    EXPECT_FALSE(list == (std::vector<ClientRecord*>{&a, &c, &b}));
    EXPECT_FALSE(list == (std::vector<ClientRecord*>{&a, &b}));
    EXPECT_TRUE(list.holds(&a) && list.holds(&b) && list.holds(&c));
    EXPECT_FALSE(list.holds(&d));
    EXPECT_FALSE(other.holds(&a)) << "listed, but in another list";
    EXPECT_TRUE(other.append(&d, {0, 0})) << "each list has its own pairs";
    EXPECT_EQ(std::count(list.begin(), list.end(), &b), 1);
    auto it = list.begin();
    EXPECT_EQ(*it++, &a);
    EXPECT_EQ(*it, &b);
}

TEST(TablesClientList, ClientsLeaveFromTheMiddleTheHeadAndTheTail) {
    ClientList list;
    ClientRecord a(kMac), b(kMac), c(kMac), d(kMac);
    const VlanKeySet none;
    for (ClientRecord* client : {&a, &b, &c, &d}) list.append(client, {0, 0});
    list.remove(&b, none);
    EXPECT_EQ(list, (std::vector<ClientRecord*>{&a, &c, &d}));
    EXPECT_FALSE(list.holds(&b));
    list.remove(&a, none);
    EXPECT_EQ(list, (std::vector<ClientRecord*>{&c, &d}));
    list.remove(&d, none);
    EXPECT_EQ(list, (std::vector<ClientRecord*>{&c}));
    list.remove(&c, none);
    EXPECT_TRUE(list.empty());
    EXPECT_TRUE(list.begin() == list.end());
    EXPECT_EQ(firstPairs(list), std::vector<VlanKey>{});

    // A client that left joins again at the end, as a new listing.
    EXPECT_TRUE(list.append(&b, {1, 1}));
    EXPECT_TRUE(list.append(&a, {2, 2}));
    EXPECT_FALSE(list.append(&c, {1, 1}));
    EXPECT_EQ(list, (std::vector<ClientRecord*>{&b, &a, &c}));
}

TEST(TablesClientList, OnlyTheFirstListingOfAPairInTheKeysAsksForNewKeys) {
    ClientList list;
    ClientRecord a(kMac), b(kMac), c(kMac), d(kMac), e(kMac);
    VlanKeySet keys;
    // (10, 5) is held; (5, 10), equal to it, is refused; (20, 20) is held.
    list.append(&a, {10, 5});
    list.append(&b, {5, 10});
    list.append(&c, {10, 5});
    list.append(&d, {20, 20});
    list.append(&e, {20, 20});
    list.firstPairs(keys);
    ASSERT_EQ(pairsOf(keys), (std::vector<VlanKey>{{10, 5}, {20, 20}}));

    EXPECT_FALSE(list.remove(&c, keys)) << "a later listing";
    EXPECT_FALSE(list.remove(&b, keys)) << "the first listing of a refused pair";
    EXPECT_TRUE(list.remove(&d, keys)) << "the first listing of a held pair";
    EXPECT_EQ(firstPairs(list), (std::vector<VlanKey>{{10, 5}, {20, 20}}));
    EXPECT_TRUE(list.remove(&a, keys)) << "the last listing of a held pair";
    EXPECT_EQ(firstPairs(list), (std::vector<VlanKey>{{20, 20}}));
}

TEST(TablesClientList, APairsPlaceIsItsNewFirstListingOnceTheFirstLeaves) {
    ClientList list;
    ClientRecord a(kMac), b(kMac), c(kMac);
    VlanKeySet keys;
    list.append(&a, {10, 5});
    list.append(&b, {5, 10});
    list.append(&c, {10, 5});
    list.firstPairs(keys);
    ASSERT_EQ(pairsOf(keys), (std::vector<VlanKey>{{10, 5}}));
    // (10, 5) is now first listed after (5, 10), which therefore comes first.
    EXPECT_TRUE(list.remove(&a, keys));
    list.firstPairs(keys);
    EXPECT_EQ(pairsOf(keys), (std::vector<VlanKey>{{5, 10}}));
    EXPECT_EQ(list, (std::vector<ClientRecord*>{&b, &c}));
}

TEST(TablesClientList, AHundredThousandClientsLeaveInAnyOrder) {
    constexpr int kClients = 100000;
    std::vector<ClientRecord> clients(kClients, ClientRecord(kMac));
    ClientList list;
    // Three pairs, each equal to the others: only the first listed is kept.
    for (int i = 0; i < kClients; ++i) {
        list.append(&clients[i], {static_cast<uint16_t>(i % 3), static_cast<uint32_t>(10 - i % 3)});
    }
    EXPECT_EQ(list.size(), static_cast<size_t>(kClients));
    EXPECT_EQ(firstPairs(list), (std::vector<VlanKey>{{0, 10}}));
    // Every even client leaves, from the front; then every odd one from the back.
    VlanKeySet keys;
    for (int i = 0; i < kClients; i += 2) list.remove(&clients[i], keys);
    EXPECT_EQ(list.size(), static_cast<size_t>(kClients / 2));
    EXPECT_EQ(*list.begin(), &clients[1]);
    EXPECT_EQ(firstPairs(list), (std::vector<VlanKey>{{1, 9}}))
        << "client 1 now holds the first listing";
    for (int i = kClients - 1; i > 0; i -= 2) list.remove(&clients[i], keys);
    EXPECT_TRUE(list.empty());
}

}  // namespace
}  // namespace lumora
