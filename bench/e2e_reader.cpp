// bench-e2e-reader: the measuring end of bench/e2e. Reads MJPEG for one
// window of time and prints what it delivered as key=value lines.
//
//   bench-e2e-reader --port P [--clients N] --pid PID [--warmup S] [--window S]
//       N stream clients of the video server on 127.0.0.1:P; every part is
//       parsed strictly and frames are told apart by a hash of their bytes.
//   bench-e2e-reader --stdin --pid PID [--warmup S] [--window S]
//       another program's multipart JPEG output on standard input (ffmpeg's
//       mpjpeg, GStreamer's multipartmux): a part is counted where a header
//       block ends and a JPEG starts.
//
// The window starts --warmup seconds (3) after every client's first frame
// and lasts --window seconds (20). Printed: frames (distinct frames of the
// window), fps, cpu_ms_per_frame (process PID's utime + stime over the
// window, per frame), part_bytes (JPEG bytes per frame), missing (frames
// of the window some client never got, counted per client, after one more
// second of reading) and vmhwm_kib (PID's peak resident size). Exits 1 with
// a message when a part is malformed, a stream ends or nothing comes.
#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <functional>
#include <sstream>
#include <string>
#include <string_view>
#include <unordered_map>
#include <unordered_set>
#include <vector>

#include "part_parser.h"

namespace {

using Clock = std::chrono::steady_clock;

[[noreturn]] void die(const std::string& why) {
    std::fprintf(stderr, "bench-e2e-reader: %s\n", why.c_str());
    std::exit(1);
}

double cpuSeconds(long pid) {
    std::ifstream in("/proc/" + std::to_string(pid) + "/stat");
    std::string stat((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    std::istringstream fields(stat.substr(stat.rfind(')') + 2));
    std::string skip;
    for (int i = 3; i < 14; ++i) fields >> skip;  // fields 3-13
    double utime = 0, stime = 0;
    fields >> utime >> stime;
    return (utime + stime) / static_cast<double>(sysconf(_SC_CLK_TCK));
}

long vmHwmKib(long pid) {
    std::ifstream in("/proc/" + std::to_string(pid) + "/status");
    for (std::string line; std::getline(in, line);) {
        if (line.rfind("VmHWM:", 0) == 0) return std::atol(line.c_str() + 6);
    }
    return -1;
}

// A non-blocking connection attempt to the server; -1 if none could start.
int startConnect(int port) {
    const sockaddr_in addr = loopback(port);
    const int fd = socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK, 0);
    if (fd >= 0 && connect(fd, reinterpret_cast<const sockaddr*>(&addr), sizeof addr) != 0 &&
        errno != EINPROGRESS) {
        close(fd);
        return -1;
    }
    return fd;
}

// Whether a connection that became writable reached the server: not
// refused (not listening yet) and not met with itself (a connect to a port
// nobody listens on can pick that port as its own).
bool reachedServer(int fd, int port) {
    int error = 0;
    socklen_t length = sizeof error;
    sockaddr_in local{};
    socklen_t localLength = sizeof local;
    return getsockopt(fd, SOL_SOCKET, SO_ERROR, &error, &length) == 0 && error == 0 &&
           getsockname(fd, reinterpret_cast<sockaddr*>(&local), &localLength) == 0 &&
           ntohs(local.sin_port) != port;
}

struct Stream {
    int fd = -1;
    bool requested = false;  // connected and the request sent
    PartParser parser;
    std::string tail;  // last bytes of the previous read (--stdin)
    std::unordered_set<std::size_t> seen;
    bool started = false;
};

}  // namespace

int main(int argc, char** argv) {
    int port = 0, clients = 1;
    long pid = 0;
    double warmup = 3, window = 20;
    bool fromStdin = false;
    for (int i = 1; i < argc; ++i) {
        const std::string arg = argv[i];
        auto value = [&] {
            return i + 1 < argc ? argv[++i] : (die("missing value for " + arg), "");
        };
        if (arg == "--port")
            port = std::atoi(value());
        else if (arg == "--clients")
            clients = std::atoi(value());
        else if (arg == "--pid")
            pid = std::atol(value());
        else if (arg == "--warmup")
            warmup = std::atof(value());
        else if (arg == "--window")
            window = std::atof(value());
        else if (arg == "--stdin")
            fromStdin = true;
        else
            die("unknown option " + arg);
    }
    if (pid <= 0 || clients < 1 || (!fromStdin && port <= 0))
        die("need --pid and --port or --stdin");

    // Clients connect while the others are read: the server accepts one
    // client per frame and blocks sending to a client that does not read.
    std::vector<Stream> streams(fromStdin ? 1 : static_cast<std::size_t>(clients));
    if (fromStdin) streams[0].fd = STDIN_FILENO, streams[0].requested = true;

    const auto seconds = [](double s) {
        return std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(s));
    };
    const auto deadline = Clock::now() + std::chrono::seconds(30);
    Clock::time_point windowStart = Clock::time_point::max(), windowEnd = windowStart;
    double cpuAtStart = 0, cpuAtEnd = 0;
    std::unordered_map<std::size_t, std::size_t> windowFrames;  // hash -> JPEG bytes
    std::size_t stdinFrames = 0, stdinBytes = 0;
    std::vector<pollfd> fds(streams.size());
    std::vector<char> chunk(256 * 1024);

