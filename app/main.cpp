// The video server's entry: start-up, the main loop and the orderly
// shutdown on SIGINT or SIGHUP.
#include <atomic>
#include <csignal>
#include <cstdlib>
#include <fstream>
#include <opencv2/core/version.hpp>
#include <string>

#include "camera.h"
#include "event_log.h"
#include "frame_server.h"
#include "settings.h"

namespace {

constexpr const char* kControlFifoPath = "/var/run/tbx/api.fifo";
constexpr const char* kAnnouncement = "camera enable";

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
