// Ingress threads learning and moving clients while tap and control-socket
// readers take snapshots, look clients up, count traffic and print peers.
// Meant for the ThreadSanitizer build as much as for the plain one.
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <string>
#include <thread>
#include <vector>

#include "learning_support.h"
#include "tunnel/Learning.h"

namespace lumora {
namespace {

using test::Mac;
using test::v4;
using test::v6;
using Clock = std::chrono::steady_clock;

constexpr int kClients = 64;
constexpr int kPeers = 6;  // four IPv4, two IPv6 addresses
constexpr uint16_t kVlan = 20;
constexpr int kLearnRounds = 3000;

Sighting sightingFor(int peer, const Mac& source) {
    static const char* const v4s[] = {"192.0.2.1", "192.0.2.2", "198.51.100.3", "203.0.113.4"};
    static const char* const v6s[] = {"2001:db8:1::5", "2001:db8:2::6"};
    Sighting s;
    if (peer < 4) {
        s.family = AF_INET;
        s.ipv4 = v4(v4s[peer]);
    } else {
        s.family = AF_INET6;
        s.ipv6 = v6(v6s[peer - 4]);
    }
    s.policyVlan = kVlan;
    s.tagVlan = peer % 2 == 0 ? kVlan : 0;
    s.hasKey = peer % 3 == 0;
    s.key = static_cast<uint32_t>(peer);
    s.mac = source.data();
    s.frameLength = 100;
    return s;
}

TEST(LearningConcurrency, LearnersAndReadersShareTheTables) {
    Tables tables;
    Logger logger;
    logger.stream = std::fopen("/dev/null", "w");
    ASSERT_NE(logger.stream, nullptr);
    logger.level = Notice;  // the learning lines take the logger's lock too

    std::vector<Mac> macs;
    for (int i = 0; i < kClients; ++i) macs.push_back(test::mac(static_cast<uint8_t>(i)));

    const auto deadline = Clock::now() + std::chrono::seconds(4);
    std::atomic<int> learners_left{2};
    std::atomic<uint64_t> learned{0};
    std::atomic<uint64_t> sent{0};

    // Two ingress threads: each round every client arrives from a peer that
    // depends on the thread and the round, so clients keep moving.
    auto learner = [&](int seed) {
        for (int round = 0; round < kLearnRounds && Clock::now() < deadline; ++round) {
            for (int i = 0; i < kClients; ++i) {
                const int peer = (i + round * (seed + 1) + seed) % kPeers;
                learn(tables, &logger, sightingFor(peer, macs[i]));
                learned.fetch_add(1, std::memory_order_relaxed);
            }
        }
        learners_left.fetch_sub(1);
    };

    // Tap thread: unicast lookups, routes, counters; flood copies.
    auto tap = [&] {
        size_t i = 0;
        while (learners_left.load() > 0) {
            const Mac& m = macs[i++ % kClients];
            if (ClientRecord* c = tables.findClient(m.data(), kVlan)) {
                const ClientRoute r = c->route();
                if (r.hasPeer) {
                    c->addTraffic(0, 1514, 0, 1);
                    sent.fetch_add(1, std::memory_order_relaxed);
                }
            }
            for (const FloodCopy& copy : tables.floodCopies(kVlan)) {
                if (copy.pair.vlan != 0 && copy.pair.vlan != kVlan) ADD_FAILURE() << copy.pair.vlan;
                if (copy.peer.vlan != kVlan) ADD_FAILURE() << copy.peer.vlan;
            }
        }
    };

    // Control socket and relay: whole-table copies and address texts.
    auto control = [&] {
        size_t i = 0;
        while (learners_left.load() > 0) {
            for (const PeerFields& p : tables.peers()) {
                if (p.vlan != kVlan) ADD_FAILURE() << p.vlan;
            }
            for (const ClientRecord& c : tables.clients()) {
                const std::string text = c.peerAddressText();
                if (text.empty()) ADD_FAILURE();
                c.readTraffic();
            }
            const Mac& m = macs[i++ % kClients];
            PeerFields relay;
            tables.relayPeer(m.data(), kVlan, relay);
            if (ClientRecord* c = tables.findClient(m.data(), kVlan)) {
                c->peerAddressText();
                c->peerAddress();
                PeerFields copy;
                c->peerSnapshot(copy);
            }
        }
    };

    std::vector<std::thread> threads;
    threads.emplace_back(learner, 0);
    threads.emplace_back(learner, 1);
    threads.emplace_back(tap);
    threads.emplace_back(tap);
    threads.emplace_back(control);
    for (auto& t : threads) t.join();
    std::fclose(logger.stream);
    EXPECT_LT(Clock::now(), deadline + std::chrono::seconds(2)) << "bounded in time";

    // Every client is listed exactly once, by its own peer, and every peer's
    // pairs are what its clients make.
    EXPECT_EQ(tables.clientCount(), static_cast<size_t>(kClients));
    EXPECT_EQ(tables.peerCount(), static_cast<size_t>(kPeers));
    uint64_t packets_in = 0, packets_out = 0;
    size_t listed = 0;
    for (const PeerFields& fields : tables.peers()) {
        const PeerRecord* peer = tables.findPeer(fields.peerId);
        ASSERT_NE(peer, nullptr);
        listed += peer->clients.size();
        EXPECT_EQ(std::vector<VlanKey>(peer->vlanKeys.begin(), peer->vlanKeys.end()),
                  test::rebuiltKeys(*peer));
    }
    EXPECT_EQ(listed, static_cast<size_t>(kClients));
    for (const Mac& m : macs) {
        ClientRecord* c = tables.findClient(m.data(), kVlan);
        ASSERT_NE(c, nullptr);
        ASSERT_NE(c->peer, nullptr);
        EXPECT_EQ(std::count(c->peer->clients.begin(), c->peer->clients.end(), c), 1);
        const Traffic t = c->readTraffic();
        packets_in += t.packetsIn;
        packets_out += t.packetsOut;
        EXPECT_EQ(t.bytesIn, t.packetsIn * 100);
        EXPECT_EQ(t.bytesOut, t.packetsOut * 1514);
    }
    EXPECT_EQ(packets_in, learned.load());
    EXPECT_EQ(packets_out, sent.load());
}

}  // namespace
}  // namespace lumora
