// What the header of one DICOM file says about its images. Pixels are not read, but that they are there in full is.
#ifndef SCENE_IMPORT_DICOM_SCAN_H
#define SCENE_IMPORT_DICOM_SCAN_H

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "scene/import/dicom_parser.h"
#include "scene/import/grid_geometry.h"

namespace scene::import {

// What all frames of one file share.
struct DicomFile {
    std::string path;
    std::string series_uid, frame_of_reference_uid, modality, description;
    std::optional<int> series_number, acquisition;
    int rows = 0, columns = 0, num_frames = 1;
    int bits_allocated = 16, bits_stored = 16, high_bit = 15;
    bool is_signed = false;
    bool is_inverted = false;  // MONOCHROME1: low values are bright
    // Raw 16-bit words that mean "nothing measured", from first to last; one word if they are equal.
    std::optional<std::uint16_t> padding_first, padding_last;
    // Where and how the pixels lie; see ParsedDicom. Compressed ones end with the file at the latest.
    DicomEncoding encoding = DicomEncoding::kLittleEndian;
    std::string transfer_syntax;
    std::uint64_t pixel_offset = 0;
    bool are_bytes_swapped = false;  // pixels of 8 bits, stored as big-endian words
};

// One image in patient space.
struct DicomFrame {
    std::shared_ptr<const DicomFile> file;
    int index = 0;                     // within the file
    Vec3 position_mm{};                // centre of the first pixel
    Vec3 along_row{}, along_column{};  // unit vectors: towards the next column, towards the next row
    double column_step_mm = 1.0, row_step_mm = 1.0;
    std::optional<double> slice_step_mm;  // what the file says about the distance of slices; for a single slice
    double slope = 1.0, intercept = 0.0;
    std::optional<double> window_centre, window_width;
    // What sets images of one series and place apart.
    std::optional<int> time;
    std::string kind;  // echo, image type, diffusion weighting and the like, as one text
};

enum class DicomScanResult {
    kNotDicom,  // some other file
    kNoImage,   // DICOM without pixels: reports, directories
    kUnusable,  // an image that cannot be a slice: colour, no position
    kBroken,    // truncated or damaged
    kUsable
};

struct DicomScan {
    DicomScanResult result = DicomScanResult::kNotDicom;
    std::string reason;  // for kUnusable and kBroken: why, and in brackets what to do
    std::string advice;
    std::vector<DicomFrame> frames;  // for kUsable
};

// Never throws ImportError; std::bad_alloc passes.
DicomScan ScanDicomFile(const std::string& path);

}  // namespace scene::import

#endif  // SCENE_IMPORT_DICOM_SCAN_H
