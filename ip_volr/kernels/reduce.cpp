#include "ip_volr/kernels/reduce.h"

namespace ip_volr::kernels {

namespace {

std::int16_t larger(std::int16_t a, std::int16_t b) {
    return a > b ? a : b;
}

void maximum_2x2(const std::int16_t* row_a, const std::int16_t* row_b, std::int16_t* destination, int count) {
    for (int i = 0; i < count; i++) {
        destination[i] = larger(larger(row_a[2 * i], row_a[2 * i + 1]), larger(row_b[2 * i], row_b[2 * i + 1]));
    }
}

void add_scalar(ReduceKernels& table) {
    table.maximum_2x2 = maximum_2x2;
}

}  // namespace

const ReduceKernels& reduce_kernels() {
#if defined(__x86_64__)
    static const KernelFamily<ReduceKernels> family(add_scalar, add_reduce_sse41, add_reduce_avx2);
#else
    static const KernelFamily<ReduceKernels> family(add_scalar, nullptr, nullptr);
#endif
    return family.in_force();
}

}  // namespace ip_volr::kernels
