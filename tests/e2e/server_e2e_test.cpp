// The whole server, end to end: the real binary against the real test
// camera, read by raw sockets and real HTTP clients.
#include <gtest/gtest.h>
#include <opencv2/imgcodecs.hpp>
#include <opencv2/videoio.hpp>
#include <sys/stat.h>

#include <chrono>
#include <cstdio>
#include <fstream>
#include <string>
#include <vector>

#include "../test_camera.h"
#include "e2e_util.h"

namespace {



using namespace std::chrono_literals;
using e2e::RawClient;
using e2e::ServerProcess;

using e2e::kStreamHeader;

cv::Mat decodeJpeg(const std::string& bytes) {
    return cv::imdecode(std::vector<uchar>(bytes.begin(), bytes.end()), cv::IMREAD_UNCHANGED);
}

std::string run(const std::string& command) {
    std::string out;
    FILE* p = popen(command.c_str(), "r");
    if (!p) return out;
    char buf[65536];
    size_t n;
    while ((n = fread(buf, 1, sizeof buf, p)) > 0) out.append(buf, n);
    pclose(p);
    return out;
}

// A test camera and the server reading it, on free loopback ports.
class ServerTest : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_TRUE(camera.start());
        httpPort = e2e::freeLoopbackPort();
        server = std::make_unique<ServerProcess>(std::vector<std::string>{
            "--httpport", std::to_string(httpPort), "--url", camera.url(), "--testurl",
            "127.0.0.1:" + std::to_string(camera.port())});
        server->start();
        ASSERT_TRUE(server->waitUntilServing());
        ASSERT_TRUE(testutil::waitFor([] { return e2e::logContains("Read thread running"); }, 20s));
    }

    // Opens a stream client and reads its header and `parts` whole parts.
    std::vector<std::string> streamParts(RawClient& client, size_t parts) {
        std::vector<std::string> jpegs;
        testutil::waitFor([&] {
            client.readFor(50ms);
            jpegs.clear();
            if (client.data().size() < kStreamHeader.size()) return false;
            e2e::splitParts(client.data().substr(kStreamHeader.size()), jpegs);
            return jpegs.size() >= parts;
        }, 20s);
        return jpegs;
    }

    TestCamera camera{0, "640x360", 30};
    int httpPort = 0;
    std::unique_ptr<ServerProcess> server;
};

TEST_F(ServerTest, StreamHeaderAndPartsAreExactOnTheWire) {
    RawClient client(httpPort);
    ASSERT_TRUE(client.connected());
    client.sendText("GET / HTTP/1.1\r\nHost: x\r\n\r\n");
    auto jpegs = streamParts(client, 3);
    ASSERT_GE(jpegs.size(), 3u);
    const std::string& data = client.data();
    EXPECT_EQ(data.substr(0, kStreamHeader.size()), kStreamHeader);

    std::string error;
    std::vector<std::string> strict;
    EXPECT_TRUE(e2e::splitParts(data.substr(kStreamHeader.size()), strict, &error)) << error;
    for (const auto& jpeg : jpegs) {
        // Content-Length is the JPEG's size: each payload is a whole JPEG.
        ASSERT_GE(jpeg.size(), 4u);
        EXPECT_EQ(static_cast<unsigned char>(jpeg[0]), 0xFF);
        EXPECT_EQ(static_cast<unsigned char>(jpeg[1]), 0xD8);
        EXPECT_EQ(static_cast<unsigned char>(jpeg[jpeg.size() - 2]), 0xFF);
        EXPECT_EQ(static_cast<unsigned char>(jpeg[jpeg.size() - 1]), 0xD9);
        cv::Mat m = decodeJpeg(jpeg);
        EXPECT_EQ(m.cols, 1280);
        EXPECT_EQ(m.rows, 720);
        EXPECT_EQ(m.channels(), 3);
    }
    // A second request on the stream does not resend the header.
    client.sendText("GET / HTTP/1.1\r\n\r\n");
    streamParts(client, jpegs.size() + 3);
    EXPECT_EQ(client.data().find("HTTP/1.0", 1), std::string::npos);
}

