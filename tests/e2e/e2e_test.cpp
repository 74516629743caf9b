// The real server with the real test camera, in the test's own mount and
// network namespaces: real clients, signals, the control FIFO, the event log,
// the fixed paths, and viewers that stop reading or read slowly.
#include <gtest/gtest.h>

#include "support.h"

using Clock = std::chrono::steady_clock;
double since(Clock::time_point t) { return std::chrono::duration<double>(Clock::now() - t).count(); }

// A stream viewer on its own thread: counts parts, the longest gap between
// two, and freezes (gaps over 3 s).
struct Viewer {
    explicit Viewer(int port) : client(port) {
        client.sendText("GET / HTTP/1.1\r\n\r\n");
        thread = std::jthread([this](std::stop_token stop) {
            PartParser parser;
            for (auto last = Clock::now(); !stop.stop_requested() && !broken;) {
                const size_t had = client.data().size();
                broken = client.readAtLeast(had + 1, 50ms).size() == had && client.eof();
                parser.append(client.data().substr(had));
                for (std::string jpeg; parser.next(jpeg); last = Clock::now(), ++parts) {
                    longestGap = std::max(longestGap.load(), since(last));
                    freezes += since(last) > 3;
                }
                broken = broken || parser.failed();
            }
        });
    }
    LoopbackClient client;
    std::atomic<bool> broken{false};  // closed, reset or malformed
    std::atomic<int> parts{0}, freezes{0};
    std::atomic<double> longestGap{0};
    std::jthread thread;  // stopped and joined first
};

class EndToEnd : public ::testing::Test {
protected:
    // The HTTP port is picked while the camera holds its own, so the two differ.
    void SetUp() override { ASSERT_TRUE(camera.start()); port = freeLoopbackPort(); }
    // True once a stream viewer has had a whole part.
    bool streams() const {
        const Viewer viewer(port);
        return waitFor([&] { return viewer.parts > 0 || viewer.broken; }, 15s) && viewer.parts > 0;
    }
    TestCamera camera;
    int port = 0;
    Process server;
    TempDir dir;
};

TEST_F(EndToEnd, RealClientsGetTheStream) {
    server.start(camera.server(port));
    ASSERT_TRUE(waitUntilServing());
    const std::string url = "http://127.0.0.1:" + std::to_string(port) + "/";
    std::ofstream(dir.file("page.html")) << "<body style='margin:0'><img src='" << url << "'></body>";
    const std::pair<std::string, std::string> cases[] = {
        {"curl -sS --max-time 20 -o " + dir.file("curl.jpg") + " '" + url + "?frame_id=1'", "curl.jpg"},
        {"timeout 60 ffmpeg -nostdin -loglevel error -f mjpeg -i " + url + " -frames:v 30 " + dir.file("ff%02d.jpg"),
         "ff30.jpg"},
        {"timeout 90 chromium --headless --no-sandbox --disable-gpu --no-first-run --user-data-dir=" +
             dir.file("profile") + " --window-size=1280,720 --timeout=5000 --screenshot=" + dir.file("shot.png") +
             " file://" + dir.file("page.html"),
         "shot.png"},
    };
    for (const auto& [command, file] : cases) {
        SCOPED_TRACE(command);
        std::system((command + " >" + dir.file("out") + " 2>&1").c_str());
        const cv::Mat picture = cv::imread(dir.file(file));
        ASSERT_EQ(picture.size(), cv::Size(1280, 720)) << readFile(dir.file("out"));
        cv::Scalar mean, deviation;
        cv::meanStdDev(picture, mean, deviation);
        EXPECT_GT(deviation[0] + deviation[1] + deviation[2], 20.0);  // a picture, not a blank page
    }
}

