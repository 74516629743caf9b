// What the tests share: temporary files, the event log, child processes (the
// test camera, the real server), a loopback client and a stream parser.
#pragma once

#include <arpa/inet.h>
#include <fcntl.h>
#include <poll.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <functional>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include <opencv2/imgproc.hpp>

#include "rate_source.h"

namespace support {

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

class TempDir {
public:
    TempDir() {
        std::string name = std::filesystem::temp_directory_path() / "vs-test-XXXXXX";
        path_ = mkdtemp(name.data());
    }
    ~TempDir() { std::filesystem::remove_all(path_); }
    std::string file(const std::string& name) const { return path_ + "/" + name; }

private:
    std::string path_;
};

inline std::string readFile(const std::string& path) {
    std::ostringstream out;
    out << std::ifstream(path, std::ios::binary).rdbuf();
    return out.str();
}

// A non-zero `mtime` sets the modification time in whole seconds.
inline void writeFile(const std::string& path, const std::string& text, time_t mtime = 0) {
    std::ofstream(path, std::ios::binary) << text;
    const timespec times[2] = {{mtime, 0}, {mtime, 0}};
    if (mtime != 0) utimensat(AT_FDCWD, path.c_str(), times, 0);
}

// Polls every 5 ms until `condition` holds or `timeout` passes.
inline bool waitFor(const std::function<bool()>& condition, Millis timeout = 10s) {
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    for (; !condition(); std::this_thread::sleep_for(5ms)) {
        if (std::chrono::steady_clock::now() > deadline) return false;
    }
    return true;
}

// Event-log lines without their time stamp.
inline std::vector<std::string> logMessages(const std::string& path = kLogPath) {
    std::vector<std::string> messages;
    std::ifstream in(path);
    for (std::string line; std::getline(in, line);) messages.push_back(line.size() < 27 ? "" : line.substr(27));
    return messages;
}

inline int countLines(const std::string& path, const std::string& message) {
    const auto all = logMessages(path);
    return static_cast<int>(std::count(all.begin(), all.end(), message));
}

inline sockaddr_in loopback(int port) { return {AF_INET, htons(static_cast<uint16_t>(port)), {htonl(INADDR_LOOPBACK)}, {}}; }

// A loopback listener on a free port; `backlog` 0 still queues one connection.
inline int listenOnLoopback(int& port, int backlog = 16) {
    const int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    sockaddr_in a = loopback(0);
    socklen_t length = sizeof a;
    bind(fd, reinterpret_cast<sockaddr*>(&a), sizeof a);
    listen(fd, backlog);
    getsockname(fd, reinterpret_cast<sockaddr*>(&a), &length);
    port = ntohs(a.sin_port);
    return fd;
}

inline int freeLoopbackPort() {
    int port = 0;
    return close(listenOnLoopback(port)), port;
}

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
            sigset_t none;
            sigemptyset(&none);
            sigprocmask(SIG_SETMASK, &none, nullptr);
            dup2(open(dir_.file("out").c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644), 1);
            dup2(open(dir_.file("err").c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644), 2);
            close_range(3, ~0U, 0);
            execv(args[0], args.data());
            _exit(127);
        }
    }
    std::string out() const { return readFile(dir_.file("out")); }
    void signal(int sig) const { kill(pid_, sig); }
    // The exit status; -1 if a signal ended it or it outlived `timeout` (it is then killed).
    int waitExit(Millis timeout = 15s) {
        int status = -1;
        if (pid_ > 0 && !waitFor([&] { return waitpid(pid_, &status, WNOHANG) == pid_; }, timeout)) {
            kill(pid_, SIGKILL);
            waitpid(pid_, nullptr, 0);
            status = -1;
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
    int stop(int sig = SIGTERM) {
        signal(sig);
        return waitExit(5s);
    }
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

inline bool waitUntilServing(Millis timeout = 20s) {
    return waitFor([] { return countLines(kLogPath, "Starting main loop") > 0; }, timeout);
}

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
        for (Millis left = timeout; data_.size() < total && !eof_ && left.count() > 0;) {
            pollfd p{fd_, POLLIN, 0};
            char buffer[65536];
            if (poll(&p, 1, static_cast<int>(left.count())) > 0) {
                const ssize_t n = recv(fd_, buffer, sizeof buffer, 0);
                eof_ = n <= 0;
                data_.append(buffer, n > 0 ? static_cast<size_t>(n) : 0);
            }
            left = std::chrono::duration_cast<Millis>(deadline - std::chrono::steady_clock::now());
        }
        return data_;
    }
    const std::string& readFor(Millis window) { return readAtLeast(SIZE_MAX, window); }
    bool readToEof(Millis timeout = 10s) { return readFor(timeout), eof_; }
    const std::string& data() const { return data_; }
    bool eof() const { return eof_; }

private:
    int fd_;
    bool eof_ = false;
    std::string data_;
};

