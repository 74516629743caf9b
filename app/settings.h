// The process-wide settings record, filled once from the command line.
#pragma once

#include <cstdint>

// The camera part of the settings. Camera keeps a reference to it.
struct StreamSettings {
    const char* url;
    int32_t width;
    int32_t height;
    double fps;
    const char* codec;
    const char* testUrl;   // "host:port"; empty means no connectivity test
    const char* testHost;  // numeric IPv4 text the probe connects to
    int32_t testPort;
};

struct Settings {
    int32_t httpPort;
    StreamSettings stream;
};

extern Settings g_settings;

// The loop period in microseconds: the main loop's, the read thread's and
// getImage's pause. Fixed for the life of the process.
extern const int64_t g_loopPeriod;

// The camera's LAN address and the defaults derived from it.
inline constexpr const char* kCameraAddress = "192.168.1.64";
inline constexpr const char* kDefaultStreamUrl = "rtsp://192.168.1.64:554/stream1";
inline constexpr const char* kDefaultTestUrl = "192.168.1.64:554";

// Assigns the defaults to `settings`, then parses argv into it with argp.
// argp ends the process itself on --help, --usage and command-line errors.
void parseArguments(int argc, char** argv, Settings& settings = g_settings);

// Splits settings.stream.testUrl at its first ':' into testHost and
// testPort. Returns the heap copy that testHost now points at (the caller
// frees it), or nullptr when the URL has no colon and nothing changed.
char* splitTestUrl(Settings& settings = g_settings);

// Writes the seven settings lines to the event log.
void printSettings(const Settings& settings = g_settings);

// Sleeps `micros` microseconds with nanosleep, resuming after signals; does
// nothing for a period of 0 or less.
void sleepMicros(int64_t micros);

// One loop period.
inline void sleepLoopPeriod() { sleepMicros(g_loopPeriod); }
