#include "apps/serve/http_server.h"

#include "apps/serve/access.h"
#include "apps/serve/routes.h"
#include "apps/serve/socket_session.h"
#include "scene/error.h"

#include <boost/asio/ip/host_name.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/signal_set.hpp>
#include <boost/asio/steady_timer.hpp>
#include <boost/beast/core.hpp>
#include <boost/beast/http.hpp>
#include <boost/beast/websocket/rfc6455.hpp>

#include <csignal>
#include <optional>

namespace serve {

namespace {

namespace asio = boost::asio;
namespace beast = boost::beast;
namespace http = boost::beast::http;
using asio::ip::tcp;

constexpr std::size_t kLargestHeader = 16 * 1024;
constexpr std::chrono::seconds kRequestTime{20};
constexpr std::chrono::seconds kSweepEvery{10};
constexpr int kMostConnections = 256;  // a page has a handful

std::string Text(beast::string_view view) {
    return {view.data(), view.size()};
}

Request Plain(const http::request<http::empty_body>& request) {
    return {Text(request.method_string()), Text(request.target()), Text(request[http::field::host]),
            Text(request[http::field::origin]), Text(request[http::field::cookie])};
}

// One connection: requests after each other, until one asks for a socket.
class Connection : public std::enable_shared_from_this<Connection> {
public:
    Connection(tcp::socket&& socket, const AccessRules& access, Viewer& viewer, std::shared_ptr<int> count)
        : m_Stream(std::move(socket)), m_Access(access), m_Viewer(viewer), m_Count(std::move(count)) {
        ++*m_Count;
    }
    ~Connection() { --*m_Count; }
    Connection(const Connection&) = delete;
    Connection& operator=(const Connection&) = delete;

    void Read() {
        m_Parser.emplace();
        m_Parser->header_limit(kLargestHeader);
        m_Stream.expires_after(kRequestTime);
        http::async_read(m_Stream, m_Buffer, *m_Parser,
                         [self = shared_from_this()](beast::error_code error, std::size_t) {
                             if (!error) {
                                 self->Answer();
                             }
                         });
    }

private:
    void Answer() {
        const http::request<http::empty_body> request = m_Parser->release();
        const Request plain = Plain(request);
        if (beast::websocket::is_upgrade(request)) {
            if (MayConnect(plain, m_Access)) {
                m_Stream.expires_never();
                std::make_shared<SocketSession>(m_Stream.release_socket(), m_Viewer)->Start(request);
                return;
            }
            serve::Answer refused;
            refused.status = 403;
            refused.body = "forbidden\n";
            Write(refused, request);
            return;
        }
        Write(AnswerTo(plain, m_Access, m_Viewer), request);
    }

    void Write(const serve::Answer& answer, const http::request<http::empty_body>& request) {
        const auto response = std::make_shared<http::response<http::string_body>>(
            static_cast<http::status>(answer.status), request.version());
        for (const auto& [name, value] : SafetyHeaders()) {
            response->set(beast::string_view(name.data(), name.size()), beast::string_view(value.data(), value.size()));
        }
        for (const auto& [name, value] : answer.headers) {
            response->set(name, value);
        }
        response->set(http::field::content_type, beast::string_view(answer.type.data(), answer.type.size()));
        response->keep_alive(request.keep_alive() && answer.status < 400);
        response->content_length(answer.body.size());
        if (request.method() != http::verb::head) {
            response->body() = answer.body;
        }
        m_Stream.expires_after(kRequestTime);
        http::async_write(m_Stream, *response,
                          [self = shared_from_this(), response](beast::error_code error, std::size_t) {
                              if (!error && response->keep_alive()) {
                                  self->Read();
                                  return;
                              }
                              beast::error_code ignored;
                              self->m_Stream.socket().shutdown(tcp::socket::shutdown_send, ignored);
                          });
    }

    beast::tcp_stream m_Stream;
    const AccessRules& m_Access;
    Viewer& m_Viewer;
    std::shared_ptr<int> m_Count;
    beast::flat_buffer m_Buffer{kLargestHeader};
    std::optional<http::request_parser<http::empty_body>> m_Parser;
};

}  // namespace

class HttpServer::Network {
public:
    Network(const ListenOptions& listen, ViewerOptions viewer)
        : m_Address(listen.address),
          m_Acceptor(m_Context),
          m_Port(Listen(listen)),
          m_Access(NewToken(), listen.address, m_Port),
          m_Viewer(
              std::move(viewer), [this](std::function<void()> f) { asio::post(m_Context, std::move(f)); },
              m_Access.Token()),
          m_Timer(m_Context),
          m_Retry(m_Context),
          m_Signals(m_Context) {}

