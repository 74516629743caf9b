// Turns one captured frame into the JPEG bytes that are served: scales it to
// 1280 x 720, draws the overlay file's texts into it at half opacity and
// encodes it with JPEG quality 55. The bytes are those of cv::resize
// (INTER_LINEAR), the drawing calls and cv::imencode; the faster scaler and
// encoder are used only where they give the same bytes.
//
// Owns the overlay file state, the overlay canvas, the encoder and its output
// buffer. Borrows the frame pool it scales into and the rate source, which
// must outlive it. Main thread only (the frame ring's consumer).
//
// The overlay file is untrusted input, so drawing is bounded: the first
// kMaxOverlaysPerFrame elements only; texts cut to kMaxTextBytes; positions
// that are not finite draw nothing and the others are clamped to +-kFarAway;
// a date format longer than kMaxTextBytes or expanding to nothing or to more
// than kTimeTextBytes draws nothing, and so does a rate format that fails
// isSafeRateFormat.
#pragma once

#include <cstdint>
#include <map>
#include <opencv2/core.hpp>
#include <opencv2/imgcodecs.hpp>
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
    FrameComposer(const RateSource& rates, FramePool& pool,
                  std::string overlayPath = kOverlayFilePath);
    FrameComposer(const FrameComposer&) = delete;
    FrameComposer& operator=(const FrameComposer&) = delete;

    // REQUIRES: slot is empty or holds an 8-bit, 3-channel frame. Scales the
    // slot to 1280 x 720 (a frame of another size into a pooled buffer, its
    // own buffer going to the pool), draws the overlays into it and encodes
    // it; the slot keeps the composed frame. Returns the JPEG bytes: empty
    // for an empty slot or when the encoder failed.
    std::string composeFrame(cv::Mat& slot);
    // Same, encoding into the caller's vector, which keeps its capacity.
    std::string composeFrame(cv::Mat& slot, std::vector<uchar>& jpegBuffer);

    // Draws the overlay file's overlays into `frame` (1280 x 720, 8UC3).
    // Without usable overlays the frame is neither copied nor touched.
    void applyOverlays(cv::Mat& frame);

    // Each draws one text and its box into the overlay canvas, centred on
    // pixel (x, y); a time or rate text that cannot be formatted draws
    // nothing. Image overlays are accepted but draw nothing.
    void drawTextBox(const char* text, double x, double y);
    void drawTimeText(const char* format, double x, double y);
    void drawRateText(const char* format, double (RateSource::*rate)() const, double x, double y);
    void drawImage(const char* path);

    std::vector<int> encodeParams{cv::IMWRITE_JPEG_QUALITY, 55};

private:
    friend struct FrameComposerPeer;

    // The composition's two library-replacing steps.
    void scaleToOutput(cv::Mat& frame);
    void encode(const cv::Mat& frame, std::vector<uchar>& out);

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

    // The copy of the frame the overlays are drawn on, blended back 50/50 so
    // that overlapping boxes darken the picture once. Only the areas the
    // texts can reach are copied and blended.
    cv::Mat overlayCanvas;
    OverlayFile overlayFile;
    struct CachedImage {
        int64_t stamp;
        cv::Mat image;
    };
    std::map<std::string, CachedImage> imageCache;  // for image overlays; nothing fills it
    const RateSource& rates;
    FramePool& pool;
    JpegWriter jpegWriter;
    // Reused from frame to frame.
    std::vector<uchar> jpegOutput;
    std::vector<PendingText> pending;
    std::vector<cv::Rect> dirty;
};
