#include "apps/serve/viewer.h"

#include "apps/serve/client_session.h"
#include "apps/serve/server_messages.h"

namespace serve {

Viewer::Viewer(ViewerOptions options, Executor executor, std::string token)
    : m_Options(std::move(options)),
      m_Executor(std::move(executor)),
      m_Token(std::move(token)),
      m_Store(m_Executor, m_Drawing, m_Options.loading),
      m_Catalogue(
          m_Options.inputs, [this](std::function<void()> job) { m_Drawing.RunWhenIdle(std::move(job)); },
          m_Options.catalogue),
      m_Presets(m_Drawing, m_Executor) {}

std::shared_ptr<ClientSession> Viewer::Connect(Outbox& outbox) {
    if (m_NumClients >= m_Options.most_clients) {
        outbox.SendText(ErrorMessage("the viewer has as many pages open as it may (close another one)", {}, true));
        outbox.Close();
        return nullptr;
    }
    ++m_NumClients;
    auto session = std::make_shared<ClientSession>(*this, outbox);
    session->Start();
    return session;
}

void Viewer::Disconnect(ClientSession& session) {
    session.End();
    --m_NumClients;
}

void Viewer::Sweep() {
    m_Store.Sweep();
    m_Files.Sweep();
    m_Presets.Sweep();
}

std::optional<std::string> Viewer::OnlySeries() const {
    const SeriesCatalogue::Listing listing = m_Catalogue.List();
    const bool only = !listing.is_scanning && listing.series.size() == 1;
    return only ? std::optional(listing.series.front().id) : std::nullopt;
}

}  // namespace serve
