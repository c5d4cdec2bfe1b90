// Pictures: the rows that end a frame, beside a copy of the same bytes.
#include "bench/timing.h"
#include "host/zoom.h"
#include "ip_volr/kernels/raster.h"

#include <cmath>
#include <cstdint>
#include <cstring>
#include <vector>

namespace {

using namespace volr_bench;

constexpr int kSize = 1024;
constexpr std::size_t kPixels = std::size_t{kSize} * kSize;

template <class Pixel>
std::function<double()> copy_of(const std::vector<Pixel>& source) {
    return [&source, target = std::vector<Pixel>(kPixels)]() mutable {
        return seconds_of([&] {
            std::memcpy(target.data(), source.data(), target.size() * sizeof(Pixel));
            benchmark::ClobberMemory();
        });
    };
}

// A sheared picture onto the output, turned a little; overwriting or by maximum.
void warp(benchmark::State& state, bool maximum) {
    std::vector<short> source(kPixels);
    std::vector<short> output(kPixels);
    for (std::size_t i = 0; i < kPixels; ++i) {
        source[i] = static_cast<short>(i * 7919);
    }
    const float c = std::cos(0.2F), s = std::sin(0.2F);
    const float matrix[4][4] = {{c, s, 0, 0}, {-s, c, 0, 0}, {0, 0, 1, 0}, {30, -20, 0, 1}};
    const IP_Dims dims(kSize, kSize, 1);
    const auto work = [&] {
        if (maximum) {
            LinShearZoomShortMax(matrix, &dims, &dims, source.data(), output.data(), -32768);
        } else {
            LinShearZoomShortOver(matrix, &dims, &dims, source.data(), output.data(), -32768, nullptr, nullptr);
        }
    };
    run_beside(state, work, copy_of(source));
}

// An interactive frame of half the size to the output, one server's work.
void resize(benchmark::State& state) {
    const std::vector<std::uint32_t> source(kPixels / 4, 0x40302010U);
    std::vector<std::uint32_t> output(kPixels);
    const ip_volr::kernels::ResizeFrame frame{source.data(), kSize / 2, kSize / 2, output.data(), kSize, kSize};
    run_beside(
        state, [&] { ip_volr::kernels::resize_rows(frame, 0, kSize); }, copy_of(output));
}

void blend(benchmark::State& state) {
    const std::vector<std::uint32_t> raster(kPixels, 0x40302010U);
    std::vector<std::uint32_t> output(kPixels, 0x10203040U);
    const auto work = [&] {
        for (std::size_t y = 0; y < kSize; ++y) {
            ip_volr::kernels::blend_row(raster.data() + y * kSize, kSize, output.data() + y * kSize);
        }
    };
    run_beside(state, work, copy_of(raster));
}

void settings(benchmark::internal::Benchmark* b) {
    b->UseManualTime()->Unit(benchmark::kMillisecond)->Iterations(50);
}

BENCHMARK_CAPTURE(warp, over, false)->Name("picture/warp/over")->Apply(settings);
BENCHMARK_CAPTURE(warp, maximum, true)->Name("picture/warp/maximum")->Apply(settings);
BENCHMARK(resize)->Name("picture/resize")->Apply(settings);
BENCHMARK(blend)->Name("picture/blend")->Apply(settings);

}  // namespace
