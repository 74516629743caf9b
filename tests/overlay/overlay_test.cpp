// Following the overlay file, drawing its overlays, and composing frames.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <opencv2/imgproc.hpp>
#include <sstream>

#include "frame_composer.h"
#include "support.h"

using namespace support;
using testing::internal::CaptureStdout;
using testing::internal::GetCapturedStdout;

namespace {

std::string element(const std::string& type, const std::string& value, double x = 50, double y = 50) {
    std::ostringstream out;
    out.precision(17);
    out << R"({"x":)" << x << R"(,"y":)" << y << R"(,"type":")" << type << R"(","value":")" << value << "\"}";
    return out.str();
}

std::string document(const std::vector<std::string>& elements) {
    std::string out = R"({"overlays":[)";
    for (const std::string& e : elements) out += (&e == &elements[0] ? "" : ",") + e;
    return out + "]}";
}

cv::Mat solid(int value) { return cv::Mat(720, 1280, CV_8UC3, cv::Scalar::all(value)); }

cv::Mat noisy() {
    cv::Mat frame(720, 1280, CV_8UC3);
    cv::theRNG().state = 7;
    cv::randu(frame, 0, 256);
    return frame;
}

struct Text {
    std::string text;
    double x, y;  // percent
};

// What the overlays should look like: boxes and texts drawn on a copy of
// the whole frame in order, blended back at half weight.
cv::Mat reference(const cv::Mat& background, const std::vector<Text>& texts) {
    cv::Mat canvas = background.clone(), out;
    for (const Text& t : texts) {
        int baseline = 0;
        const cv::Size s = cv::getTextSize(t.text, cv::FONT_HERSHEY_DUPLEX, 1.0, 1, &baseline);
        const cv::Point o(static_cast<int>(t.x * 12.8 - s.width / 2), static_cast<int>(s.height / 2 + t.y * 7.2));
        cv::rectangle(canvas, {o.x - 4, o.y + 7}, {o.x + s.width + 4, o.y - s.height - 4}, cv::Scalar(), cv::FILLED);
        cv::putText(canvas, t.text, o, cv::FONT_HERSHEY_DUPLEX, 1.0, cv::Scalar::all(255), 1, cv::LINE_AA);
    }
    cv::addWeighted(canvas, 0.5, background, 0.5, 0.0, out);
    return out;
}

bool same(const cv::Mat& a, const cv::Mat& b) { return cv::norm(a, b, cv::NORM_INF) == 0; }

class OverlayTest : public ::testing::Test {
protected:
    // Applies the overlay file to a copy of `background`; returns what was printed.
    std::string apply(cv::Mat& frame) {
        CaptureStdout();
        composer.applyOverlays(frame);
        return GetCapturedStdout();
    }
    cv::Mat draw(const std::string& json, const cv::Mat& background = noisy()) {
        writeFile(path, json, ++mtime);
        cv::Mat frame = background.clone();
        printed = apply(frame);
        return frame;
    }
    std::string p(std::string text) const {
        for (size_t at; (at = text.find("{P}")) != std::string::npos;) text.replace(at, 3, path);
        return text;
    }
    TempDir dir;
    std::string path = dir.file("overlays.json");
    FakeRates rates;
    FrameComposer composer{rates, path};
    time_t mtime = 1000;
    std::string printed;
};

