// A viewer that takes nothing more (stopped reading, or vanished) holds the
// others only until the kernel drops its connection, after the server's
// TCP_USER_TIMEOUT of 10 s; a slow but steady reader keeps its connection.
#include <gtest/gtest.h>
#include <sched.h>

#include <atomic>

#include "support.h"

using namespace support;

namespace {

using Clock = std::chrono::steady_clock;
double since(Clock::time_point t) { return std::chrono::duration<double>(Clock::now() - t).count(); }

// A stream viewer on its own thread, connected to ip:port from the network
// namespace at `netns` (default: ours), taking at most `rate` bytes a second
// (0: all that comes). Counts parts, and freezes: gaps over 3 s.
struct Viewer {
    Viewer(const char* ip, int port, long rate = 0, const char* netns = "/proc/self/ns/net") : rate(rate) {
        const int home = open("/proc/self/ns/net", O_RDONLY | O_CLOEXEC), there = open(netns, O_RDONLY | O_CLOEXEC);
        EXPECT_EQ(setns(there, CLONE_NEWNET), 0);  // a socket stays in the namespace it was made in
        fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        EXPECT_EQ(setns(home, CLONE_NEWNET), 0);
        close(home);
        close(there);
        sockaddr_in a{AF_INET, htons(static_cast<uint16_t>(port)), {inet_addr(ip)}, {}};
        EXPECT_EQ(connect(fd, reinterpret_cast<sockaddr*>(&a), sizeof a), 0);
        send(fd, "GET / HTTP/1.1\r\n\r\n", 18, MSG_NOSIGNAL);
        thread = std::thread([this] { run(); });
    }
    ~Viewer() { stop = true; thread.join(); close(fd); }
    void run() {
        PartParser parser;
        const auto start = Clock::now();
        auto lastPart = start;
        for (char buffer[65536]; !stop;) {
            const long allowed = rate ? static_cast<long>(since(start) * rate) - bytes : long{sizeof buffer};
            pollfd p{fd, POLLIN, 0};
            if (allowed <= 0) std::this_thread::sleep_for(5ms);  // the reader's pace
            if (allowed <= 0 || poll(&p, 1, 50) <= 0) continue;
            const ssize_t n = recv(fd, buffer, std::min<long>(allowed, sizeof buffer), 0);
            if ((broken = n <= 0)) return;
            bytes += n;
            parser.append({buffer, static_cast<size_t>(n)});
            for (std::string jpeg; parser.next(jpeg); lastPart = Clock::now()) {
                const double gap = parts++ ? since(lastPart) : 0;
                longestGap = std::max(longestGap.load(), gap);
                freezes += gap > 3;
            }
            broken = parser.failed();
        }
    }
    const long rate;
    int fd = -1;
    std::atomic<bool> stop{false}, broken{false};  // closed, reset or malformed
    std::atomic<int> parts{0}, freezes{0};
    std::atomic<long> bytes{0};
    std::atomic<double> longestGap{0};
    std::thread thread;
};

class StallTest : public ::testing::Test {
protected:
    void SetUp() override {
        std::ifstream devices("/proc/self/net/dev");  // only loopback: our own namespace
        for (std::string line; std::getline(devices, line);)
            if (line.find(':') != std::string::npos && line.find("lo:") == std::string::npos)
                GTEST_SKIP() << "needs its own network namespace: run it through ctest";
        // Send buffers of at most 256 KiB (in this namespace) make the server
        // block within a second, the worst case: a real camera's larger parts
        // fill the default 4 MiB about as fast.
        std::ofstream("/proc/sys/net/ipv4/tcp_wmem") << "4096 16384 262144";
        ASSERT_TRUE(camera.start());
        server = std::make_unique<ServerProcess>(
            std::vector<std::string>{"-p", std::to_string(port), "-u", camera.url(), "-t", camera.testUrl()});
        server->start();
        ASSERT_TRUE(server->waitUntilServing());
        for (int i = 0; i < 5; ++i) viewers.push_back(std::make_unique<Viewer>("127.0.0.1", port));
        for (auto& v : viewers) ASSERT_TRUE(waitFor([&] { return v->parts >= 10; }, 30s));
    }
    void TearDown() override {
        viewers.clear();
        if (!server) return;
        server->signal(SIGINT);
        EXPECT_EQ(server->waitExit(), 0);
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
    std::unique_ptr<ServerProcess> server;
    std::vector<std::unique_ptr<Viewer>> viewers;
};

TEST_F(StallTest, AViewerThatStopsReadingFreezesTheOthersOnceAndIsCutOff) {
    LoopbackClient stopped(port);
    expectOneFreeze([&] { stopped.sendText("GET / HTTP/1.1\r\n\r\n"); });
    // Once it reads again its window update meets no connection: reset.
    EXPECT_TRUE(stopped.readToEof(10s));
}

// A pulled cable: the viewer streams through a veth pair from a namespace of
// its own, until its end of the pair goes down.
TEST_F(StallTest, AViewerThatVanishesFreezesTheOthersOnceAndIsCutOff) {
    // Loopback-range addresses on both ends (route_localnet): nothing here
    // can ever mean a host outside the test's namespaces.
    ASSERT_EQ(std::system("ip netns add far && ip link add vs0 type veth peer name vs1 netns far && "
                          "sysctl -qw net.ipv4.conf.all.route_localnet=1 net.ipv4.conf.vs0.route_localnet=1 && "
                          "ip netns exec far sysctl -qw net.ipv4.conf.all.route_localnet=1 && "
                          "ip netns exec far sysctl -qw net.ipv4.conf.vs1.route_localnet=1 && "
                          "ip addr add 127.213.0.1/24 dev vs0 && ip link set vs0 up && "
                          "ip -n far addr add 127.213.0.2/24 dev vs1 && ip -n far link set vs1 up"), 0);
    Viewer vanishing("127.213.0.1", port, 0, "/var/run/netns/far");
    ASSERT_TRUE(waitFor([&] { return vanishing.parts >= 10; }, 30s));
    expectOneFreeze([] { EXPECT_EQ(std::system("ip -n far link set vs1 down"), 0); });
}

TEST_F(StallTest, ASingleImageRequestedDuringAStallIsAnsweredWhenItEnds) {
    LoopbackClient stopped(port), single(port);
    stopped.sendText("GET / HTTP/1.1\r\n\r\n");
    ASSERT_TRUE(waitFor([&] {
        const int before = viewers[0]->parts;
        std::this_thread::sleep_for(1s);  // a second without a part: the stall
        return viewers[0]->parts == before;
    }, 30s));
    single.sendText("GET /?frame_id=1 HTTP/1.1\r\n\r\n");
    ASSERT_TRUE(single.readToEof(40s));
    EXPECT_EQ(single.data().rfind("HTTP/1.1 200 OK\r\n", 0), 0u);
    EXPECT_NE(single.data().find("\r\n\r\n\xff\xd8"), std::string::npos);
}

TEST_F(StallTest, ASlowButSteadyReaderKeepsItsConnectionForAMinute) {
    constexpr long kRate = 64 * 1024;
    Viewer slow("127.0.0.1", port, kRate);
    const auto start = Clock::now();
    EXPECT_FALSE(waitFor([&] { return slow.broken.load(); }, 60s));
    // It read at its own pace all along: the server always had more for it.
    EXPECT_GT(slow.bytes, 0.9 * kRate * since(start));
}

}  // namespace
