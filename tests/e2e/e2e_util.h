// End-to-end helpers: the real server binary as a child process, raw HTTP
// clients and the server's event log. The test executable itself runs in a
// private mount and network namespace (tests/isolate), so /tmp, /media and
// /var/run are its own and the server's fixed paths are safe to use.
#pragma once

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstring>
#include <filesystem>
#include <string>
#include <vector>

#include "../test_camera.h"
#include "../test_util.h"

namespace e2e {

inline constexpr const char* kLogPath = "/media/usb99/stream.log";
inline constexpr const char* kFifoPath = "/var/run/tbx/api.fifo";
inline constexpr const char* kOverlayPath = "/tmp/overlays.json";

using testutil::freeLoopbackPort;

// The stream response header, byte for byte, written out independently of
// the server's own copy.
inline const std::string kStreamHeader =
    "HTTP/1.0 200 OK\r\n"
    "Accept-Range: bytes\r\n"
    "Connection: close\r\n"
    "Max-Age: 0\r\n"
    "Expires: 0\r\n"
    "Cache-Control: no-cache, private\r\n"
    "Pragma: no-cache\r\n"
    "Content-Type: multipart/x-mixed-replace;boundary=frame\r\n"
    "\r\n";

inline std::vector<std::string> logMessages() { return testutil::logMessages(kLogPath); }

inline bool logContains(const std::string& message) {
    for (const auto& m : logMessages())
        if (m == message) return true;
    return false;
}

inline int countInLog(const std::string& message) {
    int n = 0;
    for (const auto& m : logMessages()) n += (m == message);
    return n;
}

// The real video-server, started with the given arguments; its standard
// output and error go to files that tests read while it runs.
class ServerProcess {
public:
    explicit ServerProcess(std::vector<std::string> args) : args_(std::move(args)) {}
    ~ServerProcess() {
        if (pid_ > 0) {
            kill(pid_, SIGKILL);
            waitpid(pid_, nullptr, 0);
        }
    }

