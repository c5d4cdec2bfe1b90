// Frames of the maximum-intensity projection beside what the memory allows: streaming the same voxels once, sheared,
// through a 16-bit maximum on as many threads.
//
// Each iteration times both in turn; the counters hold the least times and their ratio.
#include "bench/limits.h"
#include "bench/timing.h"
#include "host/memory_pager.h"
#include "ip_volr/IP_MIPProjector.h"
#include "ip_volr/IP_MultiVolDataIncMIP.h"
#include "ip_volr/IP_VolRClipManager.h"

#include <benchmark/benchmark.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace {

constexpr int kSize = 512;
constexpr int kSlices = 400;
constexpr int kOutput = 512;

// A ball in noise.
std::shared_ptr<IP_VolData> make_volume() {
    IP_Box box(kSize, kSize, kSlices, 0.7F, 0.7F, 0.8F);
    box.Translate(0.0F, 0.0F, 0.5F);
    auto volume = std::make_shared<IP_VolData>(&box, kSlices);
    unsigned state = 1;
    for (int z = 0; z < kSlices; z++) {
        auto* const block = new MEM_PagerInfo;
        MEM_MemPager::GetHandleForMP()->Allocate(kSize * kSize * 2, block, 0);
        auto* const pixels = static_cast<short*>(block->Ptr());
        for (int i = 0; i < kSize * kSize; i++) {
            state = state * 1664525U + 1013904223U;
            const int x = i % kSize - kSize / 2;
            const int y = i / kSize - kSize / 2;
            const bool inside = x * x + y * y + (z - kSlices / 2) * (z - kSlices / 2) < 150 * 150;
            pixels[i] = static_cast<short>((inside ? 300 : -1000) + static_cast<int>(state >> 24));
        }
        block->Unmap();
        auto* const slice = new IP_ShortSlice(block, {kSize, kSize, 13, true}, 0);
        slice->SetOwnsData(true);
        slice->SetID(("slice " + std::to_string(z)).c_str());
        volume->SetSlice(slice, z);
    }
    return volume;
}

struct Scene {
    IP_VolRParamsMIP p;
    IP_VolRBoxParamsMIP a;
    IP_VolRBoxParamsMIP b;
    IP_MIPProjector projector;
    IP_VolRClipManager clip;
    std::vector<short> output = std::vector<short>(static_cast<std::size_t>(kOutput) * kOutput);

    Scene() {
        p.m_VolData = std::make_shared<IP_MultiVolData>();
        p.m_VolData->AddVolData(make_volume());
        p.m_VolData->Reset();
        auto prepared = std::make_shared<IP_MultiVolDataIncMIP>();
        prepared->Rebuild(p.m_VolData.get(), nullptr, false, 2, 1, 1, 0, false, -32768);
        p.m_AltVolData = prepared;
        p.m_Width = kOutput;
        p.m_Height = kOutput;
        p.m_OutputImage = output.data();
        b.m_MaxIntoOutput = 1;
        projector.Reset(&p, 1);
    }
    ~Scene() { IP_MIPProjector::FreePictures(&p, &a, &b); }

    void set_view(double azimuth_degrees, double elevation_degrees) {
        const double az = azimuth_degrees * 3.14159265358979 / 180.0;
        const double el = elevation_degrees * 3.14159265358979 / 180.0;
        const double columns[3][3] = {{std::cos(az), 0.0, -std::sin(az)},
                                      {std::sin(el) * std::sin(az), std::cos(el), std::sin(el) * std::cos(az)},
                                      {std::cos(el) * std::sin(az), -std::sin(el), std::cos(el) * std::cos(az)}};
        for (int row = 0; row < 3; row++) {
            for (int column = 0; column < 3; column++) {
                p.m_ViewMatrix[row][column] = static_cast<float>(columns[column][row]);
            }
        }
    }
    void draw(bool linear) {
        projector.Project(&p, &a, &b, linear ? 1 : 0, 0, -32768);
        projector.Shear(&p, &a, -32768);
        projector.Shear(&p, &b, -32768);
    }
};

Scene& scene() {
    static Scene s;
    return s;
}

void frame_beside_stream(benchmark::State& state, bool linear) {
    Scene& s = scene();
    s.p.m_ClipManager = nullptr;
    s.set_view(static_cast<double>(state.range(0)), static_cast<double>(state.range(1)));
    const double first = volr_bench::seconds_of([&] { s.draw(linear); });
    volr_bench::Stream stream(*(linear ? s.p.m_VolData->GetVolData(0) : s.p.m_AltVolData->GetVolData(0)));
    double least_stream = 1e9;
    double least_frame = 1e9;
    for (auto _ : state) {
        least_stream = std::min(least_stream, stream.sheared_maximum_seconds());
        const double frame = volr_bench::seconds_of([&] { s.draw(linear); });
        least_frame = std::min(least_frame, frame);
        state.SetIterationTime(frame);
    }
    state.counters["first_ms"] = first * 1e3;
    state.counters["stream_ms"] = least_stream * 1e3;
    state.counters["frame_ms"] = least_frame * 1e3;
    state.counters["ratio"] = least_frame / least_stream;
}

void mip_fast(benchmark::State& state) {
    frame_beside_stream(state, false);
}
void mip_linear(benchmark::State& state) {
    frame_beside_stream(state, true);
}

// A slab of 20 mm that moves with the view: its bounds are new in every frame.
void mip_slab(benchmark::State& state) {
    Scene& s = scene();
    const bool linear = state.range(0) != 0;
    s.set_view(20.0, 15.0);
    s.p.m_ClipManager = &s.clip;
    float middle[3];
    s.p.m_VolData->GetBoundingBox()->GetMiddle(middle);
    float eq[4];
    for (auto _ : state) {
        for (int side = 0; side < 2; side++) {
            const float sign = side == 0 ? 1.0F : -1.0F;
            eq[3] = -10.0F;
            for (int i = 0; i < 3; i++) {
                eq[i] = sign * s.p.m_ViewMatrix[i][2];
                eq[3] -= eq[i] * middle[i];
            }
            s.clip.SetClipPlane(side, eq);
        }
        s.draw(linear);
    }
    s.p.m_ClipManager = nullptr;
}

void views(benchmark::internal::Benchmark* b) {
    b->ArgNames({"azimuth", "elevation"})->UseManualTime()->Unit(benchmark::kMillisecond)->Iterations(15);
    for (const auto& v : {std::pair{0, 0}, {30, 20}, {0, 90}, {10, 60}, {90, 0}, {70, 20}, {45, 0}}) {
        b->Args({v.first, v.second});
    }
}

BENCHMARK(mip_fast)->Name("view/mip-fast")->Apply(views);
BENCHMARK(mip_linear)->Name("view/mip-linear")->Apply(views);
BENCHMARK(mip_slab)
    ->Name("view/mip-slab")
    ->ArgName("linear")
    ->Arg(0)
    ->Arg(1)
    ->Unit(benchmark::kMillisecond)
    ->Iterations(10)
    ->UseRealTime();

}  // namespace
