// Request handling under arbitrary bytes: a real FrameServer on loopback,
// one fresh client per input, every outcome checked against the rules:
//
//   - each read is judged on its own: its text ends at the first NUL;
//   - a read whose text contains "frame_id=" makes a single-image client and
//     sends nothing;
//   - any other read sends the 191-byte stream header, once, to a client
//     that is neither streaming nor waiting for a single image; later ones
//     send nothing;
//   - the next frame reaches a single-image client as one HTTP response,
//     after which the server ends the connection; a streaming client gets
//     one part; a client with no request acted on gets nothing.
//
// Input: up to kMaxReads chunks, each a 2-byte little-endian length (only
// the low 11 bits count) followed by that many bytes; a short last chunk
// takes what is left. A chunk longer than the server's 1024-byte read is
// read, and judged, in 1024-byte pieces. Each chunk is sent in one send and
// fully read by the server before the next one goes out.
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

#include "frame_server.h"
#include "wire_format.h"

namespace {

constexpr size_t kMaxReads = 8;
constexpr size_t kServerReadSize = 1024;
const std::string kJpeg = "\xff\xd8 fuzz frame \xff\xd9";
// Loopback drops a packet now and then on a busy machine; the retransmission
// can take seconds. Longer than this is a hang.
constexpr auto kPatience = std::chrono::seconds(20);

FrameServer* g_server = nullptr;

[[noreturn]] void fail(const char* what) {
    std::fprintf(stderr, "fuzz_request: %s\n", what);
    std::abort();
}

[[noreturn]] void failCall(const char* call) {
    std::fprintf(stderr, "fuzz_request: %s: %s\n", call, std::strerror(errno));
    std::abort();
}

// Drives the server until `done` holds; a server that never gets there is a
// hang, reported as a failure.
void pumpUntil(const std::function<bool()>& done) {
    const auto deadline = std::chrono::steady_clock::now() + kPatience;
    while (!done()) {
        if (std::chrono::steady_clock::now() > deadline) fail("the server did not get there");
        g_server->handleEvents();
    }
}

int unreadBytes(int fd) {
    int pending = 0;
    if (ioctl(fd, FIONREAD, &pending) != 0) failCall("FIONREAD");
    return pending;
}

// Waits, without letting the server read, until `fd` holds `count` unread
// bytes.
void waitQueued(int fd, int count) {
    const auto deadline = std::chrono::steady_clock::now() + kPatience;
    while (unreadBytes(fd) != count) {
        if (std::chrono::steady_clock::now() > deadline) {
            std::fprintf(stderr, "fuzz_request: %d of %d bytes queued\n", unreadBytes(fd), count);
            fail("the bytes did not arrive");
        }
        pollfd p{fd, POLLIN, 0};
        poll(&p, 1, 1);
    }
}

// Everything the client has been sent so far, without waiting; `eof` tells
// whether the server ended the connection.
std::string drain(int fd, bool& eof) {
    std::string out;
    eof = false;
    char buffer[4096];
    for (;;) {
        const ssize_t got = recv(fd, buffer, sizeof buffer, MSG_DONTWAIT);
        if (got > 0) {
            out.append(buffer, static_cast<size_t>(got));
        } else {
            eof = got == 0;
            return out;
        }
    }
}

// What the client receives until it holds at least `want` bytes, or, with
// `toEnd`, until the server ends the connection.
std::string receive(int fd, size_t want, bool toEnd, bool& eof) {
    std::string out;
    const auto deadline = std::chrono::steady_clock::now() + kPatience;
    for (;;) {
        out += drain(fd, eof);
        if (eof || (!toEnd && out.size() >= want)) return out;
        if (std::chrono::steady_clock::now() > deadline) return out;
        pollfd p{fd, POLLIN, 0};
        poll(&p, 1, 10);
    }
}

uint16_t socketPort(int fd, bool peer) {
    sockaddr_in address{};
    socklen_t length = sizeof address;
    const int rc = peer ? getpeername(fd, reinterpret_cast<sockaddr*>(&address), &length)
                        : getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length);
    return rc == 0 ? ntohs(address.sin_port) : 0;
}

