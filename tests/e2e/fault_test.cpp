// Faults and load, end to end: the real server and test camera inside the
// test's private namespaces (tests/isolate), under what a device meets in
// the field: a camera that goes away, storage pulled out, an overlay file
// rewritten without pause, hostile and careless clients, signals at awkward
// moments. The server must not crash, must not leak descriptors, and its
// streaming clients must keep receiving well-formed parts.
//
// Tests that measure (stalled and slow clients) print their figures; the
// README's reliability section quotes them.
#include <gtest/gtest.h>
#include <opencv2/imgcodecs.hpp>
#include <sys/ioctl.h>
#include <sys/stat.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <mutex>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "../../bench/mjpeg_parts.h"
#include "e2e_util.h"

namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;
using e2e::RawClient;
using e2e::ServerProcess;

using e2e::kStreamHeader;
const std::string kStreamRequest = "GET / HTTP/1.1\r\nHost: cam\r\n\r\n";
const std::string kSnapshotRequest = "GET /?frame_id=1 HTTP/1.1\r\nHost: cam\r\n\r\n";

double secondsBetween(Clock::time_point from, Clock::time_point to) {
    return std::chrono::duration<double>(to - from).count();
}

bool isWholeJpeg(const std::string& bytes) {
    return bytes.size() >= 4 && static_cast<unsigned char>(bytes[0]) == 0xFF &&
           static_cast<unsigned char>(bytes[1]) == 0xD8 &&
           static_cast<unsigned char>(bytes[bytes.size() - 2]) == 0xFF &&
           static_cast<unsigned char>(bytes[bytes.size() - 1]) == 0xD9;
}

cv::Size jpegSize(const std::string& bytes) {
    cv::Mat m = cv::imdecode(std::vector<uchar>(bytes.begin(), bytes.end()), cv::IMREAD_UNCHANGED);
    return m.size();
}

// Checks an MJPEG stream as it arrives with the benchmark reader's strict
// parser: the stream header once, then parts back to back, each a whole
// JPEG of exactly its Content-Length.
class StreamChecker {
public:
    // Consumes `data`; false (with error()) once the stream is malformed.
    bool feed(const char* data, size_t n) {
        parser_.append(std::string_view(data, n));
        std::string_view jpeg;
        size_t partBytes = 0;
        for (;;) {
            switch (parser_.next(jpeg, partBytes)) {
                case PartParser::Result::part:
                    lastJpeg_.assign(jpeg);
                    break;
                case PartParser::Result::needMore:
                    return true;
                case PartParser::Result::error:
                    return false;
            }
        }
    }

    bool headerSeen() const { return parser_.headerDone(); }
    int parts() const { return static_cast<int>(parser_.parts()); }
    // Bytes of a part that has begun but not ended.
    size_t partial() const { return parser_.pending(); }
    const std::string& error() const { return parser_.error(); }
    const std::string& lastJpeg() const { return lastJpeg_; }

private:
    PartParser parser_{StreamFormat::server};
    std::string lastJpeg_;
};

// A streaming client that reads and checks on a thread of its own.
// `bytesPerSecond` > 0 makes it a slow reader that takes no more than that.
class StreamClient {
public:
    explicit StreamClient(int port, long bytesPerSecond = 0) : client_(port), rate_(bytesPerSecond) {
        client_.sendText(kStreamRequest);
        thread_ = std::thread([this] { run(); });
    }
    ~StreamClient() {
        stopping_ = true;
        thread_.join();
    }
    StreamClient(const StreamClient&) = delete;
    StreamClient& operator=(const StreamClient&) = delete;

    int parts() const { std::lock_guard<std::mutex> l(m_); return checker_.parts(); }
    bool headerSeen() const { std::lock_guard<std::mutex> l(m_); return checker_.headerSeen(); }
    std::string error() const { std::lock_guard<std::mutex> l(m_); return checker_.error(); }
    std::string lastJpeg() const { std::lock_guard<std::mutex> l(m_); return checker_.lastJpeg(); }
    bool ended() const { std::lock_guard<std::mutex> l(m_); return ended_; }
    Clock::time_point lastPart() const { std::lock_guard<std::mutex> l(m_); return lastPart_; }
    // The longest wait between two consecutive parts since the last reset.
    double longestGap() const { std::lock_guard<std::mutex> l(m_); return longestGap_; }
    void resetLongestGap() { std::lock_guard<std::mutex> l(m_); longestGap_ = 0; }

