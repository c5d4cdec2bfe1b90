#include "scene/volume_output.h"

#include "scene/error.h"
#include "scene/output_file.h"

#include <itkMetaImageIO.h>
#include <itkNiftiImageIO.h>
#include <itkNrrdImageIO.h>

#include <filesystem>

namespace scene {

namespace {

bool EndsWith(const std::string& text, const std::string& end) {
    return text.size() > end.size() && text.compare(text.size() - end.size(), end.size(), end) == 0;
}

itk::ImageIOBase::Pointer MakeWriter(const std::string& path) {
    if (EndsWith(path, ".nii") || EndsWith(path, ".nii.gz")) {
        return itk::NiftiImageIO::New().GetPointer();
    }
    if (EndsWith(path, ".nrrd")) {
        return itk::NrrdImageIO::New().GetPointer();
    }
    if (EndsWith(path, ".mha") || EndsWith(path, ".mhd")) {
        return itk::MetaImageIO::New().GetPointer();
    }
    throw Error(ErrorKind::kInput, path, "is not a volume format that can be written",
                "end the name in .nii.gz, .nii, .nrrd, .mha or .mhd");
}

void WriteWith(itk::ImageIOBase& writer, const std::string& path, const VolumeLayout& layout,
               itk::IOComponentEnum component, const void* voxels) {
    writer.SetFileName(path);
    writer.SetNumberOfDimensions(3);
    const std::array<double, 3> spacing = ToArray(layout.spacing_mm);
    const std::array<double, 3> origin = ToArray(layout.origin_mm);
    for (unsigned axis = 0; axis < 3; ++axis) {
        writer.SetDimensions(axis, static_cast<itk::SizeValueType>(layout.size[axis]));
        writer.SetSpacing(axis, spacing[axis]);
        writer.SetOrigin(axis, origin[axis]);
        std::vector<double> direction(3, 0.0);
        direction[axis] = 1.0;
        writer.SetDirection(axis, direction);
    }
    itk::ImageIORegion all(3);
    for (unsigned axis = 0; axis < 3; ++axis) {
        all.SetSize(axis, static_cast<itk::SizeValueType>(layout.size[axis]));
    }
    writer.SetIORegion(all);
    writer.SetPixelType(itk::IOPixelEnum::SCALAR);
    writer.SetComponentType(component);
    writer.SetNumberOfComponents(1);
    writer.SetUseCompression(EndsWith(path, ".nii.gz"));
    try {
        writer.Write(voxels);
    } catch (const itk::ExceptionObject& e) {
        throw Error(ErrorKind::kFailed, path, std::string("cannot be written: ") + e.GetDescription(),
                    "check the folder and free space");
    }
}

// A header that names its data: both are written in a folder of their own beside the place, so that the header holds
// the final name of the data, and moved in turn, data first.
void WriteDetached(const std::string& path, const VolumeLayout& layout, itk::IOComponentEnum component,
                   const void* voxels) {
    namespace fs = std::filesystem;
    const OutputFile probe(path);
    const fs::path folder = probe.TemporaryPath() + ".d";
    fs::create_directory(folder);
    struct Cleaner {
        fs::path folder;
        ~Cleaner() {
            std::error_code ignored;
            fs::remove_all(folder, ignored);
        }
    } const cleaner{folder};
    const fs::path header = folder / fs::path(path).filename();
    WriteWith(*MakeWriter(path), header.string(), layout, component, voxels);
    const fs::path data = fs::path(header).replace_extension(".raw");
    std::error_code error;
    fs::rename(data, fs::path(path).replace_extension(".raw"), error);
    if (!error) {
        fs::rename(header, path, error);
    }
    if (error) {
        throw Error(ErrorKind::kFailed, path, "cannot be written: " + error.message(),
                    "check the folder and free space");
    }
}

void WriteAny(const std::string& path, const VolumeLayout& layout, itk::IOComponentEnum component, const void* voxels) {
    const itk::ImageIOBase::Pointer writer = MakeWriter(path);
    if (EndsWith(path, ".mhd")) {
        WriteDetached(path, layout, component, voxels);
        return;
    }
    OutputFile file(path);
    WriteWith(*writer, file.TemporaryPath(), layout, component, voxels);
    file.Commit();
}

}  // namespace

void CheckVolumePath(const std::string& path) {
    MakeWriter(path);
}

void WriteVolume(const std::string& path, const VolumeLayout& layout, const std::int16_t* voxels) {
    WriteAny(path, layout, itk::IOComponentEnum::SHORT, voxels);
}

void WriteVolume(const std::string& path, const VolumeLayout& layout, const std::uint8_t* voxels) {
    WriteAny(path, layout, itk::IOComponentEnum::UCHAR, voxels);
}

}  // namespace scene
