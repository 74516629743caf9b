#include "frame_ring.h"

#include <algorithm>
#include <chrono>

int64_t FrameRing::systemClockNanos() {
    return std::chrono::duration_cast<std::chrono::nanoseconds>(
               std::chrono::system_clock::now().time_since_epoch())
        .count();
}

FrameRing::FrameRing(Clock clock) : clock(clock) {}

void FrameRing::commitFrame() {
    const int64_t now = clock();
    {
        std::lock_guard<std::mutex> lock(ringMutex);
        commitStamps[writeIndex] = now;
        lastWritten = writeIndex;
        writeIndex = (writeIndex + 1) % kSlots;
    }
    committed.notify_one();
    recordRate(queueStamps, queueRateValue, now);
}

bool FrameRing::waitForNew(int64_t micros) {
    std::unique_lock<std::mutex> lock(ringMutex);
    return committed.wait_for(lock, std::chrono::microseconds(std::max<int64_t>(micros, 0)),
                              [this] { return lastWritten != lastServed; });
}

int64_t FrameRing::commitStamp(int i) const {
    std::lock_guard<std::mutex> lock(ringMutex);
    return commitStamps[i];
}

int FrameRing::takeNewest() {
    int i;
    {
        std::lock_guard<std::mutex> lock(ringMutex);
        i = lastWritten;
        if (i == lastServed) return -1;
        lastServed = i;
    }
    if (i == -1) return -1;
    recordRate(dequeueStamps, dequeueRateValue, clock());
    return i;
}

int FrameRing::takeAndClear() {
    int i;
    {
        std::lock_guard<std::mutex> lock(ringMutex);
        i = lastWritten;
        lastWritten = -1;
    }
    if (i != -1) recordRate(dequeueStamps, dequeueRateValue, clock());
    return i;
}

void FrameRing::resetStamps() {
    dequeueStamps.clear();
    queueStamps.clear();
}

double FrameRing::queueRate() const {
    std::lock_guard<std::mutex> lock(rateMutex);
    return queueRateValue;
}

double FrameRing::dequeueRate() const {
    std::lock_guard<std::mutex> lock(rateMutex);
    return dequeueRateValue;
}

int32_t FrameRing::lastWrittenValue() const {
    std::lock_guard<std::mutex> lock(ringMutex);
    return lastWritten;
}

// Intervals per second over the last up to 120 intervals. Same clock
// readings give an infinite rate, a clock stepped back a negative one; both
// are stored as computed and replaced by later stamps.
void FrameRing::recordRate(std::deque<int64_t>& history, double& rate, int64_t stamp) {
    if (history.size() > kMaxStamps - 1) history.pop_front();
    history.push_back(stamp);
    const size_t n = history.size();
    if (n < 2) return;
    const int64_t span = history.back() - history.front();
    const double value = (static_cast<double>(n) - 1.0) * 1000.0 / (static_cast<double>(span) * 1e-6);
    std::lock_guard<std::mutex> lock(rateMutex);
    rate = value;
}
