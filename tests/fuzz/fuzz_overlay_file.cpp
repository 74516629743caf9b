// The overlay file from arbitrary bytes: every input is a new version of the
// file, followed and drawn onto a frame, which must stay 1280 x 720 in the
// same buffer.
#include <sys/stat.h>

#include <cstdio>
#include <cstdlib>
#include <string>

#include "frame_composer.h"

namespace {
struct Rates : RateSource {
    double queueRate() const override { return 29.97; }
    double dequeueRate() const override { return 1e300; }
} g_rates;
}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static const std::string path = "/tmp/vs-fuzz-overlays-" + std::to_string(getpid()) + ".json";
    static FrameComposer composer(g_rates, path);
    static cv::Mat frame(kOutputHeight, kOutputWidth, CV_8UC3, cv::Scalar(90, 60, 40));
    static time_t version = 1;
    static const bool quiet = std::freopen("/dev/null", "w", stdout) != nullptr;
    (void)quiet;
    FILE* file = std::fopen(path.c_str(), "wb");
    std::fwrite(data, 1, size, file);
    std::fclose(file);
    const timespec times[2] = {{version, 0}, {version, 0}};
    ++version;
    utimensat(AT_FDCWD, path.c_str(), times, 0);
    const uchar* pixels = frame.data;
    composer.applyOverlays(frame);
    if (frame.data != pixels || frame.rows != kOutputHeight || frame.cols != kOutputWidth) std::abort();
    return 0;
}
