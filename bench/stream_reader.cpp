// bench-stream-reader: the measuring end of the end-to-end benchmark. Reads
// MJPEG streams, parses every part strictly, and reports what one window of
// time delivered, as key=value lines on stdout.
//
//   bench-stream-reader --port P [--clients N] [OPTIONS]
//       N stream connections ("GET / HTTP/1.1") to the video server on 127.0.0.1:P.
//   bench-stream-reader --stdin [OPTIONS]
//       ffmpeg's mpjpeg output on standard input (a pipe), as one client.
//
//   --warmup S     seconds after every client's first part before the window (3)
//   --window S     length of the measurement window in seconds (20)
//   --grace S      seconds of reading after the window, so that a frame of the
//                  window reaching one client late is not counted missing (1)
//   --watch-pid P  also report process P's CPU time over the window and its
//                  peak resident size (VmHWM) at the window's end
//   --timeout S    limit for connecting and for every client's first part (30)
//
// Frames are told apart by a hash of their JPEG bytes. A frame belongs to the
// window when its first copy, at any client, arrives in it. Each frame's
// capture time comes from the test camera's stamp in the picture (--stamp),
// read from one copy per frame by a second thread so that decoding does not
// delay the reading; the delay of every copy is the arrival of its last byte
// (the return of the read that completed it) minus that capture time.
//
// A malformed part, a closed connection or a time-out ends the program with
// status 1 and a message on stderr.
#include <arpa/inet.h>
#include <fcntl.h>
#include <getopt.h>
#include <netinet/in.h>
#include <sys/epoll.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <condition_variable>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <fstream>
#include <memory>
#include <mutex>
#include <optional>
#include <sstream>
#include <string>
#include <thread>
#include <unordered_map>
#include <unordered_set>
#include <vector>

#include <opencv2/core.hpp>
#include <opencv2/imgcodecs.hpp>

#include "mjpeg_parts.h"
#include "stamp.h"

