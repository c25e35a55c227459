// A peer's clients and vlanKeys are kept step by step as clients join, move
// and leave. After every step of long random runs (fixed seeds), each peer
// lists exactly the clients that joined it, in joining order, and its
// vlanKeys hold exactly what a walk over those clients, reading their flags,
// makes: the same pairs in the same order.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <deque>
#include <ostream>
#include <random>
#include <string>
#include <vector>

#include "learning_support.h"
#include "tunnel/ClientRecord.h"
#include "tunnel/PeerRecord.h"

namespace lumora {
namespace {

struct RandomRun {
    uint32_t seed;
    int peers;
    int clients;
    int steps;
    int values;  // VLANs and keys are drawn from 0 .. values - 1
};

void PrintTo(const RandomRun& run, std::ostream* os) {
    *os << "seed " << run.seed << ", " << run.clients << " clients";
}

class TablesIncremental : public testing::TestWithParam<RandomRun> {};

INSTANTIATE_TEST_SUITE_P(Seeds, TablesIncremental,
                         testing::Values(RandomRun{1, 3, 40, 20000, 4},
                                         RandomRun{2, 4, 300, 20000, 6},
                                         RandomRun{3, 2, 12, 20000, 3},
                                         RandomRun{4, 5, 1000, 10000, 12}),
                         [](const auto& info) { return "Seed" + std::to_string(info.param.seed); });

TEST_P(TablesIncremental, KeysEqualAWalkOverTheClientsAfterEveryStep) {
    const RandomRun run = GetParam();
    std::mt19937 random(run.seed);
    const auto below = [&](int n) { return static_cast<int>(random() % static_cast<uint32_t>(n)); };

    std::deque<PeerRecord> peers(static_cast<size_t>(run.peers));
    std::deque<ClientRecord> clients;
    for (int i = 0; i < run.clients; ++i) {
        const uint8_t mac[6] = {
            0x02, 0, 0, 0, static_cast<uint8_t>(i >> 8), static_cast<uint8_t>(i)};
        clients.emplace_back(mac);
    }
    // Which clients each peer must list, in order.
    std::vector<std::vector<ClientRecord*>> expected(peers.size());
    const auto leave = [&](ClientRecord& client) {
        for (auto& listed : expected)
            listed.erase(std::remove(listed.begin(), listed.end(), &client), listed.end());
    };

    size_t several_pairs = 0;
    for (int step = 0; step < run.steps; ++step) {
        ClientRecord& client = clients[static_cast<size_t>(below(run.clients))];
        const int peer = below(run.peers);
        const int kind = below(10);
        if (kind < 6) {
            // Learning: a new or moving client, with the flags its packet had.
            Association what;
            what.hasKey = below(2) == 1;
            what.key = static_cast<uint32_t>(below(run.values));
            what.tagVlan = static_cast<uint16_t>(below(run.values));
            client.associate(&peers[static_cast<size_t>(peer)], what);
            leave(client);
            expected[static_cast<size_t>(peer)].push_back(&client);
        } else if (kind < 8) {
            client.detachClient();
            leave(client);
        } else {
            // Listed again with its flags as they are, here or on another peer.
            client.attachClient(&peers[static_cast<size_t>(peer)]);
            leave(client);
            expected[static_cast<size_t>(peer)].push_back(&client);
        }

        for (size_t p = 0; p < peers.size(); ++p) {
            ASSERT_EQ(peers[p].clients, expected[p]) << "step " << step << ", peer " << p;
            ASSERT_EQ(std::vector<VlanKey>(peers[p].vlanKeys.begin(), peers[p].vlanKeys.end()),
                      test::rebuiltKeys(peers[p]))
                << "step " << step << ", peer " << p;
        }
        several_pairs += peers[0].vlanKeys.size() > 1;
    }
    // The runs reach sets of several pairs, where order and refusals matter.
    EXPECT_GT(several_pairs, static_cast<size_t>(run.steps / 20));
}

}  // namespace
}  // namespace lumora
