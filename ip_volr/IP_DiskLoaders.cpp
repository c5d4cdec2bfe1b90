#include "ip_volr/IP_DiskLoaders.h"

#include "host/images.h"
#include "host/masks.h"
#include "ip_volr/IP_DiskFile.h"

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <memory>
#include <new>
#include <string>
#include <vector>

namespace {

using ip_volr::DiskFile;

struct Dims {
    int x = 0;
    int y = 0;
    int z = 0;

    std::size_t SliceVoxels() const { return static_cast<std::size_t>(x) * static_cast<std::size_t>(y); }
};

// All zero when an axis has no voxels.
Dims dims_of(const IP_Box& box) {
    int dims[3];
    box.GetDims(dims);
    return std::min({dims[0], dims[1], dims[2]}) < 1 ? Dims{} : Dims{dims[0], dims[1], dims[2]};
}

// A slice with a cleared pager block of its own, mapped; null when memory is refused.
template <class Slice>
std::unique_ptr<Slice> make_slice(std::size_t bytes, const PixelDataAttributes& attributes) {
    MEM_MemPager* const pager = MEM_MemPager::GetHandleForMP();
    auto info = std::make_unique<MEM_PagerInfo>(pager);
    auto slice = std::make_unique<Slice>(nullptr, attributes, 0);
    if (pager->Allocate64(bytes, info.get(), 0) != 0) {
        return nullptr;
    }
    std::memset(info->Ptr(), 0, bytes);
    slice->SetData(info.release(), true);
    return slice;
}

std::unique_ptr<IP_TisIndSlice> make_tissue_slice(const Dims& dims) {
    return make_slice<IP_TisIndSlice>((dims.SliceVoxels() + 1) / 2, PixelDataAttributes{dims.x, dims.y, 4, false});
}

// Hands a mapped slice over to the volume, unmapped.
template <class Slice>
void store_slice(std::unique_ptr<Slice> slice, int z, IP_VolData& volume) {
    slice->UnmapMemory();
    volume.SetSlice(slice.release(), z);
}

std::wstring image_path(const std::wstring& directory, long long number) {
    wchar_t name[40];
    std::swprintf(name, std::size(name), L"\\image%04lld", number);
    return directory + name;
}

// QUIRK(half-clamped-slices): a reader expects all negative values to become 0; only those in the first half of the
// slice do; kept: callers rely on it.
void clamp_first_half(short* pixels, std::size_t num_pixels) {
    std::replace_if(
        pixels, pixels + num_pixels / 2, [](short value) { return value < 0; }, short{0});
}

// One 16-bit slice of a series; null when there is no such file or memory is refused.
std::unique_ptr<IP_ShortSlice> read_numbered_slice(const wchar_t* directory, long long number, const Dims& dims) try {
    const DiskFile file = ip_volr::open_for_reading(image_path(directory, number));
    if (file == nullptr) {
        return nullptr;
    }
    auto slice = make_slice<IP_ShortSlice>(dims.SliceVoxels() * 2, PixelDataAttributes{dims.x, dims.y, 16, true});
    if (slice != nullptr) {
        ip_volr::read_bytes(file.get(), slice->GetMappedSlice(), dims.SliceVoxels() * 2);
        clamp_first_half(slice->GetMappedSlice(), dims.SliceVoxels());
    }
    return slice;
} catch (const std::bad_alloc&) {
    return nullptr;
}

// Cuts a box along z to the given number of slices of the given spacing.
void cut_depth(IP_Box& box, int num_slices, float spacing_mm) {
    int dims[3];
    box.GetDims(dims);
    dims[2] = num_slices;
    const float old_depth_mm = box.GetDepth();
    box.SetDims(dims);
    if (old_depth_mm > 0.0F) {
        float vecs_mm[3][3];
        box.GetVecs(vecs_mm);
        for (float& component : vecs_mm[2]) {
            component *= static_cast<float>(num_slices) * spacing_mm / old_depth_mm;
        }
        box.SetParams(vecs_mm);
    }
}

// Packs labels two to a byte.
void pack_labels(const std::vector<unsigned char>& labels, unsigned char* packed) {
    for (std::size_t i = 0; i < labels.size(); ++i) {
        packed[i / 2] |= static_cast<unsigned char>((labels[i] & 15U) << (4 * (i % 2)));
    }
}

// One slice of a mask as labels 0 and 1.
void read_mask_slice(const IP_RealBitVol& mask, const Dims& dims, int z, std::vector<unsigned char>& labels) {
    const unsigned* const words = mask.GetBits() + (static_cast<std::size_t>(z) + 1) * mask.GetSliceStride();
    for (std::size_t i = 0; i < labels.size(); ++i) {
        const std::size_t bit = i % dims.x + 1;
        const std::size_t row = i / dims.x + 1;
        labels[i] = static_cast<unsigned char>(words[row * mask.GetRowStride() + bit / 32] >> (bit % 32) & 1U);
    }
}

}  // namespace

