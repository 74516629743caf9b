// JPEG encoding of BGR frames straight through libjpeg, with the bytes that
// cv::imencode(".jpg", frame, out, {IMWRITE_JPEG_QUALITY, q}) produces.
//
// The library's encoder converts every row from BGR to RGB before handing
// it to libjpeg; libjpeg-turbo reads BGR itself (JCS_EXT_BGR) and arrives
// at the same YCbCr samples. Everything else is set as the library sets
// it: jpeg_set_defaults, restart interval 0, jpeg_set_quality(q, TRUE).
//
// Owns one libjpeg compressor, kept from frame to frame. Not thread-safe.
#pragma once

#include <memory>
#include <opencv2/core.hpp>
#include <vector>

class JpegWriter {
public:
    JpegWriter();
    ~JpegWriter();
    JpegWriter(const JpegWriter&) = delete;
    JpegWriter& operator=(const JpegWriter&) = delete;

    // Whether write() takes `image`: 8 bits per channel, 3 channels.
    static bool accepts(const cv::Mat& image);

    // REQUIRES: accepts(image), 0 <= quality <= 100. Replaces the content of
    // `out` with the JPEG file; `out` keeps its capacity from call to call.
    // False (and `out` empty) if libjpeg reported an error.
    bool write(const cv::Mat& image, int quality, std::vector<uchar>& out);

private:
    struct State;
    std::unique_ptr<State> state;
};
