// Rows of pixels: equal bytes for every instruction set, and the values that the formulas promise.
#include "ip_volr/kernels/raster.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <random>
#include <vector>

#include "ip_volr/IP_VOLRC_ListRay.h"
#include "ip_volr/kernels/instruction_set.h"

namespace {

using namespace ip_volr::kernels;
using Pixels = std::vector<std::uint32_t>;

constexpr InstructionSet kSets[] = {InstructionSet::Scalar, InstructionSet::Sse41, InstructionSet::Avx2};
constexpr int kCounts[] = {0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 15, 16, 17, 31, 67};
constexpr std::uint32_t kGuard = 0x5a5a1234u;

enum class Fill { Random, Lowest, Highest };
constexpr Fill kFills[] = {Fill::Random, Fill::Lowest, Fill::Highest};

Pixels make_pixels(int count, Fill fill, unsigned seed) {
    std::mt19937 random(seed);
    Pixels pixels(static_cast<std::size_t>(count));
    std::generate(pixels.begin(), pixels.end(), [&random, fill] {
        return fill == Fill::Random ? static_cast<std::uint32_t>(random()) : fill == Fill::Highest ? 0xffffffffu : 0u;
    });
    return pixels;
}

std::vector<_listRay> make_rays(int count, Fill fill, unsigned seed) {
    std::mt19937 random(seed);
    std::vector<_listRay> rays(static_cast<std::size_t>(count));
    for (_listRay& ray : rays) {
        ray.transparency = static_cast<unsigned short>(random() >> (random() % 2 != 0 ? 4 : 0));
        for (unsigned short& colour : ray.colour) {
            colour = static_cast<unsigned short>(random() & 0x7fff);
        }
        if (fill != Fill::Random) {
            ray.transparency = fill == Fill::Highest ? 65535 : 0;
            std::fill_n(ray.colour, 3, static_cast<unsigned short>(fill == Fill::Highest ? 65535 : 0));
        }
    }
    return rays;
}

// Runs `kernel(out)` for every instruction set on a row between guards and expects the scalar result.
template <class Kernel>
Pixels expect_same_bytes(const Pixels& before, const std::string& what, Kernel kernel) {
    Pixels expected;
    for (const InstructionSet set : kSets) {
        const ScopedInstructionSet limit(set);
        Pixels guarded = {kGuard, kGuard, kGuard};
        guarded.insert(guarded.begin() + 1, before.begin(), before.end());
        kernel(guarded.data() + 1);
        EXPECT_EQ(guarded.front(), kGuard);
        EXPECT_EQ(guarded[before.size() + 1], kGuard) << what;
        const Pixels row(guarded.begin() + 1, guarded.end() - 2);
        if (set == InstructionSet::Scalar) {
            expected = row;
        }
        EXPECT_EQ(expected, row) << what << " " << instruction_set_name(set);
    }
    return expected;
}

TEST(Raster, InstructionSetsGiveTheSameBytes) {
    for (const int count : kCounts) {
        for (const Fill fill : kFills) {
            const auto seed = static_cast<unsigned>(count);
            const std::string what =
                "count " + std::to_string(count) + " fill " + std::to_string(static_cast<int>(fill));
            for (const std::uint16_t threshold : {0, 3276, 13104, 65535}) {
                const std::vector<_listRay> rays = make_rays(count, fill, seed);
                expect_same_bytes(Pixels(rays.size()), what + " rays",
                                  [&](std::uint32_t* out) { rays_to_pixels(rays.data(), count, threshold, out); });
            }
            for (const Fill behind : kFills) {
                const Pixels raster = make_pixels(count, fill, seed);
                expect_same_bytes(make_pixels(count, behind, seed + 1), what + " blend",
                                  [&](std::uint32_t* out) { blend_row(raster.data(), count, out); });
            }
        }
    }
    constexpr int kSizes[][4] = {{1, 1, 1, 1},   {1, 1, 9, 4},   {5, 3, 5, 3}, {7, 4, 20, 9},
                                 {33, 2, 67, 3}, {64, 3, 65, 4}, {0, 0, 5, 2}};
    for (const auto& [width, height, out_width, out_height] : kSizes) {
        for (const Fill fill : kFills) {
            const Pixels source = make_pixels(width * height, fill, 5);
            expect_same_bytes(Pixels(static_cast<std::size_t>(out_width * out_height), 7), "resize",
                              [&, size = std::array<int, 4>{width, height, out_width, out_height}](std::uint32_t* out) {
                                  resize_rows({source.data(), size[0], size[1], out, size[2], size[3]}, 0, size[3]);
                              });
        }
    }
}

std::uint32_t pixel_of(std::uint16_t transparency, std::uint16_t blue, std::uint16_t threshold) {
    _listRay ray{};
    ray.transparency = transparency;
    ray.colour[0] = blue;
    std::uint32_t pixel = 0;
    rays_to_pixels(&ray, 1, threshold, &pixel);
    return pixel;
}

TEST(Raster, RaysBecomePixelsWithTheLightOfEarlyEnd) {
    EXPECT_EQ(pixel_of(65535, 0, 3276), 0xff000000u);
    EXPECT_EQ(pixel_of(0, 32767, 0), 127u);
    // t = 1000 below 1638: factor 32767 + 1000 + 2 * 15.
    EXPECT_EQ(pixel_of(2000, 20000, 3276), ((2000u * 33797 / 131072 / 64) << 24) | (20000u * 33797 / 131072 / 64));
}

TEST(Raster, BlendingLetsThePictureBehindShineThrough) {
    std::uint32_t out[3] = {0x80604020u, 0x80604020u, 0xffffffffu};
    const std::uint32_t raster[3] = {0x00112233u, 0x80000000u, 0xffffffffu};
    blend_row(raster, 3, out);
    EXPECT_EQ(out[0], 0x00112233u);  // opaque
    EXPECT_EQ(out[1], 0xc0302010u);  // half transparent: 0x80 + 0x80 * 0x80 / 256 on top
    EXPECT_EQ(out[2], 0xffffffffu);  // saturated
}

TEST(Raster, EnlargedPictureKeepsItsBrightnessInsideAndFadesAtItsBorder) {
    const Pixels source(8 * 6, 0xff80ff01u);
    Pixels output(24 * 18);
    resize_rows({source.data(), 8, 6, output.data(), 24, 18}, 0, 9);
    resize_rows({source.data(), 8, 6, output.data(), 24, 18}, 9, 18);
    for (int y = 0; y < 18; y++) {
        for (int x = 0; x < 24; x++) {
            const std::uint32_t pixel = output[static_cast<std::size_t>(y * 24 + x)];
            const bool is_inside = x >= 1 && x < 23 && y >= 1 && y < 17;
            if (is_inside) {
                EXPECT_EQ(pixel, 0xff80ff01u) << x << "," << y;
            } else {
                EXPECT_LT(pixel >> 24, 0xffu) << x << "," << y;
                EXPECT_GT(pixel >> 24, 0x60u) << x << "," << y;
            }
        }
    }
}

}  // namespace
