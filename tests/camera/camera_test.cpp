// The frame ring, the connectivity probe and the camera against the real
// test camera.
#include "camera.h"

#include <gtest/gtest.h>
#include <sys/resource.h>

#include "probe.h"
#include "support.h"

struct CameraPeer {
    static void decode(void (*decoder)(cv::Mat&)) {
        cv::Mat slot;
        Camera::decodeGuarded(decoder, slot);
    }
};

// While alive, OpenCV's default allocator: counts the buffers allocated.
// The library's allocator, which it restores, frees them.
struct CountingMatAllocator : cv::MatAllocator {
    CountingMatAllocator() { cv::Mat::setDefaultAllocator(this); }
    ~CountingMatAllocator() override { cv::Mat::setDefaultAllocator(library); }
    cv::UMatData* allocate(int dims, const int* sizes, int type, void* data, size_t* step,
                           cv::AccessFlag flags, cv::UMatUsageFlags usage) const override {
        ++allocated;
        return library->allocate(dims, sizes, type, data, step, flags, usage);
    }
    bool allocate(cv::UMatData* u, cv::AccessFlag f, cv::UMatUsageFlags use) const override {
        return library->allocate(u, f, use);
    }
    void deallocate(cv::UMatData* u) const override { library->deallocate(u); }
    cv::MatAllocator* const library = cv::Mat::getDefaultAllocator();
    mutable int allocated = 0;
};

// A listening socket on a free loopback port; `backlog` 0 still queues one
// connection. Closed at once, it leaves a port that refuses.
int listenOnLoopback(int& port, int backlog) {
    const int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    const sockaddr_in a = loopback(0);
    bind(fd, reinterpret_cast<const sockaddr*>(&a), sizeof a);
    listen(fd, backlog);
    port = localPort(fd);
    return fd;
}

int64_t g_now = 0;  // the rings' clock, in nanoseconds

// Runs "3c n x ..." on a ring: Nc commits N frames, n takes the newest, x
// takes and clears, h takes the newest and holds it (the others are done with
// what they take), each `step` nanoseconds after the last. Returns what the
// takes handed out.
std::vector<int> run(FrameRing& ring, const std::string& ops, int64_t step = 0) {
    std::vector<int> taken;
    std::istringstream in(ops);
    for (std::string op; in >> op;) {
        for (int i = op.size() > 1 ? std::stoi(op) : 1; i > 0; --i) {
            g_now += step;
            if (op.back() == 'c') {
                ring.commitFrame();
                continue;
            }
            taken.push_back(op.back() == 'x' ? ring.takeAndClear() : ring.takeNewest());
            if (op.back() != 'h') ring.slotDone();
        }
    }
    return taken;
}

