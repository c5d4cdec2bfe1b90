// Volumes written to files that other programs read.
#pragma once

#include "scene/vector3.h"

#include <array>
#include <cstdint>
#include <string>

namespace scene {

// Voxels x fastest, axes along patient L, P, S.
struct VolumeLayout {
    std::array<int, 3> size = {0, 0, 0};
    Vec3 spacing_mm;
    Vec3 origin_mm;  // centre of voxel (0, 0, 0), patient LPS
};

// Throws Error of the input kind unless the path ends in .nii, .nii.gz, .nrrd, .mha or .mhd.
void CheckVolumePath(const std::string& path);

// Writes the file whole or not at all; the format follows the ending. .nii.gz is compressed; .mhd gets a .raw beside
// it. Throws Error.
void WriteVolume(const std::string& path, const VolumeLayout& layout, const std::int16_t* voxels);
void WriteVolume(const std::string& path, const VolumeLayout& layout, const std::uint8_t* voxels);

}  // namespace scene
