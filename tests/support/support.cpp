#include "support.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstring>
#include <fstream>
#include <sstream>
#include <thread>

namespace support {

const std::string kStreamHeader =
    "HTTP/1.0 200 OK\r\nAccept-Range: bytes\r\nConnection: close\r\nMax-Age: 0\r\n"
    "Expires: 0\r\nCache-Control: no-cache, private\r\nPragma: no-cache\r\n"
    "Content-Type: multipart/x-mixed-replace;boundary=frame\r\n\r\n";

TempDir::TempDir() {
    std::string name = (std::filesystem::temp_directory_path() / "vs-test-XXXXXX").string();
    path_ = mkdtemp(name.data());
}

TempDir::~TempDir() {
    std::error_code ignored;
    std::filesystem::remove_all(path_, ignored);
}

std::string readFile(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    std::ostringstream out;
    out << in.rdbuf();
    return out.str();
}

void writeFile(const std::string& path, const std::string& text, time_t mtime) {
    std::ofstream(path, std::ios::binary | std::ios::trunc) << text;
    const timespec times[2] = {{mtime, 0}, {mtime, 0}};
    if (mtime != 0) utimensat(AT_FDCWD, path.c_str(), times, 0);
}

bool waitFor(const std::function<bool()>& condition, Millis timeout) {
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    while (!condition()) {
        if (std::chrono::steady_clock::now() > deadline) return false;
        std::this_thread::sleep_for(5ms);
    }
    return true;
}

std::vector<std::string> logMessages(const std::string& path) {
    std::vector<std::string> messages;
    std::ifstream in(path);
    for (std::string line; std::getline(in, line);) messages.push_back(line.size() < 27 ? "" : line.substr(27));
    return messages;
}

int countLines(const std::string& path, const std::string& message) {
    int n = 0;
    for (const std::string& m : logMessages(path)) n += m == message;
    return n;
}

static sockaddr_in loopback(int port) {
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_port = htons(static_cast<uint16_t>(port));
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    return a;
}

int freeLoopbackPort() {
    const int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in a = loopback(0);
    socklen_t len = sizeof a;
    bind(fd, reinterpret_cast<sockaddr*>(&a), sizeof a);
    getsockname(fd, reinterpret_cast<sockaddr*>(&a), &len);
    close(fd);
    return ntohs(a.sin_port);
}

Process::~Process() {
    if (pid_ > 0) {
        kill(pid_, SIGKILL);
        waitpid(pid_, nullptr, 0);
    }
}

bool Process::start(const std::vector<std::string>& argv, const std::string& outPath,
                    const std::string& errPath) {
    std::vector<char*> args;
    for (const std::string& a : argv) args.push_back(const_cast<char*>(a.c_str()));
    args.push_back(nullptr);
    const pid_t parent = getpid();
    pid_ = fork();
    if (pid_ == 0) {
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        if (getppid() != parent) _exit(127);
        sigset_t none;
        sigemptyset(&none);
        sigprocmask(SIG_SETMASK, &none, nullptr);
        if (!outPath.empty()) dup2(open(outPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644), 1);
        if (!errPath.empty()) dup2(open(errPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644), 2);
        close_range(3, ~0U, 0);
        execv(args[0], args.data());
        _exit(127);
    }
    return pid_ > 0;
}

void Process::signal(int sig) const {
    if (pid_ > 0) kill(pid_, sig);
}

int Process::waitExit(Millis timeout) {
    if (pid_ <= 0) return -1;
    int status = 0;
    if (!waitFor([&] { return waitpid(pid_, &status, WNOHANG) == pid_; }, timeout)) {
        kill(pid_, SIGKILL);
        waitpid(pid_, &status, 0);
        status = -1;
    }
    pid_ = -1;
    return status != -1 && WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

bool Process::running() {
    int status = 0;
    if (pid_ > 0 && waitpid(pid_, &status, WNOHANG) == pid_) pid_ = -1;
    return pid_ > 0;
}

TestCamera::TestCamera(std::string size, std::vector<std::string> extraArgs)
    : args_{TEST_CAMERA_BIN, "--size", std::move(size)} {
    args_.insert(args_.end(), extraArgs.begin(), extraArgs.end());
}

bool TestCamera::start() {
    std::vector<std::string> argv = args_;
    argv.insert(argv.end(), {"--port", std::to_string(port_)});
    const std::string out = dir_.file("url");
    std::filesystem::remove(out);
    if (!process_.start(argv, out)) return false;
    // The camera prints its URL once clients can connect; the first start
    // on a fresh machine waits for GStreamer's plugin registry.
    const bool ready = waitFor([&] { return readFile(out).find('\n') != std::string::npos; }, 30s);
    url_ = readFile(out);
    url_ = url_.substr(0, url_.find('\n'));
    if (!ready || sscanf(url_.c_str(), "rtsp://127.0.0.1:%d/", &port_) != 1) {
        stop(SIGKILL);
        return false;
    }
    return true;
}

int TestCamera::stop(int sig) {
    process_.signal(sig);
    return process_.waitExit(5s);
}

void ServerProcess::start() {
    std::vector<std::string> argv{VIDEO_SERVER_BIN};
    argv.insert(argv.end(), args_.begin(), args_.end());
    process_.start(argv, dir_.file("out"), dir_.file("err"));
}

bool ServerProcess::waitUntilServing(Millis timeout) {
    return waitFor([] { return countLines(kLogPath, "Starting main loop") > 0; }, timeout);
}

LoopbackClient::LoopbackClient(int port) : fd_(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
    const sockaddr_in a = loopback(port);
    connected_ = connect(fd_, reinterpret_cast<const sockaddr*>(&a), sizeof a) == 0;
}

LoopbackClient::~LoopbackClient() { close(fd_); }

void LoopbackClient::sendText(std::string_view text) const {
    (void)send(fd_, text.data(), text.size(), MSG_NOSIGNAL);
}

const std::string& LoopbackClient::readAtLeast(size_t total, Millis timeout) {
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    while (data_.size() < total && !eof_) {
        const auto left = std::chrono::duration_cast<Millis>(deadline - std::chrono::steady_clock::now());
        pollfd p{fd_, POLLIN, 0};
        if (left.count() <= 0) break;
        if (poll(&p, 1, static_cast<int>(left.count())) <= 0) continue;
        char buffer[65536];
        const ssize_t n = recv(fd_, buffer, sizeof buffer, 0);
        if (n <= 0) eof_ = true;
        else data_.append(buffer, static_cast<size_t>(n));
    }
    return data_;
}

const std::string& LoopbackClient::readFor(Millis window) { return readAtLeast(SIZE_MAX, window); }

bool LoopbackClient::readToEof(Millis timeout) {
    readFor(timeout);
    return eof_;
}

char* PartParser::space(size_t want) {
    if (begin_ > 0) {
        std::memmove(buf_.data(), buf_.data() + begin_, end_ - begin_);
        end_ -= begin_;
        begin_ = 0;
    }
    if (buf_.size() < end_ + want) buf_.resize(end_ + want);
    return buf_.data() + end_;
}

void PartParser::append(std::string_view bytes) {
    if (bytes.empty()) return;
    std::memcpy(space(bytes.size()), bytes.data(), bytes.size());
    commit(bytes.size());
}

PartParser::Result PartParser::fail(std::string why) {
    error_ = "after " + std::to_string(parts_) + " parts: " + why;
    return Result::error;
}

PartParser::Result PartParser::expect(std::string_view in, size_t& at, std::string_view text) {
    const std::string_view have = in.substr(at, text.size());
    if (have != text.substr(0, have.size())) return fail("expected \"" + std::string(text) + "\"");
    if (have.size() < text.size()) return Result::needMore;
    at += text.size();
    return Result::part;
}

PartParser::Result PartParser::next(std::string_view& jpeg, size_t& partBytes) {
    if (failed()) return Result::error;
    const bool server = format_ == StreamFormat::server;
    const std::string_view in(buf_.data() + begin_, end_ - begin_);
    size_t at = 0;
    Result r = Result::part;
    if (!started_ && (r = expect(in, at, server ? std::string_view(kStreamHeader) : "--ffmpeg\r\n")) != Result::part) return r;
    if (!started_) {
        started_ = true;
        begin_ += at;
        return next(jpeg, partBytes);
    }
    if (!server && parts_ > 0 && (r = expect(in, at, "\r\n--ffmpeg\r\n")) != Result::part) return r;
    if ((r = expect(in, at, server ? "--frame\r\nContent-Type: image/jpg\r\nContent-Length: "
                                   : "Content-type: image/jpeg\r\nContent-length: ")) != Result::part) return r;
    const size_t digits = in.find_first_not_of("0123456789", at);
    if (digits == std::string_view::npos) return Result::needMore;
    if (digits == at || digits - at > 9 || (in[at] == '0' && digits - at > 1)) return fail("bad length");
    const size_t length = std::stoul(std::string(in.substr(at, digits - at)));
    at = digits;
    if ((r = expect(in, at, "\r\n\r\n")) != Result::part) return r;
    if (in.size() - at < length) return Result::needMore;
    jpeg = in.substr(at, length);
    if (length < 4 || jpeg.substr(0, 2) != "\xff\xd8" || jpeg.substr(length - 2) != "\xff\xd9") return fail("not one JPEG");
    partBytes = at + length;
    begin_ += partBytes;
    ++parts_;
    return Result::part;
}

bool PartParser::split(std::string_view bytes, std::vector<std::string>& jpegs) {
    PartParser parser;
    parser.append(bytes);
    std::string_view jpeg;
    size_t size = 0;
    Result r;
    while ((r = parser.next(jpeg, size)) == Result::part) jpegs.emplace_back(jpeg);
    return r != Result::error;
}

}  // namespace support
