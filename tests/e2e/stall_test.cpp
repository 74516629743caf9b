// A viewer that takes nothing more (stopped reading, or vanished) holds the
// others only until the kernel drops its connection, after the server's
// TCP_USER_TIMEOUT of 10 s; a slow but steady reader keeps its connection.
#include <gtest/gtest.h>

#include <atomic>

#include "support.h"

using namespace support;

namespace {

using Clock = std::chrono::steady_clock;
double since(Clock::time_point t) { return std::chrono::duration<double>(Clock::now() - t).count(); }

// A stream viewer on its own thread: counts parts, the longest gap between
// two, and freezes (gaps over 3 s).
struct Viewer {
    explicit Viewer(int port) : client(port) {
        client.sendText("GET / HTTP/1.1\r\n\r\n");
        thread = std::thread([this] {
            PartParser parser;
            for (auto last = Clock::now(); !stop && !broken;) {
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
    ~Viewer() { stop = true, thread.join(); }
    LoopbackClient client;
    std::atomic<bool> stop{false}, broken{false};  // closed, reset or malformed
    std::atomic<int> parts{0}, freezes{0};
    std::atomic<double> longestGap{0};
    std::thread thread;
};

class StallTest : public ::testing::Test {
protected:
    void SetUp() override {
        std::ifstream devices("/proc/self/net/dev");  // only loopback: our own namespace
        for (std::string line; std::getline(devices, line);) {
            if (line.find(':') != std::string::npos && line.find("lo:") == std::string::npos) GTEST_SKIP();
        }
        // Send buffers of at most 256 KiB (in this namespace) make the server
        // block within a second, the worst case: a real camera's larger parts
        // fill the default 4 MiB about as fast.
        std::ofstream("/proc/sys/net/ipv4/tcp_wmem") << "4096 16384 262144";
        ASSERT_TRUE(camera.start());
        server.start(camera.server(port));
        ASSERT_TRUE(waitUntilServing());
        for (int i = 0; i < 5; ++i) viewers.push_back(std::make_unique<Viewer>(port));
        for (auto& v : viewers) ASSERT_TRUE(waitFor([&] { return v->parts >= 10; }, 30s));
    }
    // `loseOne` makes a sixth viewer take nothing more. The five freeze for
    // at most about 10 s, once, then stream on.
    void expectOneFreeze(const std::function<void()>& loseOne) {
        loseOne();
        for (auto& v : viewers) {
            const int now = v->parts;
            EXPECT_TRUE(waitFor([&] { return v->parts >= now + 60; }, 60s));
            EXPECT_LT(v->longestGap, 20.0);
            EXPECT_EQ(v->freezes, 1);
            EXPECT_FALSE(v->broken);
        }
    }
    TestCamera camera;
    int port = freeLoopbackPort();
    Process server;
    std::vector<std::unique_ptr<Viewer>> viewers;
    TempDir dir;
};

// A single image asked for during the stall is answered once it ends.
TEST_F(StallTest, AViewerThatStopsReadingFreezesTheOthersOnceAndIsCutOff) {
    LoopbackClient stopped(port), single(port);
    expectOneFreeze([&] {
        stopped.sendText("GET / HTTP/1.1\r\n\r\n");
        EXPECT_TRUE(waitFor([&] {
            const int before = viewers[0]->parts;
            std::this_thread::sleep_for(1s);  // a second without a part: the stall
            return viewers[0]->parts == before;
        }, 30s));
        single.sendText("GET /?frame_id=1 HTTP/1.1\r\n\r\n");
    });
    EXPECT_TRUE(stopped.readToEof(10s));  // its window update meets no connection: reset
    ASSERT_TRUE(single.readToEof(10s));
    EXPECT_EQ(single.data().rfind("HTTP/1.1 200 OK\r\n", 0), 0u);
    EXPECT_NE(single.data().find("\r\n\r\n\xff\xd8"), std::string::npos);
}

// A pulled cable: curl streams through a veth pair from a namespace of its
// own until its end of the pair goes down. Loopback-range addresses on both
// ends (route_localnet): nothing here can mean a host outside the test.
TEST_F(StallTest, AViewerThatVanishesFreezesTheOthersOnceAndIsCutOff) {
    ASSERT_EQ(std::system("ip netns add far && ip link add vs0 type veth peer name vs1 netns far && "
                          "sysctl -qw net.ipv4.conf.all.route_localnet=1 net.ipv4.conf.vs0.route_localnet=1 && "
                          "ip netns exec far sysctl -qw net.ipv4.conf.all.route_localnet=1 && "
                          "ip netns exec far sysctl -qw net.ipv4.conf.vs1.route_localnet=1 && "
                          "ip addr add 127.213.0.1/24 dev vs0 && ip link set vs0 up && "
                          "ip -n far addr add 127.213.0.2/24 dev vs1 && ip -n far link set vs1 up"), 0);
    Process vanishing;
    vanishing.start({"/sbin/ip", "netns", "exec", "far", "curl", "-sN", "-o", dir.file("curl"),
                     "http://127.213.0.1:" + std::to_string(port) + "/"});
    ASSERT_TRUE(waitFor([&] { return readFile(dir.file("curl")).size() > 300'000; }, 30s));
    expectOneFreeze([] { EXPECT_EQ(std::system("ip -n far link set vs1 down"), 0); });
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

}  // namespace
