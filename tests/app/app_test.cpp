// The command line, the test-URL split, the settings lines and the event log.
#include <gtest/gtest.h>

#include <regex>

#include "event_log.h"
#include "settings.h"
#include "support.h"

using namespace support;

namespace {

class AppTest : public ::testing::Test {
protected:
    void SetUp() override { setEventLogPath(log.c_str()); }
    void TearDown() override { setEventLogPath(kEventLogPath); }
    // Text options point into argv, so the arguments live as long as the test.
    Settings parse(std::vector<std::string> arguments) {
        args = std::move(arguments);
        args.insert(args.begin(), "video-server");
        std::vector<char*> argv;
        for (std::string& a : args) argv.push_back(a.data());
        Settings s{};
        parseArguments(static_cast<int>(argv.size()), argv.data(), s);
        return s;
    }
    TempDir dir;
    std::string log = dir.file("stream.log");
    std::vector<std::string> args;
};

// Each row: arguments, then the settings they give, the test URL split.
TEST_F(AppTest, CommandLineFillsTheSettingsUnvalidatedAndTheTestUrlIsSplitAtItsFirstColon) {
    struct Case {
        std::vector<std::string> args;
        int port, width, height;
        double fps;
        const char *url, *codec, *testUrl, *host;
        int testPort;
    };
    const char *rtsp = kDefaultStreamUrl, *camera = kCameraAddress;
    const Case cases[] = {
        {{}, 8080, 1280, 720, 30.0, rtsp, "h264", kDefaultTestUrl, camera, 554},
        {{"-p", "9000", "-u", "rtsp://a/b", "-w", "640", "-h", "360", "-f", "12.5", "-c", "mjpeg", "-t", ""}, 9000,
         640, 360, 12.5, "rtsp://a/b", "mjpeg", "", camera, 554},
        {{"--httpport", "81x", "--width=-3", "--height", "abc", "--fps", "x", "--testurl=h:1:2"}, 81, -3, 0, 0.0, rtsp,
         "h264", "h:1:2", "h", 1},
        {{"-t", "127.0.0.1:8554"}, 8080, 1280, 720, 30.0, rtsp, "h264", "127.0.0.1:8554", "127.0.0.1", 8554},
        {{"-t", "host:"}, 8080, 1280, 720, 30.0, rtsp, "h264", "host:", "host", 0},
        {{"-t", ":77"}, 8080, 1280, 720, 30.0, rtsp, "h264", ":77", "", 77},
        {{"-t", "nocolon"}, 8080, 1280, 720, 30.0, rtsp, "h264", "nocolon", camera, 554},
    };
    for (const Case& c : cases) {
        Settings s = parse(c.args);
        EXPECT_EQ(std::make_tuple(s.httpPort, s.stream.width, s.stream.height, s.stream.fps, s.stream.testPort),
                  std::make_tuple(c.port, c.width, c.height, c.fps, 554));
        EXPECT_EQ(std::vector<std::string>({s.stream.url, s.stream.codec, s.stream.testUrl, s.stream.testHost}),
                  std::vector<std::string>({c.url, c.codec, c.testUrl, camera}));
        char* copy = splitTestUrl(s);
        EXPECT_EQ(copy != nullptr, std::string(c.testUrl).find(':') != std::string::npos) << c.testUrl;
        EXPECT_EQ(s.stream.testHost + (":" + std::to_string(s.stream.testPort)), c.host + (":" + std::to_string(c.testPort)));
        free(copy);
    }
}

TEST_F(AppTest, SettingsAreLoggedAsSevenLines) {
    printSettings(parse({"-p", "9", "-u", "rtsp://x/y", "-w", "64", "-h", "36", "-f", "12.25", "-c", "c", "-t", "h:5"}));
    EXPECT_EQ(logMessages(log), (std::vector<std::string>{"HTTP Port     : 9", "Stream URL    : rtsp://x/y",
                                                          "Video Width   : 64", "Video Height  : 36",
                                                          "Stream FPS    : 12.2", "Stream CODEC  : c",
                                                          "Test URL      : h:5"}));
}

TEST_F(AppTest, LogLinesAreUtcStampedCutAndDroppedWhileTheStorageIsAway) {
    setenv("TZ", "Asia/Kolkata", 1);
    char stamp[64];
    formatLogTimestamp(1700000000, 42, stamp, sizeof stamp);
    EXPECT_STREQ(stamp, "2023-11-14 22:13:20.000042");
    unsetenv("TZ");
    writeFile(log, "kept\n");
    logEvent(g_log, "frame %d of %s", 7, "seven");
    logEvent(g_log, "%s", std::string(3000, 'x').c_str());
    const std::string stamped = "\\d{4}-\\d\\d-\\d\\d \\d\\d:\\d\\d:\\d\\d\\.\\d{6} ";
    EXPECT_TRUE(std::regex_match(readFile(log), std::regex("kept\n" + stamped + "frame 7 of seven\n" + stamped +
                                                           "x{1023}\n")));
    const std::string away = dir.file("usb99/stream.log");
    setEventLogPath(away.c_str());
    logEvent(g_log, "lost");
    std::filesystem::create_directory(dir.file("usb99"));
    logEvent(g_log, "back");
    EXPECT_EQ(logMessages(away), std::vector<std::string>{"back"});
}

}  // namespace
