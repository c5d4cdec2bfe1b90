#include "tests/fuzz/fuzz_volume.h"

#include "host/reference/settings.h"
#include "host/tasks.h"

#include <algorithm>
#include <string>

namespace fuzz {

namespace {

IP_Slice* make_slice(Input& input, int width, int height, const PixelDataAttributes& kind, unsigned seed) {
    const std::size_t count = static_cast<std::size_t>(width) * static_cast<std::size_t>(height);
    auto* const block = new MEM_PagerInfo;
    if (count > 0 && MEM_MemPager::GetHandleForMP()->Allocate(static_cast<unsigned>(count * 2), block, 0) == 0) {
        auto* const voxels = static_cast<unsigned short*>(block->Ptr());
        const unsigned pattern = input.Byte();
        for (std::size_t i = 0; i < count; i++) {
            seed = seed * 1664525U + 1013904223U;
            voxels[i] = static_cast<unsigned short>(pattern < 64    ? pattern * 1000
                                                    : pattern < 160 ? (seed >> 16) & ((1U << (pattern % 17)) - 1U)
                                                                    : i * pattern);
        }
        block->Unmap();
    }
    auto* const slice = new IP_ShortSlice(block, {width, height, kind.bits_stored, kind.is_signed}, 0);
    slice->SetOwnsData(true);
    return slice;
}

IP_Box make_box(Input& input, int x, int y, int z) {
    IP_Box box(x, y, z);
    const unsigned kind = input.Byte();
    if (kind < 128) {
        box = IP_Box(x, y, z, 0.5F + static_cast<float>(kind % 8) / 4, 0.75F, 0.5F + static_cast<float>(kind % 16) / 4);
        box.Translate(static_cast<float>(kind) - 60.0F, 3.0F, 0.5F);
    } else {
        float vecs[3][3];
        for (auto& vec : vecs) {
            for (float& component : vec) {
                component = input.Float();
            }
        }
        const float start[3] = {input.Float(), input.Float(), input.Float()};
        box.SetParams(vecs);
        box.SetStart(start);
    }
    return box;
}

}  // namespace

void RunCleanly(const std::function<void()>& work) {
    reference_host::SetNumberOfServers(2);
    const auto before = reference_host::GetPagerStatistics();
    work();
    reference_host::SetPagerFaults({});
    const auto after = reference_host::GetPagerStatistics();
    Require(after.blocks == before.blocks);
    Require(after.mappings == before.mappings);
}

std::shared_ptr<IP_VolData> MakeVolume(Input& input) {
    static unsigned next_series = 0;
    const unsigned series = next_series++;
    const bool is_large = input.Int(0, 7) == 0;
    const int most = is_large ? 70 : 12;
    const int x = input.Int(0, most);
    const int y = input.Int(0, most);
    const int z = input.Int(0, most);
    const PixelDataAttributes kind{x, y, input.Int(0, 17), input.Flag()};
    IP_Box box = make_box(input, x, y, z);
    auto volume = std::make_shared<IP_VolData>(&box, z);
    for (int i = 0; i < z; i++) {
        IP_Slice* const slice = make_slice(input, x, y, kind, series + static_cast<unsigned>(i));
        slice->SetID(("series " + std::to_string(series) + " slice " + std::to_string(i)).c_str());
        volume->SetSlice(slice, i);
    }
    if (input.Int(0, 7) == 7) {
        const double slope = static_cast<double>(input.Float());
        volume->SetRescaleTrans(slope, static_cast<double>(input.Float()));
        volume->SetFirstSliceInd(input.Int(-1, z));
        ChangeSlice(input, *volume);
    }
    return volume;
}

std::shared_ptr<IP_VolData> MakeTissues(Input& input, const IP_VolData& like) {
    IP_Box box = *like.GetBox();
    int dims[3];
    box.GetDims(dims);
    if (input.Int(0, 7) == 7) {
        dims[input.Int(0, 2)] = input.Int(0, 20);
        box = IP_Box(dims[0], dims[1], dims[2]);
    }
    auto volume = std::make_shared<IP_VolData>(&box, dims[2]);
    const std::size_t bytes = (static_cast<std::size_t>(dims[0]) * static_cast<std::size_t>(dims[1]) + 1) / 2;
    for (int i = 0; i < dims[2]; i++) {
        auto* const block = new MEM_PagerInfo;
        const auto size = static_cast<unsigned>(std::max<std::size_t>(1, bytes));
        if (MEM_MemPager::GetHandleForMP()->Allocate(size, block, 0) == 0) {
            std::memset(block->Ptr(), static_cast<int>(input.Byte()), bytes);
            block->Unmap();
        }
        auto* const slice = new IP_TisIndSlice(block, {dims[0], dims[1], 4, false}, 0);
        slice->SetOwnsData(true);
        volume->SetSlice(slice, i);
    }
    return volume;
}

void ChangeSlice(Input& input, IP_VolData& volume) {
    const int count = volume.GetNumberOfSlicePointers();
    if (count == 0) {
        return;
    }
    const int i = input.Int(0, 255) % count;
    IP_Slice* const old = volume.GetSlice(i);
    switch (input.Int(0, 3)) {
        case 0:
            delete old;
            volume.SetSlice(nullptr, i);
            break;
        case 1:
            if (old != nullptr) {
                old->SetData(nullptr, true);
            }
            break;
        default:
            const PixelDataAttributes kind = old != nullptr ? old->GetAttributes() : PixelDataAttributes{};
            const bool is_same_size = input.Int(0, 3) != 3;
            const int width = is_same_size ? kind.width : input.Int(0, 20);
            const int height = is_same_size ? kind.height : input.Int(0, 20);
            const unsigned seed = input.Byte();
            IP_Slice* const slice = make_slice(input, width, height, kind, seed);
            slice->SetID(old != nullptr ? old->GetID() : "");
            delete old;
            volume.SetSlice(slice, i);
            break;
    }
}

void MakeMatrix(Input& input, float m[4][4]) {
    const unsigned kind = input.Byte();
    const float angle = static_cast<float>(kind % 64) / 10.0F;
    const float turn[4][4] = {{std::cos(angle), 0.0F, std::sin(angle), 0.0F},
                              {0.0F, 1.0F, 0.0F, 0.0F},
                              {-std::sin(angle), 0.0F, std::cos(angle), 0.0F},
                              {0.0F, 0.0F, 0.0F, 1.0F}};
    for (int row = 0; row < 4; row++) {
        for (int column = 0; column < 4; column++) {
            m[row][column] = kind < 128                  ? turn[row][column]
                             : kind < 192 && row < 3     ? (row == column ? input.Float() : 0.0F)
                             : kind < 192 && column == 3 ? 1.0F
                                                         : input.Float();
        }
    }
}

void RunWithFault(Input& input, const std::function<void()>& work, Mappings expected) {
    const unsigned kind = input.Byte();
    const int k = kind < 200 ? 0 : input.Int(1, 255);
    reference_host::PagerFaults faults;
    (kind < 228 ? faults.refuse_allocation : faults.refuse_map) = k;
    reference_host::CancellationToken token;
    if (kind >= 242) {
        faults = {};
        token.CancelAtPoint(k);
    }
    reference_host::SetPagerFaults(faults);
    const auto mappings = reference_host::GetPagerStatistics().mappings;
    try {
        const reference_host::CancellationScope scope(token);
        work();
    } catch (const TCO_CANCEL_EXCEPTION&) {
    }
    reference_host::SetPagerFaults({});
    Require(expected == Mappings::MayStay || reference_host::GetPagerStatistics().mappings == mappings);
}

}  // namespace fuzz
