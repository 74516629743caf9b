// Request bytes against a real FrameServer on loopback, one client per input,
// sent at once: a text (up to its first NUL) holding "frame_id=" within the
// server's first read of 1024 bytes gets one image and then the end of the
// connection; any other bytes get the stream header and every part; no
// bytes, nothing.
#include <cstdlib>

#include "../support/support.h"
#include "frame_server.h"

using namespace support;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static FrameServer server(0);
    const std::string jpeg = "\xff\xd8 twelve \xff\xd9", request(reinterpret_cast<const char*>(data), std::min<size_t>(size, 1025));
    const std::string part = "--frame\r\nContent-Type: image/jpg\r\nContent-Length: 12\r\n\r\n" + jpeg;
    const auto pass = [&](auto done) { return waitFor([&] { return server.handleEvents(), done(); }, 20s); };
    LoopbackClient client(server.boundPort());
    if (!pass([&] { return !server.clientList().empty(); })) std::abort();
    Client* state = server.clientList().front();
    client.sendText(request);
    if (!request.empty() && !pass([&] { return state->headerSent || state->singleImage; })) std::abort();
    server.sendFrame(jpeg);
    server.sendFrame(jpeg);
    const bool single = std::string(request.substr(0, 1024).c_str()).find("frame_id=") != std::string::npos;
    const std::string expected = single ? "HTTP/1.1 200 OK\r\nConnection: close\r\nContent-Type: image/jpg\r\n"
                                          "Content-Length: 12\r\n\r\n" + jpeg
                                        : request.empty() ? "" : kStreamHeader + part + part;
    if (client.readAtLeast(expected.size() + single, 20s) != expected || client.eof() != single) std::abort();
    server.removeClient(state);
    return 0;
}
