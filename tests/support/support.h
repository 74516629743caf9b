// What the unit tests share: temporary files, the event log, the test camera,
// a loopback client, and the frame server's test peer.
#pragma once

#include <arpa/inet.h>
#include <fcntl.h>
#include <poll.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <csignal>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <regex>
#include <string>
#include <thread>
#include <vector>

#include "frame_server.h"
#include "rate_source.h"

using namespace std::chrono_literals;
using Millis = std::chrono::milliseconds;
using Clock = std::chrono::steady_clock;

// The wire format, written out independently of the server's copy: the
// stream header, and a 12-byte JPEG as one part and as a single image.
inline const std::string kStreamHeader =
    "HTTP/1.0 200 OK\r\nAccept-Range: bytes\r\nConnection: close\r\nMax-Age: 0\r\n"
    "Expires: 0\r\nCache-Control: no-cache, private\r\nPragma: no-cache\r\n"
    "Content-Type: multipart/x-mixed-replace;boundary=frame\r\n\r\n";
inline const std::string kJpeg = "\xff\xd8 twelve \xff\xd9";
inline const std::string kPartStart = "--frame\r\nContent-Type: image/jpg\r\nContent-Length: ";
inline const std::string kPart = kPartStart + "12\r\n\r\n" + kJpeg;
inline const std::string kSingle =
    "HTTP/1.1 200 OK\r\nConnection: close\r\nContent-Type: image/jpg\r\nContent-Length: "
    "12\r\n\r\n" +
    kJpeg;

inline double since(Clock::time_point start) {
    return std::chrono::duration<double>(Clock::now() - start).count();
}

struct TempDir {
    TempDir() { mkdtemp(path.data()); }
    ~TempDir() { std::filesystem::remove_all(path); }
    std::string file(const std::string& name) const { return path + "/" + name; }
    std::string path = std::filesystem::temp_directory_path() / "vs-test-XXXXXX";
};

inline std::string readFile(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(in), {}};
}

inline void setMtime(const std::string& path, time_t mtime) {
    const timespec times[2] = {{mtime, 0}, {mtime, 0}};
    utimensat(AT_FDCWD, path.c_str(), times, 0);
}

// A non-zero `mtime` sets the modification time, in whole seconds.
inline void writeFile(const std::string& path, const std::string& text, time_t mtime = 0) {
    std::ofstream(path, std::ios::binary) << text;
    if (mtime != 0) setMtime(path, mtime);
}

// Polls every 5 ms until `condition` holds or `timeout` passes.
inline bool waitFor(const std::function<bool()>& condition, Millis timeout = 30s) {
    const auto deadline = Clock::now() + timeout;
    while (!condition()) {
        if (Clock::now() > deadline) return false;
        std::this_thread::sleep_for(5ms);
    }
    return true;
}

// The lines of a file less their first `stamp` characters: by default an
// event-log line's time stamp.
inline std::vector<std::string> logMessages(const std::string& path, size_t stamp = 27) {
    std::vector<std::string> messages;
    std::ifstream in(path);
    for (std::string line; std::getline(in, line);) messages.push_back(line.substr(stamp));
    return messages;
}

inline int countLines(const std::string& path, const std::string& message, size_t stamp = 27) {
    return static_cast<int>(std::ranges::count(logMessages(path, stamp), message));
}

inline int openFds() {
    return static_cast<int>(
        std::distance(std::filesystem::directory_iterator("/proc/self/fd"), {}));
}

inline sockaddr_in loopback(int port) {
    return {AF_INET, htons(static_cast<uint16_t>(port)), {htonl(INADDR_LOOPBACK)}, {}};
}

inline int localPort(int fd) {
    sockaddr_in a{};
    socklen_t length = sizeof a;
    getsockname(fd, reinterpret_cast<sockaddr*>(&a), &length);
    return ntohs(a.sin_port);
}

// The bundled test camera on 127.0.0.1. Runs at most five minutes, so that
// a test that dies leaves none behind for long.
struct TestCamera {
    explicit TestCamera(const std::string& size) {
        const std::string command = std::string("echo $$; exec timeout 300 ") + TEST_CAMERA_BIN +
                                    " --port 0 --size " + size;
        output = popen(command.c_str(), "r");
        char line[256] = "";
        pid = std::atoi(fgets(line, sizeof line, output));
        url = fgets(line, sizeof line, output) ? std::string(line, strcspn(line, "\n")) : "";
    }
    ~TestCamera() {
        stop();
        pclose(output);
    }
    void stop() const {
        if (pid > 0) kill(pid, SIGTERM);  // through timeout, which passes it on
    }
    int port() const { return std::stoi(url.substr(url.rfind(':') + 1)); }
    FILE* output;
    pid_t pid = 0;
    std::string url;
};

// A blocking loopback connection; what it reads piles up in `data`.
struct LoopbackClient {
    explicit LoopbackClient(int port) {
        const sockaddr_in a = loopback(port);
        connect(fd, reinterpret_cast<const sockaddr*>(&a), sizeof a);
    }
    ~LoopbackClient() { close(fd); }
    void send(const std::string& text) const { ::send(fd, text.data(), text.size(), MSG_NOSIGNAL); }
    // Reads until `total` bytes are in, the peer closes or time runs out.
    const std::string& read(size_t total = SIZE_MAX, Millis timeout = 10s) {
        char buffer[65536];
        const auto deadline = Clock::now() + timeout;
        while (data.size() < total && !eof && Clock::now() < deadline) {
            pollfd p{fd, POLLIN, 0};
            if (poll(&p, 1, 10) <= 0) continue;
            const ssize_t n = recv(fd, buffer, sizeof buffer, 0);
            eof = n <= 0;
            data.append(buffer, std::max<ssize_t>(n, 0));
        }
        return data;
    }
    const int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    bool eof = false;
    std::string data;
};

struct FakeRates : RateSource {
    double queueRate() const override { return queue; }
    double dequeueRate() const override { return dequeue; }
    double queue = 0;
    double dequeue = 0;
};

struct FrameServerPeer {
    static int port(const FrameServer& server) { return server.boundPort(); }
    static const std::list<Client*>& clients(const FrameServer& server) { return server.clients; }
    static int epollFd(const FrameServer& server) { return server.epollFd; }
};
