// The video server's entry: start-up, the main loop and the orderly
// shutdown on SIGINT or SIGHUP.
#include <opencv2/core/version.hpp>

#include <atomic>
#include <csignal>
#include <cstdlib>
#include <fstream>
#include <string>

#if defined(__SSE__)
#include <xmmintrin.h>
#endif

#include "camera.h"
#include "event_log.h"
#include "frame_server.h"
#include "settings.h"

namespace {

constexpr const char* kControlFifoPath = "/var/run/tbx/api.fifo";
constexpr const char* kAnnouncement = "camera enable";

// Denormals flushed to zero and treated as zero for the whole process: set
// before main runs, inherited by every thread (the video library's too).
struct FlushDenormals {
    FlushDenormals() {
#if defined(__SSE__)
        _mm_setcsr(_mm_getcsr() | 0x8040);  // FTZ | DAZ
#endif
    }
} g_flushDenormals;

}  // namespace

// Set by the signal handler, read afresh by the main loop at each test.
std::atomic<bool> g_quit{false};
static_assert(std::atomic<bool>::is_always_lock_free);

extern "C" void handleSignal(int) { g_quit = true; }

int main(int argc, char** argv) {
    logEvent(g_log, "************** ENTRY **************");
    parseArguments(argc, argv);
    logEvent(g_log, "OpenCV version = %s", CV_VERSION);
    char* testHostCopy = splitTestUrl();
    printSettings();

    // Opening a FIFO for writing waits for the control service to open it
    // for reading. Any failure is silent: the stream just stays failed.
    logEvent(g_log, "Enabling camera");
    std::ofstream controlFifo(kControlFifoPath, std::ios::out | std::ios::app);
    controlFifo << kAnnouncement << '\n' << std::flush;
    logEvent(g_log, "Camera enabled");

    FrameServer server(g_settings.httpPort);
    signal(SIGINT, handleSignal);
    signal(SIGHUP, handleSignal);
    Camera camera(g_settings.stream);
    logEvent(g_log, "Starting main loop");

    while (!g_quit) {
        std::string jpeg;
        server.handleEvents();
        if (camera.ensureOpen() && camera.getImage(jpeg)) server.sendFrame(jpeg);
        sleepLoopPeriod();
    }

    camera.stop();
    free(testHostCopy);
    logEvent(g_log, "************** EXIT **************");
    return 0;
}
