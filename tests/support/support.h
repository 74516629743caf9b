// What the tests share: temporary files, the event log, child processes (the
// bundled test camera and the real server), a loopback client and a strict
// parser of the server's MJPEG stream.
#pragma once

#include <sys/types.h>

#include <csignal>

#include <chrono>
#include <cstddef>
#include <filesystem>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

#include "rate_source.h"

namespace support {

using namespace std::chrono_literals;
using Millis = std::chrono::milliseconds;

// The server's fixed paths; private to the test inside tests/support/isolate.
inline constexpr const char* kLogPath = "/media/usb99/stream.log";
inline constexpr const char* kFifoPath = "/var/run/tbx/api.fifo";
inline constexpr const char* kOverlayPath = "/tmp/overlays.json";

// The stream response header, written out here independently of the server.
extern const std::string kStreamHeader;

// A fresh directory under $TMPDIR, removed with its content.
class TempDir {
public:
    TempDir();
    ~TempDir();
    const std::filesystem::path& path() const { return path_; }
    std::string file(const std::string& name) const { return (path_ / name).string(); }

private:
    std::filesystem::path path_;
};

std::string readFile(const std::string& path);
// Writes `text`; a non-zero `mtime` then sets the modification time (seconds).
void writeFile(const std::string& path, const std::string& text, time_t mtime = 0);
// Polls `condition` every 5 ms until it holds or `timeout` passes.
bool waitFor(const std::function<bool()>& condition, Millis timeout = 10s);
// Event-log lines without their 27-character time stamp.
std::vector<std::string> logMessages(const std::string& path = kLogPath);
int countLines(const std::string& path, const std::string& message);
// A loopback port that was free a moment ago.
int freeLoopbackPort();

// A child process that dies with the thread that started it.
class Process {
public:
    Process() = default;
    ~Process();
    Process(const Process&) = delete;
    Process& operator=(const Process&) = delete;
    // Standard output and error go to files; empty paths keep the test's.
    bool start(const std::vector<std::string>& argv, const std::string& outPath = "",
               const std::string& errPath = "");
    void signal(int sig) const;
    // The exit status, or -1 when a signal ended it or it outlived `timeout`
    // (it is then killed).
    int waitExit(Millis timeout = 15s);
    bool running();
    pid_t pid() const { return pid_; }

private:
    pid_t pid_ = -1;
};

// The bundled test camera on 127.0.0.1. The first start picks a free port;
// later starts reuse it, so a camera can go away and come back at one URL.
class TestCamera {
public:
    explicit TestCamera(std::string size = "640x360", std::vector<std::string> extraArgs = {});
    bool start();
    int stop(int sig = SIGTERM);
    const std::string& url() const { return url_; }
    int port() const { return port_; }
    std::string testUrl() const { return "127.0.0.1:" + std::to_string(port_); }
    pid_t pid() const { return process_.pid(); }

private:
    std::vector<std::string> args_;
    TempDir dir_;
    Process process_;
    std::string url_;
    int port_ = 0;
};

// The real video-server with `args`; its console output goes to files.
class ServerProcess {
public:
    explicit ServerProcess(std::vector<std::string> args) : args_(std::move(args)) {}
    void start();
    bool waitUntilServing(Millis timeout = 20s);
    void signal(int sig) const { process_.signal(sig); }
    int waitExit(Millis timeout = 15s) { return process_.waitExit(timeout); }
    pid_t pid() const { return process_.pid(); }
    std::string out() const { return readFile(dir_.file("out")); }
    std::string err() const { return readFile(dir_.file("err")); }

private:
    std::vector<std::string> args_;
    TempDir dir_;
    Process process_;
};

// A blocking TCP client of 127.0.0.1:port that reads with deadlines.
class LoopbackClient {
public:
    explicit LoopbackClient(int port);
    ~LoopbackClient();
    LoopbackClient(const LoopbackClient&) = delete;
    LoopbackClient& operator=(const LoopbackClient&) = delete;
    bool connected() const { return connected_; }
    int fd() const { return fd_; }
    void sendText(std::string_view text) const;
    // Reads until `total` bytes are in, the peer closes or time runs out.
    const std::string& readAtLeast(size_t total, Millis timeout = 10s);
    const std::string& readFor(Millis window);
    bool readToEof(Millis timeout = 10s);
    const std::string& data() const { return data_; }
    bool eof() const { return eof_; }

private:
    int fd_ = -1;
    bool connected_ = false;
    bool eof_ = false;
    std::string data_;
};

enum class StreamFormat { server, ffmpeg };

// Strict, incremental parser of an MJPEG stream: the server's (its exact
// stream header, then "--frame" parts back to back) or the output of
// ffmpeg's mpjpeg muxer. Anything else, a malformed length or a payload that
// is not one JPEG (FF D8 ... FF D9) fails it for good.
class PartParser {
public:
    enum class Result { needMore, part, error };
    explicit PartParser(StreamFormat format = StreamFormat::server) : format_(format) {}
    // Room for `want` more bytes; fill some, then commit() them.
    char* space(size_t want);
    void commit(size_t n) { end_ += n; }
    void append(std::string_view bytes);
    // The next complete part; `jpeg` stays valid until the next space().
    Result next(std::string_view& jpeg, size_t& partBytes);
    // Every complete part's JPEG in `bytes`; false if the stream is malformed.
    static bool split(std::string_view bytes, std::vector<std::string>& jpegs);
    bool failed() const { return !error_.empty(); }
    const std::string& error() const { return error_; }
    size_t parts() const { return parts_; }

private:
    Result expect(std::string_view in, size_t& at, std::string_view text);
    Result fail(std::string why);

    StreamFormat format_;
    std::vector<char> buf_;
    size_t begin_ = 0, end_ = 0, parts_ = 0;
    bool started_ = false;
    std::string error_;
};

class FakeRates : public RateSource {
public:
    double queueRate() const override { return queue; }
    double dequeueRate() const override { return dequeue; }
    double queue = 0, dequeue = 0;
};

}  // namespace support
