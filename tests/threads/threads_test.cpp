// One process, many host threads: each of them draws what it would draw alone.
#include "host/reference/settings.h"
#include "host/tasks.h"
#include "tests/mip/model.h"
#include "tests/raycast/scene.h"
#include "tests/support/options.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <functional>
#include <iostream>
#include <random>
#include <thread>

namespace {

using Picture = std::vector<std::uint32_t>;
constexpr int kViews = 6;

// Draws one volume in some way, from any of its views.
class Engine {
public:
    virtual ~Engine() = default;
    virtual Picture draw(int view) = 0;  // empty when the frame was cancelled
};

class ShadedEngine : public Engine {
public:
    ShadedEngine(const raycast_test::Scene& scene, const std::shared_ptr<IP_VolData>& volume)
        : m_Scene(scene), m_Renderer(scene, volume) {}

    Picture draw(int view) override {
        m_Renderer.scene = m_Scene;
        m_Renderer.scene.turn(0.9 * view, 0.3 * view);
        m_Renderer.pass_view();
        m_Renderer.facade.SetRenderMode(view % 2 == 0 ? IP_VOLRC_VolumeRenderingRC::RENDER_MODE_FINAL
                                                      : IP_VOLRC_VolumeRenderingRC::RENDER_MODE_INTERACTIVE);
        try {
            return m_Renderer.render();
        } catch (const TCO_CANCEL_EXCEPTION&) {
            return {};
        }
    }

private:
    const raycast_test::Scene& m_Scene;
    raycast_test::Renderer m_Renderer;
};

class MipEngine : public Engine {
public:
    MipEngine(const std::shared_ptr<IP_VolData>& volume, bool linear) : m_Linear(linear), m_Request(volume) {
        m_Request.prepare();
    }

    Picture draw(int view) override {
        m_Request.set_view({35.0 * view, 15.0 * view, 0.0});
        m_Request.draw(m_Linear);
        return m_Request.projector.IsComplete() ? Picture(m_Request.output.begin(), m_Request.output.end()) : Picture();
    }

private:
    const bool m_Linear;
    mip_model::Request m_Request;
};

// A source volume that looks different from every side, and the scenes of it that are drawn.
struct World {
    raycast_test::Scene plain = raycast_test::sphere_scene({70, 66, 100}, {1, 1, 0.8}, true);
    raycast_test::Scene clipped;
    std::shared_ptr<IP_VolData> volume;

    World() {
        for (std::size_t i = 0; i < plain.voxels.size(); i++) {
            if (i % 70 < 20 && i / 70 % 66 < 30) {
                plain.voxels[i] = static_cast<short>(plain.voxels[i] + 300);
            }
        }
        clipped = plain;
        volume = raycast_test::make_volume(plain);
        for (int z = 0; z < volume->GetNumberOfSlicePointers(); z++) {
            volume->GetSlice(z)->SetID(("threads " + std::to_string(z)).c_str());
        }
        clipped.tissues.assign(clipped.voxels.size(), 15);
        std::fill(clipped.tissues.begin(), clipped.tissues.begin() + 70 * 66 * 45, 4);
        clipped.planes.push_back({0.6, 0.0, 0.8, -20.0});
    }
};

// What other threads see of a host thread that draws or prepares.
struct Worker {
    reference_host::CancellationToken token;
    std::atomic<bool> may_be_cancelled{false};
    std::atomic<int> done{0};
    std::atomic<int> cancelled{0};
    std::atomic<int> wrong{0};
};

// A host thread with an engine of its own.
struct Driver : Worker {
    std::function<std::unique_ptr<Engine>()> make_engine;
    std::vector<Picture> expected;

