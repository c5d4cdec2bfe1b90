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

double MillisecondsSince(Clock::time_point start) {
    return std::chrono::duration<double, std::milli>(Clock::now() - start).count();
}

}  // namespace

DrawingThread::DrawingThread() : m_Thread([this] { Work(); }) {}

DrawingThread::~DrawingThread() {
    {
        const std::lock_guard lock(m_Mutex);
        m_Ending = true;
        m_Token.Cancel();
    }
    m_Changed.notify_all();
    m_Thread.join();
}

DrawingThread::ClientId DrawingThread::Join(std::shared_ptr<ClientPort> port) {
    const std::lock_guard lock(m_Mutex);
    const auto client = std::make_shared<Client>();
    client->port = std::move(port);
    m_Clients[++m_LastId] = client;
    return m_LastId;
}

void DrawingThread::Leave(ClientId id) {
    {
        const std::lock_guard lock(m_Mutex);
        const auto found = m_Clients.find(id);
        if (found == m_Clients.end()) {
            return;
        }
        // Its engines end on the thread that uses them.
        m_Jobs.emplace_back([client = found->second] {
            client->scene.reset();
            client->series.reset();
        });
        m_Clients.erase(found);
        CancelStepIf(m_RunningId == id);
    }
    m_Changed.notify_all();
}

void DrawingThread::SetSeries(ClientId id, std::shared_ptr<OpenedSeries> series) {
    {
        const std::lock_guard lock(m_Mutex);
        const auto found = m_Clients.find(id);
        if (found == m_Clients.end()) {
            return;
        }
        Client& client = *found->second;
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
        CancelStepIf(m_RunningId == id);
    }
    m_Changed.notify_all();
}

void DrawingThread::SetScene(ClientId id, SceneState state) {
    {
        const std::lock_guard lock(m_Mutex);
        const auto found = m_Clients.find(id);
        if (found == m_Clients.end()) {
            return;
        }
        Client& client = *found->second;
        const bool same_panes = client.state && client.state->panes == state.panes;
        // A steady hand sends states faster than pictures can be drawn: a moving picture that is begun is finished as
        // long as the hand moves, or none ever would be.
        const bool goes_on = same_panes && state.moving && m_RunningMoves;
        // Who lets go sees almost the picture at rest already.
        const bool lets_go = same_panes && client.state->moving && !state.moving;
        client.state = std::move(state);
        client.DrawAnew();
        for (PaneProgress& pane : client.panes) {
            pane.drawn_once = lets_go && pane.moved;
        }
        CancelStepIf(m_RunningId == id && !goes_on);
        GiveWay(client);
    }
    m_Changed.notify_all();
}

void DrawingThread::SetWaiting(ClientId id, int pane, bool waiting) {
    {
        const std::lock_guard lock(m_Mutex);
        const auto found = m_Clients.find(id);
        if (found == m_Clients.end()) {
            return;
        }
        found->second->panes[static_cast<std::size_t>(pane)].waiting = waiting;
        GiveWay(*found->second);
    }
    m_Changed.notify_all();
}

void DrawingThread::Ask(ClientId id, bool urgent, SceneJob job) {
    {
        const std::lock_guard lock(m_Mutex);
        const auto found = m_Clients.find(id);
        if (found == m_Clients.end()) {
            return;
        }
        Client& client = *found->second;
        (urgent ? client.urgent : client.patient).push_back(std::move(job));
        GiveWay(client);
    }
    m_Changed.notify_all();
}

