// Request bytes against a real FrameServer on loopback, one client per input,
// sent at once: a text (up to its first NUL) holding "frame_id=" within the
// server's first read of 1024 bytes gets one image and then the end of the
// connection; any other bytes get the stream header and every part; no
// bytes, nothing.
#include <cstdlib>

#include "../support/support.h"
#include "frame_server.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static FrameServer server(0);
    const std::string request(reinterpret_cast<const char*>(data), std::min<size_t>(size, 1025));
    const auto pass = [&](auto done) {
        return waitFor(
            [&] {
                server.handleEvents();
                return done();
            },
            20s);
    };
    LoopbackClient client(FrameServerPeer::port(server));
    if (!pass([&] { return !FrameServerPeer::clients(server).empty(); })) std::abort();
    Client* state = FrameServerPeer::clients(server).front();
    client.send(request);
    if (!request.empty() && !pass([&] { return state->headerSent || state->singleImage; }))
        std::abort();
    server.sendFrame(kJpeg);
    server.sendFrame(kJpeg);
    const bool single =
        std::string(request.substr(0, 1024).c_str()).find("frame_id=") != std::string::npos;
    const std::string expected = single            ? kSingle
                                 : request.empty() ? ""
                                                   : kStreamHeader + kPart + kPart;
    if (client.read(expected.size() + single, 20s) != expected || client.eof != single)
        std::abort();
    server.removeClient(state);
    return 0;
}
