// NRRD and MetaImage by way of ITK's readers, which deliver bytes in native order and a grid in LPS.
#include <itkMetaImageIO.h>
#include <itkNrrdImageIO.h>

#include <algorithm>
#include <cstring>
#include <memory>

#include "scene/import/byte_source.h"
#include "scene/import/data_location.h"
#include "scene/import/grid_geometry.h"
#include "scene/import/label_values.h"
#include "scene/import/nrrd_geometry.h"
#include "scene/import/readers.h"
#include "scene/import/sixteen_bits.h"

namespace scene::import {

namespace {

using Component = itk::IOComponentEnum;
using PixelKind = itk::IOPixelEnum;

PixelType TypeOf(const itk::ImageIOBase& io, const std::string& path) {
    switch (io.GetComponentType()) {
        case Component::UCHAR:
            return PixelType::kUint8;
        case Component::CHAR:
            return PixelType::kInt8;
        case Component::USHORT:
            return PixelType::kUint16;
        case Component::SHORT:
            return PixelType::kInt16;
        case Component::UINT:
            return PixelType::kUint32;
        case Component::INT:
            return PixelType::kInt32;
        case Component::ULONG:
        case Component::ULONGLONG:
            return PixelType::kUint64;
        case Component::LONG:
        case Component::LONGLONG:
            return PixelType::kInt64;
        case Component::FLOAT:
            return PixelType::kFloat32;
        case Component::DOUBLE:
            return PixelType::kFloat64;
        default:
            Refuse(path, "its pixels are of an unknown type", "convert them to integers or floats");
    }
}

// How the values of one volume lie in the file: channels fastest, then space, then time.
struct ItkExtent {
    std::array<int, 3> dims = {1, 1, 1};
    std::size_t num_channels = 1, num_times = 1;
    std::size_t NumVoxels() const { return std::size_t(dims[0]) * dims[1] * dims[2]; }
};

ItkExtent ExtentOf(const itk::ImageIOBase& io, const std::string& path) {
    ItkExtent extent;
    double num_values = 1.0;
    for (unsigned axis = 0; axis < io.GetNumberOfDimensions(); ++axis) {
        const auto size = io.GetDimensions(axis);
        num_values *= static_cast<double>(size);
        if (size < 1 || size > (1u << 20) || num_values > 1e12) {
            Refuse(path, "axis " + std::to_string(axis + 1) + " has " + std::to_string(size) + " voxels",
                   "the header is damaged");
        }
        if (axis < 3) {
            extent.dims[axis] = static_cast<int>(size);
        } else {
            extent.num_times *= size;
        }
    }
    extent.num_channels = io.GetNumberOfComponents();
    return extent;
}

void RefuseColour(const itk::ImageIOBase& io, SourceKind kind, const std::string& path) {
    const auto pixel = io.GetPixelType();
    const bool is_plain = pixel == PixelKind::SCALAR && io.GetNumberOfComponents() == 1;
    const bool is_list = kind == SourceKind::kNrrd && pixel == PixelKind::VECTOR;
    if (!is_plain && !is_list) {
        Refuse(path, "each voxel has " + std::to_string(io.GetNumberOfComponents()) + " values, as in a colour image",
               "volumes must have one value for each voxel");
    }
}

// Matrix of the first three axes; missing ones get a unit step of their own.
Affine AffineOf(const itk::ImageIOBase& io) {
    Affine affine{};
    const unsigned num_axes = std::min(io.GetNumberOfDimensions(), 3u);
    for (unsigned axis = 0; axis < num_axes; ++axis) {
        const std::vector<double> direction = io.GetDirection(axis);
        for (unsigned row = 0; row < std::min<std::size_t>(3, direction.size()); ++row) {
            affine[row * 4 + axis] = direction[row] * io.GetSpacing(axis);
        }
        affine[axis * 4 + 3] = io.GetOrigin(axis);
    }
    if (num_axes == 2) {
        const Vec3 normal = Cross(Column(affine, 0), Column(affine, 1));
        SetColumn(affine, 2, AddScaled({}, normal, 1.0 / std::max(Length(normal), 1e-12)));
    }
    return affine;
}

// The grid as the file means it.
Affine PlaceOf(const itk::ImageIOBase& io, const std::string& path, SourceKind kind,
               std::vector<std::string>& warnings) {
    if (kind != SourceKind::kNrrd) {
        return AffineOf(io);
    }
    const NrrdGeometry geometry = ReadNrrdGeometry(path);
    if (!geometry.is_patient_space || !geometry.index_to_patient) {
        warnings.push_back(
            "the file does not say how the patient lies: x is taken for left, y for posterior, z for "
            "superior");
    }
    const bool are_channels_axis = geometry.has_channels_first && io.GetNumberOfComponents() == 1;
    if (geometry.is_space_torn || are_channels_axis || io.GetNumberOfDimensions() > 4) {
        Refuse(path, "its axes come in an unusual order", "store space first and time last");
    }
    return geometry.index_to_patient.value_or(AffineOf(io));
}

// Index among all values of one voxel, channel before time.
std::size_t ChooseTime(const ItkExtent& extent, int wanted, const std::string& path, ImportedVolume& volume) {
    const std::size_t count = extent.num_channels * extent.num_times;
    volume.num_time_points = static_cast<int>(count);
    if (wanted >= static_cast<int>(count)) {
        Refuse(path, "no time point " + std::to_string(wanted),
               "it has " + std::to_string(count) + ", numbered from 0");
    }
    if (wanted < 0 && count > 1) {
        volume.warnings.push_back("the first of " + std::to_string(count) + " time points is read");
    }
    return static_cast<std::size_t>(std::max(wanted, 0));
}

// Moves the chosen time point to the front of the memory.
void PickTime(char* pixels, const ItkExtent& extent, std::size_t bytes_each, std::size_t chosen) {
    const std::size_t channel = chosen % extent.num_channels, time = chosen / extent.num_channels;
    const std::size_t step = extent.num_channels * bytes_each;
    const char* from = pixels + time * extent.NumVoxels() * step + channel * bytes_each;
    if (from == pixels && extent.num_channels == 1) {
        return;
    }
    for (std::size_t i = 0; i < extent.NumVoxels(); ++i) {
        std::memmove(pixels + i * bytes_each, from + i * step, bytes_each);
    }
}

SixteenBitCode ReadPixels(ImportContext& context, itk::ImageIOBase& io, const ItkExtent& extent,
                          const std::string& path, ImportedVolume& volume) {
    // Read the whole file.
    const PixelType type = TypeOf(io, path);
    const std::size_t bytes_each = BytesPerPixel(type);
    const std::size_t chosen = ChooseTime(extent, context.Options().time_index, path, volume);
    const std::size_t num_bytes = extent.NumVoxels() * extent.num_channels * extent.num_times * bytes_each;
    const std::unique_ptr<char[]> pixels(new char[num_bytes]);
    itk::ImageIORegion region(io.GetNumberOfDimensions());
    for (unsigned axis = 0; axis < io.GetNumberOfDimensions(); ++axis) {
        region.SetIndex(axis, 0);
        region.SetSize(axis, io.GetDimensions(axis));
    }
    io.SetIORegion(region);
    io.Read(pixels.get());
    context.Progress(0.7);

    // Keep what is wanted of it.
    PickTime(pixels.get(), extent, bytes_each, chosen);
    volume.voxels = context.AllocateResult(extent.NumVoxels());
    return ToSixteenBits(pixels.get(), type, extent.NumVoxels(), volume.voxels.data(), path, volume.warnings);
}

// Checks that all pixels are there and undamaged, as far as the reader would not notice.
void CheckData(const std::string& path, SourceKind kind, std::uint64_t num_bytes) {
    const DataLocation location = LocateData(path, kind);
    switch (location.form) {
        case DataForm::kChecked:
            return;
        case DataForm::kDeflated:
            VerifyDeflated(path, location.path, location.offset, num_bytes);
            return;
        case DataForm::kMissing:
            Refuse(path, "its data file is missing", "put it beside the header");
        case DataForm::kOther:
            Refuse(path, "its pixels are text or spread over several files", "convert it to one binary file");
        case DataForm::kStored:
            if (location.bytes_available < num_bytes) {
                Refuse(path, "the file ends before its image does", "it is truncated; get it anew");
            }
    }
}

itk::ImageIOBase::Pointer MakeIo(SourceKind kind) {
    if (kind == SourceKind::kNrrd) {
        return itk::NrrdImageIO::New().GetPointer();
    }
    return itk::MetaImageIO::New().GetPointer();
}

// A reader that has understood the header.
itk::ImageIOBase::Pointer OpenWithItk(const std::string& path, SourceKind kind) {
    itk::ImageIOBase::Pointer io = MakeIo(kind);
    io->SetFileName(path);
    if (!io->CanReadFile(path.c_str())) {
        Refuse(path, std::string("no valid ") + Name(kind) + " header", "the file is damaged or of another format");
    }
    io->ReadImageInformation();
    RefuseColour(*io, kind, path);
    return io;
}

// Its texts run over many lines and tell more about ITK than about the file.
[[noreturn]] void RefuseItkFile(const std::string& path, SourceKind kind) {
    Refuse(path, std::string("unreadable ") + Name(kind) + " file", "it is damaged, truncated or misses its data file");
}

ImportedVolume ReadItkVolume(ImportContext& context, const std::string& path, SourceKind kind) {
    // Understand the header.
    const itk::ImageIOBase::Pointer io = OpenWithItk(path, kind);
    const ItkExtent extent = ExtentOf(*io, path);
    context.Progress(0.05);

    // Read values and place them.
    const std::size_t num_values = extent.NumVoxels() * extent.num_channels * extent.num_times;
    CheckData(path, kind, num_values * BytesPerPixel(TypeOf(*io, path)));
    context.Progress(0.3);
    ImportedVolume volume;
    volume.dims = extent.dims;
    SixteenBitCode code = ReadPixels(context, *io, extent, path, volume);
    SetCode(volume, code);
    SetGrid(volume, path, PlaceOf(*io, path, kind, volume.warnings));
    return volume;
}

}  // namespace

ImportedVolume ReadWithItk(ImportContext& context, const std::string& path, SourceKind kind, Content content) {
    ImportedVolume volume;
    try {
        volume = ReadItkVolume(context, path, kind);
    } catch (const itk::ExceptionObject&) {
        RefuseItkFile(path, kind);
    }
    if (content == Content::kLabels) {
        MakeLabels(volume, path);
    }
    context.Progress(1.0);
    return volume;
}

SeriesInfo DescribeWithItk(const std::string& path, SourceKind kind) {
    try {
        const itk::ImageIOBase::Pointer io = OpenWithItk(path, kind);
        const ItkExtent extent = ExtentOf(*io, path);
        const std::size_t num_times = extent.num_channels * extent.num_times;
        SeriesInfo info;
        info.dims = extent.dims;
        info.note = num_times > 1 ? std::to_string(num_times) + " time points" : "";
        info.is_default = true;
        return info;
    } catch (const itk::ExceptionObject&) {
        RefuseItkFile(path, kind);
    }
}

}  // namespace scene::import
