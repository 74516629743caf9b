// The frame server on real loopback sockets: what later requests do, clients
// coming and going, and the listener's failures. (What a first request gets:
// tests/fuzz/corpus/fuzz_request. Viewers that stop reading: the stall test.)
#include <gtest/gtest.h>

#include "frame_server.h"
#include "support.h"

using testing::internal::CaptureStderr;
using testing::internal::GetCapturedStderr;

class ServerTest : public ::testing::Test {
protected:
    ~ServerTest() override {
        while (!clients().empty()) server.removeClient(clients().front());
    }
    const std::list<Client*>& clients() const { return FrameServerPeer::clients(server); }
    // Runs passes until `condition` holds.
    bool passUntil(const std::function<bool()>& condition) {
        return waitFor(
            [&] {
                server.handleEvents();
                return condition();
            },
            5s);
    }

    FrameServer server{0};
    int port = FrameServerPeer::port(server);
};

TEST_F(ServerTest, LaterReadsNeverResendTheHeaderAndFrameIdEndsTheStream) {
    LoopbackClient silent(port);
    ASSERT_TRUE(passUntil([&] { return clients().size() == 1; }));
    EXPECT_EQ(clients().front()->port, localPort(silent.fd));
    LoopbackClient viewer(port);
    ASSERT_TRUE(passUntil([&] { return clients().size() == 2; }));
    EXPECT_FALSE(server.hasWaitingClients());  // none has asked for anything yet
    const Client* state = clients().front();
    viewer.send("GET / HTTP/1.1\r\n\r\n");
    ASSERT_TRUE(passUntil([&] { return state->headerSent; }));
    EXPECT_TRUE(server.hasWaitingClients());
    viewer.send("GET / again\r\n\r\n");
    for (int pass = 0; pass < 3; ++pass) server.handleEvents();
    server.sendFrame(kJpeg);
    viewer.send("GET /?frame_id=2");
    ASSERT_TRUE(passUntil([&] { return state->singleImage; }));
    server.sendFrame(kJpeg);
    EXPECT_EQ(viewer.read(), kStreamHeader + kPart + kSingle);
    EXPECT_TRUE(viewer.eof);
    EXPECT_EQ(silent.read(1, 50ms), "");
    EXPECT_EQ(clients().size(), 2u);
}

TEST_F(ServerTest, ClientsAreAcceptedOnePerPassAndGoneClientsAreRemoved) {
    const int fds = openFds();
    std::vector<std::unique_ptr<LoopbackClient>> connected;
    for (int i = 0; i < 3; ++i) connected.push_back(std::make_unique<LoopbackClient>(port));
    for (size_t listed = 1; listed <= 3; ++listed) {
        ASSERT_TRUE(passUntil([&] { return clients().size() >= listed; }));
        EXPECT_EQ(clients().size(), listed);  // one accept per pass
    }
    // A half-closed client goes with its request unread; a vanished streaming
    // client makes sends fail (errno on stderr) until the next pass.
    connected[0]->send("GET /?frame_id=1");
    shutdown(connected[0]->fd, SHUT_WR);
    connected[1]->send("GET /");
    ASSERT_TRUE(passUntil([&] { return clients().size() == 2 && clients().back()->headerSent; }));
    connected[1].reset();
    CaptureStderr();
    for (int i = 0; i < 3; ++i) server.sendFrame(kJpeg);
    const std::string errors = GetCapturedStderr();
    EXPECT_TRUE(std::regex_match(errors, std::regex("(104\n)?(32\n){1,3}"))) << errors;
    EXPECT_EQ(clients().size(), 2u);
    EXPECT_EQ(connected[0]->read(), "");
    EXPECT_TRUE(connected[0]->eof);
    EXPECT_TRUE(passUntil([&] { return clients().size() == 1; }));
    connected.clear();
    EXPECT_TRUE(passUntil([&] { return clients().empty(); }));
    server.closeListener();  // the listener goes too: one descriptor fewer than at the start
    EXPECT_EQ(openFds(), fds - 1);
    EXPECT_EQ(FrameServerPeer::port(server), -1);
}

// Each pass with a broken epoll descriptor says so, with the errno (EBADF).
TEST(FrameServer, PortInUseAndEpollErrorsAreReportedAndTheServerGoesOn) {
    FrameServer first(0);
    CaptureStderr();
    FrameServer second(FrameServerPeer::port(first));
    second.handleEvents();
    second.sendFrame(kJpeg);
    close(FrameServerPeer::epollFd(first));
    first.handleEvents();
    first.handleEvents();
    EXPECT_EQ(GetCapturedStderr(), "Can't bind socket\nepoll wait error 9\nepoll wait error 9\n");
}
