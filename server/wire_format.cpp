#include "wire_format.h"

#include <charconv>
#include <string_view>

const std::string g_streamHeader =
    "HTTP/1.0 200 OK\r\n"
    "Accept-Range: bytes\r\n"
    "Connection: close\r\n"
    "Max-Age: 0\r\n"
    "Expires: 0\r\n"
    "Cache-Control: no-cache, private\r\n"
    "Pragma: no-cache\r\n"
    "Content-Type: multipart/x-mixed-replace;boundary=frame\r\n"
    "\r\n";

namespace {

constexpr std::string_view kPartPrefix =
    "--frame\r\n"
    "Content-Type: image/jpg\r\n"
    "Content-Length: ";

constexpr std::string_view kSingleImagePrefix =
    "HTTP/1.1 200 OK\r\n"
    "Connection: close\r\n"
    "Content-Type: image/jpg\r\n"
    "Content-Length: ";

constexpr std::string_view kHeaderEnd = "\r\n\r\n";

// Decimal form of n without allocating; 20 digits hold any 64-bit size.
struct Decimal {
    explicit Decimal(size_t n)
        : len(std::to_chars(digits, digits + sizeof digits, n).ptr - digits) {}
    std::string_view view() const { return {digits, len}; }
    char digits[20];
    size_t len;
};

static_assert(kPartPrefix.size() + kHeaderEnd.size() == 54);
static_assert(kSingleImagePrefix.size() + kHeaderEnd.size() == 81);

}  // namespace

std::string buildPart(const std::string& jpeg) {
    const Decimal length(jpeg.size());
    std::string part;
    part.reserve(kPartPrefix.size() + length.len + kHeaderEnd.size() + jpeg.size());
    part.append(kPartPrefix);
    part.append(length.view());
    part.append(kHeaderEnd);
    part.append(jpeg);
    return part;
}

std::string buildSingleImageHeader(size_t n) {
    const Decimal length(n);
    std::string header;
    header.reserve(kSingleImagePrefix.size() + length.len + kHeaderEnd.size());
    header.append(kSingleImagePrefix);
    header.append(length.view());
    header.append(kHeaderEnd);
    return header;
}
