// The camera: owns the capture, the frame ring, the read thread and the
// composer (overlay and encoder state). Holds a reference to the process's
// StreamSettings, which must outlive it.
//
// Threads: ensureOpen(), getImage() and stop() run on the main thread only;
// readLoop() runs on the read thread that ensureOpen() starts.
#pragma once

#include <atomic>
#include <chrono>
#include <opencv2/videoio.hpp>
#include <string>
#include <thread>

#include "event_log.h"
#include "frame_composer.h"
#include "frame_handoff.h"
#include "frame_ring.h"
#include "settings.h"

class Camera {
public:
    // Does no I/O and does not touch the network.
    explicit Camera(StreamSettings& settings, std::string overlayPath = kOverlayFilePath);
    // Stops a read thread the owner left running, then releases everything.
    ~Camera();
    Camera(const Camera&) = delete;
    Camera& operator=(const Camera&) = delete;

    // True when the stream is open on return. While closed, makes one full
    // attempt (probe, URL check, open, read thread start); a failed attempt
    // sleeps one second before returning false.
    bool ensureOpen();

    // Waits for a frame newer than the last one served, woken by its commit,
    // and composes it into `jpeg`. False after kImageDeadline without one
    // ("getImage timeout"); `jpeg` is then unchanged.
    bool getImage(std::string& jpeg);
    static constexpr std::chrono::seconds kImageDeadline{1};

    // Joins the read thread and releases the stream; nothing when closed.
    void stop();

    // The read thread's body: decode into the ring until stop().
    void readLoop();

private:
    friend struct CameraPeer;

    // Runs one decoding call into `slot`; what it throws is logged, not
    // propagated.
    template <typename Decode>
    static void decodeGuarded(Decode&& decode, cv::Mat& slot);

    FrameRing ring;
    FrameComposer composer;
    StreamSettings* settings;
    cv::VideoCapture capture;
    std::thread readThread;
    std::atomic<bool> running{false};
};

template <typename Decode>
void Camera::decodeGuarded(Decode&& decode, cv::Mat& slot) {
    if (const char* thrown = decodeCatching(decode, slot)) logEvent(g_log, "%s", thrown);
}
