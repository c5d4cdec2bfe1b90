// The conversation with one page.
#pragma once

#include "apps/serve/drawing_thread.h"
#include "apps/serve/protocol.h"
#include "apps/serve/viewer.h"

#include <array>
#include <atomic>
#include <chrono>
#include <deque>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

namespace serve {

// Takes messages, asks for pictures and sends them: at most one for each pane that the page has not shown yet, and none
// that a newer scene has made stale. For the viewer's thread alone.
class ClientSession : public std::enable_shared_from_this<ClientSession> {
public:
    ClientSession(Viewer& viewer, Outbox& outbox);

    void Start();  // greets
    void OnText(std::string_view text);
    // The page is gone: nothing is sent any more.
    void End();

private:
    using State = std::shared_ptr<const SceneState>;
    struct PaneState {
        std::optional<std::int64_t> unshown;  // scene of the picture that the page has and has not shown yet
        std::optional<DrawnFrame> next;       // waits for that
        State sent;                           // scene of the picture that was sent last
    };
    class Port;

    void Take(const OpenMessage& message);
    void Take(const SceneState& message);
    void Take(const ShownMessage& message);
    void Take(const PickMessage& message);
    void Take(const ExportMessage& message);
    void Take(const CancelMessage& message);

    void Opened(const std::shared_ptr<OpenedSeries>& series);
    void Drawn(DrawnFrame&& frame);
    bool IsStale(const DrawnFrame& frame) const;
    void Send(DrawnFrame&& frame);
    void NoteRate(const DrawnFrame& frame);
    void Complain(const std::string& text, std::optional<std::int64_t> request = std::nullopt);
    void CompleteRequest(std::int64_t request, ShelvedFile&& file);
    void FailRequest(std::int64_t request, const std::string& why);
    void ExportPicture(const ExportMessage& message);
    void ExportMovie(const ExportMessage& message);
    void ExportPoints(const ExportMessage& message);
    State StateOf(std::int64_t id) const;
    // The newest state, whose pane is to be exported. Throws ProtocolError when there is none.
    State StateToExport(const ExportMessage& message) const;
    void EndRequests(const std::string& why);
    // Runs a method of this, unless the session has ended; for whoever is on the viewer's thread.
    template <class Function>
    auto Guarded(Function function);
    // The same on the viewer's thread, for whoever is on another.
    template <class Function>
    auto Later(Function function);

    Viewer& m_Viewer;
    Outbox& m_Outbox;  // owns the session
    DrawingThread::ClientId m_Drawing = 0;
    bool m_Ended = false;
    int m_Errors = 0;
    std::string m_Series;                    // that was asked for last
    int m_Asked = 0;                         // how often one was
    std::shared_ptr<OpenedSeries> m_Opened;  // that is looked at
    std::deque<State> m_States;              // that pictures may still come of, the newest last
    std::array<PaneState, kMostPanes> m_Panes;
    // Exports that are neither done nor cancelled, each with what tells its work that it is cancelled.
    using Cancelled = std::shared_ptr<std::atomic<bool>>;
    std::map<std::int64_t, Cancelled> m_Requests;

    int m_Picks = 0;  // that are not answered yet

    std::chrono::steady_clock::time_point m_RateSince;
    std::chrono::steady_clock::time_point m_LastSent;
    int m_FramesSince = 0;
    double m_DrawMsSince = 0.0;
};

}  // namespace serve
