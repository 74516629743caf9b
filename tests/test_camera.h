// TestCamera: runs the bundled test-camera binary as a child process, for
// tests and benchmarks that need a live RTSP stream on 127.0.0.1.
//
// The camera keeps its port across stop() and start(), so a test can make the
// camera disappear and come back at the same URL. The child is killed if the
// thread that started it dies (PR_SET_PDEATHSIG), so a crashed test leaves no
// camera behind; start and stop a camera from the same thread.
//
// Not thread-safe: one thread owns a TestCamera.
#pragma once

#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#ifndef TEST_CAMERA_BIN
#error "TEST_CAMERA_BIN must name the test-camera binary"
#endif

namespace testutil {

// A port on 127.0.0.1 that was free a moment ago (bound to port 0, then closed).
// Returns 0 if no socket could be bound.
inline int freeLoopbackPort() {
    int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0) return 0;
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    addr.sin_port = 0;
    socklen_t len = sizeof addr;
    int port = 0;
    if (::bind(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) == 0 &&
        ::getsockname(fd, reinterpret_cast<sockaddr*>(&addr), &len) == 0) {
        port = ntohs(addr.sin_port);
    }
    ::close(fd);
    return port;
}

}  // namespace testutil

class TestCamera {
public:
    // port 0: the first start() picks a free port, later starts reuse it.
    explicit TestCamera(int port = 0, std::string size = "1280x720", int fps = 30,
                        std::string path = "/stream")
        : port_(port), size_(std::move(size)), fps_(fps), path_(std::move(path)) {}
    ~TestCamera() { stop(); }
    TestCamera(const TestCamera&) = delete;
    TestCamera& operator=(const TestCamera&) = delete;

    // Starts the camera and waits until it accepts clients. Returns false if it
    // did not print its URL within `timeout` (it is then killed) or exited.
    // The first start may take most of a second on a fresh machine while
    // GStreamer builds its plugin registry.
    bool start(std::chrono::milliseconds timeout = std::chrono::seconds(10)) {
        if (running()) return true;
        lastStatus_ = -1;

        std::vector<std::string> args = {TEST_CAMERA_BIN,  "--port", std::to_string(port_),
                                         "--size", size_, "--fps", std::to_string(fps_),
                                         "--path", path_};
        std::vector<char*> argv;
        for (auto& a : args) argv.push_back(a.data());
        argv.push_back(nullptr);

        int out[2];
        if (::pipe2(out, O_CLOEXEC) != 0) return false;
        const pid_t parent = ::getpid();
        pid_t pid = ::fork();
        if (pid < 0) {
            ::close(out[0]);
            ::close(out[1]);
            return false;
        }
        if (pid == 0) {
            // Only async-signal-safe calls between fork and exec.
            ::prctl(PR_SET_PDEATHSIG, SIGKILL);
            if (::getppid() != parent) ::_exit(127);  // parent already gone
            sigset_t none;
            ::sigemptyset(&none);
            ::sigprocmask(SIG_SETMASK, &none, nullptr);  // the camera must see SIGTERM
            if (out[1] == STDOUT_FILENO) {
                ::fcntl(out[1], F_SETFD, 0);  // stdout was closed: keep the pipe across exec
            } else {
                ::dup2(out[1], STDOUT_FILENO);
            }
            ::close_range(3, ~0U, 0);  // no listening socket of the test leaks in
            ::execv(argv[0], argv.data());
            ::_exit(127);
        }
        ::close(out[1]);
        pid_ = pid;

        std::string line;
        bool gotLine = readLine(out[0], timeout, line);
        ::close(out[0]);
        if (!gotLine || !parseUrl(line)) {
            stop(SIGKILL);
            return false;
        }
        return true;
    }

    // Sends `signal` (SIGTERM by default), waits up to `timeout` for the camera
    // to exit, then kills it. Returns the waitpid status, or -1 if none was running.
    int stop(int signal = SIGTERM, std::chrono::milliseconds timeout = std::chrono::seconds(5)) {
        if (pid_ <= 0) return -1;
        ::kill(pid_, signal);
        int status = 0;
        const auto deadline = std::chrono::steady_clock::now() + timeout;
        pid_t r;
        while ((r = ::waitpid(pid_, &status, WNOHANG)) == 0 &&
               std::chrono::steady_clock::now() < deadline) {
            std::this_thread::sleep_for(std::chrono::milliseconds(2));
        }
        if (r == 0) {
            ::kill(pid_, SIGKILL);
            while ((r = ::waitpid(pid_, &status, 0)) < 0 && errno == EINTR) {
            }
        }
        pid_ = -1;
        lastStatus_ = r == -1 ? -1 : status;
        return lastStatus_;
    }

    // True while the child has not exited (reaps it if it has).
    bool running() {
        if (pid_ <= 0) return false;
        int status = 0;
        if (::waitpid(pid_, &status, WNOHANG) == pid_) {
            pid_ = -1;
            lastStatus_ = status;
            return false;
        }
        return true;
    }

    // "rtsp://127.0.0.1:PORT/PATH" as the camera printed it; empty before the first start.
    const std::string& url() const { return url_; }
    // The port in use, or the one requested before the first start (0: pick one).
    int port() const { return port_; }
    pid_t pid() const { return pid_; }
    // waitpid status of the last camera that exited, -1 if unknown.
    int lastStatus() const { return lastStatus_; }

private:
    static bool readLine(int fd, std::chrono::milliseconds timeout, std::string& line) {
        const auto deadline = std::chrono::steady_clock::now() + timeout;
        for (;;) {
            auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
                deadline - std::chrono::steady_clock::now());
            if (left.count() <= 0) return false;
            pollfd p{fd, POLLIN, 0};
            int n = ::poll(&p, 1, static_cast<int>(left.count()));
            if (n < 0 && errno == EINTR) continue;
            if (n <= 0) return false;
            char buf[256];
            ssize_t got = ::read(fd, buf, sizeof buf);
            if (got < 0 && errno == EINTR) continue;
            if (got <= 0) return false;  // the camera exited before it was ready
            line.append(buf, static_cast<size_t>(got));
            if (auto nl = line.find('\n'); nl != std::string::npos) {
                line.resize(nl);
                return true;
            }
        }
    }

    bool parseUrl(const std::string& line) {
        static const std::string prefix = "rtsp://127.0.0.1:";
        if (line.rfind(prefix, 0) != 0) return false;
        std::size_t pos = prefix.size();
        int port = 0;
        while (pos < line.size() && line[pos] >= '0' && line[pos] <= '9') {
            port = port * 10 + (line[pos++] - '0');
        }
        if (port <= 0 || port > 65535 || line.compare(pos, std::string::npos, path_) != 0) {
            return false;
        }
        port_ = port;
        url_ = line;
        return true;
    }

    int port_;
    std::string size_;
    int fps_;
    std::string path_;
    std::string url_;
    pid_t pid_ = -1;
    int lastStatus_ = -1;
};