TEST_F(OverlayTest, FileIsFollowedByItsModificationTime) {
    const std::string good = document({element("text", "Hello")});
    const auto write = [&](std::string text, time_t t) { return [=, this] { writeFile(path, text, t); }; };
    const auto touch = [&](time_t t) { return [=, this] { writeFile(path, readFile(path), t); }; };
    const auto remove = [&] { std::filesystem::remove(path); };
    const std::string missing = "{P} updated\nArray 'overlays' missing in {P}\n";
    struct Step {
        const char* what;
        std::function<void()> act;
        const char* printed;
        bool drawn;
    };
    const Step steps[] = {
        {"absent at start", [] {}, "Cannot stat {P}\n", false},
        {"still absent", [] {}, "", false},
        {"created", write(good, 1000), "{P} updated\n", true},
        {"unchanged", [] {}, "", true},
        {"rewritten within the second", write("{broken", 1000), "", true},
        {"deleted", remove, "Cannot stat {P}\n", false},
        {"restored within the second", write("{broken", 1000), "", true},
        {"invalid JSON", write("{broken", 1001), "{P} updated\nError parsing {P}\n", false},
        {"invalid, unchanged", [] {}, "", false},
        {"fixed", write(good, 1002), "{P} updated\n", true},
        {"no overlays member", write(R"({"other":[1]})", 1003), missing.c_str(), false},
        {"rejected, unchanged", [] {}, "", false},
        {"overlays null", write(R"({"overlays":null})", 1004), missing.c_str(), false},
        {"overlays an object", write(R"({"overlays":{"x":1}})", 1005), missing.c_str(), false},
        {"root an array", write("[1,2]", 1006), missing.c_str(), false},
        {"empty array", write(R"({"overlays":[]})", 1007), "{P} updated\nNo overlays in {P}\n", false},
        {"deleted after a rejection", remove, "Cannot stat {P}\n", false},
        {"restored, nothing kept", write(good, 1007), "", false},
        {"touched", touch(1008), "{P} updated\n", true},
        {"older time", touch(999), "{P} updated\n", true},
    };
    for (const Step& step : steps) {
        SCOPED_TRACE(step.what);
        step.act();
        cv::Mat frame = solid(100);
        EXPECT_EQ(apply(frame), p(step.printed));
        EXPECT_EQ(!same(frame, solid(100)), step.drawn);
    }
}

TEST_F(OverlayTest, OnlyBoundedRegularFilesAreParsed) {
    const std::string good = document({element("text", "x")});
    struct Case {
        const char* what;
        std::function<void()> make;
        bool parsed;
    };
    const Case cases[] = {
        {"FIFO", [&] { mkfifo(path.c_str(), 0600); }, false},
        {"directory", [&] { std::filesystem::create_directory(path); }, false},
        {"link to /dev/zero", [&] { std::filesystem::create_symlink("/dev/zero", path); }, false},
        {"empty", [&] { writeFile(path, ""); }, false},
        {"over 1 MiB", [&] { writeFile(path, good + std::string(kMaxOverlayFileBytes, ' ')); }, false},
        {"just 1 MiB", [&] { writeFile(path, good + std::string(kMaxOverlayFileBytes - good.size(), ' ')); }, true},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        std::filesystem::remove_all(path);
        c.make();
        FrameComposer fresh(rates, path);
        cv::Mat frame = solid(100);
        CaptureStdout();
        fresh.applyOverlays(frame);
        EXPECT_EQ(GetCapturedStdout(), p(c.parsed ? "{P} updated\n" : "{P} updated\nError parsing {P}\n"));
        EXPECT_EQ(!same(frame, solid(100)), c.parsed);
    }
}

TEST_F(OverlayTest, ElementsWithoutAllFourMembersAreReportedEveryFrame) {
    const std::string good = element("text", "B", 20, 20);
    writeFile(path, document({R"({"type":"text","value":"A"})", good, "7", "null",
                              R"({"x":10,"y":null,"type":"text","value":"C"})", R"({"x":1,"y":1,"type":"text"})"}),
              1000);
    const std::string xy = "Missing 'x' tag in overlay\nMissing 'y' tag in overlay\n";
    const std::string missing = xy + xy + "Missing 'type' tag in overlay\nMissing 'value' tag in overlay\n" +
                                "Missing 'y' tag in overlay\nMissing 'value' tag in overlay\n";
    for (int frameNo = 0; frameNo < 2; ++frameNo) {
        cv::Mat frame = noisy();
        EXPECT_EQ(apply(frame), (frameNo == 0 ? p("{P} updated\n") : "") + missing);
        EXPECT_TRUE(same(frame, reference(noisy(), {{"B", 20, 20}})));
    }
}

TEST_F(OverlayTest, BoxesAndTextsArePlacedAndBlendedAtHalfWeight) {
    struct Case {
        const char* what;
        std::vector<Text> texts;
        cv::Mat background;
    };
    const Case cases[] = {
        {"centre", {{"Camera 1", 50, 50}}, noisy()},
        {"clipped top left", {{"Hello", 0, 0}}, solid(255)},
        {"clipped bottom right", {{"Hello", 100, 100}}, solid(0)},
        {"truncated toward zero", {{"Hello", -0.5, 30.05}}, noisy()},
        {"overlapping boxes darken once", {{"first", 50, 50}, {"second", 52, 51}}, solid(255)},
        {"apart", {{"a", 10, 90}, {"gjpqy[]", 90, 10}}, noisy()},
        {"empty text is a bare box", {{"", 30, 30}}, solid(200)},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        std::vector<std::string> elements;
        for (const Text& t : c.texts) elements.push_back(element("text", t.text, t.x, t.y));
        EXPECT_TRUE(same(draw(document(elements), c.background), reference(c.background, c.texts)));
    }
}

