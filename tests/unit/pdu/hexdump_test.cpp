// Hex dump layout: 16 bytes a line, a gap before the ninth column, blank
// columns past the end, printable characters last.
#include "pdu/HexDump.h"

#include <gtest/gtest.h>

#include <string>

#include "frames_support.h"
#include "pdu/Dump.h"

namespace lumora::pdu {
namespace {

using test::capture;
using test::Frame;

// Both forms (PDU, pointer and length) must print the same text.
std::string hexOf(const char* hex) {
    Frame frame(hex, 8, 8);
    const std::string viaPdu = capture([&](FILE* out) { dumpHex(frame.pdu(), out); }).text;
    const std::string viaPointer =
        capture([&](FILE* out) { dumpHex(frame.at(0), frame.pdu().length(), out); }).text;
    EXPECT_EQ(viaPdu, viaPointer);
    return viaPdu;
}

// Spaces that stand for `columns` missing bytes in the second half of a line,
// then the two spaces before the text.
std::string blanks(int missing_first_half, int missing_second_half) {
    const int gap = 1;  // the extra space before the ninth column
    return std::string(3 * missing_first_half + gap + 3 * missing_second_half + 2, ' ');
}

TEST(HexDump, EmptyPrintsNothing) { EXPECT_EQ(hexOf(""), ""); }

TEST(HexDump, OneByte) {
    EXPECT_EQ(hexOf("41"), "\t0x0000:  41" + blanks(7, 8) + "A\n");
    EXPECT_EQ(blanks(7, 8).size(), 48u);
}

TEST(HexDump, SixteenBytesFillOneLine) {
    EXPECT_EQ(hexOf("30 31 32 33 34 35 36 37 38 39 3a 3b 3c 3d 3e 3f"),
              "\t0x0000:  30 31 32 33 34 35 36 37  38 39 3a 3b 3c 3d 3e 3f  0123456789:;<=>?\n");
}

TEST(HexDump, SeventeenBytesStartASecondLine) {
    EXPECT_EQ(hexOf("30 31 32 33 34 35 36 37 38 39 3a 3b 3c 3d 3e 3f 0a"),
              "\t0x0000:  30 31 32 33 34 35 36 37  38 39 3a 3b 3c 3d 3e 3f  0123456789:;<=>?\n"
              "\t0x0010:  0a" +
                  blanks(7, 8) + ".\n");
}

TEST(HexDump, TwentyBytesShowFourOnTheSecondLine) {
    EXPECT_EQ(hexOf("48 65 6c 6c 6f 2c 20 77 6f 72 6c 64 00 01 7f 80 41 42 43 ff"),
              "\t0x0000:  48 65 6c 6c 6f 2c 20 77  6f 72 6c 64 00 01 7f 80  Hello, world....\n"
              "\t0x0010:  41 42 43 ff" +
                  blanks(4, 8) + "ABC.\n");
    EXPECT_EQ(blanks(4, 8).size(), 39u);
}

}  // namespace
}  // namespace lumora::pdu
