// The grid of a NRRD file.
#ifndef SCENE_IMPORT_NRRD_GEOMETRY_H
#define SCENE_IMPORT_NRRD_GEOMETRY_H

#include <optional>
#include <string>
#include <vector>

#include "scene/import/grid_geometry.h"

namespace scene::import {

// What the header says about places. Read here because ITK takes left-anterior-superior for another space.
struct NrrdGeometry {
    std::optional<Affine> index_to_patient;  // LPS, of voxel centres; nothing without space directions
    bool is_patient_space = false;           // the header says how the patient lies
    bool has_channels_first = false;         // the first axis is none of space
    bool is_space_torn = false;              // another axis lies between those of space
};

NrrdGeometry ReadNrrdGeometry(const std::string& path);

}  // namespace scene::import

#endif  // SCENE_IMPORT_NRRD_GEOMETRY_H
