// bench-bare-capture: the floor that the server's memory is measured
// against. A bare cv::VideoCapture read loop on the same camera, opened by
// URL alone as the server opens it, decoding into one matrix and doing
// nothing else, until SIGINT or SIGTERM.
//
//   bench-bare-capture URL
#include <csignal>
#include <cstdio>
#include <opencv2/videoio.hpp>

namespace {
volatile std::sig_atomic_t g_stop = 0;
void onSignal(int) { g_stop = 1; }
}  // namespace

int main(int argc, char** argv) {
    if (argc != 2) {
        std::fprintf(stderr, "usage: bench-bare-capture URL\n");
        return 2;
    }
    std::signal(SIGINT, onSignal);
    std::signal(SIGTERM, onSignal);
    cv::VideoCapture capture(argv[1]);
    if (!capture.isOpened()) return 1;
    cv::Mat frame;
    long frames = 0;
    while (!g_stop) {
        capture >> frame;
        if (!frame.empty()) ++frames;
    }
    std::printf("frames=%ld\n", frames);
    return 0;
}
