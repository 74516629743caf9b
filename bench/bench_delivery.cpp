// How long a frame takes from its commit into the ring to the last byte of
// its part handed to the kernel for every client. The real parts: the
// bundled test camera, Camera (read thread, ring, composition), FrameServer,
// N stream clients on loopback that read as fast as they can, and the main
// loop as the server runs it.
//
//   build/bench-delivery [--size WxH] [--clients N] [--seconds S] [--runs K]
//                        [--overlays]
//
// Per frame served it records, on the ring's clock:
//   wait     commit -> taken by getImage
//   compose  taken -> JPEG ready (scale, overlays, encode)
//   send     JPEG ready -> sendFrame returned (every client's part queued)
//   total    commit -> sendFrame returned
// and prints, for each of K runs (default 3) of S seconds (default 10), the
// median, p99 and maximum of each in milliseconds and "total p99 - compose
// p99", the figure to hold against a few milliseconds; then the median of
// that figure over the runs.
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <string>
#include <thread>
#include <vector>

#include "camera.h"
#include "event_log.h"
#include "frame_server.h"
#include "settings.h"
#include "test_camera.h"

namespace {

struct Options {
    std::string size = "1920x1080";
    int clients = 10;
    int seconds = 10;
    int runs = 3;
    bool overlays = false;
};

[[noreturn]] void usage() {
    std::fprintf(stderr,
                 "usage: bench-delivery [--size WxH] [--clients N] [--seconds S] [--runs K] "
                 "[--overlays]\n");
    std::exit(2);
}

Options parse(int argc, char** argv) {
    Options o;
    for (int i = 1; i < argc; ++i) {
        const std::string arg = argv[i];
        auto value = [&]() -> const char* {
            if (i + 1 >= argc) usage();
            return argv[++i];
        };
        if (arg == "--size") {
            o.size = value();
        } else if (arg == "--clients") {
            o.clients = std::atoi(value());
        } else if (arg == "--seconds") {
            o.seconds = std::atoi(value());
        } else if (arg == "--runs") {
            o.runs = std::atoi(value());
        } else if (arg == "--overlays") {
            o.overlays = true;
        } else {
            usage();
        }
    }
    if (o.clients < 1 || o.seconds < 1 || o.runs < 1) usage();
    return o;
}

// A stream client on socket `fd`: asks for the stream, then reads and drops
// everything until the connection ends or is shut down. Connects from its
// own thread: the server accepts one client per pass of its loop.
void streamClient(int fd, int port, std::atomic<long>& bytes) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<uint16_t>(port));
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    const char request[] = "GET / HTTP/1.1\r\n\r\n";
    if (connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0 ||
        send(fd, request, sizeof request - 1, MSG_NOSIGNAL) < 0) {
        std::perror("bench-delivery: stream client");
        std::exit(1);
    }
    std::vector<char> buffer(1 << 16);
    for (;;) {
        const ssize_t got = recv(fd, buffer.data(), buffer.size(), 0);
        if (got <= 0) break;
        bytes += got;
    }
}

struct Stats {
    double median, p99, max;
};

Stats stats(std::vector<double> ms) {
    if (ms.empty()) return {0, 0, 0};
    std::sort(ms.begin(), ms.end());
    const size_t rank = static_cast<size_t>(std::ceil(0.99 * static_cast<double>(ms.size())));
    return {ms[ms.size() / 2], ms[std::max<size_t>(rank, 1) - 1], ms.back()};
}

struct Samples {
    std::vector<double> wait, compose, send, total;  // milliseconds, one per frame
    long bytes = 0;
};

