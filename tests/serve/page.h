// A server in this process and a page that talks to it, for tests.
#pragma once

#include "apps/serve/http_server.h"
#include "scene/import/imported_volume.h"
#include "scene/picture.h"

#include <nlohmann/json.hpp>

#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <thread>
#include <utility>
#include <vector>

namespace serve_test {

using Json = nlohmann::json;

// A small phantom of a head as a file, with its labels in another; gone with this.
struct PhantomFile {
    PhantomFile();
    ~PhantomFile();
    PhantomFile(const PhantomFile&) = delete;
    PhantomFile& operator=(const PhantomFile&) = delete;

    std::string path;
    std::string labels;
};

// Serves the phantom on any free port until it is destroyed.
class Server {
public:
    // The labels are left out unless asked for.
    explicit Server(serve::ViewerOptions options = {}, bool with_labels = false);
    ~Server();
    Server(const Server&) = delete;
    Server& operator=(const Server&) = delete;

    unsigned short Port() const { return m_Server->Port(); }
    std::string Token() const;
    std::string Host() const { return "127.0.0.1:" + std::to_string(Port()); }
    std::string Cookie() const { return "volr_" + std::to_string(Port()) + "=" + Token(); }
    const std::string& VolumePath() const { return m_File.path; }

private:
    PhantomFile m_File;
    std::unique_ptr<serve::HttpServer> m_Server;
    std::thread m_Thread;
};

struct Reply {
    int status = 0;
    std::string body;
    std::string cookie;  // that it sets
    std::string policy;  // what the page may load
};

// One request with these headers.
Reply Get(const Server& server, const std::string& target,
          const std::vector<std::pair<std::string, std::string>>& headers);
// One with the token.
Reply Get(const Server& server, const std::string& target);

// What came: a text message, or a picture with its header.
struct Received {
    Json json;
    std::string image;  // of pictures

    bool IsPicture() const { return !image.empty(); }
};

// A binary message taken apart.
Received Unpacked(const std::string& message);
// The pixels of a PNG or JPEG file.
scene::Picture Decoded(const std::string& file);

// A page by hand: nothing is shown or acknowledged unless the test says so.
class Page {
public:
    // Throws when it is refused.
    explicit Page(const Server& server);
    Page(const Server& server, const std::string& cookie, const std::string& origin, const std::string& host);
    ~Page();
    Page(const Page&) = delete;
    Page& operator=(const Page&) = delete;

    void Send(const Json& message) { SendText(message.dump()); }
    void SendText(const std::string& text);
    // The next message; nothing when none comes within the time. Throws when the connection is closed.
    std::optional<Received> Receive(int milliseconds = 30000);
    // The next message of a type ("picture" for pictures); others are passed over.
    Received Await(const std::string& type);
    void Shown(const Received& picture) {
        Send({{"type", "shown"}, {"id", picture.json["id"]}, {"pane", picture.json["pane"]}});
    }
    // Opens the only series; its volume message.
    Json Open();
    // The final picture of a scene; those before it are acknowledged.
    Received FinalPicture(const Json& scene);

private:
    class Socket;
    const Server& m_Server;
    std::unique_ptr<Socket> m_Socket;
};

// A whole scene seen from an azimuth.
Json Scene(int id, const std::string& mode, double azimuth_deg = 0.0, bool moving = false, int size = 96);

}  // namespace serve_test