TEST_F(ServerTest, SingleImageThenConnectionShutDown) {
    RawClient client(httpPort);
    client.sendText("GET /?frame_id=7 HTTP/1.1\r\nHost: x\r\n\r\n");
    ASSERT_TRUE(client.readToEof(15s));
    const std::string& data = client.data();
    const std::string prefix = "HTTP/1.1 200 OK\r\nConnection: close\r\nContent-Type: image/jpg\r\nContent-Length: ";
    ASSERT_EQ(data.compare(0, prefix.size(), prefix), 0) << data.substr(0, 120);
    size_t end = data.find("\r\n\r\n");
    ASSERT_NE(end, std::string::npos);
    size_t length = std::stoul(data.substr(prefix.size(), end - prefix.size()));
    std::string body = data.substr(end + 4);
    // One response, then the shut-down; if the server answered a second
    // frame before noticing, its sends failed on the shut-down socket.
    EXPECT_EQ(body.size(), length);
    cv::Mat m = decodeJpeg(body);
    EXPECT_EQ(m.size(), cv::Size(1280, 720));
}

TEST_F(ServerTest, ClientsAreToldApartByTheirRequest) {
    RawClient silent(httpPort);
    RawClient capitals(httpPort);
    capitals.sendText("GET /?FRAME_ID=1 HTTP/1.1\r\n\r\n");  // case-sensitive: a stream
    auto jpegs = streamParts(capitals, 5);
    EXPECT_GE(jpegs.size(), 5u);
    EXPECT_EQ(capitals.data().substr(0, kStreamHeader.size()), kStreamHeader);
    silent.readFor(200ms);
    EXPECT_TRUE(silent.data().empty()) << "a client that sent nothing received bytes";
    EXPECT_FALSE(silent.eof());
    EXPECT_NE(server->out().find("client connected\n"), std::string::npos);
}

TEST_F(ServerTest, CurlFetchesOneJpeg) {
    testutil::TempDir dir;
    std::string file = dir.file("frame.jpg");
    std::string out = run("curl -sS --max-time 15 -o " + file + " -w '%{http_code} %{content_type}' 'http://127.0.0.1:" +
                          std::to_string(httpPort) + "/?frame_id=1'");
    EXPECT_EQ(out, "200 image/jpg");
    cv::Mat m = cv::imread(file, cv::IMREAD_UNCHANGED);
    EXPECT_EQ(m.cols, 1280);
    EXPECT_EQ(m.rows, 720);
    EXPECT_EQ(m.channels(), 3);
}

TEST_F(ServerTest, FfmpegDecodesThirtyConsecutiveFrames) {
    testutil::TempDir dir;
    std::string raw = dir.file("frames.gray");
    std::string cmd = "timeout 60 ffmpeg -nostdin -loglevel error -f mjpeg -i http://127.0.0.1:" +
                      std::to_string(httpPort) + "/ -frames:v 30 -f rawvideo -pix_fmt gray -y " + raw + " 2>&1";
    std::string out = run(cmd);
    EXPECT_EQ(std::filesystem::file_size(raw), 30u * 1280u * 720u) << out;
}

TEST_F(ServerTest, OpenCvReadsTheStreamAsTheReadmeShows) {
    setenv("OPENCV_FFMPEG_CAPTURE_OPTIONS", "input_format;mjpeg", 1);
    cv::VideoCapture capture("http://127.0.0.1:" + std::to_string(httpPort) + "/", cv::CAP_FFMPEG);
    ASSERT_TRUE(capture.isOpened());
    cv::Mat frame;
    int frames = 0;
    for (int i = 0; i < 10 && capture.read(frame); ++i) {
        EXPECT_EQ(frame.size(), cv::Size(1280, 720));
        ++frames;
    }
    EXPECT_EQ(frames, 10);
}

