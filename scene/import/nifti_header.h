// The header of a single-file NIfTI-1 or NIfTI-2 image, as far as a volume needs it.
#ifndef SCENE_IMPORT_NIFTI_HEADER_H
#define SCENE_IMPORT_NIFTI_HEADER_H

#include <array>
#include <cstdint>
#include <string>

#include "scene/import/byte_source.h"
#include "scene/import/grid_geometry.h"

namespace scene::import {

// Both versions, in native byte order.
struct NiftiHeader {
    bool is_swapped = false;      // the pixels are in the other byte order than this machine's
    std::uint64_t num_bytes = 0;  // that the header took
    std::uint64_t data_offset = 0;
    int datatype = 0;  // DT_... of the format
    int num_axes = 0;
    std::array<std::int64_t, 7> sizes{};  // 1 beyond num_axes
    double slope = 0.0, intercept = 0.0;  // a slope of 0 means none
    int sform_code = 0, qform_code = 0;   // above 0: the matrix is meant
    Affine sform{}, qform{};              // voxel centres in LPS, mm; without a qform code: spacing alone
};

// Reads the header from the start of the source. Throws ImportError.
NiftiHeader ReadNiftiHeader(ByteSource& source, const std::string& path);

}  // namespace scene::import

#endif  // SCENE_IMPORT_NIFTI_HEADER_H
