#include "frame_server.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <iostream>
#include <string_view>

#include "wire_format.h"

namespace {

constexpr int kMaxEvents = 10;
constexpr size_t kReadSize = 1024;
constexpr std::string_view kSingleImageMarker = "frame_id=";

// How long a client that takes nothing may hold the main loop. Sends are
// blocking, so a viewer that stops reading (a suspended phone browser) or
// vanishes (out of Wi-Fi range, a pulled cable) would stall every other
// viewer for as long as the kernel keeps its connection: without a bound,
// forever or about 15 minutes of retransmissions. With TCP_USER_TIMEOUT the
// kernel aborts the connection once data stays unacknowledged, or the
// peer's receive window stays shut, for 10 s on end; the blocked send then
// fails and the next pass removes the client. A living viewer that keeps
// reading, however slowly, acknowledges and reopens its window well within
// that time, so it stays. 10 s keeps the others' loss to about 10 s, once,
// and under 15 s whatever the kernel's probe timing adds; much shorter would
// start cutting off living viewers on a poor wireless link.
constexpr int kUserTimeoutMs = 10'000;
// Keep-alive finds a viewer that vanished while nothing was being sent to
// it (connected without a request yet, or while the camera is away): the
// first probe after 5 s of silence, then one a second. The connection is
// dropped after 10 s without an answer, by the count (5 + 5 × 1 s) and by
// the user timeout alike, which also governs keep-alive.
constexpr int kKeepIdleS = 5;
constexpr int kKeepIntervalS = 1;
constexpr int kKeepCount = 5;

// Failures are not reported: the connection works as before, only without
// the bounds.
void boundDeadPeers(int fd) {
    const int on = 1;
    setsockopt(fd, IPPROTO_TCP, TCP_USER_TIMEOUT, &kUserTimeoutMs, sizeof kUserTimeoutMs);
    setsockopt(fd, SOL_SOCKET, SO_KEEPALIVE, &on, sizeof on);
    setsockopt(fd, IPPROTO_TCP, TCP_KEEPIDLE, &kKeepIdleS, sizeof kKeepIdleS);
    setsockopt(fd, IPPROTO_TCP, TCP_KEEPINTVL, &kKeepIntervalS, sizeof kKeepIntervalS);
    setsockopt(fd, IPPROTO_TCP, TCP_KEEPCNT, &kKeepCount, sizeof kKeepCount);
}

uint16_t peerPort(const sockaddr_storage& addr) {
    if (addr.ss_family == AF_INET)
        return ntohs(reinterpret_cast<const sockaddr_in&>(addr).sin_port);
    if (addr.ss_family == AF_INET6)
        return ntohs(reinterpret_cast<const sockaddr_in6&>(addr).sin6_port);
    return 0;
}

}  // namespace

FrameServer::FrameServer(int port) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<uint16_t>(port));
    address.sin_addr.s_addr = htonl(INADDR_ANY);
    const int on = 1;

    signal(SIGPIPE, SIG_IGN);

    // Each step reports its own failure and set-up carries on: a server
    // that cannot listen must not take the rest of the process down.
    listenFd = socket(AF_INET, SOCK_STREAM, 0);
    const int flags = fcntl(listenFd, F_GETFL);
    if (flags == -1) {
        std::cerr << "Get file opts error";
    } else if (fcntl(listenFd, F_SETFL, flags | O_NONBLOCK) == -1) {
        std::cerr << "fcntl error";
    }
    if (setsockopt(listenFd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on) == -1) {
        std::cerr << "Set socket options error";
    }
    if (bind(listenFd, reinterpret_cast<const sockaddr*>(&address), sizeof address) == -1) {
        std::cerr << "Can't bind socket\n";
    }
    if (listen(listenFd, backlog) == -1) {
        std::cerr << "Listen error\n";
    }

    epollFd = epoll_create1(0);
    if (epollFd < 0) std::cerr << "epoll create error";

    event.events = EPOLLIN;
    event.data.ptr = &listenFd;
    if (epoll_ctl(epollFd, EPOLL_CTL_ADD, listenFd, &event) == -1) {
        std::cerr << "epoll ctl error";
    }
}

FrameServer::~FrameServer() {
    if (listenFd != -1) close(listenFd);
    // Client sockets and epollFd stay open on purpose; see the header.
    for (Client* client : clients) delete client;
}

