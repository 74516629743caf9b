#include <opencv2/core/version.hpp>

#include <cstdlib>

#include "event_log.h"
#include "settings.h"

int main(int argc, char** argv) {
    logEvent(g_log, "************** ENTRY **************");
    parseArguments(argc, argv);
    logEvent(g_log, "OpenCV version = %s", CV_VERSION);
    char* testHost = splitTestUrl();
    printSettings();
    free(testHost);
    logEvent(g_log, "************** EXIT **************");
    return 0;
}
