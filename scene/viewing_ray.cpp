#include "scene/viewing_ray.h"

#include <algorithm>
#include <cmath>
#include <limits>

namespace scene {

namespace {

// Part of a line where value0 + t * slope >= 0, cut out of [first, last].
void KeepPositive(double value0, double slope, double& first, double& last) {
    if (std::abs(slope) < 1e-12) {
        if (value0 < 0.0) {
            last = -std::numeric_limits<double>::infinity();
        }
        return;
    }
    const double root = -value0 / slope;
    if (slope > 0.0) {
        first = std::max(first, root);
    } else {
        last = std::min(last, root);
    }
}

}  // namespace

std::optional<ViewingRay> RayThrough(const Camera& camera, const VolumeSource& source,
                                     const std::vector<ClipPlane>& planes, double pixel_x, double pixel_y) {
    const Vec3 on_plane = camera.PositionOnPlane(pixel_x, pixel_y);
    const Vec3 index = source.VoxelIndex(on_plane);
    const Vec3 index_per_mm = source.VoxelIndex(on_plane + camera.into) - index;
    double first = -std::numeric_limits<double>::infinity();
    double last = std::numeric_limits<double>::infinity();

    // The six faces, then the planes.
    const std::array<double, 3> at = ToArray(index);
    const std::array<double, 3> slope = ToArray(index_per_mm);
    for (std::size_t axis = 0; axis < 3; ++axis) {
        KeepPositive(at[axis], slope[axis], first, last);
        KeepPositive(source.Info().dims[axis] - 1.0 - at[axis], -slope[axis], first, last);
    }
    for (const ClipPlane& p : planes) {
        const Vec3 normal = {p.a, p.b, p.c};
        KeepPositive(Dot(normal, on_plane) + p.d, Dot(normal, camera.into), first, last);
    }
    if (!(last > first) || !std::isfinite(first) || !std::isfinite(last)) {
        return std::nullopt;
    }

    const double voxels_per_mm = Length(index_per_mm);
    ViewingRay ray;
    ray.start_mm = on_plane + camera.into * first;
    ray.direction_mm = camera.into;
    ray.length_mm = last - first;
    ray.start_voxel = index + index_per_mm * first;
    ray.direction_voxel = index_per_mm * (1.0 / voxels_per_mm);
    ray.length_voxels = ray.length_mm * voxels_per_mm;
    ray.voxel_size_mm = 1.0 / voxels_per_mm;
    return ray;
}

}  // namespace scene