    // Waits until `count` parts have arrived in all.
    bool waitParts(int count, std::chrono::milliseconds timeout = 20s) const {
        return testutil::waitFor([&] { return parts() >= count; }, timeout);
    }
    // Parts per second over the next `window`.
    double measureRate(std::chrono::milliseconds window) const {
        const int before = parts();
        const auto start = Clock::now();
        std::this_thread::sleep_for(window);  // the measurement's window
        return (parts() - before) / secondsBetween(start, Clock::now());
    }

private:
    void run() {
        std::vector<char> buffer(65536);
        const auto start = Clock::now();
        long taken = 0;
        while (!stopping_) {
            size_t want = buffer.size();
            if (rate_ > 0) {
                const long allowed = static_cast<long>(secondsBetween(start, Clock::now()) * rate_) - taken;
                if (allowed <= 0) {
                    std::this_thread::sleep_for(5ms);  // the slow reader's pace
                    continue;
                }
                want = std::min(want, static_cast<size_t>(allowed));
            }
            pollfd p{client_.fd(), POLLIN, 0};
            if (poll(&p, 1, 50) <= 0) continue;
            const ssize_t n = recv(client_.fd(), buffer.data(), want, 0);
            std::lock_guard<std::mutex> l(m_);
            if (n <= 0) {
                ended_ = true;
                return;
            }
            taken += n;
            const int before = checker_.parts();
            checker_.feed(buffer.data(), static_cast<size_t>(n));
            if (checker_.parts() != before) {
                const auto now = Clock::now();
                if (before > 0) longestGap_ = std::max(longestGap_, secondsBetween(lastPart_, now));
                lastPart_ = now;
            }
        }
    }

    RawClient client_;
    const long rate_;
    std::atomic<bool> stopping_{false};
    mutable std::mutex m_;
    StreamChecker checker_;
    bool ended_ = false;
    Clock::time_point lastPart_ = Clock::now();
    double longestGap_ = 0;
    std::thread thread_;
};

// Whether the process has ended, without reaping it (ServerProcess does).
bool hasEnded(pid_t pid, siginfo_t* info = nullptr) {
    siginfo_t local{};
    siginfo_t& i = info ? *info : local;
    i.si_pid = 0;
    return waitid(P_PID, static_cast<id_t>(pid), &i, WEXITED | WNOHANG | WNOWAIT) == 0 && i.si_pid == pid;
}

int countOf(const std::string& text, const std::string& what) {
    int n = 0;
    for (size_t at = text.find(what); at != std::string::npos; at = text.find(what, at + what.size())) ++n;
    return n;
}

// A loopback listener standing in for the camera's RTSP port. It counts the
// connectivity probes (each is one connection) and can leave its accept
// queue full, so that connection attempts get no answer at all.
class ProbeTarget {
public:
    explicit ProbeTarget(bool fullBacklog = false) {
        fd_ = socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
        sockaddr_in a{};
        a.sin_family = AF_INET;
        a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t len = sizeof a;
        EXPECT_EQ(bind(fd_, reinterpret_cast<sockaddr*>(&a), sizeof a), 0);
        EXPECT_EQ(listen(fd_, fullBacklog ? 0 : 16), 0);
        getsockname(fd_, reinterpret_cast<sockaddr*>(&a), &len);
        port_ = ntohs(a.sin_port);
        if (fullBacklog) fill();
    }
    ~ProbeTarget() {
        for (int f : fillers_) close(f);
        close(fd_);
    }

    int port() const { return port_; }
    bool full() const { return full_; }

    // Accepts and closes what is pending; the number of probes so far.
    int probes() {
        int c;
        while ((c = accept(fd_, nullptr, nullptr)) >= 0) {
            close(c);
            ++probes_;
        }
        return probes_;
    }

private:
    // Connects until an attempt stays unanswered: the queue is then full
    // and the kernel drops further connection requests.
    void fill() {
        for (int i = 0; i < 8 && !full_; ++i) {
            const int c = socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
            sockaddr_in a{};
            a.sin_family = AF_INET;
            a.sin_port = htons(static_cast<uint16_t>(port_));
            a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
            connect(c, reinterpret_cast<sockaddr*>(&a), sizeof a);
            fillers_.push_back(c);
            pollfd p{c, POLLOUT, 0};
            full_ = poll(&p, 1, 300) == 0;
        }
    }

    int fd_ = -1;
    int port_ = 0;
    int probes_ = 0;
    bool full_ = false;
    std::vector<int> fillers_;
};

class FaultTest : public ::testing::Test {
protected:
    // Each test starts from empty fixed paths, even when several run in one
    // process (the namespaces are per process).
    void SetUp() override {
        std::filesystem::remove_all(e2e::kFifoPath);
        std::filesystem::remove(e2e::kLogPath);
        std::filesystem::remove(e2e::kOverlayPath);
    }

