#include "event_log.h"

#include <sys/time.h>

#include <cstdarg>
#include <cstdio>
#include <ctime>
#include <string>

std::mutex g_log asm("vs_event_log_mutex");

namespace {
std::string& logPath() {
    static std::string path = kEventLogPath;
    return path;
}
}  // namespace

void setEventLogPath(const char* path) { logPath() = path; }

void formatLogTimestamp(long seconds, long microseconds, char* out, size_t outSize) {
    // gmtime_r: the overlay renderer converts local time on the main thread
    // without our lock, so the result must live in our own storage.
    time_t t = seconds;
    struct tm utc;
    gmtime_r(&t, &utc);
    char dateTime[32];
    strftime(dateTime, sizeof dateTime, "%Y-%m-%d %X", &utc);
    snprintf(out, outSize, "%s.%06ld", dateTime, microseconds);
}

void logEvent(std::mutex& mutex, const char* format, ...) {
    std::lock_guard<std::mutex> lock(mutex);

    char message[1024];
    va_list args;
    va_start(args, format);
    vsnprintf(message, sizeof message, format, args);  // cuts, never overflows
    va_end(args);

    // The clock is read under the lock, so lines are in time-stamp order.
    struct timeval now;
    gettimeofday(&now, nullptr);
    char stamp[64];
    formatLogTimestamp(now.tv_sec, now.tv_usec, stamp, sizeof stamp);

    // Opened per line so the storage can be pulled and reinserted.
    FILE* file = fopen(logPath().c_str(), "a");
    if (file == nullptr) return;
    fprintf(file, "%s %s\n", stamp, message);
    fclose(file);
}
