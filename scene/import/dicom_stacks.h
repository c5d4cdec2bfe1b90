// Sorting the images of a folder into stacks: one series, one orientation, one acquisition, one time.
#ifndef SCENE_IMPORT_DICOM_STACKS_H
#define SCENE_IMPORT_DICOM_STACKS_H

#include <string>
#include <vector>

#include "scene/import/dicom_scan.h"

namespace scene::import {

// Images that belong into one volume, ordered by position along the normal of their planes.
struct DicomStack {
    std::vector<DicomFrame> frames;
    SeriesInfo info;
    int time_index = 0, num_times = 1;  // among the stacks of its series that differ in time alone
};

// All stacks, ordered by number; the largest is the default. Never merges different series, orientations, matrix sizes
// or pixel spacings. Acquisitions of a series stay together where they continue each other (step-and-shoot) and are
// parted where they cover the same place.
std::vector<DicomStack> SortIntoStacks(std::vector<DicomFrame> frames);

// The stack that the options choose. Throws ImportError about `what` when there is none.
const DicomStack& ChooseStack(const std::vector<DicomStack>& stacks, const ImportOptions& options,
                              const std::string& what);

std::vector<SeriesInfo> Describe(const std::vector<DicomStack>& stacks);

}  // namespace scene::import

#endif  // SCENE_IMPORT_DICOM_STACKS_H
