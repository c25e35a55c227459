// When a tunnel loop pauses before its next receive: only after a batch that
// says the link is loaded (two frames or more), that left nothing behind
// for certain (not full) and whose frames are small on average; never after
// a quiet batch of one or an empty one, nor after a batch of bulk data.
#include "tunnel/Pacing.h"

#include <gtest/gtest.h>

#include <chrono>

namespace lumora {
namespace {

TEST(LoadPacing, AFreshLoopReceivesAtOnce) { EXPECT_FALSE(LoadPacing{}.pausesNext()); }

TEST(LoadPacing, AQuietBatchNeverDelaysTheNextFrame) {
    LoadPacing pacing;
    pacing.handled(0, 16, 0);
    EXPECT_FALSE(pacing.pausesNext());
    pacing.handled(1, 16, 64);
    EXPECT_FALSE(pacing.pausesNext());
}

TEST(LoadPacing, ALoadedBatchPausesTheNextReceiveOnce) {
    LoadPacing pacing;
    pacing.handled(2, 16, 128);
    EXPECT_TRUE(pacing.pausesNext());
    const auto start = std::chrono::steady_clock::now();
    pacing.beforeReceive();
    EXPECT_GE(std::chrono::steady_clock::now() - start, LoadPacing::kGather);
    EXPECT_FALSE(pacing.pausesNext());
    pacing.handled(15, 16, 15 * 64);
    EXPECT_TRUE(pacing.pausesNext());
}

TEST(LoadPacing, AFullBatchLeavesFramesWaitingSoTheNextReceiveGoesAtOnce) {
    LoadPacing pacing;
    pacing.handled(16, 16, 16 * 64);
    EXPECT_FALSE(pacing.pausesNext());
    // An endpoint that takes one frame at a time is never paced.
    pacing.handled(1, 1, 64);
    EXPECT_FALSE(pacing.pausesNext());
}

TEST(LoadPacing, ABatchOfLargeFramesGoesOnAtOnce) {
    LoadPacing pacing;
    pacing.handled(10, 16, 10 * 1442);
    EXPECT_FALSE(pacing.pausesNext());
    // The average decides: one step below it still pauses, at it not.
    pacing.handled(4, 16, 4 * LoadPacing::kLargeFrames - 1);
    EXPECT_TRUE(pacing.pausesNext());
    pacing.handled(4, 16, 4 * LoadPacing::kLargeFrames);
    EXPECT_FALSE(pacing.pausesNext());
    // Acknowledgements between data segments keep a mixed batch unpaced.
    pacing.handled(8, 16, 4 * 1442 + 4 * 66);
    EXPECT_FALSE(pacing.pausesNext());
}

}  // namespace
}  // namespace lumora