    unsigned short Port() const { return m_Port; }

    std::string Link() const {
        const bool any = m_Address == "0.0.0.0" || m_Address == "::";
        const std::string host = any                                        ? asio::ip::host_name()
                                 : m_Address.find(':') != std::string::npos ? "[" + m_Address + "]"
                                                                            : m_Address;
        return "http://" + host + ":" + std::to_string(m_Port) + "/?token=" + m_Access.Token();
    }

    void Run(bool until_signal) {
        if (until_signal) {
            m_Signals.add(SIGINT);
            m_Signals.add(SIGTERM);
            m_Signals.async_wait([this](beast::error_code error, int) {
                if (!error) {
                    m_Context.stop();
                }
            });
        }
        Accept();
        SweepLater();
        m_Context.run();
    }

    void Stop() { m_Context.stop(); }

private:
    unsigned short Listen(const ListenOptions& listen) {
        beast::error_code error;
        const auto address = asio::ip::make_address(listen.address, error);
        if (error) {
            throw scene::Error(scene::ErrorKind::kInput, "--address", "\"" + listen.address + "\" is not an address",
                               "give one as 127.0.0.1 or 0.0.0.0");
        }
        const tcp::endpoint endpoint(address, listen.port);
        m_Acceptor.open(endpoint.protocol(), error);
        if (!error) {
            m_Acceptor.set_option(asio::socket_base::reuse_address(true), error);
            m_Acceptor.bind(endpoint, error);
        }
        if (!error) {
            m_Acceptor.listen(asio::socket_base::max_listen_connections, error);
        }
        if (error) {
            throw scene::Error(
                scene::ErrorKind::kFailed, "serve",
                "cannot listen on " + listen.address + " port " + std::to_string(listen.port) + ", " + error.message(),
                "choose another with --port, 0 for any");
        }
        return m_Acceptor.local_endpoint().port();
    }

    void Accept() {
        m_Acceptor.async_accept([this](beast::error_code error, tcp::socket socket) {
            if (!error && *m_NumConnections < kMostConnections) {
                beast::error_code ignored;
                socket.set_option(tcp::no_delay(true), ignored);
                std::make_shared<Connection>(std::move(socket), m_Access, m_Viewer, m_NumConnections)->Read();
            }
            if (!error) {
                Accept();
                return;
            }
            // No file descriptor left, most likely: others end some time.
            m_Retry.expires_after(std::chrono::milliseconds(200));
            m_Retry.async_wait([this](beast::error_code aborted) {
                if (!aborted) {
                    Accept();
                }
            });
        });
    }

    void SweepLater() {
        m_Timer.expires_after(kSweepEvery);
        m_Timer.async_wait([this](beast::error_code error) {
            if (!error) {
                m_Viewer.Sweep();
                SweepLater();
            }
        });
    }

    std::string m_Address;
    std::shared_ptr<int> m_NumConnections = std::make_shared<int>(0);
    // The viewer's threads post to it until they end, and sessions live in its handlers: it outlives the viewer.
    asio::io_context m_Context{1};
    tcp::acceptor m_Acceptor;
    unsigned short m_Port;
    AccessRules m_Access;
    Viewer m_Viewer;
    asio::steady_timer m_Timer;
    asio::steady_timer m_Retry;
    asio::signal_set m_Signals;
};

HttpServer::HttpServer(const ListenOptions& listen, ViewerOptions viewer)
    : m_Network(std::make_unique<Network>(listen, std::move(viewer))) {}

HttpServer::~HttpServer() = default;

std::string HttpServer::Link() const {
    return m_Network->Link();
}

unsigned short HttpServer::Port() const {
    return m_Network->Port();
}

void HttpServer::Run(bool until_signal) {
    m_Network->Run(until_signal);
}

void HttpServer::Stop() {
    m_Network->Stop();
}

}  // namespace serve