void ReadDataFromDisk(IP_VolData** volume, const wchar_t* directory, int first_number) {
    if (volume == nullptr || *volume == nullptr || directory == nullptr) {
        return;
    }
    IP_Box& box = *(*volume)->GetBox();
    const Dims dims = dims_of(box);
    const float spacing_mm = box.GetZMmPerPixel();
    std::printf("slices loaded: 0000");

    int num_read = 0;
    for (; num_read < dims.z; ++num_read) {
        auto slice = read_numbered_slice(directory, first_number + 1LL * num_read, dims);
        if (slice == nullptr) {
            break;
        }
        store_slice(std::move(slice), num_read, **volume);
        std::printf("\b\b\b\b%04d", num_read + 1);
    }
    if (num_read < dims.z) {
        cut_depth(box, num_read, spacing_mm);
        std::printf("\n");
    }
    std::printf("\n");
}

bool ReadTissueFromDisk(IP_VolData** volume, const char* path) try {
    if (volume == nullptr || *volume == nullptr || path == nullptr) {
        return false;
    }
    const DiskFile file = ip_volr::open_for_reading(std::string(path));
    if (file == nullptr) {
        std::printf("Failed opening file %s\n", path);
        return false;
    }
    const Dims dims = dims_of(*(*volume)->GetBox());
    std::vector<unsigned char> labels(dims.SliceVoxels());
    for (int z = 0; z < dims.z; ++z) {
        auto slice = make_tissue_slice(dims);
        if (slice == nullptr) {
            return false;
        }
        std::fill(labels.begin(), labels.end(), static_cast<unsigned char>(0));
        ip_volr::read_bytes(file.get(), labels.data(), labels.size());
        pack_labels(labels, slice->GetMappedSlice());
        store_slice(std::move(slice), z, **volume);
    }
    return true;
} catch (const std::bad_alloc&) {
    return false;
}

bool ConvertRBVToTissue(IP_VolData** volume, IP_RealBitVol* mask) try {
    if (volume == nullptr) {
        return false;
    }
    *volume = nullptr;
    if (mask == nullptr) {
        return false;
    }
    IP_Box box(*mask->GetBox());
    const Dims dims = dims_of(box);
    auto tissues = std::make_unique<IP_VolData>(&box, dims.z);
    tissues->SetRescaleTrans(1.0, 0.0);
    std::vector<unsigned char> labels(dims.SliceVoxels());
    for (int z = 0; z < dims.z; ++z) {
        auto slice = make_tissue_slice(dims);
        if (slice == nullptr) {
            return false;
        }
        read_mask_slice(*mask, dims, z, labels);
        pack_labels(labels, slice->GetMappedSlice());
        store_slice(std::move(slice), z, *tissues);
    }
    *volume = tissues.release();
    return true;
} catch (const std::bad_alloc&) {
    return false;
}
