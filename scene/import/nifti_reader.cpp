// NIfTI-1 and NIfTI-2 in one file, plain or gzip.
#include <nifti1.h>

#include <algorithm>
#include <cmath>
#include <memory>

#include "scene/import/byte_source.h"
#include "scene/import/grid_geometry.h"
#include "scene/import/label_values.h"
#include "scene/import/nifti_header.h"
#include "scene/import/readers.h"
#include "scene/import/sixteen_bits.h"

namespace scene::import {

namespace {

PixelType TypeOf(const NiftiHeader& header, const std::string& path) {
    switch (header.datatype) {
        case DT_UINT8:
            return PixelType::kUint8;
        case DT_INT8:
            return PixelType::kInt8;
        case DT_UINT16:
            return PixelType::kUint16;
        case DT_INT16:
            return PixelType::kInt16;
        case DT_UINT32:
            return PixelType::kUint32;
        case DT_INT32:
            return PixelType::kInt32;
        case DT_UINT64:
            return PixelType::kUint64;
        case DT_INT64:
            return PixelType::kInt64;
        case DT_FLOAT32:
            return PixelType::kFloat32;
        case DT_FLOAT64:
            return PixelType::kFloat64;
        case DT_RGB24:
        case DT_RGBA32:
            Refuse(path, "a colour image", "volumes must have one value for each voxel");
        default:
            Refuse(path, "pixels of type " + std::to_string(header.datatype) + " cannot be shown",
                   "convert them to integers or floats");
    }
}

// Sizes of one time point, and how many there are; all further axes count as time.
struct NiftiExtent {
    std::array<int, 3> dims{};
    std::int64_t num_volumes = 1;
    std::uint64_t num_voxels = 0, num_bytes = 0;  // of one time point
};

NiftiExtent ExtentOf(const NiftiHeader& header, PixelType type, const ByteSource& source, const std::string& path) {
    NiftiExtent extent;
    double bytes = static_cast<double>(BytesPerPixel(type));
    for (std::size_t axis = 0; axis < header.sizes.size(); ++axis) {
        const std::int64_t size = header.sizes[axis];
        if (size < 1 || size > (1 << 20)) {
            Refuse(path, "axis " + std::to_string(axis + 1) + " has " + std::to_string(size) + " voxels",
                   "the header is damaged");
        }
        bytes *= static_cast<double>(size);
        if (axis < 3) {
            extent.dims[axis] = static_cast<int>(size);
        } else {
            extent.num_volumes *= size;
        }
    }
    if (bytes + static_cast<double>(header.data_offset) > static_cast<double>(source.MostBytes())) {
        Refuse(path, "the file ends before its image does", "it is truncated; get it anew");
    }
    extent.num_voxels = std::uint64_t(extent.dims[0]) * extent.dims[1] * extent.dims[2];
    extent.num_bytes = extent.num_voxels * BytesPerPixel(type);
    return extent;
}

int ChooseTime(std::int64_t num_volumes, int wanted, const std::string& path, std::vector<std::string>& warnings) {
    if (wanted >= num_volumes) {
        Refuse(path, "no time point " + std::to_string(wanted),
               "it has " + std::to_string(num_volumes) + ", numbered from 0");
    }
    if (wanted < 0 && num_volumes > 1) {
        warnings.push_back("the first of " + std::to_string(num_volumes) + " time points is read");
    }
    return std::max(wanted, 0);
}

// Sform before qform, as the format advises; without either only the spacing is known.
Affine AffineOf(const NiftiHeader& header, std::vector<std::string>& warnings) {
    if (header.sform_code > 0 && (header.qform_code <= 0 || IsUsable(header.sform))) {
        return header.sform;
    }
    if (header.sform_code > 0) {
        warnings.push_back("the sform matrix is singular: the qform is used instead");
    }
    if (header.qform_code <= 0) {
        warnings.push_back(
            "the file does not say how the patient lies: x is taken for right, y for anterior, z for superior");
    }
    return header.qform;
}

void SwapPixels(char* pixels, std::size_t bytes_each, std::uint64_t num_pixels) {
    for (std::uint64_t i = 0; bytes_each > 1 && i < num_pixels; ++i) {
        std::reverse(pixels + i * bytes_each, pixels + (i + 1) * bytes_each);
    }
}

// Reads one time point into the result, by way of scratch memory when its pixels are wider.
SixteenBitCode ReadPixels(ImportContext& context, ByteSource& source, const NiftiHeader& header, PixelType type,
                          const NiftiExtent& extent, const std::string& path, ImportedVolume& volume) {
    volume.voxels = context.AllocateResult(extent.num_voxels);
    const bool is_wide = BytesPerPixel(type) > 2;
    std::unique_ptr<char[]> scratch(is_wide ? new char[extent.num_bytes] : nullptr);
    void* const pixels = is_wide ? static_cast<void*>(scratch.get()) : volume.voxels.data();
    source.Read(pixels, extent.num_bytes, [&](std::uint64_t done) {
        context.Progress(0.9 * static_cast<double>(done) / static_cast<double>(extent.num_bytes));
    });
    if (header.is_swapped) {
        SwapPixels(static_cast<char*>(pixels), BytesPerPixel(type), extent.num_voxels);
    }
    return ToSixteenBits(pixels, type, extent.num_voxels, volume.voxels.data(), path, volume.warnings);
}

// Applies scl_slope and scl_inter; a slope of 0 means none.
void ApplyScaling(const NiftiHeader& header, SixteenBitCode& code, const VoxelBuffer& voxels,
                  std::vector<std::string>& warnings) {
    if (header.slope == 0.0) {
        return;
    }
    if (!std::isfinite(header.slope) || !std::isfinite(header.intercept)) {
        warnings.push_back("the rescale factors are not finite: they are ignored");
        return;
    }
    code.slope *= header.slope;
    code.intercept = code.intercept * header.slope + header.intercept;
    MakeSlopePositive(code, voxels.data(), voxels.size());
}

}  // namespace

ImportedVolume ReadNifti(ImportContext& context, const std::string& path, Content content) {
    // Understand the header.
    ByteSource source(path);
    const NiftiHeader header = ReadNiftiHeader(source, path);
    const PixelType type = TypeOf(header, path);
    const NiftiExtent extent = ExtentOf(header, type, source, path);

    // Go to the time point, and check what lies behind it after it is read.
    ImportedVolume volume;
    volume.dims = extent.dims;
    volume.num_time_points = static_cast<int>(std::min<std::int64_t>(extent.num_volumes, 1 << 30));
    const int time = ChooseTime(extent.num_volumes, context.Options().time_index, path, volume.warnings);
    source.Skip(header.data_offset - header.num_bytes);
    source.Skip(extent.num_bytes * static_cast<std::uint64_t>(time));
    SixteenBitCode code = ReadPixels(context, source, header, type, extent, path, volume);
    source.Skip(extent.num_bytes * static_cast<std::uint64_t>(extent.num_volumes - 1 - time));
    if (const std::uint64_t num_left = source.VerifyRest(); num_left > 0) {
        volume.warnings.push_back("the file is " + std::to_string(num_left) +
                                  " bytes longer than its header says: the header may be damaged");
    }

    // Give values and places their meaning.
    ApplyScaling(header, code, volume.voxels, volume.warnings);
    SetCode(volume, code);
    SetGrid(volume, path, AffineOf(header, volume.warnings));
    if (content == Content::kLabels) {
        MakeLabels(volume, path);
    }
    context.Progress(1.0);
    return volume;
}

SeriesInfo DescribeNifti(const std::string& path) {
    ByteSource source(path);
    const NiftiHeader header = ReadNiftiHeader(source, path);
    const NiftiExtent extent = ExtentOf(header, TypeOf(header, path), source, path);
    SeriesInfo info;
    info.dims = extent.dims;
    info.note = extent.num_volumes > 1 ? std::to_string(extent.num_volumes) + " time points" : "";
    info.is_default = true;
    return info;
}

}  // namespace scene::import
