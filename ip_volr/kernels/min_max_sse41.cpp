#include "ip_volr/kernels/lanes_sse41.h"
#include "ip_volr/kernels/min_max_lanes.h"

namespace ip_volr::kernels {

namespace {

// Eight values.
struct Sse41Values : Sse41Lanes {
    // Stores the low halves of four lanes of 64 bits. `lanes` gives those of the leaves that start at a value.
    template <class Leaves>
    static void store_low_halves(std::uint32_t* leaves, Leaves lanes) {
        const __m128 first = _mm_castsi128_ps(lanes(0));
        const __m128 second = _mm_castsi128_ps(lanes(8));
        store(leaves, _mm_castps_si128(_mm_shuffle_ps(first, second, _MM_SHUFFLE(2, 0, 2, 0))));
    }
};

}  // namespace

void add_min_max_sse41(MinMaxKernels& table) {
    using SignedRows = MinMaxLanes<SignedOrder<Sse41Values>>;
    using UnsignedRows = MinMaxLanes<UnsignedOrder<Sse41Values>>;
    table.of_signed = {SignedRows::reduce_rows, SignedRows::reduce_columns};
    table.of_unsigned = {UnsignedRows::reduce_rows, UnsignedRows::reduce_columns};
}

}  // namespace ip_volr::kernels