    void start() {
        outPath_ = dir_.file("stdout");
        errPath_ = dir_.file("stderr");
        pid_ = fork();
        if (pid_ == 0) {
            prctl(PR_SET_PDEATHSIG, SIGKILL);
            int out = open(outPath_.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
            int err = open(errPath_.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
            dup2(out, 1);
            dup2(err, 2);
            std::vector<char*> argv;
            std::string bin = VIDEO_SERVER_BIN;
            argv.push_back(bin.data());
            for (auto& a : args_) argv.push_back(a.data());
            argv.push_back(nullptr);
            execv(bin.c_str(), argv.data());
            _exit(127);
        }
    }

    // Waits until the log shows the main loop has started.
    bool waitUntilServing(std::chrono::milliseconds timeout = std::chrono::seconds(15)) {
        return testutil::waitFor([] { return logContains("Starting main loop"); }, timeout);
    }

    void signal(int sig) { kill(pid_, sig); }

    // Waits for the process to end; returns its exit status, or -1 when it
    // was killed by a signal or did not end in time (it is then killed).
    int waitExit(std::chrono::milliseconds timeout = std::chrono::seconds(15)) {
        int status = 0;
        bool ended = testutil::waitFor(
            [&] { return waitpid(pid_, &status, WNOHANG) == pid_; }, timeout);
        if (!ended) {
            kill(pid_, SIGKILL);
            waitpid(pid_, &status, 0);
            pid_ = -1;
            return -1;
        }
        pid_ = -1;
        return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    }

    pid_t pid() const { return pid_; }
    std::string out() const { return testutil::readFile(outPath_); }
    std::string err() const { return testutil::readFile(errPath_); }

    int openFds() const {
        int n = 0;
        std::error_code ec;
        for (auto it = std::filesystem::directory_iterator("/proc/" + std::to_string(pid_) + "/fd", ec);
             !ec && it != std::filesystem::directory_iterator(); it.increment(ec))
            ++n;
        return n;
    }

private:
    std::vector<std::string> args_;
    testutil::TempDir dir_;
    std::string outPath_, errPath_;
    pid_t pid_ = -1;
};

// A raw TCP client on 127.0.0.1.
class RawClient {
public:
    explicit RawClient(int port) {
        fd_ = socket(AF_INET, SOCK_STREAM, 0);
        sockaddr_in a{};
        a.sin_family = AF_INET;
        a.sin_port = htons(static_cast<uint16_t>(port));
        a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        connected_ = connect(fd_, reinterpret_cast<sockaddr*>(&a), sizeof a) == 0;
    }
    ~RawClient() { if (fd_ >= 0) close(fd_); }
    RawClient(const RawClient&) = delete;
    RawClient& operator=(const RawClient&) = delete;

    bool connected() const { return connected_; }
    int fd() const { return fd_; }
    void sendText(const std::string& s) { (void)::send(fd_, s.data(), s.size(), MSG_NOSIGNAL); }

    // Reads until `total` bytes are buffered, the peer closes, or the time
    // runs out. Returns the whole buffer so far.
    const std::string& readAtLeast(size_t total, std::chrono::milliseconds timeout = std::chrono::seconds(10)) {
        const auto deadline = std::chrono::steady_clock::now() + timeout;
        while (data_.size() < total && !eof_) {
            auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
            if (left.count() <= 0) break;
            pollOnce(static_cast<int>(left.count()));
        }
        return data_;
    }

    // Reads whatever arrives within `window`.
    const std::string& readFor(std::chrono::milliseconds window) {
        const auto deadline = std::chrono::steady_clock::now() + window;
        while (!eof_) {
            auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
            if (left.count() <= 0) break;
            pollOnce(static_cast<int>(left.count()));
        }
        return data_;
    }

    // Reads until the peer closes (or the time runs out); true on close.
    bool readToEof(std::chrono::milliseconds timeout = std::chrono::seconds(10)) {
        readFor(timeout);
        return eof_;
    }

    const std::string& data() const { return data_; }
    bool eof() const { return eof_; }

private:
    void pollOnce(int ms) {
        pollfd p{fd_, POLLIN, 0};
        if (poll(&p, 1, ms) <= 0) return;
        char buf[65536];
        ssize_t n = recv(fd_, buf, sizeof buf, 0);
        if (n <= 0) eof_ = true;
        else data_.append(buf, static_cast<size_t>(n));
    }

    int fd_ = -1;
    bool connected_ = false;
    bool eof_ = false;
    std::string data_;
};

// Splits the body of an MJPEG stream (what follows the stream header) into
// its parts' JPEG payloads; `rest` receives an incomplete tail. Returns
// false on a malformed part.
inline bool splitParts(const std::string& body, std::vector<std::string>& jpegs, std::string* error = nullptr) {
    static const std::string kPrefix = "--frame\r\nContent-Type: image/jpg\r\nContent-Length: ";
    size_t pos = 0;
    while (pos < body.size()) {
        if (body.size() - pos < kPrefix.size()) return true;  // incomplete tail
        if (body.compare(pos, kPrefix.size(), kPrefix) != 0) {
            if (error) *error = "bad part prefix at " + std::to_string(pos);
            return false;
        }
        size_t digits = pos + kPrefix.size();
        size_t end = body.find("\r\n\r\n", digits);
        if (end == std::string::npos) return true;
        std::string len = body.substr(digits, end - digits);
        if (len.empty() || len.find_first_not_of("0123456789") != std::string::npos || (len.size() > 1 && len[0] == '0')) {
            if (error) *error = "bad length '" + len + "'";
            return false;
        }
        size_t n = std::stoul(len);
        size_t start = end + 4;
        if (body.size() - start < n) return true;
        jpegs.push_back(body.substr(start, n));
        pos = start + n;
    }
    return true;
}

}  // namespace e2e
