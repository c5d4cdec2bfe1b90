#include "bench/sample_count.h"

#include "bench/limits.h"
#include "scene/parallel.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <cmath>
#include <vector>

namespace volr_bench {

namespace {

constexpr int kBrick = 32;
constexpr int kStride = 4;  // of the rays and rows that are counted
constexpr double kEndTransparency = 0.05;
constexpr double kShadedAbove = 0.125;  // opacity per mm

// The voxels in one piece, and what their values look like.
class Field {
public:
    Field(scene::VolumeSource& source, const scene::TransferFunction& function) : m_Dims(source.Info().dims) {
        for (int v = -32768; v < 32768; ++v) {
            m_Opacity.push_back(static_cast<float>(scene::OpacityAt(function, source.Rescaled(v))));
        }
        for (int z = 0; z < m_Dims[2]; ++z) {
            auto* const slice = static_cast<IP_ShortSlice*>(source.Volume()->GetSlice(z));
            m_Mapped.push_back(slice);
            m_Slices.push_back(slice->MapMemory() == 0 ? slice->GetMappedSlice() : nullptr);
        }
        for (std::size_t i = 0; i < 3; ++i) {
            m_Bricks[i] = (m_Dims[i] + kBrick - 1) / kBrick;
        }
        m_Visible.resize(static_cast<std::size_t>(m_Bricks[0] * m_Bricks[1] * m_Bricks[2]));
        scene::ForEachIndex(static_cast<int>(m_Visible.size()), [this](int brick) { find_visible(brick); });
    }
    ~Field() {
        for (IP_ShortSlice* slice : m_Mapped) {
            slice->UnmapMemory();
        }
    }
    Field(const Field&) = delete;
    Field& operator=(const Field&) = delete;

    bool is_visible(const scene::Vec3& p) const {
        const int x = static_cast<int>(p.x) / kBrick, y = static_cast<int>(p.y) / kBrick,
                  z = static_cast<int>(p.z) / kBrick;
        return m_Visible[static_cast<std::size_t>((z * m_Bricks[1] + y) * m_Bricks[0] + x)] != 0;
    }
    bool contains(const scene::Vec3& p) const {
        return p.x >= 0 && p.y >= 0 && p.z >= 0 && p.x < m_Dims[0] - 1 && p.y < m_Dims[1] - 1 && p.z < m_Dims[2] - 1;
    }
    double opacity_per_mm(const scene::Vec3& p) const {
        const int x = static_cast<int>(p.x), y = static_cast<int>(p.y), z = static_cast<int>(p.z);
        const double fx = p.x - x, fy = p.y - y, fz = p.z - z;
        double value = 0.0;
        for (int corner = 0; corner < 8; ++corner) {
            const int dx = corner & 1, dy = corner >> 1 & 1, dz = corner >> 2;
            value += (dx != 0 ? fx : 1 - fx) * (dy != 0 ? fy : 1 - fy) * (dz != 0 ? fz : 1 - fz) *
                     at(x + dx, y + dy, z + dz);
        }
        return m_Opacity[static_cast<std::size_t>(std::lround(value) + 32768)];
    }

private:
    int at(int x, int y, int z) const {
        return m_Slices[static_cast<std::size_t>(z)][static_cast<long>(y) * m_Dims[0] + x];
    }

    // A brick shows something when a value between its least and greatest does; its samples reach one voxel further.
    void find_visible(int brick) {
        const int bx = brick % m_Bricks[0], by = brick / m_Bricks[0] % m_Bricks[1],
                  bz = brick / (m_Bricks[0] * m_Bricks[1]);
        int lowest = 32767;
        int highest = -32768;
        for (int z = bz * kBrick; z <= std::min((bz + 1) * kBrick, m_Dims[2] - 1); ++z) {
            for (int y = by * kBrick; y <= std::min((by + 1) * kBrick, m_Dims[1] - 1); ++y) {
                for (int x = bx * kBrick; x <= std::min((bx + 1) * kBrick, m_Dims[0] - 1); ++x) {
                    lowest = std::min(lowest, at(x, y, z));
                    highest = std::max(highest, at(x, y, z));
                }
            }
        }
        const auto first = m_Opacity.begin() + (lowest + 32768);
        const auto last = m_Opacity.begin() + (highest + 32769);
        m_Visible[static_cast<std::size_t>(brick)] = std::any_of(first, last, [](float a) { return a > 0.0F; }) ? 1 : 0;
    }

    std::array<int, 3> m_Dims;
    std::array<int, 3> m_Bricks{};
    std::vector<float> m_Opacity;  // of stored values
    std::vector<IP_ShortSlice*> m_Mapped;
    std::vector<const short*> m_Slices;
    std::vector<char> m_Visible;
};

}  // namespace

double SampleCount::seconds() const {
    const double plain = trilinear_samples_per_second(false);
    const double with_gradients = trilinear_samples_per_second(true);
    return (num_samples - num_shaded) / plain + num_shaded / with_gradients;
}

SampleCount count_samples(scene::VolumeSource& source, const scene::TransferFunction& function, bool shaded,
                          const scene::Camera& camera, double step_voxels) {
    const Field field(source, function);
    const scene::Vec3 origin = source.VoxelIndex({0, 0, 0});
    const scene::Vec3 into = source.VoxelIndex(camera.into) - origin;
    const scene::Vec3 step = into * (step_voxels / scene::Length(into));
    const double step_mm = step_voxels / scene::Length(into);
    const double reach = source.GetSubject().diameter_mm;
    const int num_steps = static_cast<int>(reach / step_mm);

    std::atomic<long long> samples{0};
    std::atomic<long long> shaded_samples{0};
    scene::ForEachIndex(camera.height / kStride, [&](int row) {
        long long own = 0;
        long long own_shaded = 0;
        for (int x = 0; x < camera.width; x += kStride) {
            const scene::Vec3 start_mm = camera.PositionOnPlane(x, row * kStride) - camera.into * (reach / 2);
            scene::Vec3 p = source.VoxelIndex(start_mm);
            double transparency = 1.0;
            for (int i = 0; i < num_steps && transparency >= kEndTransparency; ++i, p = p + step) {
                if (!field.contains(p) || !field.is_visible(p)) {
                    continue;
                }
                const double opacity = field.opacity_per_mm(p);
                own++;
                own_shaded += shaded && opacity > kShadedAbove ? 1 : 0;
                transparency *= opacity > 0.0 ? std::pow(1.0 - opacity, step_mm) : 1.0;
            }
        }
        samples += own;
        shaded_samples += own_shaded;
    });
    constexpr double kRaysForOne = kStride * kStride;
    return {static_cast<double>(samples) * kRaysForOne, static_cast<double>(shaded_samples) * kRaysForOne};
}

}  // namespace volr_bench
