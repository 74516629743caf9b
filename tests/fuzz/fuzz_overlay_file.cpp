// The overlay file under arbitrary content: each input becomes the whole
// file, with a modification time never seen before, and is followed,
// parsed, read and drawn onto a 1280 x 720 frame, twice: once freshly parsed
// and once from the document kept between frames.
//
// Beyond the sanitizers, the frame must keep its size, type and buffer:
// overlays are drawn into the frame in place and never reallocate it.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <opencv2/core.hpp>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>

#include "frame_composer.h"

namespace {

class FixedRates : public RateSource {
public:
    double queueRate() const override { return 29.97; }
    double dequeueRate() const override { return 1e300; }
};

FixedRates g_rates;
FrameComposer* g_composer = nullptr;
std::string g_path;
cv::Mat g_frame;
time_t g_mtime = 1;

[[noreturn]] void fail(const char* what) {
    std::fprintf(stderr, "fuzz_overlay_file: %s\n", what);
    std::abort();
}

void writeOverlayFile(const uint8_t* data, size_t size) {
    const int fd = open(g_path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    if (fd < 0) fail("cannot write the overlay file");
    size_t done = 0;
    while (done < size) {
        const ssize_t n = write(fd, data + done, size - done);
        if (n <= 0) fail("short write");
        done += static_cast<size_t>(n);
    }
    // A new whole-second time for every input, so each one is parsed.
    const timespec times[2] = {{g_mtime, 0}, {g_mtime, 0}};
    ++g_mtime;
    if (futimens(fd, times) != 0) fail("futimens");
    close(fd);
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    // The overlay file's messages go to standard output, one per element
    // and frame; keep them out of libFuzzer's output.
    if (!freopen("/dev/null", "w", stdout)) return 1;
    char dir[] = "/tmp/vs-fuzz-overlay-XXXXXX";
    if (mkdtemp(dir) == nullptr) return 1;
    g_path = std::string(dir) + "/overlays.json";
    static const std::string directory = dir;
    std::atexit([] {
        unlink(g_path.c_str());
        rmdir(directory.c_str());
    });
    g_composer = new FrameComposer(g_rates, g_path);
    g_frame = cv::Mat(kOutputHeight, kOutputWidth, CV_8UC3, cv::Scalar(90, 60, 40));
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    writeOverlayFile(data, size);
    const uchar* pixels = g_frame.data;
    for (int pass = 0; pass < 2; ++pass) {
        g_composer->applyOverlays(g_frame);
        if (g_frame.data != pixels || g_frame.cols != kOutputWidth || g_frame.rows != kOutputHeight ||
            g_frame.type() != CV_8UC3) {
            fail("the frame was reallocated or resized");
        }
    }
    return 0;
}
