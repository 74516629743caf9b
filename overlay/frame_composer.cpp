#include "frame_composer.h"

#include <opencv2/imgproc.hpp>

#include <strings.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <utility>

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

FrameComposer::FrameComposer(const RateSource& rateSource, std::string overlayPath)
    : overlayFile(std::move(overlayPath)), rates(rateSource) {}

std::string FrameComposer::composeFrame(cv::Mat& slot) {
    std::vector<uchar> jpegBuffer;
    return composeFrame(slot, jpegBuffer);
}

std::string FrameComposer::composeFrame(cv::Mat& slot, std::vector<uchar>& jpegBuffer) {
    jpegBuffer.clear();
    if (slot.empty()) return std::string();
    // In place: the library gives the slot a new buffer when the size changes
    // and leaves a frame that is already 1280 x 720 as it is.
    cv::resize(slot, slot, cv::Size(kOutputWidth, kOutputHeight), 0, 0, cv::INTER_LINEAR);
    applyOverlays(slot);
    cv::imencode(".jpg", slot, jpegBuffer, encodeParams);
    return std::string(jpegBuffer.begin(), jpegBuffer.end());
}

void FrameComposer::applyOverlays(cv::Mat& frame) {
    json_object* array = nullptr;
    int length = 0;
    if (!overlayFile.refreshOverlays(array, length)) return;

    frame.copyTo(overlayCanvas);
    const int count = std::min(length, kMaxOverlaysPerFrame);
    for (int i = 0; i < count; ++i) {
        Overlay overlay;
        if (!overlayFile.readOverlay(json_object_array_get_idx(array, i), overlay)) continue;
        const char* type = overlay.type;
        if (strcasecmp(type, "date") == 0 || strcasecmp(type, "time") == 0) {
            drawTimeText(overlay.value, overlay.x, overlay.y);
        } else if (strcasecmp(type, "text") == 0) {
            drawTextBox(overlay.value, overlay.x, overlay.y);
        } else if (strcasecmp(type, "image") == 0) {
            drawImage(overlay.value);
        } else if (strcasecmp(type, "queue_rate") == 0) {
            drawRateText(overlay.value, &RateSource::queueRate, overlay.x, overlay.y);
        } else if (strcasecmp(type, "dequeue_rate") == 0) {
            drawRateText(overlay.value, &RateSource::dequeueRate, overlay.x, overlay.y);
        }
    }
    // Untouched pixels hold the same value in both inputs and come out as
    // they were.
    cv::addWeighted(overlayCanvas, 0.5, frame, 0.5, 0.0, frame, -1);
}

void FrameComposer::drawTextBox(const char* text, double x, double y) {
    if (!std::isfinite(x) || !std::isfinite(y)) return;
    x = std::clamp(x, -kFarAway, kFarAway);
    y = std::clamp(y, -kFarAway, kFarAway);
    const std::string line(text, strnlen(text, kMaxTextBytes));

    int baseline = 0;
    const cv::Size size = cv::getTextSize(line, kFont, kFontScale, kTextThickness, &baseline);
    // Integer halves first, then double arithmetic, truncated toward zero:
    // the text's centre falls on (x, y).
    const cv::Point origin(static_cast<int>(x - (size.width / 2)),
                           static_cast<int>((size.height / 2) + y));
    cv::rectangle(overlayCanvas,
                  cv::Point(origin.x - kBoxMarginLeft, origin.y + kBoxMarginBelow),
                  cv::Point(origin.x + size.width + kBoxMarginRight,
                            origin.y - size.height - kBoxMarginAbove),
                  cv::Scalar(0, 0, 0), cv::FILLED, cv::LINE_8, 0);
    cv::putText(overlayCanvas, line, origin, kFont, kFontScale, cv::Scalar(255, 255, 255),
                kTextThickness, cv::LINE_AA, false);
}

void FrameComposer::drawTimeText(const char* format, double x, double y) {
    if (strnlen(format, kMaxTextBytes + 1) > kMaxTextBytes) return;
    // localtime() re-reads the time zone on every call; localtime_r() need
    // not, so do it here to follow TZ the same way.
    tzset();
    const time_t now = time(nullptr);
    struct tm local;
    if (localtime_r(&now, &local) == nullptr) return;
    char text[kTimeTextBytes];
    // 0 means too long or empty; the buffer's content is then undefined.
    if (strftime(text, sizeof text, format, &local) == 0) return;
    drawTextBox(text, x, y);
}

void FrameComposer::drawRateText(const char* format, double (RateSource::*rate)() const, double x,
                                 double y) {
    if (!isSafeRateFormat(format)) return;
    const double value = (rates.*rate)();
    char text[kRateTextBytes];
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral"
    if (std::snprintf(text, sizeof text, format, value) < 0) return;
#pragma GCC diagnostic pop
    drawTextBox(text, x, y);
}

void FrameComposer::drawImage(const char* path) { (void)path; }
