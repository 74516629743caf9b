#include "probe.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/ioctl.h>
#include <sys/select.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>

#include "event_log.h"

namespace {

// The probe's socket, closed by its destructor on every way out.
class ProbeSocket {
public:
    ProbeSocket() : fd(socket(AF_INET, SOCK_STREAM, IPPROTO_TCP)) {}
    ~ProbeSocket() {
        if (fd >= 0) close(fd);
    }
    ProbeSocket(const ProbeSocket&) = delete;
    ProbeSocket& operator=(const ProbeSocket&) = delete;

    const int fd;  // -1 when socket() failed
};

// Switches blocking mode with FIONBIO; a failure is logged with the call's
// result.
bool setNonBlocking(int fd, int on) {
    const int result = ioctl(fd, FIONBIO, &on);
    if (result != 0) logEvent(g_log, "ioctlsocket failed with error: %d", result);
    return result == 0;
}

}  // namespace

bool testConnection(const char* host, int port, int timeoutSeconds) {
    const ProbeSocket sock;
    // Without a socket the switch to non-blocking mode is what fails, and
    // is logged as such (with the -1 every failed call returns).
    if (sock.fd < 0) {
        logEvent(g_log, "ioctlsocket failed with error: %d", -1);
        return false;
    }
    if (!setNonBlocking(sock.fd, 1)) return false;

    sockaddr_in dest{};
    dest.sin_family = AF_INET;
    dest.sin_port = htons(static_cast<uint16_t>(port));
    dest.sin_addr.s_addr = inet_addr(host);
    if (connect(sock.fd, reinterpret_cast<const sockaddr*>(&dest), sizeof dest) != 0 &&
        errno != EINPROGRESS) {
        // Refused at once (or no route): no point waiting.
        logEvent(g_log, "connect failed to %s:%d", host, port);
        return false;
    }
    // A connect that completed at once falls through: select reports the
    // socket writable and SO_ERROR is 0.

    setNonBlocking(sock.fd, 0);  // a failure is logged; the wait goes on

    // A descriptor beyond FD_SETSIZE cannot be waited on with select.
    if (sock.fd >= FD_SETSIZE) return false;
    fd_set writeSet, exceptSet;
    FD_ZERO(&writeSet);
    FD_ZERO(&exceptSet);
    FD_SET(sock.fd, &writeSet);
    FD_SET(sock.fd, &exceptSet);
    timeval limit{timeoutSeconds, 0};
    if (select(sock.fd + 1, nullptr, &writeSet, &exceptSet, &limit) <= 0) return false;
    if (FD_ISSET(sock.fd, &exceptSet)) return false;

    int error = -1;
    socklen_t length = sizeof error;
    getsockopt(sock.fd, SOL_SOCKET, SO_ERROR, &error, &length);
    return error == 0;
}
