// The hand-off between the read thread (the one producer) and the main
// thread (the one consumer): 60 frame slots, newest wins, and the two rate
// meters. The producer never waits; the consumer may wait for a commit.
//
// Slots are not locked. The consumer holds the slot it takes until
// slotDone(), and the producer passes over a held slot instead of writing
// into it, so a consumer may take as long as it needs over a frame.
//
// Owns the frame pool. Only three slots hold a buffer at a time: the one
// being written, the newest committed and the one handed out last. A commit
// gives the buffer of the frame it replaces to the pool, unless the consumer
// took that frame; a take gives back the slot handed out before it; the
// producer fills its next slot from the pool. Skipped frames cost no memory,
// and neither side allocates per frame.
#pragma once

#include <array>
#include <cstdint>
#include <deque>
#include <opencv2/core.hpp>
#include <optional>

#include "frame_pool.h"
#include "rate_source.h"
#include "thread_annotations.h"

class FrameRing : public RateSource {
public:
    static constexpr int kSlots = 60;
    static constexpr size_t kMaxStamps = 121;

    // Nanoseconds since the epoch; replaceable so tests can drive the clock.
    using Clock = int64_t (*)();
    static int64_t systemClockNanos();

    explicit FrameRing(Clock clock = &systemClockNanos);
    FrameRing(const FrameRing&) = delete;
    FrameRing& operator=(const FrameRing&) = delete;

    // Producer: the slot the next frame is decoded into. The commit that
    // made it the write slot found the consumer done with it.
    cv::Mat& writeSlot() { return frames[writeIndex]; }
    // Producer, before a frame is written: writeSlot(), holding a spare
    // buffer of the last committed frame's size and type when the slot has
    // none of its own (so the capture writes into it instead of allocating).
    cv::Mat& prepareWriteSlot();
    // Producer: publishes writeSlot() and moves on; records a commit stamp
    // and wakes a consumer in waitForNew().
    void commitFrame() EXCLUDES(ringMutex, rateMutex);

    // Consumer: returns as soon as takeNewest() would hand out a slot, or
    // after `micros` microseconds. True if a slot is ready.
    bool waitForNew(int64_t micros) EXCLUDES(ringMutex);

    // Consumer: the newest committed slot if it is not the one handed out
    // last, else -1. Records a take stamp when it hands one out, and gives
    // the previously handed-out slot's buffer to the pool (unless the
    // producer is writing into that slot again already).
    int takeNewest() EXCLUDES(ringMutex, rateMutex);
    // Consumer: take-and-clear variant. Hands out the newest committed slot
    // and forgets it, so a take finds something only after a new commit.
    int takeAndClear() EXCLUDES(ringMutex, rateMutex);
    cv::Mat& slot(int i) { return frames[i]; }
    // Consumer: done with the slot it took last; from now on the producer
    // may write into it again.
    void slotDone() EXCLUDES(ringMutex);

    // Empties both stamp histories; indices, slots and rates stay. Call only
    // while no producer runs.
    void resetStamps();

    double queueRate() const override EXCLUDES(rateMutex);
    double dequeueRate() const override EXCLUDES(rateMutex);

    int32_t writeIndexValue() const { return writeIndex; }

    // Spare buffers for the producer and for the consumer's composer.
    FramePool pool;

    // Consumer-only: the slot being composed, -1 while none. Not guarded.
    int32_t servingIndex = -1;

private:
    // Appends `stamp` to `history` (keeping the newest kMaxStamps) and
    // returns the rate over it; nothing below two stamps.
    static std::optional<double> pushStamp(std::deque<int64_t>& history, int64_t stamp);
    void recordTake() EXCLUDES(ringMutex, rateMutex);
    // Hands `taken` out as the consumer's slot; returns the buffer of the
    // slot it replaces as such, for the pool, unless that is the write slot.
    cv::Mat handOut(int32_t taken) REQUIRES(ringMutex);

    std::array<cv::Mat, kSlots> frames;
    int32_t writeIndex = 0;  // written by the producer only (under ringMutex)
    int32_t lastWritten GUARDED_BY(ringMutex) = -1;
    int32_t lastServed GUARDED_BY(ringMutex) = -1;
    bool servedSlotRewritten GUARDED_BY(ringMutex) = false;  // committed into lastServed's slot
    bool slotHeld GUARDED_BY(ringMutex) = false;             // lastServed's, until slotDone()
    cv::Size decodedSize;  // producer's: the last committed frame's shape
    int decodedType = -1;
    CondVar committed;                  // signalled on every commit; waited on with ringMutex
    std::deque<int64_t> queueStamps;    // producer's
    std::deque<int64_t> dequeueStamps;  // consumer's
    mutable Mutex ringMutex;
    mutable Mutex rateMutex;
    double dequeueRateValue GUARDED_BY(rateMutex) = 0.0;
    double queueRateValue GUARDED_BY(rateMutex) = 0.0;
    Clock clock;
};
