// Clients of one drawing thread: each gets pictures, whatever the others want.
#include "apps/serve/drawing_thread.h"

#include "host/tasks.h"
#include "tests/serve/page.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cmath>
#include <condition_variable>
#include <future>

namespace {

using namespace serve_test;
using serve::DrawingThread;
using serve::OpenedSeries;
using serve::SceneState;

constexpr auto kPatience = std::chrono::seconds(60);

std::shared_ptr<OpenedSeries> OpenPhantom() {
    const PhantomFile file;
    return std::make_shared<OpenedSeries>("head", std::make_unique<scene::VolumeSource>(scene::ImportVolume(file.path)),
                                          std::nullopt);
}

SceneState State(int id, bool moving, serve::PaneMode mode = serve::PaneMode::kRender) {
    SceneState state;
    state.id = id;
    state.moving = moving;
    state.panes = {{mode, 64, 64}};
    state.camera.right = {std::cos(0.1 * id), std::sin(0.1 * id), 0.0};
    return state;
}

class Hand;

// What the hands have in common.
struct Room {
    ~Room() { ending = true; }

    void Await(const std::function<bool()>& condition) {
        std::unique_lock lock(mutex);
        EXPECT_TRUE(changed.wait_for(lock, kPatience, condition));
    }
    std::shared_ptr<Hand> Join();

    const std::shared_ptr<OpenedSeries> series = OpenPhantom();
    std::atomic<bool> ending = false;
    std::atomic<int> frames = 0;
    std::mutex mutex;
    std::condition_variable changed;
    DrawingThread drawing;  // ends first
};

// A page whose hand does not rest unless told to: as soon as one picture is there it asks for the next.
class Hand : public serve::ClientPort {
public:
    explicit Hand(Room& room) : m_Room(room) {}
    void Move() { Show(true); }
    void Rest() { Show(false); }
    void Drawn(serve::DrawnFrame&& frame) override {
        {
            const std::lock_guard lock(m_Room.mutex);
            ++m_Room.frames;
            ++frames;
            finals += frame.final ? 1 : 0;
        }
        m_Room.changed.notify_all();
        const std::lock_guard lock(m_Mutex);
        if (m_Moves && !m_Room.ending) {
            ShowNext();
        }
    }
    void Failed(const std::string& why) override { ADD_FAILURE() << why; }

    DrawingThread::ClientId id = 0;
    std::atomic<int> frames = 0;
    std::atomic<int> finals = 0;

private:
    void Show(bool moves) {
        const std::lock_guard lock(m_Mutex);
        m_Moves = moves;
        ShowNext();
    }
    void ShowNext() { m_Room.drawing.SetScene(id, State(++m_Scene, m_Moves)); }

    Room& m_Room;
    std::mutex m_Mutex;  // a hand that is told to rest does not go on because of a picture that came just then
    bool m_Moves = false;
    int m_Scene = 0;
};

std::shared_ptr<Hand> Room::Join() {
    auto hand = std::make_shared<Hand>(*this);
    hand->id = drawing.Join(hand);
    drawing.SetSeries(hand->id, series);
    return hand;
}

TEST(DrawingThread, HandsThatDoNotRestShareItAndGiveItBack) {
    Room room;
    const std::vector<std::shared_ptr<Hand>> hands = {room.Join(), room.Join(), room.Join(), room.Join()};
    for (const auto& hand : hands) {
        hand->Move();
    }
    room.Await([&] { return std::all_of(hands.begin(), hands.end(), [](const auto& h) { return h->frames >= 20; }); });
    // A picture at rest and work that nobody waits for come to their end among hands that move.
    std::atomic<bool> worked = false;
    room.drawing.Ask(hands[2]->id, false, [&](serve::ClientScene&, const SceneState&) { worked = true; });
    hands[1]->Rest();
    hands[2]->Rest();
    room.Await([&] { return hands[1]->finals > 0 && worked; });

    for (std::size_t i = 0; i < 3; ++i) {
        room.drawing.Leave(hands[i]->id);
    }
    std::promise<void> left;
    room.drawing.Run([&] { left.set_value(); });
    ASSERT_EQ(left.get_future().wait_for(kPatience), std::future_status::ready);
    const int others = room.frames - hands[3]->frames;
    const int enough = hands[3]->frames + 20;
    room.Await([&] { return hands[3]->frames >= enough; });
    const std::lock_guard lock(room.mutex);
    EXPECT_EQ(room.frames - hands[3]->frames, others);
}

TEST(DrawingThread, PatientWorkLetsEverybodyInAndDrawsTheSame) {
    Room room;
    const SceneState exported = State(7, false);
    const auto draw = [&](serve::ClientScene& scene) {
        return scene.Draw(exported, {serve::PaneMode::kRender, 200, 200}, serve::FinalEffort()).picture;
    };
    serve::ClientScene alone(room.series);
    const scene::Picture expected = draw(alone);

    const std::shared_ptr<Hand> own = room.Join(), other = room.Join();
    std::promise<scene::Picture> done;
    int begun = 0;
    int meanwhile = 0;
    own->Rest();
    other->Move();
    room.drawing.Ask(own->id, false, [&](serve::ClientScene& scene, const SceneState&) {
        ++begun;
        // Pictures of both come while this work goes on.
        own->Move();
        const int enough_own = own->frames + 3, enough_other = other->frames + 3;
        const auto end = serve::Clock::now() + kPatience;
        while ((own->frames < enough_own || other->frames < enough_other) && serve::Clock::now() < end) {
            TCO_RunnableSelf().Service();
        }
        EXPECT_GE(own->frames, enough_own);
        EXPECT_GE(other->frames, enough_other);
        // Others get no more than their share, so that the first of these may be drawn without them.
        const int before = room.frames;
        scene::Picture picture;
        do {
            picture = draw(scene);
            meanwhile = room.frames - before;
        } while (meanwhile == 0 && serve::Clock::now() < end);
        own->Rest();
        // What is cancelled before it begins is none of its business.
        const auto cancelled = std::make_shared<std::atomic<bool>>(true);
        room.drawing.Ask(
            own->id, false, [](serve::ClientScene&, const SceneState&) { ADD_FAILURE(); }, cancelled);
        room.drawing.DropCancelled(own->id);
        TCO_RunnableSelf().Service();
        done.set_value(picture);
    });
    std::future<scene::Picture> picture = done.get_future();
    ASSERT_EQ(picture.wait_for(kPatience), std::future_status::ready);
    EXPECT_EQ(begun, 1);
    EXPECT_GT(meanwhile, 0);
    EXPECT_EQ(picture.get().pixels, expected.pixels);

    // Cancelled half-way it ends, once; what was asked for after it follows.
    const auto cancelled = std::make_shared<std::atomic<bool>>(false);
    room.drawing.Ask(
        own->id, false,
        [&](serve::ClientScene&, const SceneState&) {
            ++begun;
            *cancelled = true;
            room.drawing.DropCancelled(own->id);
            TCO_RunnableSelf().Service();
            ADD_FAILURE() << "it was not cancelled";
        },
        cancelled);
    std::promise<void> next;
    room.drawing.Ask(own->id, false, [&](serve::ClientScene&, const SceneState&) { next.set_value(); });
    ASSERT_EQ(next.get_future().wait_for(kPatience), std::future_status::ready);
    EXPECT_EQ(begun, 2);
}

}  // namespace
