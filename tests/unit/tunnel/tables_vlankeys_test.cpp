// The peer's (VLAN, key) set: its comparator, its equality and its order.
#include <gtest/gtest.h>

#include <vector>

#include "learning_support.h"
#include "tunnel/VlanKeySet.h"

namespace lumora {
namespace {

std::vector<VlanKey> listed(const VlanKeySet& set) { return {set.begin(), set.end()}; }

TEST(TablesVlanKeys, SortsBeforeOnlyWhenVlanAndKeyAreBothSmaller) {
    EXPECT_TRUE(VlanKeySet::before({1, 1}, {2, 2}));
    EXPECT_FALSE(VlanKeySet::before({1, 2}, {2, 2}));
    EXPECT_FALSE(VlanKeySet::before({2, 1}, {2, 2}));
    EXPECT_FALSE(VlanKeySet::before({2, 2}, {1, 1}));
    EXPECT_TRUE(VlanKeySet::equivalent({10, 5}, {5, 10}));
    EXPECT_TRUE(VlanKeySet::equivalent({20, 0}, {30, 0}));
    EXPECT_FALSE(VlanKeySet::equivalent({0, 0}, {20, 7}));
}

TEST(TablesVlanKeys, CrossedPairsAreEqualAndOnlyTheFirstIsListed) {
    VlanKeySet set;
    EXPECT_TRUE(set.insert({10, 5}));
    EXPECT_FALSE(set.insert({5, 10}));
    EXPECT_EQ(listed(set), (std::vector<VlanKey>{{10, 5}}));

    VlanKeySet other;
    EXPECT_TRUE(other.insert({5, 10}));
    EXPECT_FALSE(other.insert({10, 5}));
    EXPECT_EQ(listed(other), (std::vector<VlanKey>{{5, 10}}));
}

TEST(TablesVlanKeys, PairsSharingAVlanOrAKeyCollapse) {
    VlanKeySet set;
    EXPECT_TRUE(set.insert({20, 7}));
    EXPECT_FALSE(set.insert({20, 8}));
    EXPECT_FALSE(set.insert({21, 7}));
    EXPECT_FALSE(set.insert({20, 7}));
    EXPECT_EQ(listed(set), (std::vector<VlanKey>{{20, 7}}));
}

TEST(TablesVlanKeys, ComparablePairsAreListedAscending) {
    VlanKeySet set;
    EXPECT_TRUE(set.insert({20, 7}));
    EXPECT_TRUE(set.insert({30, 9}));
    EXPECT_TRUE(set.insert({0, 0}));
    EXPECT_TRUE(set.insert({25, 8}));
    EXPECT_TRUE(set.insert({40, 100}));
    EXPECT_EQ(listed(set), (std::vector<VlanKey>{{0, 0}, {20, 7}, {25, 8}, {30, 9}, {40, 100}}));
    EXPECT_EQ(set.size(), 5u);
    EXPECT_EQ(set[3], (VlanKey{30, 9}));
}

TEST(TablesVlanKeys, APairIsComparedWithEveryPairHeld) {
    VlanKeySet set;
    ASSERT_TRUE(set.insert({10, 10}));
    ASSERT_TRUE(set.insert({20, 20}));
    // Above (10, 10) but equal to (20, 20): refused.
    EXPECT_FALSE(set.insert({30, 15}));
    // Below (20, 20) but equal to (10, 10): refused.
    EXPECT_FALSE(set.insert({5, 15}));
    EXPECT_EQ(listed(set), (std::vector<VlanKey>{{10, 10}, {20, 20}}));
}

TEST(TablesVlanKeys, ClearEmptiesTheSet) {
    VlanKeySet set;
    set.insert({1, 1});
    set.clear();
    EXPECT_TRUE(set.empty());
    EXPECT_TRUE(set.insert({5, 10}));
    EXPECT_EQ(listed(set), (std::vector<VlanKey>{{5, 10}}));
}

}  // namespace
}  // namespace lumora
