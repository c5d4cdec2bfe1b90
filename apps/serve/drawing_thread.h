// The one thread that drives the engines, and who gets it next.
#pragma once

#include "apps/serve/client_scene.h"
#include "apps/serve/drawing_turns.h"
#include "apps/serve/frame_pacing.h"
#include "apps/serve/protocol.h"
#include "host/reference/settings.h"

#include <array>
#include <condition_variable>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>

namespace serve {

// A picture as it goes to the page.
struct DrawnFrame {
    std::int64_t scene = 0;  // id of the state that it shows
    int pane = 0;
    bool moving = false;  // of a state that says so
    bool final = false;   // nothing better follows
    Pane shape;
    std::string_view format;  // "jpeg" or "png"
    std::string bytes;
    double draw_ms = 0.0;
    double encode_ms = 0.0;
    std::optional<scene::DisplayWindow> window;
    scene::PictureGeometry geometry;
    std::string_view quality;
};

// Where a client's results go. Called on the drawing thread, without locks held; must not wait.
class ClientPort {
public:
    virtual ~ClientPort() = default;
    virtual void Drawn(DrawnFrame&& frame) = 0;
    virtual void Failed(const std::string& why) = 0;
};

// Draws for all clients, one after the other, with all workers for each frame. Public operations may be called from any
// thread and return at once. A frame that a newer state or another client's hurry makes useless is cancelled; what was
// cancelled for others' sake starts again later.
class DrawingThread {
public:
    using ClientId = int;
    using Job = std::function<void()>;
    using SceneJob = std::function<void(ClientScene&, const SceneState&)>;

    DrawingThread();
    ~DrawingThread();
    DrawingThread(const DrawingThread&) = delete;
    DrawingThread& operator=(const DrawingThread&) = delete;

    ClientId Join(std::shared_ptr<ClientPort> port);
    // The port is called no more once the step in progress has ended.
    void Leave(ClientId client);
    // What the client looks at from now on; its state and what it asked for are forgotten, unless it does already.
    void SetSeries(ClientId client, std::shared_ptr<OpenedSeries> series);
    void SetScene(ClientId client, SceneState state);
    // Whether a drawn picture of the pane still waits until the page has shown the one before.
    void SetWaiting(ClientId client, int pane, bool waiting);

    // Runs once with the client's newest state, soon; never when the client leaves first. Work that takes long comes in
    // pieces: each asks for the next. Pieces that are not `urgent` come after everybody's pictures.
    void Ask(ClientId client, bool urgent, SceneJob job);
    // Runs once before anything else that has not begun; not cancelled for anybody.
    void Run(Job job);
    // There is more to see of a series.
    void Refresh(const std::shared_ptr<OpenedSeries>& series);
    // From a job: ends the engines that draw a series.
    void Release(const std::shared_ptr<OpenedSeries>& series);
    // Whoever looks at the one series looks at the other from now on, at the same scene; null: at none.
    void Replace(const std::shared_ptr<OpenedSeries>& series, const std::shared_ptr<OpenedSeries>& next);
    // Runs once when nobody waits for anything; or never, when the thread ends first.
    void RunWhenIdle(Job job);

private:
    struct PaneProgress {
        bool waiting = false;     // see SetWaiting
        bool drawn_once = false;  // any picture of this state
        bool finished = false;    // nothing is left to draw for this state
        bool moved = false;       // a moving picture was drawn some time
    };
    struct Client {
        std::shared_ptr<ClientPort> port;
        std::shared_ptr<OpenedSeries> series;
        std::optional<SceneState> state;
        std::array<PaneProgress, kMostPanes> panes;
        std::deque<SceneJob> urgent;
        std::deque<SceneJob> patient;
        Share share;
        // Used by the drawing thread alone; made for `series`.
        std::unique_ptr<ClientScene> scene;
        std::map<std::pair<int, PaneMode>, FramePacing> pacing;
        std::map<PaneMode, double> final_ms;

        // Nothing of the state is drawn yet.
        void DrawAnew() {
            for (PaneProgress& pane : panes) {
                pane.drawn_once = false;
                pane.finished = false;
            }
        }
    };
    enum class StepKind { kJob, kSceneJob, kFrame };
    struct Step {
        StepKind kind = StepKind::kJob;
        Rank rank = Rank::kNow;
        std::shared_ptr<Client> client;
        ClientId id = 0;
        int pane = 0;
        SceneState state;
        Job job;
        SceneJob scene_job;
        bool urgent = false;
        std::shared_ptr<OpenedSeries> series;
    };

    void Work();
    std::optional<Step> NextStep();
    std::optional<Rank> RankOf(const Client& client, Clock::time_point now) const;
    std::optional<Rank> RankOfPane(const Client& client, std::size_t pane) const;
    void Perform(Step& step);
    void DrawFrame(Step& step);
    void Finish(Step& step, double seconds, bool completed);
    void CancelStepIf(bool useless);
    void GiveWay(const Client& hurried);

    std::mutex m_Mutex;  // guards everything below but what is said to be the thread's own
    std::condition_variable m_Changed;
    std::map<ClientId, std::shared_ptr<Client>> m_Clients;
    std::deque<Job> m_Jobs;
    std::deque<Job> m_IdleJobs;
    double m_Turn = 0.0;  // the share of whoever had the last turn
    ClientId m_LastId = 0;
    bool m_Ending = false;
    std::optional<Rank> m_RunningRank;
    ClientId m_RunningId = 0;
    bool m_RunningMoves = false;
    bool m_FrameDone = false;  // the thread's own: the frame of the step in progress was drawn to its end
    bool m_FrameFinal = false;
    reference_host::CancellationToken m_Token;
    std::thread m_Thread;
};

}  // namespace serve
