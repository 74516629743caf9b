// What the tests share: temporary files, the event log, child processes (the
// test camera, the real server), a loopback client and a stream parser.
#pragma once

#include <arpa/inet.h>
#include <fcntl.h>
#include <poll.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <functional>
#include <memory>
#include <opencv2/imgcodecs.hpp>
#include <regex>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "rate_source.h"

using namespace std::chrono_literals;
using Millis = std::chrono::milliseconds;

// The server's fixed paths, private to a test run in support/isolate.
inline constexpr const char* kLogPath = "/media/usb99/stream.log";
inline constexpr const char* kFifoPath = "/var/run/tbx/api.fifo";
// The stream header, written out independently of the server's copy.
inline const std::string kStreamHeader =
    "HTTP/1.0 200 OK\r\nAccept-Range: bytes\r\nConnection: close\r\nMax-Age: 0\r\nExpires: 0\r\n"
    "Cache-Control: no-cache, private\r\nPragma: no-cache\r\n"
    "Content-Type: multipart/x-mixed-replace;boundary=frame\r\n\r\n";
// A 12-byte JPEG as one part of the stream and as a single-image answer.
inline const std::string kJpeg = "\xff\xd8 twelve \xff\xd9";
inline const std::string kPartStart = "--frame\r\nContent-Type: image/jpg\r\nContent-Length: ";
inline const std::string kPart = kPartStart + "12\r\n\r\n" + kJpeg;
inline const std::string kSingle =
    "HTTP/1.1 200 OK\r\nConnection: close\r\nContent-Type: image/jpg\r\nContent-Length: 12\r\n\r\n" + kJpeg;

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
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    for (; !condition(); std::this_thread::sleep_for(5ms)) {
        if (std::chrono::steady_clock::now() > deadline) return false;
    }
    return true;
}

// The lines of a file less their first `stamp` characters: by default an
// event-log line's time stamp.
inline std::vector<std::string> logMessages(const std::string& path = kLogPath, size_t stamp = 27) {
    std::vector<std::string> messages;
    std::ifstream in(path);
    for (std::string line; std::getline(in, line);) messages.push_back(line.size() < stamp ? "" : line.substr(stamp));
    return messages;
}

inline int countLines(const std::string& path, const std::string& message, size_t stamp = 27) {
    return static_cast<int>(std::ranges::count(logMessages(path, stamp), message));
}

inline int openFds() { return static_cast<int>(std::distance(std::filesystem::directory_iterator("/proc/self/fd"), {})); }

inline sockaddr_in loopback(int port) { return {AF_INET, htons(static_cast<uint16_t>(port)), {htonl(INADDR_LOOPBACK)}, {}}; }

inline int localPort(int fd) {
    sockaddr_in a{};
    socklen_t length = sizeof a;
    getsockname(fd, reinterpret_cast<sockaddr*>(&a), &length);
    return ntohs(a.sin_port);
}

// A loopback listener on a free port; `backlog` 0 still queues one connection.
inline int listenOnLoopback(int& port, int backlog = 16) {
    const int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    const sockaddr_in a = loopback(0);
    bind(fd, reinterpret_cast<const sockaddr*>(&a), sizeof a);
    listen(fd, backlog);
    port = localPort(fd);
    return fd;
}

inline int freeLoopbackPort() { int port = 0; return close(listenOnLoopback(port)), port; }

// A child process with its standard output and error in files of its own,
// killed with the thread that started it.
class Process {
public:
    ~Process() { waitExit(0ms); }
    void start(const std::vector<std::string>& argv) {
        std::vector<char*> args;
        for (const std::string& a : argv) args.push_back(const_cast<char*>(a.c_str()));
        args.push_back(nullptr);
        const pid_t parent = getpid();
        writeFile(dir_.file("out"), "");  // nothing of an earlier run is read as this one's
        if ((pid_ = fork()) == 0) {
            prctl(PR_SET_PDEATHSIG, SIGKILL);
            if (getppid() != parent) _exit(127);
            const sigset_t none{};  // all clear: no signal blocked
            sigprocmask(SIG_SETMASK, &none, nullptr);
            dup2(open(dir_.file("out").c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644), 1);
            dup2(open(dir_.file("err").c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644), 2);
            close_range(3, ~0U, 0);
            execv(args[0], args.data());
            _exit(127);
        }
    }
    std::string out() const { return readFile(dir_.file("out")); }
    void signal(int sig) const {
        if (pid_ > 0) kill(pid_, sig);  // never -1: that would be every process we may signal
    }
    // The exit status; -1 if a signal ended it or it outlived `timeout` (it is then killed).
    int waitExit(Millis timeout = 15s) {
        int status = -1;
        if (pid_ > 0 && !waitFor([&] { return waitpid(pid_, &status, WNOHANG) == pid_; }, timeout)) {
            kill(pid_, SIGKILL);
            waitpid(pid_, nullptr, 0);
        }
        pid_ = -1;
        return status != -1 && WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    }

private:
    pid_t pid_ = -1;
    TempDir dir_;
};