// One run: a fresh server and camera object on the running test camera,
// the clients, a second of warm-up once all of them stream, then
// `options.seconds` of measurement. False if the clients never all got in.
bool measure(const Options& options, StreamSettings& stream, const std::string& overlayPath,
             Samples& out) {
    std::atomic<long> bytes{0};
    std::vector<std::thread> clients;
    std::vector<int> clientFds;
    bool ok = true;
    FrameServer server(0);
    Camera camera(stream, overlayPath);
    for (int i = 0; i < options.clients; ++i) {
        const int fd = socket(AF_INET, SOCK_STREAM, 0);
        if (fd < 0) return false;
        clientFds.push_back(fd);
        clients.emplace_back(streamClient, fd, server.boundPort(), std::ref(bytes));
    }

    using Clock = std::chrono::steady_clock;
    const auto giveUp = Clock::now() + std::chrono::seconds(30);
    Clock::time_point measureFrom{}, measureUntil{};
    std::string jpeg;
    while (ok && (measureFrom == Clock::time_point{} || Clock::now() < measureUntil)) {
        server.handleEvents();
        if (camera.ensureOpen() && camera.getImage(jpeg)) {
            const int64_t ready = FrameRing::systemClockNanos();
            server.sendFrame(jpeg);
            const int64_t sent = FrameRing::systemClockNanos();
            if (measureFrom == Clock::time_point{}) {
                if (server.clientList().size() == static_cast<size_t>(options.clients)) {
                    measureFrom = Clock::now() + std::chrono::seconds(1);
                    measureUntil = measureFrom + std::chrono::seconds(options.seconds);
                }
            } else if (Clock::now() >= measureFrom) {
                const int64_t committed = camera.ring.commitStamp(camera.ring.servingIndex);
                const int64_t taken = camera.ring.lastTakeStamp();
                out.wait.push_back(static_cast<double>(taken - committed) * 1e-6);
                out.compose.push_back(static_cast<double>(ready - taken) * 1e-6);
                out.send.push_back(static_cast<double>(sent - ready) * 1e-6);
                out.total.push_back(static_cast<double>(sent - committed) * 1e-6);
            }
        }
        if (measureFrom == Clock::time_point{} && Clock::now() > giveUp) {
            std::fprintf(stderr, "bench-delivery: clients did not all connect\n");
            ok = false;
        }
        sleepLoopPeriod();
    }
    camera.stop();
    // The server leaves its client sockets open when it goes; end the
    // connections from the clients' side.
    for (int fd : clientFds) shutdown(fd, SHUT_RDWR);
    for (std::thread& t : clients) t.join();
    for (int fd : clientFds) close(fd);
    out.bytes = bytes;
    return ok && !out.total.empty();
}

}  // namespace

int main(int argc, char** argv) {
    const Options options = parse(argc, argv);

    const std::filesystem::path dir =
        std::filesystem::temp_directory_path() / ("bench-delivery-" + std::to_string(getpid()));
    std::filesystem::create_directories(dir);
    const std::string logPath = (dir / "stream.log").string();
    setEventLogPath(logPath.c_str());
    const std::string overlayPath = (dir / "overlays.json").string();
    if (options.overlays) {
        std::ofstream(overlayPath)
            << R"({"overlays":[)"
            << R"({"x":50,"y":4,"type":"date","value":"%Y-%m-%d %H:%M:%S"},)"
            << R"({"x":10,"y":96,"type":"text","value":"Camera 1"},)"
            << R"({"x":88,"y":90,"type":"queue_rate","value":"in %.1f fps"},)"
            << R"({"x":88,"y":96,"type":"dequeue_rate","value":"out %.1f fps"}]})";
    }

    TestCamera testCamera(0, options.size, 30);
    if (!testCamera.start()) {
        std::fprintf(stderr, "bench-delivery: the test camera did not start\n");
        return 1;
    }
    const std::string url = testCamera.url();
    const std::string testUrl = "127.0.0.1:" + std::to_string(testCamera.port());
    StreamSettings stream{url.c_str(), 720, 1080, 30.0, "h264", testUrl.c_str(), "127.0.0.1",
                          testCamera.port()};

    std::vector<double> margins;  // total p99 - compose p99, per run
    for (int run = 1; run <= options.runs; ++run) {
        Samples samples;
        if (!measure(options, stream, overlayPath, samples)) return 1;
        std::printf("run %d: camera %s, %d stream clients, %s, %zu frames in %d s, %.1f MB read\n",
                    run, options.size.c_str(), options.clients,
                    options.overlays ? "four overlays" : "no overlays", samples.total.size(),
                    options.seconds, static_cast<double>(samples.bytes) / 1e6);
        std::printf("%-8s %8s %8s %8s  (ms)\n", "stage", "median", "p99", "max");
        const std::pair<const char*, const std::vector<double>*> rows[] = {
            {"wait", &samples.wait},
            {"compose", &samples.compose},
            {"send", &samples.send},
            {"total", &samples.total}};
        for (const auto& [name, values] : rows) {
            const Stats s = stats(*values);
            std::printf("%-8s %8.3f %8.3f %8.3f\n", name, s.median, s.p99, s.max);
        }
        margins.push_back(stats(samples.total).p99 - stats(samples.compose).p99);
        std::printf("total p99 - compose p99: %.3f ms\n", margins.back());
    }
    testCamera.stop();
    std::filesystem::remove_all(dir);
    std::printf("median over %d runs of total p99 - compose p99: %.3f ms\n", options.runs,
                stats(margins).median);
    return 0;
}
