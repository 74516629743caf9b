#include "scale_three_to_two.h"

#include <opencv2/core/hal/intrin.hpp>

#include <cstdint>

namespace {

// Row sums of one output pixel pair from three source pixels p0 p1 p2 of
// one channel: the even output pixel is 3 p0 + p1, the odd one p1 + 3 p2.
// Then the vertical step of the library, on the sums of two source rows
// where `top` has the weight 1536 and `bottom` 512 (either may be the upper
// row in the picture).
inline uchar combine(int heavy, int light) {
    return static_cast<uchar>((((3 * heavy) >> 2) + (light >> 2) + 2) >> 2);
}

// Output rows 2k and 2k+1 from source rows 3k, 3k+1, 3k+2 (r0, r1, r2),
// output pixels [from, to). Scalar: the tail, and everything without SIMD.
void scalarPixels(const uchar* r0, const uchar* r1, const uchar* r2, uchar* out0, uchar* out1,
                  int from, int to) {
    for (int x = from; x < to; ++x) {
        const int k = x / 2;
        const int left = (x % 2 == 0) ? 3 * k : 3 * k + 1;  // heavier source pixel first
        const int heavyPixel = (x % 2 == 0) ? left : left + 1;
        const int lightPixel = (x % 2 == 0) ? left + 1 : left;
        for (int c = 0; c < 3; ++c) {
            auto sum = [&](const uchar* row) {
                return 3 * row[3 * heavyPixel + c] + row[3 * lightPixel + c];
            };
            out0[3 * x + c] = combine(sum(r0), sum(r1));
            out1[3 * x + c] = combine(sum(r2), sum(r1));
        }
    }
}

#if CV_SIMD128
using cv::v_uint16x8;
using cv::v_uint8x16;

// Row sums of 16 output pixel pairs of one channel, from 48 source pixels.
struct Sums {
    v_uint16x8 evenLo, evenHi, oddLo, oddHi;
};

inline v_uint16x8 triplePlus(const v_uint16x8& heavy, const v_uint16x8& light) {
    return heavy + heavy + heavy + light;
}

// The three channel planes of 48 source pixels, each split by pixel index
// modulo 3, then summed to the output pairs' row sums.
inline void rowSums(const uchar* src, Sums (&sums)[3]) {
    v_uint8x16 plane[3][3];  // [channel][16-pixel group]
    for (int g = 0; g < 3; ++g) {
        cv::v_load_deinterleave(src + 48 * g, plane[0][g], plane[1][g], plane[2][g]);
    }
    alignas(16) uchar staged[48];
    for (int c = 0; c < 3; ++c) {
        for (int g = 0; g < 3; ++g) cv::v_store_aligned(staged + 16 * g, plane[c][g]);
        v_uint8x16 p0, p1, p2;
        cv::v_load_deinterleave(staged, p0, p1, p2);
        v_uint16x8 p0lo, p0hi, p1lo, p1hi, p2lo, p2hi;
        cv::v_expand(p0, p0lo, p0hi);
        cv::v_expand(p1, p1lo, p1hi);
        cv::v_expand(p2, p2lo, p2hi);
        sums[c] = {triplePlus(p0lo, p1lo), triplePlus(p0hi, p1hi), triplePlus(p2lo, p1lo),
                   triplePlus(p2hi, p1hi)};
    }
}

inline v_uint16x8 combine(const v_uint16x8& heavy, const v_uint16x8& light) {
    return ((heavy + heavy + heavy) >> 2) + (light >> 2);
}

// 16 output pixels of one row and channel as even/odd pairs, interleaved
// back into pixel order: pixels 0-15 in `lo`, 16-31 in `hi`.
inline void outputPlane(const Sums& heavy, const Sums& light, v_uint8x16& lo, v_uint8x16& hi) {
    const v_uint8x16 even = cv::v_rshr_pack<2>(combine(heavy.evenLo, light.evenLo),
                                               combine(heavy.evenHi, light.evenHi));
    const v_uint8x16 odd = cv::v_rshr_pack<2>(combine(heavy.oddLo, light.oddLo),
                                              combine(heavy.oddHi, light.oddHi));
    cv::v_zip(even, odd, lo, hi);
}

// 32 output pixels of rows 2k and 2k+1 from 48 source pixels of rows 3k to
// 3k+2. Reads all its input before it writes.
inline void simdBlock(const uchar* r0, const uchar* r1, const uchar* r2, uchar* out0, uchar* out1) {
    Sums s0[3], s1[3], s2[3];
    rowSums(r0, s0);
    rowSums(r1, s1);
    rowSums(r2, s2);
    v_uint8x16 lo0[3], hi0[3], lo1[3], hi1[3];
    for (int c = 0; c < 3; ++c) {
        outputPlane(s0[c], s1[c], lo0[c], hi0[c]);
        outputPlane(s2[c], s1[c], lo1[c], hi1[c]);
    }
    cv::v_store_interleave(out0, lo0[0], lo0[1], lo0[2]);
    cv::v_store_interleave(out0 + 48, hi0[0], hi0[1], hi0[2]);
    cv::v_store_interleave(out1, lo1[0], lo1[1], lo1[2]);
    cv::v_store_interleave(out1 + 48, hi1[0], hi1[1], hi1[2]);
}
#endif

}  // namespace

bool canScaleThreeToTwo(const cv::Mat& image, cv::Size to) {
    return image.type() == CV_8UC3 && image.dims == 2 && to.width > 0 && to.height > 0 &&
           to.width % 2 == 0 && to.height % 2 == 0 && image.cols * 2 == to.width * 3 &&
           image.rows * 2 == to.height * 3;
}

void scaleThreeToTwo(cv::Mat& image, cv::Size to) {
    CV_Assert(canScaleThreeToTwo(image, to));
    // Output row y lands on source row y, which no later output row reads
    // (they read rows from 3y/2 on); within rows 0 and 1 each block reads
    // its 48 source pixels before writing 32, and never reads behind them.
    for (int k = 0; k < to.height / 2; ++k) {
        const uchar* r0 = image.ptr<uchar>(3 * k);
        const uchar* r1 = image.ptr<uchar>(3 * k + 1);
        const uchar* r2 = image.ptr<uchar>(3 * k + 2);
        uchar* out0 = image.ptr<uchar>(2 * k);
        uchar* out1 = image.ptr<uchar>(2 * k + 1);
        int x = 0;
#if CV_SIMD128
        for (; x + 32 <= to.width; x += 32) {
            simdBlock(r0 + 3 * x * 3 / 2, r1 + 3 * x * 3 / 2, r2 + 3 * x * 3 / 2, out0 + 3 * x,
                      out1 + 3 * x);
        }
#endif
        scalarPixels(r0, r1, r2, out0, out1, x, to.width);
    }
    image = image(cv::Rect(0, 0, to.width, to.height));
}

void reclaimBuffer(cv::Mat& image) {
    if (image.empty() || image.dims != 2) return;
    cv::Size whole;
    cv::Point offset;
    image.locateROI(whole, offset);
    if (whole == image.size()) return;
    image.adjustROI(offset.y, whole.height - offset.y - image.rows, offset.x,
                    whole.width - offset.x - image.cols);
}
