// Request bytes against a real FrameServer on loopback, one client per
// input sent in one piece: a text (up to its first NUL) holding "frame_id="
// makes a single-image client that gets one response and then the end of
// the connection; any other bytes make a stream client that gets the header
// and one part; no bytes, nothing.
#include <poll.h>

#include <cstdlib>
#include <cstring>
#include <string>

#include "frame_server.h"
#include "wire_format.h"
#include "../support/support.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static FrameServer server(0);
    static const std::string jpeg = "\xff\xd8 fuzz \xff\xd9";
    size = std::min<size_t>(size, 1024);  // one read of the server's
    const std::string request(reinterpret_cast<const char*>(data), size);
    support::LoopbackClient client(server.boundPort());
    if (!support::waitFor([&] { server.handleEvents(); return !server.clientList().empty(); }, 20s)) std::abort();
    Client* state = server.clientList().front();
    client.sendText(request);
    const bool single = std::string(request.c_str()).find("frame_id=") != std::string::npos;
    if (size > 0 &&
        !support::waitFor([&] { server.handleEvents(); return state->headerSent || state->singleImage; }, 20s)) {
        std::abort();
    }
    server.sendFrame(jpeg);
    std::string expected;
    if (single) expected = buildSingleImageHeader(jpeg.size()) + jpeg;
    if (size > 0 && !single) expected = g_streamHeader + buildPart(jpeg);
    if (client.readAtLeast(expected.size() + (single ? 1 : 0), 20s) != expected) std::abort();
    if (single != client.eof()) std::abort();
    server.removeClient(state);
    return 0;
}
