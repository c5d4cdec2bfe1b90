// The brick structure on a CT-sized volume (512 x 512 x 400), beside a streaming read of the same bytes.
#include "bench/limits.h"
#include "host/images.h"
#include "ip_volr/IP_VOLRC_BrickStructure.h"

#include <benchmark/benchmark.h>

#include <cstdint>
#include <cstring>
#include <list>
#include <memory>
#include <vector>

namespace {

constexpr int kWidth = 512;
constexpr int kHeight = 512;
constexpr int kDepth = 404;  // with two slices of padding at both ends
constexpr std::int64_t kSliceVoxels = std::int64_t{kWidth} * kHeight;
constexpr std::int64_t kVolumeBytes = 400 * kSliceVoxels * 2;

std::uint64_t next_random(std::uint64_t& state) {
    state ^= state << 13;
    state ^= state >> 7;
    state ^= state << 17;
    return state;
}

template <class Slice, class Fill>
Slice* make_slice(std::size_t bytes, int bits, const Fill& fill) {
    auto* const info = new MEM_PagerInfo(MEM_MemPager::GetHandleForMP());
    MEM_MemPager::GetHandleForMP()->Allocate(static_cast<unsigned>(bytes), info, 0);
    fill(info->Ptr());
    info->Unmap();
    auto* const slice = new Slice(info, PixelDataAttributes{kWidth, kHeight, bits, true}, 0);
    slice->SetOwnsData(true);
    return slice;
}

// A ball of tissue-like values in air, with noise; tissue 3 in its upper half.
struct Scene {
    Scene() {
        IP_Box box(kWidth, kHeight, kDepth);
        volume = std::make_unique<IP_VolData>(&box, kDepth);
        tissues = std::make_unique<IP_VolData>(&box, kDepth);
        std::uint64_t state = 1;
        for (int z = 0; z < kDepth; ++z) {
            tissues->SetSlice(make_slice<IP_TisIndSlice>(
                                  kSliceVoxels / 2, 4,
                                  [&](void* bytes) { std::memset(bytes, z < 200 ? 0xFF : 0x33, kSliceVoxels / 2); }),
                              z);
            if (z < 2 || z >= kDepth - 2) {
                continue;
            }
            volume->SetSlice(
                make_slice<IP_ShortSlice>(kSliceVoxels * 2, 12,
                                          [&](void* pixels) { fill_slice(static_cast<short*>(pixels), z, state); }),
                z);
        }
        for (int slice = 0; slice < 400; ++slice) {
            all_slices.push_back(slice);
        }
    }

    static void fill_slice(short* pixels, int z, std::uint64_t& state) {
        for (int i = 0; i < kSliceVoxels; ++i) {
            const int x = i % kWidth - 256;
            const int y = i / kWidth - 256;
            const bool inside = x * x + y * y + (z - 200) * (z - 200) < 190 * 190;
            pixels[i] = static_cast<short>((inside ? 40 : -1000) + static_cast<int>(next_random(state) % 64));
        }
    }

    struct Tables {
        unsigned short luminosity[16][65536];
        int prefix[16][65536];
        unsigned int colours[16][65536];
    };
    std::unique_ptr<Tables> tables = std::make_unique<Tables>();
    std::unique_ptr<IP_VolData> volume;
    std::unique_ptr<IP_VolData> tissues;
    std::list<int> all_slices;
};

Scene& scene() {
    static Scene instance;
    return instance;
}

IP_VOLRC_BrickStructure make_structure() {
    Scene::Tables& tables = *scene().tables;
    return {tables.luminosity, tables.prefix, tables.colours, true};
}

void BM_StreamingRead(benchmark::State& state) {
    IP_VolData& volume = *scene().volume;
    volr_bench::Stream stream(volume);
    for ([[maybe_unused]] auto _ : state) {
        stream.read_seconds();
    }
    state.SetBytesProcessed(state.iterations() * kVolumeBytes);
}

void BM_BrickMinMax(benchmark::State& state) {
    IP_VOLRC_BrickStructure structure = make_structure();
    structure.Init(scene().volume.get());
    structure.PrepareUpdatedBricksVector(&scene().all_slices);
    for ([[maybe_unused]] auto _ : state) {
        structure.RecalculateMinMaxForNewSlices();
    }
    state.SetBytesProcessed(state.iterations() * kVolumeBytes);
}

// 32 slices have arrived.
void BM_BrickStreaming(benchmark::State& state) {
    IP_VOLRC_BrickStructure structure = make_structure();
    structure.Init(scene().volume.get());
    structure.PrepareUpdatedBricksVector(&scene().all_slices);
    structure.RecalculateMinMaxForNewSlices();
    std::list<int> arrived;
    for (int slice = 100; slice < 132; ++slice) {
        arrived.push_back(slice);
    }
    for ([[maybe_unused]] auto _ : state) {
        structure.PrepareUpdatedBricksVector(&arrived);
        structure.RecalculateMinMaxForNewSlices();
    }
    state.SetBytesProcessed(state.iterations() * 32 * kSliceVoxels * 2);
}

void BM_BrickInit(benchmark::State& state) {
    IP_VOLRC_BrickStructure structure = make_structure();
    structure.SetMaxLayerLoaded(1);
    for ([[maybe_unused]] auto _ : state) {
        structure.Init(scene().volume.get());
    }
}

void BM_BrickSetColorTables(benchmark::State& state) {
    IP_VOLRC_BrickStructure structure = make_structure();
    structure.SetMaxLayerLoaded(1);
    structure.Init(scene().volume.get());
    if (state.range(0) != 0) {
        structure.UpdateTissue(scene().tissues.get());
    }
    std::vector<unsigned> colours(65536);
    for (int i = 32768; i < 65536; ++i) {
        colours[i] = static_cast<unsigned>((i - 32768) / 16 % 256) << 24;
    }
    std::vector<unsigned*> tables(16, colours.data() + 32768);
    for ([[maybe_unused]] auto _ : state) {
        structure.SetColorTables(tables.data(), nullptr, 16, nullptr, VISIBILITY_BY_OPACITY);
    }
}

void BM_BrickUpdateTissue(benchmark::State& state) {
    IP_VOLRC_BrickStructure structure = make_structure();
    structure.Init(scene().volume.get());
    for ([[maybe_unused]] auto _ : state) {
        structure.UpdateTissue(scene().tissues.get());
    }
    state.SetBytesProcessed(state.iterations() * kDepth * kSliceVoxels / 2);
}

BENCHMARK(BM_StreamingRead)->Name("limit/streaming-read")->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_BrickMinMax)->Name("brick/min-max")->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_BrickStreaming)->Name("brick/streaming-update")->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_BrickInit)->Name("brick/set-up")->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_BrickSetColorTables)
    ->Name("brick/colour-tables")
    ->Arg(0)
    ->Arg(1)
    ->ArgName("tissues")
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime();
BENCHMARK(BM_BrickUpdateTissue)->Name("brick/tissues")->Unit(benchmark::kMillisecond)->UseRealTime();

}  // namespace
