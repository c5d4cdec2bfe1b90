// Import of image stacks from files: DICOM, NIfTI, NRRD and MetaImage become one plain value type.
//
// ImportVolume reads grey values, ImportLabels reads label maps, ListSeries tells what a folder holds. All three decode
// in a child process by default, so that a hostile file can cost an import but never the host.
#ifndef SCENE_IMPORT_IMPORTED_VOLUME_H
#define SCENE_IMPORT_IMPORTED_VOLUME_H

#include <array>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

namespace scene {

// Where the voxels came from.
enum class SourceKind { kDicom, kNifti, kNrrd, kMetaImage };

// One line for each kind: "DICOM", "NIfTI", "NRRD", "MetaImage".
const char* Name(SourceKind kind);

// 16-bit voxels, contiguous: columns fastest, then rows, then slices. Copies share the memory, which is freed with the
// last of them; the memory is writable and belongs to this process alone.
class VoxelBuffer {
public:
    VoxelBuffer() = default;
    // Zero-filled memory; throws std::bad_alloc.
    explicit VoxelBuffer(std::size_t num_voxels);
    // Takes over memory that ends with the owner.
    VoxelBuffer(std::shared_ptr<std::int16_t> owner, std::size_t num_voxels)
        : m_owner(std::move(owner)), m_numVoxels(num_voxels) {}

    std::int16_t* data() const { return m_owner.get(); }
    std::size_t size() const { return m_numVoxels; }
    std::int16_t& operator[](std::size_t index) const { return m_owner.get()[index]; }

private:
    std::shared_ptr<std::int16_t> m_owner;
    std::size_t m_numVoxels = 0;
};

// A stack of one size, orientation and time that a folder or file holds. Never tells anything about the patient.
struct SeriesInfo {
    int number = 0;             // what ImportOptions::series accepts; unique within one listing
    std::string uid;            // DICOM series instance UID; empty for other formats
    std::string modality;       // "CT", "MR", ...; empty when the file does not say
    std::string description;    // the series description of the scanner, if any
    std::array<int, 3> dims{};  // columns, rows, slices as stored (before any resampling)
    std::string note;           // what sets a part of a series apart: "acquisition 2", "time 3"; mostly empty
    bool is_default = false;    // read when the caller does not choose
};

// Grey values or labels on a straight grid in patient space.
struct ImportedVolume {
    std::array<int, 3> dims{};           // columns, rows, slices; each at least 1
    std::array<double, 3> spacing_mm{};  // distance between voxel centres along columns, rows and slices; positive

    // 3 x 4, row by row: patient position (LPS, mm) of the centre of voxel (i, j, k) is M * (i, j, k, 1). Columns 0 to
    // 2 are orthogonal and as long as the spacing. The grid is always right-handed (positive determinant): a file with
    // a left-handed grid has its slices delivered in reverse order, so that no view is mirrored.
    std::array<double, 12> index_to_patient{};

    // dims[0] * dims[1] * dims[2] values. Two's complement when is_signed, else the bits of std::uint16_t.
    VoxelBuffer voxels;
    bool is_signed = false;  // some value is negative
    // Fewest bits that hold every value: unsigned values are below 2^bits, signed ones within
    // [-2^(bits-1), 2^(bits-1)). 1 to 16.
    int bits_stored = 16;
    int min_value = 0, max_value = 0;  // range of the 16-bit values

    // Value in the file's own unit (HU for CT) = 16-bit value * slope + intercept. The slope is positive. 1 and 0 for
    // labels.
    double rescale_slope = 1.0, rescale_intercept = 0.0;

    // 16-bit value that stands for "nothing measured here" when the file names one and it occurs. It is the lowest
    // value.
    std::optional<int> padding_value;

    std::string modality;                               // "CT", "MR", ...; empty when the file does not say
    std::optional<double> window_centre, window_width;  // as the file suggests, in the file's own unit

    SourceKind source = SourceKind::kDicom;
    std::vector<SeriesInfo> series;     // everything the input holds
    int series_number = 0;              // which of them this is
    int num_time_points = 1;            // how many time points the file holds
    std::vector<std::string> warnings;  // one clear line for each thing that was changed or doubted on the way

    // Of a layout (see ImportOptions): slices may still change after they are announced. Of a volume that was read:
    // some that were announced did.
    bool do_announced_slices_change = false;
};

// Memory and time that reading a file may take before it counts as unreadable.
struct ImportLimits {
    std::size_t memory_bytes = 0;  // beyond what the process has already; 0 means the machine's memory
    double silence_seconds = 120;  // longest time without progress
};

struct ImportOptions {
    std::string series;   // number or UID of SeriesInfo; empty means the largest
    int time_index = -1;  // from 0; -1 means the first, with a warning when there are more
    int num_threads = 0;  // 0 means one for each processor

    // Called from the thread that called the import, with 0 to 1, never decreasing.
    std::function<void(double fraction)> progress;
    // Polled from the thread that called the import; true ends it with ImportCancelled.
    std::function<bool()> is_cancelled;

    // For showing a volume while it is read; both are called from the thread that called the import. `on_layout` comes
    // at most once, and only for volumes of which everything but the values is known beforehand: DICOM series of one
    // pixel type and rescale on an even grid. Its voxels are filled from then on; its range, bits and sign are those of
    // the file's pixel type, of which the values may need less. `on_slices` names slices that have come, each once.
    // What the import returns in the end is right, whatever was announced before.
    std::function<void(const ImportedVolume& layout)> on_layout;
    std::function<void(const std::vector<int>& slices)> on_slices;

    // Decode in a child process, so that a crash or endless loop in a decoder is an ImportError. The child is forked
    // from the calling thread; other threads of the process need not be quiet, but a process that can choose imports
    // before it starts threads. Off: decode on the calling thread and helpers, for tests and fuzzing.
    bool isolate = true;
    ImportLimits limits;
};

// what() is one line: "WHAT: WHY (WHAT TO DO)".
class ImportError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

// The caller's is_cancelled said so.
class ImportCancelled : public ImportError {
public:
    ImportCancelled() : ImportError("import: cancelled (run it again)") {}
};

// Reads the grey values of a DICOM folder or file, .nii, .nii.gz, .nrrd, .nhdr, .mha or .mhd. A DICOM file given by
// itself is read by itself. Other pixel types are brought to 16 bits; where that costs precision a warning says so.
// Throws ImportError. Safe to call from several threads at once.
ImportedVolume ImportVolume(const std::string& path, const ImportOptions& options = {});

// Reads a label map in any of the same formats: unsigned 16-bit labels, slope 1, intercept 0. Values that are not whole
// numbers of 0 to 65535 are an ImportError. Grids are never resampled: one that is not straight is an ImportError.
ImportedVolume ImportLabels(const std::string& path, const ImportOptions& options = {});

// What a folder or file holds, without decoding pixels. Ordered by number. Formats other than DICOM are one entry,
// numbered 0.
std::vector<SeriesInfo> ListSeries(const std::string& path, const ImportOptions& options = {});

// Whether a file's name says that it is a volume of a format other than DICOM, whose files have any name.
bool HasVolumeName(const std::string& path);

}  // namespace scene

#endif  // SCENE_IMPORT_IMPORTED_VOLUME_H
