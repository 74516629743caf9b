// The bundled test camera, read through OpenCV exactly as the server reads a
// real camera, and the TestCamera fixture that runs it.
#include <arpa/inet.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/prctl.h>
#include <sys/socket.h>

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

// Sends one RTSP request on a new connection, closes it and returns the status
// line of the answer ("" if none came within two seconds).
std::string rtspStatusLine(int port, const std::string& request) {
    int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0) return "";
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_port = htons(static_cast<uint16_t>(port));
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    std::string answer;
    if (connect(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) == 0 &&
        send(fd, request.data(), request.size(), MSG_NOSIGNAL) ==
            static_cast<ssize_t>(request.size())) {
        const auto deadline = Clock::now() + 2s;
        char buf[512];
        while (answer.find("\r\n") == std::string::npos && Clock::now() < deadline) {
            pollfd p{fd, POLLIN, 0};
            if (poll(&p, 1, 100) != 1) continue;
            ssize_t n = recv(fd, buf, sizeof buf, 0);
            if (n <= 0) break;
            answer.append(buf, static_cast<size_t>(n));
        }
    }
    close(fd);
    return answer.substr(0, answer.find("\r\n"));
}

std::string setupRequest(const TestCamera& cam, const std::string& transport) {
    return "SETUP " + cam.url() + "/stream=0 RTSP/1.0\r\nCSeq: 1\r\nTransport: " + transport +
           "\r\n\r\n";
}

std::string describeRequest(const TestCamera& cam) {
    return "DESCRIBE " + cam.url() + " RTSP/1.0\r\nCSeq: 1\r\nAccept: application/sdp\r\n\r\n";
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

// Interleaved TCP only: no frame is lost to UDP drops on a loaded machine.
TEST(TestCameraTest, OffersRtpOverTheRtspConnectionOnly) {
    TestCamera cam(0, "320x240", 30);
    ASSERT_TRUE(cam.start());
    EXPECT_EQ(rtspStatusLine(cam.port(),
                             setupRequest(cam, "RTP/AVP;unicast;client_port=40000-40001"))
                  .substr(0, 12),
              "RTSP/1.0 461");
    EXPECT_EQ(rtspStatusLine(cam.port(), setupRequest(cam, "RTP/AVP/TCP;unicast;interleaved=0-1")),
              "RTSP/1.0 200 OK");
}

// Each client that leaves tears the shared pipeline down; the next one, arriving
// at that moment, must still be served (a reconnecting reader does exactly this).
TEST(TestCameraTest, AnswersClientsThatArriveAsTheLastOneLeaves) {
    TestCamera cam(0, "320x240", 30);
    ASSERT_TRUE(cam.start());
    int answered = 0;
    for (int i = 0; i < 20; ++i) {
        std::string status = rtspStatusLine(cam.port(), describeRequest(cam));
        EXPECT_EQ(status, "RTSP/1.0 200 OK") << "request " << i;
        answered += status == "RTSP/1.0 200 OK";
    }
    EXPECT_EQ(answered, 20);
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

TEST(TestCameraTest, PictureCarriesNoStampByDefault) {
    TestCamera cam(0, "1280x720", 30);
    ASSERT_TRUE(cam.start());
    cv::VideoCapture cap(cam.url());
    ASSERT_TRUE(cap.isOpened());
    cv::Mat frame;
    int read = 0;
    for (; read < 10 && cap.read(frame); ++read) {
        EXPECT_FALSE(readStamp(frame, unixMicros()).has_value()) << "frame " << read;
    }
    EXPECT_EQ(read, 10);
}

TEST(TestCameraTest, ServesSeveralClientsAtOnce) {
    TestCamera cam(0, "320x240", 30);
    ASSERT_TRUE(cam.start());
    cv::VideoCapture a(cam.url());
    cv::VideoCapture b(cam.url());
    ASSERT_TRUE(a.isOpened());
    ASSERT_TRUE(b.isOpened());
    cv::Mat fa, fb;
    int both = 0;
    while (both < 10 && a.read(fa) && b.read(fb)) ++both;
    EXPECT_EQ(both, 10);
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

TEST(TestCameraTest, StartFailsPromptlyWhenThePortIsTaken) {
    const int port = testutil::freeLoopbackPort();
    ASSERT_GT(port, 0);
    TestCamera first(port, "320x240");
    ASSERT_TRUE(first.start());
    EXPECT_EQ(first.url(), "rtsp://127.0.0.1:" + std::to_string(port) + "/stream");

    TestCamera second(port, "320x240");
    const auto t0 = Clock::now();
    EXPECT_FALSE(second.start());
    EXPECT_LT(Clock::now() - t0, 5s);
    EXPECT_FALSE(second.running());
    EXPECT_TRUE(WIFEXITED(second.lastStatus()) && WEXITSTATUS(second.lastStatus()) == 1)
        << "wait status " << second.lastStatus();
    EXPECT_TRUE(first.running());
}

TEST(TestCameraTest, CameraDiesWithTheProcessThatStartedIt) {
    // Orphans are handed to this process, so the camera can be reaped here.
    ASSERT_EQ(prctl(PR_SET_CHILD_SUBREAPER, 1), 0);
    int fds[2];
    ASSERT_EQ(pipe(fds), 0);
    const pid_t owner = fork();
    ASSERT_GE(owner, 0);
    if (owner == 0) {
        TestCamera cam(0, "320x240", 30);
        pid_t cameraPid = cam.start() ? cam.pid() : -1;
        (void)!write(fds[1], &cameraPid, sizeof cameraPid);
        _exit(0);  // dies without stopping its camera
    }
    close(fds[1]);
    pid_t cameraPid = -1;
    pollfd p{fds[0], POLLIN, 0};
    if (poll(&p, 1, 15000) == 1) (void)!read(fds[0], &cameraPid, sizeof cameraPid);
    close(fds[0]);
    int status = 0;
    waitpid(owner, &status, 0);
    ASSERT_GT(cameraPid, 0);

    bool reaped = testutil::waitFor(
        [&] { return waitpid(cameraPid, &status, WNOHANG) == cameraPid; }, 5s);
    if (!reaped) {
        kill(cameraPid, SIGKILL);
        waitpid(cameraPid, &status, 0);
    }
    prctl(PR_SET_CHILD_SUBREAPER, 0);
    ASSERT_TRUE(reaped);
    EXPECT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL) << "wait status " << status;
}

}  // namespace
