#include "apps/serve/client_session.h"

#include "apps/serve/movie_export.h"
#include "apps/serve/point_lists.h"
#include "apps/serve/server_messages.h"
#include "host/tasks.h"
#include "scene/annotation.h"

#include <algorithm>
#include <cmath>

namespace serve {

namespace {

constexpr int kMostErrors = 100;
constexpr std::size_t kMostRequests = 4;   // of one page at a time
constexpr std::size_t kMostBacklog = 512;  // messages to a page that does not read
constexpr std::size_t kMostStates = 64;
constexpr int kMostPicks = 8;    // of one page at a time
constexpr int kMostLoading = 4;  // series at a time
constexpr std::chrono::milliseconds kPauseOfMotion{500};
constexpr std::size_t kGreatPicture = 2U << 20;  // pixels

const char* NameOf(PaneMode mode) {
    return mode == PaneMode::kRender ? "rendering" : mode == PaneMode::kSlab ? "slab" : "mip";
}

}  // namespace

// Hands over what the drawing thread made, without waiting.
class ClientSession::Port : public ClientPort {
public:
    Port(Executor executor, std::weak_ptr<ClientSession> session)
        : m_Executor(std::move(executor)), m_Session(std::move(session)) {}

    void Drawn(DrawnFrame&& frame) override {
        m_Executor([session = m_Session, shared = std::make_shared<DrawnFrame>(std::move(frame))] {
            if (const auto still = session.lock(); still && !still->m_Ended) {
                still->Drawn(std::move(*shared));
            }
        });
    }
    void Failed(const std::string& why) override {
        m_Executor([session = m_Session, why] {
            if (const auto still = session.lock(); still && !still->m_Ended) {
                still->m_Outbox.SendText(ErrorMessage(why));
            }
        });
    }

private:
    Executor m_Executor;
    std::weak_ptr<ClientSession> m_Session;
};

template <class Function>
auto ClientSession::Guarded(Function function) {
    return [session = weak_from_this(), function = std::move(function)](const auto&... arguments) {
        if (const auto still = session.lock(); still && !still->m_Ended) {
            function(*still, arguments...);
        }
    };
}

template <class Function>
auto ClientSession::Later(Function function) {
    return [post = m_Viewer.Post(), session = weak_from_this(), function = std::move(function)](auto&&... arguments) {
        post([session, function, ... copies = std::forward<decltype(arguments)>(arguments)] {
            if (const auto still = session.lock(); still && !still->m_Ended) {
                function(*still, copies...);
            }
        });
    };
}

ClientSession::ClientSession(Viewer& viewer, Outbox& outbox)
    : m_Viewer(viewer), m_Outbox(outbox), m_RateSince(std::chrono::steady_clock::now()) {}

void ClientSession::Start() {
    m_Drawing = m_Viewer.Drawing().Join(std::make_shared<Port>(m_Viewer.Post(), weak_from_this()));
    const ViewerOptions& options = m_Viewer.Options();
    m_Outbox.SendText(HelloMessage({m_Viewer.Token(), options.most_clients, options.budget_ms, m_Viewer.OnlySeries()}));
}

void ClientSession::End() {
    m_Ended = true;
    m_Viewer.Drawing().Leave(m_Drawing);
    m_Opened.reset();
}

void ClientSession::OnText(std::string_view text) {
    if (m_Ended) {
        return;
    }
    if (m_Outbox.Backlog() > kMostBacklog) {
        m_Outbox.Close();
        return;
    }
    try {
        const Message message = ParseMessage(text);
        std::visit([this](const auto& one) { Take(one); }, message);
    } catch (const ProtocolError& error) {
        Complain(error.what(), error.Request());
    }
}

void ClientSession::Complain(const std::string& text, std::optional<std::int64_t> request) {
    const bool enough = ++m_Errors >= kMostErrors;
    m_Outbox.SendText(ErrorMessage(text, request));
    if (enough) {
        m_Outbox.SendText(ErrorMessage("too many wrong messages: the connection is closed", {}, true));
        m_Outbox.Close();
    }
}

void ClientSession::Take(const OpenMessage& message) {
    const std::optional<SeriesPlace> place = m_Viewer.Catalogue().Find(message.series);
    if (!place) {
        throw ProtocolError("series: there is none of that name (/api/series lists them)");
    }
    if (m_Viewer.Store().NumLoading() >= kMostLoading) {
        throw ProtocolError("open: other series are being read (try again in a moment)");
    }
    m_Series = message.series;
    m_Picks = 0;
    EndRequests("export: another series was opened");
    m_Opened.reset();
    m_States.clear();
    m_Panes = {};
    m_Viewer.Drawing().SetSeries(m_Drawing, nullptr);
    // The listener counts as long as no other series was asked for.
    const auto if_wanted = [asked = ++m_Asked](auto then) {
        return [asked, then](ClientSession& self, const auto&... arguments) {
            if (self.m_Asked == asked) {
                then(self, arguments...);
            }
        };
    };
    m_Viewer.Store().Open(
        message.series, *place,
        {Guarded(if_wanted([](ClientSession& self, double fraction, int slices) {
             const int of = self.m_Opened != nullptr ? self.m_Opened->Source().Info().dims[2] : 0;
             self.m_Outbox.SendText(OpeningMessage(self.m_Series, std::min(fraction, 0.99), slices, of));
         })),
         Guarded(
             if_wanted([](ClientSession& self, const std::shared_ptr<OpenedSeries>& series) { self.Opened(series); })),
         Guarded(if_wanted([](ClientSession& self, const std::string& why) {
             self.m_Series.clear();
             self.m_Opened.reset();
             self.m_Outbox.SendText(ErrorMessage(why));
         }))});
}

void ClientSession::Opened(const std::shared_ptr<OpenedSeries>& series) {
    m_Opened = series;
    m_Viewer.Drawing().SetSeries(m_Drawing, series);
    if (series->IsWhole()) {
        const int slices = series->Source().Info().dims[2];
        m_Outbox.SendText(OpeningMessage(m_Series, 1.0, slices, slices));
    }
    m_Outbox.SendText(VolumeMessage(*series));
}

void ClientSession::Take(const SceneState& message) {
    if (m_Opened == nullptr) {
        throw ProtocolError("scene: no series is open (send open first)");
    }
    if (!m_States.empty() && message.id <= m_States.back()->id) {
        throw ProtocolError("id: it does not grow");
    }
    const auto state = std::make_shared<SceneState>(message);
    state->budget_ms = state->budget_ms.value_or(m_Viewer.Options().budget_ms);
    m_States.push_back(state);
    if (m_States.size() > kMostStates) {
        m_States.pop_front();
    }
    // What waits to be sent may be stale now.
    for (std::size_t pane = 0; pane < m_Panes.size(); ++pane) {
        if (m_Panes[pane].next && IsStale(*m_Panes[pane].next)) {
            m_Panes[pane].next.reset();
            m_Viewer.Drawing().SetWaiting(m_Drawing, static_cast<int>(pane), false);
        }
    }
    m_Viewer.Drawing().SetScene(m_Drawing, *state);
}

bool ClientSession::IsStale(const DrawnFrame& frame) const {
    if (m_States.empty() || static_cast<std::size_t>(frame.pane) >= m_States.back()->panes.size()) {
        return true;
    }
    const SceneState& newest = *m_States.back();
    if (frame.scene == newest.id) {
        return false;
    }
    // While the hand moves, the picture of a moment ago is as new as pictures get.
    const bool in_motion = frame.moving && newest.moving;
    return !in_motion || !(newest.panes[static_cast<std::size_t>(frame.pane)] == frame.shape) ||
           StateOf(frame.scene) == nullptr;
}

ClientSession::State ClientSession::StateOf(std::int64_t id) const {
    const auto found = std::find_if(m_States.begin(), m_States.end(), [id](const State& s) { return s->id == id; });
    return found != m_States.end() ? *found : nullptr;
}

void ClientSession::Drawn(DrawnFrame&& frame) {
    if (IsStale(frame)) {
        return;
    }
    PaneState& pane = m_Panes[static_cast<std::size_t>(frame.pane)];
    if (pane.unshown) {
        m_Viewer.Drawing().SetWaiting(m_Drawing, frame.pane, true);
        pane.next = std::move(frame);
    } else {
        Send(std::move(frame));
    }
}

void ClientSession::Send(DrawnFrame&& frame) {
    PaneState& pane = m_Panes[static_cast<std::size_t>(frame.pane)];
    pane.unshown = frame.scene;
    pane.sent = StateOf(frame.scene);
    m_Outbox.SendPicture(PictureMessage(frame));
    NoteRate(frame);
}

void ClientSession::Take(const ShownMessage& message) {
    PaneState& pane = m_Panes[static_cast<std::size_t>(message.pane)];
    if (pane.unshown != message.id) {
        return;  // of a scene before the series was opened anew
    }
    pane.unshown.reset();
    if (pane.next) {
        DrawnFrame frame = std::move(*pane.next);
        pane.next.reset();
        m_Viewer.Drawing().SetWaiting(m_Drawing, message.pane, false);
        Send(std::move(frame));
    }
}

void ClientSession::NoteRate(const DrawnFrame& frame) {
    const auto now = std::chrono::steady_clock::now();
    if (now - m_LastSent > kPauseOfMotion) {
        m_RateSince = now;
        m_FramesSince = 0;
        m_DrawMsSince = 0.0;
    }
    m_LastSent = now;
    ++m_FramesSince;
    m_DrawMsSince += frame.draw_ms;
    const double seconds = std::chrono::duration<double>(now - m_RateSince).count();
    if (seconds >= 1.0) {
        m_Outbox.SendText(RateMessage(m_FramesSince / seconds, m_DrawMsSince / m_FramesSince, m_Viewer.NumClients()));
        m_RateSince = now;
        m_FramesSince = 0;
        m_DrawMsSince = 0.0;
    }
}

void ClientSession::Take(const PickMessage& message) {
    const State state = m_Panes[static_cast<std::size_t>(message.pane)].sent;
    if (state == nullptr || static_cast<std::size_t>(message.pane) >= state->panes.size()) {
        throw ProtocolError("pick: the pane shows no picture yet", message.request);
    }
    if (m_Picks >= kMostPicks) {
        throw ProtocolError("pick: too many at once (wait for the answers)", message.request);
    }
    ++m_Picks;
    const auto answer = Later([](ClientSession& self, const std::string& text) {
        --self.m_Picks;
        self.m_Outbox.SendText(text);
    });
    m_Viewer.Drawing().Ask(m_Drawing, true, [message, state, answer](ClientScene& scene, const SceneState&) {
        try {
            const Pane& pane = state->panes[static_cast<std::size_t>(message.pane)];
            answer(PickedMessage(message, scene.Pick(*state, pane, message.x, message.y, message.vessel)));
        } catch (const TCO_CANCEL_EXCEPTION&) {
            throw;
        } catch (const std::exception& error) {
            answer(ErrorMessage(error.what(), message.request));
        }
    });
}

void ClientSession::Take(const ExportMessage& message) {
    if (m_Opened == nullptr) {
        throw ProtocolError("export: no series is open (send open first)", message.request);
    }
    if (m_Requests.size() >= kMostRequests || m_Requests.count(message.request) != 0) {
        throw ProtocolError("export: too many at once (wait for the others)", message.request);
    }
    switch (message.kind) {
        case ExportMessage::Kind::kPng:
            ExportPicture(message);
            break;
        case ExportMessage::Kind::kMovie:
            ExportMovie(message);
            break;
        case ExportMessage::Kind::kMarkups:
        case ExportMessage::Kind::kCsv:
            ExportPoints(message);
            break;
    }
}

ClientSession::State ClientSession::StateToExport(const ExportMessage& message) const {
    State state = m_States.empty() ? nullptr : m_States.back();
    if (state == nullptr || static_cast<std::size_t>(message.pane) >= state->panes.size()) {
        throw ProtocolError("export: there is no such pane", message.request);
    }
    return state;
}

void ClientSession::ExportPicture(const ExportMessage& message) {
    const State state = StateToExport(message);
    const auto cancelled = m_Requests[message.request] = std::make_shared<std::atomic<bool>>(false);
    const auto done = Later([request = message.request](ClientSession& self, const std::shared_ptr<ShelvedFile>& file) {
        self.CompleteRequest(request, std::move(*file));
    });
    const auto failed = Later(
        [request = message.request](ClientSession& self, const std::string& why) { self.FailRequest(request, why); });
    m_Outbox.SendText(ProgressMessage(message.request, 0.0));
    const auto draw = [=](ClientScene& scene, const SceneState&) {
        try {
            const Pane pane = {state->panes[static_cast<std::size_t>(message.pane)].mode, message.width,
                               message.height};
            scene::Picture picture = scene.Draw(*state, pane, FinalEffort()).picture;
            if (message.annotate) {
                scene::Annotate(picture, scene.CameraOf(*state, pane));
            }
            // Small files of great pictures would keep everybody waiting.
            const bool great = picture.pixels.size() > kGreatPicture;
            done(std::make_shared<ShelvedFile>(
                ShelvedFile{std::string(NameOf(pane.mode)) + ".png", "image/png",
                            scene::EncodePng(picture, great ? scene::PngEffort::kQuick : scene::PngEffort::kSmall)}));
        } catch (const TCO_CANCEL_EXCEPTION&) {
            throw;
        } catch (const std::exception& error) {
            failed(std::string(error.what()));
        }
    };
    m_Viewer.Drawing().Ask(m_Drawing, false, draw, cancelled);
}

// Frame by frame: each asks for the next.
void ClientSession::ExportMovie(const ExportMessage& message) {
    const State state = StateToExport(message);
    const auto cancelled = m_Requests[message.request] = std::make_shared<std::atomic<bool>>(false);
    const auto movie = std::make_shared<MovieExport>(state, message);
    const auto done = Later([request = message.request](ClientSession& self, const std::shared_ptr<ShelvedFile>& file) {
        self.CompleteRequest(request, std::move(*file));
    });
    const auto failed = Later(
        [request = message.request](ClientSession& self, const std::string& why) { self.FailRequest(request, why); });
    const auto progress = Later([request = message.request](ClientSession& self, double fraction) {
        self.m_Outbox.SendText(ProgressMessage(request, fraction));
    });
    const auto name = std::string(NameOf(state->panes[static_cast<std::size_t>(message.pane)].mode)) + ".mp4";
    // A piece holds itself by the next one that it asks for.
    const auto piece = std::make_shared<DrawingThread::SceneJob>();
    *piece = [=, self = std::weak_ptr(piece), &drawing = m_Viewer.Drawing(), client = m_Drawing](ClientScene& scene,
                                                                                                 const SceneState&) {
        try {
            movie->DrawNext(scene);
            progress(movie->Fraction());
            if (movie->IsComplete()) {
                done(std::make_shared<ShelvedFile>(ShelvedFile{name, "video/mp4", movie->Finish()}));
            } else if (const auto next = self.lock()) {
                drawing.Ask(
                    client, false, [next](ClientScene& s, const SceneState& newest) { (*next)(s, newest); }, cancelled);
            }
        } catch (const TCO_CANCEL_EXCEPTION&) {
            throw;
        } catch (const std::exception& error) {
            failed(std::string(error.what()));
        }
    };
    m_Outbox.SendText(ProgressMessage(message.request, 0.0));
    m_Viewer.Drawing().Ask(
        m_Drawing, false, [piece](ClientScene& s, const SceneState& newest) { (*piece)(s, newest); }, cancelled);
}

void ClientSession::ExportPoints(const ExportMessage& message) {
    const bool csv = message.kind == ExportMessage::Kind::kCsv;
    m_Requests[message.request] = std::make_shared<std::atomic<bool>>(false);
    CompleteRequest(message.request,
                    csv ? ShelvedFile{"points.csv", "text/csv", PointsCsv(message.points)}
                        : ShelvedFile{"points.mrk.json", "application/json", PointsMarkups(message.points)});
}

void ClientSession::CompleteRequest(std::int64_t request, ShelvedFile&& file) {
    if (m_Requests.erase(request) == 0) {
        return;  // cancelled
    }
    const std::string name = file.name;
    const std::size_t bytes = file.bytes.size();
    m_Outbox.SendText(FileMessage(request, m_Viewer.Files().Put(std::move(file)), name, bytes));
}

void ClientSession::FailRequest(std::int64_t request, const std::string& why) {
    if (m_Requests.erase(request) != 0) {
        m_Outbox.SendText(ErrorMessage(why, request));
    }
}

void ClientSession::EndRequests(const std::string& why) {
    for (const auto& [request, cancelled] : m_Requests) {
        cancelled->store(true);
        m_Outbox.SendText(ErrorMessage(why, request));
    }
    m_Requests.clear();
}

void ClientSession::Take(const CancelMessage& message) {
    const auto found = m_Requests.find(message.request);
    if (found != m_Requests.end()) {
        found->second->store(true);
        m_Requests.erase(found);
        m_Viewer.Drawing().DropCancelled(m_Drawing);
    }
}

}  // namespace serve
