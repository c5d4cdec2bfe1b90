// One brick's worth of everything that the ray caster needs, for tests and benchmarks: a small volume, tissues,
// transfer functions and rays, all from a seed.
#pragma once

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <random>
#include <vector>

#include "ip_volr/IP_VOLRC_ListRay.h"
#include "ip_volr/kernels/ray_cast.h"

namespace ray_cast_scene {

using namespace ip_volr::kernels;

enum class Voxels { Smooth, Noise, Lowest, Highest, Blob };
enum class Opacity { Ramp, Sparse, Full, None };
enum class Weights { Uniform, UniformAboveOne, Tables, SomeTables };

struct Options {
    std::array<int, 3> dims = {70, 67, 66};
    std::array<int, 3> origin = {32, 32, 32};
    Voxels voxels = Voxels::Smooth;
    Opacity opacity = Opacity::Ramp;
    Weights weights = Weights::Uniform;
    int bits = 16;
    bool is_signed = false;
    bool tissues = false;
    bool missing_slices = false;
    bool shading = true;
    bool fast_gradients = false;
    bool weight_decides_shading = false;
    std::array<double, 3> direction = {0.35, -0.48, 0.8};
    double step_vox = 0.3;
    double end_vox = 60.0;  // longest way of a ray
    int num_rays = 100;
    unsigned seed = 1;
};

class Scene {
public:
    explicit Scene(const Options& wanted) : options(wanted), m_Random(wanted.seed) {
        make_volume();
        make_tissues();
        make_tables();
        make_frame();
        make_entries();
        make_rays();
        full_cache.assign(1024, 0xffffffffu);
        true_cache = find_true_cache();
    }
    Scene(const Scene&) = delete;

    // A fresh copy of the rays, linked in order; null when there are none.
    static _listRay* link(std::vector<_listRay>& rays) {
        for (std::size_t i = 0; i < rays.size(); i++) {
            rays[i].next = i + 1 < rays.size() ? &rays[i + 1] : nullptr;
        }
        return rays.empty() ? nullptr : rays.data();
    }

    RayCastBrick brick(const std::vector<std::uint32_t>& cache) const {
        return {{options.origin[0], options.origin[1], options.origin[2]},
                cache.data(),
                options.tissues ? -1 : kNoTissue,
                false};
    }

    // Stored value at a voxel clamped to the volume.
    int value(int x, int y, int z) const {
        const std::uint16_t* const slice = slices[index(z, 2)];
        const std::uint16_t stored =
            slice == nullptr ? frame.missing_value : slice[index(y, 1) * size(0) + index(x, 0)];
        return options.is_signed ? static_cast<std::int16_t>(stored) : stored;
    }

    int tissue(int x, int y, int z) const {
        if (!options.tissues) {
            return kNoTissue;
        }
        const std::size_t i = index(y, 1) * size(0) + index(x, 0);
        return m_Tissues[index(z, 2)][i / 2] >> (4 * (i % 2)) & 15;
    }

    std::uint32_t colour(int tissue_index, int stored_value) const {
        const int entry = std::clamp(stored_value + frame.table_offset, 0, frame.table_last);
        return m_Colours[static_cast<std::size_t>(tissue_index) * kNumTableEntries + static_cast<std::size_t>(entry)];
    }

    std::vector<std::uint32_t>& colours() { return m_Colours; }

    // To be called after changes of colours or transparencies.
    void make_entries() {
        m_Entries.resize(m_Colours.size());
        ip_volr::kernels::make_entries(m_Colours.data(), frame.step_transparency, static_cast<int>(m_Colours.size()),
                                       m_Entries.data());
        frame.entries = m_Entries.data();
    }

    Options options;
    RayCastFrame frame{};
    std::vector<_listRay> rays;
    std::vector<std::uint32_t> full_cache, true_cache;
    std::vector<const std::uint16_t*> slices;

private:
    std::size_t size(int axis) const { return static_cast<std::size_t>(options.dims[static_cast<std::size_t>(axis)]); }
    std::size_t index(int i, int axis) const {
        return static_cast<std::size_t>(std::clamp(i, 0, static_cast<int>(size(axis)) - 1));
    }
    double uniform(double low, double high) { return std::uniform_real_distribution<double>(low, high)(m_Random); }

