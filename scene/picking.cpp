#include "scene/picking.h"

#include "ip_volr/IP_VesselClassification.h"
#include "ip_volr/IP_VolDataAccess.h"
#include "scene/error.h"

#include <algorithm>
#include <cmath>
#include <limits>

namespace scene {

namespace {

// What the ray caster leaves out at each end of columns and rows; of the slices, half a voxel.
constexpr double kUndrawnEdgeVox = 2.5;
constexpr double kUndrawnSliceVox = 0.5;

// A range of the parameter of a line.
struct Interval {
    double first = -std::numeric_limits<double>::infinity();
    double last = std::numeric_limits<double>::infinity();

    // Keeps where value + t * slope >= 0.
    void Keep(double value, double slope) {
        if (slope > 0.0) {
            first = std::max(first, -value / slope);
        } else if (slope < 0.0) {
            last = std::min(last, -value / slope);
        } else if (value < 0.0) {
            last = -std::numeric_limits<double>::infinity();
        }
    }
    bool IsUsable() const { return first < last && std::isfinite(first) && std::isfinite(last); }
};

// Reads stored values and opacities at points of a ray.
class RayReader {
public:
    RayReader(VolumeSource& source, IP_VolData* tissues, const OpacityTables& opacities) : m_Opacities(opacities) {
        m_Data.attach(source.Volume());
        m_TissueData.attach(tissues);
        m_HasTissues = tissues != nullptr && m_TissueData.width() == m_Data.width() &&
                       m_TissueData.height() == m_Data.height() && m_TissueData.depth() == m_Data.depth();
    }

