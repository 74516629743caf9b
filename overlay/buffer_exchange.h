// Frame buffers passed between the read thread and the composer, so that
// neither allocates per frame while the ring's slots keep only composed
// 1280 x 720 frames between their decodes (as small as scaling in place
// leaves them).
//
// Composition scales a decoded slot into an output buffer taken from here
// and swaps it into the slot; the slot's decoded-size buffer comes here.
// Before decoding into a slot, the read thread swaps a spare decoded-size
// buffer in and leaves the slot's composed buffer here for the next
// composition. Each side keeps at most kSpares buffers; what a user of only
// one side (a reader that does not call prepareForDecode) leaves beyond
// that is freed.
//
// Thread-safe: every call takes the exchange's own mutex for a few pointer
// moves, never while scaling, decoding or allocating.
#pragma once

#include <opencv2/core.hpp>

#include <vector>

#include "thread_annotations.h"

class BufferExchange {
public:
    static constexpr std::size_t kSpares = 2;

    // Composer: a buffer for a composed frame, of `size` and `type` if one
    // is spare (else empty: the caller's create() allocates it).
    cv::Mat takeOutputBuffer(cv::Size size, int type) EXCLUDES(mutex);
    // Composer: a decoded frame's buffer that no slot refers to any more.
    void putDecodeBuffer(cv::Mat buffer) EXCLUDES(mutex);
    // Read thread, before decoding into `slot`: when a spare decode buffer
    // exists, it replaces the slot's buffer, which becomes a spare output
    // buffer. The slot's content is lost either way.
    void prepareForDecode(cv::Mat& slot) EXCLUDES(mutex);

private:
    Mutex mutex;
    std::vector<cv::Mat> decodeSpares GUARDED_BY(mutex);
    std::vector<cv::Mat> outputSpares GUARDED_BY(mutex);
};
