// The benchmark's strict parser of the server's stream as it arrives.
#pragma once

#include <regex>
#include <string>

#include "support.h"  // the wire format as the tests write it out

// Strict parser of the server's stream as it arrives: its exact header,
// then "--frame" parts back to back, each one JPEG (FF D8 ... FF D9) whose
// length has at most nine digits and no leading zero. Anything else fails
// it for good.
class PartParser {
public:
    void append(const std::string& bytes) { buffer_ += bytes; }
    // The next complete part's JPEG; false when more bytes are needed or the
    // stream is malformed (failed()).
    bool next(std::string& jpeg) {
        static const std::regex digits("[1-9][0-9]{0,8}");
        const std::string start = (headerSeen_ ? "" : kStreamHeader) + kPartStart;
        const size_t n = std::min(start.size(), buffer_.size());
        const size_t end = buffer_.find("\r\n\r\n", start.size());
        failed_ = failed_ || buffer_.compare(0, n, start, 0, n) != 0;
        failed_ = failed_ || (end == npos && buffer_.size() > start.size() + 12);
        if (failed_ || end == npos) {
            return false;
        }
        const std::string length = buffer_.substr(start.size(), end - start.size());
        failed_ = !std::regex_match(length, digits);
        if (failed_ || buffer_.size() < end + 4 + std::stoul(length)) {
            return false;
        }
        jpeg = buffer_.substr(end + 4, std::stoul(length));
        failed_ = !jpeg.starts_with("\xff\xd8") || !jpeg.ends_with("\xff\xd9");
        buffer_.erase(0, end + 4 + jpeg.size());
        headerSeen_ = true;
        return !failed_;
    }
    bool failed() const { return failed_; }

private:
    static constexpr size_t npos = std::string::npos;
    std::string buffer_;
    bool headerSeen_ = false;
    bool failed_ = false;
};
