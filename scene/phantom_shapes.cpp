#include "scene/phantom_shapes.h"

#include "scene/parallel.h"
#include "scene/random_stream.h"

#include <algorithm>
#include <cmath>

namespace scene::phantom {

namespace {

constexpr double kAirHu = -1000.0;
constexpr double kEdgeVoxels = 1.4;  // width of a soft edge

// One slice while it is painted, values before noise.
struct Canvas {
    int width = 0;
    int height = 0;
    Vec3 spacing_mm;
    Vec3 first_mm;  // centre of the slice's first voxel, relative to the volume's middle
    std::vector<float> values;
    std::vector<std::uint8_t> labels;
    std::vector<float> coverage;  // scratch of one tube, zero between tubes

    double X(int ix) const { return first_mm.x + ix * spacing_mm.x; }
    double Y(int iy) const { return first_mm.y + iy * spacing_mm.y; }
};

// Inclusive range of voxels; empty when first > last.
struct Range {
    int first;
    int last;
};

// The voxels of a line, centres at first_mm + i * step_mm, between two positions.
Range VoxelsBetween(double from_mm, double to_mm, double first_mm, double step_mm, int count) {
    const double from = std::ceil((from_mm - first_mm) / step_mm);
    const double to = std::floor((to_mm - first_mm) / step_mm);
    return {static_cast<int>(std::clamp(from, 0.0, static_cast<double>(count))),
            static_cast<int>(std::clamp(to, -1.0, static_cast<double>(count - 1)))};
}

// Share of a voxel that lies inside a surface at a signed distance (mm, negative inside).
double Coverage(double distance_mm, double edge_mm) {
    return std::clamp(0.5 - distance_mm / edge_mm, 0.0, 1.0);
}

void Blend(Canvas& canvas, std::size_t i, double coverage, double value_hu, std::uint8_t label) {
    canvas.values[i] += static_cast<float>(coverage * (value_hu - canvas.values[i]));
    if (coverage >= 0.5) {
        canvas.labels[i] = label;
    }
}

double SquareRatio(double offset, double radius) {
    return std::isinf(radius) ? 0.0 : offset * offset / (radius * radius);
}

// Half the length of the chord that the ellipsoid scaled by `scale` cuts out of a row; negative for none.
double HalfChord(const Ellipsoid& e, double rest, double scale) {
    const double inside = scale * scale - rest;
    return inside < 0.0 ? -1.0 : e.radii_mm.x * std::sqrt(inside);
}

// Paints one row: the inside in one run, the rim voxel by voxel.
void PaintEllipsoidRow(const Ellipsoid& e, Canvas& canvas, int iy, double dz) {
    const double dy = canvas.Y(iy) - e.centre_mm.y;
    const double rest = SquareRatio(dy, e.radii_mm.y) + SquareRatio(dz, e.radii_mm.z);
    const double edge_mm = kEdgeVoxels * canvas.spacing_mm.x;
    const double thinnest = std::min({e.radii_mm.x, e.radii_mm.y, e.radii_mm.z});
    const double outer = HalfChord(e, rest, 1.0 + edge_mm / thinnest);
    if (outer < 0.0) {
        return;
    }
    const double inner = HalfChord(e, rest, std::max(0.0, 1.0 - edge_mm / thinnest));
    const Range all = VoxelsBetween(e.centre_mm.x - outer, e.centre_mm.x + outer, canvas.first_mm.x,
                                    canvas.spacing_mm.x, canvas.width);
    const std::size_t row = static_cast<std::size_t>(iy) * static_cast<std::size_t>(canvas.width);
    for (int ix = all.first; ix <= all.last; ++ix) {
        const double dx = canvas.X(ix) - e.centre_mm.x;
        double coverage = 1.0;
        if (std::abs(dx) >= inner) {
            // Distance to first order: the implicit function divided by its slope.
            const double f = std::sqrt(SquareRatio(dx, e.radii_mm.x) + rest);
            const Vec3 slope = {dx / (e.radii_mm.x * e.radii_mm.x),
                                std::isinf(e.radii_mm.y) ? 0.0 : dy / (e.radii_mm.y * e.radii_mm.y),
                                std::isinf(e.radii_mm.z) ? 0.0 : dz / (e.radii_mm.z * e.radii_mm.z)};
            const double steepness = Length(slope);
            coverage = steepness > 0.0 ? Coverage(f * (f - 1.0) / steepness, edge_mm) : 1.0;
        }
        Blend(canvas, row + static_cast<std::size_t>(ix), coverage, e.value_hu, e.label);
    }
}

void PaintEllipsoid(const Ellipsoid& e, Canvas& canvas) {
    const double z = canvas.first_mm.z;
    if (z < e.z_first_mm || z >= e.z_last_mm) {
        return;
    }
    const double dz = z - e.centre_mm.z;
    const double margin = kEdgeVoxels * canvas.spacing_mm.x;
    if (std::abs(dz) > e.radii_mm.z + margin) {
        return;
    }
    const Range rows = VoxelsBetween(e.centre_mm.y - e.radii_mm.y - margin, e.centre_mm.y + e.radii_mm.y + margin,
                                     canvas.first_mm.y, canvas.spacing_mm.y, canvas.height);
    for (int iy = rows.first; iy <= rows.last; ++iy) {
        PaintEllipsoidRow(e, canvas, iy, dz);
    }
}

void PaintBlock(const Block& b, int iz, Canvas& canvas) {
    if (iz < b.first[2] || iz >= b.last[2]) {
        return;
    }
    for (int iy = std::max(0, b.first[1]); iy < std::min(canvas.height, b.last[1]); ++iy) {
        for (int ix = std::max(0, b.first[0]); ix < std::min(canvas.width, b.last[0]); ++ix) {
            Blend(canvas,
                  static_cast<std::size_t>(iy) * static_cast<std::size_t>(canvas.width) + static_cast<std::size_t>(ix),
                  1.0, b.value_hu, b.label);
        }
    }
}

// Signed distance from a point to a capsule whose radius changes along its axis.
double CapsuleDistance(const Vec3& p, const VesselPoint& a, const VesselPoint& b) {
    const Vec3 axis = b.position_mm - a.position_mm;
    const double length2 = Dot(axis, axis);
    const double t = length2 > 0.0 ? std::clamp(Dot(p - a.position_mm, axis) / length2, 0.0, 1.0) : 0.0;
    return Length(p - a.position_mm - axis * t) - (a.radius_mm + (b.radius_mm - a.radius_mm) * t);
}

struct Window {
    Range x;
    Range y;
};

// Raises the coverage scratch by one capsule; returns the window that it touched.
Window CoverCapsule(const VesselPoint& a, const VesselPoint& b, Canvas& canvas) {
    const double edge_mm = kEdgeVoxels * canvas.spacing_mm.x;
    const double reach = std::max(a.radius_mm, b.radius_mm) + edge_mm;
    const double z = canvas.first_mm.z;
    if (z < std::min(a.position_mm.z, b.position_mm.z) - reach ||
        z > std::max(a.position_mm.z, b.position_mm.z) + reach) {
        return {{0, -1}, {0, -1}};
    }
    const Window window = {VoxelsBetween(std::min(a.position_mm.x, b.position_mm.x) - reach,
                                         std::max(a.position_mm.x, b.position_mm.x) + reach, canvas.first_mm.x,
                                         canvas.spacing_mm.x, canvas.width),
                           VoxelsBetween(std::min(a.position_mm.y, b.position_mm.y) - reach,
                                         std::max(a.position_mm.y, b.position_mm.y) + reach, canvas.first_mm.y,
                                         canvas.spacing_mm.y, canvas.height)};
    for (int iy = window.y.first; iy <= window.y.last; ++iy) {
        float* row = canvas.coverage.data() + static_cast<std::size_t>(iy) * static_cast<std::size_t>(canvas.width);
        for (int ix = window.x.first; ix <= window.x.last; ++ix) {
            const double distance = CapsuleDistance({canvas.X(ix), canvas.Y(iy), z}, a, b);
            row[ix] = std::max(row[ix], static_cast<float>(Coverage(distance, edge_mm)));
        }
    }
    return window;
}

// Blends the tube's coverage into the slice and clears the scratch again.
void PaintTube(const Tube& tube, Canvas& canvas) {
    Window touched = {{canvas.width, -1}, {canvas.height, -1}};
    for (std::size_t i = 0; i < tube.points.size(); ++i) {
        const Window w = CoverCapsule(tube.points[i], tube.points[std::min(i + 1, tube.points.size() - 1)], canvas);
        if (w.x.first <= w.x.last && w.y.first <= w.y.last) {
            touched.x = {std::min(touched.x.first, w.x.first), std::max(touched.x.last, w.x.last)};
            touched.y = {std::min(touched.y.first, w.y.first), std::max(touched.y.last, w.y.last)};
        }
    }
    for (int iy = touched.y.first; iy <= touched.y.last; ++iy) {
        for (int ix = touched.x.first; ix <= touched.x.last; ++ix) {
            const std::size_t i =
                static_cast<std::size_t>(iy) * static_cast<std::size_t>(canvas.width) + static_cast<std::size_t>(ix);
            if (canvas.coverage[i] > 0.0F) {
                Blend(canvas, i, canvas.coverage[i], tube.value_hu, tube.label);
                canvas.coverage[i] = 0.0F;
            }
        }
    }
}

// Nearly normal noise of standard deviation 1: the sum of eight bytes of a hash, centred and scaled.
float Noise(std::uint64_t seed, std::uint64_t voxel) {
    const std::uint64_t h = Mixed(seed ^ (voxel * 0xD1342543DE82EF95ULL));
    const std::uint64_t pairs = (h & 0x00FF00FF00FF00FFULL) + ((h >> 8) & 0x00FF00FF00FF00FFULL);
    const std::uint64_t sum = (pairs * 0x0001000100010001ULL) >> 48;
    return (static_cast<float>(sum) - 1020.0F) * (1.0F / 209.0F);
}

void StoreSlice(const Canvas& canvas, std::uint64_t seed, double noise_hu, std::size_t first_voxel, Phantom& phantom) {
    for (std::size_t i = 0; i < canvas.values.size(); ++i) {
        const float value = canvas.values[i] + static_cast<float>(noise_hu) * Noise(seed, first_voxel + i);
        phantom.voxels[first_voxel + i] = static_cast<std::int16_t>(std::lround(std::clamp(value, -1024.0F, 3071.0F)));
    }
    std::copy(canvas.labels.begin(), canvas.labels.end(),
              phantom.labels.begin() + static_cast<std::ptrdiff_t>(first_voxel));
}

}  // namespace

void Paint(const Shapes& shapes, std::uint32_t seed, double noise_hu, Phantom& phantom) {
    const auto [nx, ny, nz] = phantom.size;
    const std::size_t slice_voxels = static_cast<std::size_t>(nx) * static_cast<std::size_t>(ny);
    phantom.voxels.resize(slice_voxels * static_cast<std::size_t>(nz));
    phantom.labels.resize(phantom.voxels.size());
    const Vec3 s = phantom.spacing_mm;
    const Vec3 first_mm = {-0.5 * (nx - 1) * s.x, -0.5 * (ny - 1) * s.y, -0.5 * (nz - 1) * s.z};
    const std::uint64_t noise_seed = Mixed(seed);

    ForEachIndex(nz, [&, width = nx, height = ny](int iz) {
        Canvas canvas{width, height, s, first_mm + Vec3{0.0, 0.0, iz * s.z}, {}, {}, {}};
        canvas.values.assign(slice_voxels, static_cast<float>(kAirHu));
        canvas.labels.assign(slice_voxels, kLabelOutside);
        canvas.coverage.assign(slice_voxels, 0.0F);
        for (const Ellipsoid& e : shapes.ellipsoids) {
            PaintEllipsoid(e, canvas);
        }
        for (const Block& b : shapes.blocks) {
            PaintBlock(b, iz, canvas);
        }
        for (const Tube& t : shapes.tubes) {
            PaintTube(t, canvas);
        }
        StoreSlice(canvas, noise_seed, noise_hu, slice_voxels * static_cast<std::size_t>(iz), phantom);
    });
}

}  // namespace scene::phantom
