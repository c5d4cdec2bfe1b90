#include "ip_volr/kernels/min_max.h"

#include "ip_volr/kernels/instruction_set.h"

#include <algorithm>
#include <limits>

namespace ip_volr::kernels {
namespace {

template <typename Value>
void reduce_rows(const std::uint16_t* const* rows, int num_rows, int width, bool accumulate, std::uint16_t* minimum,
                 std::uint16_t* maximum) {
    for (int x = 0; x < width; ++x) {
        Value low = accumulate ? static_cast<Value>(minimum[x]) : std::numeric_limits<Value>::max();
        Value high = accumulate ? static_cast<Value>(maximum[x]) : std::numeric_limits<Value>::min();
        for (int row = 0; row < num_rows; ++row) {
            low = std::min(low, static_cast<Value>(rows[row][x]));
            high = std::max(high, static_cast<Value>(rows[row][x]));
        }
        minimum[x] = static_cast<std::uint16_t>(low);
        maximum[x] = static_cast<std::uint16_t>(high);
    }
}

template <typename Value>
void reduce_columns(const std::uint16_t* minimum_a, const std::uint16_t* maximum_a, const std::uint16_t* minimum_b,
                    const std::uint16_t* maximum_b, int num_leaves, std::uint32_t* leaves) {
    for (int leaf = 0; leaf < num_leaves; ++leaf) {
        Value low = std::numeric_limits<Value>::max();
        Value high = std::numeric_limits<Value>::min();
        for (int x = 4 * leaf; x <= 4 * leaf + 4; ++x) {
            low = std::min({low, static_cast<Value>(minimum_a[x]), static_cast<Value>(minimum_b[x])});
            high = std::max({high, static_cast<Value>(maximum_a[x]), static_cast<Value>(maximum_b[x])});
        }
        leaves[leaf] = static_cast<std::uint16_t>(low) | static_cast<std::uint32_t>(static_cast<std::uint16_t>(high))
                                                             << 16;
    }
}

}  // namespace

void reduce_rows_signed(const std::uint16_t* const* rows, int num_rows, int width, bool accumulate,
                        std::uint16_t* minimum, std::uint16_t* maximum) {
    reduce_rows<std::int16_t>(rows, num_rows, width, accumulate, minimum, maximum);
}

void reduce_rows_unsigned(const std::uint16_t* const* rows, int num_rows, int width, bool accumulate,
                          std::uint16_t* minimum, std::uint16_t* maximum) {
    reduce_rows<std::uint16_t>(rows, num_rows, width, accumulate, minimum, maximum);
}

void add_min_max_scalar(MinMaxKernels& table) {
    table.of_signed = {reduce_rows_signed, reduce_columns<std::int16_t>};
    table.of_unsigned = {reduce_rows_unsigned, reduce_columns<std::uint16_t>};
}

const MinMaxKernels& min_max_kernels() {
    static const KernelFamily<MinMaxKernels> family(add_min_max_scalar, add_min_max_sse41, add_min_max_avx2);
    return family.in_force();
}

}  // namespace ip_volr::kernels
