// What is cut away.
#pragma once

#include "host/clipping.h"
#include "scene/volume_source.h"

#include <array>
#include <vector>

namespace scene {

// Keeps the half space a x + b y + c z + d >= 0, patient LPS mm.
struct ClipPlane {
    double a = 0.0, b = 0.0, c = 0.0, d = 0.0;
};

// The part of a volume between fractions (0 to 1) of its first axis, second axis and slices.
struct ClipBox {
    std::array<double, 6> fractions = {0.0, 1.0, 0.0, 1.0, 0.0, 1.0};  // x0, x1, y0, y1, z0, z1
};

// The planes of a box; sides that cut nothing give none.
std::vector<ClipPlane> PlanesOf(const ClipBox& box, const VolumeSource& source);

// The planes as the engines take them, in patient mm.
IP_ClipManager ToClipManager(const std::vector<ClipPlane>& planes);

}  // namespace scene
