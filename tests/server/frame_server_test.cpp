// FrameServer against real loopback clients. The server runs in the test's
// thread: every wait drives handleEvents() until the awaited state holds.
#include "frame_server.h"

#include <arpa/inet.h>
#include <dirent.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <functional>
#include <string>
#include <vector>

#include "../test_util.h"
#include "wire_format.h"

namespace {

using namespace std::chrono_literals;
using testing::internal::CaptureStderr;
using testing::internal::CaptureStdout;
using testing::internal::GetCapturedStderr;
using testing::internal::GetCapturedStdout;

const std::string kStreamRequest = "GET / HTTP/1.1\r\nHost: cam\r\n\r\n";
const std::string kSnapshotRequest = "GET /?frame_id=7 HTTP/1.1\r\nHost: cam\r\n\r\n";

int connectLoopback(int port) {
    const int fd = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<uint16_t>(port));
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    if (connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) {
        close(fd);
        return -1;
    }
    return fd;
}

uint16_t localPort(int fd) {
    sockaddr_in address{};
    socklen_t length = sizeof address;
    getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length);
    return ntohs(address.sin_port);
}

void sendText(int fd, const std::string& text) {
    ASSERT_EQ(send(fd, text.data(), text.size(), 0), static_cast<ssize_t>(text.size()));
}

// Reads until `want` bytes, end of stream, or 5 s without them.
std::string readBytes(int fd, size_t want, bool* eof = nullptr) {
    std::string out;
    const auto deadline = std::chrono::steady_clock::now() + 5s;
    if (eof) *eof = false;
    while (out.size() < want && std::chrono::steady_clock::now() < deadline) {
        pollfd p{fd, POLLIN, 0};
        if (poll(&p, 1, 50) <= 0) continue;
        char buffer[65536];
        const ssize_t got = recv(fd, buffer, sizeof buffer, 0);
        if (got <= 0) {
            if (eof) *eof = (got == 0);
            break;
        }
        out.append(buffer, static_cast<size_t>(got));
    }
    return out;
}

// Everything sent to `fd` until the peer closed (fails the test on time-out).
std::string readToEof(int fd) {
    bool eof = false;
    std::string out = readBytes(fd, SIZE_MAX, &eof);
    EXPECT_TRUE(eof) << "no end of stream";
    return out;
}

// Bytes already delivered, without waiting.
std::string pendingBytes(int fd) {
    std::string out;
    char buffer[4096];
    ssize_t got;
    while ((got = recv(fd, buffer, sizeof buffer, MSG_DONTWAIT)) > 0) out.append(buffer, static_cast<size_t>(got));
    return out;
}

std::string part(const std::string& jpeg) {
    return "--frame\r\nContent-Type: image/jpg\r\nContent-Length: " + std::to_string(jpeg.size()) + "\r\n\r\n" + jpeg;
}

std::vector<std::string> openDescriptors() {
    std::vector<std::string> names;
    DIR* dir = opendir("/proc/self/fd");
    while (dirent* entry = readdir(dir)) {
        if (entry->d_name[0] != '.' && atoi(entry->d_name) != dirfd(dir)) names.push_back(entry->d_name);
    }
    closedir(dir);
    return names;
}

class FrameServerTest : public ::testing::Test {
protected:
    void TearDown() override {
        for (int fd : fds) close(fd);
        // Leave no server-side sockets behind in the test process.
        EXPECT_TRUE(pumpUntil([&] { return server.clientList().empty(); }));
    }

    bool pumpUntil(const std::function<bool()>& condition) {
        return testutil::waitFor([&] { server.handleEvents(); return condition(); }, 5s);
    }

    // Connects a client and waits until the server has accepted it.
    int connectClient() {
        const int fd = connectLoopback(server.boundPort());
        EXPECT_GE(fd, 0);
        fds.push_back(fd);
        EXPECT_TRUE(pumpUntil([&] { return record(fd) != nullptr; }));
        return fd;
    }

    // The server's record of the client whose end is `fd`.
    Client* record(int fd) const {
        for (Client* client : server.clientList()) {
            if (client->port == localPort(fd)) return client;
        }
        return nullptr;
    }

    // Sends `request` and waits until the server acted on it.
    void request(int fd, const std::string& text) {
        sendText(fd, text);
        ASSERT_TRUE(pumpUntil([&] { return record(fd)->headerSent || record(fd)->singleImage; }));
    }

    void forget(int fd) { std::erase(fds, fd); }

    FrameServer server{0};
    std::vector<int> fds;
};

