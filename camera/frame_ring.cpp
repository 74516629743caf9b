#include "frame_ring.h"

#include <algorithm>
#include <chrono>
#include <utility>

int64_t FrameRing::systemClockNanos() {
    return std::chrono::duration_cast<std::chrono::nanoseconds>(
               std::chrono::system_clock::now().time_since_epoch())
        .count();
}

FrameRing::FrameRing(Clock clock) : clock(clock) {}

cv::Mat& FrameRing::prepareWriteSlot() {
    cv::Mat& slot = writeSlot();
    if (decodedType != -1 && (slot.size() != decodedSize || slot.type() != decodedType)) {
        // The slot is empty, or still holds a composed frame that the
        // consumer let go of long ago.
        pool.give(std::exchange(slot, pool.take(decodedSize, decodedType)));
    }
    return slot;
}

void FrameRing::commitFrame() {
    const int64_t now = clock();
    decodedSize = frames[writeIndex].size();
    decodedType = frames[writeIndex].type();
    cv::Mat replacedFrame;
    {
        MutexLock lock(&ringMutex);
        // The slot served last is the consumer's, unless the producer has
        // come round to it since: then it holds a frame no take hands out.
        const int32_t replaced =
            lastWritten != lastServed || servedSlotRewritten ? lastWritten : -1;
        // Moved under ringMutex: in the second case the consumer's next take
        // gives back the same slot (see handOut).
        if (replaced != -1) replacedFrame = std::move(frames[replaced]);
        servedSlotRewritten = writeIndex == lastServed;
        lastWritten = writeIndex;
        writeIndex = (writeIndex + 1) % kSlots;
        // The consumer is still reading the frame it took: passed over.
        if (slotHeld && writeIndex == lastServed) writeIndex = (writeIndex + 1) % kSlots;
    }
    // No take can reach the replaced frame any more and the consumer does
    // not hold it: its buffer is free.
    pool.give(std::move(replacedFrame));
    committed.signal();
    if (const auto rate = pushStamp(queueStamps, now)) {
        MutexLock lock(&rateMutex);
        queueRateValue = *rate;
    }
}

bool FrameRing::waitForNew(int64_t micros) {
    const auto deadline =
        std::chrono::steady_clock::now() + std::chrono::microseconds(std::max<int64_t>(micros, 0));
    MutexLock lock(&ringMutex);
    while (lastWritten == lastServed) {
        if (!committed.waitUntil(ringMutex, deadline)) return lastWritten != lastServed;
    }
    return true;
}

cv::Mat FrameRing::handOut(int32_t taken) {
    cv::Mat released;
    // Moved under ringMutex: once the lock is released, a commit may make
    // this slot the producer's write slot.
    if (lastServed != -1 && lastServed != writeIndex) released = std::move(frames[lastServed]);
    lastServed = taken;
    servedSlotRewritten = false;
    slotHeld = true;
    return released;
}

void FrameRing::slotDone() {
    MutexLock lock(&ringMutex);
    slotHeld = false;
}

int FrameRing::takeNewest() {
    int i;
    cv::Mat released;
    {
        MutexLock lock(&ringMutex);
        i = lastWritten;
        if (i == lastServed) return -1;
        released = handOut(i);
    }
    pool.give(std::move(released));
    if (i == -1) return -1;
    recordTake();
    return i;
}

int FrameRing::takeAndClear() {
    int i;
    cv::Mat released;
    {
        MutexLock lock(&ringMutex);
        i = lastWritten;
        lastWritten = -1;
        if (i != -1) released = handOut(i);
    }
    pool.give(std::move(released));
    if (i != -1) recordTake();
    return i;
}

void FrameRing::resetStamps() {
    dequeueStamps.clear();
    queueStamps.clear();
}

double FrameRing::queueRate() const {
    MutexLock lock(&rateMutex);
    return queueRateValue;
}

double FrameRing::dequeueRate() const {
    MutexLock lock(&rateMutex);
    return dequeueRateValue;
}

// Intervals per second over the last up to 120 intervals. Same clock
// readings give an infinite rate, a clock stepped back a negative one; both
// are stored as computed and replaced by later stamps.
std::optional<double> FrameRing::pushStamp(std::deque<int64_t>& history, int64_t stamp) {
    if (history.size() > kMaxStamps - 1) history.pop_front();
    history.push_back(stamp);
    const size_t n = history.size();
    if (n < 2) return std::nullopt;
    const int64_t span = history.back() - history.front();
    return (static_cast<double>(n) - 1.0) * 1000.0 / (static_cast<double>(span) * 1e-6);
}

// The rate is computed outside rateMutex and only stored under it.
void FrameRing::recordTake() {
    if (const auto rate = pushStamp(dequeueStamps, clock())) {
        MutexLock lock(&rateMutex);
        dequeueRateValue = *rate;
    }
}
