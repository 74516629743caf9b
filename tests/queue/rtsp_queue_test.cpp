#include "rtsp_queue.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <opencv2/imgcodecs.hpp>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <functional>
#include <future>
#include <iostream>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include "../test_camera.h"
#include "../test_util.h"

namespace {

using Clock = std::chrono::steady_clock;
using namespace std::chrono_literals;

double secondsSince(Clock::time_point t) { return std::chrono::duration<double>(Clock::now() - t).count(); }

// Points stdout and stderr at two files for the life of the object. The
// reader thread prints all the time, so the tests read the files rather than
// intercepting the streams.
class ConsoleCapture {
public:
    ConsoleCapture(const std::string& outPath, const std::string& errPath) {
        flushAll();
        savedOut = ::dup(STDOUT_FILENO);
        savedErr = ::dup(STDERR_FILENO);
        redirect(outPath, STDOUT_FILENO);
        redirect(errPath, STDERR_FILENO);
    }
    ~ConsoleCapture() {
        flushAll();
        ::dup2(savedOut, STDOUT_FILENO);
        ::dup2(savedErr, STDERR_FILENO);
        ::close(savedOut);
        ::close(savedErr);
    }
    ConsoleCapture(const ConsoleCapture&) = delete;
    ConsoleCapture& operator=(const ConsoleCapture&) = delete;

private:
    static void flushAll() {
        std::cout.flush();
        std::fflush(stdout);
    }
    static void redirect(const std::string& path, int target) {
        int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_APPEND | O_CLOEXEC, 0644);
        ::dup2(fd, target);
        ::close(fd);
    }
    int savedOut;
    int savedErr;
};

class QueueTest : public ::testing::Test {
protected:
    void SetUp() override { console = std::make_unique<ConsoleCapture>(outPath, errPath); }
    void TearDown() override {
        console.reset();
        if (HasFailure()) {
            dump("stdout", out());
            dump("stderr", err());
        }
    }

    std::vector<std::string> out() const { return testutil::readLines(outPath); }
    std::vector<std::string> err() const { return testutil::readLines(errPath); }
    static int count(const std::vector<std::string>& lines, const std::string& line) {
        int n = 0;
        for (const auto& l : lines) n += (l == line);
        return n;
    }
    int countOut(const std::string& line) const { return count(out(), line); }
    int countErr(const std::string& line) const { return count(err(), line); }

    // The numbers of all stdout lines "<prefix><n>", in order.
    std::vector<int> numbers(const std::string& prefix) const {
        std::vector<int> found;
        for (const auto& l : out()) {
            if (l.rfind(prefix, 0) == 0) found.push_back(std::stoi(l.substr(prefix.size())));
        }
        return found;
    }

    // The reader thread of one queue. Stops and joins it on every way out of
    // a test, so a failed assertion never leaves a joinable thread behind.
    class Reader {
    public:
        explicit Reader(rtspQueue& queue) : queue(queue), thread(queue.start()) {}
        ~Reader() { stopAndJoin(std::chrono::seconds(10)); }
        Reader(const Reader&) = delete;
        Reader& operator=(const Reader&) = delete;

        // stop() then join, which must finish within `limit`. A reader that
        // does not stop cannot be abandoned safely, so that ends the run.
        void stopAndJoin(std::chrono::seconds limit) {
            if (!thread.joinable()) return;
            queue.stop();
            auto joined = std::async(std::launch::async, [this] { thread.join(); });
            if (joined.wait_for(limit) != std::future_status::ready) {
                std::fprintf(stderr, "reader still running %lld s after stop()\n",
                             static_cast<long long>(limit.count()));
                std::abort();
            }
        }

    private:
        rtspQueue& queue;
        std::thread thread;
    };

    // Replays what went to the console during a failed test (gtest's own
    // failure messages included), leaving out the per-frame lines.
    static void dump(const char* name, const std::vector<std::string>& lines) {
        std::printf("--- %s during the test:\n", name);
        int perFrame = 0;
        for (const auto& l : lines) {
            if (l.rfind("Q F = ", 0) == 0 || l.rfind("DQ F = ", 0) == 0 || l == "frame empty") {
                ++perFrame;
            } else {
                std::printf("%s\n", l.c_str());
            }
        }
        std::printf("--- (%d per-frame lines left out)\n", perFrame);
    }

    testutil::TempDir dir;
    const std::string outPath = dir.file("stdout.txt");
    const std::string errPath = dir.file("stderr.txt");
    const std::string overlayPath = dir.file("overlays.json");  // absent: no overlays
    std::unique_ptr<ConsoleCapture> console;
};

