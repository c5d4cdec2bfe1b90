// Tissue index volumes against brute force over the host's masks.
#include "ip_volr/IP_VolTisInd.h"

#include <gtest/gtest.h>

#include <memory>
#include <random>
#include <string>
#include <utility>
#include <vector>

#include "host/masks.h"
#include "host/multi_volume.h"
#include "host/reference/settings.h"
#include "ip_volr/IP_MultiVolRTisIndInc.h"
#include "ip_volr/IP_VolRTissueList.h"
#include "ip_volr/kernels/nibbles.h"
#include "tests/host/log_recorder.h"
#include "tests/support/fault_sweep.h"

namespace {

// A source whose voxels do not matter: slices with texts.
std::shared_ptr<IP_VolData> source_volume(int x, int y, int z) {
    IP_Box box(x, y, z, 0.5F, 0.5F, 2.0F);
    auto volume = std::make_shared<IP_VolData>(&box, z);
    for (int i = 0; i < z; i++) {
        auto* slice = new IP_ShortSlice(nullptr, PixelDataAttributes{x, y, 12, true}, 0);
        slice->SetID(("t." + std::to_string(i)).c_str());
        volume->SetSlice(slice, i);
    }
    return volume;
}

enum class Storage { Lists, Bits, Rotated };

// A mask of random runs in a box of its own: `dims` voxels of the volume's size, the first one at voxel `offset`.
struct Tissue {
    Tissue(Storage storage_in, std::vector<int> dims, std::vector<int> offset_in, int color_index_in, bool negate_in,
           unsigned seed)
        : storage(storage_in), offset(offset_in), color_index(color_index_in), negate(negate_in) {
        IP_Box box(dims[0], dims[1], dims[2], 0.5F, 0.5F, 2.0F);
        box.Translate(0.5F * static_cast<float>(offset[0]), 0.5F * static_cast<float>(offset[1]),
                      2.0F * static_cast<float>(offset[2]));
        list = std::make_unique<IP_RealListVol>(box);
        bits = std::make_unique<IP_RealBitVol>(box);
        std::mt19937 random(seed);
        for (int z = 0; z < dims[2]; z++) {
            for (int y = 0; y < dims[1]; y++) {
                const int first = static_cast<int>(random() % static_cast<unsigned>(dims[0]));
                const int last = std::min(dims[0], first + static_cast<int>(random() % 12U));
                list->AddRun(y, z, first, last);
                for (int x = first; x < last; x++) {
                    bits->SetPixel(x, y, z, true);
                }
            }
        }
        lists.AddRealListVol(list.get());
        bit_volumes.AddRealBitVol(bits.get());
    }

    bool covers(int x, int y, int z) const {
        return (list->GetPixel(x - offset[0], y - offset[1], z - offset[2]) != 0) != negate;
    }

    void enter(IP_VolRTissueList& tissues, unsigned i) {
        if (storage == Storage::Lists) {
            tissues.SetTissue(i, &lists);
        } else if (storage == Storage::Bits) {
            tissues.SetRbvList(i, &bit_volumes);
        } else {
            tissues.SetRotatedRbv(i, new IP_RealBitVol(*bits));
        }
        tissues.SetColorTableIndex(i, color_index);
        tissues.SetShouldNegate(i, negate);
    }

