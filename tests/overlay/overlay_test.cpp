// Following the overlay file, drawing its overlays, composing frames; the
// faster scaling and encoding paths against the library calls they replace.
#include <gtest/gtest.h>

#include <opencv2/imgcodecs.hpp>
#include <opencv2/imgproc.hpp>

#include "frame_composer.h"
#include "jpeg_writer.h"
#include "scale_three_to_two.h"
#include "support.h"

std::string element(const std::string& type, const std::string& value, double x = 50,
                    double y = 50) {
    std::ostringstream out;
    out.precision(17);
    out << R"({"x":)" << x << R"(,"y":)" << y << R"(,"type":")" << type << R"(","value":")" << value
        << "\"}";
    return out.str();
}

std::string document(const std::vector<std::string>& elements) {
    std::string out;
    for (const std::string& e : elements) out += (out.empty() ? "" : ",") + e;
    return R"({"overlays":[)" + out + "]}";
}

// Camera-like content: smooth shapes and sensor noise, so that every DCT
// coefficient and rounding case is hit.
cv::Mat scene(cv::Size size, double noiseSigma = 12) {
    cv::RNG rng(size.area());
    cv::Mat picture, coarse(size / 24 + cv::Size(2, 2), CV_8UC3), noise(size, CV_16SC3);
    rng.fill(coarse, cv::RNG::UNIFORM, 0, 256);
    cv::resize(coarse, picture, size, 0, 0, cv::INTER_CUBIC);
    rng.fill(noise, cv::RNG::NORMAL, 0, noiseSigma);
    cv::add(picture, noise, picture, cv::noArray(), CV_8UC3);
    return picture;
}

bool same(const cv::Mat& a, const cv::Mat& b) {
    return a.size() == b.size() && cv::norm(a, b, cv::NORM_INF) == 0;
}

cv::Mat solid(int value) { return cv::Mat(720, 1280, CV_8UC3, cv::Scalar::all(value)); }

// A text and its place, in percent of the frame.
using Text = std::tuple<std::string, double, double>;

// What the overlays should look like: boxes and texts drawn on a copy of the
// whole frame in order, blended back at half weight.
cv::Mat reference(const cv::Mat& background, const std::vector<Text>& texts) {
    cv::Mat canvas = background.clone();
    for (const auto& [text, px, py] : texts) {
        int baseline = 0;
        const cv::Size s = cv::getTextSize(text, cv::FONT_HERSHEY_DUPLEX, 1.0, 1, &baseline);
        const int x = static_cast<int>(px * 12.8 - s.width / 2);
        const int y = static_cast<int>(s.height / 2 + py * 7.2);
        cv::rectangle(canvas, {x - 4, y + 7}, {x + s.width + 4, y - s.height - 4}, cv::Scalar(),
                      cv::FILLED);
        cv::putText(canvas, text, {x, y}, cv::FONT_HERSHEY_DUPLEX, 1.0, cv::Scalar::all(255), 1,
                    cv::LINE_AA);
    }
    cv::Mat out;
    cv::addWeighted(canvas, 0.5, background, 0.5, 0.0, out);
    return out;
}

class OverlayTest : public ::testing::Test {
protected:
    // Applies the overlay file to `frame`; returns what was printed, with the
    // file's path written {P}.
    std::string apply(cv::Mat& frame) {
        testing::internal::CaptureStdout();
        composer.applyOverlays(frame);
        const std::string printed = testing::internal::GetCapturedStdout();
        return std::regex_replace(printed, std::regex(path), "{P}");
    }
    TempDir dir;
    std::string path = dir.file("overlays.json");
    FakeRates rates;
    FramePool pool;
    FrameComposer composer{rates, pool, path};
};

