// A WebSocket as the outbox and the voice of one page.
#pragma once

#include "apps/serve/client_session.h"

#include <boost/asio/steady_timer.hpp>
#include <boost/beast/core.hpp>
#include <boost/beast/http.hpp>
#include <boost/beast/websocket.hpp>

#include <chrono>
#include <deque>
#include <memory>
#include <string>

namespace serve {

// Lives as long as its connection. For the network's thread.
class SocketSession : public Outbox, public std::enable_shared_from_this<SocketSession> {
public:
    SocketSession(boost::asio::ip::tcp::socket&& socket, Viewer& viewer);

    // Answers the request that asks for a socket, which has been checked.
    void Start(const boost::beast::http::request<boost::beast::http::empty_body>& request);

    void SendText(std::string text) override { Queue(std::move(text), false); }
    void SendPicture(std::string message) override { Queue(std::move(message), true); }
    void Close() override;
    std::size_t Backlog() const override { return m_Queue.size(); }

private:
    struct Outgoing {
        std::string bytes;
        bool binary;
    };

    void Read();
    void Take(std::size_t length);
    void Queue(std::string bytes, bool binary);
    void WriteNext();
    void CloseNow();
    void Gone();
    std::chrono::steady_clock::duration WaitBeforeNext();

    boost::beast::websocket::stream<boost::beast::tcp_stream> m_Socket;
    boost::asio::steady_timer m_Pause;
    Viewer& m_Viewer;
    std::shared_ptr<ClientSession> m_Session;
    boost::beast::flat_buffer m_Incoming;
    std::deque<Outgoing> m_Queue;
    bool m_Writing = false;
    bool m_Closing = false;  // after the queue
    bool m_Gone = false;
    double m_Allowance;  // messages that may come at once
    std::chrono::steady_clock::time_point m_AllowanceSince;
};

}  // namespace serve