    double voxel(double x, double y, double z) {
        switch (options.voxels) {
            case Voxels::Smooth:
                return 0.5 + 0.2 * std::sin(0.31 * x + 0.2 * y) + 0.2 * std::cos(0.23 * y - 0.27 * z) +
                       0.05 * std::sin(0.7 * z + 0.4 * x);
            case Voxels::Noise:
                return uniform(0.0, 1.0);
            case Voxels::Highest:
                return 1.0;
            case Voxels::Blob:
                return std::max(0.0, 1.0 - std::hypot(x - 47.3, y - 49.1, z - 46.7) / 14.0);
            case Voxels::Lowest:
                break;
        }
        return 0.0;
    }

    void make_volume() {
        const double highest = (1 << options.bits) - 1;
        const double offset = options.is_signed ? 1 << (options.bits - 1) : 0;
        m_Volume.assign(size(2), std::vector<std::uint16_t>(size(0) * size(1)));
        for (std::size_t z = 0; z < size(2); z++) {
            for (std::size_t i = 0; i < m_Volume[z].size(); i++) {
                const double unit =
                    voxel(static_cast<double>(i % size(0)), static_cast<double>(i / size(0)), static_cast<double>(z));
                m_Volume[z][i] = static_cast<std::uint16_t>(static_cast<int>(std::lround(unit * highest - offset)));
            }
            const bool is_missing = options.missing_slices && z % 7 == 3;
            slices.push_back(is_missing ? nullptr : m_Volume[z].data());
        }
    }

    void make_tissues() {
        m_Tissues.assign(size(2), std::vector<std::uint8_t>(size(0) * size(1) / 2 + 1));
        for (std::vector<std::uint8_t>& slice : m_Tissues) {
            std::generate(slice.begin(), slice.end(), [this] { return static_cast<std::uint8_t>(m_Random()); });
            m_TissueSlices.push_back(slice.data());
        }
    }

    std::uint32_t table_opacity(std::size_t tissue_index, double unit) const {
        const double shifted = unit - 0.02 * static_cast<double>(tissue_index);
        switch (options.opacity) {
            case Opacity::Ramp:
                return static_cast<std::uint32_t>(std::clamp(300.0 * (shifted - 0.45), 0.0, 120.0));
            case Opacity::Sparse:
                return std::abs(shifted - 0.5) < 0.03 ? 200 : 0;
            case Opacity::Full:
                return 255;
            case Opacity::None:
                break;
        }
        return 0;
    }

    void make_tables() {
        const std::size_t count = std::size_t{1} << options.bits;
        m_Colours.assign(std::size_t{kNumTissues} * kNumTableEntries, 0);
        m_Weights.assign(std::size_t{kNumTissues} * kNumTableEntries, 0);
        m_NumOpaque.assign(std::size_t{kNumTissues} * kNumTableEntries, 0);
        for (std::size_t t = 0; t < kNumTissues; t++) {
            for (std::size_t i = 0; i < count; i++) {
                const double unit = static_cast<double>(i) / static_cast<double>(count - 1);
                const auto ramp = static_cast<std::uint32_t>(60 + 190 * unit);
                const std::size_t entry = t * kNumTableEntries + i;
                m_Colours[entry] = table_opacity(t, unit) << 24 | ramp << 16 | (255 - ramp / 2) << 8 |
                                   static_cast<std::uint32_t>(17 * t);
                m_NumOpaque[entry] = (i > 0 ? m_NumOpaque[entry - 1] : 0) + (m_Colours[entry] >> 24 != 0);
                m_Weights[entry] = std::uint64_t{60000 - 1000 * t} | std::uint64_t{ramp << 8} << 16 |
                                   std::uint64_t{20000 + 100 * ramp} << 32;
            }
        }
    }

