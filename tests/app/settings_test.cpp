#include "settings.h"

#include <gtest/gtest.h>
#include <sys/wait.h>

#include <array>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "../test_util.h"
#include "event_log.h"

namespace {

// Runs parseArguments on a fresh record with the given words after argv[0].
Settings parse(std::vector<std::string> words) {
    static std::vector<std::vector<char>> storage;  // argp keeps pointers into argv
    std::vector<char*> argv;
    storage.emplace_back(std::begin("video-server"), std::end("video-server"));
    argv.push_back(storage.back().data());
    for (const auto& w : words) {
        storage.emplace_back(w.begin(), w.end());
        storage.back().push_back('\0');
        argv.push_back(storage.back().data());
    }
    argv.push_back(nullptr);
    Settings s{};
    parseArguments(static_cast<int>(argv.size() - 1), argv.data(), s);
    return s;
}

TEST(Settings, DefaultsWithoutArguments) {
    Settings s = parse({});
    EXPECT_EQ(s.httpPort, 8080);
    EXPECT_STREQ(s.stream.url, kDefaultStreamUrl);
    EXPECT_EQ(s.stream.width, 1280);
    EXPECT_EQ(s.stream.height, 720);
    EXPECT_DOUBLE_EQ(s.stream.fps, 30.0);
    EXPECT_STREQ(s.stream.codec, "h264");
    EXPECT_STREQ(s.stream.testUrl, kDefaultTestUrl);
    EXPECT_STREQ(s.stream.testHost, kCameraAddress);
    EXPECT_EQ(s.stream.testPort, 554);
    EXPECT_EQ(g_loopPeriod, 1000);
}

TEST(Settings, ConversionsAreUnvalidated) {
    struct Case { std::vector<std::string> words; int port, width, height; double fps; };
    const Case cases[] = {
        {{"--fps", "abc"}, 8080, 1280, 720, 0.0},
        {{"-p", "80x"}, 80, 1280, 720, 30.0},
        {{"-p", "  -12"}, -12, 1280, 720, 30.0},
        {{"--width=640", "--height=480"}, 8080, 640, 480, 30.0},
        {{"-w", "wide", "-h", "7.9"}, 8080, 0, 7, 30.0},
        {{"-f", "12.5fps"}, 8080, 1280, 720, 12.5},
        {{"-p", "4294967297"}, 1, 1280, 720, 30.0},  // cut to 32 bits
        {{"-p", "1", "-p", "2", "--httpport", "3"}, 3, 1280, 720, 30.0},  // last wins
    };
    for (const auto& c : cases) {
        Settings s = parse(c.words);
        SCOPED_TRACE(c.words[0] + " " + c.words.back());
        EXPECT_EQ(s.httpPort, c.port);
        EXPECT_EQ(s.stream.width, c.width);
        EXPECT_EQ(s.stream.height, c.height);
        EXPECT_DOUBLE_EQ(s.stream.fps, c.fps);
    }
}

TEST(Settings, TextOptionsPointIntoArgv) {
    Settings s = parse({"-u", "rtsp://127.0.0.1:8554/x", "-c", "mjpeg", "--url", "rtsp://127.0.0.1:1/y"});
    EXPECT_STREQ(s.stream.url, "rtsp://127.0.0.1:1/y");
    EXPECT_STREQ(s.stream.codec, "mjpeg");
}

TEST(Settings, TestUrlSplit) {
    struct Case { const char* testUrl; const char* host; int port; bool copied; };
    const Case cases[] = {
        {"127.0.0.1:8554", "127.0.0.1", 8554, true},
        {"127.0.0.1:", "127.0.0.1", 0, true},
        {"127.0.0.1:80x", "127.0.0.1", 80, true},
        {"127.0.0.1", kCameraAddress, 554, false},  // no colon: defaults stay
        {"", kCameraAddress, 554, false},
        {"a:b:c", "a", 0, true},  // first colon splits
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.testUrl);
        Settings s = parse({std::string("--testurl=") + c.testUrl});
        char* copy = splitTestUrl(s);
        EXPECT_EQ(copy != nullptr, c.copied);
        EXPECT_STREQ(s.stream.testHost, c.host);
        EXPECT_EQ(s.stream.testPort, c.port);
        EXPECT_STREQ(s.stream.testUrl, c.testUrl);  // the whole text stays for the print
        free(copy);
    }
}

TEST(Settings, PrintWritesSevenLinesInOrder) {
    testutil::TempDir dir;
    std::string path = dir.file("stream.log");
    setEventLogPath(path.c_str());
    Settings s = parse({"--fps", "abc", "-t", "127.0.0.1"});
    printSettings(s);
    setEventLogPath(kEventLogPath);
    const std::vector<std::string> expected = {
        "HTTP Port     : 8080",
        std::string("Stream URL    : ") + kDefaultStreamUrl,
        "Video Width   : 1280",
        "Video Height  : 720",
        "Stream FPS    : 0.0",
        "Stream CODEC  : h264",
        "Test URL      : 127.0.0.1",
    };
    EXPECT_EQ(testutil::logMessages(path), expected);
}

struct RunResult { int status; std::string out; std::string err; };

// Runs the real executable with stdout and stderr captured, in a private
// mount and network namespace so its start banner never reaches the
// machine's /media and nothing can leave for the default camera address.
RunResult runServer(const std::string& args) {
    testutil::TempDir dir;
    std::string cmd = std::string(ISOLATE_SCRIPT) + " --net -- " + VIDEO_SERVER_BIN + " " + args +
                      " >" + dir.file("out") + " 2>" + dir.file("err") + " </dev/null";
    int status = system(cmd.c_str());
    return {WIFEXITED(status) ? WEXITSTATUS(status) : -1, testutil::readFile(dir.file("out")),
            testutil::readFile(dir.file("err"))};
}

TEST(SettingsExecutable, HelpListsEveryOptionAndExitsZero) {
    RunResult r = runServer("--help");
    EXPECT_EQ(r.status, 0);
    EXPECT_NE(r.out.find("Video Server"), std::string::npos);
    const char* expected[] = {"-p, --httpport=8080", "HTTP Port", "-u, --url=", "Stream URL",
                              "-w, --width=720", "Stream Width", "-h, --height=1080",
                              "Stream Height", "-f, --fps=30.0", "Stream Frames Per Second",
                              "-c, --codec=h264", "Stream Codec", "-t, --testurl=",
                              "Connectivity Test URL", "-?, --help", "--usage"};
    for (const char* text : expected) EXPECT_NE(r.out.find(text), std::string::npos) << text;
    EXPECT_EQ(r.out.find("--version"), std::string::npos);
}

TEST(SettingsExecutable, UsageExitsZero) {
    RunResult r = runServer("--usage");
    EXPECT_EQ(r.status, 0);
    EXPECT_NE(r.out.find("Usage:"), std::string::npos);
    EXPECT_NE(r.out.find("[-?]"), std::string::npos);
}

TEST(SettingsExecutable, PositionalArgumentAndUnknownOptionFailWithUsage) {
    for (const char* args : {"extra", "--bogus", "-p"}) {
        SCOPED_TRACE(args);
        RunResult r = runServer(args);
        EXPECT_EQ(r.status, 64);  // argp's error status (EX_USAGE)
        EXPECT_NE(r.err.find("Try `"), std::string::npos) << r.err;
        EXPECT_TRUE(r.out.empty());
    }
}

}  // namespace