    double OpacityPerMm(const Vec3& voxel) {
        const std::array<double, 3> point = ToArray(voxel);
        return m_HasTissues ? vessel_opacity_sample(m_Data, m_TissueData, m_Opacities.Tables(), point.data(), 1.0)
                            : vessel_opacity_sample(m_Data, m_Opacities.Tables(), point.data(), 1.0);
    }
    int Stored(const Vec3& voxel) { return vessel_trilinear_sample(m_Data, ToArray(voxel).data()); }

private:
    voldata_manager m_Data;
    voldata_manager m_TissueData;
    bool m_HasTissues = false;
    const OpacityTables& m_Opacities;
};

// Where on the ray (voxels from its start) the greatest contribution to the colour lies; negative when nothing is
// visible. Samples stand half a voxel apart.
double DominantPlace(RayReader& reader, const ViewingRay& ray) {
    constexpr double kStepVox = 0.5;
    const double step_mm = kStepVox * ray.voxel_mm;
    double transparency = 1.0;
    double greatest = 0.0;
    double place = -1.0;
    for (double t = 0.0; t < ray.length && transparency > greatest; t += kStepVox) {
        const double opacity = reader.OpacityPerMm(ray.At(t));
        if (opacity <= 0.0) {
            continue;
        }
        const double contribution = transparency * (1.0 - std::pow(1.0 - opacity, step_mm));
        transparency -= contribution;
        if (contribution > greatest) {
            greatest = contribution;
            place = t;
        }
    }
    return place;
}

PickedPoint Shown(const VolumeSource& source, const Vec3& place_vox, double value) {
    PickedPoint point{PickOutcome::kShown, source.PatientPosition(place_vox), value, {}, 0.0};
    const std::array<double, 3> place = ToArray(place_vox);
    for (std::size_t axis = 0; axis < 3; ++axis) {
        const long last = source.Info().dims[axis] - 1;
        point.voxel[axis] = static_cast<int>(std::clamp(std::lround(place[axis]), 0L, last));
    }
    point.voxel_value = source.Rescaled(source.StoredAt(point.voxel));
    return point;
}

PickedPoint Nothing(PickOutcome outcome) {
    PickedPoint point;
    point.outcome = outcome;
    return point;
}

}  // namespace

std::optional<ViewingRay> RayOfRendering(const VolumeSource& source, const Camera& camera,
                                         const std::vector<ClipPlane>& planes, double pixel_x, double pixel_y) {
    const Vec3 on_plane_mm = camera.PositionOnPlane(pixel_x, pixel_y);
    const Vec3 on_plane = source.VoxelIndex(on_plane_mm);
    const Vec3 along_mm = source.VoxelIndex(on_plane_mm + camera.into) - on_plane;
    const double voxels_per_mm = Length(along_mm);
    const double voxel_mm = 1.0 / voxels_per_mm;
    const Vec3 direction = along_mm * voxel_mm;

    // Cut at the faces of what is drawn, then at the planes.
    Interval inside;
    const std::array<double, 3> at = ToArray(on_plane);
    const std::array<double, 3> step = ToArray(direction);
    for (std::size_t axis = 0; axis < 3; ++axis) {
        const double edge = (axis == 2 ? kUndrawnSliceVox : kUndrawnEdgeVox) - 0.5;
        inside.Keep(at[axis] - edge, step[axis]);
        inside.Keep(source.Info().dims[axis] - 1.0 - edge - at[axis], -step[axis]);
    }
    for (const ClipPlane& p : planes) {
        const Vec3 normal = {p.a, p.b, p.c};
        inside.Keep(Dot(normal, on_plane_mm) + p.d, Dot(normal, camera.into) * voxel_mm);
    }
    if (!inside.IsUsable()) {
        return std::nullopt;
    }
    return ViewingRay{on_plane + direction * inside.first, direction, inside.last - inside.first, voxel_mm};
}

std::optional<ViewingRay> RayOfProjection(Projection& projection, double pixel_x, double pixel_y) {
    const std::optional<IP_MIPRay> ray = projection.Ray(pixel_x, pixel_y);
    if (!ray) {
        return std::nullopt;
    }
    return ViewingRay{{ray->start[0], ray->start[1], ray->start[2]},
                      {ray->direction[0], ray->direction[1], ray->direction[2]},
                      ray->length,
                      ray->voxel_size};
}

OpacityTables::OpacityTables(const std::array<const std::uint32_t*, 16>& colours, const StoredValues& values) {
    const std::ptrdiff_t count = std::ptrdiff_t{1} << values.bits;
    const std::ptrdiff_t origin = values.is_signed ? count / 2 : 0;
    m_Entries.reserve(colours.size());
    for (std::size_t i = 0; i < colours.size(); ++i) {
        const auto same = std::find(colours.begin(), colours.begin() + static_cast<std::ptrdiff_t>(i), colours[i]);
        if (same != colours.begin() + static_cast<std::ptrdiff_t>(i)) {
            m_Tables[i] = m_Tables[static_cast<std::size_t>(same - colours.begin())];
            continue;
        }
        std::vector<unsigned>& entries = m_Entries.emplace_back();
        std::transform(colours[i] - origin, colours[i] - origin + count, std::back_inserter(entries),
                       [](std::uint32_t colour) { return colour >> 24; });
        m_Tables[i] = entries.data() + origin;
    }
}

std::string_view Text(PickOutcome outcome) {
    switch (outcome) {
        case PickOutcome::kShown:
            return "the pixel shows this point";
        case PickOutcome::kMissesVolume:
            return "the line of sight misses the volume";
        case PickOutcome::kNothingVisible:
            return "nothing on the line of sight is visible";
    }
    return "";
}

PickedPoint PickOnProjection(Projection& projection, VolumeSource& source, double pixel_x, double pixel_y) {
    const std::optional<IP_MIPPick> pick = projection.Pick(pixel_x, pixel_y);
    if (!pick) {
        const bool meets = projection.Ray(pixel_x, pixel_y).has_value();
        return Nothing(meets ? PickOutcome::kNothingVisible : PickOutcome::kMissesVolume);
    }
    return Shown(source, {pick->voxel[0], pick->voxel[1], pick->voxel[2]}, pick->rescaled);
}

PickedPoint PickOnRendering(VolumeSource& source, IP_VolData* tissues, const OpacityTables& opacities,
                            const std::optional<ViewingRay>& ray) {
    PickedPoint picked = Nothing(PickOutcome::kMissesVolume);
    if (!ray) {
        return picked;
    }
    ReadVoxels([&] {
        RayReader reader(source, tissues, opacities);
        const double place = DominantPlace(reader, *ray);
        picked = place < 0.0 ? Nothing(PickOutcome::kNothingVisible)
                             : Shown(source, ray->At(place), source.Rescaled(reader.Stored(ray->At(place))));
    });
    return picked;
}

void ReadVoxels(const std::function<void()>& read) {
    try {
        read();
    } catch (const map_failure_exception&) {
        throw Error(ErrorKind::kFailed, "pick", "a slice cannot be brought back to memory",
                    "free memory and try again");
    } catch (const invalid_argument_exception&) {
        throw Error(ErrorKind::kFailed, "pick", "a slice on the line of sight is missing", "read the volume again");
    } catch (const invalid_type_exception&) {
        throw Error(ErrorKind::kFailed, "pick", "a slice does not hold 16-bit values", "read the volume again");
    }
}

}  // namespace scene
