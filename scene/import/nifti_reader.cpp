// NIfTI-1 and NIfTI-2 in one file, plain or gzip. The NIfTI library interprets the header; bytes come through
// ByteSource, which, unlike the library, notices damaged gzip data.
#include <nifti2_io.h>

#include <algorithm>
#include <bit>
#include <cstring>
#include <memory>
#include <optional>

#include "scene/import/byte_source.h"
#include "scene/import/grid_geometry.h"
#include "scene/import/label_values.h"
#include "scene/import/readers.h"
#include "scene/import/sixteen_bits.h"

namespace scene::import {

namespace {

struct FreeNifti {
    void operator()(nifti_image* image) const { nifti_image_free(image); }
};
using NiftiHeader = std::unique_ptr<nifti_image, FreeNifti>;

// The header and how many bytes of the file it took.
struct ReadHeader {
    NiftiHeader image;
    std::uint64_t num_bytes = 0;
};

[[noreturn]] void RefuseHeader(const std::string& path) {
    Refuse(path, "no valid NIfTI header", "the file is damaged or of another format");
}

template <typename Header>
Header ReadRest(ByteSource& source, const std::int32_t& first) {
    Header header;
    std::memcpy(&header, &first, sizeof first);
    source.Read(reinterpret_cast<char*>(&header) + sizeof first, sizeof header - sizeof first);
    return header;
}

ReadHeader ReadNiftiHeader(ByteSource& source, const std::string& path) {
    std::int32_t size = 0;
    source.Read(&size, sizeof size);
    std::int32_t native_size = size;
    if (size != 348 && size != 540) {
        nifti_swap_4bytes(1, &native_size);
    }
    ReadHeader result;
    if (native_size == 348) {
        const auto header = ReadRest<nifti_1_header>(source, size);
        if (std::memcmp(header.magic, "n+1", 4) != 0) {
            Refuse(path, "no single-file NIfTI header (an Analyze or two-file header has no position)",
                   "convert it to .nii");
        }
        result = {NiftiHeader(nifti_convert_n1hdr2nim(header, path.c_str())), sizeof header};
    } else if (native_size == 540) {
        const auto header = ReadRest<nifti_2_header>(source, size);
        result = {NiftiHeader(nifti_convert_n2hdr2nim(header, path.c_str())), sizeof header};
    }
    if (!result.image) {
        RefuseHeader(path);
    }
    return result;
}

PixelType TypeOf(const nifti_image& image, const std::string& path) {
    switch (image.datatype) {
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
            Refuse(path, std::string("pixels of type ") + nifti_datatype_string(image.datatype) + " cannot be shown",
                   "convert them to integers or floats");
    }
}

// Sizes of one time point, and how many there are; all further axes count as time.
struct NiftiExtent {
    std::array<int, 3> dims{};
    std::int64_t num_volumes = 1;
    std::uint64_t num_voxels = 0, num_bytes = 0;  // of one time point
};

NiftiExtent ExtentOf(const nifti_image& image, PixelType type, std::uint64_t header_bytes, const ByteSource& source,
                     const std::string& path) {
    NiftiExtent extent;
    double bytes = static_cast<double>(BytesPerPixel(type));
    for (int axis = 0; axis < 7; ++axis) {
        const std::int64_t size = axis < image.ndim ? image.dim[axis + 1] : 1;
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
    if (bytes + static_cast<double>(header_bytes) > static_cast<double>(source.MostBytes())) {
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

// The affine in LPS mm: sform before qform, as the format advises; without either only the spacing is known.
Affine AffineOf(const nifti_image& image, std::vector<std::string>& warnings) {
    // Turn RAS into LPS and the file's unit into mm.
    const auto to_lps = [&](const nifti_dmat44& ras) {
        const double to_mm = image.xyz_units == NIFTI_UNITS_METER    ? 1e3
                             : image.xyz_units == NIFTI_UNITS_MICRON ? 1e-3
                                                                     : 1.0;
        Affine lps{};
        for (int row = 0; row < 3; ++row) {
            for (int column = 0; column < 4; ++column) {
                lps[row * 4 + column] = ras.m[row][column] * (row < 2 ? -to_mm : to_mm);
            }
        }
        return lps;
    };

    const Affine sform = to_lps(image.sto_xyz), qform = to_lps(image.qto_xyz);
    if (image.sform_code > 0 && IsUsable(sform)) {
        return sform;
    }
    if (image.sform_code > 0 && image.qform_code > 0) {
        warnings.push_back("the sform matrix is singular: the qform is used instead");
    }
    if (image.sform_code > 0 && image.qform_code <= 0) {
        return sform;  // refused by whoever uses it
    }
    if (image.qform_code <= 0) {
        warnings.push_back(
            "the file does not say how the patient lies: x is taken for right, y for anterior, z for "
            "superior");
    }
    return qform;
}

void SwapToNative(const nifti_image& image, void* pixels, std::uint64_t num_voxels) {
    const bool is_native_little = std::endian::native == std::endian::little;
    const bool is_file_little = image.byteorder == 1;
    if (is_native_little != is_file_little && image.nbyper > 1) {
        nifti_swap_Nbytes(static_cast<std::int64_t>(num_voxels), image.nbyper, pixels);
    }
}

// Reads one time point into the result, by way of scratch memory when its pixels are wider.
SixteenBitCode ReadPixels(ImportContext& context, ByteSource& source, const nifti_image& image, PixelType type,
                          const NiftiExtent& extent, const std::string& path, ImportedVolume& volume) {
    volume.voxels = context.AllocateResult(extent.num_voxels);
    const bool is_wide = BytesPerPixel(type) > 2;
    std::unique_ptr<char[]> scratch(is_wide ? new char[extent.num_bytes] : nullptr);
    void* const pixels = is_wide ? static_cast<void*>(scratch.get()) : volume.voxels.data();
    source.Read(pixels, extent.num_bytes, [&](std::uint64_t done) {
        context.Progress(0.9 * static_cast<double>(done) / static_cast<double>(extent.num_bytes));
    });
    SwapToNative(image, pixels, extent.num_voxels);
    return ToSixteenBits(pixels, type, extent.num_voxels, volume.voxels.data(), path, volume.warnings);
}

// Applies scl_slope and scl_inter; a slope of 0 means none.
void ApplyScaling(const nifti_image& image, SixteenBitCode& code, const VoxelBuffer& voxels,
                  std::vector<std::string>& warnings) {
    if (image.scl_slope == 0.0 || (image.scl_slope == 1.0 && image.scl_inter == 0.0)) {
        return;
    }
    if (!std::isfinite(image.scl_slope) || !std::isfinite(image.scl_inter)) {
        warnings.push_back("the rescale factors are not finite: they are ignored");
        return;
    }
    code.slope *= image.scl_slope;
    code.intercept = code.intercept * image.scl_slope + image.scl_inter;
    MakeSlopePositive(code, voxels.data(), voxels.size());
}

}  // namespace

ImportedVolume ReadNifti(ImportContext& context, const std::string& path, Content content) {
    // Understand the header.
    ByteSource source(path);
    const ReadHeader header = ReadNiftiHeader(source, path);
    const nifti_image& image = *header.image;
    const PixelType type = TypeOf(image, path);
    const NiftiExtent extent = ExtentOf(image, type, header.num_bytes, source, path);

    // Go to the time point, and check what lies behind it after it is read.
    ImportedVolume volume;
    volume.dims = extent.dims;
    volume.num_time_points = static_cast<int>(std::min<std::int64_t>(extent.num_volumes, 1 << 30));
    const int time = ChooseTime(extent.num_volumes, context.Options().time_index, path, volume.warnings);
    const auto offset = static_cast<std::uint64_t>(std::max<std::int64_t>(image.iname_offset, 0));
    source.Skip(offset > header.num_bytes ? offset - header.num_bytes : 0);
    source.Skip(extent.num_bytes * static_cast<std::uint64_t>(time));
    SixteenBitCode code = ReadPixels(context, source, image, type, extent, path, volume);
    source.Skip(extent.num_bytes * static_cast<std::uint64_t>(extent.num_volumes - 1 - time));
    if (const std::uint64_t num_left = source.VerifyRest(); num_left > 0) {
        volume.warnings.push_back("the file is " + std::to_string(num_left) +
                                  " bytes longer than its header says: the header may be damaged");
    }

    // Give values and places their meaning.
    ApplyScaling(image, code, volume.voxels, volume.warnings);
    SetCode(volume, code);
    SetGrid(volume, path, AffineOf(image, volume.warnings));
    if (content == Content::kLabels) {
        MakeLabels(volume, path);
    }
    context.Progress(1.0);
    return volume;
}

}  // namespace scene::import