    for (;;) {
        const auto now = Clock::now();
        if (windowStart == Clock::time_point::max()) {
            bool all = true;
            for (const Stream& s : streams) all = all && s.started;
            if (all) {
                windowStart = now + seconds(warmup);
                windowEnd = windowStart + seconds(window);
            } else if (now > deadline) {
                die("not every client got a frame within 30 s");
            }
        }
        if (now >= windowStart && cpuAtStart == 0) cpuAtStart = cpuSeconds(pid);
        if (now >= windowEnd && cpuAtEnd == 0) cpuAtEnd = cpuSeconds(pid);
        if (now >= windowEnd + std::chrono::seconds(1)) break;
        const bool inWindow = now >= windowStart && now < windowEnd;

        for (std::size_t i = 0; i < streams.size(); ++i) {
            Stream& s = streams[i];
            if (s.fd < 0) s.fd = startConnect(port);
            fds[i] = {s.fd, static_cast<short>(s.requested ? POLLIN : POLLOUT), 0};
        }
        if (poll(fds.data(), fds.size(), 100) < 0) die("poll failed");
        for (std::size_t i = 0; i < streams.size(); ++i) {
            if (fds[i].revents == 0) continue;
            Stream& s = streams[i];
            if (!s.requested) {
                const std::string request = "GET / HTTP/1.1\r\n\r\n";
                if (!reachedServer(s.fd, port) || write(s.fd, request.data(), request.size()) !=
                                                      static_cast<ssize_t>(request.size())) {
                    close(s.fd);
                    s.fd = -1;  // again in the next round
                } else {
                    s.requested = true;
                }
                continue;
            }
            if (fromStdin) {
                const ssize_t n = read(s.fd, chunk.data(), chunk.size());
                if (n <= 0) die("the stream ended");
                // A part starts where a header block ends and a JPEG begins.
                s.tail.append(chunk.data(), static_cast<std::size_t>(n));
                for (std::size_t at = 0;
                     (at = s.tail.find("\r\n\r\n\xff\xd8", at)) != std::string::npos; ++at) {
                    s.started = true;
                    if (inWindow) ++stdinFrames;
                }
                if (inWindow) stdinBytes += static_cast<std::size_t>(n);
                s.tail.erase(0, s.tail.size() > 5 ? s.tail.size() - 5 : 0);
                continue;
            }
            const ssize_t n = read(s.fd, chunk.data(), chunk.size());
            if (n < 0 && errno == EAGAIN) continue;
            if (n <= 0) die("client " + std::to_string(i) + ": the stream ended");
            s.parser.append(std::string(chunk.data(), static_cast<std::size_t>(n)));
            std::string jpeg;
            while (s.parser.next(jpeg)) {
                const std::size_t hash = std::hash<std::string>{}(jpeg);
                s.started = true;
                s.seen.insert(hash);
                if (inWindow) windowFrames.emplace(hash, jpeg.size());
            }
            if (s.parser.failed()) die("client " + std::to_string(i) + ": malformed part");
        }
    }

    std::size_t frames = fromStdin ? stdinFrames : windowFrames.size(), bytes = stdinBytes,
                missing = 0;
    for (const auto& [hash, size] : windowFrames) {
        bytes += size;
        for (const Stream& s : streams) missing += s.seen.count(hash) == 0 ? 1 : 0;
    }
    if (frames == 0) die("no frame in the window");
    std::printf(
        "frames=%zu\nfps=%.2f\ncpu_ms_per_frame=%.3f\npart_bytes=%.0f\nmissing=%zu\nvmhwm_kib=%"
        "ld\n",
        frames, static_cast<double>(frames) / window,
        (cpuAtEnd - cpuAtStart) * 1000.0 / static_cast<double>(frames),
        static_cast<double>(bytes) / static_cast<double>(frames), missing, vmHwmKib(pid));
    return 0;
}
