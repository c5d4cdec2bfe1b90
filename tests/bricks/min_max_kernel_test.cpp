// Every instruction set's minimum and maximum kernels, byte for byte against the scalar ones.
#include "ip_volr/kernels/instruction_set.h"
#include "ip_volr/kernels/min_max.h"

#include <gtest/gtest.h>

#include <random>
#include <vector>

namespace {

using namespace ip_volr::kernels;

constexpr std::uint16_t kGuard = 0xA5A5;

std::vector<std::uint16_t> fill(std::mt19937& random, int kind, std::size_t count) {
    std::vector<std::uint16_t> values(count);
    for (std::uint16_t& v : values) {
        v = kind == 0   ? static_cast<std::uint16_t>(random())
            : kind == 1 ? static_cast<std::uint16_t>(random() % 2 == 0 ? 0x7FFF : 0x8000)
                        : static_cast<std::uint16_t>(random() % 2 == 0 ? 0 : 0xFFFF);
    }
    return values;
}

class MinMaxKernel : public testing::TestWithParam<InstructionSet> {
protected:
    void SetUp() override {
        if (detected_instruction_set() < GetParam()) {
            GTEST_SKIP() << "no " << instruction_set_name(GetParam()) << " here";
        }
        const ScopedInstructionSet limit(GetParam());
        ASSERT_EQ(limit.in_force(), GetParam());
        m_Tested = min_max_kernels();
        add_min_max_scalar(m_Scalar);
        ASSERT_NE(m_Tested.of_signed.reduce_rows, m_Scalar.of_signed.reduce_rows);
    }

    MinMaxKernels m_Tested;
    MinMaxKernels m_Scalar;
};

TEST_P(MinMaxKernel, RowsEqualScalar) {
    std::mt19937 random(1);
    for (const int width : {0, 1, 7, 8, 9, 15, 16, 17, 31, 33, 64, 100, 511}) {
        for (const int num_rows : {0, 1, 5, 15}) {
            for (int variant = 0; variant < 12; ++variant) {
                const bool is_signed = variant % 2 == 0;
                const bool accumulate = variant / 2 % 2 == 0;
                const int kind = variant / 4;
                // Rows start at every alignment and end where their memory ends.
                std::vector<std::vector<std::uint16_t>> memory;
                std::vector<const std::uint16_t*> rows;
                for (int row = 0; row < num_rows; ++row) {
                    memory.push_back(fill(random, kind, width + row));
                    rows.push_back(memory.back().data() + row);
                }
                auto low = fill(random, kind, width + 1);
                auto high = fill(random, kind, width + 1);
                low[width] = high[width] = kGuard;
                auto low_expected = low;
                auto high_expected = high;
                const MinMaxRows& tested = is_signed ? m_Tested.of_signed : m_Tested.of_unsigned;
                const MinMaxRows& scalar = is_signed ? m_Scalar.of_signed : m_Scalar.of_unsigned;
                tested.reduce_rows(rows.data(), num_rows, width, accumulate, low.data(), high.data());
                scalar.reduce_rows(rows.data(), num_rows, width, accumulate, low_expected.data(), high_expected.data());
                ASSERT_EQ(low, low_expected) << "width " << width << " rows " << num_rows << " variant " << variant;
                ASSERT_EQ(high, high_expected) << "width " << width << " rows " << num_rows << " variant " << variant;
            }
        }
    }
}

TEST_P(MinMaxKernel, ColumnsEqualScalar) {
    std::mt19937 random(2);
    for (const int num_leaves : {0, 8, 16, 24, 128}) {
        for (int variant = 0; variant < 6; ++variant) {
            const auto in = fill(random, variant / 2, 4 * (4 * num_leaves + 8));
            const std::uint16_t* buffers[4];
            for (int k = 0; k < 4; ++k) {
                buffers[k] = in.data() + static_cast<std::ptrdiff_t>(k) * (4 * num_leaves + 8);
            }
            std::vector<std::uint32_t> leaves(num_leaves + 1, kGuard);
            auto expected = leaves;
            for (const MinMaxKernels* const kernels : {&m_Tested, &m_Scalar}) {
                const MinMaxRows& of_kind = variant % 2 == 0 ? kernels->of_signed : kernels->of_unsigned;
                of_kind.reduce_columns(buffers[0], buffers[1], buffers[2], buffers[3], num_leaves,
                                       (kernels == &m_Tested ? leaves : expected).data());
            }
            ASSERT_EQ(leaves, expected) << "leaves " << num_leaves << " variant " << variant;
        }
    }
}

INSTANTIATE_TEST_SUITE_P(InstructionSets, MinMaxKernel, testing::Values(InstructionSet::Sse41, InstructionSet::Avx2));

}  // namespace
