// The network: listens, reads requests, hands sockets on.
#pragma once

#include "apps/serve/viewer.h"

#include <functional>
#include <memory>
#include <string>

namespace serve {

struct ListenOptions {
    std::string address = "127.0.0.1";
    unsigned short port = 8765;  // 0: any that is free
};

// A viewer with its network. Everything of it but drawing and loading happens on the thread that calls Run.
class HttpServer {
public:
    // Listens from now on. Throws Error when it cannot.
    HttpServer(const ListenOptions& listen, ViewerOptions viewer);
    ~HttpServer();
    HttpServer(const HttpServer&) = delete;
    HttpServer& operator=(const HttpServer&) = delete;

    // The address to open, with the token.
    std::string Link() const;
    unsigned short Port() const;

    // Serves until Stop, or with `until_signal` an interrupt or a request to terminate.
    void Run(bool until_signal);
    // From any thread.
    void Stop();

private:
    class Network;

    std::unique_ptr<Network> m_Network;
};

}  // namespace serve
