// bench-latency: glass-to-glass latency against `test-camera --stamp`. Every
// frame the camera makes carries its generation time (tools/stamp.h); this
// reads it back from what a client receives and prints the age of the frame
// at that moment, median and 95th percentile, over a window.
//
//   bench-latency --port P [--single] [--warmup S] [--window S]
//       the video server on 127.0.0.1:P as one stream client, or (--single)
//       one single-image request after another
//   bench-latency --stdin [--warmup S] [--window S]
//       another program's multipart JPEG output on standard input
//   bench-latency --capture URL [--warmup S] [--window S]
//       a bare cv::VideoCapture read loop on the camera: the capture
//       library's own share
//
// Prints samples=, latency_p50_ms= and latency_p95_ms=. Exits 1 when no
// frame with a readable stamp arrives.
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <opencv2/imgcodecs.hpp>
#include <opencv2/imgproc.hpp>
#include <opencv2/videoio.hpp>
#include <string>
#include <vector>

#include "stamp.h"
#include "support.h"  // LoopbackClient

namespace {

using Clock = std::chrono::steady_clock;

int64_t nowMicros() {
    return std::chrono::duration_cast<std::chrono::microseconds>(
               std::chrono::system_clock::now().time_since_epoch())
        .count();
}

// The window opens `warmup` seconds after the first frame, so that what a
// program buffered while it opened does not count.
struct Ages {
    Ages(Clock::duration warmup, Clock::duration window) : warmup(warmup), window(window) {}
    Clock::duration warmup, window;
    Clock::time_point start = Clock::time_point::max(),
                      end = Clock::now() + std::chrono::seconds(30);
    std::vector<double> millis;
    bool done() const { return Clock::now() >= end; }
    // The age of a frame received now, if its stamp reads and the window is open.
    void add(const cv::Mat& grey) {
        const int64_t now = nowMicros();
        if (start == Clock::time_point::max()) start = Clock::now() + warmup, end = start + window;
        if (grey.empty() || Clock::now() < start) return;
        if (auto t = stamp::read(grey.data, grey.step, grey.cols, grey.rows, now)) {
            millis.push_back(static_cast<double>(now - *t) / 1000.0);
        }
    }
    void addJpeg(const std::string& jpeg) {
        add(cv::imdecode(
            cv::Mat(1, static_cast<int>(jpeg.size()), CV_8U, const_cast<char*>(jpeg.data())),
            cv::IMREAD_GRAYSCALE));
    }
};

// Takes every whole JPEG (SOI to EOI) out of `buffer`; what follows the last
// one stays. Entropy-coded data never holds FF D9, so EOI ends a picture.
void takeJpegs(std::string& buffer, Ages& ages) {
    for (;;) {
        const size_t soi = buffer.find("\xff\xd8");
        const size_t eoi = soi == std::string::npos ? soi : buffer.find("\xff\xd9", soi + 2);
        if (eoi == std::string::npos) return;
        ages.addJpeg(buffer.substr(soi, eoi + 2 - soi));
        buffer.erase(0, eoi + 2);
    }
}

}  // namespace

int main(int argc, char** argv) {
    int port = 0;
    bool single = false, fromStdin = false;
    std::string capture;
    double warmup = 3, window = 20;
    for (int i = 1; i < argc; ++i) {
        const std::string arg = argv[i];
        const auto value = [&] { return i + 1 < argc ? argv[++i] : ""; };
        if (arg == "--single")
            single = true;
        else if (arg == "--stdin")
            fromStdin = true;
        else if (arg == "--port")
            port = std::atoi(value());
        else if (arg == "--capture")
            capture = value();
        else if (arg == "--warmup")
            warmup = std::atof(value());
        else if (arg == "--window")
            window = std::atof(value());
        else
            return std::fprintf(stderr, "bench-latency: unknown option %s\n", arg.c_str()), 2;
    }
    if (port <= 0 && !fromStdin && capture.empty())
        return std::fprintf(stderr, "bench-latency: nothing to read\n"), 2;

    const auto seconds = [](double s) {
        return std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(s));
    };
    Ages ages(seconds(warmup), seconds(window));
    if (!capture.empty()) {
        cv::VideoCapture camera(capture);
        for (cv::Mat frame, grey; camera.isOpened() && !ages.done();) {
            if (!camera.read(frame)) continue;
            cv::cvtColor(frame, grey, cv::COLOR_BGR2GRAY);
            ages.add(grey);
        }
    } else if (fromStdin) {
        std::string buffer;
        for (char chunk[65536]; !ages.done();) {
            const ssize_t n = read(STDIN_FILENO, chunk, sizeof chunk);
            if (n <= 0) break;
            buffer.append(chunk, static_cast<size_t>(n));
            takeJpegs(buffer, ages);
        }
    } else if (single) {
        for (int id = 1; !ages.done(); ++id) {
            LoopbackClient client(port);
            client.send("GET /?frame_id=" + std::to_string(id) + " HTTP/1.1\r\n\r\n");
            std::string answer = client.read(SIZE_MAX, 5s);
            if (!client.eof) answer.clear();
            takeJpegs(answer, ages);
        }
    } else {
        LoopbackClient client(port);
        client.send("GET / HTTP/1.1\r\n\r\n");
        std::string buffer;
        for (size_t had = 0; !ages.done() && !client.eof; had = client.data.size()) {
            buffer += client.read(had + 1, 100ms).substr(had);
            takeJpegs(buffer, ages);
        }
    }
    if (ages.millis.empty()) return std::fprintf(stderr, "bench-latency: no stamped frame\n"), 1;
    std::sort(ages.millis.begin(), ages.millis.end());
    const auto at = [&](double q) {
        return ages.millis[static_cast<size_t>(q * static_cast<double>(ages.millis.size() - 1))];
    };
    std::printf("samples=%zu\nlatency_p50_ms=%.1f\nlatency_p95_ms=%.1f\n", ages.millis.size(),
                at(0.5), at(0.95));
    return 0;
}
