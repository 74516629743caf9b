// Composition: scaling to 1280 x 720, overlays, JPEG encoding.
#include <gtest/gtest.h>
#include <opencv2/imgcodecs.hpp>
#include <opencv2/imgproc.hpp>

#include "overlay_helpers.h"

using namespace overlaytest;
using testing::internal::CaptureStdout;
using testing::internal::GetCapturedStdout;

namespace {

// A smooth picture, so that JPEG at quality 55 stays close to it.
cv::Mat pattern(cv::Size size) {
    cv::Mat m(size, CV_8UC3);
    for (int y = 0; y < size.height; ++y)
        for (int x = 0; x < size.width; ++x)
            m.at<cv::Vec3b>(y, x) = cv::Vec3b(static_cast<uchar>(x * 255 / size.width),
                                              static_cast<uchar>(y * 255 / size.height), 128);
    return m;
}

double meanAbsDiff(const cv::Mat& a, const cv::Mat& b) {
    cv::Mat diff;
    cv::absdiff(a, b, diff);
    const cv::Scalar m = cv::mean(diff);
    return (m[0] + m[1] + m[2]) / 3;
}

class FrameComposerTest : public ::testing::Test {
protected:
    std::string compose(cv::Mat& slot) {
        CaptureStdout();
        std::string jpeg = composer.composeFrame(slot);
        GetCapturedStdout();
        return jpeg;
    }
    testutil::TempDir dir;
    std::string path = dir.file("overlays.json");
    FakeRates rates;
    FrameComposer composer{rates, path};
};

TEST_F(FrameComposerTest, AnyInputSizeBecomesA1280x720Jpeg) {
    for (const cv::Size input : {cv::Size(1920, 1080), cv::Size(640, 480), cv::Size(1280, 720)}) {
        SCOPED_TRACE(input);
        const cv::Mat original = pattern(input);
        cv::Mat scaled;
        cv::resize(original, scaled, cv::Size(1280, 720), 0, 0, cv::INTER_LINEAR);
        cv::Mat slot = original.clone();
        const std::string jpeg = compose(slot);

        // Without an overlay file the slot is the scaled frame alone; a
        // 4:3 frame is stretched, not letterboxed.
        ASSERT_EQ(slot.size(), cv::Size(1280, 720));
        EXPECT_EQ(differingPixels(slot, scaled), 0);
        if (input == cv::Size(1280, 720)) {
            EXPECT_EQ(differingPixels(slot, original), 0);
        }

        ASSERT_GT(jpeg.size(), 2u);
        EXPECT_EQ(static_cast<uchar>(jpeg[0]), 0xFF);
        EXPECT_EQ(static_cast<uchar>(jpeg[1]), 0xD8);
        const std::vector<uchar> bytes(jpeg.begin(), jpeg.end());
        const cv::Mat decoded = cv::imdecode(bytes, cv::IMREAD_UNCHANGED);
        ASSERT_EQ(decoded.size(), cv::Size(1280, 720));
        EXPECT_EQ(decoded.type(), CV_8UC3);
        EXPECT_LT(meanAbsDiff(decoded, scaled), 2.0);

        // Quality 55 and nothing else: the library's own encoding of the slot.
        std::vector<uchar> reference;
        cv::imencode(".jpg", slot, reference, {cv::IMWRITE_JPEG_QUALITY, 55});
        EXPECT_EQ(bytes, reference);
    }
}

TEST_F(FrameComposerTest, SlotKeepsTheComposedFrameWithOverlays) {
    writeFile(path, document({element("text", "Camera 1"), element("date", "%Y", 50, 10)}), 1000);
    const cv::Mat original = pattern(cv::Size(1920, 1080));
    cv::Mat slot = original.clone();
    const std::string jpeg = compose(slot);

    cv::Mat expected;
    cv::resize(original, expected, cv::Size(1280, 720), 0, 0, cv::INTER_LINEAR);
    const cv::Mat plain = expected.clone();
    FrameComposer other(rates, path);
    CaptureStdout();
    other.applyOverlays(expected);
    GetCapturedStdout();
    ASSERT_GT(differingPixels(expected, plain), 0);
    EXPECT_EQ(differingPixels(slot, expected), 0);

    // The JPEG carries the overlays: where they changed the picture, the
    // decoded image is near the composed frame and far from the plain one.
    const cv::Mat decoded = cv::imdecode(std::vector<uchar>(jpeg.begin(), jpeg.end()),
                                         cv::IMREAD_COLOR);
    ASSERT_EQ(decoded.size(), cv::Size(1280, 720));
    cv::Mat changed;
    cv::cvtColor(expected != plain, changed, cv::COLOR_BGR2GRAY);
    auto meanDiffWhereChanged = [&](const cv::Mat& other) {
        cv::Mat diff;
        cv::absdiff(decoded, other, diff);
        const cv::Scalar m = cv::mean(diff, changed);
        return (m[0] + m[1] + m[2]) / 3;
    };
    EXPECT_LT(meanDiffWhereChanged(slot), 10.0);
    EXPECT_GT(meanDiffWhereChanged(plain), 40.0);
    EXPECT_LT(meanAbsDiff(decoded, slot), 2.0);
}

TEST_F(FrameComposerTest, ReusedBufferGivesTheSameBytes) {
    writeFile(path, document({element("text", "Camera 1")}), 1000);
    const cv::Mat original = pattern(cv::Size(1920, 1080));
    cv::Mat first = original.clone(), second = original.clone(), third = original.clone();
    const std::string fresh = compose(first);
    std::vector<uchar> buffer(100, 0xAB);  // stale content must not leak through
    CaptureStdout();
    const std::string reused = composer.composeFrame(second, buffer);
    const std::string again = composer.composeFrame(third, buffer);
    GetCapturedStdout();
    EXPECT_FALSE(fresh.empty());
    EXPECT_EQ(reused, fresh);
    EXPECT_EQ(again, fresh);
    EXPECT_EQ(std::string(buffer.begin(), buffer.end()), fresh);
}

TEST_F(FrameComposerTest, EmptySlotGivesEmptyResult) {
    cv::Mat slot;
    std::vector<uchar> buffer(10, 1);
    EXPECT_EQ(compose(slot), "");
    EXPECT_EQ(composer.composeFrame(slot, buffer), "");
    EXPECT_TRUE(buffer.empty());
    EXPECT_TRUE(slot.empty());
}

}  // namespace
