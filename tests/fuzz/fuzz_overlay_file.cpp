// The overlay file from arbitrary bytes: every input is a new version of the
// file, followed and drawn onto a frame that must stay 1280 x 720 in the
// same buffer.
#include <cstdlib>

#include "../support/support.h"
#include "frame_composer.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static const TempDir dir;
    static const std::string path = dir.file("overlays.json");
    static FakeRates rates;
    static FramePool pool;
    static FrameComposer composer(rates, pool, path);
    static cv::Mat frame(kOutputHeight, kOutputWidth, CV_8UC3, cv::Scalar(90, 60, 40));
    static time_t version = (std::freopen("/dev/null", "w", stdout), 1);  // one message per element and frame
    rates.queue = 29.97;
    rates.dequeue = 1e300;
    writeFile(path, std::string(reinterpret_cast<const char*>(data), size), version++);
    const uchar* pixels = frame.data;
    composer.applyOverlays(frame);
    if (frame.data != pixels || frame.rows != kOutputHeight || frame.cols != kOutputWidth) std::abort();
    return 0;
}
