// The camera: owns the stream, the frame ring, the read thread and the
// per-camera overlay and encoder state.
//
// Threads: ensureOpen(), getImage() and stop() run on the main thread only;
// readLoop() runs on the read thread, started by ensureOpen().
#pragma once

#include <opencv2/videoio.hpp>

#include <atomic>
#include <chrono>
#include <string>
#include <thread>

#include "event_log.h"
#include "frame_composer.h"
#include "frame_handoff.h"
#include "frame_ring.h"
#include "settings.h"

class Camera {
public:
    // Stores a reference to `settings`, which must outlive the camera. Does
    // no I/O and does not touch the network.
    explicit Camera(StreamSettings& settings, std::string overlayPath = kOverlayFilePath);
    // Stops a read thread the owner left running, then releases everything.
    ~Camera();
    Camera(const Camera&) = delete;
    Camera& operator=(const Camera&) = delete;

    // True when the stream is open on return. While closed, makes one full
    // attempt (probe, URL check, open, read thread start); a failed attempt
    // sleeps one second before returning false.
    bool ensureOpen();

    // Waits for a frame newer than the last one served, woken by its
    // commit; composes and encodes it into `jpeg`. False when none comes
    // within kImageDeadline ("getImage timeout"), leaving `jpeg` unchanged.
    bool getImage(std::string& jpeg);
    static constexpr std::chrono::seconds kImageDeadline{1};

    // Joins the read thread and releases the stream; nothing when closed.
    void stop();

    // The read thread's body: decode into the ring until `running` drops.
    void readLoop();

    // Runs one decoding call into `slot`, logging (not propagating) what it
    // throws. Shared by the read thread and its tests.
    template <typename Decode>
    static void decodeGuarded(Decode&& decode, cv::Mat& slot);

    FrameRing ring;
    FrameComposer composer;

private:
    StreamSettings* settings;
    cv::VideoCapture capture;
    std::thread readThread;
    std::atomic<bool> running{false};
};

template <typename Decode>
void Camera::decodeGuarded(Decode&& decode, cv::Mat& slot) {
    if (const char* thrown = decodeCatching(decode, slot)) logEvent(g_log, "%s", thrown);
}
