// The frame ring, the connectivity probe and the camera against the real
// test camera.
#include <gtest/gtest.h>

#include "camera.h"
#include "probe.h"
#include "support.h"

int64_t g_now = 0;  // the rings' clock, in nanoseconds

// Runs "3c n x ..." on a ring: Nc commits N frames, n takes the newest, x
// takes and clears. Returns what the takes handed out.
std::vector<int> run(FrameRing& ring, const std::string& ops, int64_t stepNanos = 0) {
    std::vector<int> taken;
    std::istringstream in(ops);
    for (std::string op; in >> op;) {
        const int times = op.size() > 1 ? std::stoi(op) : 1;
        for (int i = 0; i < times; ++i) {
            g_now += stepNanos;
            if (op.back() == 'c') ring.commitFrame();
            else taken.push_back(op.back() == 'n' ? ring.takeNewest() : ring.takeAndClear());
        }
    }
    return taken;
}

TEST(FrameRing, TakesRatesAndWaits) {
    const std::pair<const char*, std::vector<int>> cases[] = {
        {"n x", {-1, -1}}, {"3c n n", {2, -1}}, {"61c n", {0}},
        {"c n 60c n c n", {0, -1, 1}},  // sixty commits later the same slot looks old
        {"c x x 60c x", {0, -1, 0}},    // take-and-clear sees every new commit
        {"c n c x n c n", {0, 1, -1, 2}}};
    for (const auto& [ops, taken] : cases) {
        FrameRing ring;
        EXPECT_EQ(run(ring, ops), taken) << ops;
    }
    FrameRing ring(+[]() -> int64_t { return g_now; });
    run(ring, "c", 1'000'000);
    EXPECT_EQ(ring.queueRate(), 0.0);  // one stamp is no interval
    run(ring, "50c", 1'000'000);
    EXPECT_DOUBLE_EQ(ring.queueRate(), 1000.0);
    run(ring, "c", 20'000'000);
    run(ring, "119c", 10'000'000);
    EXPECT_DOUBLE_EQ(ring.queueRate(), 120 / 1.21);  // over the last 121 stamps only
    EXPECT_EQ(run(ring, "c n c n c c x n", 20'000'000), (std::vector<int>{51, 52, 54, -1}));  // 171 commits so far
    EXPECT_DOUBLE_EQ(ring.dequeueRate(), 20.0);  // 40 and 60 ms; the empty take is no take
    EXPECT_FALSE(ring.waitForNew(20'000));
    std::jthread producer([&] { std::this_thread::sleep_for(50ms), ring.commitFrame(); });
    EXPECT_TRUE(ring.waitForNew(20'000'000));
}

// Whatever the consumer does, the ring and the composer keep at most three frame buffers (write
// slot, newest, served last: composed in place of decoded), and never free one to allocate another.
TEST(FrameRing, KeepsAFewBuffersAndAllocatesNonePerFrame) {
    const std::tuple<const char*, cv::Size, bool (*)(int)> cases[] = {
        {"every frame", {1920, 1080}, [](int) { return true; }},
        {"every third", {640, 480}, [](int n) { return n % 3 == 0; }},
        {"none for 200 commits", {1920, 1080}, [](int n) { return n < 60 || n >= 260; }},
        {"none for 200 commits", {1280, 720}, [](int n) { return n < 60 || n >= 260; }}};
    for (const auto& [consumer, camera, takes] : cases) {
        SCOPED_TRACE(testing::Message() << consumer << " " << camera);
        CountingMatAllocator buffers;
        FrameRing ring;
        FrameComposer composer(ring, ring.pool, "/nonexistent/overlays.json");
        for (int n = 0; n < 360; ++n) {
            ring.prepareWriteSlot().create(camera, CV_8UC3);  // as the decoder does
            ring.writeSlot().setTo(n % 256), ring.commitFrame();
            if (!takes(n)) continue;
            ASSERT_EQ(ring.takeNewest(), n % FrameRing::kSlots);
            EXPECT_EQ(composer.composeFrame(ring.slot(n % FrameRing::kSlots)).substr(0, 2), "\xff\xd8"), ring.slotDone();
        }
        EXPECT_LE(buffers.peak, 3);
        EXPECT_EQ(buffers.allocated, buffers.peak);
    }
}

class CameraTest : public ::testing::Test {
protected:
    void SetUp() override { setEventLogPath(log.c_str()); }
    TempDir dir;
    std::string log = dir.file("stream.log");
};

// Rows: port, time limit in seconds, whether it connects, least and most time
// taken. The fourth finds the listener's accept queue full: its SYN goes unanswered.
TEST_F(CameraTest, ProbeOutcomes) {
    int port = 0;
    const int listener = listenOnLoopback(port, 0);
    const std::tuple<int, int, bool, Millis, Millis> cases[] = {
        {port, 2, true, 0ms, 1500ms}, {port + 65536, 2, true, 0ms, 1500ms}, {freeLoopbackPort(), 2, false, 0ms, 1500ms},
        {port, 1, false, 950ms, 5s}, {port, 0, false, 0ms, 500ms}};
    const sockaddr_in a = loopback(port);
    std::vector<int> fillers;  // non-blocking: their connects stay pending
    for (const auto& [p, limit, connects, atLeast, below] : cases) {
        SCOPED_TRACE(p);
        while (atLeast > 0ms && fillers.size() < 4) {
            fillers.push_back(socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK, 0));
            connect(fillers.back(), reinterpret_cast<const sockaddr*>(&a), sizeof a);
        }
        const int fds = openFds();
        const auto start = std::chrono::steady_clock::now();
        EXPECT_EQ(testConnection("127.0.0.1", p, limit), connects);
        const auto took = std::chrono::steady_clock::now() - start;
        EXPECT_TRUE(took >= atLeast && took < below) << std::chrono::duration_cast<Millis>(took).count();
        EXPECT_EQ(openFds(), fds);
        for (int fd; connects && (fd = accept4(listener, nullptr, nullptr, 0)) >= 0;) close(fd);
    }
    EXPECT_EQ(logMessages(log).size(), 0u);  // refused or not, a loopback connect is not logged
    { const NoFreeDescriptor none; EXPECT_FALSE(testConnection("127.0.0.1", port, 1)); }  // no socket at all
    for (int fd : fillers) close(fd);
    close(listener);
}

TEST_F(CameraTest, FailedAttemptsAreLoggedAndPaced) {
    const std::string closed = std::to_string(freeLoopbackPort()), refused = "rtsp://127.0.0.1:" + closed + "/x";
    const std::tuple<const char*, const char*, std::vector<std::string>> cases[] = {
        {refused.c_str(), "", {"Opening stream " + refused, "Failure opening stream"}},
        {"ab", "", {"Invalid stream URL : ab"}},
        {refused.c_str(), "h:1", {"Testing connection to 127.0.0.1:" + closed, "Failure establishing connection"}}};
    for (const auto& [url, testUrl, logged] : cases) {
        std::filesystem::remove(log);
        StreamSettings s{url, 1280, 720, 30.0, "h264", testUrl, "127.0.0.1", std::stoi(closed)};
        Camera camera(s);
        const auto start = std::chrono::steady_clock::now();
        EXPECT_FALSE(camera.ensureOpen());
        EXPECT_GE(std::chrono::steady_clock::now() - start, 1s);
        EXPECT_EQ(logMessages(log), logged);
    }
}

TEST_F(CameraTest, ServesEachFrameOnceAndIsNotReopenedAfterTheCameraGoes) {
    TestCamera source("320x240");
    ASSERT_TRUE(source.start());
    const std::string testUrl = source.testUrl();
    StreamSettings s{source.url().c_str(), 1280, 720, 30.0, "h264", testUrl.c_str(), "127.0.0.1", source.port()};
    Camera camera(s, dir.file("overlays.json"));
    ASSERT_TRUE(camera.ensureOpen());
    EXPECT_TRUE(camera.ensureOpen());
    std::string jpeg, previous;
    for (int i = 0; i < 3; previous = jpeg, ++i) {
        ASSERT_TRUE(camera.getImage(jpeg));
        EXPECT_NE(jpeg, previous);
    }
    EXPECT_GT(camera.ring.dequeueRate(), 0.0);
    source.stop(SIGKILL);
    ASSERT_TRUE(waitFor([&] { return !camera.getImage(jpeg); }, 20s));
    jpeg = "kept";
    EXPECT_TRUE(camera.ensureOpen());
    EXPECT_FALSE(camera.getImage(jpeg));
    EXPECT_EQ(jpeg, "kept");
    camera.stop();
    camera.stop();
    EXPECT_EQ(logMessages(log).back(), "Camera stopped");  // the read thread may log once more meanwhile
    EXPECT_EQ(countLines(log, "Stopping camera"), 1);
    EXPECT_GE(countLines(log, "getImage timeout"), 2);
    EXPECT_GT(countLines(log, "Empty frame"), 0);
}

TEST_F(CameraTest, WhatTheDecoderThrowsIsLoggedAndSwallowed) {
    cv::Mat slot;
    Camera::decodeGuarded([](cv::Mat&) { throw cv::Exception(); }, slot);
    Camera::decodeGuarded([](cv::Mat&) { throw std::runtime_error("x"); }, slot);
    Camera::decodeGuarded([](cv::Mat&) { throw 7; }, slot);
    EXPECT_EQ(logMessages(log), (std::vector<std::string>{"cv exception reading frame", "std exception reading frame",
                                                          "general exception reading frame"}));
}
