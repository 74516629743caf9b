#include "camera.h"

#include <gtest/gtest.h>

#include <thread>
#include <opencv2/imgcodecs.hpp>

#include <chrono>
#include <cstdlib>
#include <string>
#include <vector>

#include "../test_camera.h"
#include "../test_util.h"
#include "event_log.h"
#include "settings.h"

namespace {



using Clock = std::chrono::steady_clock;
using namespace std::chrono_literals;

double secondsSince(Clock::time_point t) {
    return std::chrono::duration<double>(Clock::now() - t).count();
}

class CameraTest : public ::testing::Test {
protected:
    void SetUp() override {
        logPath = dir.file("stream.log");
        setEventLogPath(logPath.c_str());
        overlayPath = dir.file("overlays.json");  // absent: frames without overlays
        settings = StreamSettings{"", 1280, 720, 30.0, "h264", "", kCameraAddress, 554};
    }
    void TearDown() override { setEventLogPath(kEventLogPath); }

    // Points the settings at a stream URL and a loopback test address.
    void target(const std::string& streamUrl, const std::string& testUrl) {
        url = streamUrl;
        test = testUrl;
        settings.url = url.c_str();
        settings.testUrl = test.c_str();
        auto colon = test.find(':');
        if (colon != std::string::npos) {
            host = test.substr(0, colon);
            settings.testHost = host.c_str();
            settings.testPort = std::atoi(test.c_str() + colon + 1);
        }
    }

    std::vector<std::string> log() const { return testutil::logMessages(logPath); }
    int count(const std::string& message) const {
        int n = 0;
        for (const auto& m : log()) n += (m == message);
        return n;
    }

