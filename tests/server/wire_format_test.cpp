#include "wire_format.h"

#include <gtest/gtest.h>

#include <string>

namespace {

// n bytes cycling through every byte value, NUL, CR and LF included.
std::string binaryJpeg(size_t n) {
    std::string jpeg(n, '\0');
    for (size_t i = 0; i < n; ++i) jpeg[i] = static_cast<char>(i * 7 % 256);
    return jpeg;
}

TEST(WireFormat, StreamHeaderIsExactly191BytesLineByLine) {
    const struct {
        size_t offset;
        std::string text;
    } lines[] = {
        {0, "HTTP/1.0 200 OK\r\n"},
        {17, "Accept-Range: bytes\r\n"},
        {38, "Connection: close\r\n"},
        {57, "Max-Age: 0\r\n"},
        {69, "Expires: 0\r\n"},
        {81, "Cache-Control: no-cache, private\r\n"},
        {115, "Pragma: no-cache\r\n"},
        {133, "Content-Type: multipart/x-mixed-replace;boundary=frame\r\n"},
        {189, "\r\n"},
    };
    ASSERT_EQ(g_streamHeader.size(), 191u);
    for (const auto& line : lines) {
        EXPECT_EQ(g_streamHeader.substr(line.offset, line.text.size()), line.text) << "at " << line.offset;
    }
}

TEST(WireFormat, PartIsBoundaryHeadersLengthAndJpegWithNothingAfter) {
    const struct {
        size_t jpegSize;
        std::string digits;
        size_t jpegOffset;
    } cases[] = {
        {5, "5", 55},          // 60 bytes in all
        {12345, "12345", 59},  // five-digit size
        {0, "0", 55},
        {1000000, "1000000", 61},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.jpegSize);
        const std::string jpeg = binaryJpeg(c.jpegSize);
        const std::string part = buildPart(jpeg);
        ASSERT_EQ(part.size(), c.jpegOffset + c.jpegSize);
        EXPECT_EQ(part.substr(0, c.jpegOffset),
                  "--frame\r\nContent-Type: image/jpg\r\nContent-Length: " + c.digits + "\r\n\r\n");
        EXPECT_TRUE(part.compare(c.jpegOffset, std::string::npos, jpeg) == 0);
    }
}

TEST(WireFormat, SingleImageHeaderIsHttp11WithDecimalLength) {
    const struct {
        size_t n;
        std::string digits;
    } cases[] = {{5, "5"}, {12345, "12345"}, {0, "0"}, {1099511627776ull, "1099511627776"}};
    for (const auto& c : cases) {
        SCOPED_TRACE(c.n);
        const std::string header = buildSingleImageHeader(c.n);
        EXPECT_EQ(header, "HTTP/1.1 200 OK\r\nConnection: close\r\nContent-Type: image/jpg\r\nContent-Length: " +
                              c.digits + "\r\n\r\n");
        EXPECT_EQ(header.size(), 81 + c.digits.size());
    }
    EXPECT_EQ(buildSingleImageHeader(5).size(), 82u);
    EXPECT_EQ(buildSingleImageHeader(12345).size(), 86u);
}

}  // namespace
