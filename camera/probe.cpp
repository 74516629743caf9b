#include "probe.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/ioctl.h>
#include <sys/select.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "event_log.h"

bool testConnection(const char* host, int port, int timeoutSeconds) {
    int sock = socket(AF_INET, SOCK_STREAM, IPPROTO_TCP);

    struct sockaddr_in dest;
    memset(&dest, 0, sizeof dest);
    dest.sin_family = AF_INET;
    dest.sin_port = htons(static_cast<uint16_t>(port));
    dest.sin_addr.s_addr = inet_addr(host);

    int mode = 1;
    int result = ioctl(sock, FIONBIO, &mode);
    if (result != 0) {
        logEvent(g_log, "ioctlsocket failed with error: %d", result);
        if (sock >= 0) close(sock);
        return false;
    }

    if (connect(sock, reinterpret_cast<struct sockaddr*>(&dest), sizeof dest) != 0 &&
        errno != EINPROGRESS) {
        // Refused at once (or no route): no point waiting.
        logEvent(g_log, "connect failed to %s:%d", host, port);
        close(sock);
        return false;
    }
    // A connect that completed at once falls through: select reports the
    // socket writable and SO_ERROR is 0.

    mode = 0;
    result = ioctl(sock, FIONBIO, &mode);
    if (result != 0) logEvent(g_log, "ioctlsocket failed with error: %d", result);

    // A descriptor beyond FD_SETSIZE cannot be waited on with select.
    if (sock >= FD_SETSIZE) {
        close(sock);
        return false;
    }
    fd_set writeSet, exceptSet;
    FD_ZERO(&writeSet);
    FD_ZERO(&exceptSet);
    FD_SET(sock, &writeSet);
    FD_SET(sock, &exceptSet);
    struct timeval limit;
    limit.tv_sec = timeoutSeconds;
    limit.tv_usec = 0;
    if (select(sock + 1, nullptr, &writeSet, &exceptSet, &limit) <= 0) {
        close(sock);
        return false;
    }
    if (FD_ISSET(sock, &exceptSet)) {
        close(sock);
        return false;
    }

    int error = -1;
    socklen_t length = sizeof error;
    getsockopt(sock, SOL_SOCKET, SO_ERROR, &error, &length);
    close(sock);
    return error == 0;
}
