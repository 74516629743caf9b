// The faster scaling and encoding paths against the library calls they
// stand in for: the same bytes, frame for frame.
#include <gtest/gtest.h>
#include <opencv2/imgcodecs.hpp>
#include <opencv2/imgproc.hpp>

#include "frame_composer.h"
#include "jpeg_writer.h"
#include "scale_three_to_two.h"
#include "support.h"

using namespace support;

namespace {

TEST(FastPath, ComposedBytesEqualLibraryResizeAndEncode) {
    TempDir dir;
    const std::string overlays = dir.file("overlays.json");
    writeFile(overlays, R"({"overlays":[{"x":85,"y":5,"type":"text","value":"Gate 3"},)"
                        R"({"x":50,"y":50,"type":"date","value":"%Y"},)"
                        R"({"x":15,"y":88,"type":"queue_rate","value":"%.1f fps"}]})");
    FakeRates rates;
    struct Case { cv::Size camera; bool withOverlays; };
    for (const Case& c : {Case{{1920, 1080}, false}, {{1920, 1080}, true}, {{1280, 720}, false},
                          {{1280, 720}, true}, {{1021, 767}, false}, {{1021, 767}, true}}) {
        SCOPED_TRACE(testing::Message() << c.camera << (c.withOverlays ? " with" : " without"));
        const std::string path = c.withOverlays ? overlays : dir.file("absent.json");
        FrameComposer composer(rates, path), reference(rates, path);
        cv::Mat slot = scene(c.camera), expected;
        cv::resize(slot, expected, cv::Size(1280, 720), 0, 0, cv::INTER_LINEAR);
        reference.applyOverlays(expected);
        std::vector<uchar> expectedJpeg;
        cv::imencode(".jpg", expected, expectedJpeg, {cv::IMWRITE_JPEG_QUALITY, 55});
        const uchar* buffer = slot.data;
        const std::string jpeg = composer.composeFrame(slot);
        EXPECT_TRUE(same(slot, expected));
        EXPECT_TRUE(jpeg == std::string(expectedJpeg.begin(), expectedJpeg.end()));
        // The decoded 1080p buffer comes back to the slot for the next decode.
        composer.buffers.prepareForDecode(slot);
        EXPECT_EQ(slot.data == buffer, c.camera != cv::Size(1021, 767));
        EXPECT_EQ(slot.size(), c.camera == cv::Size(1021, 767) ? cv::Size(1280, 720) : c.camera);
        // Again, with the buffers, encoder and output vector of the first frame.
        cv::Mat again = scene(c.camera);
        EXPECT_EQ(composer.composeFrame(again), jpeg);
    }
}

TEST(FastPath, KernelEqualsLibraryOnNarrowFrames) {
    // Widths that leave the vector loop a scalar tail, or nothing but one.
    for (const cv::Size to : {cv::Size(40, 20), cv::Size(4, 2), cv::Size(66, 8)}) {
        SCOPED_TRACE(to);
        cv::Mat image = scene(cv::Size(to.width * 3 / 2, to.height * 3 / 2)), expected;
        cv::resize(image, expected, to, 0, 0, cv::INTER_LINEAR);
        ASSERT_TRUE(canScaleThreeToTwo(image, to));
        cv::Mat scaled;
        scaleThreeToTwo(image, scaled, to);
        EXPECT_TRUE(same(scaled, expected));
    }
    EXPECT_FALSE(canScaleThreeToTwo(cv::Mat(1080, 1920, CV_8UC1), cv::Size(1280, 720)));
}

TEST(FastPath, EncoderOutgrowsItsFirstBuffer) {
    cv::Mat noise(720, 1280, CV_8UC3);
    cv::randu(noise, 0, 256);
    std::vector<uchar> expected, out;
    cv::imencode(".jpg", noise, expected, {cv::IMWRITE_JPEG_QUALITY, 55});
    ASSERT_GT(expected.size(), 256u * 1024);
    EXPECT_TRUE(JpegWriter().write(noise, 55, out));
    EXPECT_TRUE(out == expected);
}

}  // namespace
