#include "apps/serve/socket_session.h"

#include "apps/serve/access.h"

#include <algorithm>

namespace serve {

namespace {

namespace beast = boost::beast;
namespace websocket = boost::beast::websocket;

constexpr double kMessagesPerSecond = 200.0;
constexpr double kBurst = 50.0;

}  // namespace

SocketSession::SocketSession(boost::asio::ip::tcp::socket&& socket, Viewer& viewer)
    : m_Socket(std::move(socket)),
      m_Pause(m_Socket.get_executor()),
      m_Viewer(viewer),
      m_Allowance(kBurst),
      m_AllowanceSince(std::chrono::steady_clock::now()) {}

void SocketSession::Start(const beast::http::request<beast::http::empty_body>& request) {
    // Closes connections whose other end is silent for long, pings included.
    websocket::stream_base::timeout timeout{};
    timeout.handshake_timeout = std::chrono::seconds(10);
    timeout.idle_timeout = std::chrono::seconds(30);
    timeout.keep_alive_pings = true;
    m_Socket.set_option(timeout);
    m_Socket.set_option(websocket::stream_base::decorator([](websocket::response_type& response) {
        for (const auto& [name, value] : SafetyHeaders()) {
            response.set(beast::string_view(name.data(), name.size()), beast::string_view(value.data(), value.size()));
        }
    }));
    m_Socket.read_message_max(kLargestMessage);
    m_Socket.auto_fragment(false);
    m_Socket.async_accept(request, [self = shared_from_this()](beast::error_code error) {
        if (error) {
            return;
        }
        self->m_Session = self->m_Viewer.Connect(*self);
        self->Read();
    });
}

void SocketSession::Read() {
    m_Incoming.clear();
    m_Socket.async_read(m_Incoming, [self = shared_from_this()](beast::error_code error, std::size_t length) {
        if (error) {
            self->Gone();
            return;
        }
        self->Take(length);
    });
}

void SocketSession::Take(std::size_t length) {
    if (m_Session != nullptr && !m_Closing) {
        // Pictures only come from here: bytes that are no text are no message either.
        const auto data = m_Incoming.cdata();
        m_Session->OnText(m_Socket.got_text() ? std::string_view(static_cast<const char*>(data.data()), length)
                                              : std::string_view());
    }
    const auto wait = WaitBeforeNext();
    if (wait.count() == 0) {
        Read();
        return;
    }
    m_Pause.expires_after(wait);
    m_Pause.async_wait([self = shared_from_this()](beast::error_code error) {
        if (!error && !self->m_Gone) {
            self->Read();
        }
    });
}

std::chrono::steady_clock::duration SocketSession::WaitBeforeNext() {
    const auto now = std::chrono::steady_clock::now();
    const double seconds = std::chrono::duration<double>(now - m_AllowanceSince).count();
    m_AllowanceSince = now;
    m_Allowance = std::min(kBurst, m_Allowance + seconds * kMessagesPerSecond) - 1.0;
    if (m_Allowance >= 0.0) {
        return {};
    }
    return std::chrono::duration_cast<std::chrono::steady_clock::duration>(
        std::chrono::duration<double>(-m_Allowance / kMessagesPerSecond));
}

void SocketSession::Queue(std::string bytes, bool binary) {
    if (m_Gone || m_Closing) {
        return;
    }
    m_Queue.push_back({std::move(bytes), binary});
    WriteNext();
}

void SocketSession::WriteNext() {
    if (m_Writing || m_Gone) {
        return;
    }
    if (m_Queue.empty()) {
        if (m_Closing) {
            CloseNow();
        }
        return;
    }
    m_Writing = true;
    m_Socket.binary(m_Queue.front().binary);
    m_Socket.async_write(boost::asio::buffer(m_Queue.front().bytes),
                         [self = shared_from_this()](beast::error_code error, std::size_t) {
                             self->m_Writing = false;
                             self->m_Queue.pop_front();
                             if (error) {
                                 self->Gone();
                                 return;
                             }
                             self->WriteNext();
                         });
}

void SocketSession::Close() {
    if (!m_Closing) {
        m_Closing = true;
        WriteNext();
    }
}

void SocketSession::CloseNow() {
    m_Writing = true;
    m_Socket.async_close(websocket::close_code::policy_error,
                         [self = shared_from_this()](beast::error_code) { self->Gone(); });
}

void SocketSession::Gone() {
    if (m_Gone) {
        return;
    }
    m_Gone = true;
    m_Pause.cancel();
    if (m_Session != nullptr) {
        m_Viewer.Disconnect(*m_Session);
        m_Session.reset();
    }
    beast::error_code ignored;
    beast::get_lowest_layer(m_Socket).socket().close(ignored);
}

}  // namespace serve
