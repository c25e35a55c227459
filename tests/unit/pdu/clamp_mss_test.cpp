// MSS clamping: every case of the option walk, the carry-dropping checksum
// update, and the walk that never ends on a zero-length option.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <string>
#include <thread>

#include "frames_support.h"
#include "pdu/ClampMSS.h"

namespace lumora::pdu {
namespace {

using test::Frame;
using test::hexBytes;

// A TCP SYN header: ports 49152 -> 80, the given data-offset byte and
// checksum, then the option bytes (and any payload) as hex.
std::string syn(const char* offset_byte, const char* checksum, const char* rest) {
    return std::string("c0 00 00 50 00 00 00 01 00 00 00 00 ") + offset_byte + " 02 ff ff " +
           checksum + " 00 00 " + rest;
}

struct Result {
    bool clamped;
    std::vector<uint8_t> bytes;
};

Result clamp(const std::string& hex, uint16_t mss) {
    Frame frame(hex, 64, 0);
    const bool clamped = clampMSS(TcpPDU::at(frame.pdu(), 64), mss);
    return {clamped, frame.bytes()};
}

TEST(ClampMSS, HeaderWithoutOptionsIsNotLookedAt) {
    // The payload looks like an MSS option; it must stay untouched.
    const std::string segment = syn("50", "12 34", "02 04 05 b4");
    const Result r = clamp(segment, 1380);
    EXPECT_FALSE(r.clamped);
    EXPECT_EQ(r.bytes, hexBytes(segment));
}

TEST(ClampMSS, NopNopMss1460IsLoweredTo1380AndChecksumRisesBy80) {
    const Result r = clamp(syn("70", "12 34", "01 01 02 04 05 b4 00 00"), 1380);
    EXPECT_TRUE(r.clamped);
    EXPECT_EQ(r.bytes, hexBytes(syn("70", "12 84", "01 01 02 04 05 64 00 00")));
}

TEST(ClampMSS, MssAtOrBelowTheLimitIsLeftAlone) {
    for (const char* option : {"02 04 05 64", "02 04 02 18"}) {  // 1380, 536
        const std::string segment = syn("60", "12 34", option);
        const Result r = clamp(segment, 1380);
        EXPECT_FALSE(r.clamped) << option;
        EXPECT_EQ(r.bytes, hexBytes(segment)) << option;
    }
}

TEST(ClampMSS, MssOptionWithLength3EndsTheWalk) {
    const std::string segment = syn("70", "12 34", "02 03 05 02 04 05 b4 00");
    const Result r = clamp(segment, 1380);
    EXPECT_FALSE(r.clamped);
    EXPECT_EQ(r.bytes, hexBytes(segment));
}

TEST(ClampMSS, MssOptionWithLength0EndsTheWalk) {
    const std::string segment = syn("70", "12 34", "02 00 02 04 05 b4 00 00");
    const Result r = clamp(segment, 1380);
    EXPECT_FALSE(r.clamped);
    EXPECT_EQ(r.bytes, hexBytes(segment));
}

TEST(ClampMSS, OptionRunningPastTheHeaderEndsTheWalk) {
    // Kind 254 claims 7 bytes from offset 22, one past the 28-byte header;
    // the MSS inside what it claims is not seen.
    const std::string segment = syn("70", "12 34", "01 01 fe 07 02 04 05 b4");
    const Result r = clamp(segment, 1380);
    EXPECT_FALSE(r.clamped);
    EXPECT_EQ(r.bytes, hexBytes(segment));
}

TEST(ClampMSS, ChecksumWrapDropsTheCarry) {
    const Result r = clamp(syn("60", "ff d0", "02 04 05 b4"), 1380);
    EXPECT_TRUE(r.clamped);
    EXPECT_EQ(r.bytes, hexBytes(syn("60", "00 20", "02 04 05 64")));
}

TEST(ClampMSS, EveryMssOptionIsClamped) {
    // 1460 and 1500 both fall to 1380: the checksum rises by 80 + 120.
    const Result r = clamp(syn("70", "01 00", "02 04 05 b4 02 04 05 dc"), 1380);
    EXPECT_TRUE(r.clamped);
    EXPECT_EQ(r.bytes, hexBytes(syn("70", "01 c8", "02 04 05 64 02 04 05 64")));
}

TEST(ClampMSS, OtherOptionsAreSteppedOverByTheirLength) {
    // Window scale (3 bytes), then the MSS, then end of list.
    const Result r = clamp(syn("70", "00 00", "03 03 07 02 04 05 b4 00"), 536);
    EXPECT_TRUE(r.clamped);
    // 1460 - 536 = 924 = 0x039c.
    EXPECT_EQ(r.bytes, hexBytes(syn("70", "03 9c", "03 03 07 02 04 02 18 00")));
}

TEST(ClampMSS, OptionEndingExactlyAtTheHeaderEndIsSeen) {
    const Result r = clamp(syn("60", "00 00", "02 04 ff ff"), 1380);
    EXPECT_TRUE(r.clamped);
    EXPECT_EQ(r.bytes, hexBytes(syn("60", "fa 9b", "02 04 05 64")));
}

TEST(ClampMSS, EndOfListStopsBeforeALaterMss) {
    const std::string segment = syn("70", "12 34", "00 01 01 01 02 04 05 b4");
    const Result r = clamp(segment, 1380);
    EXPECT_FALSE(r.clamped);
    EXPECT_EQ(r.bytes, hexBytes(segment));
}

TEST(ClampMSS, NopsToTheHeaderEndReturnFalse) {
    const std::string segment = syn("60", "12 34", "01 01 01 01");
    const Result r = clamp(segment, 1380);
    EXPECT_FALSE(r.clamped);
    EXPECT_EQ(r.bytes, hexBytes(segment));
}

TEST(ClampMSS, KindInTheLastHeaderByteIsATruncatedList) {
    // Its length byte would be the first payload byte (0 here): it is not
    // read, and the walk ends instead of spinning on it.
    const std::string segment = syn("60", "12 34", "01 01 01 fe 00 00");
    const Result r = clamp(segment, 1380);
    EXPECT_FALSE(r.clamped);
    EXPECT_EQ(r.bytes, hexBytes(segment));
}

// Runs clampMSS on the segment in a child process. Returns true when the
// child was still inside the call after `wait`, false when it returned.
bool stillRunningAfter(const std::string& hex, std::chrono::milliseconds wait) {
    Frame frame(hex, 64, 0);
    const TcpPDU tcp = TcpPDU::at(frame.pdu(), 64);
    const pid_t child = fork();
    if (child < 0) throw std::runtime_error("fork failed");
    if (child == 0) {
        clampMSS(tcp, 1380);
        _exit(0);
    }
    const auto deadline = std::chrono::steady_clock::now() + wait;
    int status = 0;
    pid_t done = 0;
    while (std::chrono::steady_clock::now() < deadline) {
        done = waitpid(child, &status, WNOHANG);
        if (done != 0) break;
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    if (done == child) {
        EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
        return false;
    }
    kill(child, SIGKILL);
    waitpid(child, &status, 0);
    EXPECT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL);
    return true;
}

TEST(ClampMSS, ZeroLengthOptionOfUnknownKindNeverEnds) {
    EXPECT_TRUE(stillRunningAfter(syn("60", "12 34", "fe 00 02 04"), std::chrono::seconds(1)));
    EXPECT_TRUE(
        stillRunningAfter(syn("70", "12 34", "01 01 02 04 05 b4 08 00"), std::chrono::seconds(1)));
}

TEST(ClampMSS, WatchdogSeesAWalkThatEnds) {
    // The same harness with a one-byte-longer option returns at once.
    EXPECT_FALSE(stillRunningAfter(syn("60", "12 34", "fe 01 02 04"), std::chrono::seconds(1)));
}

}  // namespace
}  // namespace lumora::pdu
