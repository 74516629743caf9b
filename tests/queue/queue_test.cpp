// The queued stream reader against the real test camera: blocking open,
// frames in ring order, the reopen after eleven empty frames, and stop().
#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <iostream>
#include <opencv2/core/version.hpp>
#include <opencv2/imgcodecs.hpp>
#include <sstream>

#include "rtsp_queue.h"
#include "support.h"

using namespace support;

namespace {

// Standard output and error into files for the life of the object: the
// reader thread prints all the time.
class Console {
public:
    explicit Console(const TempDir& dir) : out(dir.file("out")), err(dir.file("err")) {
        std::fflush(stdout);
        dup2(open(out.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0644), 1);
        dup2(open(err.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0644), 2);
    }
    ~Console() {
        std::fflush(stdout);
        dup2(savedOut, 1);
        dup2(savedErr, 2);
    }
    std::vector<std::string> lines(const std::string& path) const {
        std::vector<std::string> all;
        std::istringstream in(readFile(path));
        for (std::string line; std::getline(in, line);) all.push_back(line);
        return all;
    }
    int count(const std::string& path, const std::string& line) const {
        const auto all = lines(path);
        return static_cast<int>(std::count(all.begin(), all.end(), line));
    }
    const std::string out, err;

private:
    int savedOut = dup(1), savedErr = dup(2);
};

TEST(Queue, OpensBlockingServesInRingOrderAndReopensAfterElevenEmptyFrames) {
    TestCamera source("320x240");
    ASSERT_TRUE(source.start());
    TempDir dir;
    Console console(dir);
    const auto start = std::chrono::steady_clock::now();
    {
        rtspQueue queue(source.url(), dir.file("overlays.json"));
        EXPECT_GE(std::chrono::steady_clock::now() - start, 7s);
        EXPECT_EQ(console.lines(console.out), (std::vector<std::string>{"Opening endpoint", "Stream opened",
                                                                        "Version = " CV_VERSION, "Stream running"}));
        std::thread reader = queue.start();
        std::string jpeg;
        ASSERT_TRUE(waitFor([&] { return queue.getImage(jpeg); }));
        const cv::Mat frame = cv::imdecode(std::vector<uchar>(jpeg.begin(), jpeg.end()), cv::IMREAD_COLOR);
        EXPECT_EQ(frame.size(), cv::Size(1280, 720));
        ASSERT_TRUE(waitFor([&] { return console.count(console.out, "Q F = 3") > 0; }));

        const int emptyBefore = console.count(console.err, "frame empty");
        source.stop(SIGKILL);
        EXPECT_TRUE(waitFor([&] { return console.count(console.out, "Opening endpoint") == 2; }));
        while (queue.getImage(jpeg)) {
        }
        jpeg = "kept";
        EXPECT_FALSE(queue.getImage(jpeg));
        EXPECT_EQ(jpeg, "kept");
        const auto stopAt = std::chrono::steady_clock::now();
        queue.stop();
        reader.join();
        EXPECT_LT(std::chrono::steady_clock::now() - stopAt, 3s);  // the 7-second pause is cut short
        EXPECT_EQ(console.count(console.err, "frame empty") - emptyBefore, 11);
    }
    const auto out = console.lines(console.out);
    EXPECT_EQ(out.back(), "Stream closed");
    int expected = 0;
    for (const std::string& line : out) {
        if (line.rfind("Q F = ", 0) == 0) {
            EXPECT_EQ(line, "Q F = " + std::to_string(expected++ % 60));
        }
    }
    EXPECT_GE(console.count(console.out, "DQ F = -1"), 10);
}

TEST(Queue, ThrowingOrEmptyReadsCountAsEmptyFrames) {
    cv::Mat slot;
    EXPECT_FALSE(rtspQueue::decodeFrame([](cv::Mat&) { throw cv::Exception(); }, slot));
    EXPECT_FALSE(rtspQueue::decodeFrame([](cv::Mat&) { throw 1; }, slot));
    EXPECT_FALSE(rtspQueue::decodeFrame([](cv::Mat& m) { m.release(); }, slot));
    EXPECT_TRUE(rtspQueue::decodeFrame([](cv::Mat& m) { m.create(2, 2, CV_8UC3); }, slot));
}

}  // namespace
