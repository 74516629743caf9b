// The frame server on real loopback sockets: what later requests do, clients
// coming and going, and the listener's failures. (What a first request
// gets: tests/fuzz/corpus/fuzz_request.)
#include <gtest/gtest.h>
#include <netinet/tcp.h>

#include "frame_server.h"
#include "support.h"

using testing::internal::CaptureStderr;
using testing::internal::GetCapturedStderr;

class ServerTest : public ::testing::Test {
protected:
    ~ServerTest() override {
        while (!server.clientList().empty()) server.removeClient(server.clientList().front());
    }
    // Runs passes until `condition` holds.
    bool passUntil(const std::function<bool()>& condition) {
        return waitFor([&] { server.handleEvents(); return condition(); }, 5s);
    }

    FrameServer server{0};
    int port = server.boundPort();
};

TEST_F(ServerTest, LaterReadsNeverResendTheHeaderAndFrameIdEndsTheStream) {
    LoopbackClient silent(port);
    ASSERT_TRUE(passUntil([&] { return server.clientList().size() == 1; }));
    EXPECT_EQ(server.clientList().front()->port, localPort(silent.fd()));
    LoopbackClient viewer(port);
    ASSERT_TRUE(passUntil([&] { return server.clientList().size() == 2; }));
    EXPECT_FALSE(server.hasWaitingClients());  // none has asked for anything yet
    const Client* state = server.clientList().front();
    viewer.sendText("GET / HTTP/1.1\r\n\r\n");
    ASSERT_TRUE(passUntil([&] { return state->headerSent; }));
    EXPECT_TRUE(server.hasWaitingClients());
    viewer.sendText("GET / again\r\n\r\n");
    for (int pass = 0; pass < 3; ++pass) server.handleEvents();
    server.sendFrame(kJpeg);
    viewer.sendText("GET /?frame_id=2");
    ASSERT_TRUE(passUntil([&] { return state->singleImage; }));
    server.sendFrame(kJpeg);
    EXPECT_TRUE(viewer.readToEof(5s));
    EXPECT_EQ(viewer.data(), kStreamHeader + kPart + kSingle);
    EXPECT_EQ(silent.readAtLeast(1, 50ms), "");
    EXPECT_EQ(server.clientList().size(), 2u);
}

TEST_F(ServerTest, ClientsAreAcceptedOnePerPassAndGoneClientsAreRemoved) {
    const int fds = openFds();
    std::vector<std::unique_ptr<LoopbackClient>> clients;
    for (int i = 0; i < 3; ++i) clients.push_back(std::make_unique<LoopbackClient>(port));
    for (size_t listed = 1; listed <= 3; ++listed) {
        ASSERT_TRUE(passUntil([&] { return server.clientList().size() >= listed; }));
        EXPECT_EQ(server.clientList().size(), listed);  // one accept per pass
    }
    // A viewer that takes nothing (stopped, or vanished) is dropped after 10 s.
    std::vector<int> bounds;
    for (const auto& [level, option] : {std::pair<int, int>{IPPROTO_TCP, TCP_USER_TIMEOUT}, {SOL_SOCKET, SO_KEEPALIVE},
                                        {IPPROTO_TCP, TCP_KEEPIDLE}, {IPPROTO_TCP, TCP_KEEPINTVL}, {IPPROTO_TCP, TCP_KEEPCNT}}) {
        socklen_t size = sizeof(int);
        getsockopt(server.clientList().back()->fd, level, option, &bounds.emplace_back(), &size);
    }
    EXPECT_EQ(bounds, (std::vector<int>{10'000, 1, 5, 1, 5}));
    // A half-closed client goes with its request unread; a vanished
    // streaming client makes sends fail (errno on stderr) until the next pass.
    clients[0]->sendText("GET /?frame_id=1");
    shutdown(clients[0]->fd(), SHUT_WR);
    clients[1]->sendText("GET /");
    ASSERT_TRUE(passUntil([&] { return server.clientList().size() == 2 && server.clientList().back()->headerSent; }));
    clients[1].reset();
    CaptureStderr();
    for (int i = 0; i < 3; ++i) server.sendFrame(kJpeg);
    const std::string errors = GetCapturedStderr();
    EXPECT_TRUE(std::regex_match(errors, std::regex("(104\n)?(32\n){1,3}"))) << errors;
    EXPECT_EQ(server.clientList().size(), 2u);
    EXPECT_TRUE(clients[0]->readToEof(1s));
    EXPECT_EQ(clients[0]->data(), "");
    EXPECT_TRUE(passUntil([&] { return server.clientList().size() == 1; }));
    clients.clear();
    EXPECT_TRUE(passUntil([&] { return server.clientList().empty(); }));
    server.closeListener();  // the listener goes too: one descriptor fewer than at the start
    EXPECT_EQ(std::pair(openFds(), server.boundPort()), std::pair(fds - 1, -1));
}

TEST(FrameServer, PortInUseIsReportedAndTheServerGoesOn) {
    FrameServer first(0);
    CaptureStderr();
    FrameServer second(first.boundPort());
    EXPECT_EQ(GetCapturedStderr(), "Can't bind socket\n");
    second.handleEvents();
    EXPECT_EQ(second.sendFrame(kJpeg), 0);
    // A pass whose accept finds no descriptor left reports it and leaves the
    // connection for a later pass.
    LoopbackClient client(first.boundPort());
    CaptureStderr();
    { const NoFreeDescriptor none; first.handleEvents(); }
    EXPECT_EQ(GetCapturedStderr(), "accept() failure: Too many open files\n");
    EXPECT_TRUE(waitFor([&] { return first.handleEvents(), first.clientList().size() == 1; }));
    first.removeClient(first.clientList().front());
}
