// Rate and date formats from arbitrary bytes. isSafeRateFormat is checked
// against a second reading of its grammar, since a wrong "safe" hands
// snprintf a format that reads arguments that do not exist, which no
// sanitizer sees; then the format is drawn as a rate, a date and a text.

#include <cstdlib>

#include "../support/support.h"
#include "frame_composer.h"

struct FrameComposerPeer {
    static cv::Mat& canvas(FrameComposer& composer) { return composer.overlayCanvas; }
};

static bool grammarAllows(const std::string& format) {
    static const std::regex grammar(
        "(?:[^%]|%%)*%[-+ #0]*([0-9]{0,2})(?:\\.([0-9]{0,2}))?l?[fFeEgGaA](?:[^%]|%%)*");
    std::smatch m;
    const auto small = [](const std::ssub_match& d) {
        return d.length() == 0 || std::stoi(d.str()) < 80;
    };
    return format.size() <= kMaxTextBytes && std::regex_match(format, m, grammar) && small(m[1]) &&
           small(m[2]);
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static FakeRates rates;
    static FramePool pool;
    static FrameComposer composer(rates, pool, "/nonexistent/overlays.json");
    rates.queue = 29.97;
    rates.dequeue = -1e300;
    FrameComposerPeer::canvas(composer).create(kOutputHeight, kOutputWidth, CV_8UC3);
    const std::string format(reinterpret_cast<const char*>(data),
                             strnlen(reinterpret_cast<const char*>(data), size));
    if (isSafeRateFormat(format.c_str()) != grammarAllows(format)) std::abort();
    composer.drawRateText(format.c_str(), &RateSource::queueRate, 640, 360);
    composer.drawRateText(format.c_str(), &RateSource::dequeueRate, -5, 700);
    composer.drawTimeText(format.c_str(), 1200, 10);
    composer.drawTextBox(format.c_str(), 640, 360);
    return 0;
}
