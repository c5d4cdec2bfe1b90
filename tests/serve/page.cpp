#include "tests/serve/page.h"

#include "scene/phantom.h"
#include "scene/volume_output.h"

#include <boost/asio/connect.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/beast/core.hpp>
#include <boost/beast/http.hpp>
#include <boost/beast/websocket.hpp>

#include <gtest/gtest.h>
#include <turbojpeg.h>
#include <unistd.h>
#include <chrono>
#include <cmath>
#include <cstring>
#include <fstream>
#include <numbers>
#include <stdexcept>

namespace serve_test {

namespace {

namespace asio = boost::asio;
namespace beast = boost::beast;
namespace http = boost::beast::http;
using asio::ip::tcp;

tcp::endpoint EndpointOf(const Server& server) {
    return {asio::ip::make_address("127.0.0.1"), server.Port()};
}

}  // namespace

PhantomFile::PhantomFile() {
    const scene::Phantom phantom = scene::MakePhantom({scene::PhantomKind::kHead, {72, 72, 60}, 1});
    const std::string stem =
        (std::filesystem::temp_directory_path() / ("serve_test_" + std::to_string(::getpid()))).string();
    const scene::VolumeLayout layout = {phantom.size, phantom.spacing_mm, phantom.origin_mm};
    path = stem + ".mha";
    labels = stem + "_labels.mha";
    scene::WriteVolume(path, layout, phantom.voxels.data());
    scene::WriteVolume(labels, layout, phantom.labels.data());
}

PhantomFile::~PhantomFile() {
    std::filesystem::remove(path);
    std::filesystem::remove(labels);
}

Server::Server(serve::ViewerOptions options, bool with_labels) {
    options.inputs = {m_File.path};
    options.catalogue.draw_thumbnails = false;
    if (with_labels) {
        options.loading.labels = {m_File.labels};
    }
    m_Server = std::make_unique<serve::HttpServer>(serve::ListenOptions{"127.0.0.1", 0}, std::move(options));
    m_Thread = std::thread([this] { m_Server->Run(false); });
}

Server::~Server() {
    m_Server->Stop();
    m_Thread.join();
}

std::string Server::Token() const {
    const std::string link = m_Server->Link();
    return link.substr(link.find("token=") + 6);
}

Reply Get(const Server& server, const std::string& target,
          const std::vector<std::pair<std::string, std::string>>& headers) {
    asio::io_context context;
    tcp::socket socket(context);
    socket.connect(EndpointOf(server));
    http::request<http::empty_body> request(http::verb::get, target, 11);
    for (const auto& [name, value] : headers) {
        request.set(name, value);
    }
    http::write(socket, request);
    beast::flat_buffer buffer;
    http::response<http::string_body> response;
    http::read(socket, buffer, response);
    const auto header = [&](http::field field) { return std::string(response[field].data(), response[field].size()); };
    const auto policy = response["Content-Security-Policy"];
    return {static_cast<int>(response.result_int()), response.body(), header(http::field::set_cookie),
            std::string(policy.data(), policy.size())};
}

Reply Get(const Server& server, const std::string& target) {
    return Get(server, target, {{"Host", server.Host()}, {"Cookie", server.Cookie()}});
}

Received Unpacked(const std::string& message) {
    std::uint32_t length = 0;
    std::memcpy(&length, message.data(), 4);
    return {Json::parse(message.substr(4, length)), message.substr(4 + length)};
}

scene::Picture Decoded(const std::string& file) {
    if (file.substr(1, 3) == "PNG") {
        const std::string path = testing::TempDir() + "/served.png";
        std::ofstream(path, std::ios::binary) << file;
        return scene::ReadPng(path);
    }
    const auto* const bytes = reinterpret_cast<const unsigned char*>(file.data());
    const std::unique_ptr<void, int (*)(tjhandle)> decoder(tjInitDecompress(), tjDestroy);
    int width = 0, height = 0, sampling = 0, colours = 0;
    EXPECT_EQ(tjDecompressHeader3(decoder.get(), bytes, file.size(), &width, &height, &sampling, &colours), 0);
    scene::Picture picture(width, height);
    EXPECT_EQ(tjDecompress2(decoder.get(), bytes, file.size(), reinterpret_cast<unsigned char*>(picture.pixels.data()),
                            width, 0, height, TJPF_BGRA, 0),
              0);
    return picture;
}

class Page::Socket {
public:
    Socket(const Server& server, const std::string& cookie, const std::string& origin, const std::string& host)
        : stream(context) {
        beast::get_lowest_layer(stream).connect(EndpointOf(server));
        stream.set_option(beast::websocket::stream_base::decorator([&](beast::websocket::request_type& request) {
            request.set(http::field::origin, origin);
            request.set(http::field::cookie, cookie);
        }));
        stream.handshake(host, "/socket");
        Listen();
    }