namespace {

constexpr std::size_t kReadChunk = 256 * 1024;
constexpr int kMaxConnecting = 4;  // the server's listen backlog is small
constexpr std::int64_t kRetryMicros = 50000;

struct Options {
    bool fromStdin = false;
    int port = 0;
    int clients = 1;
    double warmup = 3;
    double window = 20;
    double grace = 1;
    pid_t watchPid = 0;
    double timeout = 30;
};

[[noreturn]] void die(const std::string& message) {
    std::fprintf(stderr, "bench-stream-reader: %s\n", message.c_str());
    std::exit(1);
}

std::int64_t nowMicros() {
    timespec ts;
    clock_gettime(CLOCK_REALTIME, &ts);
    return std::int64_t{ts.tv_sec} * 1000000 + ts.tv_nsec / 1000;
}

std::int64_t seconds(double s) { return static_cast<std::int64_t>(s * 1e6); }

// FNV-1a over 64-bit words (then the tail bytes), fast enough for every byte
// of fifty streams.
std::uint64_t hashBytes(std::string_view bytes) {
    constexpr std::uint64_t kPrime = 0x100000001b3;
    std::uint64_t h = 0xcbf29ce484222325 ^ bytes.size();
    std::size_t i = 0;
    for (; i + 8 <= bytes.size(); i += 8) {
        std::uint64_t word;
        std::memcpy(&word, bytes.data() + i, 8);
        h = (h ^ word) * kPrime;
    }
    for (; i < bytes.size(); ++i) h = (h ^ static_cast<unsigned char>(bytes[i])) * kPrime;
    return h;
}

// utime + stime of a process, in seconds; nothing if it is gone.
std::optional<double> cpuSeconds(pid_t pid) {
    std::ifstream in("/proc/" + std::to_string(pid) + "/stat");
    std::string stat((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    const std::size_t paren = stat.rfind(')');
    if (paren == std::string::npos) return std::nullopt;
    std::istringstream fields(stat.substr(paren + 2));
    std::string field;
    unsigned long long utime = 0, stime = 0;
    // Fields from the state (third) on; utime and stime are the 14th and 15th.
    for (int i = 3; i <= 15 && (fields >> field); ++i) {
        if (i == 14) utime = std::stoull(field);
        if (i == 15) stime = std::stoull(field);
    }
    return static_cast<double>(utime + stime) / static_cast<double>(sysconf(_SC_CLK_TCK));
}

long peakRssKiB(pid_t pid) {
    std::ifstream in("/proc/" + std::to_string(pid) + "/status");
    for (std::string line; std::getline(in, line);) {
        if (line.rfind("VmHWM:", 0) == 0) return std::strtol(line.c_str() + 6, nullptr, 10);
    }
    return -1;
}

double ownCpuSeconds() {
    rusage u;
    getrusage(RUSAGE_SELF, &u);
    return static_cast<double>(u.ru_utime.tv_sec + u.ru_stime.tv_sec) +
           static_cast<double>(u.ru_utime.tv_usec + u.ru_stime.tv_usec) / 1e6;
}

// Reads capture stamps on its own thread; frames queue up to a bound, beyond
// which they are skipped (counted), so a slow decode never stalls reading.
class StampReader {
public:
    StampReader() : thread_([this] { run(); }) {}
    ~StampReader() { finish(); }

    void submit(std::uint64_t hash, std::string_view jpeg, std::int64_t arrival) {
        std::lock_guard lock(mutex_);
        if (jobs_.size() >= kMaxQueued) {
            ++skipped_;
            return;
        }
        jobs_.push_back({hash, std::string(jpeg), arrival});
        wake_.notify_one();
    }

    // Waits for the queued frames, then stops the thread.
    void finish() {
        {
            std::lock_guard lock(mutex_);
            done_ = true;
            wake_.notify_one();
        }
        if (thread_.joinable()) thread_.join();
    }

    // Valid after finish().
    const std::unordered_map<std::uint64_t, std::int64_t>& stamps() const { return stamps_; }
    int unreadable() const { return unreadable_; }
    int skipped() const { return skipped_; }

private:
    static constexpr std::size_t kMaxQueued = 120;

    struct Job {
        std::uint64_t hash;
        std::string jpeg;
        std::int64_t arrival;
    };

    void run() {
        for (;;) {
            Job job;
            {
                std::unique_lock lock(mutex_);
                wake_.wait(lock, [this] { return done_ || !jobs_.empty(); });
                if (jobs_.empty()) return;
                job = std::move(jobs_.front());
                jobs_.pop_front();
            }
            // The reduced grey decode does a fraction of the full decode's
            // work and keeps the blocks many pixels wide.
            cv::Mat grey;
            try {
                grey = cv::imdecode(cv::Mat(1, static_cast<int>(job.jpeg.size()), CV_8UC1, job.jpeg.data()),
                                    cv::IMREAD_REDUCED_GRAYSCALE_2);
            } catch (const cv::Exception&) {
                grey.release();
            }
            std::optional<std::int64_t> t;
            if (!grey.empty()) t = stamp::read(grey.data, grey.step, grey.cols, grey.rows, job.arrival);
            std::lock_guard lock(mutex_);
            if (t) stamps_[job.hash] = *t;
            else ++unreadable_;
        }
    }

    std::mutex mutex_;
    std::condition_variable wake_;
    std::deque<Job> jobs_;
    bool done_ = false;
    std::unordered_map<std::uint64_t, std::int64_t> stamps_;
    int unreadable_ = 0;
    int skipped_ = 0;
    std::thread thread_;
};

struct Arrival {
    std::int64_t at;  // microseconds since the epoch
    std::uint64_t hash;
    std::uint32_t client;
    std::uint32_t partBytes;
};

struct Frame {
    std::int64_t firstArrival;
    std::uint32_t order;  // rank by first arrival
    std::uint32_t jpegBytes;
};

struct Client {
    enum class State { idle, connecting, reading };
    explicit Client(StreamFormat f) : parser(f) {}
    int fd = -1;
    State state = State::idle;
    std::int64_t retryAt = 0;
    bool headerSeen = false;
    bool firstPart = false;
    PartParser parser;
};

class Reader {
public:
    explicit Reader(const Options& o) : opt_(o) {
        epoll_ = epoll_create1(EPOLL_CLOEXEC);
        if (epoll_ < 0) die(std::string("epoll_create1: ") + std::strerror(errno));
        const StreamFormat format = o.fromStdin ? StreamFormat::ffmpeg : StreamFormat::server;
        for (int i = 0; i < (o.fromStdin ? 1 : o.clients); ++i) {
            clients_.push_back(std::make_unique<Client>(format));
        }
        if (o.fromStdin) {
            Client& c = *clients_[0];
            c.fd = STDIN_FILENO;
            fcntl(c.fd, F_SETFL, fcntl(c.fd, F_GETFL) | O_NONBLOCK);
            watch(0, EPOLLIN);
            c.state = Client::State::reading;
            c.headerSeen = true;
        }
    }

    void run() {
        const std::int64_t startDeadline = nowMicros() + seconds(opt_.timeout);
        epoll_event events[64];
        for (;;) {
            const std::int64_t now = nowMicros();
            if (!started_) {
                if (now > startDeadline) {
                    die("not every client had a part after " + std::to_string(opt_.timeout) +
                        " s (" + std::to_string(firstParts_) + " of " +
                        std::to_string(clients_.size()) + ")");
                }
                launchConnections(now);
            } else {
                if (!windowOpen_ && now >= windowStart_) openWindow();
                if (!windowClosed_ && now >= windowEnd_) closeWindow();
                if (now >= graceEnd_) break;
            }
            const int n = epoll_wait(epoll_, events, 64, waitMillis(now));
            if (n < 0 && errno != EINTR) die(std::string("epoll_wait: ") + std::strerror(errno));
            for (int i = 0; i < n; ++i) {
                Client& c = *clients_[events[i].data.u32];
                if (c.state == Client::State::connecting) connected(events[i].data.u32);
                else readFrom(events[i].data.u32);
            }
        }
        stamps_.finish();
        report();
    }

private:
    void watch(std::uint32_t index, std::uint32_t events) {
        epoll_event ev{};
        ev.events = events;
        ev.data.u32 = index;
        if (epoll_ctl(epoll_, EPOLL_CTL_ADD, clients_[index]->fd, &ev) != 0 &&
            epoll_ctl(epoll_, EPOLL_CTL_MOD, clients_[index]->fd, &ev) != 0) {
            die(std::string("epoll_ctl: ") + std::strerror(errno));
        }
    }

    // Few connections at a time: the server accepts one per loop pass, and
    // a connection beyond its backlog would wait for a SYN retransmission.
    void launchConnections(std::int64_t now) {
        int pending = 0;
        for (auto& c : clients_) {
            if (c->state == Client::State::connecting ||
                (c->state == Client::State::reading && !c->headerSeen)) {
                ++pending;
            }
        }
        for (std::uint32_t i = 0; i < clients_.size() && pending < kMaxConnecting; ++i) {
            Client& c = *clients_[i];
            if (c.state != Client::State::idle || c.retryAt > now) continue;
            c.fd = socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
            if (c.fd < 0) die(std::string("socket: ") + std::strerror(errno));
            sockaddr_in addr{};
            addr.sin_family = AF_INET;
            addr.sin_port = htons(static_cast<std::uint16_t>(opt_.port));
            addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
            if (connect(c.fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0 &&
                errno != EINPROGRESS) {
                if (errno != ECONNREFUSED) die(std::string("connect: ") + std::strerror(errno));
                close(c.fd);
                c.fd = -1;
                c.retryAt = now + kRetryMicros;  // not listening yet
                continue;
            }
            c.state = Client::State::connecting;
            watch(i, EPOLLOUT);
            ++pending;
        }
    }

    void connected(std::uint32_t index) {
        Client& c = *clients_[index];
        int err = 0;
        socklen_t len = sizeof err;
        getsockopt(c.fd, SOL_SOCKET, SO_ERROR, &err, &len);
        if (err != 0) {
            if (err != ECONNREFUSED) die(std::string("connect: ") + std::strerror(err));
            epoll_ctl(epoll_, EPOLL_CTL_DEL, c.fd, nullptr);
            close(c.fd);
            c.fd = -1;
            c.state = Client::State::idle;
            c.retryAt = nowMicros() + kRetryMicros;
            return;
        }
        const std::string request = "GET / HTTP/1.1\r\nHost: 127.0.0.1:" + std::to_string(opt_.port) + "\r\n\r\n";
        if (send(c.fd, request.data(), request.size(), MSG_NOSIGNAL) != static_cast<ssize_t>(request.size())) {
            die(std::string("sending the request: ") + std::strerror(errno));
        }
        c.state = Client::State::reading;
        watch(index, EPOLLIN);
    }

    void readFrom(std::uint32_t index) {
        Client& c = *clients_[index];
        const ssize_t n = read(c.fd, c.parser.space(kReadChunk), kReadChunk);
        if (n < 0) {
            if (errno == EAGAIN || errno == EINTR) return;
            die("client " + std::to_string(index) + ": " + std::strerror(errno));
        }
        if (n == 0) {
            die("client " + std::to_string(index) + ": end of stream after " +
                std::to_string(c.parser.parts()) + " parts");
        }
        const std::int64_t at = nowMicros();
        c.parser.commit(static_cast<std::size_t>(n));
        std::string_view jpeg;
        std::size_t partBytes = 0;
        PartParser::Result r;
        while ((r = c.parser.next(jpeg, partBytes)) == PartParser::Result::part) {
            onPart(index, jpeg, partBytes, at);
        }
        if (r == PartParser::Result::error) {
            die("client " + std::to_string(index) + ": malformed stream: " + c.parser.error());
        }
        // The header shows the server took the client in.
        if (c.parser.headerDone()) c.headerSeen = true;
    }

    void onPart(std::uint32_t index, std::string_view jpeg, std::size_t partBytes, std::int64_t at) {
        Client& c = *clients_[index];
        if (!c.firstPart) {
            c.firstPart = true;
            if (++firstParts_ == static_cast<int>(clients_.size())) {
                started_ = true;
                windowStart_ = at + seconds(opt_.warmup);
                windowEnd_ = windowStart_ + seconds(opt_.window);
                graceEnd_ = windowEnd_ + seconds(opt_.grace);
            }
        }
        const std::uint64_t hash = hashBytes(jpeg);
        auto [it, fresh] = frames_.try_emplace(
            hash, Frame{at, static_cast<std::uint32_t>(frames_.size()), static_cast<std::uint32_t>(jpeg.size())});
        if (fresh && windowOpen_ && !windowClosed_) stamps_.submit(hash, jpeg, at);
        arrivals_.push_back({at, hash, index, static_cast<std::uint32_t>(partBytes)});
    }

    int waitMillis(std::int64_t now) const {
        std::int64_t next = now + 100000;
        if (started_) {
            for (std::int64_t t : {windowStart_, windowEnd_, graceEnd_}) {
                if (t > now) next = std::min(next, t);
            }
        } else {
            next = std::min(next, now + 10000);  // connection retries
        }
        return static_cast<int>(std::max<std::int64_t>(0, (next - now + 999) / 1000));
    }

    void openWindow() {
        windowOpen_ = true;
        windowStart_ = nowMicros();
        windowEnd_ = windowStart_ + seconds(opt_.window);
        graceEnd_ = windowEnd_ + seconds(opt_.grace);
        ownCpuStart_ = ownCpuSeconds();
        if (opt_.watchPid > 0) {
            auto cpu = cpuSeconds(opt_.watchPid);
            if (!cpu) die("process " + std::to_string(opt_.watchPid) + " is gone");
            watchedCpuStart_ = *cpu;
        }
    }

    void closeWindow() {
        windowClosed_ = true;
        windowEnd_ = nowMicros();
        graceEnd_ = windowEnd_ + seconds(opt_.grace);
        ownCpu_ = ownCpuSeconds() - ownCpuStart_;
        if (opt_.watchPid > 0) {
            auto cpu = cpuSeconds(opt_.watchPid);
            if (!cpu) die("process " + std::to_string(opt_.watchPid) + " is gone");
            watchedCpu_ = *cpu - watchedCpuStart_;
            watchedPeakKiB_ = peakRssKiB(opt_.watchPid);
        }
    }

    bool inWindow(std::int64_t t) const { return t >= windowStart_ && t < windowEnd_; }

    static double percentile(std::vector<double> v, double p) {
        if (v.empty()) return NAN;
        std::sort(v.begin(), v.end());
        const std::size_t rank = static_cast<std::size_t>(std::ceil(p * static_cast<double>(v.size())));
        return v[std::clamp<std::size_t>(rank, 1, v.size()) - 1];
    }

    void report() {
        const double windowSeconds = static_cast<double>(windowEnd_ - windowStart_) / 1e6;
        const std::size_t n = clients_.size();

        // Frames of the window: first copy arrived in it.
        std::unordered_set<std::uint64_t> windowFrames;
        std::uint64_t jpegBytes = 0;
        for (const auto& [hash, f] : frames_) {
            if (inWindow(f.firstArrival)) {
                windowFrames.insert(hash);
                jpegBytes += f.jpegBytes;
            }
        }

        std::vector<std::unordered_set<std::uint64_t>> received(n);
        std::vector<double> partsInWindow(n, 0);
        std::vector<std::int64_t> lastOrder(n, -1);
        std::vector<double> delaysMs;
        std::uint64_t partBytes = 0, windowParts = 0;
        long duplicates = 0, outOfOrder = 0;
        const auto& stamps = stamps_.stamps();
        for (const Arrival& a : arrivals_) {
            if (!received[a.client].insert(a.hash).second) ++duplicates;
            const std::int64_t order = frames_.at(a.hash).order;
            if (order < lastOrder[a.client]) ++outOfOrder;
            lastOrder[a.client] = std::max(lastOrder[a.client], order);
            if (!inWindow(a.at)) continue;
            ++partsInWindow[a.client];
            ++windowParts;
            partBytes += a.partBytes;
            if (auto s = stamps.find(a.hash); s != stamps.end()) {
                delaysMs.push_back(static_cast<double>(a.at - s->second) / 1000.0);
            }
        }
        long missing = 0;
        int clientsWithGaps = 0;
        for (std::size_t c = 0; c < n; ++c) {
            long gaps = 0;
            for (std::uint64_t h : windowFrames) gaps += received[c].count(h) == 0;
            missing += gaps;
            clientsWithGaps += gaps > 0;
        }
        std::vector<double> fps(n);
        for (std::size_t c = 0; c < n; ++c) fps[c] = partsInWindow[c] / windowSeconds;

        const double frames = static_cast<double>(windowFrames.size());
        std::printf("source=%s\n", opt_.fromStdin ? "stdin" : "server");
        std::printf("clients=%zu\n", n);
        std::printf("window_s=%.3f\n", windowSeconds);
        std::printf("fps_min=%.2f\n", percentile(fps, 0.0));
        std::printf("fps_median=%.2f\n", percentile(fps, 0.5));
        std::printf("fps_max=%.2f\n", percentile(fps, 1.0));
        std::printf("frames=%zu\n", windowFrames.size());
        std::printf("frames_per_s=%.2f\n", frames / windowSeconds);
        std::printf("missing=%ld\n", missing);
        std::printf("clients_with_gaps=%d\n", clientsWithGaps);
        std::printf("duplicates=%ld\n", duplicates);
        std::printf("out_of_order=%ld\n", outOfOrder);
        std::printf("part_bytes=%.0f\n", windowParts ? double(partBytes) / double(windowParts) : NAN);
        std::printf("jpeg_bytes=%.0f\n", frames > 0 ? double(jpegBytes) / frames : NAN);
        std::printf("stamps_read=%zu\n", stamps.size());
        std::printf("stamps_unreadable=%d\n", stamps_.unreadable());
        std::printf("stamps_skipped=%d\n", stamps_.skipped());
        std::printf("delay_ms_median=%.1f\n", percentile(delaysMs, 0.5));
        std::printf("delay_ms_p99=%.1f\n", percentile(delaysMs, 0.99));
        std::printf("delay_ms_max=%.1f\n", percentile(delaysMs, 1.0));
        if (opt_.watchPid > 0) {
            std::printf("cpu_s=%.2f\n", watchedCpu_);
            std::printf("cpu_ms_per_frame=%.2f\n", frames > 0 ? watchedCpu_ * 1000.0 / frames : NAN);
            std::printf("vmhwm_kib=%ld\n", watchedPeakKiB_);
        }
        std::printf("reader_cpu_s=%.2f\n", ownCpu_);
        std::fflush(stdout);
    }

    Options opt_;
    int epoll_ = -1;
    std::vector<std::unique_ptr<Client>> clients_;
    int firstParts_ = 0;
    bool started_ = false;
    bool windowOpen_ = false;
    bool windowClosed_ = false;
    std::int64_t windowStart_ = 0, windowEnd_ = 0, graceEnd_ = 0;
    double ownCpuStart_ = 0, ownCpu_ = 0;
    double watchedCpuStart_ = 0, watchedCpu_ = 0;
    long watchedPeakKiB_ = -1;
    std::unordered_map<std::uint64_t, Frame> frames_;
    std::vector<Arrival> arrivals_;
    StampReader stamps_;
};

void usage(FILE* out) {
    std::fprintf(out,
                 "usage: bench-stream-reader (--port P [--clients N] | --stdin)\n"
                 "         [--warmup S] [--window S] [--grace S] [--watch-pid PID] [--timeout S]\n");
}

bool parseNumber(const char* text, double lo, double hi, double& out) {
    char* end = nullptr;
    const double v = std::strtod(text, &end);
    if (end == text || *end != '\0' || !(v >= lo && v <= hi)) return false;
    out = v;
    return true;
}

Options parseOptions(int argc, char** argv) {
    static const option longOpts[] = {
        {"port", required_argument, nullptr, 'p'},   {"clients", required_argument, nullptr, 'n'},
        {"stdin", no_argument, nullptr, 'i'},        {"warmup", required_argument, nullptr, 'w'},
        {"window", required_argument, nullptr, 's'}, {"grace", required_argument, nullptr, 'g'},
        {"watch-pid", required_argument, nullptr, 'P'}, {"timeout", required_argument, nullptr, 't'},
        {"help", no_argument, nullptr, 'h'},         {nullptr, 0, nullptr, 0},
    };
    Options o;
    double v = 0;
    for (int c; (c = getopt_long(argc, argv, "", longOpts, nullptr)) != -1;) {
        bool ok = true;
        switch (c) {
            case 'p': ok = parseNumber(optarg, 1, 65535, v); o.port = static_cast<int>(v); break;
            case 'n': ok = parseNumber(optarg, 1, 1000, v); o.clients = static_cast<int>(v); break;
            case 'i': o.fromStdin = true; break;
            case 'w': ok = parseNumber(optarg, 0, 3600, o.warmup); break;
            case 's': ok = parseNumber(optarg, 0.1, 3600, o.window); break;
            case 'g': ok = parseNumber(optarg, 0, 60, o.grace); break;
            case 'P': ok = parseNumber(optarg, 1, 4194304, v); o.watchPid = static_cast<pid_t>(v); break;
            case 't': ok = parseNumber(optarg, 1, 3600, o.timeout); break;
            case 'h': usage(stdout); std::exit(0);
            default: usage(stderr); std::exit(2);
        }
        if (!ok) {
            std::fprintf(stderr, "bench-stream-reader: bad value: %s\n", optarg);
            std::exit(2);
        }
    }
    if (optind < argc || o.fromStdin == (o.port != 0)) {
        usage(stderr);
        std::exit(2);
    }
    return o;
}

}  // namespace

int main(int argc, char** argv) {
    const Options opt = parseOptions(argc, argv);
    Reader reader(opt);
    reader.run();
    return 0;
}