TEST_F(OverlayTest, FileIsFollowedByItsModificationTimeAndOnlyBoundedRegularFilesAreParsed) {
    const std::string good = document({element("text", "Hello")});
    const auto write = [&](std::string text, time_t t) {
        return [=, this] { writeFile(path, text, t); };
    };
    // Replaces whatever is at `path` with what `create` makes, modified at `t`.
    const auto make = [&](std::function<void()> create, time_t t) {
        return [=, this] {
            std::filesystem::remove_all(path);
            create();
            setMtime(path, t);
        };
    };
    const auto none = [] {};
    const std::string updated = "{P} updated\n";
    const std::string missing = updated + "Array 'overlays' missing in {P}\n";
    const std::string error = updated + "Error parsing {P}\n";
    const std::string oneMiB(kMaxOverlayFileBytes - good.size(), ' ');
    const std::tuple<const char*, std::function<void()>, std::string, bool> steps[] = {
        {"absent at start", none, "Cannot stat {P}\n", false},
        {"still absent", none, "", false},
        {"created", write(good, 1000), updated, true},
        {"unchanged", none, "", true},
        {"rewritten within the second", write("{broken", 1000), "", true},
        {"deleted", [&] { std::filesystem::remove(path); }, "Cannot stat {P}\n", false},
        {"restored within the second", write("{broken", 1000), "", true},
        {"invalid JSON", write("{broken", 1001), error, false},
        {"invalid, unchanged", none, "", false},
        {"fixed, older time", write(good, 999), updated, true},
        {"no overlays member", write(R"({"other":[1]})", 1003), missing, false},
        {"rejected, unchanged", none, "", false},
        {"overlays an object", write(R"({"overlays":{"x":1}})", 1004), missing, false},
        {"empty array", write(R"({"overlays":[]})", 1005), updated + "No overlays in {P}\n", false},
        {"restored, nothing kept", write(good, 1005), "", false},
        {"a FIFO", make([&] { mkfifo(path.c_str(), 0600); }, 2000), error, false},
        {"a directory", make([&] { std::filesystem::create_directory(path); }, 2001), error, false},
        {"over 1 MiB", make(write(good + oneMiB + " ", 1), 1), error, false},
        {"just 1 MiB", write(good + oneMiB, 2), updated, true},
        {"empty", write("", 3), error, false},
    };
    for (const auto& [what, act, said, drawn] : steps) {
        SCOPED_TRACE(what);
        act();
        cv::Mat frame = solid(100);
        EXPECT_EQ(apply(frame), said);
        EXPECT_EQ(!same(frame, solid(100)), drawn);
    }
}

// Each row: overlay elements and the texts they must draw (percent
// positions), on a noisy frame or a flat one, and what is printed.
TEST_F(OverlayTest, ElementsDrawTheirTextsPlacedAndBlendedOrNothing) {
    rates.queue = 12.34;
    rates.dequeue = 0.5;
    const time_t now = time(nullptr);
    const std::string year = std::to_string(localtime(&now)->tm_year + 1900);
    const std::string longText(300, 'x');
    std::vector<std::string> many(64, element("text", "a", 10, 10));  // the limit
    many.push_back(element("text", "b", 90, 90));
    const auto no = [](const char* member) {
        return "Missing '" + std::string(member) + "' tag in overlay\n";
    };
    struct Case {
        std::vector<std::string> elements;
        std::vector<Text> drawn;
        int flat = -1;
        std::string said = "";
    };
    const Case cases[] = {
        {{element("text", "Camera 1")}, {{"Camera 1", 50, 50}}},
        {{element("text", "Hello", 0, 0)}, {{"Hello", 0, 0}}, 255},
        {{element("text", "Hello", 100, 100)}, {{"Hello", 100, 100}}, 0},
        {{element("text", "Hello", -0.5, 30.05)}, {{"Hello", -0.5, 30.05}}},  // toward zero
        {{element("text", "first"), element("text", "second", 52, 51)},
         {{"first", 50, 50}, {"second", 52, 51}},
         255},
        {{element("text", "a", 10, 90), element("text", "gjpqy[]", 90, 10)},
         {{"a", 10, 90}, {"gjpqy[]", 90, 10}}},
        {{element("text", "", 30, 30)}, {{"", 30, 30}}, 200},
        {{element("TEXT", "Hi")}, {{"Hi", 50, 50}}},
        {{element("queue_rate", "q %.1f")}, {{"q 12.3", 50, 50}}},
        {{element("Dequeue_Rate", "%5.2f fps")}, {{" 0.50 fps", 50, 50}}},
        {{element("date", "%Y"), element("time", "%Y", 9, 9)}, {{year, 50, 50}, {year, 9, 9}}},
        {{element("image", "x.png"), element("other", "x")}, {}},
        {{element("text", longText)}, {{longText.substr(0, 256), 50, 50}}},
        {{element("date", std::string(257, 'y')), element("date", "")}, {}},
        {{element("queue_rate", "%s")}, {}},
        {{element("queue_rate", "ab%79.1f")}, {{"ab" + std::string(75, ' ') + "12", 50, 50}}},
        {{R"({"x":1e400,"y":50,"type":"text","value":"inf"})",
          R"({"x":NaN,"y":5,"type":"text","value":"nan"})"},
         {}},
        {{element("text", "far", 1e12, -1e12)}, {}},
        {many, {{"a", 10, 10}}},
        {{R"({"type":"text","value":"A"})", element("text", "B", 20, 20), "7", "null",
          R"({"x":10,"y":null,"type":"text","value":"C"})", R"({"x":1,"y":1,"type":"text"})"},
         {{"B", 20, 20}},
         -1,
         no("x") + no("y") + no("x") + no("y") + no("type") + no("value") + no("y") + no("value")},
    };
    time_t mtime = 1000;
    for (const Case& c : cases) {
        SCOPED_TRACE(c.elements[0].substr(0, 80));
        writeFile(path, document(c.elements), ++mtime);
        const cv::Mat background = c.flat < 0 ? scene({1280, 720}) : solid(c.flat);
        cv::Mat frame = background.clone();
        EXPECT_EQ(apply(frame), "{P} updated\n" + c.said);
        EXPECT_TRUE(same(frame, reference(background, c.drawn)));
    }
}

