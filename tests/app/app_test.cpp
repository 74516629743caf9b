// The command line, the test-URL split, the event log and the process's
// floating-point mode. (The settings lines: the end-to-end log test.)
#include <gtest/gtest.h>

#include "event_log.h"
#include "settings.h"
#include "support.h"

class AppTest : public ::testing::Test {
protected:
    void SetUp() override { setEventLogPath(log.c_str()); }
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

// Each row: arguments, then the settings they give and the test URL split
// ("port widthxheight fps url codec testurl -> host:port").
TEST_F(AppTest, CommandLineFillsTheSettingsUnvalidatedAndTheTestUrlIsSplitAtItsFirstColon) {
    const std::string url = "rtsp://192.168.1.64:554/stream1";
    const std::string byDefault = "8080 1280x720 30 " + url + " h264 ";
    const std::pair<std::vector<std::string>, std::string> cases[] = {
        {{}, byDefault + "192.168.1.64:554 -> 192.168.1.64:554"},
        {{"-p", "9000", "-u", "rtsp://a/b", "-w", "640", "-h", "360", "-f", "12.5", "-c", "mjpeg",
          "-t", ""},
         "9000 640x360 12.5 rtsp://a/b mjpeg  -> 192.168.1.64:554"},
        {{"--httpport", "81x", "--width=-3", "--height", "abc", "--fps", "x", "--testurl=h:1:2"},
         "81 -3x0 0 " + url + " h264 h:1:2 -> h:1"},
        {{"-t", "host:"}, byDefault + "host: -> host:0"},
        {{"-t", ":77"}, byDefault + ":77 -> :77"},
        {{"-t", "nocolon"}, byDefault + "nocolon -> 192.168.1.64:554"},
    };
    for (const auto& [arguments, expected] : cases) {
        Settings s = parse(arguments);
        std::ostringstream out;
        out << s.httpPort << ' ' << s.stream.width << 'x' << s.stream.height << ' ' << s.stream.fps
            << ' ' << s.stream.url << ' ' << s.stream.codec << ' ' << s.stream.testUrl;
        char* copy = splitTestUrl(s);
        out << " -> " << s.stream.testHost << ':' << s.stream.testPort;
        EXPECT_EQ(out.str(), expected);
        EXPECT_EQ(copy, std::strchr(s.stream.testUrl, ':') ? s.stream.testHost : nullptr);
        free(copy);
    }
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
    const std::regex expected("kept\n" + stamped + "frame 7 of seven\n" + stamped + "x{1023}\n");
    EXPECT_TRUE(std::regex_match(readFile(log), expected));
    const std::string away = dir.file("usb99/stream.log");
    setEventLogPath(away.c_str());
    logEvent(g_log, "lost");
    std::filesystem::create_directory(dir.file("usb99"));
    logEvent(g_log, "back");
    EXPECT_EQ(logMessages(away), std::vector<std::string>{"back"});
}

// Set before main, so a thread started later inherits it: a product of two
// normal floats that is denormal comes out as zero.
TEST(Process, ThreadsFlushDenormalsToZero) {
    volatile float tiny = 1e-30f;
    float product = 1;
    std::thread([&] { product = tiny * 1e-10f; }).join();
    EXPECT_EQ(product, 0.0f);
}
