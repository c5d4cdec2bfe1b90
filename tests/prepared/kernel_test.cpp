// Transposition and reduction: every instruction set against a plain loop, with guard elements around the result.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <random>
#include <vector>

#include "ip_volr/IP_SliceChunk.h"
#include "ip_volr/kernels/instruction_set.h"
#include "ip_volr/kernels/reduce.h"

namespace {

using ip_volr::kernels::InstructionSet;

constexpr InstructionSet kSets[] = {InstructionSet::Scalar, InstructionSet::Sse41, InstructionSet::Avx2};

void transpose(std::uint16_t* from, std::uint16_t* to, int x, int y, int from_stride, int to_stride) {
    transpose_matrix(from, to, x, y, from_stride, to_stride);
}
void transpose(std::uint32_t* from, std::uint32_t* to, int x, int y, int from_stride, int to_stride) {
    transpose_matrix_32(reinterpret_cast<int*>(from), reinterpret_cast<int*>(to), x, y, from_stride, to_stride);
}

template <class Element>
void check_transpose(int x, int y, int from_gap, int to_gap, int misalignment) {
    SCOPED_TRACE(testing::Message() << x << " x " << y << " gaps " << from_gap << ", " << to_gap << " misaligned by "
                                    << misalignment << ", " << 8 * sizeof(Element) << " bit");
    constexpr Element kGuard = static_cast<Element>(0x5AA5A55A);
    const int from_stride = x + from_gap;
    const int to_stride = y + to_gap;
    std::mt19937 random(static_cast<unsigned>(x * 1000 + y));
    std::vector<Element> from(static_cast<std::size_t>(from_stride * y + misalignment));
    for (Element& element : from) {
        element = static_cast<Element>(random());
    }
    const std::size_t to_size = static_cast<std::size_t>(to_stride * x + misalignment + 16);
    std::vector<Element> expected(to_size, kGuard);
    for (int iy = 0; iy < y; iy++) {
        for (int ix = 0; ix < x; ix++) {
            expected[static_cast<std::size_t>(misalignment + ix * to_stride + iy)] =
                from[static_cast<std::size_t>(misalignment + iy * from_stride + ix)];
        }
    }
    std::vector<Element> to(to_size, kGuard);
    transpose(from.data() + misalignment, to.data() + misalignment, x, y, from_stride, to_stride);
    EXPECT_TRUE(to == expected);
}

TEST(Transpose, EqualsThePlainTransposeForEverySize) {
    const int sizes[][2] = {{0, 0},  {1, 1},     {1, 300},   {300, 1},   {7, 9},     {8, 8},     {16, 8},    {17, 33},
                            {31, 4}, {100, 100}, {255, 255}, {256, 256}, {300, 276}, {258, 511}, {512, 256}, {640, 48}};
    for (const InstructionSet set : kSets) {
        const ip_volr::kernels::ScopedInstructionSet scoped(set);
        SCOPED_TRACE(ip_volr::kernels::instruction_set_name(scoped.in_force()));
        for (const auto& size : sizes) {
            check_transpose<std::uint16_t>(size[0], size[1], 0, 0, 0);
            check_transpose<std::uint16_t>(size[0], size[1], 5, 3, 1);
            check_transpose<std::uint32_t>(size[0], size[1], 0, 0, 0);
            check_transpose<std::uint32_t>(size[0], size[1], 5, 3, 1);
        }
    }

    // The forms without strides.
    short from[6] = {1, 2, 3, 4, 5, 6};
    short to[6] = {};
    transpose_matrix(from, to, 3, 2);
    EXPECT_TRUE(std::vector<short>(to, to + 6) == (std::vector<short>{1, 4, 2, 5, 3, 6}));
    int from_32[6] = {1, 2, 3, 4, 5, 6};
    int to_32[6] = {};
    transpose_matrix_32(from_32, to_32, 2, 3);
    EXPECT_TRUE(std::vector<int>(to_32, to_32 + 6) == (std::vector<int>{1, 3, 5, 2, 4, 6}));
}

TEST(Reduce, TakesTheSignedMaximumOfEveryBlock) {
    const std::int16_t known_a[2] = {-5, 7};
    const std::int16_t known_b[2] = {100, 3};
    std::mt19937 random(5);
    for (const InstructionSet set : kSets) {
        const ip_volr::kernels::ScopedInstructionSet scoped(set);
        const auto reduce = ip_volr::kernels::reduce_kernels().maximum_2x2;
        std::int16_t one = 0;
        reduce(known_a, known_b, &one, 1);
        EXPECT_EQ(one, 100);

        for (const int count : {0, 1, 7, 8, 9, 15, 16, 17, 33, 255}) {
            for (int misalignment = 0; misalignment < 2; misalignment++) {
                const std::size_t width = static_cast<std::size_t>(2 * count + misalignment);
                std::vector<std::int16_t> a(width);
                std::vector<std::int16_t> b(width);
                for (std::size_t i = 0; i < width; i++) {
                    const unsigned r = random();
                    a[i] = r % 7 == 0 ? std::int16_t{-32768} : static_cast<std::int16_t>(r);
                    b[i] = r % 5 == 0 ? std::int16_t{32767} : static_cast<std::int16_t>(r >> 16);
                }
                std::vector<std::int16_t> expected(static_cast<std::size_t>(count) + 1, 77);
                std::vector<std::int16_t> result = expected;
                for (int i = 0; i < count; i++) {
                    const std::size_t k = static_cast<std::size_t>(2 * i + misalignment);
                    expected[static_cast<std::size_t>(i)] = std::max({a[k], a[k + 1], b[k], b[k + 1]});
                }
                reduce(a.data() + misalignment, b.data() + misalignment, result.data(), count);
                EXPECT_TRUE(result == expected) << ip_volr::kernels::instruction_set_name(set) << ", " << count;
            }
        }
    }
}

}  // namespace