// A few tries: a loaded machine can be short of ephemeral ports for a
// moment. That is the harness's trouble, not the server's. A try that fails
// late (libFuzzer's timer signal interrupts connect) can still leave a
// connection in the server's queue; the caller tells ours by its port.
int connectClient(int port) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<uint16_t>(port));
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    for (int attempt = 0; attempt < 50; ++attempt) {
        const int fd = socket(AF_INET, SOCK_STREAM, 0);
        if (fd < 0) failCall("socket");
        if (connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0) return fd;
        std::fprintf(stderr, "fuzz_request: connect: %s, trying again\n", std::strerror(errno));
        close(fd);
        poll(nullptr, 0, 20);
    }
    failCall("connect");
}

std::vector<std::string_view> splitReads(const uint8_t* data, size_t size) {
    std::vector<std::string_view> chunks;
    size_t pos = 0;
    while (pos + 2 <= size && chunks.size() < kMaxReads) {
        const size_t length = (data[pos] | (data[pos + 1] << 8)) & 0x7ff;
        pos += 2;
        const size_t take = std::min(length, size - pos);
        chunks.emplace_back(reinterpret_cast<const char*>(data + pos), take);
        pos += take;
    }
    return chunks;
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    // "client connected" once per input would drown libFuzzer's own output.
    if (!freopen("/dev/null", "w", stdout)) return 1;
    g_server = new FrameServer(0);
    if (g_server->boundPort() <= 0) fail("no listener");
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const int fd = connectClient(g_server->boundPort());
    // Ours, alone: a stray connection from a failed try ends and is removed.
    const uint16_t ourPort = socketPort(fd, false);
    pumpUntil([ourPort] {
        const auto& clients = g_server->clientList();
        return clients.size() == 1 && socketPort(clients.front()->fd, true) == ourPort;
    });
    const Client* client = g_server->clientList().front();
    const int serverFd = client->fd;
    // Nagle's algorithm on either end would hold a small send back until the
    // peer's delayed acknowledgement, 40 ms later; timing only, no change to
    // what is sent.
    const int on = 1;
    setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
    setsockopt(serverFd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);

    bool singleImage = false;
    bool streaming = false;
    std::string expected;
    for (std::string_view chunk : splitReads(data, size)) {
        if (chunk.empty()) continue;
        if (send(fd, chunk.data(), chunk.size(), MSG_NOSIGNAL) != static_cast<ssize_t>(chunk.size())) {
            fail("short send");
        }
        // All of the chunk must be queued before the server's first read of
        // it, so that the 1024-byte pieces below are the reads it makes.
        waitQueued(serverFd, static_cast<int>(chunk.size()));
        for (size_t at = 0; at < chunk.size(); at += kServerReadSize) {
            const std::string_view read = chunk.substr(at, kServerReadSize);
            const std::string_view text = read.substr(0, read.find('\0'));
            if (text.find("frame_id=") != std::string_view::npos) {
                singleImage = true;
            } else if (!streaming && !singleImage) {
                streaming = true;
                expected += g_streamHeader;
            }
            const int left = static_cast<int>(chunk.size() - std::min(chunk.size(), at + kServerReadSize));
            pumpUntil([&] { return unreadBytes(serverFd) == left; });
        }
        if (g_server->clientList().size() != 1) fail("the server dropped the client");
        if (client->singleImage != singleImage || client->streaming != streaming ||
            client->headerSent != streaming) {
            fail("client state differs from the rules");
        }
    }

    bool eof = false;
    if (receive(fd, expected.size(), false, eof) != expected || eof) {
        fail("bytes sent on request differ from the rules");
    }

    g_server->sendFrame(kJpeg);
    std::string answer;
    if (singleImage) {
        answer = buildSingleImageHeader(kJpeg.size()) + kJpeg;
    } else if (streaming) {
        answer = buildPart(kJpeg);
    }
    // A single-image answer ends the connection: wait for that end too.
    if (receive(fd, answer.size(), singleImage, eof) != answer) {
        fail("bytes sent with the frame differ from the rules");
    }
    if (eof != singleImage) fail("connection end differs from the rules");

    // Reset rather than close: a closing client keeps its port in TIME_WAIT
    // for a minute, and thousands of inputs a second would use them all up.
    const linger reset{1, 0};
    setsockopt(fd, SOL_SOCKET, SO_LINGER, &reset, sizeof reset);
    close(fd);
    pumpUntil([] { return g_server->clientList().empty(); });
    return 0;
}
