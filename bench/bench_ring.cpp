// The consumer's side of the frame ring at a camera's pace: a producer
// thread commits a frame every 33 ms and the consumer takes each one either
// by polling every loop period (take, else sleep one period) or as getImage
// does, waiting for the commit (take, else waitForNew for what is left of
// its one-second budget). Reports the consumer thread's CPU time per frame
// (the benchmark's time) and how late it takes each frame after its commit
// (counters, ms).
//
//   build/bench-ring [--benchmark_filter=REGEX]
#include <benchmark/benchmark.h>
#include <time.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <thread>
#include <vector>

#include "frame_ring.h"
#include "settings.h"

namespace {

constexpr int kFrames = 60;
constexpr auto kFrameInterval = std::chrono::microseconds(33333);

double threadCpuSeconds() {
    timespec t;
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &t);
    return static_cast<double>(t.tv_sec) + static_cast<double>(t.tv_nsec) * 1e-9;
}

// range(0): 0 polls with sleeps, 1 waits for the commit.
void BM_ConsumerAt30fps(benchmark::State& state) {
    const bool waitForCommit = state.range(0) != 0;
    std::vector<double> lateMs;
    for (auto _ : state) {
        FrameRing ring;
        std::thread producer([&ring] {
            auto next = std::chrono::steady_clock::now();
            for (int n = 0; n < kFrames; ++n) {
                next += kFrameInterval;
                std::this_thread::sleep_until(next);
                ring.writeSlot() = cv::Mat(1, 1, CV_8UC1, cv::Scalar(n));
                ring.commitFrame();
            }
        });
        const double start = threadCpuSeconds();
        for (int taken = 0; taken < kFrames;) {
            const int i = ring.takeNewest();
            if (i != -1) {
                const int64_t late = ring.lastTakeStamp() - ring.commitStamp(i);
                lateMs.push_back(static_cast<double>(late) * 1e-6);
                ring.slotDone();
                ++taken;
            } else if (waitForCommit) {
                ring.waitForNew(1000 * g_loopPeriod);
            } else {
                sleepLoopPeriod();
            }
        }
        state.SetIterationTime((threadCpuSeconds() - start) / kFrames);
        producer.join();
    }
    std::sort(lateMs.begin(), lateMs.end());
    state.counters["late_median_ms"] = lateMs[lateMs.size() / 2];
    state.counters["late_p99_ms"] = lateMs[lateMs.size() * 99 / 100];
}

BENCHMARK(BM_ConsumerAt30fps)
    ->ArgNames({"wait_for_commit"})
    ->Arg(0)
    ->Arg(1)
    ->UseManualTime()
    ->Iterations(1)
    ->Repetitions(3)
    ->ReportAggregatesOnly(true)
    ->Unit(benchmark::kMicrosecond);

}  // namespace

BENCHMARK_MAIN();