TEST_F(QueueTest, ConstructionBlocksUntilTheStreamOpens) {
    const int port = testutil::freeLoopbackPort();
    ASSERT_NE(port, 0);
    TestCamera cam(port, "640x480");
    const std::string url = "rtsp://127.0.0.1:" + std::to_string(port) + "/stream";

    std::unique_ptr<rtspQueue> queue;
    std::atomic<bool> constructed{false};
    Clock::time_point returnedAt;
    const auto begin = Clock::now();
    std::thread builder([&] {
        queue = std::make_unique<rtspQueue>(url, overlayPath);
        returnedAt = Clock::now();
        constructed = true;
    });

    // No ASSERT until the builder is joined: it cannot be abandoned.
    EXPECT_TRUE(testutil::waitFor([&] { return countOut("Opening endpoint") == 1; }, 5s));
    // Nothing listens yet; the constructor must still be waiting 2 s later.
    EXPECT_FALSE(testutil::waitFor([&] { return constructed.load(); }, 2s));
    EXPECT_TRUE(cam.start());  // the TestCamera is started and stopped on this thread
    const auto cameraUp = Clock::now();
    EXPECT_FALSE(constructed.load());

    if (!testutil::waitFor([&] { return constructed.load(); }, 30s)) {
        std::fprintf(stderr, "constructor still blocked 30 s after the camera started\n");
        std::abort();  // the builder thread cannot be abandoned safely
    }
    builder.join();
    EXPECT_GT(returnedAt, cameraUp);
    // The first attempt comes 7 s after "Opening endpoint", and it succeeds.
    const double took = std::chrono::duration<double>(returnedAt - begin).count();
    EXPECT_GE(took, 6.9);
    EXPECT_LT(took, 13.0);

    const std::vector<std::string> expected = {"Opening endpoint", "Stream opened",
                                               std::string("Version = ") + CV_VERSION, "Stream running"};
    EXPECT_EQ(out(), expected);
    EXPECT_TRUE(queue->isRunning());
    EXPECT_EQ(queue->composer.encodeParams, (std::vector<int>{cv::IMWRITE_JPEG_QUALITY, 55}));
    EXPECT_EQ(queue->ring.lastWrittenValue(), -1);  // nothing read before start()

    queue.reset();
    EXPECT_EQ(out().back(), "Stream closed");
    EXPECT_EQ(countErr("frame empty"), 0);
}

TEST_F(QueueTest, FramesFlowInRingOrderAndStopEndsTheReader) {
    TestCamera cam(0, "640x480");
    ASSERT_TRUE(cam.start());
    rtspQueue queue(cam.url(), overlayPath);
    Reader reader(queue);

    std::string jpeg;
    ASSERT_TRUE(testutil::waitFor([&] { return queue.getImage(jpeg); }, 15s));
    cv::Mat decoded = cv::imdecode(std::vector<uchar>(jpeg.begin(), jpeg.end()), cv::IMREAD_UNCHANGED);
    EXPECT_EQ(decoded.cols, 1280);
    EXPECT_EQ(decoded.rows, 720);
    EXPECT_EQ(decoded.channels(), 3);

    // One "Q F" line per commit, the slots in turn, wrapping after 59.
    ASSERT_TRUE(testutil::waitFor([&] { return numbers("Q F = ").size() >= 65; }, 20s));
    const auto stopAt = Clock::now();
    reader.stopAndJoin(5s);
    EXPECT_LT(secondsSince(stopAt), 2.0);
    EXPECT_FALSE(queue.isRunning());

    const std::vector<int> committed = numbers("Q F = ");
    for (size_t k = 0; k < committed.size(); ++k) ASSERT_EQ(committed[k], static_cast<int>(k % 60)) << k;
    // Every commit, the last one included, was printed.
    EXPECT_EQ((committed.back() + 1) % 60, queue.ring.writeIndexValue());
    EXPECT_GT(queue.ring.queueRate(), 0.0);

    // From here on the test is the only producer. Clear what the reader left.
    queue.takeNewest();
    EXPECT_EQ(queue.takeNewest(), -1);

    // One commit, then two calls: the first gets it, the second polls 10
    // times in about 50 ms and leaves the output alone.
    queue.ring.writeSlot() = cv::Mat(480, 640, CV_8UC3, cv::Scalar(0, 0, 200));
    queue.commitFrame();
    ASSERT_TRUE(queue.getImage(jpeg));
    decoded = cv::imdecode(std::vector<uchar>(jpeg.begin(), jpeg.end()), cv::IMREAD_COLOR);
    ASSERT_EQ(decoded.size(), cv::Size(1280, 720));
    EXPECT_NEAR(cv::mean(decoded)[2], 200.0, 3.0);

    const std::string served = jpeg;
    const size_t linesBefore = out().size();
    const auto start = Clock::now();
    EXPECT_FALSE(queue.getImage(jpeg));
    const double took = secondsSince(start);
    EXPECT_GE(took, 0.045);
    EXPECT_LT(took, 1.0);
    EXPECT_EQ(jpeg, served);
    EXPECT_EQ(queue.ring.servingIndex, -1);
    const auto lines = out();
    ASSERT_GE(lines.size(), linesBefore);
    EXPECT_EQ(std::vector<std::string>(lines.begin() + static_cast<long>(linesBefore), lines.end()),
              std::vector<std::string>(10, "DQ F = -1"));

    // Exactly 60 commits between two takes land on the slot taken last: the
    // hand-off must not mistake that for "nothing new".
    for (int k = 1; k <= 60; ++k) {
        queue.ring.writeSlot() = cv::Mat(480, 640, CV_8UC3, cv::Scalar(k == 60 ? 250 : 20, 0, 0));
        queue.commitFrame();
    }
    ASSERT_TRUE(queue.getImage(jpeg));
    decoded = cv::imdecode(std::vector<uchar>(jpeg.begin(), jpeg.end()), cv::IMREAD_COLOR);
    EXPECT_NEAR(cv::mean(decoded)[0], 250.0, 3.0);
}