    testutil::TempDir dir;
    std::string logPath, overlayPath, url, test, host;
    StreamSettings settings{};
};

TEST_F(CameraTest, OpensStreamsAndStopsAgainstTheTestCamera) {
    TestCamera cam(0, "640x480", 30);
    ASSERT_TRUE(cam.start());
    target(cam.url(), "127.0.0.1:" + std::to_string(cam.port()));
    Camera camera(settings, overlayPath);

    ASSERT_TRUE(camera.ensureOpen());
    const std::vector<std::string> opened = {
        "Testing connection to 127.0.0.1:" + std::to_string(cam.port()), "Success",
        "Opening stream " + url, "Stream opened", "Read thread running"};
    EXPECT_EQ(log(), opened);

    // Open again: nothing happens, nothing is logged.
    EXPECT_TRUE(camera.ensureOpen());
    EXPECT_EQ(log().size(), opened.size());

    std::string jpeg;
    ASSERT_TRUE(camera.getImage(jpeg));
    cv::Mat decoded = cv::imdecode(std::vector<uchar>(jpeg.begin(), jpeg.end()), cv::IMREAD_UNCHANGED);
    EXPECT_EQ(decoded.cols, 1280);
    EXPECT_EQ(decoded.rows, 720);
    EXPECT_EQ(decoded.channels(), 3);
    EXPECT_NE(camera.ring.servingIndex, -1);

    // Frames keep coming at about the camera's rate.
    EXPECT_TRUE(testutil::waitFor([&] {
        std::string next;
        camera.getImage(next);
        double r = camera.ring.queueRate();
        // The take history is this thread's; more than 60 takes mean more
        // than 60 commits. (The commit history belongs to the read thread.)
        return camera.ring.dequeueStampCount() > 60 && r > 24.0 && r < 36.0;
    }, 15s)) << "queueRate " << camera.ring.queueRate();
    EXPECT_GT(camera.ring.dequeueRate(), 0.0);

    auto start = Clock::now();
    camera.stop();
    EXPECT_LT(secondsSince(start), 2.0);
    auto messages = log();
    ASSERT_GE(messages.size(), 2u);
    EXPECT_EQ(messages[messages.size() - 2], "Stopping camera");
    EXPECT_EQ(messages.back(), "Camera stopped");
    EXPECT_EQ(count("getImage timeout"), 0);

    camera.stop();  // a second stop does nothing
    EXPECT_EQ(log().size(), messages.size());
}

TEST_F(CameraTest, UnreachablePortFailsTheProbeAndPacesRetries) {
    int port = testutil::freeLoopbackPort();  // nothing listens there
    target("rtsp://127.0.0.1:" + std::to_string(port) + "/stream", "127.0.0.1:" + std::to_string(port));
    Camera camera(settings, overlayPath);
    auto start = Clock::now();
    EXPECT_FALSE(camera.ensureOpen());
    EXPECT_FALSE(camera.ensureOpen());
    double took = secondsSince(start);
    EXPECT_GE(took, 1.9);  // one second of sleep per failed attempt
    EXPECT_LT(took, 4.0);
    EXPECT_EQ(count("Testing connection to 127.0.0.1:" + std::to_string(port)), 2);
    EXPECT_EQ(count("Failure establishing connection"), 2);
    EXPECT_EQ(count("Opening stream " + url), 0);
    camera.stop();  // never opened: nothing logged
    EXPECT_EQ(log().back(), "Failure establishing connection");
}

TEST_F(CameraTest, UrlChecksWithoutProbe) {
    struct Case { const char* url; const char* expected; };
    int port = testutil::freeLoopbackPort();
    std::string refused = "rtsp://127.0.0.1:" + std::to_string(port) + "/none";
    const Case cases[] = {
        {"ab", "Invalid stream URL : ab"},
        {"", "Invalid stream URL : "},
        {"abc", "Failure opening stream"},  // three characters go to the library
        {refused.c_str(), "Failure opening stream"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.url);
        std::filesystem::remove(logPath);
        target(c.url, "");  // empty test URL: no probe at all
        Camera camera(settings, overlayPath);
        EXPECT_FALSE(camera.ensureOpen());
        auto messages = log();
        ASSERT_FALSE(messages.empty());
        EXPECT_EQ(messages.back(), c.expected);
        for (const auto& m : messages) EXPECT_EQ(m.rfind("Testing connection", 0), std::string::npos);
        if (std::string(c.expected) == "Failure opening stream") {
            EXPECT_EQ(messages.front(), std::string("Opening stream ") + c.url);
        }
    }
}

TEST_F(CameraTest, ProbeComesBeforeTheUrlCheck) {
    int port = testutil::freeLoopbackPort();
    target("x", "127.0.0.1:" + std::to_string(port));
    Camera camera(settings, overlayPath);
    EXPECT_FALSE(camera.ensureOpen());
    EXPECT_EQ(log().back(), "Failure establishing connection");
    EXPECT_EQ(count("Invalid stream URL : x"), 0);
}

TEST_F(CameraTest, CameraKilledMidStreamIsNotReopened) {
    TestCamera cam(0, "320x240", 30);
    ASSERT_TRUE(cam.start());
    target(cam.url(), "");
    Camera camera(settings, overlayPath);
    ASSERT_TRUE(camera.ensureOpen());
    std::string jpeg;
    ASSERT_TRUE(camera.getImage(jpeg));

    cam.stop();
    ASSERT_TRUE(testutil::waitFor([&] { return count("Empty frame") > 0; }, 40s));
    // Drain what was committed before the camera went, then time out.
    std::string before = "unchanged";
    std::string out = before;
    bool timedOut = false;
    for (int i = 0; i < 5 && !timedOut; ++i) timedOut = !camera.getImage(out);
    EXPECT_TRUE(timedOut);
    EXPECT_GE(count("getImage timeout"), 1);
    EXPECT_EQ(camera.ring.servingIndex, -1);
    EXPECT_TRUE(camera.ensureOpen());  // still "open": never reopened
    EXPECT_EQ(count("Stream opened"), 1);
    camera.stop();
    EXPECT_EQ(log().back(), "Camera stopped");
}

TEST_F(CameraTest, GetImageServesEachFrameOnceAndTimesOut) {
    Camera camera(settings, overlayPath);
    for (int value : {10, 20, 30}) {
        camera.ring.writeSlot() = cv::Mat(480, 640, CV_8UC3, cv::Scalar(value, value, value));
        camera.ring.commitFrame();
    }
    std::string jpeg;
    auto start = Clock::now();
    ASSERT_TRUE(camera.getImage(jpeg));
    EXPECT_LT(secondsSince(start), 0.5);  // found at the first poll
    EXPECT_EQ(camera.ring.servingIndex, 2);
    cv::Mat decoded = cv::imdecode(std::vector<uchar>(jpeg.begin(), jpeg.end()), cv::IMREAD_COLOR);
    ASSERT_EQ(decoded.size(), cv::Size(1280, 720));
    EXPECT_NEAR(cv::mean(decoded)[0], 30.0, 2.0);  // the third frame, not an earlier one
    EXPECT_EQ(camera.ring.slot(2).size(), cv::Size(1280, 720));  // composed in place

    const std::string served = jpeg;
    start = Clock::now();
    EXPECT_FALSE(camera.getImage(jpeg));
    double took = secondsSince(start);
    EXPECT_GE(took, 1.0);  // as long as 1000 polls of one millisecond
    EXPECT_LT(took, 5.0);
    EXPECT_EQ(jpeg, served);
    EXPECT_EQ(camera.ring.servingIndex, -1);
    EXPECT_EQ(log(), std::vector<std::string>{"getImage timeout"});

    // A frame committed while getImage waits is served.
    std::thread producer([&camera] {
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
        camera.ring.writeSlot() = cv::Mat(480, 640, CV_8UC3, cv::Scalar(40, 40, 40));
        camera.ring.commitFrame();
    });
    EXPECT_TRUE(camera.getImage(jpeg));
    producer.join();
    EXPECT_EQ(camera.ring.servingIndex, 3);
}

TEST(CameraDecode, ExceptionsAreLoggedAndSwallowed) {
    testutil::TempDir dir;
    std::string path = dir.file("stream.log");
    setEventLogPath(path.c_str());
    cv::Mat slot;
    Camera::decodeGuarded([](cv::Mat&) { throw cv::Exception(-1, "bad", "f", "file", 1); }, slot);
    Camera::decodeGuarded([](cv::Mat&) { throw std::runtime_error("bad"); }, slot);
    Camera::decodeGuarded([](cv::Mat&) { throw 42; }, slot);
    Camera::decodeGuarded([](cv::Mat& m) { m = cv::Mat(2, 2, CV_8UC3); }, slot);
    setEventLogPath(kEventLogPath);
    const std::vector<std::string> expected = {"cv exception reading frame", "std exception reading frame",
                                               "general exception reading frame"};
    EXPECT_EQ(testutil::logMessages(path), expected);
    EXPECT_FALSE(slot.empty());
}

}  // namespace
