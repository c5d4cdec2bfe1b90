// The one thread that drives the engines, and who gets it next.
#pragma once

#include "apps/serve/client_scene.h"
#include "apps/serve/drawing_turns.h"
#include "apps/serve/frame_pacing.h"
#include "apps/serve/protocol.h"
#include "host/reference/settings.h"

#include <array>
#include <atomic>
#include <condition_variable>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

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
// cancelled for others' sake starts again later. Patient work is never cancelled for others: it lets their pictures in
// where it could be cancelled.
class DrawingThread {
public:
    using ClientId = DrawingTurns::ClientId;
    using Job = std::function<void()>;
    using SceneJob = std::function<void(ClientScene&, const SceneState&)>;
    // Says that nobody wants a job any more; null: somebody always does.
    using Cancelled = std::shared_ptr<const std::atomic<bool>>;

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
    // pieces: each asks for the next. Pieces that are not `urgent` come after everybody's pictures, let others in
    // between, and have a scene of their own.
    void Ask(ClientId client, bool urgent, SceneJob job, Cancelled cancelled = nullptr);
    // Ends the client's work in progress when that is cancelled. What has not begun never will.
    void DropCancelled(ClientId client);
    // Runs once before anything else that has not begun; not cancelled for anybody. With the series that it is about it
    // does not wait for patient work on others.
    void Run(Job job, std::shared_ptr<OpenedSeries> about = nullptr);
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
    struct SceneWork {
        SceneJob job;
        Cancelled cancelled;

        bool IsCancelled() const { return cancelled != nullptr && cancelled->load(); }
    };
    struct Client {
        std::shared_ptr<ClientPort> port;
        std::shared_ptr<OpenedSeries> series;
        std::optional<SceneState> state;
        std::array<PaneProgress, kMostPanes> panes;
        std::deque<SceneWork> urgent;
        std::deque<SceneWork> patient;
        // Used by the drawing thread alone; made for `series`. What is patient has engines of its own, since pictures
        // are drawn while it is half done.
        std::unique_ptr<ClientScene> scene;
        std::unique_ptr<ClientScene> patient_scene;
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
    struct SeriesJob {
        Job job;
        std::shared_ptr<OpenedSeries> about;
    };
    enum class StepKind { kJob, kUrgent, kPatient, kFrame };
    struct Step {
        StepKind kind = StepKind::kJob;
        Rank rank = Rank::kNow;
        std::shared_ptr<Client> client;  // null for jobs
        ClientId id = 0;
        int pane = 0;
        SceneState state;
        Job job;
        SceneWork work;
        std::shared_ptr<OpenedSeries> series;

        bool IsPatient() const { return kind == StepKind::kPatient; }
    };
    // A step in progress.
    struct Running {
        explicit Running(Step&& taken) : step(std::move(taken)) {}

        Step step;
        reference_host::CancellationToken token;
        const Clock::time_point start = Clock::now();
        double others_s = 0.0;    // that others had meanwhile
        bool lets_in = true;      // others, as far as it does at all
        bool frame_done = false;  // a frame was drawn to its end
        bool frame_final = false;
    };

    void Work();
    void Perform(Running& running);
    void Carry(Running& running);
    void LetOthersIn(Running& patient);
    void DrawFrame(Running& running);
    void Finish(Running& running, bool completed);
    ClientScene& SceneFor(const Step& step);

    // With the mutex held:
    std::optional<Step> NextStep(const Step* interrupted);
    std::optional<Job> NextJob(const Step* interrupted);
    void ChooseWork(Step& step);
    static void NoteFrame(const Running& running, bool completed);
    static std::optional<Rank> WantOf(const Client& client);
    static std::optional<Rank> WantOfPane(const Client& client, std::size_t pane);
    template <class Condition>
    void CancelRunning(Condition is_useless);
    void GiveWay(ClientId hurried, const Client& client);
    // Changes a client that has not left, and lets the thread know.
    template <class Change>
    void ChangeClient(ClientId id, Change change);

    std::mutex m_Mutex;  // guards everything below but what is said to be the thread's own
    std::condition_variable m_Changed;
    std::map<ClientId, std::shared_ptr<Client>> m_Clients;
    DrawingTurns m_Turns;
    std::deque<SeriesJob> m_Jobs;
    std::deque<Job> m_IdleJobs;
    std::vector<Running*> m_Running;  // patient work, and what it has let in
    ClientId m_LastId = 0;
    bool m_Ending = false;
    std::thread m_Thread;
};

}  // namespace serve