    void TearDown() override {
        // Whatever happened, the process is still there and still stops in
        // an orderly way.
        if (server && server->pid() > 0 && orderlyStopExpected) {
            EXPECT_FALSE(hasEnded(server->pid())) << "the server ended during the test";
            server->signal(SIGINT);
            EXPECT_EQ(server->waitExit(), 0);
            const auto log = e2e::logMessages();
            ASSERT_FALSE(log.empty());
            EXPECT_EQ(log.back(), "************** EXIT **************");
        }
    }

    void startServer(const std::vector<std::string>& args) {
        server = std::make_unique<ServerProcess>(args);
        server->start();
        ASSERT_TRUE(server->waitUntilServing());
    }

    // The test camera and the server reading it.
    void startStreaming() {
        ASSERT_TRUE(camera.start());
        httpPort = e2e::freeLoopbackPort();
        startServer({"--httpport", std::to_string(httpPort), "--url", camera.url(), "--testurl",
                     "127.0.0.1:" + std::to_string(camera.port())});
        ASSERT_TRUE(testutil::waitFor([] { return e2e::logContains("Read thread running"); }, 20s));
    }

    // The server's descriptor count when nothing is in flight: the log and
    // overlay files are open only for moments, so take the lowest of a few
    // readings.
    int quietFds() {
        int lowest = server->openFds();
        for (int i = 0; i < 20; ++i) {
            std::this_thread::sleep_for(10ms);  // spread the samples
            lowest = std::min(lowest, server->openFds());
        }
        return lowest;
    }

    // Waits for the count to come back to `expected` (connections are closed
    // a pass or two after their peer went).
    void expectFdsSettleAt(int expected) {
        EXPECT_TRUE(testutil::waitFor([&] { return server->openFds() == expected; }, 15s))
            << "descriptors: " << server->openFds() << ", expected " << expected;
    }

    int connectedCount() const { return countOf(server->out(), "client connected\n"); }

    TestCamera camera{0, "640x360", 30};
    int httpPort = 0;
    std::unique_ptr<ServerProcess> server;
    bool orderlyStopExpected = true;
};

TEST_F(FaultTest, CameraStopsAndComesBackTheStreamStallsButHttpIsServed) {
    startStreaming();
    StreamClient viewer(httpPort);
    ASSERT_TRUE(viewer.waitParts(5)) << viewer.error();
    const int baseline = quietFds();

    camera.stop();
    // The read thread gets nothing from the capture any more and says so on
    // every pass; the main loop times out waiting for frames, once a second.
    EXPECT_TRUE(testutil::waitFor([] { return e2e::logContains("Empty frame"); }, 40s));
    EXPECT_TRUE(testutil::waitFor([] { return e2e::logContains("getImage timeout"); }, 10s));
    const int partsAtStall = viewer.parts();

    {
        // HTTP is still served, once per (now one-second) pass.
        RawClient late(httpPort);
        late.sendText(kStreamRequest);
        EXPECT_EQ(late.readAtLeast(kStreamHeader.size(), 10s), kStreamHeader);
    }

    // The camera comes back at the same address. The capture stays open on
    // the dead session and is never reopened, so the stream stays stalled.
    ASSERT_TRUE(camera.start());
    const int timeouts = e2e::countInLog("getImage timeout");
    EXPECT_TRUE(testutil::waitFor([&] { return e2e::countInLog("getImage timeout") >= timeouts + 3; }, 15s));
    EXPECT_EQ(viewer.parts(), partsAtStall);
    EXPECT_EQ(e2e::countInLog("Opening stream " + camera.url()), 1);
    EXPECT_TRUE(viewer.error().empty()) << viewer.error();
    EXPECT_FALSE(viewer.ended());
    expectFdsSettleAt(baseline);
}

