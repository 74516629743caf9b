// The benchmark reader's strict part parser, and the reader binary against a
// scripted server on loopback: what it counts as missing, and that it stops
// on a malformed part.
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <map>
#include <string>
#include <thread>
#include <vector>

#include "mjpeg_parts.h"

namespace {

using namespace std::chrono_literals;

const std::string kServerHeader =
    "HTTP/1.0 200 OK\r\nAccept-Range: bytes\r\nConnection: close\r\nMax-Age: 0\r\nExpires: 0\r\n"
    "Cache-Control: no-cache, private\r\nPragma: no-cache\r\n"
    "Content-Type: multipart/x-mixed-replace;boundary=frame\r\n\r\n";

// A JPEG-framed payload (FF D8 ... FF D9) carrying `id`.
std::string jpeg(int id, std::size_t size = 40) {
    std::string body = "\xff\xd8" + std::to_string(id) + "|";
    body.resize(size - 2, 'x');
    return body + "\xff\xd9";
}

std::string serverPart(const std::string& payload) {
    return "--frame\r\nContent-Type: image/jpg\r\nContent-Length: " + std::to_string(payload.size()) +
           "\r\n\r\n" + payload;
}

std::string ffmpegStream(const std::vector<std::string>& payloads) {
    std::string s = "--ffmpeg\r\n";
    for (const auto& p : payloads) {
        s += "Content-type: image/jpeg\r\nContent-length: " + std::to_string(p.size()) + "\r\n\r\n" + p +
             "\r\n--ffmpeg\r\n";
    }
    return s;
}

struct Parsed {
    std::vector<std::string> payloads;
    std::vector<std::size_t> partBytes;
    bool error = false;
};

// Feeds `bytes` in pieces of `step` bytes, taking parts as they complete.
Parsed parse(StreamFormat format, const std::string& bytes, std::size_t step) {
    PartParser parser(format);
    Parsed out;
    for (std::size_t pos = 0; pos < bytes.size() && !out.error; pos += step) {
        parser.append(std::string_view(bytes).substr(pos, step));
        std::string_view payload;
        std::size_t partBytes = 0;
        PartParser::Result r;
        while ((r = parser.next(payload, partBytes)) == PartParser::Result::part) {
            out.payloads.emplace_back(payload);
            out.partBytes.push_back(partBytes);
        }
        out.error = r == PartParser::Result::error;
    }
    return out;
}

TEST(PartParserTest, SplitsBackToBackServerPartsInAnyPieces) {
    const std::vector<std::string> payloads = {jpeg(1, 5), jpeg(2, 12345), jpeg(3, 40)};
    std::string stream = kServerHeader;
    for (const auto& p : payloads) stream += serverPart(p);
    for (std::size_t step : {std::size_t{1}, std::size_t{7}, std::size_t{4096}, stream.size()}) {
        Parsed got = parse(StreamFormat::server, stream, step);
        EXPECT_FALSE(got.error) << "step " << step;
        EXPECT_EQ(got.payloads, payloads) << "step " << step;
        // 54 bytes of framing plus the length's digits.
        EXPECT_EQ(got.partBytes, (std::vector<std::size_t>{60, 12345 + 59, 96})) << "step " << step;
    }
}

TEST(PartParserTest, SplitsFfmpegMultipartOutputInAnyPieces) {
    const std::vector<std::string> payloads = {jpeg(1), jpeg(2, 1000), jpeg(3)};
    const std::string stream = ffmpegStream(payloads);
    for (std::size_t step : {std::size_t{1}, std::size_t{13}, stream.size()}) {
        Parsed got = parse(StreamFormat::ffmpeg, stream, step);
        EXPECT_FALSE(got.error) << "step " << step;
        EXPECT_EQ(got.payloads, payloads) << "step " << step;
    }
}

TEST(PartParserTest, PartIsCompleteWithItsLastJpegByte) {
    PartParser parser(StreamFormat::server);
    parser.append("");  // a read of nothing, before any buffer exists
    const std::string part = serverPart(jpeg(1));
    parser.append(kServerHeader + part.substr(0, part.size() - 1));
    std::string_view payload;
    std::size_t bytes = 0;
    EXPECT_EQ(parser.next(payload, bytes), PartParser::Result::needMore);
    parser.append(part.substr(part.size() - 1));
    EXPECT_EQ(parser.next(payload, bytes), PartParser::Result::part);
    EXPECT_EQ(payload, jpeg(1));
    EXPECT_EQ(parser.pending(), 0u);
}

struct Malformed {
    const char* name;
    StreamFormat format;
    std::string bytes;
};

void PrintTo(const Malformed& c, std::ostream* os) { *os << c.name; }

class PartParserRejects : public ::testing::TestWithParam<Malformed> {};

TEST_P(PartParserRejects, StreamAndStaysFailed) {
    const Malformed& c = GetParam();
    for (std::size_t step : {std::size_t{1}, c.bytes.size()}) {
        EXPECT_TRUE(parse(c.format, c.bytes, step).error) << "step " << step;
    }
    PartParser parser(c.format);
    parser.append(c.bytes);
    std::string_view payload;
    std::size_t bytes = 0;
    while (parser.next(payload, bytes) == PartParser::Result::part) {
    }
    parser.append(serverPart(jpeg(9)));
    EXPECT_EQ(parser.next(payload, bytes), PartParser::Result::error);
    EXPECT_FALSE(parser.error().empty());
}

const std::string kPrefix = "--frame\r\nContent-Type: image/jpg\r\nContent-Length: ";

INSTANTIATE_TEST_SUITE_P(
    Cases, PartParserRejects,
    ::testing::Values(
        Malformed{"NotFound", StreamFormat::server, "HTTP/1.0 404 Not Found\r\n\r\n"},
        Malformed{"NotMultipart", StreamFormat::server,
                  "HTTP/1.0 200 OK\r\nContent-Type: image/jpg\r\n\r\n" + serverPart(jpeg(1))},
        Malformed{"EndlessHeader", StreamFormat::server, "HTTP/1.0 200 OK\r\n" + std::string(5000, 'h')},
        Malformed{"LineEndAfterJpeg", StreamFormat::server,
                  kServerHeader + serverPart(jpeg(1)) + "\r\n" + serverPart(jpeg(2))},
        Malformed{"OtherContentType", StreamFormat::server,
                  kServerHeader + "--frame\r\nContent-Type: image/jpeg\r\nContent-Length: 40\r\n\r\n" + jpeg(1)},
        Malformed{"LeadingZero", StreamFormat::server, kServerHeader + kPrefix + "040\r\n\r\n" + jpeg(1)},
        Malformed{"Sign", StreamFormat::server, kServerHeader + kPrefix + "+40\r\n\r\n" + jpeg(1)},
        Malformed{"NoDigits", StreamFormat::server, kServerHeader + kPrefix + "\r\n\r\n" + jpeg(1)},
        Malformed{"TenDigits", StreamFormat::server, kServerHeader + kPrefix + "1000000000\r\n\r\n"},
        Malformed{"OneLineEnd", StreamFormat::server, kServerHeader + kPrefix + "40\r\n" + jpeg(1)},
        Malformed{"LengthTooShort", StreamFormat::server,
                  kServerHeader + kPrefix + "39\r\n\r\n" + jpeg(1) + serverPart(jpeg(2))},
        Malformed{"NotAJpeg", StreamFormat::server,
                  kServerHeader + kPrefix + "40\r\n\r\n" + std::string(40, 'j')},
        Malformed{"FfmpegNoBoundary", StreamFormat::ffmpeg,
                  ffmpegStream({jpeg(1)}).substr(10)},
        Malformed{"FfmpegNoLineEndBeforeBoundary", StreamFormat::ffmpeg,
                  "--ffmpeg\r\nContent-type: image/jpeg\r\nContent-length: 40\r\n\r\n" + jpeg(1) +
                      "--ffmpeg\r\n"}),
    [](const ::testing::TestParamInfo<Malformed>& info) { return std::string(info.param.name); });

// A loopback server that answers stream requests with scripted parts: frame i
// at i × 10 ms, except to the second client, which does not get `skipped`.
class ScriptedServer {
public:
    ScriptedServer(int frames, std::vector<int> skipped, std::string badPart = "")
        : frames_(frames), skipped_(std::move(skipped)), badPart_(std::move(badPart)) {
        listenFd_ = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        sockaddr_in addr{};
        addr.sin_family = AF_INET;
        addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t len = sizeof addr;
        if (bind(listenFd_, reinterpret_cast<sockaddr*>(&addr), sizeof addr) == 0 &&
            listen(listenFd_, 8) == 0 && getsockname(listenFd_, reinterpret_cast<sockaddr*>(&addr), &len) == 0) {
            port_ = ntohs(addr.sin_port);
        }
        thread_ = std::thread([this] { serve(); });
    }
    ~ScriptedServer() {
        stop_ = true;
        thread_.join();
        close(listenFd_);
    }
    int port() const { return port_; }

private:
    void serve() {
        std::vector<int> clients;
        const auto deadline = std::chrono::steady_clock::now() + 10s;
        while (clients.size() < 2 && !stop_ && std::chrono::steady_clock::now() < deadline) {
            pollfd p{listenFd_, POLLIN, 0};
            if (poll(&p, 1, 50) != 1) continue;
            int fd = accept(listenFd_, nullptr, nullptr);
            char request[1024];
            if (fd >= 0 && recv(fd, request, sizeof request, 0) > 0) {
                (void)!send(fd, kServerHeader.data(), kServerHeader.size(), MSG_NOSIGNAL);
                clients.push_back(fd);
            }
        }
        const auto start = std::chrono::steady_clock::now();
        for (int i = 0; i < frames_ && !stop_ && clients.size() == 2; ++i) {
            std::this_thread::sleep_until(start + i * 10ms);  // pacing, not synchronisation
            const std::string part = i == frames_ / 2 && !badPart_.empty() ? badPart_ : serverPart(jpeg(i, 2000));
            for (std::size_t c = 0; c < clients.size(); ++c) {
                bool skip = c == 1 && std::find(skipped_.begin(), skipped_.end(), i) != skipped_.end();
                if (!skip) (void)!send(clients[c], part.data(), part.size(), MSG_NOSIGNAL);
            }
        }
        // Keep the connections open until the reader has gone.
        while (!stop_) std::this_thread::sleep_for(10ms);
        for (int fd : clients) close(fd);
    }

