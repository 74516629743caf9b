#include "frame_composer.h"

#include <strings.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <opencv2/imgproc.hpp>
#include <utility>

#include "scale_three_to_two.h"

namespace {

constexpr int kFont = cv::FONT_HERSHEY_DUPLEX;
constexpr double kFontScale = 1.0;
constexpr int kTextThickness = 1;
constexpr int kBoxMarginLeft = 4;
constexpr int kBoxMarginRight = 4;
constexpr int kBoxMarginAbove = 4;
constexpr int kBoxMarginBelow = 7;

bool isDigit(char c) { return c >= '0' && c <= '9'; }

// Reads up to two digits at p; false if there are more, or the value is
// above `limit`.
bool readSmallNumber(const char*& p, int limit) {
    int value = 0;
    int digits = 0;
    while (isDigit(*p)) {
        if (++digits > 2) return false;
        value = value * 10 + (*p - '0');
        ++p;
    }
    return value <= limit;
}

}  // namespace

bool isSafeRateFormat(const char* format) {
    if (strnlen(format, kMaxTextBytes + 1) > kMaxTextBytes) return false;
    constexpr int kLimit = static_cast<int>(kRateTextBytes) - 1;
    int conversions = 0;
    for (const char* p = format; *p != '\0'; ++p) {
        if (*p != '%') continue;
        ++p;
        if (*p == '%') continue;
        while (*p != '\0' && std::strchr("-+ #0", *p) != nullptr) ++p;
        if (!readSmallNumber(p, kLimit)) return false;
        if (*p == '.') {
            ++p;
            if (!readSmallNumber(p, kLimit)) return false;
        }
        if (*p == 'l') ++p;  // no effect on floating conversions
        if (*p == '\0' || std::strchr("fFeEgGaA", *p) == nullptr) return false;
        if (++conversions > 1) return false;
    }
    return conversions == 1;
}

FrameComposer::FrameComposer(const RateSource& rateSource, FramePool& framePool,
                             std::string overlayPath)
    : overlayFile(std::move(overlayPath)), rates(rateSource), pool(framePool) {}

std::string FrameComposer::composeFrame(cv::Mat& slot) { return composeFrame(slot, jpegOutput); }

std::string FrameComposer::composeFrame(cv::Mat& slot, std::vector<uchar>& jpegBuffer) {
    jpegBuffer.clear();
    if (slot.empty()) return std::string();
    scaleToOutput(slot);
    applyOverlays(slot);
    encode(slot, jpegBuffer);
    return std::string(jpegBuffer.begin(), jpegBuffer.end());
}

void FrameComposer::scaleToOutput(cv::Mat& frame) {
    const cv::Size output(kOutputWidth, kOutputHeight);
    if (frame.size() == output) return;  // the library would leave it as it is
    cv::Mat scaled = pool.take(output, frame.type());
    if (canScaleThreeToTwo(frame, output)) {
        scaleThreeToTwo(frame, scaled, output);
    } else {
        cv::resize(frame, scaled, output, 0, 0, cv::INTER_LINEAR);
    }
    pool.give(std::exchange(frame, std::move(scaled)));
}

void FrameComposer::encode(const cv::Mat& frame, std::vector<uchar>& out) {
    const bool qualityOnly =
        encodeParams.size() == 2 && encodeParams[0] == cv::IMWRITE_JPEG_QUALITY;
    if (qualityOnly && JpegWriter::accepts(frame)) {
        // The library clamps the quality the same way.
        jpegWriter.write(frame, std::clamp(encodeParams[1], 0, 100), out);
    } else {
        cv::imencode(".jpg", frame, out, encodeParams);
    }
}

void FrameComposer::applyOverlays(cv::Mat& frame) {
    int length = 0;
    if (!overlayFile.refreshOverlays(length)) return;

    // First the texts and where they go, so that only the areas they cover
    // need copying and blending: the rest of the frame would come out of a
    // whole-frame blend exactly as it went in (both inputs equal there).
    pending.clear();
    const int count = std::min(length, kMaxOverlaysPerFrame);
    for (int i = 0; i < count; ++i) {
        Overlay overlay;
        if (!overlayFile.readOverlay(i, overlay)) continue;
        const char* type = overlay.type;
        char text[kTimeTextBytes];
        const char* line = nullptr;
        if (strcasecmp(type, "date") == 0 || strcasecmp(type, "time") == 0) {
            if (formatTimeText(overlay.value, text)) line = text;
        } else if (strcasecmp(type, "text") == 0) {
            line = overlay.value;
        } else if (strcasecmp(type, "image") == 0) {
            drawImage(overlay.value);
        } else if (strcasecmp(type, "queue_rate") == 0) {
            if (formatRateText(overlay.value, &RateSource::queueRate, text)) line = text;
        } else if (strcasecmp(type, "dequeue_rate") == 0) {
            if (formatRateText(overlay.value, &RateSource::dequeueRate, text)) line = text;
        }
        if (line == nullptr) continue;
        PendingText p{std::string(line, strnlen(line, kMaxTextBytes)), {}, {}};
        if (!textGeometry(p.line, overlay.x, overlay.y, p.origin, p.size)) continue;
        pending.push_back(std::move(p));
    }

    const cv::Rect whole(0, 0, frame.cols, frame.rows);
    dirty.clear();
    for (const PendingText& p : pending) {
        const cv::Rect area = textArea(p.origin, p.size) & whole;
        if (!area.empty()) dirty.push_back(area);
    }
    mergeOverlapping(dirty);

    // Drawing happens in array order on the canvas, as one picture; each
    // area is blended once, so overlapping boxes darken the picture once.
    overlayCanvas.create(frame.size(), frame.type());
    for (const cv::Rect& area : dirty) frame(area).copyTo(overlayCanvas(area));
    for (const PendingText& p : pending) drawBox(p.line, p.origin, p.size);
    for (const cv::Rect& area : dirty) {
        cv::Mat target = frame(area);
        cv::addWeighted(overlayCanvas(area), 0.5, target, 0.5, 0.0, target, -1);
    }
}

