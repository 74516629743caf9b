#include "camera.h"

#include <chrono>
#include <cstring>

#include "probe.h"

namespace {
constexpr int kProbeTimeoutSeconds = 2;
constexpr int64_t kRetryPauseMicros = 1000000;
}  // namespace

Camera::Camera(StreamSettings& settings, std::string overlayPath)
    : composer(ring, ring.pool, std::move(overlayPath)), settings(&settings) {}

Camera::~Camera() {
    // main() calls stop() first; an owner that did not must not leave a
    // joinable thread behind.
    running = false;
    if (readThread.joinable()) readThread.join();
}

bool Camera::ensureOpen() {
    if (capture.isOpened()) return true;

    if (settings->testUrl[0] != '\0') {
        logEvent(g_log, "Testing connection to %s:%d", settings->testHost, settings->testPort);
        if (!testConnection(settings->testHost, settings->testPort, kProbeTimeoutSeconds)) {
            logEvent(g_log, "Failure establishing connection");
            sleepMicros(kRetryPauseMicros);
            return false;
        }
        logEvent(g_log, "Success");
    }

    if (strlen(settings->url) < 3) {
        logEvent(g_log, "Invalid stream URL : %s", settings->url);
        sleepMicros(kRetryPauseMicros);
        return false;
    }

    logEvent(g_log, "Opening stream %s", settings->url);
    if (!capture.open(std::string(settings->url))) {
        logEvent(g_log, "Failure opening stream");
        sleepMicros(kRetryPauseMicros);
        return false;
    }
    logEvent(g_log, "Stream opened");

    ring.resetStamps();
    // Raised before the thread starts, so a stop() right after is never lost.
    running = true;
    readThread = std::thread(&Camera::readLoop, this);
    logEvent(g_log, "Read thread running");
    return true;
}

void Camera::stop() {
    if (!capture.isOpened()) return;
    logEvent(g_log, "Stopping camera");
    running = false;
    if (readThread.joinable()) readThread.join();
    capture.release();
    logEvent(g_log, "Camera stopped");
}

void Camera::readLoop() {
    do {
        decodeGuarded([this](cv::Mat&) { readNextFrame(capture, ring); }, ring.writeSlot());
        if (ring.writeSlot().empty()) {
            logEvent(g_log, "Empty frame");
        } else {
            ring.commitFrame();
        }
        sleepLoopPeriod();
    } while (running);
}

bool Camera::getImage(std::string& jpeg) {
    // Woken by the commit itself rather than polled every loop period: a
    // frame is taken the moment it is committed.
    const auto deadline = std::chrono::steady_clock::now() + kImageDeadline;
    for (;;) {
        const int i = ring.takeNewest();
        if (i != -1) {
            composeTaken(ring, composer, i, jpeg);
            return true;
        }
        ring.servingIndex = -1;
        const auto left = deadline - std::chrono::steady_clock::now();
        if (left <= std::chrono::steady_clock::duration::zero()) break;
        ring.waitForNew(std::chrono::ceil<std::chrono::microseconds>(left).count());
    }
    logEvent(g_log, "getImage timeout");
    return false;
}
