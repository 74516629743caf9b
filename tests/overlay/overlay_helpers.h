// Helpers for the overlay tests: overlay files with controlled modification
// times, JSON building, a settable rate source and reference renderings.
#pragma once

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <fcntl.h>
#include <opencv2/core.hpp>

#include <cstdio>
#include <ctime>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "../test_util.h"
#include "frame_composer.h"

namespace overlaytest {

class FakeRates : public RateSource {
public:
    double queueRate() const override { return queue; }
    double dequeueRate() const override { return dequeue; }
    double queue = 0.0;
    double dequeue = 0.0;
};

inline void setMtime(const std::string& path, time_t mtime) {
    const timespec times[2] = {{mtime, 0}, {mtime, 0}};
    ASSERT_EQ(utimensat(AT_FDCWD, path.c_str(), times, 0), 0) << path;
}

// Writes `content` to `path` and sets its modification time to `mtime`
// whole seconds, so tests decide exactly when the file counts as changed.
inline void writeFile(const std::string& path, const std::string& content, time_t mtime) {
    {
        std::ofstream out(path, std::ios::binary | std::ios::trunc);
        out << content;
    }
    setMtime(path, mtime);
}

inline std::string jsonString(const std::string& s) {
    std::string out = "\"";
    for (unsigned char c : s) {
        if (c == '"' || c == '\\') {
            out += '\\';
            out += static_cast<char>(c);
        } else if (c < 0x20) {
            char escaped[8];
            std::snprintf(escaped, sizeof escaped, "\\u%04x", c);
            out += escaped;
        } else {
            out += static_cast<char>(c);
        }
    }
    return out + "\"";
}

inline std::string number(double v) {
    std::ostringstream out;
    out.precision(17);
    out << v;
    return out.str();
}

// An element from raw JSON member texts.
inline std::string rawElement(const std::string& x, const std::string& y, const std::string& type,
                              const std::string& value) {
    return "{\"x\":" + x + ",\"y\":" + y + ",\"type\":" + type + ",\"value\":" + value + "}";
}

inline std::string element(const std::string& type, const std::string& value, double x = 50,
                           double y = 50) {
    return rawElement(number(x), number(y), jsonString(type), jsonString(value));
}

inline std::string document(const std::vector<std::string>& elements) {
    std::string out = "{\"overlays\":[";
    for (size_t i = 0; i < elements.size(); ++i) out += (i ? "," : "") + elements[i];
    return out + "]}";
}

inline cv::Mat solid(int value, cv::Size size = cv::Size(1280, 720)) {
    return cv::Mat(size, CV_8UC3, cv::Scalar::all(value));
}

inline int differingPixels(const cv::Mat& a, const cv::Mat& b) {
    if (a.size() != b.size() || a.type() != b.type()) return -1;
    cv::Mat diff;
    cv::absdiff(a, b, diff);
    return cv::countNonZero(diff.reshape(1));
}

// `background` with the overlays of `json` applied by a fresh composer.
inline cv::Mat render(const std::string& json, const cv::Mat& background,
                      const RateSource& rates) {
    testutil::TempDir dir;
    const std::string path = dir.file("overlays.json");
    writeFile(path, json, 1000);
    FrameComposer composer(rates, path);
    cv::Mat frame = background.clone();
    testing::internal::CaptureStdout();
    composer.applyOverlays(frame);
    testing::internal::GetCapturedStdout();
    return frame;
}

// Replaces every "{P}" in `text` with `path`.
inline std::string withPath(std::string text, const std::string& path) {
    for (size_t at; (at = text.find("{P}")) != std::string::npos;) text.replace(at, 3, path);
    return text;
}

}  // namespace overlaytest
