// Decoding the pixels of one DICOM file.
#ifndef SCENE_IMPORT_DICOM_PIXELS_H
#define SCENE_IMPORT_DICOM_PIXELS_H

#include <cstdint>
#include <string>
#include <vector>

#include "scene/import/dicom_scan.h"

namespace scene::import {

// What decoding a frame has found; the range leaves padding out.
struct FrameValues {
    bool is_signed = false;
    int min_value = 0, max_value = -1;  // max below min: nothing but padding
    bool has_padding = false;
    int padding_value = 0;  // what padding pixels hold
};

// A frame and where its rows * columns values go: stored values, masked to the stored bits, two's complement if signed.
// Padding pixels all get the file's padding value.
struct FrameTarget {
    int index = 0;
    std::int16_t* out = nullptr;
    FrameValues* found = nullptr;
};

// Decodes the frames of a file. Throws ImportError about the file. Several files may be decoded at once.
void DecodeFrames(const DicomFile& file, const std::vector<FrameTarget>& targets);

}  // namespace scene::import

#endif  // SCENE_IMPORT_DICOM_PIXELS_H
