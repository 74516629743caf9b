// What the composition benchmarks share: a way to the composer's private
// steps, steady rates for the rate overlays, and the four overlays bench/e2e
// serves with (date, text, both rates).
#pragma once

#include <filesystem>
#include <fstream>
#include <opencv2/core.hpp>
#include <vector>

#include "frame_composer.h"
#include "rate_source.h"

struct FrameComposerPeer {
    static void scale(FrameComposer& c, cv::Mat& frame) { c.scaleToOutput(frame); }
    static void encode(FrameComposer& c, const cv::Mat& frame, std::vector<uchar>& out) {
        c.encode(frame, out);
    }
};

class SteadyRates : public RateSource {
public:
    double queueRate() const override { return 29.97; }
    double dequeueRate() const override { return 25.0; }
};

inline void writeFourOverlays(const std::filesystem::path& path) {
    std::ofstream(path)
        << R"({"overlays":[{"x":50,"y":5,"type":"date","value":"%Y-%m-%d %H:%M:%S"},)"
        << R"({"x":85,"y":5,"type":"text","value":"Gate 3"},)"
        << R"({"x":15,"y":88,"type":"queue_rate","value":"capture %.1f fps"},)"
        << R"({"x":85,"y":88,"type":"dequeue_rate","value":"serving %.1f fps"}]})";
}