    // What has come within the time.
    std::optional<Received> Receive(int milliseconds) {
        const auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(milliseconds);
        while (!done && std::chrono::steady_clock::now() < end) {
            context.restart();
            context.run_one_until(end);
        }
        if (!done) {
            return std::nullopt;
        }
        if (failure) {
            throw std::runtime_error(failure.message());
        }
        const std::string message = beast::buffers_to_string(buffer.data());
        Received received = stream.got_text() ? Received{Json::parse(message), ""} : Unpacked(message);
        Listen();
        return received;
    }

    asio::io_context context;
    beast::websocket::stream<beast::tcp_stream> stream;

private:
    void Listen() {
        buffer.clear();
        done = false;
        stream.async_read(buffer, [this](beast::error_code error, std::size_t) {
            done = true;
            failure = error;
        });
    }

    beast::flat_buffer buffer;
    beast::error_code failure;
    bool done = false;
};

Page::Page(const Server& server) : Page(server, server.Cookie(), "http://" + server.Host(), server.Host()) {}

Page::Page(const Server& server, const std::string& cookie, const std::string& origin, const std::string& host)
    : m_Server(server), m_Socket(std::make_unique<Socket>(server, cookie, origin, host)) {}

Page::~Page() = default;

void Page::SendText(const std::string& text) {
    m_Socket->stream.write(asio::buffer(text));
}

std::optional<Received> Page::Receive(int milliseconds) {
    return m_Socket->Receive(milliseconds);
}

Received Page::Await(const std::string& type) {
    for (;;) {
        std::optional<Received> received = Receive();
        if (!received) {
            throw std::runtime_error("no " + type + " has come");
        }
        if (received->IsPicture() ? type == "picture" : received->json["type"] == type) {
            return std::move(*received);
        }
    }
}

Json Page::Open() {
    Json listing;
    do {
        listing = Json::parse(Get(m_Server, "/api/series").body);
    } while (listing["scanning"]);
    Send({{"type", "open"}, {"series", listing["series"][0]["id"]}});
    return Await("volume").json;
}

Received Page::FinalPicture(const Json& scene) {
    Send(scene);
    for (;;) {
        Received picture = Await("picture");
        Shown(picture);
        if (picture.json["final"] && picture.json["id"] == scene["id"]) {
            return picture;
        }
    }
}

Json Scene(int id, const std::string& mode, double azimuth_deg, bool moving, int size) {
    const double a = azimuth_deg * std::numbers::pi / 180.0;
    return {{"type", "scene"},
            {"id", id},
            {"moving", moving},
            {"panes", {{{"mode", mode}, {"width", size}, {"height", size}}}},
            {"camera",
             {{"right", {std::cos(a), std::sin(a), 0.0}}, {"down", {0.0, 0.0, -1.0}}, {"zoom", 1.0}, {"pan", {0, 0}}}},
            {"lit", true}};
}

}  // namespace serve_test
