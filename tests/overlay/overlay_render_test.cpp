// Drawing overlays: box geometry, the half-weight blend, the overlay types
// and what hostile overlay files draw.
#include <gtest/gtest.h>
#include <opencv2/imgproc.hpp>

#include <chrono>
#include <cmath>

#include "overlay_helpers.h"

using namespace overlaytest;
using testing::internal::CaptureStdout;
using testing::internal::GetCapturedStdout;

namespace {

struct Box {
    int left, top, right, bottom;  // inclusive
};

// The box of a text centred on pixel (px, py), from the measured size:
// origin = (trunc(px - w div 2), trunc(h div 2 + py)); margins 4, 4 above, 7 below.
Box expectedBox(const std::string& text, double px, double py) {
    int baseline = 0;
    const cv::Size size = cv::getTextSize(text, cv::FONT_HERSHEY_DUPLEX, 1.0, 1, &baseline);
    const int ox = static_cast<int>(std::trunc(px - size.width / 2));
    const int oy = static_cast<int>(std::trunc(size.height / 2 + py));
    return {ox - 4, oy - size.height - 4, ox + size.width + 4, oy + 7};
}

cv::Rect clipped(const Box& b) {
    return cv::Rect(cv::Point(b.left, b.top), cv::Point(b.right + 1, b.bottom + 1)) &
           cv::Rect(0, 0, 1280, 720);
}

// Pixels outside `inside` are bit-for-bit those of `original`.
int changedOutside(const cv::Mat& frame, const cv::Mat& original, const cv::Rect& inside) {
    cv::Mat diff;
    cv::absdiff(frame, original, diff);
    diff(inside).setTo(cv::Scalar::all(0));
    return cv::countNonZero(diff.reshape(1));
}

class OverlayRenderTest : public ::testing::Test {
protected:
    cv::Mat draw(const std::string& json, const cv::Mat& background) {
        return render(json, background, rates);
    }
    FakeRates rates;
};

struct Placement {
    const char* name;
    const char* text;
    double x, y;  // percent
};

class BoxGeometryTest : public OverlayRenderTest, public ::testing::WithParamInterface<Placement> {};

TEST_P(BoxGeometryTest, BoxCornersAndBlendOnBlackAndWhite) {
    const Placement& at = GetParam();
    const std::string json = document({element("text", at.text, at.x, at.y)});
    const Box box = expectedBox(at.text, at.x * 12.8, at.y * 7.2);
    const cv::Rect area = clipped(box);
    ASSERT_FALSE(area.empty());

    const cv::Mat black = draw(json, solid(0));
    const cv::Mat white = draw(json, solid(255));
    EXPECT_EQ(changedOutside(black, solid(0), area), 0);
    EXPECT_EQ(changedOutside(white, solid(255), area), 0);

    // On white the box is mid-grey up to its exact corners, and one pixel
    // beyond each corner the frame is untouched. Corners off the frame are
    // clipped and not checked.
    const cv::Vec3b grey(128, 128, 128), full(255, 255, 255);
    auto inFrame = [](int x, int y) { return x >= 0 && x < 1280 && y >= 0 && y < 720; };
    const int corners[4][4] = {{box.left, box.top, -1, -1},
                               {box.right, box.top, 1, -1},
                               {box.left, box.bottom, -1, 1},
                               {box.right, box.bottom, 1, 1}};
    int checked = 0;
    for (const auto& c : corners) {
        if (!inFrame(c[0], c[1])) continue;
        ++checked;
        EXPECT_EQ(white.at<cv::Vec3b>(c[1], c[0]), grey) << c[0] << "," << c[1];
        if (inFrame(c[0] + c[2], c[1])) {
            EXPECT_EQ(white.at<cv::Vec3b>(c[1], c[0] + c[2]), full) << c[0] << "," << c[1];
        }
        if (inFrame(c[0], c[1] + c[3])) {
            EXPECT_EQ(white.at<cv::Vec3b>(c[1] + c[3], c[0]), full) << c[0] << "," << c[1];
        }
    }
    EXPECT_GT(checked, 0);
    double whiteMin = 0, whiteMax = 0, blackMax = 0;
    cv::minMaxLoc(white(area).reshape(1), &whiteMin, &whiteMax);
    cv::minMaxLoc(black(area).reshape(1), nullptr, &blackMax);
    EXPECT_EQ(whiteMin, 128);

    // Text pixels: black frame 0.5 t, white frame 0.5 t + 127.5, so the two
    // differ by 127 or 128 everywhere in the box.
    cv::Mat diff;
    cv::subtract(white(area), black(area), diff, cv::noArray(), CV_16SC3);
    double diffMin = 0, diffMax = 0;
    cv::minMaxLoc(diff.reshape(1), &diffMin, &diffMax);
    EXPECT_GE(diffMin, 127);
    EXPECT_LE(diffMax, 128);

    if (std::string(at.text).empty()) {
        EXPECT_EQ(blackMax, 0);  // an empty text is a bare box
    } else {
        // Fully covered text pixels ("Hello" has some): 255 on white, 128
        // (127.5 rounded) on black.
        EXPECT_EQ(whiteMax, 255);
        EXPECT_EQ(blackMax, 128);
    }
}

INSTANTIATE_TEST_SUITE_P(
    Placements, BoxGeometryTest,
    ::testing::Values(Placement{"Centre", "Hello", 50, 50},
                      Placement{"ClippedTopLeft", "Hello", 0, 0},
                      Placement{"ClippedBottomRight", "Hello", 100, 100},
                      Placement{"TruncatesTowardZero", "Hello", -0.5, 30.05},  // not floor
                      Placement{"Fractional", "Hello", 33.3, 71.7},
                      Placement{"EmptyText", "", 50, 50}),
    [](const ::testing::TestParamInfo<Placement>& info) { return std::string(info.param.name); });

TEST_F(OverlayRenderTest, CentreAtFiftyFiftyMatchesTheStatedCorners) {
    const std::string text = "Camera 1";
    int baseline = 0;
    const cv::Size s = cv::getTextSize(text, cv::FONT_HERSHEY_DUPLEX, 1.0, 1, &baseline);
    const cv::Mat white = draw(document({element("text", text)}), solid(255));
    const cv::Rect box(cv::Point(636 - s.width / 2, 356 + s.height / 2 - s.height),
                       cv::Point(644 - s.width / 2 + s.width + 1, 367 + s.height / 2 + 1));
    EXPECT_EQ(changedOutside(white, solid(255), box), 0);
    cv::Mat inside = white(box).clone();
    double lowest = 0;
    cv::minMaxLoc(inside.reshape(1), &lowest);
    EXPECT_EQ(lowest, 128);
    // The frame of the box is all grey: the margins hold no text.
    EXPECT_EQ(cv::countNonZero(inside.row(0).reshape(1) != 128), 0);
    EXPECT_EQ(cv::countNonZero(inside.row(inside.rows - 1).reshape(1) != 128), 0);
    EXPECT_EQ(cv::countNonZero(inside.col(0).reshape(1) != 128), 0);
    EXPECT_EQ(cv::countNonZero(inside.col(inside.cols - 1).reshape(1) != 128), 0);
}

TEST_F(OverlayRenderTest, OverlappingBoxesDarkenOnceAndTheLaterHidesTheEarlier) {
    // A box of spaces over a wider text at the same centre: inside the second
    // box the first text is gone and the picture is darkened only once.
    const std::string wide = "WWWWWWWWWW", blank = "      ";
    const cv::Mat frame =
        draw(document({element("text", wide), element("text", blank)}), solid(100));
    const cv::Rect second = clipped(expectedBox(blank, 640, 360));
    EXPECT_EQ(cv::countNonZero(frame(second).reshape(1) != 50), 0);
    double lowest = 0;
    cv::minMaxLoc(frame.reshape(1), &lowest);
    EXPECT_EQ(lowest, 50);
    // The first text still shows outside the second box.
    const cv::Rect first = clipped(expectedBox(wide, 640, 360));
    EXPECT_GT(cv::countNonZero(frame(first).reshape(1) > 50), 0);
}

TEST_F(OverlayRenderTest, TypesDrawLikeTheirTextCounterparts) {
    rates.queue = 12.5;
    rates.dequeue = 3.25;
    struct Case {
        const char* what;
        std::string overlay, sameAs;
    };
    const std::vector<Case> cases = {
        {"type in capitals", element("TEXT", "Hello"), element("text", "Hello")},
        {"date without conversions", element("date", "Camera 1"), element("text", "Camera 1")},
        {"time is date", element("Time", "Cam %% 2"), element("text", "Cam % 2")},
        {"queue rate", element("queue_rate", "%.1f fps"), element("text", "12.5 fps")},
        {"dequeue rate", element("DEQUEUE_RATE", "%06.2f"), element("text", "003.25")},
        {"rate with %% and flags", element("queue_rate", "100%% %-6.1f|"),
         element("text", "100% 12.5  |")},
        {"%lf", element("queue_rate", "%lf"), element("text", "12.500000")},
        {"number as text", rawElement("50", "50", R"("text")", "42"), element("text", "42")},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        const cv::Mat got = draw(document({c.overlay}), solid(90));
        const cv::Mat want = draw(document({c.sameAs}), solid(90));
        EXPECT_GT(differingPixels(got, solid(90)), 0);
        EXPECT_EQ(differingPixels(got, want), 0);
    }
}

TEST_F(OverlayRenderTest, RateIsReadFromTheSourceOnEveryFrame) {
    testutil::TempDir dir;
    const std::string path = dir.file("overlays.json");
    writeFile(path, document({element("queue_rate", "%.2f")}), 1000);
    FrameComposer composer(rates, path);
    CaptureStdout();
    cv::Mat zero = solid(0), later = solid(0);
    composer.applyOverlays(zero);  // no rate measured yet: 0.00
    rates.queue = 29.97;
    composer.applyOverlays(later);
    GetCapturedStdout();
    EXPECT_EQ(differingPixels(zero, draw(document({element("text", "0.00")}), solid(0))), 0);
    EXPECT_EQ(differingPixels(later, draw(document({element("text", "29.97")}), solid(0))), 0);
}

TEST_F(OverlayRenderTest, DateFollowsLocalTime) {
    // Whole-hour zones two hours apart give different hours; the minute at
    // which the two frames are drawn may not change in between.
    testutil::TempDir dir;
    const std::string path = dir.file("overlays.json");
    writeFile(path, document({element("date", "%H")}), 1000);
    const char* old = getenv("TZ");
    const std::string saved = old ? old : "";
    FrameComposer composer(rates, path);
    cv::Mat utc, plusTwo;
    struct tm before {}, after {};
    // Retry if the hour turns between the two frames.
    for (int attempt = 0; attempt < 3; ++attempt) {
        const time_t start = time(nullptr);
        CaptureStdout();
        setenv("TZ", "UTC0", 1);
        utc = solid(0);
        composer.applyOverlays(utc);
        setenv("TZ", "XXX-2", 1);
        plusTwo = solid(0);
        composer.applyOverlays(plusTwo);
        GetCapturedStdout();
        const time_t end = time(nullptr);
        gmtime_r(&start, &before);
        gmtime_r(&end, &after);
        if (before.tm_hour == after.tm_hour) break;
    }
    old ? setenv("TZ", saved.c_str(), 1) : unsetenv("TZ");
    tzset();
    ASSERT_EQ(before.tm_hour, after.tm_hour);
    char utcHour[8], laterHour[8];
    std::snprintf(utcHour, sizeof utcHour, "%02d", before.tm_hour);
    std::snprintf(laterHour, sizeof laterHour, "%02d", (before.tm_hour + 2) % 24);
    EXPECT_EQ(differingPixels(utc, draw(document({element("text", utcHour)}), solid(0))), 0);
    EXPECT_EQ(differingPixels(plusTwo, draw(document({element("text", laterHour)}), solid(0))),
              0);
}

// The composer copies and blends only around the boxes. Whatever it skips
// must be what a whole-frame pass leaves unchanged: the result is compared
// with one, on a noisy picture, with boxes that overlap, hang off every edge,
// and hold glyphs that reach past the box, twice with the same composer so
// that the canvas still holds the first frame's drawing.
TEST(OverlayBlend, SameAsCopyingAndBlendingTheWholeFrame) {
    struct Text {
        std::string line;
        double x, y;  // percent
    };
    auto wholeFramePass = [](const cv::Mat& background, const std::vector<Text>& texts) {
        cv::Mat frame = background.clone(), canvas = background.clone();
        for (const Text& t : texts) {
            int baseline = 0;
            const cv::Size size = cv::getTextSize(t.line, cv::FONT_HERSHEY_DUPLEX, 1.0, 1, &baseline);
            const cv::Point origin(static_cast<int>(t.x * 12.8 - size.width / 2),
                                   static_cast<int>(size.height / 2 + t.y * 7.2));
            cv::rectangle(canvas, cv::Point(origin.x - 4, origin.y + 7),
                          cv::Point(origin.x + size.width + 4, origin.y - size.height - 4),
                          cv::Scalar::all(0), cv::FILLED, cv::LINE_8);
            cv::putText(canvas, t.line, origin, cv::FONT_HERSHEY_DUPLEX, 1.0,
                        cv::Scalar::all(255), 1, cv::LINE_AA);
        }
        cv::addWeighted(canvas, 0.5, frame, 0.5, 0.0, frame);
        return frame;
    };
    const std::string reaching = "gjpqy|()[]{}_@^`~";
    const std::vector<std::vector<Text>> passes = {
        {{"WWWWWWWWWW", 50, 50}, {reaching, 52, 53}, {"corner", 0, 0}, {reaching, 100, 100},
         {"top", 30, -1}, {"left", -2, 40}, {std::string(200, 'M'), 50, 80}, {"far", 5000, 50}},
        {{reaching, 20, 20}, {"edge", 99, 2}, {"overlap A", 60, 60}, {"overlap B", 62, 61}},
    };

    FakeRates rates;
    testutil::TempDir dir;
    const std::string path = dir.file("overlays.json");
    FrameComposer composer(rates, path);
    cv::RNG rng(7);
    for (size_t pass = 0; pass < passes.size(); ++pass) {
        std::vector<std::string> elements;
        for (const Text& t : passes[pass]) elements.push_back(element("text", t.line, t.x, t.y));
        writeFile(path, document(elements), static_cast<time_t>(1000 + pass));
        cv::Mat background(720, 1280, CV_8UC3);
        rng.fill(background, cv::RNG::UNIFORM, 0, 256);

        cv::Mat frame = background.clone();
        CaptureStdout();
        composer.applyOverlays(frame);
        GetCapturedStdout();
        EXPECT_EQ(differingPixels(frame, wholeFramePass(background, passes[pass])), 0) << "pass " << pass;
        EXPECT_GT(differingPixels(frame, background), 0) << "pass " << pass;
    }
}

TEST(RateFormat, OnlyLiteralTextAndOneFloatingConversionPass) {
    const char* accepted[] = {"%f",     "%.1f fps", "%-+ #012.3e", "%79.79g", "%%%a%%",
                              "%lf",    "%.f",      "x%Gy",        "%E",      "%F %%"};
    const char* rejected[] = {"",       "fps",   "%s",      "%n",     "%d",    "%f %f",
                              "%*f",    "%.*f",  "%1$f",    "%99999f", "%.9999f", "%80f",
                              "%.80f",  "%100f", "%",       "abc%",   "%Lf",   "%hf",
                              "%llf",   "%q",    "%5",      "%-",     "%%",    "%lld"};
    for (const char* f : accepted) EXPECT_TRUE(isSafeRateFormat(f)) << f;
    for (const char* f : rejected) EXPECT_FALSE(isSafeRateFormat(f)) << f;
    EXPECT_TRUE(isSafeRateFormat((std::string(250, 'a') + "%f").c_str()));
    EXPECT_FALSE(isSafeRateFormat((std::string(255, 'a') + "%f").c_str()));
}

// Hostile overlay files: none may crash or stall, and each draws either
// nothing or what a well-formed file would draw.
TEST_F(OverlayRenderTest, HostileInputsDrawBoundedOrNothing) {
    rates.queue = 12.5;
    const std::string nothing;  // "sameAs" for: the frame stays as it was
    std::string nested = "{\"overlays\":";
    for (int i = 0; i < 10000; ++i) nested += "[";
    nested += "1";
    for (int i = 0; i < 10000; ++i) nested += "]";
    nested += "}";
    std::string manyNumbers = "{\"overlays\":[" + element("text", "A", 50, 10);
    std::string manyNulls = "{\"overlays\":[";
    for (int i = 0; i < 100000; ++i) manyNumbers += ",7", manyNulls += "null,";
    manyNumbers += "]}";
    manyNulls += element("text", "late") + "]}";
    std::string manyGood = "{\"overlays\":[";
    for (int i = 0; i < 63; ++i) manyGood += element("text", "A", 50, 10) + ",";
    manyGood += element("text", "64th", 50, 90) + "," + element("text", "65th", 50, 50) + "]}";

    struct Case {
        const char* what;
        std::string json, sameAs;
    };
    auto rate = [](const std::string& f) { return document({element("queue_rate", f)}); };
    auto date = [](const std::string& f) { return document({element("date", f)}); };
    auto text = [](const std::string& t) { return document({element("text", t)}); };
    std::string repeatedYear;
    for (int i = 0; i < 200; ++i) repeatedYear += "%Y";
    const std::vector<Case> cases = {
        {"rate %s", rate("%s"), nothing},
        {"rate %n", rate("%n"), nothing},
        {"rate two conversions", rate("%f %f"), nothing},
        {"rate star width", rate("%*f"), nothing},
        {"rate positional", rate("%1$f"), nothing},
        {"rate huge width", rate("%99999f"), nothing},
        {"rate huge precision", rate("%.9999f"), nothing},
        {"rate lone percent", rate("50%"), nothing},
        {"rate no conversion", rate("fps"), nothing},
        {"rate long literal", rate(std::string(300, 'a') + "%f"), nothing},
        {"rate output cut to 79 bytes", rate(std::string(200, 'a') + "%.1f"),
         text(std::string(79, 'a'))},
        {"rate widest", rate("%79.1f"), text(std::string(75, ' ') + "12.5")},
        {"date longer than its buffer", date(repeatedYear), nothing},
        {"date huge width", date("%1000000000Y"), nothing},
        {"date empty", date(""), nothing},
        {"date long format", date(std::string(300, 'a')), nothing},
        {"date literal at the limit", date(std::string(99, 'b')), text(std::string(99, 'b'))},
        {"huge text", text(std::string(100000, 'W')), text(std::string(256, 'W'))},
        {"NUL in text", document({R"({"x":50,"y":50,"type":"text","value":"AB\u0000CD"})"}),
         text("AB")},
        {"NUL in type", document({R"({"x":50,"y":50,"type":"te\u0000xt","value":"A"})"}), nothing},
        {"NaN position", document({rawElement("NaN", "50", "\"text\"", "\"A\"")}), nothing},
        {"infinite position", document({rawElement("-1e999", "50", "\"text\"", "\"A\"")}),
         nothing},
        {"far position", document({rawElement("1e308", "-1e308", "\"text\"", "\"A\"")}), nothing},
        {"position as string", document({rawElement("\"50\"", "\"50\"", "\"text\"", "\"A\"")}),
         text("A")},
        {"position as garbage string",
         document({rawElement("\"abc\"", "50", "\"text\"", "\"A\"")}),
         document({element("text", "A", 0, 50)})},
        {"type a number", document({rawElement("50", "50", "5", "\"A\"")}), nothing},
        {"type an object", document({rawElement("50", "50", "{\"t\":1}", "\"A\"")}), nothing},
        {"value an object", document({rawElement("50", "50", "\"text\"", "{\"a\":[1]}")}),
         text("{ \"a\": [ 1 ] }")},
        {"unknown type", document({element("bogus", "A")}), nothing},
        {"image", document({element("image", "/etc/passwd")}), nothing},
        {"depth 10000", nested, nothing},
        {"10^5 numbers after one overlay", manyNumbers, document({element("text", "A", 50, 10)})},
        {"10^5 nulls before one overlay", manyNulls, nothing},
        {"only the first 64 elements", manyGood,
         document({element("text", "A", 50, 10), element("text", "64th", 50, 90)})},
        {"overlays an object", R"({"overlays":{"0":{"x":1}}})", nothing},
        {"overlays a number", R"({"overlays":3})", nothing},
        {"overlays a string", R"({"overlays":"text"})", nothing},
        {"root a string", R"("overlays")", nothing},
        {"truncated", document({element("text", "A")}).substr(0, 30), nothing},
        {"raw NUL byte", std::string("{\"overlays\":[\0]}", 16), nothing},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        testutil::TempDir dir;
        const std::string path = dir.file("overlays.json");
        writeFile(path, c.json, 1000);
        FrameComposer composer(rates, path);
        const auto start = std::chrono::steady_clock::now();
        cv::Mat first = solid(90), second = solid(90);
        CaptureStdout();
        composer.applyOverlays(first);
        composer.applyOverlays(second);
        const std::string printed = GetCapturedStdout();
        const auto took = std::chrono::steady_clock::now() - start;
        EXPECT_LT(took, std::chrono::seconds(2));
        EXPECT_LE(printed.size(), 2 * 4 * 64 * sizeof("Missing 'value' tag in overlay\n") + 200);
        const cv::Mat want = c.sameAs.empty() ? solid(90) : draw(c.sameAs, solid(90));
        EXPECT_EQ(differingPixels(first, want), 0);
        EXPECT_EQ(differingPixels(second, want), 0);
    }
}

}  // namespace
