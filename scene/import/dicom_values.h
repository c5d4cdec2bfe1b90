// One meaning for the values of all slices of a stack.
#ifndef SCENE_IMPORT_DICOM_VALUES_H
#define SCENE_IMPORT_DICOM_VALUES_H

#include <vector>

#include "scene/import/dicom_pixels.h"
#include "scene/import/dicom_stacks.h"
#include "scene/import/sixteen_bits.h"

namespace scene::import {

// Brings decoded slices (one behind the other, all of one size) to one rescale, in place: padding becomes the lowest
// value unless it is lower still, slices with rescale factors of their own are re-coded, inverted pictures are inverted
// back, a negative slope becomes positive. Sets the volume's padding and appends warnings. The range of the code is
// that of the values.
SixteenBitCode UnifyValues(const DicomStack& stack, const std::vector<FrameValues>& found, const VoxelBuffer& voxels,
                           ImportedVolume& volume);

}  // namespace scene::import

#endif  // SCENE_IMPORT_DICOM_VALUES_H
