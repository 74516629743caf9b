#include "frame_pool.h"

#include <utility>

cv::Mat FramePool::take(cv::Size size, int type) {
    cv::Mat buffer;
    MutexLock lock(&mutex);
    for (auto it = spares.begin(); it != spares.end(); ++it) {
        if (it->size() == size && it->type() == type) {
            buffer = std::move(*it);
            spares.erase(it);
            break;
        }
    }
    return buffer;
}

void FramePool::give(cv::Mat buffer) {
    if (buffer.empty() || buffer.u == nullptr || buffer.u->refcount != 1) return;
    cv::Mat oldest;  // declared before the lock: freed after it is released
    MutexLock lock(&mutex);
    spares.push_back(std::move(buffer));
    if (spares.size() > kSpares) {
        oldest = std::move(spares.front());
        spares.pop_front();
    }
}