bool FrameComposer::textGeometry(const std::string& line, double x, double y, cv::Point& origin,
                                 cv::Size& size) {
    if (!std::isfinite(x) || !std::isfinite(y)) return false;
    x = std::clamp(x, -kFarAway, kFarAway);
    y = std::clamp(y, -kFarAway, kFarAway);
    int baseline = 0;
    size = cv::getTextSize(line, kFont, kFontScale, kTextThickness, &baseline);
    // Integer halves first, then double arithmetic, truncated toward zero:
    // the text's centre falls on (x, y).
    origin =
        cv::Point(static_cast<int>(x - (size.width / 2)), static_cast<int>((size.height / 2) + y));
    return true;
}

cv::Rect FrameComposer::textArea(cv::Point origin, cv::Size size) {
    // The box, widened by a full text height on every side: glyphs reach
    // past the box below the baseline (descenders), above the measured
    // height (brackets, accents) and by a pixel of anti-aliasing sideways.
    const int reach = size.height + 2;
    const cv::Point topLeft(origin.x - kBoxMarginLeft - reach,
                            origin.y - size.height - kBoxMarginAbove - reach);
    const cv::Point pastBottomRight(origin.x + size.width + kBoxMarginRight + reach + 1,
                                    origin.y + kBoxMarginBelow + reach + 1);
    return cv::Rect(topLeft, pastBottomRight);
}

void FrameComposer::mergeOverlapping(std::vector<cv::Rect>& areas) {
    for (bool merged = true; merged;) {
        merged = false;
        for (size_t i = 0; i < areas.size() && !merged; ++i) {
            for (size_t j = i + 1; j < areas.size(); ++j) {
                if ((areas[i] & areas[j]).empty()) continue;
                areas[i] |= areas[j];
                areas.erase(areas.begin() + static_cast<std::ptrdiff_t>(j));
                merged = true;
                break;
            }
        }
    }
}

void FrameComposer::drawTextBox(const char* text, double x, double y) {
    const std::string line(text, strnlen(text, kMaxTextBytes));
    cv::Point origin;
    cv::Size size;
    if (textGeometry(line, x, y, origin, size)) drawBox(line, origin, size);
}

void FrameComposer::drawBox(const std::string& line, cv::Point origin, cv::Size size) {
    cv::rectangle(overlayCanvas, cv::Point(origin.x - kBoxMarginLeft, origin.y + kBoxMarginBelow),
                  cv::Point(origin.x + size.width + kBoxMarginRight,
                            origin.y - size.height - kBoxMarginAbove),
                  cv::Scalar(0, 0, 0), cv::FILLED, cv::LINE_8, 0);
    cv::putText(overlayCanvas, line, origin, kFont, kFontScale, cv::Scalar(255, 255, 255),
                kTextThickness, cv::LINE_AA, false);
}

bool FrameComposer::formatTimeText(const char* format, char (&text)[kTimeTextBytes]) {
    if (strnlen(format, kMaxTextBytes + 1) > kMaxTextBytes) return false;
    // localtime() re-reads the time zone on every call; localtime_r() need
    // not, so do it here to follow TZ the same way.
    tzset();
    const time_t now = time(nullptr);
    struct tm local;
    if (localtime_r(&now, &local) == nullptr) return false;
    // 0 means too long or empty; the buffer's content is then undefined.
    return strftime(text, sizeof text, format, &local) != 0;
}

bool FrameComposer::formatRateText(const char* format, double (RateSource::*rate)() const,
                                   char (&text)[kTimeTextBytes]) const {
    if (!isSafeRateFormat(format)) return false;
    const double value = (rates.*rate)();
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral"
    return std::snprintf(text, kRateTextBytes, format, value) >= 0;
#pragma GCC diagnostic pop
}

void FrameComposer::drawTimeText(const char* format, double x, double y) {
    char text[kTimeTextBytes];
    if (formatTimeText(format, text)) drawTextBox(text, x, y);
}

void FrameComposer::drawRateText(const char* format, double (RateSource::*rate)() const, double x,
                                 double y) {
    char text[kTimeTextBytes];
    if (formatRateText(format, rate, text)) drawTextBox(text, x, y);
}

void FrameComposer::drawImage(const char* path) { (void)path; }
