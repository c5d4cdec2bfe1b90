#include "ip_volr/kernels/lanes_avx2.h"
#include "ip_volr/kernels/min_max_lanes.h"

namespace ip_volr::kernels {

namespace {

// Sixteen values.
struct Avx2Values : Avx2Lanes {
    // Stores the low halves of four lanes of 64 bits. `lanes` gives those of the leaves that start at a value.
    template <class Leaves>
    static void store_low_halves(std::uint32_t* leaves, Leaves lanes) {
        const Int packed = _mm256_permutevar8x32_epi32(lanes(0), _mm256_setr_epi32(0, 2, 4, 6, 0, 2, 4, 6));
        _mm_storeu_si128(reinterpret_cast<__m128i*>(leaves), _mm256_castsi256_si128(packed));
    }
};

}  // namespace

void add_min_max_avx2(MinMaxKernels& table) {
    using SignedRows = MinMaxLanes<SignedOrder<Avx2Values>>;
    using UnsignedRows = MinMaxLanes<UnsignedOrder<Avx2Values>>;
    table.of_signed = {SignedRows::reduce_rows, SignedRows::reduce_columns};
    table.of_unsigned = {UnsignedRows::reduce_rows, UnsignedRows::reduce_columns};
}

}  // namespace ip_volr::kernels