// The bundled test camera on 127.0.0.1. It keeps its first port across
// stop() and start(), so it can go away and come back at one URL.
class TestCamera : public Process {
public:
    explicit TestCamera(std::string size = "640x360") : size_(std::move(size)) {}
    // Returns once it prints its URL (the first start on a fresh machine
    // waits for GStreamer's plugin registry).
    bool start() {
        Process::start({TEST_CAMERA_BIN, "--size", size_, "--port", std::to_string(port_)});
        if (waitFor([&] { return out().find('\n') != std::string::npos; }, 30s) &&
            sscanf((url_ = out().substr(0, out().find('\n'))).c_str(), "rtsp://127.0.0.1:%d/", &port_) == 1) return true;
        stop(SIGKILL);
        return false;
    }
    int stop(int sig = SIGTERM) { return signal(sig), waitExit(5s); }
    const std::string& url() const { return url_; }
    int port() const { return port_; }
    std::string testUrl() const { return "127.0.0.1:" + std::to_string(port_); }
    // The real server's command line: HTTP on `httpPort`, this camera as its stream.
    std::vector<std::string> server(int httpPort) const {
        return {VIDEO_SERVER_BIN, "-p", std::to_string(httpPort), "-u", url_, "-t", testUrl()};
    }

private:
    std::string size_, url_;
    int port_ = 0;
};

inline bool waitUntilServing() { return waitFor([] { return countLines(kLogPath, "Starting main loop") > 0; }); }

class LoopbackClient {
public:
    explicit LoopbackClient(int port) : fd_(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
        const sockaddr_in a = loopback(port);
        connect(fd_, reinterpret_cast<const sockaddr*>(&a), sizeof a);
    }
    ~LoopbackClient() { close(fd_); }
    int fd() const { return fd_; }
    void sendText(const std::string& text) const { send(fd_, text.data(), text.size(), MSG_NOSIGNAL); }
    // Reads until `total` bytes are in, the peer closes or time runs out.
    const std::string& readAtLeast(size_t total, Millis timeout = 10s) {
        const auto deadline = std::chrono::steady_clock::now() + timeout;
        for (char buffer[65536]; data_.size() < total && !eof_ && std::chrono::steady_clock::now() < deadline;) {
            if (pollfd p{fd_, POLLIN, 0}; poll(&p, 1, 10) <= 0) continue;
            const ssize_t n = recv(fd_, buffer, sizeof buffer, 0);
            eof_ = n <= 0;
            data_.append(buffer, std::max<ssize_t>(n, 0));
        }
        return data_;
    }
    bool readToEof(Millis timeout = 10s) { return readAtLeast(SIZE_MAX, timeout), eof_; }
    const std::string& data() const { return data_; }
    bool eof() const { return eof_; }

private:
    int fd_;
    bool eof_ = false;
    std::string data_;
};

// Strict parser of the server's stream as it arrives: its exact header,
// then "--frame" parts back to back, each one JPEG (FF D8 ... FF D9) whose
// length has at most nine digits and no leading zero. Anything else fails
// it for good.
class PartParser {
public:
    void append(const std::string& bytes) { buffer_ += bytes; }
    // The next complete part's JPEG; false when more bytes are needed or
    // the stream is malformed (failed()).
    bool next(std::string& jpeg) {
        static const std::regex digits("[1-9][0-9]{0,8}");
        const std::string start = (headerSeen_ ? "" : kStreamHeader) + kPartStart;
        const size_t n = std::min(start.size(), buffer_.size()), end = buffer_.find("\r\n\r\n", start.size());
        failed_ = failed_ || buffer_.compare(0, n, start, 0, n) != 0 || (end == npos && buffer_.size() > start.size() + 12) ||
                  (end != npos && !std::regex_match(buffer_.substr(start.size(), end - start.size()), digits));
        const size_t length = failed_ || end == npos ? 0 : std::stoul(buffer_.substr(start.size())), at = end + 4;
        if (failed_ || end == npos || buffer_.size() < at + length) return false;
        jpeg = buffer_.substr(at, length);
        failed_ = length < 4 || !jpeg.starts_with("\xff\xd8") || !jpeg.ends_with("\xff\xd9");
        if (!failed_) buffer_.erase(0, at + length), headerSeen_ = true;
        return !failed_;
    }
    bool failed() const { return failed_; }

private:
    static constexpr size_t npos = std::string::npos;
    std::string buffer_;
    bool headerSeen_ = false, failed_ = false;
};

// While alive, no descriptor can be opened: the soft limit is the lowest free one.
struct NoFreeDescriptor {
    NoFreeDescriptor() {
        getrlimit(RLIMIT_NOFILE, &normal);
        const int next = dup(0);
        close(next);
        const rlimit none{static_cast<rlim_t>(next), normal.rlim_max};
        setrlimit(RLIMIT_NOFILE, &none);
    }
    ~NoFreeDescriptor() { setrlimit(RLIMIT_NOFILE, &normal); }
    rlimit normal{};
};

// While alive, OpenCV's default allocator: counts the frame buffers
// allocated (in all, alive, most alive at once). Declare it first: it must
// outlive the matrices it counts.
struct CountingMatAllocator : cv::MatAllocator {
    CountingMatAllocator() { cv::Mat::setDefaultAllocator(this); }
    ~CountingMatAllocator() override { cv::Mat::setDefaultAllocator(nullptr); }
    cv::UMatData* allocate(int dims, const int* sizes, int type, void* data, size_t* step, cv::AccessFlag flags,
                           cv::UMatUsageFlags usage) const override {
        cv::UMatData* u = library->allocate(dims, sizes, type, data, step, flags, usage);
        u->currAllocator = this;  // so that its release is counted too
        return ++allocated, peak = std::max(peak, ++alive), u;
    }
    bool allocate(cv::UMatData* u, cv::AccessFlag f, cv::UMatUsageFlags use) const override { return library->allocate(u, f, use); }
    void deallocate(cv::UMatData* u) const override { --alive, library->deallocate(u); }
    const cv::MatAllocator* library = cv::Mat::getStdAllocator();
    mutable int allocated = 0, alive = 0, peak = 0;
};

struct FakeRates : RateSource {
    double queueRate() const override { return queue; }
    double dequeueRate() const override { return dequeue; }
    double queue = 0, dequeue = 0;
};
