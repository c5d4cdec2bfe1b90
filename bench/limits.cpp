#include "bench/limits.h"

#include "bench/timing.h"
#include "host/tasks.h"
#include "ip_volr/kernels/brick_gather.h"
#include "ip_volr/kernels/instruction_set.h"
#include "ip_volr/kernels/mip_kernels.h"

#include <immintrin.h>

#include <cstdint>
#include <cstring>

namespace volr_bench {

namespace {

using namespace ip_volr::kernels;

constexpr int kStepsPerCall = 100;
constexpr int kCallsPerServer = 4000;

class SampleLoop {
public:
    explicit SampleLoop(bool with_gradients) : m_WithGradients(with_gradients) {}
    void run() {
        for (int i = 0; i < kCallsPerServer; ++i) {
            take_trilinear_samples(m_WithGradients);
        }
    }

private:
    const bool m_WithGradients;
};

__attribute__((target("avx2"))) inline __m256i interpolate_8(const std::uint32_t* pairs, __m256i x, __m256i y,
                                                             __m256i z) {
    const __m256i low_bits = _mm256_set1_epi32(0xffff);
    const __m256i yz = _mm256_or_si256(_mm256_srli_epi32(y, 16), _mm256_andnot_si256(low_bits, z));
    const __m256i index = _mm256_add_epi32(_mm256_madd_epi16(yz, _mm256_set1_epi32(kPairPlane << 16 | kPairRow)),
                                           _mm256_srli_epi32(x, 16));
    const __m256i f = _mm256_srli_epi32(_mm256_and_si256(y, low_bits), 2);
    const __m256i weight_y = _mm256_add_epi32(_mm256_slli_epi32(f, 16), _mm256_sub_epi32(_mm256_set1_epi32(16384), f));
    const __m256 unit = _mm256_set1_ps(1.0f / 65536.0f);
    const __m256 fx = _mm256_mul_ps(_mm256_cvtepi32_ps(_mm256_and_si256(x, low_bits)), unit);
    const __m256 fz = _mm256_mul_ps(_mm256_cvtepi32_ps(_mm256_and_si256(z, low_bits)), unit);
    alignas(32) std::uint32_t lanes[8];
    _mm256_store_si256(reinterpret_cast<__m256i*>(lanes), index);
    __m256 faces[2];
    for (int face = 0; face < 2; face++, pairs += kPairPlane) {
        __m128i two[4];
        for (int i = 0; i < 4; i++) {
            two[i] = _mm_unpacklo_epi64(_mm_loadl_epi64(reinterpret_cast<const __m128i*>(pairs + lanes[2 * i])),
                                        _mm_loadl_epi64(reinterpret_cast<const __m128i*>(pairs + lanes[2 * i + 1])));
        }
        const __m256 a = _mm256_castsi256_ps(_mm256_set_m128i(two[2], two[0]));
        const __m256 b = _mm256_castsi256_ps(_mm256_set_m128i(two[3], two[1]));
        const __m256i first = _mm256_madd_epi16(_mm256_castps_si256(_mm256_shuffle_ps(a, b, 0x88)), weight_y);
        const __m256i second = _mm256_madd_epi16(_mm256_castps_si256(_mm256_shuffle_ps(a, b, 0xdd)), weight_y);
        const __m256 v = _mm256_cvtepi32_ps(first);
        faces[face] = _mm256_add_ps(v, _mm256_mul_ps(fx, _mm256_sub_ps(_mm256_cvtepi32_ps(second), v)));
    }
    const __m256 value = _mm256_add_ps(faces[0], _mm256_mul_ps(fz, _mm256_sub_ps(faces[1], faces[0])));
    return _mm256_cvtps_epi32(_mm256_mul_ps(value, _mm256_set1_ps(1.0f / 16384.0f)));
}

}  // namespace

__attribute__((target("avx2"))) void take_trilinear_samples(bool with_gradients) {
    static const std::vector<std::uint32_t> pairs(kNumPairs, 0x12345678u);
    const std::uint32_t* const origin = pairs.data() + kPairOrigin;
    const __m256i step_x = _mm256_set1_epi32(2359), step_y = _mm256_set1_epi32(-3145),
                  step_z = _mm256_set1_epi32(19267), one = _mm256_set1_epi32(1 << 16);
    __m256i x = _mm256_setr_epi32(1 << 16, 2 << 16, 3 << 16, 4 << 16, 5 << 16, 6 << 16, 7 << 16, 8 << 16);
    __m256i y = _mm256_set1_epi32(20 << 16), z = one, sum = _mm256_setzero_si256();
    const auto add = [&](__m256i px, __m256i py, __m256i pz) __attribute__((target("avx2"))) {
        sum = _mm256_add_epi32(sum, interpolate_8(origin, px, py, pz));
    };
    for (int k = 0; k < kStepsPerCall; k++) {
        // Neighbours of late samples lie a voxel lower instead of higher: as much work, inside the brick.
        add(x, y, z);
        if (with_gradients) {
            add(_mm256_add_epi32(x, one), y, z);
            add(_mm256_sub_epi32(x, one), y, z);
            add(x, _mm256_add_epi32(y, one), z);
            add(x, _mm256_sub_epi32(y, one), z);
            add(x, y, _mm256_sub_epi32(z, one));
            add(x, y, k < kStepsPerCall - 10 ? _mm256_add_epi32(z, one) : z);
        }
        x = _mm256_add_epi32(x, step_x);
        y = _mm256_add_epi32(y, step_y);
        z = _mm256_add_epi32(z, step_z);
    }
    benchmark::DoNotOptimize(sum);
}

double trilinear_samples_per_second(bool with_gradients) {
    if (ip_volr::kernels::detected_instruction_set() != ip_volr::kernels::InstructionSet::Avx2) {
        return 0.0;
    }
    SampleLoop loop(with_gradients);
    TCO_CompoundRunnable<SampleLoop> runnable(&loop, &SampleLoop::run);
    const double seconds =
        seconds_of([&] { TCO_CompoundTaskManager::GetHandle()->ExecuteCompoundTask(&runnable, false, 0, false); });
    return 8.0 * kStepsPerCall * kCallsPerServer * TCO_CompoundTaskManager::GetNumberOfServers() / seconds;
}

Stream::Stream(IP_VolData& volume) {
    int dims[3];
    volume.GetBox()->GetDims(dims);
    m_Width = dims[0];
    m_Height = dims[1];
    for (int z = 0; z < dims[2]; z++) {
        auto* const slice = dynamic_cast<IP_ShortSlice*>(volume.GetSlice(z));
        if (slice != nullptr && slice->MapMemory() == 0) {
            m_Slices.push_back(slice);
        }
    }
    m_Pictures.resize(static_cast<std::size_t>(TCO_CompoundTaskManager::GetNumberOfServers()));
    for (auto& picture : m_Pictures) {
        picture.assign(static_cast<std::size_t>(stride()) * static_cast<std::size_t>(m_Height), -32768);
    }
}

Stream::~Stream() {
    for (IP_ShortSlice* slice : m_Slices) {
        slice->UnmapMemory();
    }
}

int Stream::stride() const {
    return m_Width + static_cast<int>(m_Slices.size()) / 2 + 16;
}

double Stream::read_seconds() {
    TCO_CompoundRunnable<Stream> runnable(this, &Stream::read_share);
    return seconds_of([&] { TCO_CompoundTaskManager::GetHandle()->ExecuteCompoundTask(&runnable, false, 0, false); });
}

double Stream::sheared_maximum_seconds() {
    TCO_CompoundRunnable<Stream> runnable(this, &Stream::maximum_share);
    return seconds_of([&] { TCO_CompoundTaskManager::GetHandle()->ExecuteCompoundTask(&runnable, false, 0, false); });
}

void Stream::read_share() {
    const TCO_RunnableSelf self;
    std::uint64_t sums[4] = {};
    const int last = self.EndRange(static_cast<int>(m_Slices.size()) - 1, 0);
    for (int z = self.StartRange(static_cast<int>(m_Slices.size()) - 1, 0); z <= last; z++) {
        const short* const pixels = m_Slices[static_cast<std::size_t>(z)]->GetMappedSlice();
        const std::ptrdiff_t num_pixels = static_cast<std::ptrdiff_t>(m_Width) * m_Height;
        for (std::ptrdiff_t i = 0; i + 16 <= num_pixels; i += 16) {
            std::uint64_t words[4];
            std::memcpy(words, pixels + i, sizeof(words));
            for (int k = 0; k < 4; k++) {
                sums[k] += words[k];
            }
        }
    }
    benchmark::DoNotOptimize(sums);
}

void Stream::maximum_share() {
    const TCO_RunnableSelf self;
    const auto& kernels = ip_volr::kernels::mip_kernels();
    short* const picture = m_Pictures[static_cast<std::size_t>(self.GetSubtaskIndex())].data();
    const int last = self.EndRange(static_cast<int>(m_Slices.size()) - 1, 0);
    for (int z = self.StartRange(static_cast<int>(m_Slices.size()) - 1, 0); z <= last; z++) {
        const short* const voxels = m_Slices[static_cast<std::size_t>(z)]->GetMappedSlice();
        for (int y = 0; y < m_Height; y++) {
            kernels.max_row(picture + static_cast<std::ptrdiff_t>(y) * stride() + z / 2,
                            voxels + static_cast<std::ptrdiff_t>(y) * m_Width, static_cast<std::size_t>(m_Width));
        }
    }
}

}  // namespace volr_bench
