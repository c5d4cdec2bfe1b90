// Point lists that other viewers open.
#pragma once

#include "scene/vector3.h"

#include <string>
#include <vector>

namespace scene {

struct MarkedPoint {
    Vec3 position_mm;  // patient LPS
    std::string label;
    std::string description;
};

// A .mrk.json text: one list of points in the public markups form, version 1.0.3, coordinates LPS in mm.
std::string MarkupsJson(const std::vector<MarkedPoint>& points);

}  // namespace scene