    int frames_;
    std::vector<int> skipped_;
    std::string badPart_;
    int listenFd_ = -1;
    int port_ = 0;
    std::atomic<bool> stop_{false};
    std::thread thread_;
};

struct RunResult {
    int status = -1;
    std::map<std::string, std::string> values;
    std::string output;
};

RunResult runReader(int port, const std::string& extra) {
    const std::string command = std::string(BENCH_READER_BIN) + " --port " + std::to_string(port) +
                                " --clients 2 --warmup 0.5 --window 1 --grace 0.3 --timeout 10 " + extra +
                                " 2>&1";
    RunResult r;
    FILE* p = popen(command.c_str(), "r");
    if (!p) return r;
    char line[512];
    while (fgets(line, sizeof line, p)) {
        r.output += line;
        std::string s(line);
        if (auto eq = s.find('='); eq != std::string::npos) {
            r.values[s.substr(0, eq)] = s.substr(eq + 1, s.find_last_not_of("\n") - eq);
        }
    }
    r.status = pclose(p);
    return r;
}

TEST(StreamReaderTest, CountsFramesOfTheWindowThatOneClientMissed) {
    // Frames 95..104 arrive about 1 s after the first: inside the window
    // (0.5 s to 1.5 s), far from both ends.
    std::vector<int> skipped;
    for (int i = 95; i < 105; ++i) skipped.push_back(i);
    ScriptedServer server(250, skipped);
    ASSERT_GT(server.port(), 0);
    RunResult r = runReader(server.port(), "--watch-pid " + std::to_string(getpid()));
    ASSERT_TRUE(WIFEXITED(r.status) && WEXITSTATUS(r.status) == 0) << r.output;
    EXPECT_EQ(r.values["clients"], "2");
    EXPECT_EQ(r.values["missing"], "10") << r.output;
    EXPECT_EQ(r.values["clients_with_gaps"], "1");
    EXPECT_EQ(r.values["duplicates"], "0");
    EXPECT_EQ(r.values["out_of_order"], "0");
    // 100 frames a second: about 100 in the window, 10 fewer at the second client.
    const int frames = std::stoi(r.values["frames"]);
    EXPECT_GT(frames, 80);
    EXPECT_LT(frames, 120);
    EXPECT_NEAR(std::stod(r.values["fps_max"]) - std::stod(r.values["fps_min"]), 10.0, 3.0);
    EXPECT_EQ(r.values["part_bytes"], "2058");
    // The payloads are not pictures: no stamp, no delay.
    EXPECT_EQ(r.values["stamps_read"], "0");
    EXPECT_EQ(r.values["delay_ms_median"], "nan");
    EXPECT_EQ(r.values.count("cpu_ms_per_frame"), 1u);
    EXPECT_GT(std::stol(r.values["vmhwm_kib"]), 0);
}

TEST(StreamReaderTest, StopsWithStatusOneOnAMalformedPart) {
    ScriptedServer server(250, {}, kPrefix + "0040\r\n\r\n" + jpeg(1));
    ASSERT_GT(server.port(), 0);
    RunResult r = runReader(server.port(), "");
    EXPECT_TRUE(WIFEXITED(r.status) && WEXITSTATUS(r.status) == 1) << r.output;
    EXPECT_NE(r.output.find("malformed stream"), std::string::npos) << r.output;
    EXPECT_EQ(r.values.count("missing"), 0u) << "no report after an error";
}

}  // namespace
