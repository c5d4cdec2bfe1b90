#include "apps/serve/drawing_thread.h"

#include "apps/serve/picture_encoding.h"
#include "host/tasks.h"

#include <algorithm>
#include <new>

namespace serve {

namespace {

constexpr int kMovingJpegQuality = 85;
// A quicker picture comes before a final one that takes longer.
constexpr double kLongFinalMs = 150.0;
// What a final picture is taken for before one was drawn.
constexpr double kUnknownRenderingMs = 400.0;

// What pictures of others may take of the time that they and patient work have together.
constexpr double kOthersShare = 0.75;

double MillisecondsSince(Clock::time_point start) {
    return std::chrono::duration<double, std::milli>(Clock::now() - start).count();
}

}  // namespace

DrawingThread::DrawingThread() : m_Thread([this] { Work(); }) {}

DrawingThread::~DrawingThread() {
    {
        const std::lock_guard lock(m_Mutex);
        m_Ending = true;
        CancelRunning([](const Running&) { return true; });
    }
    m_Changed.notify_all();
    m_Thread.join();
}

// ---- What clients say

template <class Change>
void DrawingThread::ChangeClient(ClientId id, Change change) {
    {
        const std::lock_guard lock(m_Mutex);
        const auto found = m_Clients.find(id);
        if (found == m_Clients.end()) {
            return;
        }
        change(*found->second);
    }
    m_Changed.notify_all();
}

DrawingThread::ClientId DrawingThread::Join(std::shared_ptr<ClientPort> port) {
    const std::lock_guard lock(m_Mutex);
    const auto client = std::make_shared<Client>();
    client->port = std::move(port);
    m_Clients[++m_LastId] = client;
    return m_LastId;
}

void DrawingThread::Leave(ClientId id) {
    ChangeClient(id, [&](const Client&) {
        // Its engines end on the thread that uses them.
        const auto left = m_Clients.extract(id);
        m_Jobs.push_back({[client = left.mapped()] {
                              client->scene.reset();
                              client->patient_scene.reset();
                              client->series.reset();
                          },
                          nullptr});
        m_Turns.Forget(id);
        CancelRunning([id](const Running& running) { return running.step.id == id; });
    });
}

void DrawingThread::SetSeries(ClientId id, std::shared_ptr<OpenedSeries> series) {
    ChangeClient(id, [&](Client& client) {
        if (series != nullptr && series->IsRetired()) {
            series = series->Next();
        }
        if (series != nullptr && client.series == series) {
            return;
        }
        client.series = std::move(series);
        client.state.reset();
        client.panes = {};
        client.urgent.clear();
        client.patient.clear();
        CancelRunning([id](const Running& running) { return running.step.id == id; });
    });
}

void DrawingThread::SetScene(ClientId id, SceneState state) {
    ChangeClient(id, [&](Client& client) {
        const bool same_panes = client.state && client.state->panes == state.panes;
        // A steady hand sends states faster than pictures can be drawn: a moving picture that is begun is finished as
        // long as the hand moves, or none ever would be.
        const bool moves_on = same_panes && state.moving;
        // Who lets go sees almost the picture at rest already.
        const bool lets_go = same_panes && client.state->moving && !state.moving;
        client.state = std::move(state);
        client.DrawAnew();
        for (PaneProgress& pane : client.panes) {
            pane.drawn_once = lets_go && pane.moved;
        }
        CancelRunning([&](const Running& running) {
            const Step& step = running.step;
            const bool goes_on = moves_on && step.kind == StepKind::kFrame && step.state.moving;
            return step.id == id && !step.IsPatient() && !goes_on;
        });
        GiveWay(id, client);
    });
}

void DrawingThread::SetWaiting(ClientId id, int pane, bool waiting) {
    ChangeClient(id, [&](Client& client) {
        client.panes[static_cast<std::size_t>(pane)].waiting = waiting;
        GiveWay(id, client);
    });
}

void DrawingThread::Ask(ClientId id, bool urgent, SceneJob job, Cancelled cancelled) {
    ChangeClient(id, [&](Client& client) {
        (urgent ? client.urgent : client.patient).push_back({std::move(job), std::move(cancelled)});
        GiveWay(id, client);
    });
}

void DrawingThread::DropCancelled(ClientId id) {
    ChangeClient(id, [&](const Client&) {
        CancelRunning(
            [id](const Running& running) { return running.step.id == id && running.step.work.IsCancelled(); });
    });
}

void DrawingThread::Run(Job job, std::shared_ptr<OpenedSeries> about) {
    {
        const std::lock_guard lock(m_Mutex);
        m_Jobs.push_back({std::move(job), std::move(about)});
    }
    m_Changed.notify_all();
}

void DrawingThread::Refresh(const std::shared_ptr<OpenedSeries>& series) {
    {
        const std::lock_guard lock(m_Mutex);
        for (const auto& [id, client] : m_Clients) {
            if (client->series == series) {
                client->DrawAnew();
            }
        }
    }
    m_Changed.notify_all();
}

void DrawingThread::Release(const std::shared_ptr<OpenedSeries>& series) {
    const std::lock_guard lock(m_Mutex);
    for (const auto& [id, client] : m_Clients) {
        for (std::unique_ptr<ClientScene>* const scene : {&client->scene, &client->patient_scene}) {
            if (*scene != nullptr && &(*scene)->Series() == series.get()) {
                scene->reset();
            }
        }
    }
}

void DrawingThread::Replace(const std::shared_ptr<OpenedSeries>& series, const std::shared_ptr<OpenedSeries>& next) {
    {
        const std::lock_guard lock(m_Mutex);
        series->Retire(next);
        for (const auto& [id, client] : m_Clients) {
            if (client->series == series) {
                client->series = next;
                client->DrawAnew();
            }
        }
    }
    m_Changed.notify_all();
}

void DrawingThread::RunWhenIdle(Job job) {
    {
        const std::lock_guard lock(m_Mutex);
        m_IdleJobs.push_back(std::move(job));
    }
    m_Changed.notify_all();
}

template <class Condition>
void DrawingThread::CancelRunning(Condition is_useless) {
    for (Running* const running : m_Running) {
        if (is_useless(*running)) {
            running->token.Cancel();
        }
    }
}

// Ends the step in progress when a client's work goes before it. What stands at the front already stays, and what is
// patient lets others in by itself.
void DrawingThread::GiveWay(ClientId hurried, const Client& client) {
    if (m_Turns.RankOf({hurried, WantOf(client)}, Clock::now()) == Rank::kNow) {
        CancelRunning([](const Running& running) {
            const Step& step = running.step;
            return step.client != nullptr && step.rank != Rank::kNow && !step.IsPatient();
        });
    }
}

// ---- What comes next

std::optional<Rank> DrawingThread::WantOfPane(const Client& client, std::size_t pane) {
    if (!client.state || pane >= client.state->panes.size() || client.panes[pane].finished) {
        return std::nullopt;
    }
    if (!client.state->moving) {
        // What is drawn at rest waits by itself until it can be sent.
        return Rank::kResting;
    }
    return client.panes[pane].waiting ? Rank::kAhead : Rank::kNow;
}

std::optional<Rank> DrawingThread::WantOf(const Client& client) {
    if (client.series == nullptr || !client.state) {
        return std::nullopt;
    }
    if (!client.urgent.empty()) {
        return Rank::kNow;
    }
    std::optional<Rank> best;
    for (std::size_t pane = 0; pane < client.panes.size(); ++pane) {
        const std::optional<Rank> rank = WantOfPane(client, pane);
        best = rank && (!best || *rank < *best) ? rank : best;
    }
    return best || client.patient.empty() ? best : Rank::kPatient;
}

// What is about the series of the interrupted step, or about any, waits for its end.
std::optional<DrawingThread::Job> DrawingThread::NextJob(const Step* interrupted) {
    const auto next = std::find_if(m_Jobs.begin(), m_Jobs.end(), [interrupted](const SeriesJob& job) {
        return interrupted == nullptr || (job.about != nullptr && job.about != interrupted->series);
    });
    if (next == m_Jobs.end()) {
        return std::nullopt;
    }
    Job job = std::move(next->job);
    m_Jobs.erase(next);
    return job;
}

// The next step; between the pieces of an interrupted one only what may go before it.
std::optional<DrawingThread::Step> DrawingThread::NextStep(const Step* interrupted) {
    Step step;
    if (std::optional<Job> job = NextJob(interrupted)) {
        step.job = std::move(*job);
        return step;
    }
    // Who is first.
    std::vector<DrawingTurns::Claim> claims;
    for (const auto& [id, client] : m_Clients) {
        const std::optional<Rank> want = WantOf(*client);
        if (interrupted == nullptr || (want && *want != Rank::kPatient)) {
            claims.push_back({id, want});
        }
    }
    if (const std::optional<DrawingTurns::Claim> first = m_Turns.Next(claims, Clock::now())) {
        step.id = first->client;
        step.rank = *first->rank;
        step.client = m_Clients[step.id];
        ChooseWork(step);
        return step;
    }
    if (interrupted != nullptr || m_IdleJobs.empty()) {
        return std::nullopt;
    }
    step.job = std::move(m_IdleJobs.front());
    m_IdleJobs.pop_front();
    return step;
}

// What the client wants most.
void DrawingThread::ChooseWork(Step& step) {
    Client& client = *step.client;
    step.series = client.series;
    step.state = *client.state;
    std::optional<Rank> best;
    for (std::size_t pane = 0; pane < client.panes.size(); ++pane) {
        const std::optional<Rank> rank = WantOfPane(client, pane);
        if (rank && (!best || *rank < *best)) {
            best = rank;
            step.pane = static_cast<int>(pane);
        }
    }
    step.kind = !client.urgent.empty() ? StepKind::kUrgent : best ? StepKind::kFrame : StepKind::kPatient;
    if (step.kind != StepKind::kFrame) {
        std::deque<SceneWork>& works = step.IsPatient() ? client.patient : client.urgent;
        step.work = std::move(works.front());
        works.pop_front();
    }
}

// ---- The thread

void DrawingThread::Work() {
    for (;;) {
        std::optional<Running> running;
        {
            std::unique_lock lock(m_Mutex);
            std::optional<Step> step;
            m_Changed.wait(lock, [&] {
                step = m_Ending ? std::nullopt : NextStep(nullptr);
                return m_Ending || step;
            });
            if (m_Ending) {
                break;
            }
            m_Running.push_back(&running.emplace(std::move(*step)));
        }
        if (running->step.IsPatient()) {
            running->token.SetInterlude([this, &running] { LetOthersIn(*running); });
        }
        Carry(*running);
    }
    // Engines end on their thread, before the volumes that they point into.
    const std::lock_guard lock(m_Mutex);
    for (const auto& [id, client] : m_Clients) {
        client->scene.reset();
        client->patient_scene.reset();
        client->series.reset();
    }
    m_Jobs.clear();
    m_IdleJobs.clear();
}

// Takes a step to its end, whatever that is.
void DrawingThread::Carry(Running& running) {
    const reference_host::CancellationScope scope(running.token);
    bool completed = true;
    const auto fail = [&](const char* why) {
        if (m_Running.size() > 1) {
            // Two at once may need more memory than there is: once more, after the other.
            m_Running.front()->lets_in = completed = false;
        } else if (running.step.client != nullptr) {
            running.step.client->port->Failed(why);
        }
    };
    try {
        Perform(running);
    } catch (const TCO_CANCEL_EXCEPTION&) {
        completed = false;
    } catch (const std::bad_alloc&) {
        fail("memory: there is not enough for this picture (make it smaller)");
    } catch (const std::exception& error) {
        fail(error.what());
    }
    Finish(running, completed);
}

// Between the pieces of patient work: whatever goes before it, as long as it gets its share of the time.
void DrawingThread::LetOthersIn(Running& patient) {
    for (;;) {
        std::optional<Running> other;
        {
            const std::lock_guard lock(m_Mutex);
            const double both_s = MillisecondsSince(patient.start) / 1000.0;
            if (!patient.lets_in || patient.token.IsCancelled() || patient.others_s > kOthersShare * both_s) {
                return;
            }
            std::optional<Step> step = NextStep(&patient.step);
            if (!step) {
                return;
            }
            m_Running.push_back(&other.emplace(std::move(*step)));
        }
        Carry(*other);
        patient.others_s += MillisecondsSince(other->start) / 1000.0;
    }
}

void DrawingThread::Finish(Running& running, bool completed) {
    std::unique_ptr<ClientScene> unused;
    const std::lock_guard lock(m_Mutex);
    m_Running.pop_back();
    Step& step = running.step;
    if (step.client == nullptr) {
        return;
    }
    m_Turns.Note(step.id, MillisecondsSince(running.start) / 1000.0 - running.others_s, completed);
    Client& client = *step.client;
    if (step.kind == StepKind::kFrame) {
        NoteFrame(running, completed);
    } else if (!completed && client.series == step.series && !step.work.IsCancelled()) {
        // What made way for others starts again later.
        (step.IsPatient() ? client.patient : client.urgent).push_front(std::move(step.work));
    }
    if (step.IsPatient() && client.patient.empty()) {
        unused = std::move(client.patient_scene);
    }
}

void DrawingThread::NoteFrame(const Running& running, bool completed) {
    const Step& step = running.step;
    Client& client = *step.client;
    if (!completed) {
        return;
    }
    PaneProgress& pane = client.panes[static_cast<std::size_t>(step.pane)];
    pane.moved = pane.moved || (step.state.moving && client.series == step.series);
    // A failed frame is not tried again for the same state.
    if (client.state && client.state->id == step.state.id) {
        pane.drawn_once = true;
        pane.finished = step.state.moving || running.frame_final || !running.frame_done || !step.series->IsWhole();
    }
}

// The engines that a step is done with: for the series that the client looked at when it was chosen.
ClientScene& DrawingThread::SceneFor(const Step& step) {
    Client& client = *step.client;
    std::unique_ptr<ClientScene>& scene = step.IsPatient() ? client.patient_scene : client.scene;
    if (scene == nullptr || &scene->Series() != step.series.get()) {
        scene.reset();
        if (!step.IsPatient()) {
            client.pacing.clear();
            client.final_ms.clear();
        }
        scene = std::make_unique<ClientScene>(step.series);
    }
    return *scene;
}

void DrawingThread::Perform(Running& running) {
    Step& step = running.step;
    switch (step.kind) {
        case StepKind::kJob:
            step.job();
            break;
        case StepKind::kUrgent:
        case StepKind::kPatient:
            if (!step.work.IsCancelled()) {
                step.work.job(SceneFor(step), step.state);
            }
            break;
        case StepKind::kFrame:
            DrawFrame(running);
            break;
    }
}

void DrawingThread::DrawFrame(Running& running) {
    const Step& step = running.step;
    Client& client = *step.client;
    ClientScene& scene = SceneFor(step);
    const Pane& pane = step.state.panes[static_cast<std::size_t>(step.pane)];
    FramePacing& pacing = client.pacing.try_emplace({step.pane, pane.mode}, FramePacing(pane.mode)).first->second;
    bool drawn_once = false;
    {
        const std::lock_guard lock(m_Mutex);
        drawn_once = client.panes[static_cast<std::size_t>(step.pane)].drawn_once;
    }
    const auto known = client.final_ms.find(pane.mode);
    const double expected_ms = known != client.final_ms.end()   ? known->second
                               : pane.mode == PaneMode::kRender ? kUnknownRenderingMs
                                                                : 0.0;
    const bool final = !step.state.moving && step.series->IsWhole() && (drawn_once || expected_ms <= kLongFinalMs);
    const FrameEffort effort = final ? FinalEffort() : pacing.Effort();

    const Clock::time_point start = Clock::now();
    DrawnPicture drawn = scene.Draw(step.state, pane, effort);
    const double draw_ms = MillisecondsSince(start);
    TCO_RunnableSelf().Service();
    DrawnFrame frame;
    frame.scene = step.state.id;
    frame.pane = step.pane;
    frame.moving = step.state.moving;
    frame.final = final;
    frame.shape = pane;
    frame.window = drawn.window;
    frame.geometry = drawn.geometry;
    frame.quality = effort.name;
    frame.format = final ? "png" : "jpeg";
    frame.bytes = final ? EncodePngQuickly(drawn.picture) : EncodeJpeg(drawn.picture, kMovingJpegQuality);
    frame.draw_ms = draw_ms;
    frame.encode_ms = MillisecondsSince(start) - draw_ms;
    if (final) {
        client.final_ms[pane.mode] = draw_ms + frame.encode_ms;
    } else {
        const double budget_ms = step.state.budget_ms.value_or(kDefaultBudgetMs);
        const double frame_ms = draw_ms + frame.encode_ms;
        if (const auto ratio = pacing.Adjustment(frame_ms, budget_ms); ratio && pane.mode == PaneMode::kRender) {
            scene.AdjustRendering(*ratio);
        }
        pacing.Note(frame_ms, budget_ms);
    }
    running.frame_done = true;
    running.frame_final = final;
    client.port->Drawn(std::move(frame));
}

}  // namespace serve
