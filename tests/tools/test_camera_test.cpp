// The bundled test camera, read through OpenCV exactly as the server reads a
// real camera, and the TestCamera fixture that runs it.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/prctl.h>

#include <algorithm>
#include <string>
#include <vector>

#include <opencv2/core.hpp>
#include <opencv2/imgproc.hpp>
#include <opencv2/videoio.hpp>

#include "../../bench/stamp.h"
#include "../test_camera.h"
#include "../test_util.h"

namespace {

using Clock = std::chrono::steady_clock;
using namespace std::chrono_literals;

struct Reading {
    int frames = 0;          // frames read before `count` or the first failed read
    int wrongSize = 0;       // frames not of the expected size
    int changedSamples = 0;  // channel samples that differ clearly between first and last frame
};

Reading readFrames(cv::VideoCapture& cap, int count, cv::Size expected) {
    Reading r;
    cv::Mat first, frame;
    while (r.frames < count && cap.read(frame)) {
        if (frame.size() != expected) ++r.wrongSize;
        if (r.frames++ == 0) first = frame.clone();
    }
    if (r.frames > 1 && first.size() == frame.size()) {
        cv::Mat diff;
        cv::absdiff(first, frame, diff);
        r.changedSamples = cv::countNonZero(diff.reshape(1) > 64);
    }
    return r;
}

bool exitedWithZero(int status) { return status != -1 && WIFEXITED(status) && WEXITSTATUS(status) == 0; }

struct ServeCase {
    const char* size;
    const char* path;
    cv::Size expected;
};

void PrintTo(const ServeCase& c, std::ostream* os) { *os << c.size << " at " << c.path; }

class TestCameraServes : public ::testing::TestWithParam<ServeCase> {};

TEST_P(TestCameraServes, MovingPictureOfTheRequestedSizeThroughOpenCV) {
    const ServeCase& c = GetParam();
    TestCamera cam(0, c.size, 30, c.path);
    ASSERT_TRUE(cam.start());
    ASSERT_GT(cam.port(), 0);
    EXPECT_EQ(cam.url(), "rtsp://127.0.0.1:" + std::to_string(cam.port()) + c.path);
    EXPECT_TRUE(cam.running());

    // The server opens its camera this way: default backend, no options. The
    // camera refuses UDP, and FFmpeg must fall back to TCP by itself.
    cv::VideoCapture cap(cam.url());
    ASSERT_TRUE(cap.isOpened());
    EXPECT_EQ(cap.getBackendName(), "FFMPEG");
    Reading r = readFrames(cap, 30, c.expected);
    EXPECT_EQ(r.frames, 30);
    EXPECT_EQ(r.wrongSize, 0);
    EXPECT_GT(r.changedSamples, 100) << "the picture should move within a second";
}

INSTANTIATE_TEST_SUITE_P(Sizes, TestCameraServes,
                         ::testing::Values(ServeCase{"1280x720", "/stream", {1280, 720}},
                                           ServeCase{"640x480", "/cam/live", {640, 480}}),
                         [](const ::testing::TestParamInfo<ServeCase>& info) {
                             return std::string(info.param.size);
                         });

TEST(TestCameraTest, ClientSeesEndOfStreamAtOnceAndCameraReturnsOnSamePort) {
    TestCamera cam(0, "640x480", 30);
    ASSERT_TRUE(cam.start());
    const int port = cam.port();
    const std::string url = cam.url();
    {
        cv::VideoCapture cap(url);
        ASSERT_TRUE(cap.isOpened());
        ASSERT_EQ(readFrames(cap, 10, {640, 480}).frames, 10);

        EXPECT_TRUE(exitedWithZero(cam.stop()));
        EXPECT_FALSE(cam.running());

        // The closed TCP connection ends the stream: after the few frames
        // still in buffers, a read fails at once rather than after a time-out.
        const auto stopped = Clock::now();
        cv::Mat frame;
        int drained = 0;
        while (drained < 100 && cap.read(frame)) ++drained;
        EXPECT_LT(drained, 100);
        EXPECT_LT(Clock::now() - stopped, 3s);
    }

    ASSERT_TRUE(cam.start());
    EXPECT_EQ(cam.port(), port);
    EXPECT_EQ(cam.url(), url);
    cv::VideoCapture cap(url);
    ASSERT_TRUE(cap.isOpened());
    EXPECT_EQ(readFrames(cap, 10, {640, 480}).frames, 10);
}

// The test camera with --stamp, which TestCamera's fixed argument list cannot
// pass; killed when the test ends (or dies).
class StampedCamera {
public:
    explicit StampedCamera(const char* size) {
        int out[2];
        if (pipe2(out, O_CLOEXEC) != 0) return;
        pid_ = fork();
        if (pid_ == 0) {
            prctl(PR_SET_PDEATHSIG, SIGKILL);
            dup2(out[1], STDOUT_FILENO);
            execl(TEST_CAMERA_BIN, TEST_CAMERA_BIN, "--port", "0", "--size", size, "--stamp",
                  static_cast<char*>(nullptr));
            _exit(127);
        }
        close(out[1]);
        const auto deadline = Clock::now() + 10s;
        std::string line;
        while (pid_ > 0 && line.find('\n') == std::string::npos && Clock::now() < deadline) {
            pollfd p{out[0], POLLIN, 0};
            if (poll(&p, 1, 100) != 1) continue;
            char buf[256];
            ssize_t n = read(out[0], buf, sizeof buf);
            if (n <= 0) break;
            line.append(buf, static_cast<size_t>(n));
        }
        close(out[0]);
        if (auto nl = line.find('\n'); nl != std::string::npos) url_ = line.substr(0, nl);
    }
    ~StampedCamera() {
        if (pid_ > 0) {
            kill(pid_, SIGKILL);
            waitpid(pid_, nullptr, 0);
        }
    }
    StampedCamera(const StampedCamera&) = delete;
    StampedCamera& operator=(const StampedCamera&) = delete;

