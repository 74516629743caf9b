// The event log: one UTC-time-stamped line per event, appended to a file on
// removable storage. Written from the main thread and the camera's read
// thread alike; every caller passes g_log.
#pragma once

#include <mutex>

#include "thread_annotations.h"

// Serialises whole log calls (format, clock, open, write, close).
// The linker name differs from the source name: GLib (loaded by the video
// library's GStreamer back end) exports a function called g_log, and a data
// symbol of that name in the executable would capture GLib's calls.
extern std::mutex g_log asm("vs_event_log_mutex");

inline constexpr const char* kEventLogPath = "/media/usb99/stream.log";

// printf-style; appends "<YYYY-MM-DD HH:MM:SS.uuuuuu> <message>\n".
// Messages longer than 1023 characters are cut. When the file cannot be
// opened the line is dropped silently; the next call tries again.
void logEvent(std::mutex& mutex, const char* format, ...) __attribute__((format(printf, 2, 3)));

// Where logEvent writes; kEventLogPath unless set. Not thread-safe: set it
// before any thread logs.
void setEventLogPath(const char* path);

// Formats the time stamp of a log line ("%Y-%m-%d %X" in UTC, a full stop
// and six digits of microseconds) into out, which holds outSize bytes.
void formatLogTimestamp(long seconds, long microseconds, char* out, size_t outSize);