TEST_F(FaultTest, LogStorageVanishesAndLoggingResumesWhenItReturns) {
    // Every opening attempt logs three lines, about once a second: the
    // probe succeeds against this listener, then the URL is rejected.
    ProbeTarget target;
    httpPort = e2e::freeLoopbackPort();
    startServer({"-p", std::to_string(httpPort), "-u", "xx", "-t", "127.0.0.1:" + std::to_string(target.port())});
    const std::string rejected = "Invalid stream URL : xx";
    ASSERT_TRUE(testutil::waitFor([&] { return e2e::logContains(rejected); }, 10s));
    StreamClient viewer(httpPort);
    ASSERT_TRUE(testutil::waitFor([&] { return viewer.headerSeen(); }, 10s));
    const int baseline = quietFds();

    std::filesystem::remove_all("/media/usb99");
    // Three attempts while the storage is gone: their lines are dropped.
    const int probes = target.probes();
    ASSERT_TRUE(testutil::waitFor([&] { return target.probes() >= probes + 3; }, 15s));
    EXPECT_FALSE(std::filesystem::exists("/media/usb99"));  // nothing recreates it

    ASSERT_TRUE(std::filesystem::create_directory("/media/usb99"));
    ASSERT_TRUE(testutil::waitFor([&] { return e2e::logContains(rejected); }, 10s));
    // A new file: only the lines of attempts made since the storage came back.
    const auto log = e2e::logMessages();
    EXPECT_EQ(std::count(log.begin(), log.end(), "************** ENTRY **************"), 0);
    EXPECT_LE(std::count(log.begin(), log.end(), rejected), 2);
    EXPECT_FALSE(viewer.ended());
    EXPECT_TRUE(viewer.error().empty()) << viewer.error();
    expectFdsSettleAt(baseline);
}

TEST_F(FaultTest, OverlayFileRewrittenAHundredTimesASecondWhileStreaming) {
    startStreaming();
    StreamClient a(httpPort);
    StreamClient b(httpPort);
    ASSERT_TRUE(a.waitParts(3));
    ASSERT_TRUE(b.waitParts(3));
    const int baseline = quietFds();
    const int partsBefore = a.parts();
    a.resetLongestGap();
    b.resetLongestGap();

    // 300 versions, 10 ms apart, each with a modification time of its own,
    // so the server re-reads the file for nearly every frame. Some are
    // rewritten in place (a reader can meet them half-written), some are
    // replaced whole; valid, empty, cut short and without overlays.
    const std::string types[] = {"date", "text", "queue_rate", "dequeue_rate", "image", "TIME"};
    const std::string values[] = {"%H:%M:%S", "Gate 3", "capture %.1f fps", "%5.2f%%", "/x.png", "%c"};
    const time_t base = time(nullptr) + 1000;
    for (int i = 0; i < 300; ++i) {
        std::string json = "{\"overlays\":[";
        for (int k = 0; k <= i % 12; ++k) {
            json += (k ? "," : "") + std::string("{\"x\":") + std::to_string((i * 7 + k * 13) % 100) +
                    ",\"y\":" + std::to_string((i * 3 + k * 29) % 100) + ",\"type\":\"" + types[(i + k) % 6] +
                    "\",\"value\":\"" + values[(i + k) % 6] + "\"}";
        }
        json += "]}";
        switch (i % 5) {
            case 1: json.resize(json.size() / 2); break;  // cut short
            case 3: json.clear(); break;
            case 4: json = "{\"overlays\":[]}"; break;
            default: break;
        }
        const std::string target = i % 2 ? std::string(e2e::kOverlayPath) : std::string(e2e::kOverlayPath) + ".new";
        {
            std::ofstream out(target, std::ios::trunc);
            out << json;
        }
        const timespec times[2] = {{base + i, 0}, {base + i, 0}};
        utimensat(AT_FDCWD, target.c_str(), times, 0);
        if (target != e2e::kOverlayPath) std::filesystem::rename(target, e2e::kOverlayPath);
        std::this_thread::sleep_for(10ms);  // the writer's pace
    }

    for (const StreamClient* viewer : {&a, &b}) {
        EXPECT_TRUE(viewer->error().empty()) << viewer->error();
        EXPECT_FALSE(viewer->ended());
        EXPECT_LT(viewer->longestGap(), 2.0);
        EXPECT_EQ(jpegSize(viewer->lastJpeg()), cv::Size(1280, 720));
    }
    EXPECT_GE(a.parts() - partsBefore, 15);
    EXPECT_GE(countOf(server->out(), "/tmp/overlays.json updated\n"), 30);
    expectFdsSettleAt(baseline);
}

TEST_F(FaultTest, FifoPathThatIsADirectoryIsIgnored) {
    ASSERT_TRUE(std::filesystem::create_directory(e2e::kFifoPath));
    startStreaming();
    const auto log = e2e::logMessages();
    const auto enabling = std::find(log.begin(), log.end(), "Enabling camera");
    ASSERT_NE(enabling, log.end());
    ASSERT_NE(enabling + 1, log.end());
    EXPECT_EQ(*(enabling + 1), "Camera enabled");

    StreamClient viewer(httpPort);
    EXPECT_TRUE(viewer.waitParts(3)) << viewer.error();
    EXPECT_TRUE(std::filesystem::is_directory(e2e::kFifoPath));
    EXPECT_TRUE(std::filesystem::is_empty(e2e::kFifoPath));
}