    // Empty when the camera did not come up.
    const std::string& url() const { return url_; }

private:
    pid_t pid_ = -1;
    std::string url_;
};

int64_t unixMicros() {
    return std::chrono::duration_cast<std::chrono::microseconds>(
               std::chrono::system_clock::now().time_since_epoch())
        .count();
}

std::optional<int64_t> readStamp(const cv::Mat& bgr, int64_t now) {
    cv::Mat grey;
    cv::cvtColor(bgr, grey, cv::COLOR_BGR2GRAY);
    return stamp::read(grey.data, grey.step, grey.cols, grey.rows, now);
}

// The stamp is written before H.264 encoding and must come out of OpenCV's
// decode as the frame's generation time: every frame stamped, stamps rising at
// the frame rate, and a frame read as it arrives only a little older than now.
TEST(TestCameraTest, StampCarriesEachFramesGenerationTime) {
    StampedCamera cam("1920x1080");
    ASSERT_FALSE(cam.url().empty());
    cv::VideoCapture cap(cam.url());
    ASSERT_TRUE(cap.isOpened());

    // The first frames come out of the buffer FFmpeg filled while probing;
    // later reads wait for the camera and see fresh frames.
    constexpr int kFrames = 40;
    std::vector<int64_t> stamps, ages;
    cv::Mat frame;
    while (static_cast<int>(stamps.size()) < kFrames && cap.read(frame)) {
        ASSERT_EQ(frame.size(), cv::Size(1920, 1080));
        const int64_t now = unixMicros();
        std::optional<int64_t> t = readStamp(frame, now);
        ASSERT_TRUE(t.has_value()) << "frame " << stamps.size() << " carries no readable stamp";
        stamps.push_back(*t);
        ages.push_back(now - *t);
    }
    ASSERT_EQ(static_cast<int>(stamps.size()), kFrames);
    for (size_t i = 1; i < stamps.size(); ++i) EXPECT_GT(stamps[i], stamps[i - 1]) << "frame " << i;
    const double meanInterval = double(stamps.back() - stamps.front()) / (kFrames - 1);
    EXPECT_GT(meanInterval, 25000.0);
    EXPECT_LT(meanInterval, 45000.0);

    std::vector<int64_t> late(ages.end() - 10, ages.end());
    EXPECT_GE(*std::min_element(late.begin(), late.end()), 0) << "a stamp lies in the future";
    std::nth_element(late.begin(), late.begin() + 5, late.end());
    EXPECT_LT(late[5], 400000) << "median age of the last frames, microseconds";
}

TEST(TestCameraTest, ExitsWithStatusZeroOnSigintIdleAndWhileStreaming) {
    TestCamera cam(0, "320x240", 30);
    ASSERT_TRUE(cam.start());
    EXPECT_TRUE(exitedWithZero(cam.stop(SIGINT)));

    ASSERT_TRUE(cam.start());
    cv::VideoCapture cap(cam.url());
    ASSERT_TRUE(cap.isOpened());
    ASSERT_EQ(readFrames(cap, 5, {320, 240}).frames, 5);
    const int status = cam.stop(SIGINT);
    EXPECT_TRUE(exitedWithZero(status)) << "wait status " << status;
}

}  // namespace
