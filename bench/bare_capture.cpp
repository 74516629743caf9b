// bench-bare-capture: the floor that the server's memory and instructions
// per frame are measured against. A bare cv::VideoCapture read loop on the
// same camera, opened by URL alone as the server opens it, decoding into
// one matrix and doing nothing else, until SIGINT or SIGTERM.
//
//   bench-bare-capture [--each] URL
// --each: a line "frame" on stdout for every frame read, as it is read.
#include <csignal>
#include <cstdio>
#include <cstring>
#include <opencv2/videoio.hpp>

namespace {
volatile std::sig_atomic_t g_stop = 0;
void onSignal(int) { g_stop = 1; }
}  // namespace

int main(int argc, char** argv) {
    const bool each = argc == 3 && std::strcmp(argv[1], "--each") == 0;
    if (argc != 2 && !each) {
        std::fprintf(stderr, "usage: bench-bare-capture [--each] URL\n");
        return 2;
    }
    std::signal(SIGINT, onSignal);
    std::signal(SIGTERM, onSignal);
    cv::VideoCapture capture(argv[argc - 1]);
    if (!capture.isOpened()) return 1;
    cv::Mat frame;
    long frames = 0;
    while (!g_stop) {
        capture >> frame;
        if (frame.empty()) continue;
        ++frames;
        if (each) {
            std::fputs("frame\n", stdout);
            std::fflush(stdout);
        }
    }
    std::printf("frames=%ld\n", frames);
    return 0;
}