TEST_F(OverlayTest, TypesAndHostileElementsDrawTheirTextOrNothing) {
    rates.queue = 12.34;
    rates.dequeue = 0.5;
    char year[8];
    const time_t now = time(nullptr);
    strftime(year, sizeof year, "%Y", localtime(&now));
    const std::string longText(300, 'x'), longFormat(257, 'y');
    struct Case {
        std::string json;
        std::vector<Text> drawn;
    };
    const Case cases[] = {
        {element("TEXT", "Hi"), {{"Hi", 50, 50}}},
        {element("queue_rate", "q %.1f"), {{"q 12.3", 50, 50}}},
        {element("Dequeue_Rate", "%5.2f fps"), {{" 0.50 fps", 50, 50}}},
        {element("date", "%Y"), {{year, 50, 50}}},
        {element("time", "%Y"), {{year, 50, 50}}},
        {element("image", "x.png"), {}},
        {element("other", "x"), {}},
        {element("text", longText), {{longText.substr(0, 256), 50, 50}}},
        {element("date", longFormat), {}},
        {element("date", ""), {}},
        {element("queue_rate", "%s"), {}},
        {element("queue_rate", "ab%79.1f"), {{("ab" + std::string(75, ' ') + "12.3").substr(0, 79), 50, 50}}},
        {R"({"x":1e400,"y":50,"type":"text","value":"inf"})", {}},
        {R"({"x":NaN,"y":50,"type":"text","value":"nan"})", {}},
        {element("text", "far", 1e12, -1e12), {}},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.json.substr(0, 80));
        EXPECT_TRUE(same(draw(document({c.json})), reference(noisy(), c.drawn)));
        EXPECT_EQ(printed, p("{P} updated\n"));
    }
    std::vector<std::string> many(kMaxOverlaysPerFrame, element("text", "a", 10, 10));
    many.push_back(element("text", "b", 90, 90));
    EXPECT_TRUE(same(draw(document(many)), reference(noisy(), {{"a", 10, 10}})));
}

TEST(RateFormat, OnlyLiteralTextAndOneFloatingConversionPass) {
    const std::pair<std::string, bool> cases[] = {
        {"%f", true}, {"%.1f fps", true}, {"%% %e %%", true}, {"%-+ #010.2lf", true}, {"%79.79G", true},
        {"%a", true}, {"%5.f", true}, {"%80f", false}, {"%.80f", false}, {"%100f", false},
        {"%f%f", false}, {"%d", false}, {"%s", false}, {"%n", false}, {"%*f", false},
        {"%1$f", false}, {"%Lf", false}, {"100%", false}, {"%%", false}, {"none", false},
        {std::string(254, 'x') + "%f", true}, {std::string(255, 'x') + "%f", false},
    };
    for (const auto& [format, safe] : cases) EXPECT_EQ(isSafeRateFormat(format.c_str()), safe) << format;
}

TEST_F(OverlayTest, ComposedFrameIsTheScaledSlotEncodedAtQuality55) {
    cv::Mat slot;
    EXPECT_EQ(composer.composeFrame(slot), "");
    cv::resize(noisy(), slot, {1920, 1080});
    cv::Mat expected;
    cv::resize(slot, expected, {1280, 720}, 0, 0, cv::INTER_LINEAR);
    writeFile(path, document({element("text", "t")}), 5);
    expected = reference(expected, {{"t", 50, 50}});
    std::vector<uchar> jpeg;
    cv::imencode(".jpg", expected, jpeg, {cv::IMWRITE_JPEG_QUALITY, 55});
    CaptureStdout();
    EXPECT_EQ(composer.composeFrame(slot), std::string(jpeg.begin(), jpeg.end()));
    GetCapturedStdout();
    EXPECT_TRUE(same(slot, expected));
}

}  // namespace
