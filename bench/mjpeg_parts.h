// Strict, incremental parser of an MJPEG byte stream as it arrives from a
// socket or pipe, for the end-to-end benchmark's reader.
//
// Two framings:
//  - server: the video server's stream response. An HTTP header (status 200,
//    content type "multipart/x-mixed-replace;boundary=frame"), then parts back
//    to back: "--frame\r\nContent-Type: image/jpg\r\nContent-Length: N\r\n\r\n"
//    and N bytes of JPEG, with nothing between one JPEG and the next part.
//  - ffmpeg: the output of ffmpeg's mpjpeg muxer. "--ffmpeg\r\n", then per
//    frame "Content-type: image/jpeg\r\nContent-length: N\r\n\r\n", N bytes of
//    JPEG and "\r\n--ffmpeg\r\n".
// Anything else, a length with a sign, leading zero or more than nine digits,
// or a payload that is not one JPEG (FF D8 ... FF D9), is an error, and the
// parser stays failed.
//
// A part is complete as soon as its last JPEG byte is in: the bytes that
// follow it belong to the next part. Not thread-safe; one parser per stream.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstring>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

enum class StreamFormat { server, ffmpeg };

class PartParser {
public:
    enum class Result { needMore, part, error };

    explicit PartParser(StreamFormat format) : format_(format) {}

    // Room for at least `want` more bytes; fill some, then commit() them.
    char* space(std::size_t want) {
        if (begin_ > 0 && (begin_ >= end_ || buf_.size() - end_ < want)) {
            std::memmove(buf_.data(), buf_.data() + begin_, end_ - begin_);
            end_ -= begin_;
            begin_ = 0;
        }
        if (buf_.size() - end_ < want) buf_.resize(end_ + want);
        return buf_.data() + end_;
    }
    void commit(std::size_t n) { end_ += n; }

    void append(std::string_view bytes) {
        if (bytes.empty()) return;  // the buffer may not exist yet: no memcpy to null
        std::memcpy(space(bytes.size()), bytes.data(), bytes.size());
        commit(bytes.size());
    }

    // The next complete part: `jpeg` is its payload and `partBytes` its size
    // on the wire (framing included), both valid until the next space() or
    // append(). needMore when the buffered bytes end inside a part.
    Result next(std::string_view& jpeg, std::size_t& partBytes) {
        if (failed()) return Result::error;
        const std::string_view in(buf_.data() + begin_, end_ - begin_);
        std::size_t used = 0;
        if (!started_) {
            const Result r = format_ == StreamFormat::server ? readHeader(in, used)
                                                            : expect(in, "--ffmpeg\r\n", used);
            if (r != Result::part) return r;
            started_ = true;
        }
        const std::string_view prefix = format_ == StreamFormat::server
                                            ? "--frame\r\nContent-Type: image/jpg\r\nContent-Length: "
                                            : "Content-type: image/jpeg\r\nContent-length: ";
        const std::size_t partStart = used;
        if (format_ == StreamFormat::ffmpeg && parts_ > 0) {
            if (Result r = expect(in, "\r\n--ffmpeg\r\n", used); r != Result::part) {
                return r == Result::needMore ? keep(partStart) : r;
            }
        }
        if (Result r = expect(in, prefix, used); r != Result::part) {
            return r == Result::needMore ? keep(partStart) : r;
        }
        std::size_t length = 0;
        if (Result r = readLength(in, used, length); r != Result::part) {
            return r == Result::needMore ? keep(partStart) : r;
        }
        if (in.size() - used < length) return keep(partStart);
        jpeg = in.substr(used, length);
        if (length < 4 || jpeg.substr(0, 2) != "\xff\xd8" || jpeg.substr(length - 2) != "\xff\xd9") {
            return fail("part " + std::to_string(parts_) + " is not one JPEG");
        }
        used += length;
        partBytes = used - partStart;
        begin_ += used;
        ++parts_;
        return Result::part;
    }

    bool failed() const { return !error_.empty(); }
    const std::string& error() const { return error_; }
    std::size_t parts() const { return parts_; }
    // The stream header (server) or opening boundary (ffmpeg) has been read.
    bool headerDone() const { return started_; }
    // Bytes received but not yet returned as part of a complete part.
    std::size_t pending() const { return end_ - begin_; }

private:
    static constexpr std::size_t kMaxHeader = 4096;
    static constexpr std::size_t kMaxDigits = 9;

    // Header bytes consumed but no part complete yet: keep them consumed so
    // the next call resumes at the part.
    Result keep(std::size_t partStart) {
        begin_ += partStart;
        return Result::needMore;
    }

    Result fail(std::string why) {
        error_ = std::move(why);
        return Result::error;
    }

    Result expect(std::string_view in, std::string_view text, std::size_t& used) {
        const std::size_t have = std::min(in.size() - used, text.size());
        if (in.substr(used, have) != text.substr(0, have)) {
            return fail("after " + std::to_string(parts_) + " parts: expected \"" +
                        printable(text) + "\", got \"" + printable(in.substr(used, have)) + "\"");
        }
        if (have < text.size()) return Result::needMore;
        used += text.size();
        return Result::part;
    }

    Result readLength(std::string_view in, std::size_t& used, std::size_t& length) {
        std::size_t digits = 0;
        length = 0;
        while (used + digits < in.size() && in[used + digits] >= '0' && in[used + digits] <= '9') {
            length = length * 10 + static_cast<std::size_t>(in[used + digits] - '0');
            if (++digits > kMaxDigits) return fail("content length too long");
        }
        if (used + digits == in.size()) return Result::needMore;
        if (digits == 0 || (digits > 1 && in[used] == '0')) return fail("bad content length");
        used += digits;
        return expect(in, "\r\n\r\n", used);
    }

    Result readHeader(std::string_view in, std::size_t& used) {
        const std::size_t end = in.find("\r\n\r\n");
        if (end == std::string_view::npos) {
            return in.size() > kMaxHeader ? fail("no end of header in 4096 bytes") : Result::needMore;
        }
        const std::string_view header = in.substr(0, end + 2);
        if (header.substr(0, 13) != "HTTP/1.0 200 " && header.substr(0, 13) != "HTTP/1.1 200 ") {
            return fail("status line \"" + printable(header.substr(0, header.find("\r\n"))) + "\"");
        }
        if (header.find("\r\nContent-Type: multipart/x-mixed-replace;boundary=frame\r\n") ==
            std::string_view::npos) {
            return fail("header lacks the multipart content type");
        }
        used = end + 4;
        return Result::part;
    }

    static std::string printable(std::string_view s) {
        std::string out;
        for (char c : s.substr(0, 60)) {
            if (c == '\r') out += "\\r";
            else if (c == '\n') out += "\\n";
            else if (c >= 0x20 && c < 0x7f) out += c;
            else out += '?';
        }
        return out;
    }

    StreamFormat format_;
    std::vector<char> buf_;
    std::size_t begin_ = 0;  // first byte not yet consumed
    std::size_t end_ = 0;    // one past the last received byte
    bool started_ = false;   // stream header (or first boundary) consumed
    std::size_t parts_ = 0;
    std::string error_;
};
