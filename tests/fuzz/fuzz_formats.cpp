// Rate and date formats under arbitrary bytes, as an overlay's "value"
// delivers them (a C string), with an arbitrary rate and text position.
//
// isSafeRateFormat is checked against a second, independent reading of the
// grammar it documents (a regular expression plus the numeric limits), since
// a wrong "safe" answer hands snprintf a format that reads arguments that
// do not exist, which no sanitizer sees. Then the format is drawn the way
// each overlay type would draw it: as a rate, as a date, and as plain text.
//
// Input: 1 byte of flags (unused, room for the fuzzer to vary), then the
// rate, x and y as three 8-byte doubles, then the format. Shorter inputs
// are padded with zeros.
#include <opencv2/core.hpp>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <regex>
#include <string>

#include "frame_composer.h"

namespace {

constexpr size_t kHeader = 1 + 3 * sizeof(double);

class SettableRates : public RateSource {
public:
    double queueRate() const override { return rate; }
    double dequeueRate() const override { return -rate; }
    double rate = 0.0;
};

SettableRates g_rates;
FrameComposer* g_composer = nullptr;

[[noreturn]] void fail(const char* what, const std::string& format) {
    std::fprintf(stderr, "fuzz_formats: %s for format \"%s\"\n", what, format.c_str());
    std::abort();
}

// The documented grammar: literal text and "%%" around exactly one
//   % [-+ #0]* [width: 1-2 digits] [. precision: 0-2 digits] [l] f|F|e|E|g|G|a|A
// with width and precision at most 79, and at most 256 bytes in all.
bool referenceSafe(const std::string& format) {
    static const std::regex grammar(
        "(?:[^%]|%%)*%[-+ #0]*([0-9]{0,2})(?:\\.([0-9]{0,2}))?l?[fFeEgGaA](?:[^%]|%%)*");
    if (format.size() > kMaxTextBytes) return false;
    std::smatch match;
    if (!std::regex_match(format, match, grammar)) return false;
    const auto withinLimit = [](const std::ssub_match& digits) {
        return !digits.matched || digits.length() == 0 ||
               std::stoi(digits.str()) <= static_cast<int>(kRateTextBytes) - 1;
    };
    return withinLimit(match[1]) && withinLimit(match[2]);
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    g_composer = new FrameComposer(g_rates, "/nonexistent/overlays.json");
    g_composer->overlayCanvas = cv::Mat(kOutputHeight, kOutputWidth, CV_8UC3, cv::Scalar::all(0));
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    uint8_t header[kHeader] = {};
    std::memcpy(header, data, std::min(size, kHeader));
    double numbers[3];
    std::memcpy(numbers, header + 1, sizeof numbers);
    g_rates.rate = numbers[0];
    const double x = numbers[1];
    const double y = numbers[2];

    // The overlay's value is a C string: it ends at the first NUL.
    const char* rest = reinterpret_cast<const char*>(data) + std::min(size, kHeader);
    const std::string format(rest, strnlen(rest, size - std::min(size, kHeader)));

    const bool safe = isSafeRateFormat(format.c_str());
    if (safe != referenceSafe(format)) fail(safe ? "accepted, grammar rejects" : "rejected, grammar accepts", format);

    g_composer->drawRateText(format.c_str(), &RateSource::queueRate, x, y);
    g_composer->drawRateText(format.c_str(), &RateSource::dequeueRate, x, y);
    g_composer->drawTimeText(format.c_str(), x, y);
    g_composer->drawTextBox(format.c_str(), x, y);
    return 0;
}
