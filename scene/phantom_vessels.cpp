// The vessel tree of the head phantom.
#include "scene/phantom_anatomy.h"
#include "scene/random_stream.h"

#include <algorithm>
#include <cmath>

namespace scene::phantom {

namespace {

// Trunks stay as wide as this even in volumes whose voxels are coarse.
constexpr double kWidestRadiusMm = 7.0;
constexpr double kWidestRadiusVox = 6.0;

// A named trunk as control points; radii in voxels at its two ends.
struct Trunk {
    const char* name;
    int parent;  // index within the side's list, -1 for none
    double first_radius_vox;
    double last_radius_vox;
    std::vector<Vec3> controls;  // of the left side (x positive)
};

// A point of the scalp between skull and skin, seen from the middle of the head.
Vec3 OnScalp(const Vec3& direction) {
    const Vec3 d = Normalised(direction);
    constexpr Vec3 radii = {71.5, 89.5, 73.5};
    const double scale = 1.0 / Length({d.x / radii.x, d.y / radii.y, d.z / radii.z});
    return Vec3{0.0, 0.0, 42.0} + d * scale;
}

std::vector<Trunk> Trunks() {
    return {
        {"subclavian",
         -1,
         6.0,
         4.0,
         {{16, -24, -124}, {26, -26, -112}, {46, -18, -102}, {72, -6, -100}, {120, 6, -112}}},
        {"common_carotid", -1, 6.0, 5.0, {{13, -28, -124}, {20, -24, -100}, {27, -20, -76}, {31, -18, -56}}},
        {"internal_carotid",
         1,
         4.5,
         3.5,
         {{31, -18, -56}, {36, -8, -40}, {34, 2, -26}, {26, 0, -4}, {16, -8, 14}, {12, -14, 26}}},
        {"external_carotid",
         1,
         3.5,
         2.5,
         {{31, -18, -56}, {37, -16, -42}, {45, -10, -22}, {54, -6, -4}, OnScalp({0.98, -0.02, -0.25})}},
        {"middle_cerebral",
         2,
         3.0,
         1.5,
         {{12, -14, 26}, {26, -16, 32}, {42, -10, 40}, {50, 4, 52}, {46, 26, 66}, {30, 40, 80}}},
        {"anterior_cerebral",
         2,
         2.5,
         1.0,
         {{12, -14, 26}, {5, -34, 34}, {4, -56, 50}, {4, -56, 76}, {4, -30, 96}, {4, 10, 98}}},
        {"superficial_temporal",
         3,
         2.5,
         1.0,
         {OnScalp({0.98, -0.02, -0.25}), OnScalp({0.95, -0.15, 0.15}), OnScalp({0.85, -0.4, 0.4}),
          OnScalp({0.6, -0.62, 0.55}), OnScalp({0.4, -0.6, 0.75})}},
        {"facial",
         3,
         2.5,
         1.0,
         {{37, -16, -42}, {40, -50, -36}, {38, -66, -24}, {30, -76, -8}, {20, -82, 8}, {12, -82, 22}}},
        {"vertebral",
         0,
         2.5,
         2.0,
         {{36, -22, -106}, {28, 2, -98}, {21, 24, -90}, {20, 28, -60}, {20, 30, -34}, {10, 34, -14}, {3, 26, 0}}},
        {"thyrocervical", 0, 4.0, 2.0, {{46, -18, -102}, {44, -24, -88}, {40, -10, -72}, {38, 14, -58}, {36, 34, -44}}},
        {"occipital",
         3,
         2.0,
         1.0,
         {{37, -16, -42}, {44, 2, -34}, {44, 34, -30}, {34, 62, -20}, {26, 80, 0}, OnScalp({0.25, 0.95, 0.1})}},
    };
}

// Catmull-Rom curve through the control points, with points about `step_mm` apart.
std::vector<Vec3> Curve(const std::vector<Vec3>& controls, double step_mm) {
    std::vector<Vec3> points;
    const int last = static_cast<int>(controls.size()) - 1;
    for (int i = 0; i < last; ++i) {
        const Vec3& a = controls[static_cast<std::size_t>(std::max(0, i - 1))];
        const Vec3& b = controls[static_cast<std::size_t>(i)];
        const Vec3& c = controls[static_cast<std::size_t>(i + 1)];
        const Vec3& d = controls[static_cast<std::size_t>(std::min(last, i + 2))];
        const int steps = std::max(1, static_cast<int>(std::ceil(Length(c - b) / step_mm)));
        for (int k = 0; k < steps; ++k) {
            const double t = static_cast<double>(k) / steps;
            points.push_back(0.5 * (2.0 * b + (c - a) * t + (2.0 * a - 5.0 * b + 4.0 * c - d) * (t * t) +
                                    (3.0 * b - a - 3.0 * c + d) * (t * t * t)));
        }
    }
    points.push_back(controls.back());
    return points;
}

// How wide a vessel of so many voxels is.
double RadiusMm(double radius_vox, double voxel_mm) {
    return radius_vox * std::min(voxel_mm, std::max(kWidestRadiusMm / kWidestRadiusVox, voxel_mm / radius_vox));
}

Vessel Tapered(std::string name, int parent, int value_hu, const std::vector<Vec3>& points, double first_vox,
               double last_vox, double voxel_mm) {
    Vessel vessel{std::move(name), parent, value_hu, {}};
    for (std::size_t i = 0; i < points.size(); ++i) {
        const double t = points.size() > 1 ? static_cast<double>(i) / static_cast<double>(points.size() - 1) : 0.0;
        vessel.points.push_back({points[i], RadiusMm(first_vox + (last_vox - first_vox) * t, voxel_mm)});
    }
    return vessel;
}

// Whether a side branch may grow here: in the muscle of neck and shoulders, clear of skin, spine and airways.
bool InMuscle(const Vec3& p) {
    const auto inside = [&](const Vec3& centre, const Vec3& radii) {
        const Vec3 d = p - centre;
        return Length({d.x / radii.x, d.y / radii.y, d.z / radii.z}) < 1.0;
    };
    const bool in_body =
        inside({0.0, 22.0, -70.0}, {44.0, 54.0, 120.0}) || inside({0.0, 12.0, -132.0}, {116.0, 52.0, 40.0});
    const bool in_the_way = inside({0.0, 40.0, p.z}, {24.0, 44.0, 1.0}) || inside({0.0, -12.0, p.z}, {15.0, 14.0, 1.0});
    return in_body && !in_the_way && p.z < -34.0;
}

// A wandering path that stays in muscle; as long as it gets.
std::vector<Vec3> GrowBranch(const Vec3& start, const Vec3& direction, double length_mm, RandomStream& random) {
    constexpr double kStrideMm = 5.0;
    std::vector<Vec3> controls = {start};
    Vec3 heading = direction;
    for (double grown = 0.0; grown < length_mm; grown += kStrideMm) {
        for (int attempt = 0; attempt < 12; ++attempt) {
            const double spread = 0.25 + 0.12 * attempt;
            const Vec3 bent =
                Normalised(heading + Vec3{random.Uniform(-spread, spread), random.Uniform(-spread, spread),
                                          random.Uniform(-spread, spread)});
            const Vec3 next = controls.back() + bent * kStrideMm;
            if (InMuscle(next)) {
                controls.push_back(next);
                heading = bent;
                break;
            }
        }
    }
    return controls;
}

int ContrastHu(RandomStream& random) {
    return static_cast<int>(random.Uniform(250.0, 420.0));
}

// Side branches of the vessels that pass through muscle, thinner than where they leave.
void AddBranches(std::vector<Vessel>& vessels, double voxel_mm, RandomStream& random) {
    const std::size_t num_trunks = vessels.size();
    for (std::size_t t = 0; t < num_trunks; ++t) {
        for (int k = 0; k < 9; ++k) {
            const std::vector<VesselPoint>& trunk = vessels[t].points;
            const auto at =
                static_cast<std::size_t>(random.Uniform(0.15, 0.95) * static_cast<double>(trunk.size() - 1));
            const VesselPoint origin = trunk[at];
            const Vec3 direction =
                Normalised({random.Uniform(-1.0, 1.0), random.Uniform(-1.0, 1.0), random.Uniform(-0.6, 1.0)});
            const double length_mm = random.Uniform(25.0, 75.0);
            const double first_vox =
                std::clamp(random.Uniform(0.35, 0.8) * origin.radius_mm / RadiusMm(1.0, voxel_mm), 1.0, 4.0);
            if (!InMuscle(origin.position_mm)) {
                continue;
            }
            const std::vector<Vec3> controls = GrowBranch(origin.position_mm, direction, length_mm, random);
            if (controls.size() < 4) {
                continue;
            }
            vessels.push_back(Tapered("branch_" + std::to_string(vessels.size() - num_trunks + 1), static_cast<int>(t),
                                      ContrastHu(random), Curve(controls, voxel_mm), first_vox, 1.0, voxel_mm));
        }
    }
}

}  // namespace

std::vector<Vessel> HeadVessels(double voxel_mm, std::uint32_t seed) {
    RandomStream random(Mixed(seed) ^ 0x76657373656C73ULL);
    std::vector<Vessel> vessels;
    for (const double side : {1.0, -1.0}) {
        const int first = static_cast<int>(vessels.size());
        int index = 0;
        for (const Trunk& trunk : Trunks()) {
            std::vector<Vec3> controls = trunk.controls;
            for (Vec3& c : controls) {
                c.x *= side;
            }
            // Two vessels carry a denser bolus than the rest.
            const int value_hu = index == 9 ? static_cast<int>(random.Uniform(500.0, 700.0)) : ContrastHu(random);
            vessels.push_back(Tapered(std::string(side > 0 ? "left_" : "right_") + trunk.name,
                                      trunk.parent < 0 ? -1 : first + trunk.parent, value_hu, Curve(controls, voxel_mm),
                                      trunk.first_radius_vox, trunk.last_radius_vox, voxel_mm));
            ++index;
        }
    }
    AddBranches(vessels, voxel_mm, random);
    return vessels;
}

std::vector<Tube> Calcifications(const std::vector<Vessel>& vessels, double voxel_mm, std::uint32_t seed) {
    RandomStream random(Mixed(seed) ^ 0x706C6171756573ULL);
    std::vector<Tube> plaques;
    for (std::size_t v = 0; v < vessels.size(); v += 4) {
        const std::vector<VesselPoint>& points = vessels[v].points;
        const auto at = static_cast<std::size_t>(random.Uniform(0.2, 0.9) * static_cast<double>(points.size() - 1));
        const VesselPoint& p = points[at];
        const Vec3 along = Normalised(points[std::min(at + 1, points.size() - 1)].position_mm -
                                      points[at - (at > 0 ? 1 : 0)].position_mm);
        const Vec3 across = Normalised(Cross(along, {random.Uniform(-1.0, 1.0), random.Uniform(-1.0, 1.0), 0.37}));
        const double radius_mm = std::max(voxel_mm, p.radius_mm * random.Uniform(0.35, 0.6));
        const double value_hu = random.Uniform(850.0, 1300.0);
        plaques.push_back({{{p.position_mm + across * p.radius_mm, radius_mm}}, value_hu, kLabelCalcification});
    }
    return plaques;
}

}  // namespace scene::phantom