TEST_F(QueueTest, ReopensAfterElevenEmptyFramesAndStopCutsTheReopenShort) {
    TestCamera cam(0, "640x480");
    ASSERT_TRUE(cam.start());
    rtspQueue queue(cam.url(), overlayPath);
    Reader reader(queue);
    std::string jpeg;
    ASSERT_TRUE(testutil::waitFor([&] { return queue.getImage(jpeg); }, 15s));

    // The camera goes away: ten empty frames are only reported, the eleventh
    // releases the stream and starts a reopen.
    cam.stop();
    testutil::waitFor([&] { return countOut("Opening endpoint") == 2 || countErr("frame empty") > 10; }, 40s);
    const auto reopenBegan = Clock::now();
    ASSERT_EQ(countOut("Opening endpoint"), 2);
    EXPECT_EQ(countErr("frame empty"), 10);
    // Nothing is committed while the stream is closed. Drop what was
    // committed before the loss, so the next frame taken is a new one.
    const size_t commitsBefore = numbers("Q F = ").size();
    queue.takeNewest();

    // Back on the same port: the attempt 7 s after the message opens it.
    ASSERT_TRUE(cam.start());
    ASSERT_TRUE(testutil::waitFor([&] { return countOut("Stream opened") == 2; }, 20s));
    EXPECT_GE(secondsSince(reopenBegan), 6.5);
    // The eleventh "frame empty" is printed after the reopen.
    ASSERT_TRUE(testutil::waitFor([&] { return countErr("frame empty") >= 11; }, 5s));
    EXPECT_EQ(countErr("frame empty"), 11);
    EXPECT_EQ(countOut("Stream opened"), 2);

    // Frames flow again into the same ring, continuing its order.
    ASSERT_TRUE(testutil::waitFor([&] { return queue.getImage(jpeg); }, 15s));
    const std::vector<int> committed = numbers("Q F = ");
    ASSERT_GT(committed.size(), commitsBefore);
    for (size_t k = 0; k < committed.size(); ++k) ASSERT_EQ(committed[k], static_cast<int>(k % 60)) << k;

    // Worst case for stop(): the camera gone again and the reader inside the
    // 7-second pause of a reopen.
    cam.stop();
    testutil::waitFor([&] { return countOut("Opening endpoint") == 3 || countErr("frame empty") > 21; }, 40s);
    ASSERT_EQ(countOut("Opening endpoint"), 3);
    EXPECT_EQ(countErr("frame empty"), 21);
    const auto stopAt = Clock::now();
    reader.stopAndJoin(10s);
    const double stopTook = secondsSince(stopAt);
    EXPECT_LT(stopTook, 2.0);
    RecordProperty("stop_and_join_ms", static_cast<int>(stopTook * 1000));
    EXPECT_EQ(countOut("Stream opened"), 2);  // the cut-short reopen opened nothing
}

TEST(QueueDecode, ThrowingOrEmptyReadsCountAsEmptyFrames) {
    struct Case {
        const char* name;
        std::function<void(cv::Mat&)> decode;
        bool frame;
    };
    const Case cases[] = {
        {"cv::Exception", [](cv::Mat&) { throw cv::Exception(-1, "bad", "f", "file", 1); }, false},
        {"std::exception", [](cv::Mat&) { throw std::runtime_error("bad"); }, false},
        {"other value", [](cv::Mat&) { throw 42; }, false},
        {"empty read", [](cv::Mat& m) { m.release(); }, false},
        {"throws after writing", [](cv::Mat& m) { m = cv::Mat(2, 2, CV_8UC3); throw 1; }, false},
        {"frame", [](cv::Mat& m) { m = cv::Mat(2, 2, CV_8UC3); }, true},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        // The slot still holds an older frame, as ring slots do after a wrap:
        // a failed read must not pass it off as new.
        cv::Mat slot(4, 4, CV_8UC3, cv::Scalar(1, 2, 3));
        EXPECT_EQ(rtspQueue::decodeFrame(c.decode, slot), c.frame);
    }
}

}  // namespace
