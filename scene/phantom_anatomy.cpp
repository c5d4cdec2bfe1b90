#include "scene/phantom_anatomy.h"

#include <algorithm>
#include <numbers>

namespace scene::phantom {

namespace {

constexpr double kInfinite = std::numeric_limits<double>::infinity();
constexpr Vec3 kHeadCentre = {0.0, 0.0, 42.0};
constexpr Vec3 kHeadRadii = {74.0, 92.0, 76.0};

Vec3 Shrunk(const Vec3& radii, double by_mm) {
    return {radii.x - by_mm, radii.y - by_mm, radii.z - by_mm};
}

// Tube through points of one radius.
Tube Rod(const std::vector<Vec3>& points, double radius_mm, double value_hu) {
    Tube tube{{}, value_hu, kLabelBone};
    for (const Vec3& p : points) {
        tube.points.push_back({p, radius_mm});
    }
    return tube;
}

// Head, neck and shoulders without what lies inside them, shrunk by a depth below the skin.
void AddBody(std::vector<Ellipsoid>& shapes, double depth_mm, double value_hu) {
    const auto add = [&](const Vec3& centre, const Vec3& radii) {
        const Vec3 r = Shrunk(radii, depth_mm);
        if (std::min({r.x, r.y, r.z}) > 1.0) {
            shapes.push_back({centre, r, value_hu, kLabelSoftTissue});
        }
    };
    add(kHeadCentre, kHeadRadii);
    add({0.0, -36.0, 2.0}, {60.0, 55.0, 62.0});     // face and jaw
    add({0.0, -90.0, 14.0}, {9.0, 17.0, 15.0});     // nose
    add({0.0, 22.0, -70.0}, {54.0, 64.0, 130.0});   // neck
    add({0.0, 12.0, -132.0}, {126.0, 62.0, 50.0});  // shoulders
    for (const double side : {-1.0, 1.0}) {
        add({side * 76.0, 12.0, 22.0}, {5.0, 14.0, 20.0});  // ears
    }
}

void AddSkull(std::vector<Ellipsoid>& shapes) {
    shapes.push_back({kHeadCentre, Shrunk(kHeadRadii, 6.0), 1250.0, kLabelBone});
    shapes.push_back({kHeadCentre, Shrunk(kHeadRadii, 8.2), 700.0, kLabelBone});
    shapes.push_back({kHeadCentre, Shrunk(kHeadRadii, 10.4), 1150.0, kLabelBone});
    shapes.push_back({kHeadCentre, Shrunk(kHeadRadii, 12.6), 12.0, kLabelBrain});
    shapes.push_back({kHeadCentre, Shrunk(kHeadRadii, 14.6), 38.0, kLabelBrain});
    shapes.push_back({kHeadCentre, Shrunk(kHeadRadii, 24.0), 30.0, kLabelBrain});
    for (const double side : {-1.0, 1.0}) {
        shapes.push_back({{side * 12.0, 4.0, 56.0}, {7.0, 28.0, 10.0}, 8.0, kLabelBrain});            // ventricles
        shapes.push_back({{side * 31.0, -62.0, 34.0}, {17.0, 21.0, 15.0}, -70.0, kLabelSoftTissue});  // orbits
        shapes.push_back({{side * 31.0, -71.0, 34.0}, {12.0, 12.0, 12.0}, 18.0, kLabelSoftTissue});   // eyeballs
    }
    shapes.push_back({{0.0, -76.0, 10.0}, {7.0, 16.0, 14.0}, -980.0, kLabelAirway});  // nasal cavity
    shapes.push_back({{0.0, -62.0, 4.0}, {14.0, 16.0, 9.0}, -980.0, kLabelAirway});   // behind it
}

// Airways, lungs' tips and the spinal canal, below the skull.
void AddNeck(std::vector<Ellipsoid>& shapes) {
    for (const double side : {-1.0, 1.0}) {
        shapes.push_back({{side * 48.0, 16.0, -146.0}, {34.0, 34.0, 40.0}, -860.0, kLabelAirway});
    }
    shapes.push_back({{0.0, -12.0, 0.0}, {9.0, 8.0, kInfinite}, -990.0, kLabelAirway, -kInfinite, -28.0});
    for (int k = 0; k < 6; ++k) {
        const double z = -121.0 + 18.5 * k;
        shapes.push_back({{0.0, 30.0, z}, {14.5, 12.5, 10.5}, 780.0, kLabelBone});
        shapes.push_back({{0.0, 30.0, z}, {12.0, 10.0, 8.0}, 300.0, kLabelBone});
    }
    shapes.push_back({{0.0, 52.0, 0.0}, {9.0, 8.0, kInfinite}, 15.0, kLabelSoftTissue, -kInfinite, -22.0});
}

// Arches of the vertebrae, jaw, teeth, cheek bones, collar bones.
void AddBoneRods(std::vector<Tube>& tubes) {
    for (int k = 0; k < 6; ++k) {
        const double z = -121.0 + 18.5 * k;
        tubes.push_back(Rod({{-12.0, 36.0, z},
                             {-13.0, 50.0, z},
                             {-6.0, 62.0, z - 2},
                             {0.0, 66.0, z - 4},
                             {6.0, 62.0, z - 2},
                             {13.0, 50.0, z},
                             {12.0, 36.0, z}},
                            3.2, 850.0));
        tubes.push_back(Rod({{0.0, 66.0, z - 4}, {0.0, 75.0, z - 7}}, 3.5, 800.0));
    }
    tubes.push_back(Rod({{-50.0, -12.0, 10.0},
                         {-49.0, -16.0, -28.0},
                         {-40.0, -48.0, -36.0},
                         {-20.0, -70.0, -36.0},
                         {0.0, -80.0, -41.0},
                         {20.0, -74.0, -40.0},
                         {40.0, -48.0, -36.0},
                         {49.0, -16.0, -28.0},
                         {50.0, -12.0, 10.0}},
                        5.5, 1100.0));
    for (int k = -5; k <= 5; ++k) {
        const double angle = k * 0.22;
        const Vec3 root = {34.0 * std::sin(angle), -40.0 - 36.0 * std::cos(angle), -31.0};
        tubes.push_back(Rod({root, root + Vec3{0.0, 0.0, 7.0}}, 2.8, 1900.0));
        tubes.push_back(Rod({root + Vec3{0.0, -2.0, 10.5}, root + Vec3{0.0, -1.0, 18.0}}, 2.8, 1900.0));
    }
    for (const double side : {-1.0, 1.0}) {
        tubes.push_back(Rod({{side * 66.0, -10.0, 16.0},
                             {side * 60.0, -40.0, 14.0},
                             {side * 46.0, -66.0, 13.0},
                             {side * 28.0, -76.0, 12.0}},
                            4.0, 950.0));
        tubes.push_back(Rod({{side * 7.0, -42.0, -112.0},
                             {side * 50.0, -44.0, -104.0},
                             {side * 84.0, -22.0, -98.0},
                             {side * 108.0, -4.0, -100.0}},
                            5.5, 850.0));
    }
}

}  // namespace

Shapes HeadAnatomy() {
    Shapes shapes;
    // Skin, fat below it, muscle below that.
    AddBody(shapes.ellipsoids, 0.0, 35.0);
    AddBody(shapes.ellipsoids, 2.2, -85.0);
    AddBody(shapes.ellipsoids, 6.0, 55.0);
    AddSkull(shapes.ellipsoids);
    AddNeck(shapes.ellipsoids);
    AddBoneRods(shapes.tubes);
    // A marker on the right cheek, so that a mirrored picture shows.
    shapes.tubes.push_back(Rod({{-50.0, -70.0, -6.0}}, 4.0, 1600.0));
    return shapes;
}

}  // namespace scene::phantom
