#include "settings.h"

#include <argp.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <ctime>

#include "event_log.h"

Settings g_settings;
const int64_t g_loopPeriod = 1000;

namespace {

const struct argp_option kOptions[] = {
    {"httpport", 'p', "8080", 0, "HTTP Port", 0},
    {"url", 'u', kDefaultStreamUrl, 0, "Stream URL", 0},
    {"width", 'w', "720", 0, "Stream Width", 0},
    {"height", 'h', "1080", 0, "Stream Height", 0},
    {"fps", 'f', "30.0", 0, "Stream Frames Per Second", 0},
    {"codec", 'c', "h264", 0, "Stream Codec", 0},
    {"testurl", 't', kDefaultTestUrl, 0, "Connectivity Test URL", 0},
    {nullptr, 0, nullptr, 0, nullptr, 0},
};

error_t parseOption(int key, char* arg, struct argp_state* state) {
    Settings& settings = *static_cast<Settings*>(state->input);
    switch (key) {
        case 'p':
            settings.httpPort = static_cast<int32_t>(strtol(arg, nullptr, 10));
            break;
        case 'w':
            settings.stream.width = static_cast<int32_t>(strtol(arg, nullptr, 10));
            break;
        case 'h':
            settings.stream.height = static_cast<int32_t>(strtol(arg, nullptr, 10));
            break;
        case 'f':
            settings.stream.fps = strtod(arg, nullptr);
            break;
        case 'u':
            settings.stream.url = arg;
            break;
        case 'c':
            settings.stream.codec = arg;
            break;
        case 't':
            settings.stream.testUrl = arg;
            break;
        case ARGP_KEY_ARG:
            argp_state_help(state, stderr, ARGP_HELP_STD_USAGE);
            break;
        case ARGP_KEY_END:
        case ARGP_KEY_ARGS:
            break;
        default:
            return ARGP_ERR_UNKNOWN;
    }
    return 0;
}

const struct argp kArgp = {kOptions, parseOption, "", "Video Server", nullptr, nullptr, nullptr};

}  // namespace

void parseArguments(int argc, char** argv, Settings& settings) {
    settings.httpPort = 8080;
    settings.stream.url = kDefaultStreamUrl;
    settings.stream.width = 1280;
    settings.stream.height = 720;
    settings.stream.fps = 30.0;
    settings.stream.codec = "h264";
    settings.stream.testUrl = kDefaultTestUrl;
    settings.stream.testHost = kCameraAddress;
    settings.stream.testPort = 554;
    argp_parse(&kArgp, argc, argv, 0, nullptr, &settings);
}

char* splitTestUrl(Settings& settings) {
    const char* colon = strchr(settings.stream.testUrl, ':');
    if (colon == nullptr) return nullptr;
    settings.stream.testPort = static_cast<int32_t>(strtol(colon + 1, nullptr, 10));
    char* host = strdup(settings.stream.testUrl);
    if (host == nullptr) return nullptr;
    *strchr(host, ':') = '\0';
    settings.stream.testHost = host;
    return host;
}

void printSettings(const Settings& settings) {
    logEvent(g_log, "HTTP Port     : %d", settings.httpPort);
    logEvent(g_log, "Stream URL    : %s", settings.stream.url);
    logEvent(g_log, "Video Width   : %d", settings.stream.width);
    logEvent(g_log, "Video Height  : %d", settings.stream.height);
    logEvent(g_log, "Stream FPS    : %.1f", settings.stream.fps);
    logEvent(g_log, "Stream CODEC  : %s", settings.stream.codec);
    logEvent(g_log, "Test URL      : %s", settings.stream.testUrl);
}

void sleepMicros(int64_t micros) {
    if (micros <= 0) return;
    struct timespec request;
    request.tv_sec = static_cast<time_t>(micros / 1000000);
    request.tv_nsec = static_cast<long>((micros % 1000000) * 1000);
    while (nanosleep(&request, &request) == -1 && errno == EINTR) {
    }
}
