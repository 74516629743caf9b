// What Camera and rtspQueue do alike on either side of the frame ring: the
// read thread's guarded decoding call, and the consumer's composition of
// the slot it has just taken.
#pragma once

#include <opencv2/core.hpp>

#include <exception>
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