// "YYYY-MM-DD HH:MM:SS.uuuuuu message": the time of day in seconds.
double stampSeconds(const std::string& line) {
    int h = 0, m = 0;
    double s = 0;
    std::sscanf(line.c_str(), "%*d-%*d-%*d %d:%d:%lf", &h, &m, &s);
    return h * 3600.0 + m * 60.0 + s;
}

TEST_F(FaultTest, SigintDuringTheConnectivityProbe) {
    // The probe's connection attempt gets no answer at all, so it would
    // wait its full two seconds.
    ProbeTarget target(/*fullBacklog=*/true);
    ASSERT_TRUE(target.full());
    const std::string testing = "Testing connection to 127.0.0.1:" + std::to_string(target.port());
    httpPort = e2e::freeLoopbackPort();
    startServer({"-p", std::to_string(httpPort), "-u", "rtsp://127.0.0.1:" + std::to_string(target.port()) + "/s",
                 "-t", "127.0.0.1:" + std::to_string(target.port())});
    ASSERT_TRUE(testutil::waitFor([&] { return e2e::logContains(testing); }, 10s));
    ASSERT_FALSE(e2e::logContains("Failure establishing connection"));
    // A signal reaches the probe's wait only if the main thread is the one
    // that takes it: so only while it is the process's only thread.
    const bool onlyThread = std::distance(std::filesystem::directory_iterator(
                                              "/proc/" + std::to_string(server->pid()) + "/task"),
                                          std::filesystem::directory_iterator{}) == 1;

    server->signal(SIGINT);
    const auto signalled = Clock::now();
    EXPECT_EQ(server->waitExit(10s), 0);
    const double exited = secondsBetween(signalled, Clock::now());
    // The attempt ends as a failure, its one-second pause runs to its end,
    // and the loop ends after it.
    EXPECT_LT(exited, 4.0);
    const auto lines = testutil::readLines(e2e::kLogPath);
    ASSERT_GE(lines.size(), 3u);
    const std::vector<std::string> tail = {testing, "Failure establishing connection",
                                           "************** EXIT **************"};
    std::vector<std::string> last;
    for (size_t i = lines.size() - 3; i < lines.size(); ++i) last.push_back(testutil::logMessage(lines[i]));
    EXPECT_EQ(last, tail);
    const double probe = stampSeconds(lines[lines.size() - 2]) - stampSeconds(lines[lines.size() - 3]);
    if (onlyThread) {
        EXPECT_LT(probe, 1.9) << "the signal did not cut the probe short";
    }
    std::cout << "[ figures  ] probe ended " << probe << " s after it began"
              << (onlyThread ? "" : " (signal possibly taken by another thread)") << "; exit "
              << exited << " s after the signal" << std::endl;
    orderlyStopExpected = false;
}

TEST_F(FaultTest, SigintDuringTheFifoWaitEndsTheProcessAtOnce) {
    ASSERT_EQ(mkfifo(e2e::kFifoPath, 0600), 0);
    httpPort = e2e::freeLoopbackPort();
    server = std::make_unique<ServerProcess>(std::vector<std::string>{"-p", std::to_string(httpPort), "-t", ""});
    server->start();
    ASSERT_TRUE(testutil::waitFor([] { return e2e::logContains("Enabling camera"); }, 10s));
    EXPECT_FALSE(e2e::logContains("Camera enabled"));

    // No handler is installed yet: the signal's default action ends the
    // process, with no orderly shutdown and no exit line.
    server->signal(SIGINT);
    siginfo_t info{};
    ASSERT_TRUE(testutil::waitFor([&] { return hasEnded(server->pid(), &info); }, 5s));
    EXPECT_EQ(info.si_code, CLD_KILLED);
    EXPECT_EQ(info.si_status, SIGINT);
    EXPECT_EQ(server->waitExit(), -1);
    EXPECT_EQ(e2e::logMessages().back(), "Enabling camera");
    orderlyStopExpected = false;
}