void DrawingThread::Run(Job job) {
    {
        const std::lock_guard lock(m_Mutex);
        m_Jobs.push_back(std::move(job));
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
        if (client->scene != nullptr && &client->scene->Series() == series.get()) {
            client->scene.reset();
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

void DrawingThread::CancelStepIf(bool useless) {
    if (useless && m_RunningRank) {
        m_Token.Cancel();
    }
}

// Ends the step in progress when a client's work goes before it. What stands at the front already stays.
void DrawingThread::GiveWay(const Client& hurried) {
    const std::optional<Rank> rank = RankOf(hurried, Clock::now());
    CancelStepIf(rank == Rank::kNow && m_RunningRank && *m_RunningRank != Rank::kNow);
}

std::optional<Rank> DrawingThread::RankOfPane(const Client& client, std::size_t pane) const {
    if (!client.state || pane >= client.state->panes.size() || client.panes[pane].finished) {
        return std::nullopt;
    }
    if (!client.state->moving) {
        // What is drawn at rest waits by itself until it can be sent.
        return Rank::kResting;
    }
    return client.panes[pane].waiting ? Rank::kAhead : Rank::kNow;
}

std::optional<Rank> DrawingThread::RankOf(const Client& client, Clock::time_point now) const {
    if (client.series == nullptr) {
        return std::nullopt;
    }
    std::optional<Rank> best;
    for (std::size_t pane = 0; pane < client.panes.size(); ++pane) {
        const std::optional<Rank> rank = RankOfPane(client, pane);
        best = rank && (!best || *rank < *best) ? rank : best;
    }
    if (client.state && !client.urgent.empty()) {
        best = Rank::kNow;
    }
    if (!best && client.state && !client.patient.empty()) {
        best = Rank::kPatient;
    }
    // Nobody waits for ever; only pictures that their own client cannot take do.
    if (best && *best != Rank::kAhead && client.share.HasWaitedTooLong(now)) {
        best = Rank::kNow;
    }
    return best;
}

std::optional<DrawingThread::Step> DrawingThread::NextStep() {
    Step step;
    if (!m_Jobs.empty()) {
        step.job = std::move(m_Jobs.front());
        m_Jobs.pop_front();
        return step;
    }
    // Who is first.
    const Clock::time_point now = Clock::now();
    for (const auto& [id, client] : m_Clients) {
        const std::optional<Rank> rank = RankOf(*client, now);
        if (!rank) {
            client->share.waiting_since.reset();
            continue;
        }
        if (!client->share.waiting_since) {
            client->share.waiting_since = now;
            // Who had nothing to do has no claim on the time that others used meanwhile.
            client->share.used_s = std::max(client->share.used_s, m_Turn);
        }
        if (step.client == nullptr || GoesBefore(*rank, client->share, step.rank, step.client->share)) {
            step.client = client;
            step.id = id;
            step.rank = *rank;
        }
    }
    if (step.client == nullptr) {
        if (m_IdleJobs.empty()) {
            return std::nullopt;
        }
        step.job = std::move(m_IdleJobs.front());
        m_IdleJobs.pop_front();
        return step;
    }

    // What it wants most.
    Client& client = *step.client;
    m_Turn = std::max(m_Turn, client.share.used_s);
    step.series = client.series;
    step.state = *client.state;
    std::optional<Rank> best;
    for (std::size_t pane = 0; pane < client.panes.size(); ++pane) {
        const std::optional<Rank> rank = RankOfPane(client, pane);
        if (rank && (!best || *rank < *best)) {
            best = rank;
            step.pane = static_cast<int>(pane);
        }
    }
    step.kind = StepKind::kFrame;
    std::deque<SceneJob>* const jobs = !client.urgent.empty() ? &client.urgent : best ? nullptr : &client.patient;
    if (jobs != nullptr) {
        step.kind = StepKind::kSceneJob;
        step.urgent = !client.urgent.empty();
        step.scene_job = std::move(jobs->front());
        jobs->pop_front();
    }
    return step;
}

void DrawingThread::Work() {
    const reference_host::CancellationScope scope(m_Token);
    for (;;) {
        std::optional<Step> step;
        {
            std::unique_lock lock(m_Mutex);
            m_Changed.wait(lock, [&] {
                step = m_Ending ? std::nullopt : NextStep();
                return m_Ending || step;
            });
            if (m_Ending) {
                break;
            }
            m_RunningRank = step->kind == StepKind::kJob ? std::optional<Rank>() : step->rank;
            m_RunningId = step->id;
            m_RunningMoves = step->kind == StepKind::kFrame && step->state.moving;
            m_Token.Reset();
        }
        m_FrameDone = false;
        m_FrameFinal = false;
        const Clock::time_point start = Clock::now();
        bool completed = true;
        try {
            Perform(*step);
        } catch (const TCO_CANCEL_EXCEPTION&) {
            completed = false;
        } catch (const std::bad_alloc&) {
            if (step->client != nullptr) {
                step->client->port->Failed("memory: there is not enough for this picture (make it smaller)");
            }
        } catch (const std::exception& error) {
            if (step->client != nullptr) {
                step->client->port->Failed(error.what());
            }
        }
        Finish(*step, MillisecondsSince(start) / 1000.0, completed);
    }
    // Engines end on their thread, before the volumes that they point into.
    const std::lock_guard lock(m_Mutex);
    m_Token.Reset();
    for (const auto& [id, client] : m_Clients) {
        client->scene.reset();
        client->series.reset();
    }
    m_Jobs.clear();
    m_IdleJobs.clear();
}

void DrawingThread::Finish(Step& step, double seconds, bool completed) {
    const std::lock_guard lock(m_Mutex);
    m_RunningRank.reset();
    m_RunningId = 0;
    if (step.client == nullptr) {
        return;
    }
    Client& client = *step.client;
    client.share.used_s += seconds;
    if (!completed) {
        // What made way for others starts again later.
        if (step.kind == StepKind::kSceneJob && client.series == step.series) {
            (step.urgent ? client.urgent : client.patient).push_front(std::move(step.scene_job));
        }
        return;
    }
    client.share.waiting_since.reset();
    if (step.kind == StepKind::kSceneJob) {
        return;
    }
    PaneProgress& pane = client.panes[static_cast<std::size_t>(step.pane)];
    pane.moved = pane.moved || (step.state.moving && client.series == step.series);
    // A failed frame is not tried again for the same state.
    if (client.state && client.state->id == step.state.id) {
        pane.drawn_once = true;
        pane.finished = step.state.moving || m_FrameFinal || !m_FrameDone || !step.series->IsWhole();
    }
}

void DrawingThread::Perform(Step& step) {
    if (step.kind == StepKind::kJob) {
        step.job();
        return;
    }
    // Engines for the series that the client looks at now.
    Client& client = *step.client;
    if (client.scene == nullptr || &client.scene->Series() != step.series.get()) {
        client.scene.reset();
        client.pacing.clear();
        client.final_ms.clear();
        client.scene = std::make_unique<ClientScene>(step.series);
    }
    if (step.kind == StepKind::kSceneJob) {
        step.scene_job(*client.scene, step.state);
        return;
    }
    DrawFrame(step);
}

void DrawingThread::DrawFrame(Step& step) {
    Client& client = *step.client;
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
    DrawnPicture drawn = client.scene->Draw(step.state, pane, effort);
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
            client.scene->AdjustRendering(*ratio);
        }
        pacing.Note(frame_ms, budget_ms);
    }
    m_FrameDone = true;
    m_FrameFinal = final;
    client.port->Drawn(std::move(frame));
}

}  // namespace serve
