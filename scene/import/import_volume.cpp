#include <sys/stat.h>

#include <algorithm>
#include <cctype>
#include <fstream>

#include "scene/import/import_context.h"
#include "scene/import/imported_volume.h"
#include "scene/import/isolated_process.h"
#include "scene/import/readers.h"
#include "scene/import/volume_archive.h"

namespace scene {

namespace {

using namespace import;

bool EndsWith(const std::string& path, const std::string& ending) {
    if (path.size() < ending.size()) {
        return false;
    }
    const auto equal = [](char a, char b) { return std::tolower(static_cast<unsigned char>(a)) == b; };
    return std::equal(path.end() - static_cast<std::ptrdiff_t>(ending.size()), path.end(), ending.begin(), equal);
}

// What has none of the known endings must be DICOM.
SourceKind KindByName(const std::string& path) {
    if (EndsWith(path, ".nii") || EndsWith(path, ".nii.gz")) {
        return SourceKind::kNifti;
    }
    if (EndsWith(path, ".nrrd") || EndsWith(path, ".nhdr")) {
        return SourceKind::kNrrd;
    }
    if (EndsWith(path, ".mha") || EndsWith(path, ".mhd")) {
        return SourceKind::kMetaImage;
    }
    return SourceKind::kDicom;
}

// Of something that is there and can be read.
SourceKind KindOf(const std::string& path) {
    struct stat status {};
    if (::stat(path.c_str(), &status) != 0) {
        Refuse(path, "no such file or folder", "check the path");
    }
    if (S_ISDIR(status.st_mode)) {
        return SourceKind::kDicom;
    }
    if (!S_ISREG(status.st_mode)) {
        Refuse(path, "neither a file nor a folder", "name a file or a DICOM folder");
    }
    if (!std::ifstream(path)) {
        Refuse(path, "cannot be opened", "check its permissions");
    }
    return KindByName(path);
}

ImportedVolume Read(ImportContext& context, const std::string& path, SourceKind kind, Content content) {
    switch (kind) {
        case SourceKind::kNifti:
            return ReadNifti(context, path, content);
        case SourceKind::kNrrd:
        case SourceKind::kMetaImage:
            return ReadWithItk(context, path, kind, content);
        default:
            return ReadDicom(context, path, content);
    }
}

std::vector<SeriesInfo> List(ImportContext& context, const std::string& path, SourceKind kind) {
    switch (kind) {
        case SourceKind::kNifti:
            return {DescribeNifti(path)};
        case SourceKind::kNrrd:
        case SourceKind::kMetaImage:
            return {DescribeWithItk(path, kind)};
        default:
            return ListDicomSeries(context, path);
    }
}

// Sanitizers lose track of a process that is forked off beside other threads: locks of their heap stay locked there,
// and its threads pass for some that they know. Under them everything is read by the process itself.
#if defined(__SANITIZE_THREAD__) || defined(__SANITIZE_ADDRESS__)
constexpr bool kMayFork = false;
#else
constexpr bool kMayFork = true;
#endif

JobResult Run(const std::string& path, const ImportOptions& options, const ImportJob& job) {
    try {
        PrepareReaders();
        return options.isolate && kMayFork ? RunIsolated(path, options, job) : RunInProcess(options, job);
    } catch (const ImportError&) {
        throw;
    } catch (const std::bad_alloc&) {
        Refuse(path, "reading it needs more memory than there is",
               "the file may be damaged; else use a larger machine");
    } catch (const std::length_error&) {
        Refuse(path, "unreadable file", "the file is damaged; get it anew");
    }
}

ImportedVolume Import(const std::string& path, const ImportOptions& options, Content content) {
    const SourceKind kind = KindOf(path);
    const auto job = [&](ImportContext& context) {
        ImportedVolume volume = Read(context, path, kind, content);
        volume.source = kind;
        return Pack(volume);
    };
    const JobResult result = Run(path, options, job);
    ImportedVolume volume = UnpackVolume(result.text);
    volume.voxels = result.voxels;
    if (!result.complaint.empty()) {
        volume.warnings.push_back("the image may be damaged, its decoder says: " + result.complaint);
    }
    if (volume.voxels.size() != std::size_t(volume.dims[0]) * volume.dims[1] * volume.dims[2]) {
        Refuse(path, "unreadable file", "the file is damaged; get it anew");
    }
    return volume;
}

}  // namespace

const char* Name(SourceKind kind) {
    switch (kind) {
        case SourceKind::kNifti:
            return "NIfTI";
        case SourceKind::kNrrd:
            return "NRRD";
        case SourceKind::kMetaImage:
            return "MetaImage";
        default:
            return "DICOM";
    }
}

VoxelBuffer::VoxelBuffer(std::size_t num_voxels)
    : m_owner(static_cast<std::int16_t*>(std::calloc(std::max<std::size_t>(num_voxels, 1), sizeof(std::int16_t))),
              [](std::int16_t* voxels) { std::free(voxels); }),
      m_numVoxels(num_voxels) {
    if (!m_owner) {
        throw std::bad_alloc();
    }
}

ImportedVolume ImportVolume(const std::string& path, const ImportOptions& options) {
    return Import(path, options, Content::kGrey);
}

ImportedVolume ImportLabels(const std::string& path, const ImportOptions& options) {
    return Import(path, options, Content::kLabels);
}

std::vector<SeriesInfo> ListSeries(const std::string& path, const ImportOptions& options) {
    const SourceKind kind = KindOf(path);
    return UnpackSeries(
        Run(path, options, [&](ImportContext& context) { return Pack(List(context, path, kind)); }).text);
}

bool HasVolumeName(const std::string& path) {
    return KindByName(path) != SourceKind::kDicom;
}

}  // namespace scene
