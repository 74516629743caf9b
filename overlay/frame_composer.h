// Turns one captured frame into the JPEG bytes that are served: scales it to
// 1280 x 720, draws the overlays of the overlay file into it at half opacity
// and encodes it with JPEG quality 55. Camera and rtspQueue each own one.
//
// The bytes are those of cv::resize (INTER_LINEAR) and cv::imencode with
// encodeParams; two faster paths give the same bytes and are chosen by the
// frame alone: 1920 x 1080 frames are scaled by scaleThreeToTwo, and 8-bit
// 3-channel frames are encoded by JpegWriter when the parameters are a
// quality alone. Anything else takes the library calls.
//
// Owns: the overlay file state, the overlay canvas, the encoder and its
// parameters, and the output buffer of composeFrame(slot). Borrows: the
// frame pool it scales into (the frame ring's, shared with the read thread)
// and the rate source. Main thread only (the consumer of the frame ring);
// the only locks it takes are the pool's and, inside drawRateText, the rate
// source's, each for a moment.
//
// Every overlay is one line of white Hershey duplex text on a filled black
// box centred on its position. All overlays of a frame are drawn onto
// overlayCanvas, a copy of the frame, which is then blended back 50/50, so
// overlapping boxes darken the picture only once. Only the areas the boxes
// and their texts can reach are copied and blended: everywhere else the
// blend of two equal pixels gives the pixel back, so the result is the same
// as a whole-frame pass at a small part of its cost.
//
// The overlay file is untrusted input; these bounds keep a hostile file from
// crashing or stalling the main loop:
//  - At most kMaxOverlaysPerFrame elements (the first ones, in array order)
//    are examined per frame; later elements are ignored without a message.
//  - Texts are drawn and measured up to their first kMaxTextBytes bytes.
//  - Positions that are not finite draw nothing; finite ones are clamped to
//    +-kFarAway pixels, far outside the frame, before conversion to int.
//  - Date and time formats longer than kMaxTextBytes draw nothing. Their
//    expansion is bounded by the 100-byte buffer; when strftime returns 0
//    (expansion too long, or empty) the overlay draws nothing, not even a box.
//  - Rate formats are checked before use (isSafeRateFormat): literal text,
//    "%%" and exactly one floating conversion. A format that fails the check
//    draws nothing for that overlay. The output is cut to the 80-byte buffer.
#pragma once

#include <opencv2/core.hpp>
#include <opencv2/imgcodecs.hpp>

#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "frame_pool.h"
#include "jpeg_writer.h"
#include "overlay_file.h"
#include "rate_source.h"

inline constexpr int kOutputWidth = 1280;
inline constexpr int kOutputHeight = 720;
inline constexpr int kMaxOverlaysPerFrame = 64;
inline constexpr std::size_t kMaxTextBytes = 256;
inline constexpr double kFarAway = 100000.0;
inline constexpr std::size_t kTimeTextBytes = 100;  // terminating zero included
inline constexpr std::size_t kRateTextBytes = 80;   // terminating zero included

// Whether `format` may be handed to snprintf with one double: only literal
// text, "%%" and exactly one conversion of the form
//   % [flags -+ #0]* [width: 1-2 digits] [. precision: 0-2 digits] [l] f|F|e|E|g|G|a|A
// with width and precision at most kRateTextBytes - 1, and at most
// kMaxTextBytes bytes in all. No '*', no '$' positions, no other conversion.
bool isSafeRateFormat(const char* format);

class FrameComposer {
public:
    // `rates` and `pool` must outlive the composer.
    FrameComposer(const RateSource& rates, FramePool& pool, std::string overlayPath = kOverlayFilePath);
    FrameComposer(const FrameComposer&) = delete;
    FrameComposer& operator=(const FrameComposer&) = delete;

    // REQUIRES: slot holds an 8-bit, 3-channel frame (an empty slot gives an
    // empty result and is left alone). Scales the slot in place to
    // 1280 x 720, applies the overlays and encodes it; the slot keeps the
    // composed frame. Returns the JPEG bytes, empty if the encoder made none.
    // A slot of another size is scaled into a buffer from the pool, and its
    // own buffer goes to the pool for the read thread to decode into again.
    // The encoder writes into a member buffer reused frame to frame.
    std::string composeFrame(cv::Mat& slot);
    // Same, encoding into the caller's vector, which keeps its capacity.
    std::string composeFrame(cv::Mat& slot, std::vector<uchar>& jpegBuffer);

    // The scaling step alone: `frame` becomes 1280 x 720, its old buffer a
    // spare in the pool.
    void scaleToOutput(cv::Mat& frame);
    // The encoding step alone, into `out` (replacing its content).
    void encode(const cv::Mat& frame, std::vector<uchar>& out);

    // Draws the overlay file's overlays into `frame` (1280 x 720, 8UC3).
    // Without usable overlays the frame is neither copied nor touched.
    void applyOverlays(cv::Mat& frame);

    // The drawing operations below draw into overlayCanvas; (x, y) is the
    // pixel position of the text's centre.
    void drawTextBox(const char* text, double x, double y);
    void drawTimeText(const char* format, double x, double y);
    void drawRateText(const char* format, double (RateSource::*rate)() const, double x, double y);
    // Image overlays are accepted in the file but draw nothing.
    void drawImage(const char* path);

    std::vector<int> encodeParams{cv::IMWRITE_JPEG_QUALITY, 55};
    // The copy of the frame the overlays are drawn on; keeps its buffer.
    // After a pass only the areas drawn in hold the frame's pixels.
    cv::Mat overlayCanvas;
    OverlayFile overlayFile;
    struct CachedImage {
        int64_t stamp;
        cv::Mat image;
    };
    // Reserved for image overlays; nothing fills it.
    std::map<std::string, CachedImage> imageCache;

private:
    // One text of the pass in progress and where it goes.
    struct PendingText {
        std::string line;
        cv::Point origin;
        cv::Size size;
    };
    // Where the text goes: false for a centre that is not finite.
    static bool textGeometry(const std::string& line, double x, double y, cv::Point& origin,
                             cv::Size& size);
    // Every pixel that drawing a text's box and text can touch.
    static cv::Rect textArea(cv::Point origin, cv::Size size);
    // The box and the text into overlayCanvas.
    void drawBox(const std::string& line, cv::Point origin, cv::Size size);
    // Replaces overlapping areas by their bounding box until none overlap.
    static void mergeOverlapping(std::vector<cv::Rect>& areas);
    // The text of a date/time or rate overlay; false when it draws nothing.
    // The rate text is cut to kRateTextBytes.
    static bool formatTimeText(const char* format, char (&text)[kTimeTextBytes]);
    bool formatRateText(const char* format, double (RateSource::*rate)() const,
                        char (&text)[kTimeTextBytes]) const;

    const RateSource& rates;
    FramePool& pool;
    JpegWriter jpegWriter;
    // Reused from frame to frame.
    std::vector<uchar> jpegOutput;
    std::vector<PendingText> pending;
    std::vector<cv::Rect> dirty;
};
