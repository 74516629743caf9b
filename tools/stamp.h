// Capture stamps: the wall-clock time at which the test camera generated a
// frame, written into the picture itself, so that a benchmark can read it
// back from any frame the server serves and tell how old that frame is.
//
// Layout, in proportion to the picture (so it holds after any scaling): two
// rows along the bottom edge, each 1/40 of the height tall, of 40 blocks each
// 1/40 of the width wide. The upper row carries the 40 bits of the time
// (microseconds since the epoch modulo 2^40, most significant bit on the
// left), white for 1 and black for 0; the lower row carries the complement.
// A reader compares each block with the one below it and accepts a stamp only
// when every pair clearly differs, so a picture without a stamp, or one
// damaged by something drawn over it, reads as no stamp rather than a wrong
// time. Blocks are 48 × 27 pixels at 1920 × 1080 and 32 × 18 at 1280 × 720,
// large enough to survive downscaling, H.264 and JPEG at quality 55.
//
// 2^40 microseconds are about 12.7 days: a reader picks the time, congruent
// to the stamp, that lies nearest its own clock.
//
// Header only, with no dependency: the test camera paints into its raw I420
// buffers, readers sample any 8-bit luma picture (OpenCV's grey decode).
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>

namespace stamp {

inline constexpr int kBits = 40;
inline constexpr int kRowsPerHeight = 40;  // each of the two rows is height / 40 tall
inline constexpr std::int64_t kModulus = std::int64_t{1} << kBits;
// Video-range luma, so no decoder clips or stretches the levels.
inline constexpr std::uint8_t kBlack = 16;
inline constexpr std::uint8_t kWhite = 235;
// A block pair whose mean lumas differ by less than this is unreadable.
inline constexpr int kMinContrast = 64;

// Half-open pixel span [begin, end).
struct Span {
    int begin;
    int end;
};

// Columns of block `bit` (0 = most significant) in a picture `width` wide.
inline Span blockColumns(int width, int bit) {
    return {bit * width / kBits, (bit + 1) * width / kBits};
}

// Lines of `row` (0 = the bits, 1 = their complement) in a picture `height` tall.
inline Span rowLines(int height, int row) {
    const int top = kRowsPerHeight - 2 + row;
    return {top * height / kRowsPerHeight, (top + 1) * height / kRowsPerHeight};
}

// First line of the stamp; everything from here to the bottom belongs to it.
inline int bandTop(int height) { return rowLines(height, 0).begin; }

// Paints the stamp of `unixMicros` into an 8-bit luma plane.
inline void paint(std::uint8_t* luma, std::size_t stride, int width, int height,
                  std::int64_t unixMicros) {
    const std::uint64_t value = static_cast<std::uint64_t>(unixMicros) & (kModulus - 1);
    for (int row = 0; row < 2; ++row) {
        const Span lines = rowLines(height, row);
        for (int bit = 0; bit < kBits; ++bit) {
            const bool one = ((value >> (kBits - 1 - bit)) & 1) != (row == 1);
            const Span cols = blockColumns(width, bit);
            for (int y = lines.begin; y < lines.end; ++y) {
                std::uint8_t* p = luma + static_cast<std::size_t>(y) * stride;
                for (int x = cols.begin; x < cols.end; ++x) p[x] = one ? kWhite : kBlack;
            }
        }
    }
}

namespace detail {

// Mean luma of the middle half (in both directions) of a block.
inline int blockMean(const std::uint8_t* luma, std::size_t stride, Span cols, Span lines) {
    const int w = cols.end - cols.begin;
    const int h = lines.end - lines.begin;
    const int x0 = cols.begin + w / 4;
    const int x1 = x0 + (w / 2 > 0 ? w / 2 : 1);
    const int y0 = lines.begin + h / 4;
    const int y1 = y0 + (h / 2 > 0 ? h / 2 : 1);
    long sum = 0;
    for (int y = y0; y < y1; ++y) {
        const std::uint8_t* p = luma + static_cast<std::size_t>(y) * stride;
        for (int x = x0; x < x1; ++x) sum += p[x];
    }
    return static_cast<int>(sum / (static_cast<long>(x1 - x0) * (y1 - y0)));
}

}  // namespace detail

// Reads the stamp from an 8-bit luma picture of any size (the painted picture
// or a scaled copy of it). Returns microseconds since the epoch: the value
// congruent to the stamp modulo 2^40 nearest `nowMicros`; nothing when the
// picture carries no clearly readable stamp.
inline std::optional<std::int64_t> read(const std::uint8_t* luma, std::size_t stride, int width,
                                        int height, std::int64_t nowMicros) {
    // Two lines per row and two columns per block at the very least.
    if (width < 2 * kBits || height < 4 * kRowsPerHeight) return std::nullopt;
    const Span upper = rowLines(height, 0);
    const Span lower = rowLines(height, 1);
    std::int64_t value = 0;
    for (int bit = 0; bit < kBits; ++bit) {
        const Span cols = blockColumns(width, bit);
        const int diff = detail::blockMean(luma, stride, cols, upper) -
                         detail::blockMean(luma, stride, cols, lower);
        if (diff > -kMinContrast && diff < kMinContrast) return std::nullopt;
        value = (value << 1) | (diff > 0 ? 1 : 0);
    }
    // Shift the stamp by whole moduli to the value nearest now.
    std::int64_t base = nowMicros - (nowMicros % kModulus);
    std::int64_t best = base + value;
    for (std::int64_t candidate : {best - kModulus, best + kModulus}) {
        const std::int64_t d =
            candidate > nowMicros ? candidate - nowMicros : nowMicros - candidate;
        const std::int64_t dBest = best > nowMicros ? best - nowMicros : nowMicros - best;
        if (d < dBest) best = candidate;
    }
    return best;
}

}  // namespace stamp
