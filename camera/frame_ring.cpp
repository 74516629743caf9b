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
        MutexLock lock(&ringMutex);
        lastWritten = writeIndex;
        writeIndex = (writeIndex + 1) % kSlots;
    }
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

int FrameRing::takeNewest() {
    int i;
    {
        MutexLock lock(&ringMutex);
        i = lastWritten;
        if (i == lastServed) return -1;
        lastServed = i;
    }
    if (i == -1) return -1;
    recordTake();
    return i;
}

int FrameRing::takeAndClear() {
    int i;
    {
        MutexLock lock(&ringMutex);
        i = lastWritten;
        lastWritten = -1;
    }
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