// The bytes of cv::resize, the drawing and cv::imencode, for a frame and for
// the next one, which reuses the pooled buffers, the encoder and its output.
// The noisiest frame's JPEG outgrows the encoder's first buffer.
TEST(FastPath, ComposedBytesEqualLibraryResizeAndEncode) {
    TempDir dir;
    writeFile(dir.file("overlays.json"),
              document({element("text", "Gate 3", 85, 5), element("date", "%Y"),
                        element("queue_rate", "%.1f fps", 15, 88)}));
    const FakeRates rates;
    const std::tuple<cv::Size, const char*, double> cases[] = {
        {{1920, 1080}, "absent.json", 12}, {{1920, 1080}, "overlays.json", 12},
        {{1280, 720}, "absent.json", 12},  {{1280, 720}, "overlays.json", 90},
        {{1021, 767}, "absent.json", 12},  {{1021, 767}, "overlays.json", 12}};
    for (const auto& [camera, overlays, noise] : cases) {
        SCOPED_TRACE(testing::Message() << camera << overlays);
        FramePool pool;
        FrameComposer composer(rates, pool, dir.file(overlays));
        FrameComposer library(rates, pool, dir.file(overlays));
        cv::Mat slot = scene(camera, noise), expected;
        std::vector<uchar> expectedJpeg;
        cv::resize(slot, expected, cv::Size(1280, 720), 0, 0, cv::INTER_LINEAR);
        library.applyOverlays(expected);
        cv::imencode(".jpg", expected, expectedJpeg, {cv::IMWRITE_JPEG_QUALITY, 55});
        const std::string jpeg = composer.composeFrame(slot);
        EXPECT_TRUE(same(slot, expected));
        EXPECT_TRUE(jpeg == std::string(expectedJpeg.begin(), expectedJpeg.end()));
        EXPECT_EQ(jpeg.size() > 256 * 1024, noise > 12);
        cv::Mat again = scene(camera, noise);
        EXPECT_EQ(composer.composeFrame(again), jpeg);
    }
}

// Widths that leave the kernel's vector loop a scalar tail, or nothing but
// one, and JPEG blocks that the picture only partly fills.
TEST(FastPath, KernelAndEncoderEqualLibraryOnNarrowFrames) {
    for (const cv::Size to : {cv::Size(40, 20), cv::Size(4, 2), cv::Size(66, 8)}) {
        const cv::Mat image = scene(cv::Size(to.width * 3 / 2, to.height * 3 / 2));
        cv::Mat scaled, expected;
        std::vector<uchar> jpeg, expectedJpeg;
        cv::resize(image, expected, to, 0, 0, cv::INTER_LINEAR);
        scaleThreeToTwo(image, scaled, to);
        cv::imencode(".jpg", scaled, expectedJpeg, {cv::IMWRITE_JPEG_QUALITY, 55});
        EXPECT_TRUE(canScaleThreeToTwo(image, to) && same(scaled, expected)) << to;
        EXPECT_TRUE(JpegWriter().write(scaled, 55, jpeg) && jpeg == expectedJpeg) << to;
    }
    EXPECT_FALSE(canScaleThreeToTwo(cv::Mat(1080, 1920, CV_8UC1), cv::Size(1280, 720)));
}