    // Draws until told to stop, with a new engine now and then. Every third frame, and its engine, may be cancelled.
    void run(const std::atomic<bool>& stop) {
        const reference_host::CancellationScope scope(token);
        std::unique_ptr<Engine> engine;
        for (int i = 0; !stop; i++) {
            may_be_cancelled = i % 3 == 2;
            Picture picture;
            try {
                if (engine == nullptr || i % 20 == 17) {
                    engine = nullptr;
                    engine = make_engine();
                }
                picture = engine->draw(i % kViews);
            } catch (const TCO_CANCEL_EXCEPTION&) {
                // Preparation was cancelled.
            }
            may_be_cancelled = false;
            if (!picture.empty()) {
                done++;
                wrong += picture == expected[static_cast<std::size_t>(i % kViews)] ? 0 : 1;
            } else {
                cancelled++;
                wrong += token.IsCancelled() ? 0 : 1;  // nobody asked for that
            }
            token.Reset();
        }
    }
};

// Cancels work of other threads and changes the memory budget until the time is over and `enough` holds.
void disturb(const std::vector<Worker*>& workers, std::int64_t small_budget, const std::function<bool()>& enough) {
    using Clock = std::chrono::steady_clock;
    const auto end = Clock::now() + std::chrono::duration<double>(test_options::seconds(1.5));
    std::minstd_rand random(11);
    for (int i = 0; Clock::now() < end || !enough(); i++) {
        std::this_thread::sleep_for(std::chrono::microseconds(random() % 4000));
        Worker& worker = *workers[random() % workers.size()];
        if (worker.may_be_cancelled.exchange(false)) {
            worker.token.Cancel();
        }
        if (i % 50 == 0) {
            reference_host::SetMemoryBudget(i % 100 == 0 ? small_budget : 0);
        }
    }
    reference_host::SetMemoryBudget(0);
}

// A volume in the stages of its arrival: more and more slices, shared by all stages.
struct Series {
    static constexpr int kStages = 4;
    mip_model::Volume whole = mip_model::phantom({72, 60, 40}, {0.9, 1.0, 1.2});
    std::shared_ptr<IP_VolData> slices = whole.to_host();
    std::vector<std::shared_ptr<IP_VolData>> stages;

    Series() {
        for (int stage = 0; stage < kStages; stage++) {
            const int num_slices = whole.dims[2] * (stage + 1) / kStages;
            mip_model::Volume part = whole;
            part.dims[2] = num_slices;
            IP_Box box = *part.to_host()->GetBox();
            stages.emplace_back(new IP_VolData(&box, num_slices), [](IP_VolData* volume) {
                volume->DisconnectSlices();
                delete volume;
            });
            for (int z = 0; z < num_slices; z++) {
                stages.back()->SetSlice(slices->GetSlice(z), z);
            }
        }
    }
};

// Prepared data that one thread rebuilds, stage after stage, while others project it.
struct GrowingData {
    std::shared_ptr<IP_MultiVolDataIncMIP> prepared = std::make_shared<IP_MultiVolDataIncMIP>();
    int stage = -1;  // what it holds, -1 for nothing; guarded by its data-protection section

    void rebuild(const Series& series, Worker& worker, const std::atomic<bool>& stop) {
        const reference_host::CancellationScope scope(worker.token);
        for (int i = 0; !stop; i++) {
            const int next = i % Series::kStages;
            IP_MultiVolData source;
            source.AddVolData(series.stages[static_cast<std::size_t>(next)]);
            prepared->EnterDataProtectCriticalSection();
            worker.may_be_cancelled = i % 3 == 2;
            stage = -1;
            try {
                // With each round of the stages comes a new version of all slices.
                const bool done =
                    prepared->Rebuild(&source, nullptr, false, 2, i / Series::kStages, 1, 0, false, -32768);
                stage = done ? next : -1;
                worker.wrong += done ? 0 : 1;
                worker.done++;
            } catch (const TCO_CANCEL_EXCEPTION&) {
                worker.cancelled++;
            }
            worker.may_be_cancelled = false;
            worker.token.Reset();
            prepared->LeaveDataProtectCriticalSection();
            std::this_thread::yield();
        }
    }

