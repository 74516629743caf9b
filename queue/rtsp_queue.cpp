#include "rtsp_queue.h"

#include <cstdio>
#include <iostream>
#include <opencv2/core/version.hpp>

namespace {

// 'H' '2' '6' '4', least significant byte first.
constexpr double kFourccH264 = 875967048.0;
constexpr double kStreamFps = 30.0;
constexpr int kJpegQuality = 55;

// Both threads print; each line goes out whole and at once, so a pipe sees
// the lines in the order they were written. std::cout shares stdout's buffer
// with printf (sync_with_stdio is left on), so flushing it flushes stdout.
void say(const char* line) { std::cout << line << std::flush; }

void sayIndex(const char* format, int index) {
    std::printf(format, index);
    std::fflush(stdout);
}

}  // namespace

rtspQueue::rtspQueue(std::string url, std::string overlayPath)
    : url(std::move(url)), composer(ring, ring.pool, std::move(overlayPath)) {
    // The encoder parameters are filled once the stream is open.
    composer.encodeParams.clear();

    // Nothing can call stop() on an object still being constructed, so this
    // waits for the stream however long it takes.
    openWithRetries(/*stoppable=*/false);

    std::printf("Version = %s\n", CV_VERSION);
    std::fflush(stdout);
    capture.set(cv::CAP_PROP_FOURCC, kFourccH264);
    capture.set(cv::CAP_PROP_FPS, kStreamFps);
    composer.encodeParams.push_back(cv::IMWRITE_JPEG_QUALITY);
    composer.encodeParams.push_back(kJpegQuality);

    running = true;
    say("Stream running\n");
}

rtspQueue::~rtspQueue() {
    capture.release();
    say("Stream closed\n");
    // The composer drops the overlay document as the members go.
}

std::thread rtspQueue::start() { return std::thread(&rtspQueue::readLoop, this); }

void rtspQueue::stop() {
    {
        // Cleared under the pause mutex, so a reader about to start its pause
        // either sees the flag or is already waiting when the signal comes.
        MutexLock lock(&pauseMutex);
        running = false;
    }
    stopSignal.signal();
}

bool rtspQueue::pauseBeforeOpen(bool stoppable) {
    const auto deadline = std::chrono::steady_clock::now() + kOpenRetryPause;
    MutexLock lock(&pauseMutex);
    while (!(stoppable && !running)) {
        if (!stopSignal.waitUntil(pauseMutex, deadline)) return !(stoppable && !running);
    }
    return false;
}

bool rtspQueue::openWithRetries(bool stoppable) {
    say("Opening endpoint\n");
    while (!capture.isOpened()) {
        if (!pauseBeforeOpen(stoppable)) return false;
        capture.open(url);
    }
    say("Stream opened\n");
    return true;
}

void rtspQueue::openEndpoint() { openWithRetries(/*stoppable=*/true); }

void rtspQueue::readLoop() {
    int emptyFrames = 0;
    while (running) {
        // Decode straight into the ring's write slot: no intermediate copy.
        if (decodeFrame([this](cv::Mat&) { readNextFrame(capture, ring); }, ring.writeSlot())) {
            commitFrame();
            emptyFrames = 0;
            usleep(kCommitPauseMicros);
            continue;
        }
        // No pause here: eleven empty frames in a row lead to a reopen, and
        // its 7-second pause is what paces a stream that keeps failing.
        if (++emptyFrames > kMaxEmptyFrames) {
            capture.release();
            openEndpoint();
            emptyFrames = 0;
        }
        std::cerr << "frame empty\n";
    }
}

void rtspQueue::commitFrame() {
    // writeIndex belongs to this thread; lastWritten does not (a take clears it).
    const int committed = ring.writeIndexValue();
    ring.commitFrame();
    sayIndex("Q F = %d\n", committed);
}

int rtspQueue::takeNewest() {
    const int i = ring.takeAndClear();
    sayIndex("DQ F = %d\n", i);
    return i;
}

bool rtspQueue::getImage(std::string& jpeg) {
    for (int attempt = 1; attempt <= kImageAttempts; ++attempt) {
        const int i = takeNewest();
        if (i != -1) {
            composeTaken(ring, composer, i, jpeg, &jpegBuffer);
            return true;
        }
        ring.servingIndex = -1;
        usleep(kImagePollMicros);
    }
    return false;
}
