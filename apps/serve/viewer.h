// The viewer without its network: what all clients share, and what requests are answered from.
#pragma once

#include "apps/serve/drawing_thread.h"
#include "apps/serve/file_shelf.h"
#include "apps/serve/preset_pictures.h"
#include "apps/serve/series_catalogue.h"
#include "apps/serve/series_store.h"

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace serve {

class ClientSession;

struct ViewerOptions {
    std::vector<std::string> inputs;  // folders and files with series
    LoadOptions loading;
    CatalogueOptions catalogue;
    int most_clients = 8;
    double budget_ms = kDefaultBudgetMs;  // for a moving picture, unless the page says otherwise
    bool show_names = false;              // series by the names that their files give them
};

// Where messages to one page go.
class Outbox {
public:
    virtual ~Outbox() = default;
    virtual void SendText(std::string text) = 0;
    virtual void SendPicture(std::string message) = 0;
    // After what was sent before.
    virtual void Close() = 0;
    // Messages that have not left yet.
    virtual std::size_t Backlog() const = 0;
};

// For one thread, that of the executor.
class Viewer {
public:
    // `token` is told to clients, which make links of it. Throws Error of the input kind when an input does not exist.
    Viewer(ViewerOptions options, Executor executor, std::string token);

    // Null when there are as many clients as there may be: the outbox was told so. The outbox must own the session: it
    // is used until Disconnect, which comes before its end, or until the viewer ends.
    std::shared_ptr<ClientSession> Connect(Outbox& outbox);
    void Disconnect(ClientSession& session);
    // Lets go of what nobody has used for a while. Call it every few seconds.
    void Sweep();

    const ViewerOptions& Options() const { return m_Options; }
    const std::string& Token() const { return m_Token; }
    const Executor& Post() const { return m_Executor; }
    int NumClients() const { return m_NumClients; }
    DrawingThread& Drawing() { return m_Drawing; }
    SeriesStore& Store() { return m_Store; }
    SeriesCatalogue& Catalogue() { return m_Catalogue; }
    FileShelf& Files() { return m_Files; }
    PresetPictures& Presets() { return m_Presets; }
    // The series that is the only one, once the search has ended.
    std::optional<std::string> OnlySeries() const;

private:
    ViewerOptions m_Options;
    Executor m_Executor;
    std::string m_Token;
    int m_NumClients = 0;
    FileShelf m_Files;
    DrawingThread m_Drawing;
    SeriesStore m_Store;
    SeriesCatalogue m_Catalogue;
    PresetPictures m_Presets;
};

}  // namespace serve
