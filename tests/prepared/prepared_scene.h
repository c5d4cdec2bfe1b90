// Source volumes with known voxels, brute-force models of prepared slices, and readers of what was prepared.
#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "host/masks.h"
#include "host/reference/settings.h"
#include "ip_volr/IP_VolDataMIP.h"
#include "ip_volr/IP_VolDataProj.h"
#include "tests/support/options.h"

// Scrambled but repeatable 16-bit value.
inline short scrambled(int x, int y, int z, int seed) {
    std::uint32_t h = static_cast<std::uint32_t>(x) * 73856093U ^ static_cast<std::uint32_t>(y) * 19349663U ^
                      static_cast<std::uint32_t>(z) * 83492791U ^ static_cast<std::uint32_t>(seed) * 2654435761U;
    h ^= h >> 15;
    h *= 2246822519U;
    return static_cast<short>(static_cast<int>((h >> 13) % 4096) - 1024);
}

// A volume of scrambled values; slice z has the text "series.<seed>.<z>". `without_memory` names a slice that has none.
struct SourceVolume {
    SourceVolume(int x, int y, int z, int seed_in, int without_memory = -1, int bits_in = 12)
        : size{x, y, z}, seed(seed_in), bits_stored(bits_in) {
        IP_Box box(x, y, z, 0.5F, 0.5F, 1.5F);
        volume = std::make_shared<IP_VolData>(&box, z);
        for (int i = 0; i < z; i++) {
            volume->SetSlice(make_slice(i, i != without_memory), i);
        }
    }

    IP_Slice* make_slice(int z, bool with_memory) const {
        PixelDataAttributes attributes;
        attributes.width = size[0];
        attributes.height = size[1];
        attributes.bits_stored = bits_stored;
        MEM_PagerInfo* block = nullptr;
        if (with_memory) {
            block = new MEM_PagerInfo;
            MEM_MemPager::GetHandleForMP()->Allocate(static_cast<unsigned>(size[0] * size[1]) * 2U, block, 0);
            short* to = static_cast<short*>(block->Ptr());
            for (int y = 0; y < size[1]; y++) {
                for (int x = 0; x < size[0]; x++) {
                    *to++ = scrambled(x, y, z, seed);
                }
            }
            block->Unmap();
        }
        auto* slice = new IP_ShortSlice(block, attributes, 0);
        slice->SetOwnsData(with_memory);
        slice->SetID(("series." + std::to_string(seed) + "." + std::to_string(z)).c_str());
        return slice;
    }

    std::vector<int> size;
    int seed;
    int bits_stored;
    std::shared_ptr<IP_VolData> volume;
};

using Pixels = std::vector<short>;

// Pixels of a prepared slice in the not-transposed orientation, whatever its own is.
inline Pixels prepared_pixels(IP_VolDataProj& data, int z) {
    const int x = data.GetChunkX();
    const int y = data.GetChunkY();
    auto* slice = static_cast<IP_ShortSlice*>(data.GetSlice(z));
    if (slice == nullptr || slice->MapMemory() != 0) {
        return {};
    }
    const short* from = slice->GetMappedSlice();
    Pixels result(static_cast<std::size_t>(x) * static_cast<std::size_t>(y));
    for (int iy = 0; iy < y; iy++) {
        for (int ix = 0; ix < x; ix++) {
            result[static_cast<std::size_t>(iy * x + ix)] =
                data.IsSliceTransposed(z) ? from[ix * y + iy] : from[iy * x + ix];
        }
    }
    slice->UnmapMemory();
    return result;
}

// What a slice must hold: the source (masked with the background, reduced by maxima), centred on background.
inline Pixels expected_pixels(const SourceVolume& source, const IP_VolDataProj& data, int z, short background,
                              const IP_ListVol* tissue = nullptr) {
    const auto voxel = [&](int x, int y) {
        return tissue != nullptr && tissue->GetPixel(x, y, z) != 0 ? background : scrambled(x, y, z, source.seed);
    };
    const int f = data.GetFactor();
    const int data_x = source.size[0] / f;
    const int data_y = source.size[1] / f;
    const int left = (data.GetChunkX() - data_x) / 2;
    const int top = (data.GetChunkY() - data_y) / 2;
    Pixels result(static_cast<std::size_t>(data.GetChunkX()) * static_cast<std::size_t>(data.GetChunkY()), background);
    for (int y = 0; y < data_y; y++) {
        for (int x = 0; x < data_x; x++) {
            short value = voxel(f * x, f * y);
            for (int k = 1; k < f * f; k++) {
                value = std::max(value, voxel(f * x + k % f, f * y + k / f));
            }
            result[static_cast<std::size_t>((top + y) * data.GetChunkX() + left + x)] = value;
        }
    }
    return result;
}

inline void expect_slices(IP_VolDataProj& data, const SourceVolume& source, short background,
                          const IP_ListVol* tissue = nullptr) {
    for (int z = 0; z < source.size[2]; z++) {
        ASSERT_EQ(prepared_pixels(data, z), expected_pixels(source, data, z, background, tissue)) << "slice " << z;
    }
}

// A tissue of runs scattered over a volume.
inline IP_RealListVol scattered_tissue(const IP_Box& box) {
    IP_RealListVol tissue(box);
    int dims[3];
    box.GetDims(dims);
    for (int z = 0; z < dims[2]; z++) {
        for (int y = z % 2; y < dims[1]; y += 3) {
            tissue.AddRun(y, z, (7 * y + z) % dims[0], (7 * y + z) % dims[0] + 9);
            tissue.AddRun(y, z, dims[0] - 2, dims[0]);
        }
    }
    return tissue;
}

// A map and a volume prepared with it, in the order in which they must die.
struct Prepared {
    SliceHashMap map;
    IP_VolDataMIP data;

    bool create(const SourceVolume& source, int factor, int pd_counter = 1, int tissue_counter = 1,
                const IP_ListVol* tissue = nullptr, bool new_tissue = false, bool transposed = false) {
        return data.Create(*source.volume, map, tissue, new_tissue, factor, transposed, pd_counter, tissue_counter,
                           factor == 1 ? 1 : 0, -32768);
    }
};

// The lowest value of the 12-bit sources.
constexpr short kBackground = -2048;

// Restores the settings of the host that tests change, and checks that nothing stays mapped or allocated.
class PreparedTest : public testing::Test {
protected:
    void SetUp() override {
        reference_host::SetNumberOfServers(std::max(test_options::servers(), 2));
        m_Before = reference_host::GetPagerStatistics();
    }
    void TearDown() override {
        reference_host::SetPagerFaults({});
        reference_host::SetNumberOfServers(0);
        const reference_host::PagerStatistics after = reference_host::GetPagerStatistics();
        EXPECT_EQ(after.mappings, m_Before.mappings);
        EXPECT_EQ(after.blocks, m_Before.blocks);
    }

private:
    reference_host::PagerStatistics m_Before;
};