// SIGINT with the test camera, SIGHUP with the defaults, whose camera address
// cannot be reached from the test's own network.
TEST_F(EndToEnd, SignalsStopTheServerInOrderAndTheLogTellsItsLife) {
    const std::string tested = "Testing connection to " + camera.testUrl(), noRoute = "192.168.1.64:554",
                      exitLine = "************** EXIT **************";
    const std::tuple<int, std::vector<std::string>, std::vector<std::string>, std::vector<std::string>> cases[] = {
        {SIGINT, camera.server(port), {tested, "Success", "Opening stream " + camera.url(), "Stream opened", "Read thread running"},
         {"Stopping camera", "Camera stopped", exitLine}},
        {SIGHUP, {VIDEO_SERVER_BIN, "-p", std::to_string(port)},
         {"Testing connection to " + noRoute, "connect failed to " + noRoute, "Failure establishing connection"},
         {"Failure establishing connection", exitLine}}};
    for (const auto& [sig, args, opening, closing] : cases) {
        SCOPED_TRACE(sig);
        const bool withCamera = args.size() > 3;
        std::filesystem::remove(kLogPath);
        mkfifo(kFifoPath, 0600);
        server.start(args);
        std::ifstream control(kFifoPath);  // the control service's end
        std::string announcement;
        EXPECT_EQ(std::getline(control, announcement) ? announcement : "", "camera enable");
        const std::string awaited = opening.back();  // clang cannot capture a structured binding
        ASSERT_TRUE(waitFor([&] { return countLines(kLogPath, awaited) > 0; }));
        // Overlay messages go out as they happen, not when a client connects.
        ASSERT_TRUE(!withCamera || waitFor([&] { return server.out() == "Cannot stat /tmp/overlays.json\n"; }));
        ASSERT_TRUE(!withCamera || streams());
        server.signal(sig);
        EXPECT_EQ(server.waitExit(), 0);
        std::vector<std::string> log = logMessages(), expected = {"************** ENTRY **************",
            "OpenCV version = " CV_VERSION, "HTTP Port     : " + std::to_string(port),
            "Stream URL    : " + (withCamera ? args[4] : "rtsp://" + noRoute + "/stream1"), "Video Width   : 1280",
            "Video Height  : 720", "Stream FPS    : 30.0", "Stream CODEC  : h264",
            "Test URL      : " + (withCamera ? args[6] : noRoute), "Enabling camera", "Camera enabled", "Starting main loop"};
        expected.insert(expected.end(), opening.begin(), opening.end());
        ASSERT_GE(log.size(), expected.size() + 1);
        EXPECT_EQ(std::vector(log.begin(), log.begin() + expected.size()), expected);
        EXPECT_EQ(std::vector(log.end() - closing.size(), log.end()), closing);
        EXPECT_EQ(server.out().find("client connected\n") != std::string::npos, withCamera);
        std::filesystem::remove(kFifoPath);
    }
}

TEST_F(EndToEnd, StreamingStartsOnceTheCameraAppears) {
    camera.stop();
    server.start(camera.server(port));
    ASSERT_TRUE(waitFor([] { return countLines(kLogPath, "Failure establishing connection") > 0; }))
        << readFile(kLogPath);
    ASSERT_TRUE(camera.start());
    EXPECT_TRUE(waitFor([&] { return streams(); }));
}

class StallTest : public EndToEnd {
protected:
    void SetUp() override {
        EndToEnd::SetUp();
        const std::string devices = readFile("/proc/self/net/dev");  // only loopback: our own namespace
        if (std::count(devices.begin(), devices.end(), ':') != 1) GTEST_SKIP();
        // Send buffers of at most 256 KiB (in this namespace) make the server
        // block within a second, the worst case: a real camera's larger parts
        // fill the default 4 MiB about as fast.
        std::ofstream("/proc/sys/net/ipv4/tcp_wmem") << "4096 16384 262144";
        server.start(camera.server(port));
        ASSERT_TRUE(waitUntilServing());
        for (int i = 0; i < 5; ++i) viewers.push_back(std::make_unique<Viewer>(port));
        for (auto& v : viewers) ASSERT_TRUE(waitFor([&] { return v->parts >= 10; }, 30s));
    }
    std::vector<std::unique_ptr<Viewer>> viewers;
};

// The five others freeze once, for at most about 10 s, then stream on; a
// single image asked for during the stall is answered once it ends.
TEST_F(StallTest, AViewerThatStopsReadingFreezesTheOthersOnceAndIsCutOff) {
    LoopbackClient stopped(port), single(port);
    stopped.sendText("GET / HTTP/1.1\r\n\r\n");
    EXPECT_TRUE(waitFor([&] {
        const int before = viewers[0]->parts;
        std::this_thread::sleep_for(1s);  // a second without a part: the stall
        return viewers[0]->parts == before;
    }, 30s));
    single.sendText("GET /?frame_id=1 HTTP/1.1\r\n\r\n");
    for (auto& v : viewers) {
        const int now = v->parts;
        EXPECT_TRUE(waitFor([&] { return v->parts >= now + 60; }, 60s));
        EXPECT_LT(v->longestGap, 20.0);
        EXPECT_EQ(v->freezes, 1);
        EXPECT_FALSE(v->broken);
    }
    EXPECT_TRUE(stopped.readToEof(10s));  // its window update meets no connection: reset
    ASSERT_TRUE(single.readToEof(10s));
    EXPECT_TRUE(single.data().starts_with("HTTP/1.1 200 OK\r\n"));
    EXPECT_NE(single.data().find("\r\n\r\n\xff\xd8"), std::string::npos);
}

// 64 KiB a second in 4 KiB reads, never a pause of a second. (curl's
// --limit-rate is no such reader: after a burst it stops reading for as long
// as the average needs, 26 s here, and the timeout cuts it off.)
TEST_F(StallTest, ASlowButSteadyReaderKeepsItsConnectionForAMinute) {
    LoopbackClient slow(port);
    slow.sendText("GET / HTTP/1.1\r\n\r\n");
    const auto start = Clock::now();
    double bytes = 0;
    for (char buffer[4096]; since(start) < 60;) {
        if (bytes > 64 * 1024 * since(start)) std::this_thread::sleep_for(10ms);
        else if (const ssize_t n = recv(slow.fd(), buffer, sizeof buffer, 0); n > 0) bytes += n;
        else break;  // cut off
    }
    EXPECT_GE(since(start), 60);
    EXPECT_GT(bytes, 0.9 * 64 * 1024 * 60);  // the server always had more for it
}
