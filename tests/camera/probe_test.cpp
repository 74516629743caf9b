#include "probe.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <vector>

#include "../test_util.h"
#include "event_log.h"

namespace {

using Clock = std::chrono::steady_clock;

// A loopback listener on a free port.
class Listener {
public:
    explicit Listener(int backlog = 16) {
        fd = socket(AF_INET, SOCK_STREAM, 0);
        sockaddr_in a{};
        a.sin_family = AF_INET;
        a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        bind(fd, reinterpret_cast<sockaddr*>(&a), sizeof a);
        listen(fd, backlog);
        socklen_t len = sizeof a;
        getsockname(fd, reinterpret_cast<sockaddr*>(&a), &len);
        port = ntohs(a.sin_port);
    }
    ~Listener() { close(fd); }
    int fd;
    int port;
};

int closedPort() {
    Listener l;
    return l.port;  // closed again when l goes
}

class ProbeTest : public ::testing::Test {
protected:
    void SetUp() override {
        logPath = dir.file("stream.log");
        setEventLogPath(logPath.c_str());
    }
    void TearDown() override { setEventLogPath(kEventLogPath); }
    static double seconds(Clock::time_point since) {
        return std::chrono::duration<double>(Clock::now() - since).count();
    }
    testutil::TempDir dir;
    std::string logPath;
};

TEST_F(ProbeTest, ListeningPortSucceedsQuietly) {
    Listener l;
    auto start = Clock::now();
    EXPECT_TRUE(testConnection("127.0.0.1", l.port, 2));
    EXPECT_LT(seconds(start), 1.0);
    EXPECT_TRUE(testutil::readLines(logPath).empty());
}

TEST_F(ProbeTest, ClosedPortFailsWithoutWaitingForTheLimit) {
    int port = closedPort();
    auto start = Clock::now();
    EXPECT_FALSE(testConnection("127.0.0.1", port, 2));
    EXPECT_LT(seconds(start), 1.0);
}

TEST_F(ProbeTest, PortIsTakenModulo65536AndZeroIsAttempted) {
    Listener l;
    EXPECT_TRUE(testConnection("127.0.0.1", l.port + 65536, 2));
    EXPECT_TRUE(testConnection("127.0.0.1", l.port + 3 * 65536, 2));
    EXPECT_FALSE(testConnection("127.0.0.1", 0, 2));  // nothing listens on port 0
}

TEST_F(ProbeTest, NoDescriptorLeaks) {
    Listener l;
    auto countFds = [] {
        int n = 0;
        for (auto& e : std::filesystem::directory_iterator("/proc/self/fd")) { (void)e; ++n; }
        return n;
    };
    int before = countFds();
    for (int i = 0; i < 50; ++i) {
        testConnection("127.0.0.1", l.port, 1);
        testConnection("127.0.0.1", 0, 1);
        // drain the accepted backlog so the listener stays responsive
        int c = accept4(l.fd, nullptr, nullptr, SOCK_NONBLOCK);
        if (c >= 0) close(c);
    }
    EXPECT_EQ(countFds(), before);
}

// A listener whose accept queue is full drops further SYNs, so the probe's
// connection stays unanswered: the silent-camera case, on loopback.
TEST_F(ProbeTest, SilentPeerFailsAfterTheLimit) {
    Listener l(0);
    // Fill the accept queue (backlog 0 still admits one) with connections
    // that the listener never accepts.
    std::vector<int> fillers;
    for (int i = 0; i < 4; ++i) {
        int s = socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK, 0);
        sockaddr_in a{};
        a.sin_family = AF_INET;
        a.sin_port = htons(static_cast<uint16_t>(l.port));
        a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        connect(s, reinterpret_cast<sockaddr*>(&a), sizeof a);
        fillers.push_back(s);
    }
    auto start = Clock::now();
    EXPECT_FALSE(testConnection("127.0.0.1", l.port, 1));
    double took = seconds(start);
    EXPECT_GE(took, 0.95);
    EXPECT_LT(took, 5.0);

    start = Clock::now();
    EXPECT_FALSE(testConnection("127.0.0.1", l.port, 0));  // zero limit: at once
    EXPECT_LT(seconds(start), 0.5);
    for (int s : fillers) close(s);
}

}  // namespace
