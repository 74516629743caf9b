#include "scale_three_to_two.h"

#include <cstdint>
#include <cstring>
#include <opencv2/core/hal/intrin.hpp>

namespace {

// Output rows 2k and 2k+1 come from source rows 3k..3k+2, output pixels
// 2j and 2j+1 from source pixels 3j..3j+2, each from the nearer pair with
// weights 3/4 and 1/4. A row sum is 3 * heavier + lighter (exact); the
// vertical step combines the row sums of two rows, `heavy` the row with the
// weight 3/4, with the library's truncations.
inline uchar combine(int heavy, int light) {
    return static_cast<uchar>((((3 * heavy) >> 2) + (light >> 2) + 2) >> 2);
}

// Output rows 2k and 2k+1 from source rows 3k, 3k+1, 3k+2 (r0, r1, r2),
// output pixels [from, to). Scalar: the tail, and everything without SIMD.
void scalarPixels(const uchar* r0, const uchar* r1, const uchar* r2, uchar* out0, uchar* out1,
                  int from, int to) {
    for (int x = from; x < to; ++x) {
        const int first = 3 * (x / 2);  // of the three source pixels
        const int heavyPixel = (x % 2 == 0) ? first : first + 2;
        const int lightPixel = first + 1;
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

// A block is 48 source pixels (144 bytes) of three rows giving 32 output
// pixels of two rows. Byte i of a block starts a row sum with byte i + 3:
// 3 a + b where i mod 9 < 3 (first channel bytes of an even output
// pixel), a + 3 b where 3 <= i mod 9 < 6 (odd output pixel); bytes with
// i mod 9 >= 6 produce nothing. kHeavyLeft[c] marks the first kind in the
// 8 lanes from byte 8c; the pattern repeats every 72 bytes.
struct HeavyLeftMasks {
    v_uint16x8 lanes[9];
    HeavyLeftMasks() {
        for (int c = 0; c < 9; ++c) {
            ushort m[8];
            for (int i = 0; i < 8; ++i) m[i] = (8 * c + i) % 9 < 3 ? 0xFFFF : 0;
            lanes[c] = cv::v_load(m);
        }
    }
};

// Row sums of one source row's block, one per byte (see above). Reads
// 3 bytes past the block.
inline void rowSums(const uchar* src, const HeavyLeftMasks& heavyLeft, v_uint16x8 (&sums)[18]) {
#pragma GCC unroll 9
    for (int c = 0; c < 9; ++c) {
        v_uint16x8 a[2], b[2];
        cv::v_expand(cv::v_load(src + 16 * c), a[0], a[1]);
        cv::v_expand(cv::v_load(src + 16 * c + 3), b[0], b[1]);
        for (int half = 0; half < 2; ++half) {
            const int lanes = 2 * c + half;
            const v_uint16x8 heavy = cv::v_select(heavyLeft.lanes[lanes % 9], a[half], b[half]);
            sums[lanes] = a[half] + b[half] + (heavy << 1);
        }
    }
}

inline v_uint16x8 combine(const v_uint16x8& heavy, const v_uint16x8& light) {
    return ((heavy + heavy + heavy) >> 2) + (light >> 2);
}

// One output row of the block: the vertical step on every byte, then the
// six bytes (two pixels) of each nine kept.
inline void outputRow(const v_uint16x8 (&heavy)[18], const v_uint16x8 (&light)[18], uchar* out) {
    alignas(16) uchar all[144];
#pragma GCC unroll 9
    for (int c = 0; c < 9; ++c) {
        cv::v_store_aligned(all + 16 * c,
                            cv::v_rshr_pack<2>(combine(heavy[2 * c], light[2 * c]),
                                               combine(heavy[2 * c + 1], light[2 * c + 1])));
    }
    // Eight bytes at a time, each store's last two overwritten by the next.
#pragma GCC unroll 15
    for (int g = 0; g < 15; ++g) std::memcpy(out + 6 * g, all + 9 * g, 8);
    std::memcpy(out + 90, all + 135, 6);
}

// Reads 3 bytes past its input.
inline void simdBlock(const uchar* r0, const uchar* r1, const uchar* r2, uchar* out0, uchar* out1,
                      const HeavyLeftMasks& heavyLeft) {
    v_uint16x8 s0[18], s1[18], s2[18];
    rowSums(r0, heavyLeft, s0);
    rowSums(r1, heavyLeft, s1);
    rowSums(r2, heavyLeft, s2);
    outputRow(s0, s1, out0);
    outputRow(s2, s1, out1);
}
#endif

}  // namespace

bool canScaleThreeToTwo(const cv::Mat& image, cv::Size to) {
    return image.type() == CV_8UC3 && image.dims == 2 && to.width > 0 && to.height > 0 &&
           to.width % 2 == 0 && to.height % 2 == 0 && image.cols * 2 == to.width * 3 &&
           image.rows * 2 == to.height * 3;
}

void scaleThreeToTwo(const cv::Mat& src, cv::Mat& dst, cv::Size to) {
    CV_Assert(canScaleThreeToTwo(src, to));
    dst.create(to, CV_8UC3);
#if CV_SIMD128
    static const HeavyLeftMasks heavyLeft;
#endif
    for (int k = 0; k < to.height / 2; ++k) {
        const uchar* r0 = src.ptr<uchar>(3 * k);
        const uchar* r1 = src.ptr<uchar>(3 * k + 1);
        const uchar* r2 = src.ptr<uchar>(3 * k + 2);
        uchar* out0 = dst.ptr<uchar>(2 * k);
        uchar* out1 = dst.ptr<uchar>(2 * k + 1);
        int x = 0;
#if CV_SIMD128
        // A block reads 3 bytes past its source pixels: the last block of
        // the last rows is left to the scalar loop, so nothing is read past
        // the image.
        const bool lastRows = k + 1 == to.height / 2;
        for (; x + 32 <= to.width && !(lastRows && x + 32 == to.width); x += 32) {
            simdBlock(r0 + 3 * x * 3 / 2, r1 + 3 * x * 3 / 2, r2 + 3 * x * 3 / 2, out0 + 3 * x,
                      out1 + 3 * x, heavyLeft);
        }
#endif
        scalarPixels(r0, r1, r2, out0, out1, x, to.width);
    }
}