    Storage storage;
    std::vector<int> offset;
    int color_index;
    bool negate;
    std::unique_ptr<IP_RealListVol> list;
    std::unique_ptr<IP_RealBitVol> bits;
    IP_MultiRealListVol lists;
    IP_MultiRealBitVol bit_volumes;
};

// The index of a voxel: the first tissue of the list that can be seen there.
int expected_index(const std::vector<Tissue>& tissues, int x, int y, int z) {
    for (const Tissue& tissue : tissues) {
        if (tissue.color_index >= 0 && tissue.covers(x, y, z)) {
            return tissue.color_index;
        }
    }
    return 15;
}

void expect_indices(IP_VolTisInd& data, const std::vector<Tissue>& tissues, const std::vector<int>& size) {
    const int width = data.GetChunkX();
    for (int z = 0; z < size[2]; z++) {
        auto* slice = static_cast<IP_TisIndSlice*>(data.GetSlice(z));
        ASSERT_EQ(slice->MapMemory(), 0);
        const unsigned char* from = slice->GetMappedSlice();
        for (int y = 0; y < data.GetChunkY(); y++) {
            for (int x = 0; x < width; x++) {
                const int byte = from[(y * width + x) / 2];
                const bool inside = x < size[0] && y < size[1];
                ASSERT_EQ(x % 2 == 0 ? byte & 15 : byte >> 4, inside ? expected_index(tissues, x, y, z) : 15)
                    << x << ", " << y << ", " << z;
            }
        }
        slice->UnmapMemory();
    }
}

std::vector<Tissue> mixed_tissues(const std::vector<int>& size) {
    std::vector<Tissue> tissues;
    tissues.emplace_back(Storage::Lists, size, std::vector<int>{0, 0, 0}, 3, false, 1);
    tissues.emplace_back(Storage::Bits, size, std::vector<int>{0, 0, 0}, 0, false, 2);
    tissues.emplace_back(Storage::Lists, size, std::vector<int>{0, 0, 0}, -1, true, 3);
    tissues.emplace_back(Storage::Rotated, std::vector<int>{11, 9, 2}, std::vector<int>{5, 7, 1}, 14, false, 4);
    tissues.emplace_back(Storage::Lists, std::vector<int>{60, 50, 8}, std::vector<int>{-9, -6, -2}, 7, false, 5);
    tissues.emplace_back(Storage::Bits, std::vector<int>{10, 10, 3}, std::vector<int>{30, 20, 2}, 8, false, 6);
    return tissues;
}

IP_VolRTissueList list_of(std::vector<Tissue>& tissues) {
    IP_VolRTissueList result;
    result.SetNumbTissues(static_cast<unsigned>(tissues.size()));
    for (unsigned i = 0; i < tissues.size(); i++) {
        tissues[i].enter(result, i);
    }
    return result;
}

TEST(TissueIndex, TheFirstTissueOfTheListCountsHoweverItIsStored) {
    for (const std::vector<int>& size : {std::vector<int>{37, 29, 5}, std::vector<int>{64, 32, 1}}) {
        std::vector<Tissue> tissues = mixed_tissues(size);
        IP_VolRTissueList list = list_of(tissues);
        const auto source = source_volume(size[0], size[1], size[2]);
        for (const auto set : {ip_volr::kernels::InstructionSet::Scalar, ip_volr::kernels::InstructionSet::Avx2}) {
            const ip_volr::kernels::ScopedInstructionSet scoped(set);
            SliceHashMap map;
            IP_VolTisInd data;
            ASSERT_TRUE(data.Create(*source, map, false, 1, 1, 0, false, list, 0));
            expect_indices(data, tissues, size);
            EXPECT_EQ(list.GetEqualSize(0), true);
            EXPECT_EQ(list.GetEqualSize(3), false);
            int offset[3];
            list.GetTissueOffset(4, offset[0], offset[1], offset[2]);
            EXPECT_EQ(std::vector<int>(offset, offset + 3), tissues[4].offset);

            // Voxel (0, 0) of slice 0 lies where the source's does.
            float index_start[3];
            float source_start[3];
            data.GetBox()->GetStart(index_start);
            source->GetBox()->GetStart(source_start);
            for (int i = 0; i < 3; i++) {
                EXPECT_NEAR(index_start[i], source_start[i], 1e-5);
            }
            data.Transpose(0, size[2]);
            expect_indices(data, tissues, size);
            const IP_VolTisInd copy(data);
            EXPECT_TRUE(copy.GetChunks().empty());
        }
    }
}

// The mask of the host is the same after as before, also for masks of another size.
TEST(TissueIndex, NegatedTissuesCoverTheComplementOfTheMask) {
    const std::vector<int> size = {37, 29, 4};
    const auto source = source_volume(size[0], size[1], size[2]);
    for (const Storage storage : {Storage::Lists, Storage::Bits, Storage::Rotated}) {
        for (const bool smaller : {false, true}) {
            std::vector<Tissue> tissues;
            tissues.emplace_back(storage, smaller ? std::vector<int>{20, 10, 2} : size,
                                 smaller ? std::vector<int>{3, 4, 1} : std::vector<int>{0, 0, 0}, 6, true, 9);
            IP_VolRTissueList list = list_of(tissues);
            for (int round = 0; round < 2; round++) {
                SliceHashMap map;
                IP_VolTisInd data;
                ASSERT_TRUE(data.Create(*source, map, false, 1, 1, 0, true, list, 0));
                expect_indices(data, tissues, size);
            }
        }
    }
}

TEST(TissueIndex, RebuildsFollowTheTissuesAndReuseTheBlocks) {
    const std::vector<int> size = {37, 29, 5};
    IP_MultiVolData source;
    source.AddVolData(source_volume(10, 10, 2));
    source.AddVolData(source_volume(size[0], size[1], size[2]));
    std::vector<Tissue> tissues = mixed_tissues(size);
    IP_VolRTissueList list = list_of(tissues);
    IP_VolRTissueList nothing;
    const std::vector<Tissue> none;
    const std::int64_t blocks = reference_host::GetPagerStatistics().blocks;
    {
        IP_MultiVolRTisIndInc data;
        std::int64_t after_first = 0;
        for (int counter = 1; counter < 4; counter++) {
            ASSERT_TRUE(data.Rebuild(&source, 1, counter, 0, true, counter == 2 ? nothing : list));
            ASSERT_EQ(data.GetNVolData(), 1);
            auto& indices = *dynamic_cast<IP_VolTisInd*>(data.GetVolData(0));
            expect_indices(indices, counter == 2 ? none : std::as_const(tissues), size);
            after_first = counter == 1 ? reference_host::GetPagerStatistics().blocks : after_first;
            EXPECT_EQ(reference_host::GetPagerStatistics().blocks, after_first);
        }
        IP_MultiVolData empty;
        EXPECT_TRUE(data.Rebuild(&empty, 1, 4, 0, true, list));
        EXPECT_EQ(data.GetNVolData(), 0);
    }
    EXPECT_EQ(reference_host::GetPagerStatistics().blocks, blocks);
}

TEST(TissueIndex, FaultsLeaveNothingBehindAndTheNextRebuildIsRight) {
    const std::vector<int> size = {20, 20, 40};
    IP_MultiVolData source;
    source.AddVolData(source_volume(size[0], size[1], size[2]));
    std::vector<Tissue> tissues;
    tissues.emplace_back(Storage::Lists, size, std::vector<int>{0, 0, 0}, 3, true, 1);
    IP_VolRTissueList list = list_of(tissues);
    FaultSweep sweep;
    sweep.run([&](FaultPoint& point) {
        IP_MultiVolRTisIndInc data;
        const LogRecorder log(3);
        bool done = false;
        const bool ended = point.run([&] { done = data.Rebuild(&source, 1, 1, 0, true, list); });
        EXPECT_TRUE(done || point.came());
        EXPECT_EQ(log.Count("Failed in IP_VolTisInd creation\n"), ended && !done ? 1 : 0);
        EXPECT_EQ(data.GetNVolData(), done ? 1 : 0);
        if (done) {
            expect_indices(*dynamic_cast<IP_VolTisInd*>(data.GetVolData(0)), tissues, size);
        }
        ASSERT_TRUE(data.Rebuild(&source, 1, 2, 0, true, list));
        expect_indices(*dynamic_cast<IP_VolTisInd*>(data.GetVolData(0)), tissues, size);
    });
}

TEST(Nibbles, PackAlikeOnEveryInstructionSet) {
    std::mt19937 random(3);
    for (const int count : {0, 1, 15, 16, 17, 31, 32, 33, 100}) {
        std::vector<std::uint8_t> values(static_cast<std::size_t>(2 * count) + 1);
        for (std::uint8_t& value : values) {
            value = static_cast<std::uint8_t>(random() % 16);
        }
        std::vector<std::uint8_t> expected(static_cast<std::size_t>(count) + 1, 0xA5);
        for (int k = 0; k < count; k++) {
            expected[static_cast<std::size_t>(k)] = static_cast<std::uint8_t>(
                values[static_cast<std::size_t>(2 * k + 1)] | values[static_cast<std::size_t>(2 * k + 2)] << 4);
        }
        for (int set = 0; set < ip_volr::kernels::kNumInstructionSets; set++) {
            const ip_volr::kernels::ScopedInstructionSet scoped(static_cast<ip_volr::kernels::InstructionSet>(set));
            std::vector<std::uint8_t> packed(expected.size(), 0xA5);
            ip_volr::kernels::nibble_kernels().pack(values.data() + 1, packed.data(), count);
            EXPECT_EQ(packed, expected) << "level " << set << ", count " << count;
        }
    }
}

}  // namespace