    void make_frame() {
        for (int axis = 0; axis < 3; axis++) {
            const double along = options.direction[static_cast<std::size_t>(axis)];
            frame.dims[axis] = options.dims[static_cast<std::size_t>(axis)];
            frame.increment[axis] = static_cast<std::int32_t>(along * options.step_vox * 65536.0);
            frame.view[axis] = along;
        }
        const double light[3] = {0.6, 0.0, 0.8};
        std::copy_n(light, 3, frame.light);
        frame.slices = slices.data();
        frame.tissue_slices = m_TissueSlices.data();
        frame.is_signed = options.is_signed;
        frame.table_offset = options.is_signed ? 1 << (options.bits - 1) : 0;
        frame.missing_value = static_cast<std::uint16_t>(-frame.table_offset);
        frame.table_last = (1 << options.bits) - 1;
        frame.step = static_cast<std::int32_t>(options.step_vox * 65536.0);
        frame.colours = m_Colours.data();
        for (int k = 0; k < 256; k++) {
            frame.step_transparency[k] =
                static_cast<std::uint32_t>(65535.0 * std::pow(1.0 - k / 255.0, options.step_vox));
        }
        frame.transparency_threshold = 3276;
        frame.opacity_gradient_threshold = options.weight_decides_shading ? 900 : 8192;
        frame.shading = options.shading;
        frame.fast_gradients = options.fast_gradients;
        frame.weight_decides_shading = options.weight_decides_shading;
        const bool is_above_one = options.weights == Weights::UniformAboveOne;
        frame.uniform_weights[0] = 58981;
        frame.uniform_weights[1] = is_above_one ? 98304 : 39321;
        frame.uniform_weights[2] = is_above_one ? 72000 : 19661;
        for (std::size_t t = 0; t < kNumTissues; t++) {
            const bool has_table =
                options.weights == Weights::Tables || (options.weights == Weights::SomeTables && t % 3 == 0);
            frame.weight_tables[t] = has_table ? m_Weights.data() + t * kNumTableEntries : nullptr;
        }
    }

    // Rays that start anywhere in the brick with random ends, transparencies and colours.
    void make_rays() {
        for (int i = 0; i < options.num_rays; i++) {
            _listRay ray{};
            for (std::size_t axis = 0; axis < 3; axis++) {
                const double pos_vox = options.origin[axis] + uniform(0.0, 31.999);
                ray.position[axis] = static_cast<unsigned>(pos_vox * 65536.0);
            }
            ray.step_count = static_cast<int>(uniform(0.0, 20.0) * 65536.0);
            ray.end = ray.step_count + static_cast<int>(uniform(0.0, options.end_vox) * 65536.0);
            ray.transparency = static_cast<unsigned short>(i % 3 == 0 ? 65535 : uniform(3276.0, 65535.0));
            ray.colour[0] = static_cast<unsigned short>(i % 3 == 0 ? 0 : uniform(0.0, 32767.0));
            rays.push_back(ray);
        }
    }

    // Opaque entries of a table up to that of a value.
    int num_opaque(int tissue_index, int stored_value) const {
        const int entry = std::clamp(stored_value + frame.table_offset, 0, frame.table_last);
        return m_NumOpaque[static_cast<std::size_t>(tissue_index) * kNumTableEntries + static_cast<std::size_t>(entry)];
    }

    bool is_leaf_visible(int leaf_x, int leaf_y, int leaf_z) const {
        int low = 1 << 20, high = -(1 << 20);
        for (int i = 0; i < 125; i++) {
            const int v = value(options.origin[0] + 4 * leaf_x + i % 5, options.origin[1] + 4 * leaf_y + i / 5 % 5,
                                options.origin[2] + 4 * leaf_z + i / 25);
            low = std::min(low, v);
            high = std::max(high, v);
        }
        for (int t = options.tissues ? 0 : kNoTissue; t < kNumTissues; t++) {
            if (num_opaque(t, high) > num_opaque(t, low) || colour(t, low) >> 24 != 0) {
                return true;
            }
        }
        return false;
    }

    std::vector<std::uint32_t> find_true_cache() const {
        std::vector<std::uint32_t> cache(1024);
        for (int leaf = 0; leaf < 512; leaf++) {
            const int x = leaf % 8, y = leaf / 8 % 8, z = leaf / 64;
            if (is_leaf_visible(x, y, z)) {
                for (int row = 0; row < 16; row++) {
                    cache[static_cast<std::size_t>((4 * z + row / 4) * 32 + 4 * y + row % 4)] |= 15u << (4 * x);
                }
            }
        }
        return cache;
    }

    std::mt19937 m_Random;
    std::vector<std::vector<std::uint16_t>> m_Volume;
    std::vector<std::vector<std::uint8_t>> m_Tissues;
    std::vector<const std::uint8_t*> m_TissueSlices;
    std::vector<std::uint32_t> m_Colours;
    std::vector<std::uint64_t> m_Entries;
    std::vector<int> m_NumOpaque;
    std::vector<std::uint64_t> m_Weights;
};

}  // namespace ray_cast_scene
