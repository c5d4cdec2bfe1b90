// Files of any content through the readers that are the project's own, in process: NIfTI whole, DICOM and the text
// headers of NRRD and MetaImage as far as the pixels. The first byte chooses the format.
#include "scene/import/data_location.h"
#include "scene/import/dicom_parser.h"
#include "scene/import/imported_volume.h"
#include "scene/import/nrrd_geometry.h"
#include "tests/fuzz/fuzz_input.h"

#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <string>

namespace {

// One file for each format, gone with the process.
class ScratchFolder {
public:
    ScratchFolder() : m_Path(std::filesystem::temp_directory_path() / ("fuzz_import_" + std::to_string(::getpid()))) {
        std::filesystem::create_directories(m_Path);
    }
    ~ScratchFolder() {
        std::error_code ignored;
        std::filesystem::remove_all(m_Path, ignored);
    }
    std::string Write(const std::string& name, const std::uint8_t* data, std::size_t size) const {
        const std::string path = m_Path / name;
        std::ofstream(path, std::ios::binary).write(reinterpret_cast<const char*>(data), static_cast<long>(size));
        return path;
    }

private:
    std::filesystem::path m_Path;
};

void ReadNifti(const std::string& path) {
    scene::ImportOptions options;
    options.isolate = false;
    options.num_threads = 1;
    const scene::ImportedVolume volume = scene::ImportVolume(path, options);
    const double determinant = volume.spacing_mm[0] * volume.spacing_mm[1] * volume.spacing_mm[2];
    fuzz::Require(std::isfinite(determinant) && determinant > 0.0);
    fuzz::Require(volume.voxels.size() == static_cast<std::size_t>(volume.dims[0]) *
                                              static_cast<std::size_t>(volume.dims[1]) *
                                              static_cast<std::size_t>(volume.dims[2]));
    fuzz::Require(volume.min_value <= volume.max_value && volume.rescale_slope > 0.0);
    options.time_index = 1;
    scene::ImportLabels(path, options);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static const ScratchFolder folder;
    if (size == 0) {
        return 0;
    }
    const unsigned format = data[0] % 4;
    const std::string path = folder.Write(format == 0 ? "a.nii" : format == 3 ? "a.mhd" : "a.nrrd", data + 1, size - 1);
    try {
        switch (format) {
            case 0:
                ReadNifti(path);
                break;
            case 1:
                scene::import::ParseDicom(path);
                break;
            case 2:
                scene::import::ReadNrrdGeometry(path);
                scene::import::LocateData(path, scene::SourceKind::kNrrd);
                break;
            default:
                scene::import::LocateData(path, scene::SourceKind::kMetaImage);
                break;
        }
    } catch (const scene::ImportError& error) {
        fuzz::Require(std::string(error.what()).find('\n') == std::string::npos);
    } catch (const scene::import::DicomParseError&) {
    }
    return 0;
}
