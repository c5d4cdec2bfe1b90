// Preparation of MIP data from a CT-sized volume (512 x 512 x 400), beside a streaming read of the same bytes.
#include "bench/limits.h"
#include "ip_volr/IP_MultiVolDataIncMIP.h"
#include "ip_volr/IP_MultiVolRTisIndInc.h"
#include "ip_volr/IP_VolRTissueList.h"

#include <benchmark/benchmark.h>

#include <cmath>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace {

constexpr int kEdge = 512;
constexpr int kDepth = 400;
constexpr std::int64_t kSliceVoxels = std::int64_t{kEdge} * kEdge;
constexpr std::int64_t kVolumeBytes = kDepth * kSliceVoxels * 2;

IP_Slice* make_slice(int z) {
    auto* const info = new MEM_PagerInfo(MEM_MemPager::GetHandleForMP());
    MEM_MemPager::GetHandleForMP()->Allocate(kSliceVoxels * 2, info, 0);
    auto* const pixels = static_cast<short*>(info->Ptr());
    for (std::int64_t i = 0; i < kSliceVoxels; i++) {
        pixels[i] = static_cast<short>((i * 2654435761U + static_cast<unsigned>(z) * 97U) >> 4 & 0x0FFF);
    }
    info->Unmap();
    auto* const slice = new IP_ShortSlice(info, PixelDataAttributes{kEdge, kEdge, 12, true}, 0);
    slice->SetOwnsData(true);
    slice->SetID(("slice." + std::to_string(z)).c_str());
    return slice;
}

// The series with its first slices arrived.
IP_MultiVolData series(int num_slices) {
    static IP_VolData all = [] {
        IP_Box box(kEdge, kEdge, kDepth);
        IP_VolData volume(&box, kDepth);
        for (int z = 0; z < kDepth; z++) {
            volume.SetSlice(make_slice(z), z);
        }
        return volume;
    }();
    IP_Box box(kEdge, kEdge, num_slices);
    const auto part = std::shared_ptr<IP_VolData>(new IP_VolData(&box, num_slices), [](IP_VolData* volume) {
        volume->DisconnectSlices();
        delete volume;
    });
    for (int z = 0; z < num_slices; z++) {
        part->SetSlice(all.GetSlice(z), z);
    }
    IP_MultiVolData result;
    result.AddVolData(part);
    result.Reset();
    return result;
}

bool rebuild(IP_MultiVolDataIncMIP& data, IP_MultiVolData& source, int quality) {
    return data.Rebuild(&source, nullptr, false, quality == 0 ? 2 : 1, 1, 1, quality, false, -32768);
}

void BM_PreparedStreamingRead(benchmark::State& state) {
    IP_MultiVolData source = series(kDepth);
    IP_VolData& volume = *source.GetVolData(0);
    volr_bench::Stream stream(volume);
    for ([[maybe_unused]] auto _ : state) {
        stream.read_seconds();
    }
    state.SetBytesProcessed(state.iterations() * kVolumeBytes);
}

// The first preparation, with the memory that it takes; 0 fast, 1 slow.
void BM_PreparedFirstRebuild(benchmark::State& state) {
    IP_MultiVolData source = series(kDepth);
    for ([[maybe_unused]] auto _ : state) {
        auto data = std::make_unique<IP_MultiVolDataIncMIP>();
        if (!rebuild(*data, source, static_cast<int>(state.range(0)))) {
            state.SkipWithError("not prepared");
        }
        state.PauseTiming();
        data.reset();
        state.ResumeTiming();
    }
    state.SetBytesProcessed(state.iterations() * kVolumeBytes);
}

// All slices copied again into the blocks that they have.
void BM_PreparedNewPixels(benchmark::State& state) {
    IP_MultiVolData source = series(kDepth);
    SliceHashMap map;
    IP_VolDataMIP data;
    int counter = 0;
    for ([[maybe_unused]] auto _ : state) {
        counter++;
        data.Create(*source.GetVolData(0), map, nullptr, false, 2, false, counter, 1, 0, -32768);
    }
    state.SetBytesProcessed(state.iterations() * kVolumeBytes);
}

// One more slice after the others.
void BM_PreparedOneMoreSlice(benchmark::State& state) {
    IP_MultiVolData before = series(kDepth - 1);
    IP_MultiVolData after = series(kDepth);
    for ([[maybe_unused]] auto _ : state) {
        state.PauseTiming();
        auto data = std::make_unique<IP_MultiVolDataIncMIP>();
        rebuild(*data, before, 0);
        state.ResumeTiming();
        rebuild(*data, after, 0);
        state.PauseTiming();
        data.reset();
        state.ResumeTiming();
    }
}

void BM_PreparedTranspose(benchmark::State& state) {
    IP_MultiVolData source = series(kDepth);
    IP_MultiVolDataIncMIP data;
    const int quality = static_cast<int>(state.range(0));
    rebuild(data, source, quality);
    for ([[maybe_unused]] auto _ : state) {
        dynamic_cast<IP_VolDataProj*>(data.GetVolData(0))->Transpose(0, kDepth);
    }
    state.SetBytesProcessed(state.iterations() * kVolumeBytes / (quality == 0 ? 4 : 1));
}

// A ball of runs.
IP_RealListVol ball(const IP_Box& box, int centre, int radius) {
    IP_RealListVol result(box);
    for (int z = 0; z < kDepth; z++) {
        for (int y = 0; y < kEdge; y++) {
            const int rest = radius * radius - (y - centre) * (y - centre) - (z - 200) * (z - 200);
            if (rest > 0) {
                const int half = static_cast<int>(std::sqrt(rest));
                result.AddRun(y, z, centre - half, centre + half);
            }
        }
    }
    return result;
}

// Index volume of five tissues.
void BM_TissueIndexRebuild(benchmark::State& state) {
    IP_MultiVolData source = series(kDepth);
    const IP_Box& box = *source.GetVolData(0)->GetBox();
    std::vector<IP_RealListVol> masks;
    for (int t = 0; t < 5; t++) {
        masks.push_back(ball(box, 180 + 40 * t, 190 - 20 * t));
    }
    std::vector<IP_MultiRealListVol> sets(5);
    IP_VolRTissueList tissues;
    tissues.SetNumbTissues(5);
    for (unsigned t = 0; t < 5; t++) {
        sets[t].AddRealListVol(&masks[t]);
        tissues.SetTissue(t, &sets[t]);
        tissues.SetColorTableIndex(t, static_cast<int>(t));
    }
    IP_MultiVolRTisIndInc data;
    for ([[maybe_unused]] auto _ : state) {
        data.Rebuild(&source, 1, 1, 0, true, tissues);
    }
    state.SetBytesProcessed(state.iterations() * kVolumeBytes / 4);
}

BENCHMARK(BM_PreparedStreamingRead)
    ->Name("limit/streaming-read-prepared")
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime();
BENCHMARK(BM_PreparedFirstRebuild)
    ->Name("prepared/first")
    ->Arg(0)
    ->Arg(1)
    ->ArgName("quality")
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime();
BENCHMARK(BM_PreparedNewPixels)->Name("prepared/new-pixels")->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_PreparedOneMoreSlice)
    ->Name("prepared/one-more-slice")
    ->Iterations(10)
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime();
BENCHMARK(BM_PreparedTranspose)
    ->Name("prepared/transpose")
    ->Arg(0)
    ->Arg(1)
    ->ArgName("quality")
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime();
BENCHMARK(BM_TissueIndexRebuild)->Name("prepared/tissue-indices")->Unit(benchmark::kMillisecond)->UseRealTime();

}  // namespace