TEST_F(FrameServerTest, RequestBytesDecideBetweenStreamAndSingleImage) {
    const struct {
        const char* name;
        std::string bytes;
        bool singleImage;
    } cases[] = {
        {"plain GET", kStreamRequest, false},
        {"query frame_id", kSnapshotRequest, true},
        {"frame_id in a header", "GET /snap HTTP/1.1\r\nX-Want: frame_id=\r\n\r\n", true},
        {"capitals", "GET /?FRAME_ID=7 HTTP/1.1\r\n\r\n", false},
        {"frame_id after a NUL", std::string("GET /\0?frame_id=7\r\n\r\n", 21), false},
        {"any bytes", "x", false},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        const int fd = connectClient();
        request(fd, c.bytes);
        const Client* client = record(fd);
        EXPECT_EQ(client->singleImage, c.singleImage);
        EXPECT_EQ(client->streaming, !c.singleImage);
        EXPECT_EQ(client->headerSent, !c.singleImage);
        // Streams get their header at once; single images wait for a frame.
        EXPECT_EQ(readBytes(fd, c.singleImage ? 0 : g_streamHeader.size()),
                  c.singleImage ? "" : g_streamHeader);
        EXPECT_EQ(pendingBytes(fd), "");
        EXPECT_TRUE(server.hasWaitingClients());
    }
}

TEST_F(FrameServerTest, SilentClientIsListedOnceAndGetsNothing) {
    EXPECT_FALSE(server.hasWaitingClients());
    EXPECT_EQ(server.sendFrame("frame"), 0);

    const int streamer = connectClient();
    CaptureStdout();
    const int silent = connectClient();  // newest: sendFrame meets it first
    for (int pass = 0; pass < 20; ++pass) server.handleEvents();
    EXPECT_EQ(GetCapturedStdout(), "client connected\n");
    EXPECT_FALSE(server.hasWaitingClients());

    request(streamer, kStreamRequest);
    EXPECT_TRUE(server.hasWaitingClients());
    EXPECT_EQ(server.sendFrame("frame"), 0);
    EXPECT_EQ(readBytes(streamer, 191 + 60), g_streamHeader + part("frame"));
    EXPECT_EQ(pendingBytes(silent), "");
    EXPECT_EQ(server.clientList().size(), 2u);
}

TEST_F(FrameServerTest, StreamIsHeaderThenPartsBackToBackAndHeaderIsNotResent) {
    const int fd = connectClient();
    request(fd, kStreamRequest);
    server.sendFrame("first");

    // A second request on the same connection: wait until the server has
    // read it (nothing left in its receive queue).
    sendText(fd, kStreamRequest);
    const int serverFd = record(fd)->fd;
    const auto unread = [&] { int n = 0; ioctl(serverFd, FIONREAD, &n); return n; };
    ASSERT_TRUE(testutil::waitFor([&] { return unread() > 0; }, 5s));
    ASSERT_TRUE(pumpUntil([&] { return unread() == 0; }));

    const std::string second(12345, '\r');
    server.sendFrame(second);
    const std::string expected = g_streamHeader + part("first") + part(second);
    EXPECT_EQ(readBytes(fd, expected.size()), expected);
    EXPECT_EQ(pendingBytes(fd), "");
    EXPECT_TRUE(record(fd)->streaming);
}

TEST_F(FrameServerTest, SingleImageClientGetsOneResponseThenEndOfStream) {
    const struct {
        size_t size;
        size_t headerSize;
    } cases[] = {{5, 82}, {12345, 86}};
    for (const auto& c : cases) {
        SCOPED_TRACE(c.size);
        const int fd = connectClient();
        request(fd, kSnapshotRequest);
        const std::string jpeg(c.size, '\xd8');
        EXPECT_EQ(server.sendFrame(jpeg), 0);
        const std::string reply = readToEof(fd);
        ASSERT_EQ(reply.size(), c.headerSize + c.size);
        EXPECT_EQ(reply.substr(0, c.headerSize), buildSingleImageHeader(c.size));
        EXPECT_EQ(reply.substr(c.headerSize), jpeg);
        // The shut-down socket hangs up; the next passes drop the record.
        EXPECT_TRUE(pumpUntil([&] { return server.clientList().empty(); }));
    }
}

TEST_F(FrameServerTest, LaterReadWithFrameIdTurnsStreamIntoSingleImage) {
    const int fd = connectClient();
    request(fd, "GET / HTTP/1.1\r\n");
    ASSERT_EQ(readBytes(fd, 191), g_streamHeader);

    sendText(fd, "X-Frame: frame_id=3\r\n\r\n");
    ASSERT_TRUE(pumpUntil([&] { return record(fd)->singleImage; }));
    server.sendFrame("jpeg!");
    EXPECT_EQ(readToEof(fd), buildSingleImageHeader(5) + "jpeg!");
}

