// Volumes, tables and a slow reference for the tests of the brick structure.
#pragma once

#include "host/images.h"
#include "host/reference/settings.h"
#include "ip_volr/IP_VOLRC_BrickStructure.h"

#include <gtest/gtest.h>

#include <functional>
#include <memory>
#include <random>
#include <vector>

namespace brick_tests {

using VoxelFunction = std::function<int(int x, int y, int z)>;

// A slice with its own pager block, unmapped.
template <class Slice, typename Pixel>
Slice* make_slice(int width, int height, int bits, bool is_signed, const std::vector<Pixel>& pixels) {
    auto* const info = new MEM_PagerInfo(MEM_MemPager::GetHandleForMP());
    const auto bytes = static_cast<unsigned>(pixels.size() * sizeof(Pixel));
    EXPECT_EQ(MEM_MemPager::GetHandleForMP()->Allocate(bytes, info, 0), 0);
    std::copy(pixels.begin(), pixels.end(), static_cast<Pixel*>(info->Ptr()));
    info->Unmap();
    auto* const slice = new Slice(info, PixelDataAttributes{width, height, bits, is_signed}, 0);
    slice->SetOwnsData(true);
    return slice;
}

inline IP_ShortSlice* make_short_slice(int width, int height, int z, int bits, bool is_signed,
                                       const VoxelFunction& value) {
    std::vector<short> pixels;
    for (int y = 0; y < height; ++y) {
        for (int x = 0; x < width; ++x) {
            pixels.push_back(static_cast<short>(value(x, y, z)));
        }
    }
    return make_slice<IP_ShortSlice>(width, height, bits, is_signed, pixels);
}

inline std::unique_ptr<IP_VolData> make_empty_volume(int nx, int ny, int nz) {
    IP_Box box(nx, ny, nz);
    return std::make_unique<IP_VolData>(&box, nz);
}

inline std::unique_ptr<IP_VolData> make_volume(int nx, int ny, int nz, int bits, bool is_signed,
                                               const VoxelFunction& value) {
    auto volume = make_empty_volume(nx, ny, nz);
    for (int z = 0; z < nz; ++z) {
        volume->SetSlice(make_short_slice(nx, ny, z, bits, is_signed, value), z);
    }
    return volume;
}

// Two voxels a byte, low nibble first.
inline std::unique_ptr<IP_VolData> make_tissue_volume(int nx, int ny, int nz, const VoxelFunction& tissue) {
    auto volume = make_empty_volume(nx, ny, nz);
    for (int z = 0; z < nz; ++z) {
        std::vector<unsigned char> bytes((static_cast<std::size_t>(nx) * ny + 1) / 2);
        for (int i = 0; i < nx * ny; ++i) {
            bytes[i / 2] |= static_cast<unsigned char>(tissue(i % nx, i / nx, z) << (4 * (i % 2)));
        }
        volume->SetSlice(make_slice<IP_TisIndSlice>(nx, ny, 4, false, bytes), z);
    }
    return volume;
}

// A hash of the coordinates: the same noise wherever it is asked for.
inline unsigned noise(int x, int y, int z) {
    unsigned h = 0x9E3779B9U * static_cast<unsigned>(x + 1) ^ 0x85EBCA6BU * static_cast<unsigned>(y + 1) ^
                 0xC2B2AE35U * static_cast<unsigned>(z + 1);
    h = (h ^ h >> 15) * 0x2C1B3C6DU;
    h = (h ^ h >> 12) * 0x297A2D39U;
    return h ^ h >> 15;
}

struct Tables {
    unsigned short luminosity[16][65536];
    int prefix[16][65536];
    unsigned int colours[16][65536];
};

// Checks that a test leaves the pager as it found it, and restores the host's settings.
class BrickTest : public testing::Test {
protected:
    void SetUp() override { m_Before = reference_host::GetPagerStatistics(); }
    void TearDown() override {
        reference_host::SetPagerFaults({});
        reference_host::SetNumberOfServers(0);
        const reference_host::PagerStatistics after = reference_host::GetPagerStatistics();
        EXPECT_EQ(after.blocks, m_Before.blocks);
        EXPECT_EQ(after.mappings, m_Before.mappings);
    }

    IP_VOLRC_BrickStructure make_structure(bool is_signed) const {
        return {m_Tables->luminosity, m_Tables->prefix, m_Tables->colours, is_signed};
    }

    std::unique_ptr<Tables> m_Tables = std::make_unique<Tables>();

private:
    reference_host::PagerStatistics m_Before;
};

inline void for_each_brick(const IP_VOLRC_BrickStructure& structure,
                           const std::function<void(IP_VOLRC_BrickData&, int, int, int)>& body) {
    int dims[3];
    structure.GetDims(dims);
    for (int z = 0; z < dims[2]; ++z) {
        for (int y = 0; y < dims[1]; ++y) {
            for (int x = 0; x < dims[0]; ++x) {
                body(*structure.GetBrick(x, y, z), x, y, z);
            }
        }
    }
}

// Calls body(brick, octant, leaf, voxel origin of the leaf) for every leaf.
inline void for_each_leaf(const IP_VOLRC_BrickStructure& structure,
                          const std::function<void(IP_VOLRC_BrickData&, int, int, const int (&)[3])>& body) {
    for_each_brick(structure, [&](IP_VOLRC_BrickData& brick, int bx, int by, int bz) {
        const int brick_index[3] = {bx, by, bz};
        for (int octant = 0; octant < 8; ++octant) {
            for (int leaf = 0; leaf < 64; ++leaf) {
                int origin[3];
                for (int axis = 0; axis < 3; ++axis) {
                    origin[axis] = 32 * brick_index[axis] + 16 * (octant >> axis & 1) + 4 * (leaf >> axis & 1) +
                                   8 * (leaf >> (axis + 3) & 1);
                }
                body(brick, octant, leaf, origin);
            }
        }
    });
}

// Holds every leaf to the extremes of its voxels (as numbers of the volume's kind), found one voxel at a time.
inline void expect_min_max(const IP_VOLRC_BrickStructure& structure, const int (&dims)[3], bool is_signed,
                           const VoxelFunction& value) {
    int num_wrong = 0;
    for_each_leaf(structure, [&](IP_VOLRC_BrickData& brick, int octant, int leaf, const int(&origin)[3]) {
        int low = is_signed ? 32767 : 65535;
        int high = is_signed ? -32768 : 0;
        for (int z = origin[2]; z <= std::min(origin[2] + 4, dims[2] - 1); ++z) {
            for (int y = origin[1]; y <= std::min(origin[1] + 4, dims[1] - 1); ++y) {
                for (int x = origin[0]; x <= std::min(origin[0] + 4, dims[0] - 1); ++x) {
                    low = std::min(low, value(x, y, z));
                    high = std::max(high, value(x, y, z));
                }
            }
        }
        const sMinMax pair = brick.GetOD(octant)->GetData()[leaf];
        const int min_found = is_signed ? static_cast<short>(pair.minimum) : pair.minimum;
        const int max_found = is_signed ? static_cast<short>(pair.maximum) : pair.maximum;
        if ((min_found != low || max_found != high) && num_wrong++ == 0) {
            ADD_FAILURE() << "leaf at " << origin[0] << "," << origin[1] << "," << origin[2] << ": found " << min_found
                          << ".." << max_found << ", expected " << low << ".." << high;
        }
    });
    EXPECT_EQ(num_wrong, 0);
}

}  // namespace brick_tests
