#include "frame_ring.h"

#include <gtest/gtest.h>

#include <chrono>
#include <cmath>
#include <limits>
#include <thread>

namespace {

// A clock the test steps by hand.
int64_t g_fakeNow = 0;
int64_t fakeClock() { return g_fakeNow; }

class RingTest : public ::testing::Test {
protected:
    void SetUp() override { g_fakeNow = 1'000'000'000'000; }
    // Writes a 1x1 frame holding `value` into the write slot and commits it.
    void commit(FrameRing& ring, uint8_t value) {
        ring.writeSlot() = cv::Mat(1, 1, CV_8UC1, cv::Scalar(value));
        ring.commitFrame();
    }
};

TEST_F(RingTest, NewRingHasNothingToTake) {
    FrameRing ring(&fakeClock);
    EXPECT_EQ(ring.writeIndexValue(), 0);
    EXPECT_EQ(ring.lastWrittenValue(), -1);
    EXPECT_EQ(ring.servingIndex, -1);
    EXPECT_EQ(ring.takeNewest(), -1);
    EXPECT_EQ(ring.takeNewest(), -1);
    EXPECT_EQ(ring.dequeueStampCount(), 0u);  // an empty take records nothing
    EXPECT_EQ(ring.takeAndClear(), -1);
    EXPECT_EQ(ring.dequeueStampCount(), 0u);
}

TEST_F(RingTest, NewestWinsAndSkippedFramesAreNeverHandedOut) {
    FrameRing ring(&fakeClock);
    commit(ring, 1);
    EXPECT_EQ(ring.lastWrittenValue(), 0);
    EXPECT_EQ(ring.writeIndexValue(), 1);
    EXPECT_EQ(ring.takeNewest(), 0);
    EXPECT_EQ(ring.takeNewest(), -1);

    commit(ring, 2);
    commit(ring, 3);
    commit(ring, 4);
    int i = ring.takeNewest();
    ASSERT_EQ(i, 3);
    EXPECT_EQ(ring.slot(i).at<uint8_t>(0, 0), 4);
    EXPECT_EQ(ring.takeNewest(), -1);
}

TEST_F(RingTest, WriteIndexWrapsAfterSixtyCommits) {
    FrameRing ring(&fakeClock);
    for (int n = 0; n < 60; ++n) {
        EXPECT_EQ(ring.writeIndexValue(), n);
        commit(ring, 0);
        EXPECT_EQ(ring.lastWrittenValue(), n);
    }
    EXPECT_EQ(ring.writeIndexValue(), 0);
    commit(ring, 0);
    EXPECT_EQ(ring.lastWrittenValue(), 0);
    EXPECT_EQ(ring.writeIndexValue(), 1);
}

TEST_F(RingTest, ExactlySixtyCommitsBetweenTakesLookLikeNothingNew) {
    FrameRing ring(&fakeClock);
    commit(ring, 0);
    ASSERT_EQ(ring.takeNewest(), 0);
    for (int n = 0; n < 60; ++n) commit(ring, 0);
    EXPECT_EQ(ring.takeNewest(), -1);  // decided by index inequality alone
    commit(ring, 0);
    EXPECT_EQ(ring.takeNewest(), 1);
}

TEST_F(RingTest, TakeAndClearHandsEachCommitOutOnceEvenAfterSixty) {
    FrameRing ring(&fakeClock);
    commit(ring, 0);
    EXPECT_EQ(ring.takeAndClear(), 0);
    EXPECT_EQ(ring.takeAndClear(), -1);
    for (int n = 0; n < 60; ++n) commit(ring, 0);
    EXPECT_EQ(ring.takeAndClear(), 0);
}

// The consumer's wait ends at a commit of a slot it has not taken, and only
// then; each slot remembers when it was committed.
TEST_F(RingTest, WaitEndsAtACommitAndSlotsKeepTheirCommitStamps) {
    FrameRing ring(&fakeClock);
    EXPECT_FALSE(ring.waitForNew(1000));
    commit(ring, 1);
    EXPECT_TRUE(ring.waitForNew(0));
    ASSERT_EQ(ring.takeNewest(), 0);
    EXPECT_FALSE(ring.waitForNew(1000));  // taken already: nothing new

    // A producer that commits while the consumer waits: the wait returns
    // true long before its ten-minute limit.
    std::thread producer([&] {
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
        commit(ring, 2);
    });
    EXPECT_TRUE(ring.waitForNew(600'000'000));
    producer.join();
    EXPECT_EQ(ring.takeNewest(), 1);

    g_fakeNow += 5'000;
    commit(ring, 3);
    EXPECT_EQ(ring.commitStamp(0), 1'000'000'000'000);
    EXPECT_EQ(ring.commitStamp(2), 1'000'000'005'000);
}

TEST_F(RingTest, RatesFromKnownStampSpacing) {
    FrameRing ring(&fakeClock);
    commit(ring, 0);
    EXPECT_EQ(ring.queueRate(), 0.0);  // one stamp: no rate yet
    g_fakeNow += 100'000'000;          // 100 ms
    commit(ring, 0);
    EXPECT_DOUBLE_EQ(ring.queueRate(), 10.0);
    for (int n = 0; n < 300; ++n) {
        g_fakeNow += 100'000'000;
        commit(ring, 0);
        EXPECT_NEAR(ring.queueRate(), 10.0, 1e-9);
        EXPECT_LE(ring.queueStampCount(), FrameRing::kMaxStamps);
    }
    EXPECT_EQ(ring.queueStampCount(), FrameRing::kMaxStamps);
    EXPECT_EQ(ring.dequeueRate(), 0.0);  // untouched by commits
}

TEST_F(RingTest, RateFollowsTheLastHundredTwentyIntervalsOnly) {
    FrameRing ring(&fakeClock);
    for (int n = 0; n < 121; ++n) {  // 120 intervals of 10 ms: 100 fps
        commit(ring, 0);
        g_fakeNow += 10'000'000;
    }
    EXPECT_NEAR(ring.queueRate(), 100.0, 1e-9);
    for (int n = 0; n < 120; ++n) {  // then 120 intervals of 50 ms: 20 fps
        g_fakeNow += 50'000'000 - 10'000'000 * (n == 0);
        commit(ring, 0);
    }
    EXPECT_NEAR(ring.queueRate(), 20.0, 1e-9);
}

TEST_F(RingTest, DegenerateClocksAreStoredAsComputed) {
    FrameRing ring(&fakeClock);
    commit(ring, 0);
    commit(ring, 0);  // same reading: zero span
    EXPECT_EQ(ring.queueRate(), std::numeric_limits<double>::infinity());
    g_fakeNow -= 500'000'000;  // clock stepped back half a second
    commit(ring, 0);
    EXPECT_DOUBLE_EQ(ring.queueRate(), -4.0);
    g_fakeNow += 2'500'000'000;
    commit(ring, 0);
    EXPECT_DOUBLE_EQ(ring.queueRate(), 1.5);
}

TEST_F(RingTest, TakesMeasureTheDequeueRate) {
    FrameRing ring(&fakeClock);
    for (int n = 0; n < 5; ++n) {
        commit(ring, 0);
        commit(ring, 0);
        ASSERT_NE(ring.takeNewest(), -1);
        g_fakeNow += 40'000'000;  // 25 takes a second
    }
    // Stamps were taken before each advance: 4 intervals of 40 ms.
    EXPECT_DOUBLE_EQ(ring.dequeueRate(), 25.0);
    // Ten commits, two per reading, over 160 ms: nine intervals.
    EXPECT_DOUBLE_EQ(ring.queueRate(), 9 * 1000.0 / 160.0);
}

TEST_F(RingTest, ResetStampsKeepsIndicesSlotsAndRates) {
    FrameRing ring(&fakeClock);
    commit(ring, 7);
    g_fakeNow += 100'000'000;
    commit(ring, 8);
    ASSERT_EQ(ring.takeNewest(), 1);
    ring.resetStamps();
    EXPECT_EQ(ring.queueStampCount(), 0u);
    EXPECT_EQ(ring.dequeueStampCount(), 0u);
    EXPECT_DOUBLE_EQ(ring.queueRate(), 10.0);
    EXPECT_EQ(ring.lastWrittenValue(), 1);
    EXPECT_EQ(ring.writeIndexValue(), 2);
    EXPECT_EQ(ring.slot(0).at<uint8_t>(0, 0), 7);
    g_fakeNow += 1'000'000'000;
    commit(ring, 0);  // first stamp after the reset: rate keeps its value
    EXPECT_DOUBLE_EQ(ring.queueRate(), 10.0);
    g_fakeNow += 500'000'000;
    commit(ring, 0);
    EXPECT_DOUBLE_EQ(ring.queueRate(), 2.0);
    EXPECT_EQ(ring.takeNewest(), 3);
}

}  // namespace