TEST_F(FrameServerTest, HalfCloseRemovesClientWithoutReadingItsRequest) {
    const int fd = connectClient();
    const int serverFd = record(fd)->fd;
    sendText(fd, kStreamRequest);
    ASSERT_EQ(shutdown(fd, SHUT_WR), 0);

    // Once the hang-up is visible on the server's socket, one pass removes it.
    pollfd p{serverFd, POLLRDHUP, 0};
    ASSERT_EQ(poll(&p, 1, 5000), 1);
    server.handleEvents();
    EXPECT_TRUE(server.clientList().empty());
    // Closed without a stream header; the unread request turns the close
    // into a reset.
    pollfd mine{fd, POLLIN, 0};
    ASSERT_EQ(poll(&mine, 1, 5000), 1);
    char byte;
    EXPECT_EQ(recv(fd, &byte, 1, 0), -1);
    EXPECT_EQ(errno, ECONNRESET);
}

TEST_F(FrameServerTest, PendingConnectionsAreAcceptedOnePerPassNewestFirst) {
    std::vector<uint16_t> ports;
    for (int i = 0; i < 4; ++i) {
        const int fd = connectLoopback(server.boundPort());
        ASSERT_GE(fd, 0);
        fds.push_back(fd);
        ports.push_back(localPort(fd));
    }
    size_t growingPasses = 0;
    ASSERT_TRUE(pumpUntil([&, before = size_t{0}]() mutable {
        const size_t now = server.clientList().size();
        EXPECT_LE(now - before, 1u);
        growingPasses += now > before;
        before = now;
        return now == 4;
    }));
    EXPECT_EQ(growingPasses, 4u);

    std::vector<uint16_t> listed;
    for (const Client* client : server.clientList()) listed.push_back(client->port);
    EXPECT_EQ(listed, std::vector<uint16_t>(ports.rbegin(), ports.rend()));
}

TEST_F(FrameServerTest, VanishedStreamClientReportsErrnoAndStaysListed) {
    struct sigaction action {};
    sigaction(SIGPIPE, nullptr, &action);
    EXPECT_EQ(action.sa_handler, SIG_IGN);

    const int fd = connectClient();
    request(fd, kStreamRequest);
    const int serverFd = record(fd)->fd;
    const linger reset{1, 0};
    setsockopt(fd, SOL_SOCKET, SO_LINGER, &reset, sizeof reset);
    close(fd);  // sends a reset
    forget(fd);
    pollfd p{serverFd, POLLIN, 0};
    ASSERT_EQ(poll(&p, 1, 5000), 1);
    ASSERT_TRUE(p.revents & (POLLERR | POLLHUP));

    CaptureStderr();
    EXPECT_EQ(server.sendFrame("frame"), 0);
    const std::string err = GetCapturedStderr();
    EXPECT_TRUE(err == std::to_string(EPIPE) + "\n" || err == std::to_string(ECONNRESET) + "\n") << err;
    EXPECT_EQ(server.clientList().size(), 1u);
}

TEST(FrameServer, PortInUseIsReportedAndServerStillRuns) {
    const int blocker = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    ASSERT_EQ(bind(blocker, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
    ASSERT_EQ(listen(blocker, 1), 0);
    const int port = localPort(blocker);

    CaptureStderr();
    FrameServer server(port);
    EXPECT_EQ(GetCapturedStderr(), "Can't bind socket\n");
    EXPECT_NE(server.boundPort(), port);
    server.handleEvents();
    EXPECT_FALSE(server.hasWaitingClients());
    EXPECT_EQ(server.sendFrame("x"), 0);
    close(blocker);
}

TEST(FrameServer, EveryPassReportsABrokenEpollInstance) {
    const std::vector<std::string> before = openDescriptors();
    FrameServer server(0);
    int epollFd = -1;
    for (const std::string& name : openDescriptors()) {
        char target[64] = {};
        const std::string link = "/proc/self/fd/" + name;
        if (std::find(before.begin(), before.end(), name) == before.end() &&
            readlink(link.c_str(), target, sizeof target - 1) > 0 && std::string(target) == "anon_inode:[eventpoll]") {
            epollFd = std::stoi(name);
        }
    }
    ASSERT_GE(epollFd, 0);
    CaptureStderr();  // first: its file must not take the freed number
    close(epollFd);
    server.handleEvents();
    server.handleEvents();
    EXPECT_EQ(GetCapturedStderr(), "epoll wait error 9\nepoll wait error 9\n");
}

TEST_F(FrameServerTest, ClientsThatComeAndGoLeaveNoDescriptors) {
    const size_t before = openDescriptors().size();
    const int streamer = connectClient();
    const int snapshot = connectClient();
    const int silent = connectClient();
    request(streamer, kStreamRequest);
    request(snapshot, kSnapshotRequest);
    server.sendFrame("frame");
    EXPECT_GT(openDescriptors().size(), before + 3);

    for (int fd : {streamer, snapshot, silent}) {
        close(fd);
        forget(fd);
    }
    ASSERT_TRUE(pumpUntil([&] { return server.clientList().empty(); }));
    EXPECT_EQ(openDescriptors().size(), before);
}

}  // namespace
