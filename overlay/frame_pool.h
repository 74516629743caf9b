// Spare frame buffers, at most kSpares of them, so that neither the read
// thread nor the composer allocates per frame (see FrameRing for who gives
// and takes what). Thread-safe: each call holds the pool's own mutex for a
// few pointer moves, never while a buffer is allocated or freed.
#pragma once

#include <cstddef>
#include <deque>
#include <opencv2/core.hpp>

#include "thread_annotations.h"

class FramePool {
public:
    static constexpr std::size_t kSpares = 2;

    // A spare of `size` and `type`, or an empty matrix when none is (the
    // caller's create() or decode then allocates).
    cv::Mat take(cv::Size size, int type) EXCLUDES(mutex);
    // Keeps `buffer` as a spare, freeing the oldest beyond kSpares. Ignores
    // an empty buffer and one whose data another matrix still refers to.
    void give(cv::Mat buffer) EXCLUDES(mutex);

private:
    Mutex mutex;
    std::deque<cv::Mat> spares GUARDED_BY(mutex);  // oldest first
};