void FrameServer::handleEvents() {
    const int ready = epoll_wait(epollFd, events, kMaxEvents, 0);
    if (ready == -1) {
        const int error = errno;
        std::cerr << "epoll wait error " << error << "\n";
        return;
    }
    for (int i = 0; i < ready; ++i) {
        const epoll_event& ev = events[i];
        if (ev.data.ptr == &listenFd) {
            // One accept per pass; the level-triggered listener reports
            // the remaining connections again in the next pass.
            if (ev.events & EPOLLIN) acceptClient();
            continue;
        }
        Client* client = static_cast<Client*>(ev.data.ptr);
        if (ev.events & EPOLLRDHUP) {
            removeClient(client);  // unread request bytes do not matter any more
        } else if (ev.events & EPOLLIN) {
            readRequest(client);
        }
    }
}

void FrameServer::readRequest(Client* client) {
    char buffer[kReadSize];
    const ssize_t got = read(client->fd, buffer, sizeof buffer);
    if (got == 0) {
        removeClient(client);
        return;
    }
    if (got < 0) {
        // A transient failure leaves the client alone (the socket is
        // reported again next pass); anything else means the connection is
        // unusable, so drop it now rather than reporting it every pass.
        if (errno != EAGAIN && errno != EWOULDBLOCK && errno != EINTR) removeClient(client);
        return;
    }

    // Each read is judged on its own; the text ends at the first NUL.
    const std::string_view text(buffer, strnlen(buffer, static_cast<size_t>(got)));
    if (text.find(kSingleImageMarker) != std::string_view::npos) {
        client->singleImage = true;  // answered with the next frame
        return;
    }
    if (client->headerSent || client->singleImage) return;

    client->streaming = false;
    if (sendStreamHeader(client->fd) < 0) {
        removeClient(client);
        return;
    }
    // A short count is accepted: the connection is marked streaming anyway.
    client->headerSent = true;
    client->streaming = true;
}

int FrameServer::acceptClient() {
    if (listenFd == -1) return -1;

    sockaddr_storage addr{};
    socklen_t length = sizeof addr;
    const int fd = accept(listenFd, reinterpret_cast<sockaddr*>(&addr), &length);
    if (fd == -1) {
        perror("accept() failure");
        return -1;
    }

    boundDeadPeers(fd);

    Client* client = new Client;
    client->addr = addr;
    client->fd = fd;
    client->port = peerPort(addr);

    event.events = EPOLLIN | EPOLLOUT | EPOLLRDHUP;
    event.data.ptr = client;
    if (epoll_ctl(epollFd, EPOLL_CTL_ADD, fd, &event) == -1) {
        std::cerr << "epoll ctl add error";
        close(fd);
        delete client;
        return -1;
    }

    clients.push_front(client);
    std::cout << "client connected\n" << std::flush;
    return 0;
}

void FrameServer::removeClient(Client* client) {
    const int fd = client->fd;
    if (epoll_ctl(epollFd, EPOLL_CTL_DEL, fd, nullptr) == -1) {
        std::cerr << "epoll ctl del error";
    }
    for (auto it = clients.begin(); it != clients.end(); ++it) {
        if ((*it)->fd == fd) {
            close(fd);
            delete *it;
            clients.erase(it);
            return;
        }
    }
}

int FrameServer::sendStreamHeader(int socket) {
    return static_cast<int>(send(socket, g_streamHeader.data(), g_streamHeader.size(), 0));
}

void FrameServer::closeListener() {
    if (listenFd == -1) return;
    close(listenFd);
    listenFd = -1;
}

bool FrameServer::hasWaitingClients() const {
    for (const Client* client : clients) {
        if (client->singleImage || (client->headerSent && client->streaming)) return true;
    }
    return false;
}

int FrameServer::boundPort() const {
    if (listenFd == -1) return -1;
    sockaddr_in address{};
    socklen_t length = sizeof address;
    if (getsockname(listenFd, reinterpret_cast<sockaddr*>(&address), &length) == -1) return -1;
    return ntohs(address.sin_port);
}

int FrameServer::sendFrame(const std::string& jpeg) {
    // Built once; every streaming client gets the same bytes.
    const std::string part = buildPart(jpeg);

    for (Client* client : clients) {
        if (client->singleImage) {
            // Failures here need no handling: the shutdown below ends the
            // connection either way, and handleEvents then removes it.
            const std::string header = buildSingleImageHeader(jpeg.size());
            send(client->fd, header.data(), header.size(), 0);
            send(client->fd, jpeg.data(), jpeg.size(), 0);
            shutdown(client->fd, SHUT_RDWR);
        } else if (client->headerSent && client->streaming) {
            // A short send is not completed; the next frame starts a new part.
            if (send(client->fd, part.data(), part.size(), 0) == -1) {
                const int error = errno;
                std::cerr << error << "\n";
            }
        }
    }
    return 0;
}
