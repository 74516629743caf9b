// TCP connectivity probe of the camera's RTSP port.
#pragma once

// True only when a TCP connection to host:port (dotted IPv4, no name
// resolution) is established within timeoutSeconds. Sends no data; the
// socket is closed on every path. Blocks the caller for at most the limit.
bool testConnection(const char* host, int port, int timeoutSeconds);
