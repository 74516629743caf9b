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

// REQUIRES: canScaleThreeToTwo(src, to); `dst` does not share memory with
// `src`. Gives `dst` the size `to` (allocating only if it has another size
// or type) and fills it.
void scaleThreeToTwo(const cv::Mat& src, cv::Mat& dst, cv::Size to);
