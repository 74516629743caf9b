// Bilinear scaling by exactly 2/3 in both directions (1920 x 1080 to
// 1280 x 720), with the same output bytes as cv::resize with INTER_LINEAR.
//
// For this ratio every output pixel lies a quarter of the way between two
// source pixels, so the library's fixed-point weights are 1536 and 512 (of
// 2048) in each direction. Its 8-bit path first sums each row exactly
// (3a + b), then combines two such sums as
//   ((3 * top) >> 2) + (bottom >> 2), rounded by (+ 2) >> 2
// (or with the weights the other way round): the truncations are part of
// the result, so the kernel repeats them as they are. The library takes
// its generic path for this ratio; doing only this case costs a fraction.
#pragma once

#include <opencv2/core.hpp>

// Whether scaleThreeToTwo applies: an 8-bit, 3-channel image whose size is
// exactly 3/2 of `to`.
bool canScaleThreeToTwo(const cv::Mat& image, cv::Size to);

// REQUIRES: canScaleThreeToTwo(image, to). Scales `image` in its own
// buffer: afterwards `image` is a `to`-sized view of the top-left corner of
// that buffer (same row step), so the buffer is neither freed nor
// allocated. reclaimBuffer() turns it back into the whole buffer.
void scaleThreeToTwo(cv::Mat& image, cv::Size to);

// Makes a view that scaleThreeToTwo left behind cover its whole buffer
// again, so that the next frame of the original size is decoded into it
// without an allocation. Leaves any other image as it is.
void reclaimBuffer(cv::Mat& image);
