// Every instruction set gives the bytes of the scalar kernels.
#include "ip_volr/kernels/instruction_set.h"
#include "ip_volr/kernels/mip_kernels.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <functional>
#include <random>
#include <vector>

using namespace ip_volr::kernels;

namespace {

constexpr std::size_t kGuard = 40;
const std::size_t kCounts[] = {0, 1, 2, 7, 8, 9, 15, 16, 17, 31, 32, 33, 47, 511, 512, 517};

enum class Fill { Random, Lowest, Highest, Mixed };

std::vector<std::int16_t> row(std::size_t count, Fill fill, std::mt19937& random) {
    std::vector<std::int16_t> r(count);
    for (std::int16_t& v : r) {
        const bool high = fill == Fill::Highest || (fill == Fill::Mixed && random() % 2 == 0);
        v = fill == Fill::Random ? static_cast<std::int16_t>(random())
            : high               ? std::int16_t{32767}
                                 : std::int16_t{-32768};
    }
    return r;
}

using Kernel = std::function<void(const MipKernels&, std::int16_t* dst, const std::int16_t* a, const std::int16_t* b,
                                  std::size_t count)>;

// Runs a kernel on rows of all sizes, fills and misalignments, with each instruction set; guard pixels must stay.
void expect_equal(const char* name, const Kernel& kernel) {
    std::mt19937 random(7);
    MipKernels scalar{};
    add_mip_scalar(scalar);
    for (const InstructionSet set : {InstructionSet::Sse41, InstructionSet::Avx2}) {
        const ScopedInstructionSet scope(set);
        if (scope.in_force() != set) {
            continue;  // this processor does not have it
        }
        for (const std::size_t count : kCounts) {
            for (const Fill fill : {Fill::Random, Fill::Lowest, Fill::Highest, Fill::Mixed}) {
                const std::size_t shift = random() % 9;
                const std::vector<std::int16_t> a = row(count + 2 * kGuard, fill, random);
                const std::vector<std::int16_t> b = row(count + 2 * kGuard, fill, random);
                std::vector<std::int16_t> expected = row(count + 2 * kGuard, Fill::Random, random);
                std::vector<std::int16_t> got = expected;
                const std::uint32_t seed = random();
                random.seed(seed);
                kernel(scalar, expected.data() + kGuard - shift, a.data() + kGuard, b.data() + kGuard - shift, count);
                random.seed(seed);
                kernel(mip_kernels(), got.data() + kGuard - shift, a.data() + kGuard, b.data() + kGuard - shift, count);
                const auto different = std::mismatch(expected.begin(), expected.end(), got.begin());
                ASSERT_TRUE(different.first == expected.end())
                    << name << ' ' << instruction_set_name(set) << " count " << count << " fill "
                    << static_cast<int>(fill) << " shift " << shift << " first difference at "
                    << different.first - expected.begin();
            }
        }
    }
}

MipBilinear weights(double fx, double fy, int step) {
    const int a1 = static_cast<int>(fx * (1.0 - fy) * 32768.0);
    const int b0 = static_cast<int>((1.0 - fx) * fy * 32768.0);
    const int b1 = static_cast<int>(fx * fy * 32768.0);
    const auto narrow = [](int v) { return static_cast<std::int16_t>(v); };
    return {narrow(32768 - a1 - b0 - b1), narrow(a1), narrow(b0), narrow(b1), step};
}

}  // namespace

TEST(MipKernels, RowsAreByteEqualToScalar) {
    expect_equal("fill", [](const MipKernels& k, std::int16_t* d, const std::int16_t*, const std::int16_t*,
                            std::size_t n) { k.fill(d, n, -1234); });
    expect_equal("max_row", [](const MipKernels& k, std::int16_t* d, const std::int16_t* a, const std::int16_t*,
                               std::size_t n) { k.max_row(d, a, n); });
    for (const MipWeightRamp ramp :
         {MipWeightRamp{2147483647, 0}, {0, 3000000}, {2145000000, -4000000}, {-70000, 900}}) {
        expect_equal("max_row_weighted",
                     [ramp](const MipKernels& k, std::int16_t* d, const std::int16_t* a, const std::int16_t*,
                            std::size_t n) { k.max_row_weighted(d, a, n, ramp); });
    }
    for (const MipBilinear& w :
         {weights(0.5, 0.5, 1), weights(0.25, 0.0, -1), weights(0.0, 0.001, 1), weights(0.3, 0.49, -1)}) {
        expect_equal("max_row_bilinear",
                     [&w](const MipKernels& k, std::int16_t* d, const std::int16_t* a, const std::int16_t* b,
                          std::size_t n) { k.max_row_bilinear(d, a, b, n, w); });
        expect_equal("row_bilinear", [&w](const MipKernels& k, std::int16_t* d, const std::int16_t* a,
                                          const std::int16_t* b, std::size_t n) { k.row_bilinear(d, a, b, n, w); });
    }
}

TEST(MipKernels, TranspositionIsExactForEverySize) {
    std::mt19937 random(3);
    for (const InstructionSet set : {InstructionSet::Scalar, InstructionSet::Sse41, InstructionSet::Avx2}) {
        const ScopedInstructionSet scope(set);
        for (const auto& [columns, rows] : {std::pair<std::size_t, std::size_t>{0, 5},
                                            {5, 0},
                                            {1, 1},
                                            {8, 8},
                                            {33, 17},
                                            {64, 40},
                                            {70, 9},
                                            {31, 64},
                                            {100, 103}}) {
            const std::vector<std::int16_t> src = row(columns * (rows + 3), Fill::Random, random);
            std::vector<std::int16_t> dst(rows * (columns + 5) + 1, 77);
            mip_kernels().transpose(dst.data(), columns + 5, src.data(), rows + 3, columns, rows, src.data());
            for (std::size_t y = 0; y < rows; y++) {
                for (std::size_t x = 0; x < columns + 5; x++) {
                    const std::int16_t expected = x < columns ? src[x * (rows + 3) + y] : std::int16_t{77};
                    ASSERT_EQ(dst[y * (columns + 5) + x], expected)
                        << columns << 'x' << rows << ' ' << instruction_set_name(set);
                }
            }
        }
    }
}
