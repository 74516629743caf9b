// What Camera and rtspQueue do alike on either side of the frame ring: the
// read thread's decoding call and its guard, and the consumer's composition
// of the slot it has just taken.
#pragma once

#include <exception>
#include <opencv2/core.hpp>
#include <opencv2/videoio.hpp>
#include <string>
#include <vector>

#include "frame_composer.h"
#include "frame_ring.h"

// Read thread: one decoding call into `slot`. Returns nullptr when it
// returned normally; otherwise what it threw, as one of three fixed texts
// (the exception's own message is not kept). Nothing escapes.
template <typename Decode>
const char* decodeCatching(Decode&& decode, cv::Mat& slot) noexcept {
    try {
        decode(slot);
    } catch (const cv::Exception&) {
        return "cv exception reading frame";
    } catch (const std::exception&) {
        return "std exception reading frame";
    } catch (...) {
        return "general exception reading frame";
    }
    return nullptr;
}

// Read thread: the next frame into the ring's write slot, as `capture >>
// slot` does it (the slot is empty when no frame came). The slot takes its
// pooled buffer only after the grab: by then the consumer has usually given
// back the buffer of the frame it scaled, so two buffers take turns, not three.
inline void readNextFrame(cv::VideoCapture& capture, FrameRing& ring) {
    if (capture.grab()) {
        capture.retrieve(ring.prepareWriteSlot());
    } else {
        ring.writeSlot().release();
    }
}

// Consumer: composes and encodes slot `i`, just taken from `ring`, into
// `jpeg` (moved, not copied), then lets the slot go. The encoder writes into
// `encoded` when given, else into the composer's own buffer.
inline void composeTaken(FrameRing& ring, FrameComposer& composer, int i, std::string& jpeg,
                         std::vector<uchar>* encoded = nullptr) {
    ring.servingIndex = i;
    jpeg = encoded != nullptr ? composer.composeFrame(ring.slot(i), *encoded)
                              : composer.composeFrame(ring.slot(i));
    ring.slotDone();
}
