// When a tunnel loop pauses before its next receive: only after a batch that
// says the link is loaded (two frames or more) and that left nothing behind
// for certain (not full); never after a quiet batch of one or an empty one.
#include "tunnel/Pacing.h"

#include <gtest/gtest.h>

#include <chrono>

namespace lumora {
namespace {

TEST(LoadPacing, AFreshLoopReceivesAtOnce) { EXPECT_FALSE(LoadPacing{}.pausesNext()); }

TEST(LoadPacing, AQuietBatchNeverDelaysTheNextFrame) {
    LoadPacing pacing;
    pacing.handled(0, 16);
    EXPECT_FALSE(pacing.pausesNext());
    pacing.handled(1, 16);
    EXPECT_FALSE(pacing.pausesNext());
}

TEST(LoadPacing, ALoadedBatchPausesTheNextReceiveOnce) {
    LoadPacing pacing;
    pacing.handled(2, 16);
    EXPECT_TRUE(pacing.pausesNext());
    const auto start = std::chrono::steady_clock::now();
    pacing.beforeReceive();
    EXPECT_GE(std::chrono::steady_clock::now() - start, LoadPacing::kGather);
    EXPECT_FALSE(pacing.pausesNext());
    pacing.handled(15, 16);
    EXPECT_TRUE(pacing.pausesNext());
}

TEST(LoadPacing, AFullBatchLeavesFramesWaitingSoTheNextReceiveGoesAtOnce) {
    LoadPacing pacing;
    pacing.handled(16, 16);
    EXPECT_FALSE(pacing.pausesNext());
    // An endpoint that takes one frame at a time is never paced.
    pacing.handled(1, 1);
    EXPECT_FALSE(pacing.pausesNext());
}

}  // namespace
}  // namespace lumora
