// The queued stream reader against the real test camera: blocking open,
// frames in ring order, the reopen after eleven empty frames, and stop().
#include <gtest/gtest.h>

#include "rtsp_queue.h"
#include "support.h"

TEST(Queue, OpensBlockingServesInRingOrderAndReopensAfterElevenEmptyFrames) {
    const TestCamera source("320x240");
    TempDir dir;
    // The reader thread prints all the time: both streams go to files for good.
    ASSERT_TRUE(std::freopen(dir.file("out").c_str(), "w", stdout));
    ASSERT_TRUE(std::freopen(dir.file("err").c_str(), "w", stderr));
    const auto out = [&] { return readFile(dir.file("out")); };
    const auto count = [&](const char* stream, const std::string& line) {
        return countLines(dir.file(stream), line, 0);
    };
    const auto start = Clock::now();
    {
        rtspQueue queue(source.url, dir.file("overlays.json"));
        EXPECT_GE(since(start), 7.0);
        EXPECT_EQ(out(),
                  "Opening endpoint\nStream opened\nVersion = " CV_VERSION "\nStream running\n");
        std::thread reader = queue.start();
        std::string jpeg;
        ASSERT_TRUE(waitFor([&] { return queue.getImage(jpeg); }));
        ASSERT_TRUE(waitFor([&] { return count("out", "Q F = 3") > 0; }));
        const int emptyBefore = count("err", "frame empty");
        source.stop();
        EXPECT_TRUE(waitFor([&] { return count("out", "Opening endpoint") == 2; }));
        while (queue.getImage(jpeg)) {
            // what the ring still holds
        }
        jpeg = "kept";
        const int emptyTakes = count("out", "DQ F = -1");
        EXPECT_FALSE(queue.getImage(jpeg));
        EXPECT_EQ(jpeg, "kept");
        EXPECT_EQ(count("out", "DQ F = -1") - emptyTakes, 10);
        const auto stopAt = Clock::now();
        queue.stop();
        reader.join();
        EXPECT_LT(since(stopAt), 3.0);  // the 7-second pause is cut short
        EXPECT_EQ(count("err", "frame empty") - emptyBefore, 11);
    }
    EXPECT_TRUE(out().ends_with("\nStream closed\n"));
    // Slot after slot, round the ring.
    std::vector<int> committed;
    for (const std::string& line : logMessages(dir.file("out"), 0)) {
        if (line.starts_with("Q F = ")) {
            committed.push_back(std::stoi(line.substr(6)) -
                                static_cast<int>(committed.size() % 60));
        }
    }
    EXPECT_EQ(committed, std::vector<int>(std::max<size_t>(committed.size(), 4), 0));
}