TEST_F(FaultTest, TwoHundredClientsComeAndGoWhileFiveStream) {
    startStreaming();
    std::vector<std::unique_ptr<StreamClient>> viewers;
    for (int i = 0; i < 5; ++i) viewers.push_back(std::make_unique<StreamClient>(httpPort));
    for (auto& viewer : viewers) ASSERT_TRUE(viewer->waitParts(3));
    const int baseline = quietFds();
    std::vector<int> partsBefore;
    for (auto& viewer : viewers) {
        viewer->resetLongestGap();
        partsBefore.push_back(viewer->parts());
    }

    const int connectedBefore = connectedCount();
    const auto churnStart = Clock::now();
    for (int i = 0; i < 200; ++i) {
        // The server accepts one client per pass and its backlog is 5: keep
        // no more than three waiting, so that no connection attempt is
        // dropped and retried a second later.
        ASSERT_TRUE(testutil::waitFor([&] { return connectedCount() >= connectedBefore + i - 2; }, 10s)) << i;
        RawClient client(httpPort);
        ASSERT_TRUE(client.connected()) << i;
        switch (i % 5) {
            case 0:  // connects and leaves
                break;
            case 1:  // a stream, left after its header
                client.sendText(kStreamRequest);
                EXPECT_EQ(client.readAtLeast(kStreamHeader.size(), 10s).substr(0, kStreamHeader.size()),
                          kStreamHeader);
                break;
            case 2:  // a single image, left before the answer
                client.sendText(kSnapshotRequest);
                break;
            case 3: {  // a single image, read to the end
                client.sendText(kSnapshotRequest);
                EXPECT_TRUE(client.readToEof(10s)) << i;
                const std::string& data = client.data();
                const size_t end = data.find("\r\n\r\n");
                ASSERT_NE(end, std::string::npos) << i;
                EXPECT_TRUE(isWholeJpeg(data.substr(end + 4))) << i;
                break;
            }
            case 4:  // half a request line
                client.sendText("GET / HT");
                break;
        }
    }
    ASSERT_TRUE(testutil::waitFor([&] { return connectedCount() >= connectedBefore + 200; }, 20s));
    const double churn = secondsBetween(churnStart, Clock::now());
    expectFdsSettleAt(baseline);
    double longestGap = 0;
    for (size_t v = 0; v < viewers.size(); ++v) {
        EXPECT_TRUE(viewers[v]->error().empty()) << viewers[v]->error();
        EXPECT_FALSE(viewers[v]->ended());
        EXPECT_GT(viewers[v]->parts(), partsBefore[v] + 30);
        longestGap = std::max(longestGap, viewers[v]->longestGap());
    }
    EXPECT_LT(longestGap, 2.0);
    std::cout << "[ figures  ] 200 clients in " << churn << " s; the streaming clients' longest wait for a part "
              << longestGap << " s" << std::endl;
}

TEST_F(FaultTest, HalfClosedClientsAreDropped) {
    startStreaming();
    StreamClient viewer(httpPort);
    ASSERT_TRUE(viewer.waitParts(3));
    const int baseline = quietFds();

    {
        // Before any request: dropped without a byte.
        RawClient silent(httpPort);
        shutdown(silent.fd(), SHUT_WR);
        EXPECT_TRUE(silent.readToEof(10s));
        EXPECT_EQ(silent.data(), "");
    }
    {
        // While streaming: the stream ends after a whole part.
        RawClient streamer(httpPort);
        streamer.sendText(kStreamRequest);
        StreamChecker parts;
        size_t fed = 0;
        ASSERT_TRUE(testutil::waitFor([&] {
            streamer.readFor(20ms);
            parts.feed(streamer.data().data() + fed, streamer.data().size() - fed);
            fed = streamer.data().size();
            return parts.parts() >= 2;
        }, 20s));
        shutdown(streamer.fd(), SHUT_WR);
        EXPECT_TRUE(streamer.readToEof(10s));
        parts.feed(streamer.data().data() + fed, streamer.data().size() - fed);
        EXPECT_TRUE(parts.error().empty()) << parts.error();
        EXPECT_EQ(parts.partial(), 0u) << "the stream ended inside a part";
    }
    {
        // A request and the half-close together: the hang-up is seen first,
        // so the client is dropped unanswered (or, had a pass read the
        // request in between, answered in full).
        RawClient snapshot(httpPort);
        snapshot.sendText(kSnapshotRequest);
        shutdown(snapshot.fd(), SHUT_WR);
        EXPECT_TRUE(snapshot.readToEof(10s));
        const std::string& data = snapshot.data();
        if (!data.empty()) {
            const size_t end = data.find("\r\n\r\n");
            ASSERT_NE(end, std::string::npos);
            EXPECT_TRUE(isWholeJpeg(data.substr(end + 4)));
        }
    }
    expectFdsSettleAt(baseline);
    EXPECT_TRUE(viewer.error().empty()) << viewer.error();
    EXPECT_FALSE(viewer.ended());
}

