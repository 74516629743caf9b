#include "buffer_exchange.h"

#include <utility>

cv::Mat BufferExchange::takeOutputBuffer(cv::Size size, int type) {
    cv::Mat buffer;
    {
        MutexLock lock(&mutex);
        for (auto it = outputSpares.begin(); it != outputSpares.end(); ++it) {
            if (it->size() == size && it->type() == type) {
                buffer = std::move(*it);
                outputSpares.erase(it);
                break;
            }
        }
    }
    return buffer;
}

void BufferExchange::putDecodeBuffer(cv::Mat buffer) {
    MutexLock lock(&mutex);
    if (decodeSpares.size() < kSpares) decodeSpares.push_back(std::move(buffer));
    // else the buffer is freed on return, after the lock is released
}

void BufferExchange::prepareForDecode(cv::Mat& slot) {
    cv::Mat surplus;
    MutexLock lock(&mutex);
    // A slot that still holds a decoded frame (one the composer skipped)
    // keeps its buffer.
    if (decodeSpares.empty() || slot.size() == decodeSpares.back().size()) return;
    std::swap(slot, decodeSpares.back());
    cv::Mat composed = std::move(decodeSpares.back());
    decodeSpares.pop_back();
    if (composed.empty()) return;
    if (outputSpares.size() < kSpares) {
        outputSpares.push_back(std::move(composed));
    } else {
        surplus = std::move(composed);
    }
}