// Strict parser of the server's stream as it arrives: its exact header,
// then "--frame" parts back to back, each one JPEG (FF D8 ... FF D9).
// Anything else fails it for good.
class PartParser {
public:
    void append(const std::string& bytes) { buffer_ += bytes; }
    // The next complete part's JPEG; false when more bytes are needed or
    // the stream is malformed (failed()).
    bool next(std::string& jpeg) {
        size_t at = 0;
        const auto take = [&](std::string_view text) {
            const size_t n = std::min(text.size(), buffer_.size() - at);
            failed_ = failed_ || buffer_.compare(at, n, text.substr(0, n)) != 0;
            at += n;
            return !failed_ && n == text.size();
        };
        if (!headerDone_) {
            if (!(headerDone_ = take(kStreamHeader))) return false;
            buffer_.erase(0, at);
            at = 0;
        }
        if (!take("--frame\r\nContent-Type: image/jpg\r\nContent-Length: ")) return false;
        const size_t digits = buffer_.find_first_not_of("0123456789", at);
        if (digits == std::string::npos) return false;
        failed_ = digits == at || digits - at > 9 || (buffer_[at] == '0' && digits > at + 1);
        const size_t length = failed_ ? 0 : std::stoul(buffer_.substr(at, digits - at));
        at = digits;
        if (!take("\r\n\r\n") || buffer_.size() - at < length) return false;
        jpeg = buffer_.substr(at, length);
        failed_ = length < 4 || jpeg.compare(0, 2, "\xff\xd8") != 0 || jpeg.compare(length - 2, 2, "\xff\xd9") != 0;
        if (!failed_) buffer_.erase(0, at + length), ++parts_;
        return !failed_;
    }
    bool failed() const { return failed_; }
    size_t parts() const { return parts_; }
    // Every complete part of `bytes`; false if they are malformed.
    static bool split(const std::string& bytes, std::vector<std::string>& jpegs) {
        PartParser parser;
        parser.append(bytes);
        for (std::string jpeg; parser.next(jpeg);) jpegs.push_back(jpeg);
        return !parser.failed();
    }

private:
    std::string buffer_;
    size_t parts_ = 0;
    bool headerDone_ = false, failed_ = false;
};

// Camera-like content: smooth shapes at several scales, sharp edges and
// sensor noise, so that every DCT coefficient and rounding case is hit.
inline cv::Mat scene(cv::Size size) {
    cv::RNG rng(size.area());
    cv::Mat picture(size, CV_8UC3), coarse(size / 24 + cv::Size(2, 2), CV_8UC3), noise(size, CV_8UC3);
    rng.fill(coarse, cv::RNG::UNIFORM, 0, 256);
    cv::resize(coarse, picture, size, 0, 0, cv::INTER_CUBIC);
    for (int i = 0; i < 40; ++i) {
        cv::line(picture, {rng.uniform(0, size.width), rng.uniform(0, size.height)},
                 {rng.uniform(0, size.width), rng.uniform(0, size.height)},
                 cv::Scalar(rng.uniform(0, 256), rng.uniform(0, 256), rng.uniform(0, 256)), 3);
    }
    rng.fill(noise, cv::RNG::NORMAL, 0, 12);
    cv::add(picture, noise, picture, cv::noArray(), CV_8UC3);
    return picture;
}

inline bool same(const cv::Mat& a, const cv::Mat& b) { return a.size() == b.size() && cv::norm(a, b, cv::NORM_INF) == 0; }

class FakeRates : public RateSource {
public:
    double queueRate() const override { return queue; }
    double dequeueRate() const override { return dequeue; }
    double queue = 0, dequeue = 0;
};

}  // namespace support