TEST_F(FaultTest, ClientSendingAMegabyteOfJunkStreamsAndHurtsNoOne) {
    startStreaming();
    StreamClient viewer(httpPort);
    ASSERT_TRUE(viewer.waitParts(3));
    const int baseline = quietFds();
    viewer.resetLongestGap();

    std::mt19937 random(6);
    std::string junk(1 << 20, '\0');
    for (char& c : junk) c = static_cast<char>(random());
    ASSERT_EQ(junk.find("frame_id="), std::string::npos);

    auto junkClient = std::make_unique<RawClient>(httpPort);
    const int fd = junkClient->fd();
    std::atomic<size_t> sent{0};
    std::thread sender([&] {
        while (sent < junk.size()) {
            const ssize_t n = ::send(fd, junk.data() + sent, junk.size() - sent, MSG_NOSIGNAL);
            if (n <= 0) return;
            sent += static_cast<size_t>(n);
        }
    });
    // The junk is a request without "frame_id=": the client streams, and
    // the server reads 1 KiB of the rest per pass and ignores it.
    StreamChecker parts;
    size_t fed = 0;
    EXPECT_TRUE(testutil::waitFor([&] {
        junkClient->readFor(20ms);
        parts.feed(junkClient->data().data() + fed, junkClient->data().size() - fed);
        fed = junkClient->data().size();
        return parts.parts() >= 30 || !parts.error().empty();
    }, 30s));
    EXPECT_TRUE(parts.error().empty()) << parts.error();
    shutdown(fd, SHUT_RDWR);  // ends a send still blocked
    sender.join();
    junkClient.reset();
    std::cout << "[ figures  ] junk client: " << sent << " bytes sent, " << parts.parts()
              << " parts received" << std::endl;

    expectFdsSettleAt(baseline);
    EXPECT_TRUE(viewer.error().empty()) << viewer.error();
    EXPECT_FALSE(viewer.ended());
    EXPECT_LT(viewer.longestGap(), 2.0);
}

int localPort(int fd) {
    sockaddr_in a{};
    socklen_t len = sizeof a;
    getsockname(fd, reinterpret_cast<sockaddr*>(&a), &len);
    return ntohs(a.sin_port);
}

// What the kernel holds, not yet acknowledged, in the send queue of the
// server's end of the connection whose client end is on `clientPort`.
long serverSendQueue(int httpPort, int clientPort) {
    std::ifstream in("/proc/self/net/tcp");
    std::string line;
    std::getline(in, line);  // heading
    while (std::getline(in, line)) {
        unsigned local = 0, remote = 0;
        unsigned long tx = 0;
        if (std::sscanf(line.c_str(), " %*d: %*8x:%x %*8x:%x %*x %lx", &local, &remote, &tx) == 3 &&
            static_cast<int>(local) == httpPort && static_cast<int>(remote) == clientPort) {
            return static_cast<long>(tx);
        }
    }
    return -1;
}

// Sends are blocking: a client that stops reading stops the main loop once
// the kernel's buffers for its connection are full, and with it every
// other client, until it reads again or goes.
TEST_F(FaultTest, StalledClientStallsEveryClientUntilItGoes) {
    startStreaming();
    StreamClient healthy(httpPort);
    ASSERT_TRUE(healthy.waitParts(10));
    const double normalRate = healthy.measureRate(2s);
    const size_t partSize = healthy.lastJpeg().size() + 60;
    const int baseline = quietFds();

    auto stalled = std::make_unique<RawClient>(httpPort);
    stalled->sendText(kStreamRequest);
    const auto connected = Clock::now();
    // Stalled: two seconds without a part, where one came every 1/30 s.
    ASSERT_TRUE(testutil::waitFor([&] { return secondsBetween(healthy.lastPart(), Clock::now()) >= 2.0; }, 60s))
        << "the other client never stalled";
    const double onset = secondsBetween(connected, healthy.lastPart());
    int unread = 0;
    ioctl(stalled->fd(), FIONREAD, &unread);
    const long unsent = serverSendQueue(httpPort, localPort(stalled->fd()));
    const int partsAtStall = healthy.parts();

    // New clients are accepted by the kernel but not served.
    RawClient newcomer(httpPort);
    newcomer.sendText(kStreamRequest);
    EXPECT_EQ(newcomer.readFor(2s), "");
    EXPECT_EQ(healthy.parts(), partsAtStall);

    // The stalled client goes: everyone is served again.
    stalled.reset();
    const auto gone = Clock::now();
    EXPECT_TRUE(testutil::waitFor([&] { return healthy.parts() > partsAtStall; }, 5s));
    const double recovery = secondsBetween(gone, Clock::now());
    EXPECT_EQ(newcomer.readAtLeast(kStreamHeader.size(), 5s).substr(0, kStreamHeader.size()), kStreamHeader);
    EXPECT_LT(recovery, 2.0);
    EXPECT_TRUE(healthy.error().empty()) << healthy.error();
    EXPECT_FALSE(healthy.ended());

    std::cout << "[ figures  ] normal " << normalRate << " parts/s of " << partSize << " bytes; stall "
              << onset << " s after the client stopped reading, with " << unread
              << " bytes unread at the client and " << unsent << " unsent at the server ("
              << (unread + unsent) / static_cast<double>(partSize) << " parts); served again "
              << recovery << " s after it closed" << std::endl;
    RecordProperty("stall_onset_s", std::to_string(onset));
    RecordProperty("buffered_bytes", std::to_string(unread + unsent));
    RecordProperty("recovery_s", std::to_string(recovery));
    newcomer.readFor(1ms);
    expectFdsSettleAt(baseline + 1);  // the newcomer
}

