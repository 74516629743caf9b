// Capture stamps (bench/stamp.h) through the transformations a served frame
// goes through: scaling to 1280 × 720, JPEG at quality 55, and the reduced
// grey decode a benchmark uses to read them cheaply.
#include <gtest/gtest.h>

#include <cstdint>
#include <vector>

#include <opencv2/core.hpp>
#include <opencv2/imgcodecs.hpp>
#include <opencv2/imgproc.hpp>

#include "../../bench/stamp.h"

namespace {

// 2024-05-01, and a value whose 40 bits alternate, so neighbouring blocks differ.
constexpr int64_t kWhen = 1714521600123456;

// A mid-grey picture with texture, stamped the way the camera stamps.
cv::Mat stampedPicture(cv::Size size, int64_t when) {
    cv::Mat grey(size, CV_8UC1, cv::Scalar(90));
    cv::circle(grey, {size.width / 3, size.height / 2}, size.height / 5, cv::Scalar(200), cv::FILLED);
    stamp::paint(grey.data, grey.step, grey.cols, grey.rows, when);
    return grey;
}

std::optional<int64_t> readStamp(const cv::Mat& grey, int64_t now) {
    return stamp::read(grey.data, grey.step, grey.cols, grey.rows, now);
}

// Scales to `served`, encodes as JPEG and decodes with `flags`.
cv::Mat served(const cv::Mat& grey, cv::Size servedSize, int flags) {
    cv::Mat scaled, bgr;
    cv::resize(grey, scaled, servedSize, 0, 0, cv::INTER_LINEAR);
    cv::cvtColor(scaled, bgr, cv::COLOR_GRAY2BGR);
    std::vector<uchar> jpeg;
    EXPECT_TRUE(cv::imencode(".jpg", bgr, jpeg, {cv::IMWRITE_JPEG_QUALITY, 55}));
    return cv::imdecode(jpeg, flags);
}

struct RoundTrip {
    cv::Size camera;
    cv::Size servedSize;
    int decodeFlags;
    cv::Size decoded;
};

void PrintTo(const RoundTrip& c, std::ostream* os) {
    *os << c.camera << " served at " << c.servedSize << ", decoded at " << c.decoded;
}

class StampRoundTrip : public ::testing::TestWithParam<RoundTrip> {};

TEST_P(StampRoundTrip, ReadsTheExactTimeBack) {
    const RoundTrip& c = GetParam();
    for (int64_t when : {kWhen, kWhen + 33333, int64_t{0x5555555555} + (int64_t{1} << 40) * 1559}) {
        cv::Mat picture = served(stampedPicture(c.camera, when), c.servedSize, c.decodeFlags);
        ASSERT_EQ(picture.size(), c.decoded);
        EXPECT_EQ(readStamp(picture, when + 50000), when);
    }
}

INSTANTIATE_TEST_SUITE_P(
    Pictures, StampRoundTrip,
    ::testing::Values(
        RoundTrip{{1920, 1080}, {1280, 720}, cv::IMREAD_GRAYSCALE, {1280, 720}},
        RoundTrip{{1920, 1080}, {1280, 720}, cv::IMREAD_REDUCED_GRAYSCALE_2, {640, 360}},
        RoundTrip{{1280, 720}, {1280, 720}, cv::IMREAD_REDUCED_GRAYSCALE_2, {640, 360}},
        RoundTrip{{640, 480}, {1280, 720}, cv::IMREAD_GRAYSCALE, {1280, 720}},
        RoundTrip{{1000, 562}, {1280, 720}, cv::IMREAD_REDUCED_GRAYSCALE_2, {640, 360}}));

TEST(StampTest, PicksTheTimeNearestNowAcrossTheWrapOfTheModulus) {
    const int64_t wrap = stamp::kModulus * 1560;
    for (int64_t when : {wrap - 2000, wrap + 2000}) {
        cv::Mat picture = stampedPicture({640, 360}, when);
        EXPECT_EQ(readStamp(picture, wrap), when);
        EXPECT_EQ(readStamp(picture, when + 500000), when);
        EXPECT_EQ(readStamp(picture, when - 500000), when);
    }
}

TEST(StampTest, UnstampedOrDamagedPictureReadsAsNoStamp) {
    cv::Mat plain(720, 1280, CV_8UC1, cv::Scalar(90));
    EXPECT_FALSE(readStamp(plain, kWhen).has_value());

    // Something drawn over one block pair: that bit is unreadable.
    cv::Mat covered = stampedPicture({1280, 720}, kWhen);
    cv::rectangle(covered, cv::Rect(640, 684, 32, 36), cv::Scalar(128), cv::FILLED);
    EXPECT_FALSE(readStamp(covered, kWhen).has_value());

    // Too small to hold readable blocks.
    cv::Mat tiny = stampedPicture({64, 120}, kWhen);
    EXPECT_FALSE(readStamp(tiny, kWhen).has_value());
}

}  // namespace