TEST_F(ServerTest, ChromiumShowsTheStreamInAnImage) {
    testutil::TempDir dir;
    std::string page = dir.file("page.html");
    std::ofstream(page) << "<html><body style='margin:0;background:#fff'><img src='http://127.0.0.1:" << httpPort
                        << "/' width=1280 height=720></body></html>";
    std::string shot = dir.file("shot.png");
    std::string profile = dir.file("profile");
    std::string cmd = "timeout 90 chromium --headless --no-sandbox --disable-gpu --disable-background-networking "
                      "--disable-component-update --disable-sync --no-first-run --disable-quic "
                      "--user-data-dir=" + profile + " --window-size=1280,720 --timeout=4000 --screenshot=" + shot +
                      " file://" + page + " 2>&1";
    std::string out = run(cmd);
    cv::Mat png = cv::imread(shot, cv::IMREAD_COLOR);
    ASSERT_FALSE(png.empty()) << out;
    cv::Scalar mean, stddev;
    cv::meanStdDev(png, mean, stddev);
    // A blank page is flat white; the camera picture is not.
    EXPECT_GT(stddev[0] + stddev[1] + stddev[2], 20.0);
    EXPECT_LT(mean[0] + mean[1] + mean[2], 3 * 250.0);
}

TEST_F(ServerTest, SigintAndFullRunLog) {
    RawClient client(httpPort);
    client.sendText("GET / HTTP/1.1\r\n\r\n");
    streamParts(client, 2);
    server->signal(SIGINT);
    EXPECT_EQ(server->waitExit(), 0);
    auto log = e2e::logMessages();
    ASSERT_GE(log.size(), 16u);
    const std::vector<std::string> head = {
        "************** ENTRY **************",
        "OpenCV version = " CV_VERSION,
        "HTTP Port     : " + std::to_string(httpPort),
        "Stream URL    : " + camera.url(),
        "Video Width   : 1280",
        "Video Height  : 720",
        "Stream FPS    : 30.0",
        "Stream CODEC  : h264",
        "Test URL      : 127.0.0.1:" + std::to_string(camera.port()),
        "Enabling camera",
        "Camera enabled",
        "Starting main loop",
        "Testing connection to 127.0.0.1:" + std::to_string(camera.port()),
        "Success",
        "Opening stream " + camera.url(),
        "Stream opened",
        "Read thread running",
    };
    EXPECT_EQ(std::vector<std::string>(log.begin(), log.begin() + head.size()), head);
    const std::vector<std::string> tail = {"Stopping camera", "Camera stopped", "************** EXIT **************"};
    EXPECT_EQ(std::vector<std::string>(log.end() - 3, log.end()), tail);
    // Nothing existed at the FIFO path: a regular file now holds the line.
    struct stat st;
    ASSERT_EQ(stat(e2e::kFifoPath, &st), 0);
    EXPECT_TRUE(S_ISREG(st.st_mode));
    EXPECT_EQ(testutil::readFile(e2e::kFifoPath), "camera enable\n");
}

TEST_F(ServerTest, SighupStopsLikeSigint) {
    server->signal(SIGHUP);
    EXPECT_EQ(server->waitExit(), 0);
    auto log = e2e::logMessages();
    ASSERT_GE(log.size(), 3u);
    const std::vector<std::string> tail = {"Stopping camera", "Camera stopped", "************** EXIT **************"};
    EXPECT_EQ(std::vector<std::string>(log.end() - 3, log.end()), tail);
}

TEST_F(ServerTest, OverlayFileIsFollowed) {
    RawClient client(httpPort);
    client.sendText("GET / HTTP/1.1\r\n\r\n");
    auto plain = streamParts(client, 1);
    ASSERT_FALSE(plain.empty());
    std::ofstream(e2e::kOverlayPath)
        << R"({"overlays":[{"x":50,"y":50,"type":"text","value":"HELLO"}]})";
    ASSERT_TRUE(testutil::waitFor(
        [&] { return server->out().find("/tmp/overlays.json updated\n") != std::string::npos; }, 10s));
    EXPECT_NE(server->out().find("Cannot stat /tmp/overlays.json\n"), std::string::npos);
    size_t seen = streamParts(client, 1).size();
    auto jpegs = streamParts(client, seen + 3);
    cv::Mat m = decodeJpeg(jpegs.back());
    ASSERT_EQ(m.size(), cv::Size(1280, 720));
    // The centre holds the half-transparent black box: darker than the rest.
    cv::Scalar centre = cv::mean(m(cv::Rect(600, 345, 80, 25)));
    EXPECT_LT(centre[0] + centre[1] + centre[2], 3 * 140.0);
}

// The server with its camera address on a port where nothing answers yet.
class ServerWithoutCameraTest : public ::testing::Test {};

