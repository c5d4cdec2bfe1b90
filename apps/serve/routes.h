// Which request gets which answer. Knows nothing of sockets.
#pragma once

#include "apps/serve/access.h"
#include "apps/serve/viewer.h"

#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace serve {

// What counts of a request.
struct Request {
    std::string method;
    std::string target;  // path and query
    std::string host;    // headers
    std::string origin;
    std::string cookie;
};

struct Answer {
    int status = 200;
    std::string_view type = "text/plain; charset=utf-8";
    std::string body;
    std::vector<std::pair<std::string, std::string>> headers;  // besides those of every answer
};

// Answers everything but the socket. For the viewer's thread.
Answer AnswerTo(const Request& request, const AccessRules& access, Viewer& viewer);

// Whether a request for the socket comes from the server's own page.
bool MayConnect(const Request& request, const AccessRules& access);

}  // namespace serve
