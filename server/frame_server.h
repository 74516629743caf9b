// The HTTP side: a non-blocking epoll listener that accepts clients, tells
// stream clients from single-image clients by their request, and sends them
// the frames. Owns the listener, the epoll instance and the client records.
//
// One thread (the main loop's), no locks. handleEvents() never waits; sends
// are blocking, so a slow reader slows the caller, and a client that takes
// nothing for 10 s is cut off by the kernel. The constructor makes the whole
// process ignore SIGPIPE.
#pragma once

#include <sys/epoll.h>
#include <sys/socket.h>

#include <cstdint>
#include <list>
#include <string>

// One accepted connection. Its state follows from the flags:
//   none set                   connected, no request acted on yet;
//   headerSent && streaming    receives one multipart part per frame;
//   singleImage                gets the next frame as one HTTP response,
//                              then its socket is shut down.
// A client is "waiting for frames" in the last two states.
struct Client {
    sockaddr_storage addr{};  // peer address as accept returned it
    int fd = -1;              // connected (blocking) socket; the client's identity
    uint16_t port = 0;        // peer port, host byte order
    bool headerSent = false;
    bool streaming = false;  // cleared just before the header goes out
    bool singleImage = false;
};

class FrameServer {
public:
    // Listens on `port` on all IPv4 interfaces. Set-up failures print one
    // message each on std::cerr and set-up goes on; a server without a
    // listener simply never gets clients.
    explicit FrameServer(int port);
    // Closes the listener and frees the client records. Client sockets and
    // the epoll instance are left open: the server lives for the whole
    // process and exit releases them. Code that creates and destroys servers
    // repeatedly (tests) leaks those descriptors; remove clients first.
    ~FrameServer();

    // The epoll registration holds &listenFd and every Client*, so the
    // object may neither be copied nor moved.
    FrameServer(const FrameServer&) = delete;
    FrameServer& operator=(const FrameServer&) = delete;

    // One pass without waiting: at most 10 events, at most one accept, one
    // read of at most 1024 bytes per readable client; removes clients that
    // hung up; sends the stream header to clients whose request did not ask
    // for a single frame.
    void handleEvents();

    // Sends `jpeg` to every client waiting for frames, newest first: one
    // multipart part to streaming clients, a complete response to single-
    // image clients, whose sockets are then shut down (a later handleEvents
    // removes them). Returns 0.
    int sendFrame(const std::string& jpeg);

    // Accepts one pending connection and lists it first. 0 on success, -1
    // when there is no listener or accept or registration failed.
    int acceptClient();
    // Deregisters the client, and if a listed record has its fd, closes that
    // socket and frees the record. `client` must not be used afterwards.
    void removeClient(Client* client);
    // Sends g_streamHeader on `socket`; returns the send's result.
    int sendStreamHeader(int socket);
    // Closes the listener: no client is accepted any more; listed clients
    // stay. Destruction closes it too.
    void closeListener();
    // Whether any listed client is waiting for frames (see Client).
    bool hasWaitingClients() const;

private:
    friend struct FrameServerPeer;

    // The listener's local port, or -1 without a listener.
    int boundPort() const;
    void readRequest(Client* client);

    int32_t backlog = 5;
    epoll_event event{};         // scratch, for registering one socket
    epoll_event events[10]{};    // ready events of one epoll_wait
    int32_t listenFd = -1;       // -1 whenever there is no listener
    int32_t epollFd = -1;        // negative if creation failed
    std::list<Client*> clients;  // owned; newest first
};
