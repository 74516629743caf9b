// rtspQueue: an alternative to Camera with the same frame-fetch contract.
// Its constructor opens the stream (blocking, one attempt every 7 seconds);
// its reader thread decodes into its own frame ring and reopens the stream
// after 11 empty frames in a row; getImage() polls the ring briefly and
// composes like Camera. It reports on the standard streams only, each line
// flushed as it is written: "Opening endpoint", "Stream opened", "Stream
// running", "Stream closed", "Version = %s", "Q F = %d" (each commit),
// "DQ F = %d" (each take) and, on standard error, "frame empty".
//
// Threads: the constructor, getImage(), takeNewest() and the destructor run
// on one consumer thread; readLoop() on the thread start() returns, which
// the caller owns and joins; stop() from any thread. The destructor neither
// stops nor joins the reader: stop() and join first.
#pragma once

#include <unistd.h>

#include <atomic>
#include <chrono>
#include <opencv2/core.hpp>
#include <opencv2/videoio.hpp>
#include <string>
#include <thread>
#include <vector>

#include "frame_composer.h"
#include "frame_handoff.h"
#include "frame_ring.h"
#include "overlay_file.h"
#include "thread_annotations.h"

class rtspQueue {
public:
    // Pause before each opening attempt, the first one included.
    static constexpr std::chrono::seconds kOpenRetryPause{7};
    // The 11th empty frame in a row releases and reopens the stream.
    static constexpr int kMaxEmptyFrames = 10;
    static constexpr int kImageAttempts = 10;
    static constexpr useconds_t kImagePollMicros = 5000;
    static constexpr useconds_t kCommitPauseMicros = 1000;

    // Prints "Opening endpoint" and returns only once the stream is open,
    // trying every 7 seconds without limit (there is no probe and no way to
    // give up). Then sets the codec and frame-rate properties (results
    // ignored), sets `running` and prints "Stream running".
    explicit rtspQueue(std::string url, std::string overlayPath = kOverlayFilePath);
    // Releases the stream and prints "Stream closed".
    // REQUIRES: no reader thread running (stop() and join first).
    ~rtspQueue();
    rtspQueue(const rtspQueue&) = delete;
    rtspQueue& operator=(const rtspQueue&) = delete;

    // Starts readLoop() on a new thread; the caller owns and joins it.
    std::thread start();
    // Clears `running` and cuts short a reopen pause in progress; the reader
    // returns after the step it is in. A read or an open attempt already
    // inside the video library is not interrupted: it ends when the library
    // gives up (at once for a refused connection). Any thread.
    void stop() EXCLUDES(pauseMutex);

    // Reader thread: prints "Opening endpoint", then waits 7 s and tries to
    // open until the stream is open ("Stream opened"). Returns without
    // opening, after at most the step in progress, once `running` is clear.
    void openEndpoint();
    // Reader thread body: decode, commit or count an empty frame, reopen
    // after 11 empty frames in a row, until `running` is clear.
    void readLoop();

    // Consumer: up to 10 takes 5 ms apart. On a frame, composes and encodes
    // it into `jpeg` and returns true; after 10 empty takes returns false
    // and leaves `jpeg` unchanged. Prints "DQ F = %d" for every take.
    bool getImage(std::string& jpeg);
    // Reader: publishes the write slot and prints "Q F = %d" with its index.
    void commitFrame();
    // Consumer: take-and-clear hand-off. The newest committed slot, or -1 if
    // nothing was committed since the last take; prints "DQ F = %d" either way.
    int takeNewest();

    // One decoding call into `slot`. True only when it returned normally and
    // left a frame in the slot. Whatever it throws is swallowed and counts
    // as an empty frame: a failed read must neither end the reader nor get a
    // stale slot committed.
    template <typename Decode>
    static bool decodeFrame(Decode&& decode, cv::Mat& slot);

private:
    // Sleeps kOpenRetryPause before an opening attempt. With `stoppable`,
    // stop() ends the pause early and the result is false.
    bool pauseBeforeOpen(bool stoppable) EXCLUDES(pauseMutex);
    // Opens the capture, pausing before each attempt. False if stopped.
    bool openWithRetries(bool stoppable);

    std::atomic<bool> running{false};
    const std::string url;
    std::vector<uchar> jpegBuffer;  // encoder output, reused frame to frame
    cv::VideoCapture capture;       // the reader thread's while it runs
    FrameRing ring;
    FrameComposer composer;
    Mutex pauseMutex;  // pairs with stopSignal; guards no data but orders `running`
    CondVar stopSignal;
};

template <typename Decode>
bool rtspQueue::decodeFrame(Decode&& decode, cv::Mat& slot) {
    return decodeCatching(decode, slot) == nullptr && !slot.empty();
}