TEST_F(ServerWithoutCameraTest, StartsStreamingOnceTheCameraAppears) {
    int cameraPort = e2e::freeLoopbackPort();
    int httpPort = e2e::freeLoopbackPort();
    std::string url = "rtsp://127.0.0.1:" + std::to_string(cameraPort) + "/stream";
    ServerProcess server({"-p", std::to_string(httpPort), "-u", url, "-t", "127.0.0.1:" + std::to_string(cameraPort)});
    server.start();
    ASSERT_TRUE(server.waitUntilServing());
    ASSERT_TRUE(testutil::waitFor([] { return e2e::countInLog("Failure establishing connection") >= 1; }, 15s));

    // HTTP is served between attempts.
    RawClient client(httpPort);
    client.sendText("GET / HTTP/1.1\r\n\r\n");
    client.readAtLeast(kStreamHeader.size(), 15s);
    EXPECT_EQ(client.data().substr(0, kStreamHeader.size()), kStreamHeader);

    TestCamera camera(cameraPort, "320x240", 30);
    ASSERT_TRUE(camera.start());
    std::vector<std::string> jpegs;
    EXPECT_TRUE(testutil::waitFor([&] {
        client.readFor(50ms);
        jpegs.clear();
        e2e::splitParts(client.data().substr(kStreamHeader.size()), jpegs);
        return jpegs.size() >= 3;
    }, 30s));
    server.signal(SIGINT);
    EXPECT_EQ(server.waitExit(), 0);
}

TEST_F(ServerWithoutCameraTest, FifoReaderReceivesTheAnnouncement) {
    ASSERT_EQ(mkfifo(e2e::kFifoPath, 0600), 0);
    int httpPort = e2e::freeLoopbackPort();
    int cameraPort = e2e::freeLoopbackPort();
    ServerProcess server({"-p", std::to_string(httpPort), "-t", "127.0.0.1:" + std::to_string(cameraPort), "-u",
                          "rtsp://127.0.0.1:" + std::to_string(cameraPort) + "/s"});
    server.start();
    ASSERT_TRUE(testutil::waitFor([] { return e2e::logContains("Enabling camera"); }, 10s));
    // Start-up waits for the control service to open the FIFO.
    EXPECT_FALSE(testutil::waitFor([] { return e2e::logContains("Camera enabled"); }, 300ms));
    int fd = open(e2e::kFifoPath, O_RDONLY);
    ASSERT_GE(fd, 0);
    std::string line;
    testutil::waitFor([&] {
        char buf[64];
        ssize_t n = read(fd, buf, sizeof buf);
        if (n > 0) line.append(buf, static_cast<size_t>(n));
        return line.find('\n') != std::string::npos || n == 0;
    }, 10s);
    EXPECT_EQ(line, "camera enable\n");
    EXPECT_TRUE(server.waitUntilServing());
    EXPECT_TRUE(e2e::logContains("Camera enabled"));
    server.signal(SIGINT);
    EXPECT_EQ(server.waitExit(), 0);
    close(fd);
}

TEST_F(ServerWithoutCameraTest, PortInUseIsReportedAndTheCameraSideRuns) {
    TestCamera camera(0, "320x240", 30);
    ASSERT_TRUE(camera.start());
    int busy = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_port = 0;
    a.sin_addr.s_addr = htonl(INADDR_ANY);
    ASSERT_EQ(bind(busy, reinterpret_cast<sockaddr*>(&a), sizeof a), 0);
    ASSERT_EQ(listen(busy, 1), 0);
    socklen_t len = sizeof a;
    getsockname(busy, reinterpret_cast<sockaddr*>(&a), &len);
    int port = ntohs(a.sin_port);

    ServerProcess server({"-p", std::to_string(port), "-u", camera.url(), "-t", ""});
    server.start();
    ASSERT_TRUE(server.waitUntilServing());
    EXPECT_TRUE(testutil::waitFor([&] { return server.err().find("Can't bind socket\n") != std::string::npos; }, 5s));
    EXPECT_TRUE(testutil::waitFor([] { return e2e::logContains("Read thread running"); }, 20s));
    EXPECT_FALSE(e2e::logContains("Testing connection to " + std::string("127.0.0.1")));  // empty test URL
    server.signal(SIGINT);
    EXPECT_EQ(server.waitExit(), 0);
    close(busy);
}

}  // namespace
