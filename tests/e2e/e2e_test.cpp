// The real server with the real test camera, in the test's own mount and
// network namespaces: real clients, signals, the control FIFO, the event log
// and the fixed paths.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <fstream>
#include <opencv2/core/version.hpp>
#include <opencv2/imgcodecs.hpp>
#include <thread>

#include "support.h"

using namespace support;

namespace {

class EndToEnd : public ::testing::Test {
protected:
    void SetUp() override { ASSERT_TRUE(camera.start()); }
    // True once a stream client has had a whole part.
    bool streams() const {
        LoopbackClient client(port);
        client.sendText("GET / HTTP/1.1\r\n\r\n");
        std::vector<std::string> jpegs;
        return PartParser::split(client.readAtLeast(kStreamHeader.size() + 60'000, 15s), jpegs) && !jpegs.empty();
    }
    TestCamera camera;
    int port = freeLoopbackPort();
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
    const std::string tested = "Testing connection to " + camera.testUrl(), noRoute = "192.168.1.64:554";
    const std::tuple<int, std::vector<std::string>, std::vector<std::string>, std::vector<std::string>> cases[] = {
        {SIGINT, camera.server(port), {tested, "Success", "Opening stream " + camera.url(), "Stream opened", "Read thread running"},
         {"Stopping camera", "Camera stopped"}},
        {SIGHUP, {VIDEO_SERVER_BIN, "-p", std::to_string(port)},
         {"Testing connection to " + noRoute, "connect failed to " + noRoute, "Failure establishing connection"},
         {"Failure establishing connection"}}};
    for (const auto& [sig, args, opening, closing] : cases) {
        SCOPED_TRACE(sig);
        std::filesystem::remove(kLogPath);
        mkfifo(kFifoPath, 0600);
        server.start(args);
        std::ifstream control(kFifoPath);  // the control service's end
        std::string announcement;
        EXPECT_EQ(std::getline(control, announcement) ? announcement : "", "camera enable");
        const std::string awaited = opening.back();  // clang cannot capture a structured binding
        ASSERT_TRUE(waitFor([&] { return countLines(kLogPath, awaited) > 0; }));
        ASSERT_TRUE(args.size() == 3 || streams());
        server.signal(sig);
        EXPECT_EQ(server.waitExit(), 0);
        std::vector<std::string> log = logMessages(), expected = {"************** ENTRY **************",
            "OpenCV version = " CV_VERSION, "HTTP Port     : " + std::to_string(port), "Enabling camera", "Camera enabled",
            "Starting main loop"};
        expected.insert(expected.end(), opening.begin(), opening.end());
        expected.insert(expected.end(), closing.begin(), closing.end());
        expected.push_back("************** EXIT **************");
        ASSERT_GE(log.size(), expected.size() + 6);
        log.erase(log.begin() + 3, log.begin() + 9);  // the other six settings
        log.erase(log.begin() + 6 + opening.size(), log.end() - closing.size() - 1);  // whatever the run logged
        EXPECT_EQ(log, expected);
        EXPECT_EQ(server.out().find("client connected\n") != std::string::npos, args.size() > 3);
        std::filesystem::remove(kFifoPath);
    }
}

TEST_F(EndToEnd, StreamingStartsOnceTheCameraAppears) {
    camera.stop();
    server.start(camera.server(port));
    ASSERT_TRUE(waitFor([] { return countLines(kLogPath, "Failure establishing connection") > 0; }));
    ASSERT_TRUE(camera.start());
    EXPECT_TRUE(waitFor([&] { return streams(); }, 30s));
}

}  // namespace
