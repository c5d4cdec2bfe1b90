// Phantoms: made-up CT volumes with known answers, for trying things out, tests and benchmarks.
#pragma once

#include "scene/vector3.h"

#include <array>
#include <cstdint>
#include <string>
#include <vector>

namespace scene {

enum class PhantomKind {
    kHead,    // head, neck and shoulders: skull, soft tissue, airways, arteries filled with contrast medium
    kBricks,  // lattice of blocks and straight tubes with edges on and beside multiples of 32 voxels
};

// The labels of a phantom's label map.
enum PhantomLabel : std::uint8_t {
    kLabelOutside = 0,
    kLabelSoftTissue = 1,
    kLabelBone = 2,
    kLabelBrain = 3,
    kLabelVessel = 4,
    kLabelCalcification = 5,
    kLabelAirway = 6,
};

struct PhantomRequest {
    PhantomKind kind = PhantomKind::kHead;
    std::array<int, 3> size = {256, 256, 200};  // voxels, each from 1 to 4096
    std::uint32_t seed = 1;                     // same request, same phantom, bit for bit
};

// A point of a vessel's centre line, patient LPS.
struct VesselPoint {
    Vec3 position_mm;
    double radius_mm;
};

// One unbranched vessel. The radius in voxels is radius_mm / spacing_mm.x.
struct Vessel {
    std::string name;
    int parent = -1;  // index of the vessel it leaves, -1 for none
    int value_hu = 0;
    std::vector<VesselPoint> points;
};

// A volume of signed 16-bit HU values, x fastest, with axes along patient L, P, S.
struct Phantom {
    std::array<int, 3> size = {0, 0, 0};
    Vec3 spacing_mm;
    Vec3 origin_mm;  // centre of voxel (0, 0, 0), patient LPS
    std::vector<std::int16_t> voxels;
    std::vector<std::uint8_t> labels;
    std::vector<Vessel> vessels;
};

// Works on all workers. Throws Error for sizes out of range, std::bad_alloc, and the host's cancellation.
Phantom MakePhantom(const PhantomRequest& request);

// The vessels as JSON text: `size`, `spacing_mm`, `origin_mm` and `vessels`: `name`, `parent`, `value_hu`, `points`
// [x, y, z, radius] in mm, LPS.
std::string CentreLinesJson(const Phantom& phantom);

}  // namespace scene
