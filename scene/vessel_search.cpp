#include "scene/vessel_search.h"

#include <limits>

namespace scene {

namespace {

// Both searches return this when nothing on the ray counts.
constexpr int kNothingOnRay = 2;

VesselPick Missed() {
    VesselPick pick;
    pick.reason = Text(PickOutcome::kMissesVolume);
    return pick;
}

VesselPick Described(const VolumeSource& source, int status, const double centre[3], const VesselSearchRecord& record) {
    VesselPick pick;
    pick.record = record;
    pick.found = status != kNothingOnRay && record.outcome == kVesselSearchFound;
    if (status != kNothingOnRay) {
        const double* const p = record.picked_point;
        pick.picked_mm = source.PatientPosition({p[0], p[1], p[2]});
    }
    if (!pick.found) {
        pick.reason = vessel_search_outcome_text(record.outcome);
        return pick;
    }
    pick.vessel_class = record.vessel_class;
    pick.centre_voxel = {centre[0], centre[1], centre[2]};
    pick.centre_mm = source.PatientPosition(pick.centre_voxel);
    pick.length_mm = record.length_mm;
    return pick;
}

}  // namespace

VesselPick FindVesselOnProjection(VolumeSource& source, const IP_ListVol* mask, const std::optional<ViewingRay>& ray) {
    if (!ray) {
        return Missed();
    }
    const std::array<double, 3> start = ToArray(ray->start);
    const std::array<double, 3> direction = ToArray(ray->direction);
    double centre[3] = {0.0, 0.0, 0.0};
    VesselSearchRecord record;
    int status = kNothingOnRay;
    ReadVoxels([&] {
        int running_maximum = std::numeric_limits<int>::min();  // below every rescaled value
        status = find_vessel_center_mip(source.Volume(), mask, start.data(), direction.data(), ray->voxel_mm,
                                        ray->length, centre, running_maximum, &record);
    });
    return Described(source, status, centre, record);
}

VesselPick FindVesselOnRendering(VolumeSource& source, IP_VolData* tissues, const OpacityTables& opacities,
                                 const std::optional<ViewingRay>& ray) {
    if (!ray) {
        return Missed();
    }
    const std::array<double, 3> start = ToArray(ray->start);
    const std::array<double, 3> direction = ToArray(ray->direction);
    double centre[3] = {0.0, 0.0, 0.0};
    VesselSearchRecord record;
    int status = kNothingOnRay;
    ReadVoxels([&] {
        double opacity_state[2] = {0.0, 0.0};
        status = find_vessel_center_volr(source.Volume(), tissues, opacities.Tables(), start.data(), direction.data(),
                                         ray->voxel_mm, ray->length, centre, opacity_state, &record);
    });
    return Described(source, status, centre, record);
}

std::string_view Name(VesselClass vessel_class) {
    switch (vessel_class) {
        case kVesselThin:
            return "thin";
        case kVesselMedium:
            return "medium";
        case kVesselHigh:
            return "high";
        case kVesselNone:
            break;
    }
    return "none";
}

}  // namespace scene
