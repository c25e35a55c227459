// MAC and IP address text, and the per-thread buffers behind it.
#include "pdu/Text.h"

#include <gtest/gtest.h>
#include <sys/socket.h>

#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "frames_support.h"
#include "pdu/Ethernet.h"

namespace lumora::pdu {
namespace {

using test::hexBytes;

TEST(Text, MacIsLowerCaseColonSeparated) {
    const auto mac = hexBytes("02 0a bc de f0 01");
    const char* text = macToText(mac.data());
    EXPECT_STREQ(text, "02:0a:bc:de:f0:01");
    EXPECT_EQ(std::strlen(text), 17u);
    // One buffer per thread, reused by the next call.
    const auto other = hexBytes("ff ff ff ff ff ff");
    EXPECT_EQ(macToText(other.data()), text);
    EXPECT_STREQ(text, "ff:ff:ff:ff:ff:ff");
}

TEST(Text, MacIntoCallersString) {
    const auto mac = hexBytes("00 1b 21 3c 4d 5e");
    std::string text = "previous";
    macToText(mac.data(), text);
    EXPECT_EQ(text, "00:1b:21:3c:4d:5e");
}

TEST(Text, PackedMacTakesTheFirstByteFromTheLowestBits) {
    EXPECT_STREQ(packedMacToText(0x01f0debc0a02ull), "02:0a:bc:de:f0:01");
    // Bits above the 48 are not part of the address.
    EXPECT_STREQ(packedMacToText(0xabcd01f0debc0a02ull), "02:0a:bc:de:f0:01");
    char shared[24];
    sharedMacText(shared);
    EXPECT_STREQ(shared, "02:0a:bc:de:f0:01");
}

TEST(Text, PackedMacTextOfOneThreadIsNotOverwrittenByAnother) {
    // Each thread formats its own MAC over and over and checks what it got;
    // the shared buffer meanwhile takes whatever text came last.
    constexpr int kThreads = 4;
    std::vector<int> mismatches(kThreads, 0);
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([t, &mismatches] {
            uint8_t mac[6] = {0x02, 0, 0, 0, 0, static_cast<uint8_t>(t)};
            const std::string expected = "02:00:00:00:00:0" + std::to_string(t);
            for (int i = 0; i < 20000; ++i) {
                const char* text = packedMacToText(packMac(mac));
                if (expected != text) ++mismatches[t];
            }
        });
    }
    for (auto& thread : threads) thread.join();
    for (int t = 0; t < kThreads; ++t) EXPECT_EQ(mismatches[t], 0) << "thread " << t;
    char shared[24];
    sharedMacText(shared);
    EXPECT_EQ(std::string(shared).substr(0, 16), "02:00:00:00:00:0");
}

TEST(Text, MacBuffersArePerThread) {
    const auto mac = hexBytes("02 00 00 00 00 01");
    const char* mine = macToText(mac.data());
    const char* theirs = nullptr;
    std::thread([&] { theirs = macToText(mac.data()); }).join();
    EXPECT_NE(mine, theirs);
}

TEST(Text, Addresses) {
    const auto v4 = hexBytes("c0 00 02 01");
    EXPECT_STREQ(addressToText(AF_INET, v4.data()), "192.0.2.1");
    const auto v6 = hexBytes("20 01 0d b8 00 00 00 00 00 00 00 00 00 00 00 01");
    EXPECT_STREQ(addressToText(AF_INET6, v6.data()), "2001:db8::1");
    const auto mapped = hexBytes("00 00 00 00 00 00 00 00 00 00 ff ff c6 33 64 02");
    const char* text = addressToText(AF_INET6, mapped.data());
    EXPECT_STREQ(text, "::ffff:198.51.100.2");
    EXPECT_EQ(addressToText(AF_INET, v4.data()), text);  // the same per-thread buffer
    EXPECT_STREQ(addressToText(AF_UNIX, v4.data()), "");
}

}  // namespace
}  // namespace lumora::pdu
