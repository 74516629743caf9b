// Spare frame buffers, so that neither the read thread nor the composer
// allocates per frame and no buffer outlives its use. The frame ring owns
// one and lends it to its composer.
//
// The read thread takes a buffer of the decoded size before decoding into a
// ring slot, and gives back the buffers of slots that no take can reach any
// more. The composer takes a 1280 x 720 buffer to scale a frame into, and
// gives back the decoded frame's buffer. At most kSpares buffers wait here;
// one given beyond that frees the oldest spare. With the ring keeping
// buffers in three slots at most (the one being written, the newest
// committed and the one served last), a process holds a handful of frames
// whatever the consumer does.
//
// Thread-safe: each call takes the pool's own mutex for a few pointer moves,
// never while a buffer is allocated or freed.
#pragma once

#include <opencv2/core.hpp>

#include <cstddef>
#include <deque>

#include "thread_annotations.h"

class FramePool {
public:
    static constexpr std::size_t kSpares = 2;

    // A spare of `size` and `type`, or an empty matrix when none is (the
    // caller's create() or decode then allocates).
    cv::Mat take(cv::Size size, int type) EXCLUDES(mutex);
    // Keeps `buffer` as a spare. Ignores an empty one and one whose data
    // another matrix still refers to.
    void give(cv::Mat buffer) EXCLUDES(mutex);

private:
    Mutex mutex;
    std::deque<cv::Mat> spares GUARDED_BY(mutex);  // oldest first
};
