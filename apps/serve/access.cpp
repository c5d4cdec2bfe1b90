#include "apps/serve/access.h"

#include "scene/error.h"

#include <arpa/inet.h>
#include <sys/random.h>
#include <unistd.h>
#include <algorithm>
#include <array>

namespace serve {

namespace {

constexpr std::size_t kTokenBytes = 16;

std::string Lower(std::string_view text) {
    std::string lower(text);
    std::transform(lower.begin(), lower.end(), lower.begin(),
                   [](unsigned char c) { return static_cast<char>(c >= 'A' && c <= 'Z' ? c - 'A' + 'a' : c); });
    return lower;
}

bool IsAddressLiteral(const std::string& host) {
    std::array<unsigned char, 16> bytes{};
    const bool bracketed = host.size() > 2 && host.front() == '[' && host.back() == ']';
    return ::inet_pton(AF_INET, host.c_str(), bytes.data()) == 1 ||
           (bracketed && ::inet_pton(AF_INET6, host.substr(1, host.size() - 2).c_str(), bytes.data()) == 1);
}

std::string MachineName() {
    std::array<char, 256> name{};
    return ::gethostname(name.data(), name.size() - 1) == 0 ? name.data() : "";
}

}  // namespace

std::string NewToken() {
    std::array<unsigned char, kTokenBytes> bytes{};
    if (::getrandom(bytes.data(), bytes.size(), 0) != static_cast<ssize_t>(bytes.size())) {
        throw scene::Error(scene::ErrorKind::kFailed, "serve", "the system gives no random numbers", "try again");
    }
    constexpr std::string_view kDigits = "0123456789abcdef";
    std::string token;
    for (const unsigned char b : bytes) {
        token += kDigits[b >> 4];
        token += kDigits[b & 15];
    }
    return token;
}

bool SameText(std::string_view a, std::string_view b) {
    unsigned difference = a.size() == b.size() ? 0 : 1;
    for (std::size_t i = 0; i < b.size(); ++i) {
        const char other = i < a.size() ? a[i] : '\0';
        difference |= static_cast<unsigned>(static_cast<unsigned char>(other) ^ static_cast<unsigned char>(b[i]));
    }
    return difference == 0;
}

AccessRules::AccessRules(std::string token, const std::string& address, unsigned short port)
    : m_Token(std::move(token)), m_Port(std::to_string(port)), m_CookieName("volr_" + m_Port), m_Names{"localhost"} {
    m_Loopback = address == "127.0.0.1" || address == "::1";
    if (m_Loopback) {
        m_Names.insert(m_Names.end(), {"127.0.0.1", "[::1]"});
    } else if (const std::string name = Lower(MachineName()); !name.empty()) {
        m_Names.push_back(name);
    }
}

bool AccessRules::HasToken(std::string_view cookies) const {
    // name=value; name=value
    while (!cookies.empty()) {
        const std::size_t end = std::min(cookies.find(';'), cookies.size());
        std::string_view cookie = cookies.substr(0, end);
        cookies.remove_prefix(std::min(end + 1, cookies.size()));
        cookie.remove_prefix(std::min(cookie.find_first_not_of(' '), cookie.size()));
        const std::size_t equals = cookie.find('=');
        if (equals != std::string_view::npos && cookie.substr(0, equals) == m_CookieName &&
            IsToken(cookie.substr(equals + 1))) {
            return true;
        }
    }
    return false;
}

std::string AccessRules::Cookie() const {
    return m_CookieName + "=" + m_Token + "; Path=/; HttpOnly; SameSite=Strict";
}

bool AccessRules::IsOwnHost(std::string_view host) const {
    std::string name = Lower(host);
    const std::string port = ":" + m_Port;
    if (name.size() > port.size() && name.compare(name.size() - port.size(), port.size(), port) == 0) {
        name.resize(name.size() - port.size());
    } else if (m_Port != "80") {
        return false;
    }
    return std::find(m_Names.begin(), m_Names.end(), name) != m_Names.end() || (!m_Loopback && IsAddressLiteral(name));
}

bool AccessRules::IsOwnOrigin(std::string_view origin, std::string_view host) const {
    constexpr std::string_view kScheme = "http://";
    return IsOwnHost(host) && origin.substr(0, kScheme.size()) == kScheme &&
           Lower(origin.substr(kScheme.size())) == Lower(host);
}

std::string_view TokenOfTarget(std::string_view target) {
    constexpr std::string_view kName = "token=";
    const std::size_t question = target.find('?');
    if (question == std::string_view::npos) {
        return {};
    }
    std::string_view query = target.substr(question + 1);
    while (!query.empty()) {
        const std::size_t end = std::min(query.find('&'), query.size());
        const std::string_view part = query.substr(0, end);
        query.remove_prefix(std::min(end + 1, query.size()));
        if (part.substr(0, kName.size()) == kName) {
            return part.substr(kName.size());
        }
    }
    return {};
}

const std::vector<std::pair<std::string_view, std::string_view>>& SafetyHeaders() {
    static const std::vector<std::pair<std::string_view, std::string_view>> headers = {
        {"Content-Security-Policy",
         "default-src 'none'; script-src 'self'; style-src 'self'; img-src 'self' blob: data:; connect-src 'self'; "
         "base-uri 'none'; form-action 'none'; frame-ancestors 'none'"},
        {"X-Content-Type-Options", "nosniff"},
        {"X-Frame-Options", "DENY"},
        {"Referrer-Policy", "no-referrer"},
        {"Cache-Control", "no-store"},
        {"Cross-Origin-Opener-Policy", "same-origin"},
        {"Cross-Origin-Resource-Policy", "same-origin"},
    };
    return headers;
}

}  // namespace serve
