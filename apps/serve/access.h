// Who may talk to the server: the token of the printed link, and requests that come from its own page.
#pragma once

#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace serve {

// 128 random bits from the operating system as 32 hexadecimal digits. Throws Error when it gives none.
std::string NewToken();

// Takes equally long wherever the texts differ.
bool SameText(std::string_view a, std::string_view b);

// What requests are checked against. The cookie carries the port, so that servers of one machine do not take each
// other's away.
class AccessRules {
public:
    // `address` is the one that the server listens on.
    AccessRules(std::string token, const std::string& address, unsigned short port);

    const std::string& Token() const { return m_Token; }

    bool IsToken(std::string_view text) const { return SameText(text, m_Token); }
    // Of a Cookie header.
    bool HasToken(std::string_view cookies) const;
    // The value of a Set-Cookie header.
    std::string Cookie() const;

    // Of a Host header. A name that somebody's name server leads to this machine is not among them when the server
    // listens on the loopback address; listening elsewhere, any address literal is, and the names of this machine.
    bool IsOwnHost(std::string_view host) const;
    // Of an Origin header: a page of this server.
    bool IsOwnOrigin(std::string_view origin, std::string_view host) const;

private:
    std::string m_Token;
    std::string m_Port;
    std::string m_CookieName;
    bool m_Loopback;
    std::vector<std::string> m_Names;  // of this machine, in small letters
};

// The token of a request target ("/?token=..."), empty when it has none.
std::string_view TokenOfTarget(std::string_view target);

// Headers of every answer: nothing may be loaded from elsewhere, framed, guessed or kept.
const std::vector<std::pair<std::string_view, std::string_view>>& SafetyHeaders();

}  // namespace serve
