#include "scene/phantom.h"

#include "scene/error.h"
#include "scene/phantom_anatomy.h"
#include "scene/phantom_shapes.h"

#include <nlohmann/json.hpp>

#include <algorithm>
#include <cmath>

namespace scene {

namespace {

using phantom::Shapes;
using phantom::Tube;

constexpr int kLargestEdge = 4096;
constexpr double kFieldMm = 256.0;                // width of the field of view
constexpr double kFieldHeightMm = 240.0;          // and its height
constexpr Vec3 kMiddleMm = {0.0, -150.0, 600.0};  // where the scanner put the volume's middle

void CheckSize(const std::array<int, 3>& size) {
    for (const int n : size) {
        if (n < 1 || n > kLargestEdge) {
            throw Error(ErrorKind::kInput, "phantom", "size " + std::to_string(n) + " is out of range",
                        "1 to 4096 voxels an edge");
        }
    }
}

// Spacing that makes the field of view fill the volume; a millimetre number that a file keeps exactly.
double Spacing(double extent_mm, int voxels) {
    return std::max(0.001, std::round(1e4 * extent_mm / voxels) * 1e-4);
}

// A straight vessel of one radius, points one voxel apart.
Vessel StraightVessel(std::string name, int value_hu, const Vec3& from_mm, const Vec3& to_mm, double radius_mm,
                      double step_mm) {
    Vessel vessel{std::move(name), -1, value_hu, {}};
    const int steps = std::max(1, static_cast<int>(Length(to_mm - from_mm) / step_mm));
    for (int i = 0; i <= steps; ++i) {
        vessel.points.push_back({Mix(from_mm, to_mm, static_cast<double>(i) / steps), radius_mm});
    }
    return vessel;
}

// Blocks of 24 voxels in a lattice of 32, bone and soft tissue in turn; every second one is moved by one voxel, so that
// edges lie on, before and behind multiples of 32.
void AddBlocks(const std::array<int, 3>& size, Shapes& shapes) {
    constexpr int kPitch = 32;
    constexpr int kEdge = 24;
    for (int bz = 0; bz * kPitch < size[2]; ++bz) {
        for (int by = 1; by * kPitch < size[1]; ++by) {
            for (int bx = 0; bx * kPitch < size[0]; ++bx) {
                const int shift = (bx + by + bz) % 3 - 1;
                const bool bone = (bx + by + bz) % 2 == 0;
                const std::array<int, 3> first = {bx * kPitch + shift, by * kPitch + shift, bz * kPitch + shift};
                shapes.blocks.push_back({first,
                                         {first[0] + kEdge, first[1] + kEdge, first[2] + kEdge},
                                         bone ? 1000.0 : 60.0,
                                         bone ? kLabelBone : kLabelSoftTissue});
            }
        }
    }
}

// Six straight vessels of radius 1 to 6 voxels in front of the blocks, across the picture.
std::vector<Vessel> BrickVessels(const Phantom& phantom) {
    std::vector<Vessel> vessels;
    const Vec3 s = phantom.spacing_mm;
    const double half_width = 0.5 * phantom.size[0] * s.x;
    const double half_height = 0.5 * phantom.size[2] * s.z;
    const double y = (-0.5 * phantom.size[1] + 12.0) * s.y;
    for (int radius = 1; radius <= 6; ++radius) {
        const double z = half_height * (-0.9 + 0.3 * radius - 0.15);
        vessels.push_back(StraightVessel("tube_" + std::to_string(radius), 240 + 30 * radius,
                                         {-0.9 * half_width, y, z - 0.1 * half_height},
                                         {0.9 * half_width, y, z + 0.1 * half_height}, radius * s.x, s.x));
    }
    return vessels;
}

// Tubes to paint for vessels.
void AddVessels(const std::vector<Vessel>& vessels, Shapes& shapes) {
    for (const Vessel& v : vessels) {
        shapes.tubes.push_back({v.points, static_cast<double>(v.value_hu), kLabelVessel});
    }
}

}  // namespace

Phantom MakePhantom(const PhantomRequest& request) {
    CheckSize(request.size);
    Phantom result;
    result.size = request.size;
    const int widest = std::max(request.size[0], request.size[1]);
    const bool head = request.kind == PhantomKind::kHead;
    const double in_plane = head ? Spacing(kFieldMm, widest) : 1.0;
    result.spacing_mm = {in_plane, in_plane, head ? Spacing(kFieldHeightMm, request.size[2]) : 1.0};
    const Vec3 first_from_middle = {-0.5 * (result.size[0] - 1) * result.spacing_mm.x,
                                    -0.5 * (result.size[1] - 1) * result.spacing_mm.y,
                                    -0.5 * (result.size[2] - 1) * result.spacing_mm.z};
    result.origin_mm = kMiddleMm + first_from_middle;

    Shapes shapes = head ? phantom::HeadAnatomy() : Shapes{};
    if (!head) {
        AddBlocks(result.size, shapes);
    }
    result.vessels = head ? phantom::HeadVessels(in_plane, request.seed) : BrickVessels(result);
    AddVessels(result.vessels, shapes);
    const std::vector<Tube> plaques = phantom::Calcifications(result.vessels, in_plane, request.seed);
    shapes.tubes.insert(shapes.tubes.end(), plaques.begin(), plaques.end());
    phantom::Paint(shapes, request.seed, head ? 12.0 : 8.0, result);

    // Shapes are placed about the middle; the answer is in the patient's coordinates.
    for (Vessel& v : result.vessels) {
        for (VesselPoint& p : v.points) {
            p.position_mm = p.position_mm + kMiddleMm;
        }
    }
    return result;
}

std::string CentreLinesJson(const Phantom& phantom) {
    const auto rounded = [](double mm) { return std::round(mm * 1e4) * 1e-4; };
    nlohmann::ordered_json json;
    json["size"] = phantom.size;
    json["spacing_mm"] = ToArray(phantom.spacing_mm);
    json["origin_mm"] = ToArray(phantom.origin_mm);
    json["vessels"] = nlohmann::ordered_json::array();
    for (const Vessel& v : phantom.vessels) {
        nlohmann::ordered_json points = nlohmann::ordered_json::array();
        for (const VesselPoint& p : v.points) {
            points.push_back(
                {rounded(p.position_mm.x), rounded(p.position_mm.y), rounded(p.position_mm.z), rounded(p.radius_mm)});
        }
        json["vessels"].push_back(
            {{"name", v.name}, {"parent", v.parent}, {"value_hu", v.value_hu}, {"points", std::move(points)}});
    }
    return json.dump() + "\n";
}

}  // namespace scene
