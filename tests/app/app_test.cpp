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

TEST_F(AppTest, CommandLineFillsTheSettingsUnvalidated) {
    struct Case {
        std::vector<std::string> args;
        int port;
        const char *url, *codec, *testUrl;
        int width, height;
        double fps;
    };
    const Case cases[] = {
        {{}, 8080, kDefaultStreamUrl, "h264", kDefaultTestUrl, 1280, 720, 30.0},
        {{"-p", "9000", "-u", "rtsp://a/b", "-w", "640", "-h", "360", "-f", "12.5", "-c", "mjpeg", "-t", ""},
         9000, "rtsp://a/b", "mjpeg", "", 640, 360, 12.5},
        {{"--httpport", "81x", "--width=-3", "--height", "abc", "--fps", "x", "--testurl=h:1"},
         81, kDefaultStreamUrl, "h264", "h:1", -3, 0, 0.0},
    };
    for (const Case& c : cases) {
        const Settings s = parse(c.args);
        SCOPED_TRACE(c.port);
        EXPECT_EQ(s.httpPort, c.port);
        EXPECT_STREQ(s.stream.url, c.url);
        EXPECT_STREQ(s.stream.codec, c.codec);
        EXPECT_STREQ(s.stream.testUrl, c.testUrl);
        EXPECT_EQ(s.stream.width, c.width);
        EXPECT_EQ(s.stream.height, c.height);
        EXPECT_EQ(s.stream.fps, c.fps);
        EXPECT_STREQ(s.stream.testHost, kCameraAddress);
        EXPECT_EQ(s.stream.testPort, 554);
    }
}

TEST_F(AppTest, TestUrlIsSplitAtItsFirstColon) {
    struct Case {
        const char *testUrl, *host;
        int port;
        bool copied;
    };
    const Case cases[] = {{"127.0.0.1:8554", "127.0.0.1", 8554, true}, {"a:1:2", "a", 1, true},
                          {"host:", "host", 0, true},  {":77", "", 77, true},
                          {"nocolon", kCameraAddress, 554, false}, {"", kCameraAddress, 554, false}};
    for (const Case& c : cases) {
        SCOPED_TRACE(c.testUrl);
        Settings s = parse({"-t", c.testUrl});
        char* copy = splitTestUrl(s);
        EXPECT_EQ(copy != nullptr, c.copied);
        EXPECT_STREQ(s.stream.testHost, c.host);
        EXPECT_EQ(s.stream.testPort, c.port);
        free(copy);
    }
}

TEST_F(AppTest, SettingsAreLoggedAsSevenLines) {
    printSettings(parse({"-p", "9000", "-u", "rtsp://x/y", "-w", "640", "-h", "360", "-f", "12.25", "-c", "c",
                         "-t", "h:5"}));
    const std::vector<std::string> expected = {
        "HTTP Port     : 9000", "Stream URL    : rtsp://x/y", "Video Width   : 640", "Video Height  : 360",
        "Stream FPS    : 12.2", "Stream CODEC  : c",          "Test URL      : h:5"};
    EXPECT_EQ(logMessages(log), expected);
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
    const std::string text = readFile(log);
    EXPECT_TRUE(std::regex_match(text.substr(0, text.find("xxx")),
                                 std::regex("kept\n\\d{4}-\\d\\d-\\d\\d \\d\\d:\\d\\d:\\d\\d\\.\\d{6} frame 7 of "
                                            "seven\n\\d{4}-\\d\\d-\\d\\d \\d\\d:\\d\\d:\\d\\d\\.\\d{6} ")))
        << text.substr(0, 100);
    EXPECT_EQ(logMessages(log).back(), std::string(1023, 'x'));

    const std::string away = dir.file("usb99/stream.log");
    setEventLogPath(away.c_str());
    logEvent(g_log, "lost");
    std::filesystem::create_directory(dir.file("usb99"));
    logEvent(g_log, "back");
    EXPECT_EQ(logMessages(away), std::vector<std::string>{"back"});
}

TEST_F(AppTest, SleepLastsItsPeriodAndNothingForNone) {
    const auto start = std::chrono::steady_clock::now();
    sleepMicros(-5);
    sleepMicros(0);
    EXPECT_LT(std::chrono::steady_clock::now() - start, 500ms);
    sleepMicros(1'000'000);
    EXPECT_GE(std::chrono::steady_clock::now() - start, 1s);
}

}  // namespace
