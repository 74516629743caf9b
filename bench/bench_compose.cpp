// Cost of composing one served frame from a photograph (natural texture,
// the JPEG encoder's real work): the whole composeFrame() for 1080p and
// 720p cameras, with and without four overlays, and the two steps that have
// faster paths, each against the library call it stands in for.
//
// Every repetition times exactly one frame; median and p99 over 200. The
// input is copied into the slot before each frame, outside the timed
// region, because composing scales the slot in place.
//
//   build/bench-compose [--image PATH] [--benchmark_filter=REGEX]
// PATH defaults to a photograph of the mate-backgrounds package (make bench
// installs it); it is cropped to 1920 x 1080 and scaled down for 720p.
#include <benchmark/benchmark.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <memory>
#include <opencv2/imgcodecs.hpp>
#include <opencv2/imgproc.hpp>
#include <string>
#include <vector>

#include "composer_fixture.h"
#include "frame_composer.h"
#include "scale_three_to_two.h"

namespace {

SteadyRates g_rates;
std::filesystem::path g_dir;
cv::Mat g_fullHd, g_hd;

using Clock = std::chrono::steady_clock;
double seconds(Clock::duration d) { return std::chrono::duration<double>(d).count(); }

const cv::Mat& input(int height) { return height == 1080 ? g_fullHd : g_hd; }

FrameComposer& composer(bool overlays) {
    static FramePool pool;
    static FrameComposer with(g_rates, pool, (g_dir / "overlays.json").string());
    static FrameComposer without(g_rates, pool, (g_dir / "absent.json").string());
    return overlays ? with : without;
}

// Times `step` on a fresh copy of the input, once per repetition.
template <typename Step>
void perFrame(benchmark::State& state, const cv::Mat& in, Step step) {
    cv::Mat slot;
    for (auto _ : state) {
        in.copyTo(slot);
        const auto start = Clock::now();
        step(slot);
        state.SetIterationTime(seconds(Clock::now() - start));
    }
}

void BM_Compose(benchmark::State& state) {
    FrameComposer& c = composer(state.range(1) != 0);
    std::size_t bytes = 0;
    perFrame(state, input(static_cast<int>(state.range(0))), [&](cv::Mat& slot) {
        const std::string jpeg = c.composeFrame(slot);
        bytes = jpeg.size();
    });
    state.counters["jpeg_bytes"] = static_cast<double>(bytes);
}

void BM_Scale1080(benchmark::State& state) {
    const bool library = state.range(0) != 0;
    cv::Mat scaled;
    perFrame(state, g_fullHd, [&](cv::Mat& slot) {
        if (library)
            cv::resize(slot, scaled, cv::Size(1280, 720), 0, 0, cv::INTER_LINEAR);
        else
            scaleThreeToTwo(slot, scaled, cv::Size(1280, 720));
        benchmark::DoNotOptimize(scaled.data);
    });
}

void BM_Encode720(benchmark::State& state) {
    const bool library = state.range(0) != 0;
    FrameComposer& c = composer(false);
    std::vector<uchar> out;
    perFrame(state, g_hd, [&](cv::Mat& slot) {
        if (library)
            cv::imencode(".jpg", slot, out, c.encodeParams);
        else
            FrameComposerPeer::encode(c, slot, out);
        benchmark::DoNotOptimize(out.data());
    });
}

double percentile99(const std::vector<double>& samples) {
    std::vector<double> sorted(samples);
    std::sort(sorted.begin(), sorted.end());
    const auto rank =
        static_cast<std::size_t>(std::ceil(0.99 * static_cast<double>(sorted.size())));
    return sorted.empty() ? 0.0 : sorted[std::max<std::size_t>(rank, 1) - 1];
}

void repeated(benchmark::internal::Benchmark* b) {
    b->UseManualTime()
        ->Iterations(1)
        ->Repetitions(200)
        ->ComputeStatistics("p99", percentile99)
        ->ReportAggregatesOnly(true)
        ->Unit(benchmark::kMillisecond);
}

BENCHMARK(BM_Compose)
    ->ArgNames({"h", "overlays"})
    ->ArgsProduct({{1080, 720}, {0, 1}})
    ->Apply(repeated);
BENCHMARK(BM_Scale1080)->ArgNames({"library"})->Arg(0)->Arg(1)->Apply(repeated);
BENCHMARK(BM_Encode720)->ArgNames({"library"})->Arg(0)->Arg(1)->Apply(repeated);

}  // namespace

int main(int argc, char** argv) {
    std::string image = "/usr/share/backgrounds/mate/nature/Wood.jpg";
    for (int i = 1; i + 1 < argc; ++i) {
        if (std::strcmp(argv[i], "--image") == 0) {
            image = argv[i + 1];
            std::copy(argv + i + 2, argv + argc + 1, argv + i);  // hide it from the library
            argc -= 2;
            break;
        }
    }
    const cv::Mat photo = cv::imread(image, cv::IMREAD_COLOR);
    if (photo.cols < 1920 || photo.rows < 1080) {
        std::fprintf(stderr, "bench-compose: %s: need a photograph of at least 1920 x 1080\n",
                     image.c_str());
        return 1;
    }
    g_fullHd =
        photo(cv::Rect((photo.cols - 1920) / 2, (photo.rows - 1080) / 2, 1920, 1080)).clone();
    cv::resize(g_fullHd, g_hd, cv::Size(1280, 720), 0, 0, cv::INTER_AREA);

    std::string tmpl = (std::filesystem::temp_directory_path() / "bench-compose-XXXXXX").string();
    if (mkdtemp(tmpl.data()) == nullptr) return 1;
    g_dir = tmpl;
    writeFourOverlays(g_dir / "overlays.json");
    // The overlay file's one message, before the timed runs.
    cv::Mat warmUp = g_hd.clone();
    composer(true).composeFrame(warmUp);

    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    std::filesystem::remove_all(g_dir);
    return 0;
}
