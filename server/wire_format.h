// Every byte the frame server puts on the wire, in one place:
//
//   stream header  sent once to a streaming client, before its first part;
//   part           one per frame per streaming client:
//                    "--frame\r\nContent-Type: image/jpg\r\nContent-Length: "
//                    n "\r\n\r\n" jpeg            (54 + D + n bytes)
//   single image   header "HTTP/1.1 200 OK\r\nConnection: close\r\n"
//                    "Content-Type: image/jpg\r\nContent-Length: " n "\r\n\r\n"
//                    (81 + D bytes), then the JPEG bytes in a second send.
//
// n is the JPEG's byte count in decimal (D digits, no sign, no padding). A
// part ends with the last JPEG byte: the next part's boundary follows it
// directly and the stream never carries a closing boundary.
#pragma once

#include <cstddef>
#include <string>

// The 191-byte multipart stream header (HTTP/1.0, boundary "frame"). Built
// during static initialisation; never modified.
extern const std::string g_streamHeader;

// One multipart part holding `jpeg`. The result is allocated once, at its
// exact final size.
std::string buildPart(const std::string& jpeg);

// The response header for a single-image client whose JPEG has n bytes.
std::string buildSingleImageHeader(size_t n);