TEST(FrameRing, TakesRatesAndWaits) {
    const std::pair<const char*, std::vector<int>> cases[] = {
        {"n x", {-1, -1}},
        {"3c n n", {2, -1}},
        {"61c n", {0}},
        {"c n 60c n c n", {0, -1, 1}},  // sixty commits later the same slot looks old
        {"c x x 60c x", {0, -1, 0}},    // take-and-clear sees every new commit
        {"c h 60c n", {0, 1}},          // a slot still held is passed over
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
    EXPECT_EQ(run(ring, "c n c n c c x n", 20'000'000), (std::vector<int>{51, 52, 54, -1}));
    EXPECT_DOUBLE_EQ(ring.dequeueRate(), 20.0);  // 40 and 60 ms; the empty take is no take
    ring.resetStamps();  // as a newly opened stream does: both rates start again
    run(ring, "c n c n", 100'000'000);
    EXPECT_DOUBLE_EQ(ring.queueRate(), 5.0);
    EXPECT_DOUBLE_EQ(ring.dequeueRate(), 5.0);
    // A commit wakes a waiting consumer at once, long before its deadline.
    EXPECT_FALSE(ring.waitForNew(20'000));
    const auto start = Clock::now();
    std::jthread producer([&] {
        std::this_thread::sleep_for(50ms);
        ring.commitFrame();
    });
    EXPECT_TRUE(ring.waitForNew(4'000'000));
    EXPECT_LT(since(start), 2.0);
}

// Whatever the consumer takes, the ring and the composer allocate at most
// three frame buffers in all (write slot, newest, served last): none per
// frame. Rows: camera size, and which of 360 frames are taken.
TEST(FrameRing, KeepsAFewBuffersAndAllocatesNonePerFrame) {
    const auto pause = [](int n) { return n < 60 || n >= 260; };  // none for 200 commits
    const std::tuple<cv::Size, bool (*)(int)> cases[] = {
        {{1920, 1080}, [](int) { return true; }},
        {{640, 480}, [](int n) { return n % 3 == 0; }},
        {{1920, 1080}, pause},
        {{1280, 720}, pause}};
    for (const auto& [camera, takes] : cases) {
        const CountingMatAllocator buffers;
        FrameRing ring;
        FrameComposer composer(ring, ring.pool, "/nonexistent/overlays.json");
        for (int n = 0; n < 360; ++n) {
            ring.prepareWriteSlot().create(camera, CV_8UC3);  // as the decoder does
            ring.writeSlot().setTo(n % 256);
            ring.commitFrame();
            if (!takes(n)) continue;
            ASSERT_EQ(ring.takeNewest(), n % FrameRing::kSlots);
            EXPECT_FALSE(composer.composeFrame(ring.slot(n % FrameRing::kSlots)).empty());
            ring.slotDone();
        }
        EXPECT_LE(buffers.allocated, 3) << camera;
    }
}

class CameraTest : public ::testing::Test {
protected:
    void SetUp() override { setEventLogPath(log.c_str()); }
    TempDir dir;
    std::string log = dir.file("stream.log");
};

// Rows: port, time limit in seconds, whether it connects, least and most
// seconds taken. The fourth finds the listener's accept queue full: its SYN
// goes unanswered.
TEST_F(CameraTest, ProbeOutcomes) {
    int port = 0;
    const int listener = listenOnLoopback(port, 0);
    int refusing = 0;
    close(listenOnLoopback(refusing, 0));
    const sockaddr_in a = loopback(port);
    std::vector<int> fillers;  // non-blocking: their connects stay pending
    for (int i = 0; i < 4; ++i) fillers.push_back(socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK, 0));
    const std::tuple<int, int, bool, double, double> cases[] = {{port, 2, true, 0, 1.5},
                                                                {port + 65536, 2, true, 0, 1.5},
                                                                {refusing, 2, false, 0, 1.5},
                                                                {port, 1, false, 0.95, 5},
                                                                {port, 0, false, 0, 0.5}};
    for (const auto& [p, limit, connects, atLeast, below] : cases) {
        if (atLeast > 0) {
            for (int fd : fillers) connect(fd, reinterpret_cast<const sockaddr*>(&a), sizeof a);
        }
        const int fds = openFds();
        const auto start = Clock::now();
        EXPECT_EQ(testConnection("127.0.0.1", p, limit), connects) << p;
        EXPECT_TRUE(since(start) >= atLeast && since(start) < below) << since(start);
        EXPECT_EQ(openFds(), fds);
        for (int fd; connects && (fd = accept4(listener, nullptr, nullptr, 0)) >= 0;) close(fd);
    }
    EXPECT_EQ(logMessages(log).size(), 0u);  // refused or not, a loopback connect is not logged
    // No socket at all: the soft limit is the lowest free descriptor.
    const int lowestFree = dup(0);
    close(lowestFree);
    rlimit normal{};
    getrlimit(RLIMIT_NOFILE, &normal);
    const rlimit none{static_cast<rlim_t>(lowestFree), normal.rlim_max};
    setrlimit(RLIMIT_NOFILE, &none);
    EXPECT_FALSE(testConnection("127.0.0.1", port, 1));
    setrlimit(RLIMIT_NOFILE, &normal);
    for (int fd : fillers) close(fd);
    close(listener);
}

TEST_F(CameraTest, ServesEachFrameOnceAndIsNotReopenedAfterTheCameraGoes) {
    const TestCamera source("320x240");
    const std::string testUrl = "127.0.0.1:" + std::to_string(source.port());
    StreamSettings s{source.url.c_str(), 1280,        720,          30.0, "h264",
                     testUrl.c_str(),    "127.0.0.1", source.port()};
    Camera camera(s, dir.file("overlays.json"));
    ASSERT_TRUE(camera.ensureOpen() && camera.ensureOpen());
    std::string jpeg, previous;
    for (int i = 0; i < 3; ++i) {
        ASSERT_TRUE(camera.getImage(jpeg));
        EXPECT_NE(jpeg, previous);
        previous = jpeg;
    }
    source.stop();
    ASSERT_TRUE(waitFor([&] { return !camera.getImage(jpeg); }, 20s));
    jpeg = "kept";
    EXPECT_TRUE(camera.ensureOpen());
    EXPECT_FALSE(camera.getImage(jpeg));
    EXPECT_EQ(jpeg, "kept");
    camera.stop();
    camera.stop();
    EXPECT_EQ(logMessages(log).back(),
              "Camera stopped");  // the read thread may log once more meanwhile
    EXPECT_EQ(countLines(log, "Stopping camera"), 1);
    EXPECT_GE(countLines(log, "getImage timeout"), 2);
    EXPECT_GT(countLines(log, "Empty frame"), 0);
}

TEST_F(CameraTest, WhatTheDecoderThrowsIsLoggedAndSwallowed) {
    CameraPeer::decode([](cv::Mat&) { throw cv::Exception(); });
    CameraPeer::decode([](cv::Mat&) { throw std::runtime_error("x"); });
    CameraPeer::decode([](cv::Mat&) { throw 7; });
    EXPECT_EQ(logMessages(log),
              (std::vector<std::string>{"cv exception reading frame", "std exception reading frame",
                                        "general exception reading frame"}));
}