// A signal during such a stall: the server still stops in an orderly way.
// In practice the signal cuts the blocked send short (it has queued part of
// a part) and the pass ends at once; a send that had queued nothing yet is
// restarted, and then the stop waits for the stalled client to go.
TEST_F(FaultTest, SigintDuringAStallStopsTheServerInOrder) {
    startStreaming();
    StreamClient healthy(httpPort);
    ASSERT_TRUE(healthy.waitParts(3));
    auto stalled = std::make_unique<RawClient>(httpPort);
    stalled->sendText(kStreamRequest);
    ASSERT_TRUE(testutil::waitFor([&] { return secondsBetween(healthy.lastPart(), Clock::now()) >= 2.0; }, 60s));

    server->signal(SIGINT);
    const auto signalled = Clock::now();
    const bool endedAlone = testutil::waitFor([&] { return hasEnded(server->pid()); }, 3s);
    const double took = secondsBetween(signalled, Clock::now());
    stalled.reset();
    EXPECT_EQ(server->waitExit(10s), 0);
    EXPECT_EQ(e2e::logMessages().back(), "************** EXIT **************");
    std::cout << "[ figures  ] SIGINT during a stall: "
              << (endedAlone ? "ended by itself after " + std::to_string(took) + " s"
                             : std::string("ended once the stalled client closed"))
              << std::endl;
    orderlyStopExpected = false;
}

// A client that reads slowly sets everyone's pace. The server's send buffer
// toward it (up to 4 MiB on Linux) fills first; from then on a blocked send
// resumes only when a third of that buffer has drained, so every client
// freezes for that long, gets a burst of frames, and freezes again.
TEST_F(FaultTest, SlowReaderFreezesEveryClientInTurn) {
    startStreaming();
    StreamClient healthy(httpPort);
    ASSERT_TRUE(healthy.waitParts(10));
    const double normalRate = healthy.measureRate(2s);
    const size_t partSize = healthy.lastJpeg().size() + 60;

    constexpr long kSlowRate = 128 * 1024;
    StreamClient slow(httpPort, kSlowRate);
    const auto start = Clock::now();
    ASSERT_TRUE(testutil::waitFor([&] { return secondsBetween(healthy.lastPart(), Clock::now()) >= 1.0; }, 60s))
        << "the other client never froze";
    const auto frozen = healthy.lastPart();
    const double fill = secondsBetween(start, frozen);
    const int partsAtFreeze = healthy.parts();
    const int slowPartsAtFreeze = slow.parts();

    ASSERT_TRUE(testutil::waitFor([&] { return healthy.parts() > partsAtFreeze; }, 60s))
        << "the other client never got frames again";
    const double freeze = secondsBetween(frozen, healthy.lastPart());
    // The slow reader kept reading all along: the others were waiting for it.
    EXPECT_GT(slow.parts(), slowPartsAtFreeze);
    EXPECT_LT(freeze, 40.0);
    EXPECT_TRUE(slow.error().empty()) << slow.error();
    EXPECT_TRUE(healthy.error().empty()) << healthy.error();
    std::cout << "[ figures  ] normal " << normalRate << " parts/s of " << partSize << " bytes; with a reader of "
              << kSlowRate << " bytes/s the others ran on for " << fill << " s, then froze for " << freeze
              << " s; meanwhile the slow reader took " << slow.parts() - slowPartsAtFreeze << " parts"
              << std::endl;
}

}  // namespace