    void project(const Series& series, const std::vector<Picture>& expected, Worker& worker,
                 const std::atomic<bool>& stop) {
        const reference_host::CancellationScope scope(worker.token);
        mip_model::Request request(series.stages.front());
        request.p.m_AltVolData = prepared;
        for (int i = 0; !stop; i++) {
            if (i % 2 == 0) {
                prepared->EnterDataProtectCriticalSection();
            } else if (!prepared->TryEnterDataProtectCriticalSection()) {
                std::this_thread::yield();
                continue;
            }
            if (stage >= 0) {
                worker.may_be_cancelled = i % 3 == 2;
                request.show(series.stages[static_cast<std::size_t>(stage)]);
                const int view = i % kViews;
                request.set_view({35.0 * view, 15.0 * view, 0.0});
                request.draw(false);
                worker.may_be_cancelled = false;
                if (request.projector.IsComplete()) {
                    worker.done++;
                    worker.wrong += Picture(request.output.begin(), request.output.end()) ==
                                            expected[static_cast<std::size_t>(stage * kViews + view)]
                                        ? 0
                                        : 1;
                } else {
                    worker.cancelled++;
                    worker.wrong += worker.token.IsCancelled() ? 0 : 1;
                }
                worker.token.Reset();
            }
            prepared->LeaveDataProtectCriticalSection();
            std::this_thread::yield();
        }
    }
};

// Ends the threads after a while and tells what they did.
void join(std::vector<std::thread>& threads, std::atomic<bool>& stop, const std::vector<Worker*>& workers) {
    stop = true;
    for (std::size_t i = 0; i < threads.size(); i++) {
        threads[i].join();
        EXPECT_EQ(workers[i]->wrong, 0) << "thread " << i;
        std::cout << "thread " << i << ": " << workers[i]->done << " done, " << workers[i]->cancelled << " cancelled\n";
    }
    EXPECT_EQ(reference_host::GetPagerStatistics().mapped_blocks, 0);
}

bool all_worked(const std::vector<Worker*>& workers) {
    return std::all_of(workers.begin(), workers.end(),
                       [](const Worker* worker) { return worker->done >= 8 && worker->cancelled >= 2; });
}

}  // namespace

TEST(Threads, EnginesOverOneVolumeDrawAsEachDoesAlone) {
    const std::int64_t blocks_before = reference_host::GetPagerStatistics().blocks;
    {
        const World world;
        std::vector<Driver> drivers(4);
        drivers[0].make_engine = [&] { return std::make_unique<ShadedEngine>(world.plain, world.volume); };
        drivers[1].make_engine = [&] { return std::make_unique<ShadedEngine>(world.clipped, world.volume); };
        drivers[2].make_engine = [&] { return std::make_unique<MipEngine>(world.volume, false); };
        drivers[3].make_engine = [&] { return std::make_unique<MipEngine>(world.volume, true); };
        std::vector<Worker*> all;
        for (Driver& driver : drivers) {
            const auto alone = driver.make_engine();
            for (int view = 0; view < kViews; view++) {
                driver.expected.push_back(alone->draw(view));
                ASSERT_FALSE(driver.expected.back().empty());
                ASSERT_TRUE(view == 0 || driver.expected.back() != driver.expected[0]) << view;
            }
            all.push_back(&driver);
        }

        std::atomic<bool> stop{false};
        std::vector<std::thread> threads;
        for (Driver& driver : drivers) {
            threads.emplace_back([&driver, &stop] { driver.run(stop); });
        }
        disturb(all, 1 << 20, [&all] { return all_worked(all); });
        join(threads, stop, all);
    }
    EXPECT_EQ(reference_host::GetPagerStatistics().blocks, blocks_before);
}

TEST(Threads, PicturesOfGrowingDataAreThoseOfOneOfItsStages) {
    const std::int64_t blocks_before = reference_host::GetPagerStatistics().blocks;
    {
        const Series series;
        std::vector<Picture> expected;
        for (const auto& volume : series.stages) {
            MipEngine alone(volume, false);
            for (int view = 0; view < kViews; view++) {
                expected.push_back(alone.draw(view));
            }
        }

        GrowingData data;
        std::vector<Worker> workers(3);
        const std::vector<Worker*> all = {&workers[0], &workers[1], &workers[2]};
        std::atomic<bool> stop{false};
        std::vector<std::thread> threads;
        threads.emplace_back([&] { data.rebuild(series, workers[0], stop); });
        for (Worker* const projector : {&workers[1], &workers[2]}) {
            threads.emplace_back([&, projector] { data.project(series, expected, *projector, stop); });
        }
        disturb(all, 1 << 18, [&all] { return all_worked(all); });
        join(threads, stop, all);
    }
    EXPECT_EQ(reference_host::GetPagerStatistics().blocks, blocks_before);
}
