#include "event_log.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cstdlib>
#include <regex>
#include <string>
#include <thread>

#include "../test_util.h"

using testutil::readLines;
using testutil::TempDir;

namespace {

class EventLogTest : public ::testing::Test {
protected:
    void SetUp() override {
        path = dir.file("stream.log");
        setEventLogPath(path.c_str());
    }
    void TearDown() override { setEventLogPath(kEventLogPath); }
    TempDir dir;
    std::string path;
};

TEST_F(EventLogTest, LineHasUtcTimestampMicrosecondsAndMessage) {
    logEvent(g_log, "HTTP Port     : %d", 8080);
    auto lines = readLines(path);
    ASSERT_EQ(lines.size(), 1u);
    const std::regex shape(R"(^\d{4}-\d{2}-\d{2} \d{2}:\d{2}:\d{2}\.\d{6} HTTP Port     : 8080$)");
    EXPECT_TRUE(std::regex_match(lines[0], shape)) << lines[0];
}

TEST(EventLogTimestamp, UtcWhateverTheTimeZoneAndPaddedMicroseconds) {
    const char* old = getenv("TZ");
    std::string saved = old ? old : "";
    setenv("TZ", "Asia/Kolkata", 1);  // +05:30, so a local-time bug shows
    tzset();
    char out[64];
    formatLogTimestamp(1700000000L, 4217L, out, sizeof out);  // 2023-11-14 22:13:20 UTC
    EXPECT_STREQ(out, "2023-11-14 22:13:20.004217");
    formatLogTimestamp(0L, 0L, out, sizeof out);
    EXPECT_STREQ(out, "1970-01-01 00:00:00.000000");
    if (old) setenv("TZ", saved.c_str(), 1); else unsetenv("TZ");
    tzset();
}

TEST_F(EventLogTest, TwoThreadsGiveWholeLines) {
    constexpr int kPerThread = 500;
    const std::string a(200, 'a'), b(200, 'b');
    std::thread t1([&] { for (int i = 0; i < kPerThread; ++i) logEvent(g_log, "%s", a.c_str()); });
    std::thread t2([&] { for (int i = 0; i < kPerThread; ++i) logEvent(g_log, "%s", b.c_str()); });
    t1.join();
    t2.join();
    auto lines = readLines(path);
    ASSERT_EQ(lines.size(), 2u * kPerThread);
    int as = 0, bs = 0;
    std::string previousStamp;
    for (const auto& line : lines) {
        std::string msg = testutil::logMessage(line);
        if (msg == a) ++as;
        else if (msg == b) ++bs;
        else FAIL() << "torn line: " << line;
        std::string stamp = line.substr(0, 26);
        EXPECT_LE(previousStamp, stamp) << "lines out of time order";
        previousStamp = stamp;
    }
    EXPECT_EQ(as, kPerThread);
    EXPECT_EQ(bs, kPerThread);
}

TEST_F(EventLogTest, MissingDirectoryDropsLinesThenResumes) {
    std::string nested = dir.file("usb99") + "/stream.log";
    setEventLogPath(nested.c_str());
    logEvent(g_log, "dropped");  // must return normally, write nothing
    EXPECT_FALSE(std::filesystem::exists(nested));
    ASSERT_EQ(mkdir(dir.file("usb99").c_str(), 0755), 0);
    logEvent(g_log, "kept");
    auto lines = readLines(nested);
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_EQ(testutil::logMessage(lines[0]), "kept");
}

TEST_F(EventLogTest, OverlongMessageIsCutNotOverflowed) {
    std::string huge(5000, 'x');
    logEvent(g_log, "Stream URL    : %s", huge.c_str());
    logEvent(g_log, "after");
    auto lines = readLines(path);
    ASSERT_EQ(lines.size(), 2u);
    std::string msg = testutil::logMessage(lines[0]);
    EXPECT_EQ(msg.size(), 1023u);
    EXPECT_EQ(msg.substr(0, 16), "Stream URL    : ");
    EXPECT_EQ(testutil::logMessage(lines[1]), "after");
}

TEST_F(EventLogTest, AppendsToExistingFile) {
    { std::ofstream(path) << "earlier line\n"; }
    logEvent(g_log, "one");
    auto lines = readLines(path);
    ASSERT_EQ(lines.size(), 2u);
    EXPECT_EQ(lines[0], "earlier line");
}

}  // namespace
