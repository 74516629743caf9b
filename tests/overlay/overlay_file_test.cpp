// Following the overlay file: its lifecycle, its messages and the checks of
// its elements.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <filesystem>
#include <functional>

#include "overlay_helpers.h"

using namespace overlaytest;
using testing::internal::CaptureStdout;
using testing::internal::GetCapturedStdout;

namespace {

class OverlayFileTest : public ::testing::Test {
protected:
    // Applies the overlays to a mid-grey frame; returns what was printed and
    // whether anything was drawn.
    std::string applyOnce(bool& drawn) {
        cv::Mat frame = solid(100);
        CaptureStdout();
        composer.applyOverlays(frame);
        std::string out = GetCapturedStdout();
        drawn = differingPixels(frame, solid(100)) != 0;
        return out;
    }
    std::string p(const std::string& text) { return withPath(text, path); }

    testutil::TempDir dir;
    std::string path = dir.file("overlays.json");
    FakeRates rates;
    FrameComposer composer{rates, path};
};

TEST_F(OverlayFileTest, LifecycleFollowsModificationTime) {
    const std::string good = document({element("text", "Hello")});
    struct Step {
        const char* what;
        std::function<void()> act;
        const char* printed;
        bool drawn;
    };
    const std::vector<Step> steps = {
        {"absent at start", [] {}, "Cannot stat {P}\n", false},
        {"still absent", [] {}, "", false},
        {"created", [&] { writeFile(path, good, 1000); }, "{P} updated\n", true},
        {"unchanged", [] {}, "", true},
        // Same second: the change is not seen and the kept document is used.
        {"rewritten, same mtime", [&] { writeFile(path, "{broken", 1000); }, "", true},
        {"deleted", [&] { std::filesystem::remove(path); }, "Cannot stat {P}\n", false},
        {"still deleted", [] {}, "", false},
        {"restored, same mtime", [&] { writeFile(path, "{broken", 1000); }, "", true},
        {"invalid JSON", [&] { writeFile(path, "{broken", 1001); },
         "{P} updated\nError parsing {P}\n", false},
        {"invalid, unchanged", [] {}, "", false},
        {"fixed", [&] { writeFile(path, good, 1002); }, "{P} updated\n", true},
        {"no overlays member", [&] { writeFile(path, R"({"other":[1]})", 1003); },
         "{P} updated\nArray 'overlays' missing in {P}\n", false},
        {"rejected, unchanged", [] {}, "", false},
        {"overlays null", [&] { writeFile(path, R"({"overlays":null})", 1004); },
         "{P} updated\nArray 'overlays' missing in {P}\n", false},
        {"overlays an object", [&] { writeFile(path, R"({"overlays":{"x":1}})", 1005); },
         "{P} updated\nArray 'overlays' missing in {P}\n", false},
        {"overlays a string", [&] { writeFile(path, R"({"overlays":"[]"})", 1006); },
         "{P} updated\nArray 'overlays' missing in {P}\n", false},
        {"root an array", [&] { writeFile(path, "[1,2]", 1007); },
         "{P} updated\nArray 'overlays' missing in {P}\n", false},
        {"empty array", [&] { writeFile(path, R"({"overlays":[]})", 1008); },
         "{P} updated\nNo overlays in {P}\n", false},
        {"empty, unchanged", [] {}, "", false},
        {"deleted after rejection", [&] { std::filesystem::remove(path); },
         "Cannot stat {P}\n", false},
        // Nothing was kept, so the old time brings nothing back.
        {"restored, same mtime, nothing kept", [&] { writeFile(path, good, 1008); }, "", false},
        {"touched", [&] { setMtime(path, 1009); }, "{P} updated\n", true},
        // Only inequality matters: an older time counts as a change too.
        {"older mtime", [&] { setMtime(path, 999); }, "{P} updated\n", true},
    };
    for (const auto& step : steps) {
        SCOPED_TRACE(step.what);
        step.act();
        bool drawn = false;
        EXPECT_EQ(applyOnce(drawn), p(step.printed));
        EXPECT_EQ(drawn, step.drawn);
    }
}

TEST_F(OverlayFileTest, ElementsMissingMembersAreReportedEveryFrameOthersDrawn) {
    const std::string good = element("text", "B", 50, 50);
    writeFile(path,
              document({R"({"type":"text","value":"A"})", good, "7", "null",
                        R"({"x":10,"y":null,"type":"text","value":"C"})", R"("str")",
                        R"({"x":10,"y":10,"type":"text"})"}),
              1000);
    const std::string missing =
        "Missing 'x' tag in overlay\nMissing 'y' tag in overlay\n"      // first element
        "Missing 'x' tag in overlay\nMissing 'y' tag in overlay\n"      // 7
        "Missing 'type' tag in overlay\nMissing 'value' tag in overlay\n"
        "Missing 'y' tag in overlay\n"                                  // y null
        "Missing 'x' tag in overlay\nMissing 'y' tag in overlay\n"      // "str"
        "Missing 'type' tag in overlay\nMissing 'value' tag in overlay\n"
        "Missing 'value' tag in overlay\n";                             // no value
    const cv::Mat expected = render(document({good}), solid(100), rates);
    for (int frameNo = 0; frameNo < 3; ++frameNo) {
        SCOPED_TRACE(frameNo);
        cv::Mat frame = solid(100);
        CaptureStdout();
        composer.applyOverlays(frame);
        EXPECT_EQ(GetCapturedStdout(), (frameNo == 0 ? p("{P} updated\n") : "") + missing);
        EXPECT_EQ(differingPixels(frame, expected), 0);
    }
}

// Whatever sits at the path, nothing blocks and nothing is parsed that is not
// a regular file of bounded size.
TEST_F(OverlayFileTest, SpecialFilesAreParseErrorsWithoutBlocking) {
    struct Case {
        const char* what;
        std::function<void()> make;
    };
    const std::vector<Case> cases = {
        {"FIFO", [&] { ASSERT_EQ(mkfifo(path.c_str(), 0600), 0); }},
        {"directory", [&] { std::filesystem::create_directory(path); }},
        {"symlink to /dev/zero", [&] { std::filesystem::create_symlink("/dev/zero", path); }},
        {"over 1 MiB of valid JSON",
         [&] {
             writeFile(path, document({element("text", "x")}) + std::string(kMaxOverlayFileBytes, ' '),
                       1);
         }},
        {"empty file", [&] { writeFile(path, "", 1); }},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        std::filesystem::remove_all(path);
        c.make();
        FrameComposer fresh(rates, path);
        cv::Mat frame = solid(100);
        CaptureStdout();
        fresh.applyOverlays(frame);
        EXPECT_EQ(GetCapturedStdout(), p("{P} updated\nError parsing {P}\n"));
        EXPECT_EQ(differingPixels(frame, solid(100)), 0);
    }
}

TEST_F(OverlayFileTest, FileJustUnderTheSizeBoundIsParsed) {
    const std::string json = document({element("text", "x")});
    writeFile(path, json + std::string(kMaxOverlayFileBytes - json.size(), ' '), 1);
    bool drawn = false;
    EXPECT_EQ(applyOnce(drawn), p("{P} updated\n"));
    EXPECT_TRUE(drawn);
}

}  // namespace
