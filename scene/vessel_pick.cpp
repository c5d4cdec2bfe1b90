#include "scene/vessel_pick.h"

#include "ip_volr/IP_VolDataAccess.h"
#include "scene/error.h"

#include <nlohmann/json.hpp>

#include <array>
#include <limits>

namespace scene {

namespace {

constexpr int kNothingOnTheRay = 2;
constexpr int kTissueTables = 16;

const char* ClassName(VesselClass vessel_class) {
    switch (vessel_class) {
        case kVesselThin:
            return "thin";
        case kVesselMedium:
            return "medium";
        case kVesselHigh:
            return "high";
        default:
            return "none";
    }
}

VesselPick ToPick(const VolumeSource& source, int result, const double centre[3], const VesselSearchRecord& record) {
    VesselPick pick;
    pick.found = record.outcome == kVesselSearchFound;
    pick.vessel_class = pick.found ? ClassName(record.vessel_class) : "none";
    pick.reason = vessel_search_outcome_text(record.outcome);
    pick.length_mm = pick.found ? record.length_mm : 0.0;
    if (result != kNothingOnTheRay) {
        pick.centre_voxel = Vec3{centre[0], centre[1], centre[2]};
        pick.centre_mm = source.PatientPosition(*pick.centre_voxel);
    }
    if (record.picked_index >= 0) {
        pick.picked_mm =
            source.PatientPosition({record.picked_point[0], record.picked_point[1], record.picked_point[2]});
    }
    return pick;
}

// Runs a search; its access exceptions become an error of the tool.
template <class Search>
VesselPick Run(const VolumeSource& source, const ViewingRay& ray, Search search) {
    const std::array<double, 3> start = ToArray(ray.start_voxel);
    const std::array<double, 3> direction = ToArray(ray.direction_voxel);
    double centre[3] = {0.0, 0.0, 0.0};
    VesselSearchRecord record;
    int result = kNothingOnTheRay;
    try {
        result = search(start.data(), direction.data(), centre, record);
    } catch (const map_failure_exception& e) {
        throw Error(ErrorKind::kFailed, "vessel", e.what(), "free memory and try again");
    }
    return ToPick(source, result, centre, record);
}

}  // namespace

VesselPick FindVesselOnProjection(VolumeSource& source, const ViewingRay& ray) {
    return Run(source, ray,
               [&](const double* start, const double* direction, double* centre, VesselSearchRecord& record) {
                   int running_maximum = std::numeric_limits<int>::min();
                   return find_vessel_center_mip(source.Volume(), nullptr, start, direction, ray.voxel_size_mm,
                                                 ray.length_voxels, centre, running_maximum, &record);
               });
}

VesselPick FindVesselOnRendering(VolumeSource& source, const TransferTables& tables, const ViewingRay& ray) {
    const std::size_t count = std::size_t{1} << source.Stored().bits;
    const std::size_t origin = source.Stored().is_signed ? count / 2 : 0;
    std::vector<unsigned> opacity(count);
    for (std::size_t i = 0; i < count; ++i) {
        opacity[i] = (tables.Colours() - origin)[i] >> 24;
    }
    std::array<const unsigned*, kTissueTables> all;
    all.fill(opacity.data() + origin);
    return Run(source, ray,
               [&](const double* start, const double* direction, double* centre, VesselSearchRecord& record) {
                   double opacity_state[2] = {0.0, 0.0};
                   return find_vessel_center_volr(source.Volume(), nullptr, all.data(), start, direction,
                                                  ray.voxel_size_mm, ray.length_voxels, centre, opacity_state, &record);
               });
}

std::string MarkupsJson(const std::vector<VesselPick>& picks) {
    using Json = nlohmann::ordered_json;
    Json points = Json::array();
    for (std::size_t i = 0; i < picks.size(); ++i) {
        if (picks[i].centre_mm) {
            points.push_back({{"id", std::to_string(i + 1)},
                              {"label", "vessel-" + std::to_string(i + 1)},
                              {"description", picks[i].vessel_class},
                              {"position", ToArray(*picks[i].centre_mm)},
                              {"selected", true},
                              {"visibility", true},
                              {"positionStatus", "defined"}});
        }
    }
    const Json markup = {
        {"type", "Fiducial"}, {"coordinateSystem", "LPS"}, {"coordinateUnits", "mm"}, {"controlPoints", points}};
    Json json;
    json["@schema"] =
        "https://raw.githubusercontent.com/slicer/slicer/master/Modules/Loadable/Markups/Resources/Schema/"
        "markups-schema-v1.0.3.json#";
    json["markups"] = Json::array({markup});
    return json.dump(2) + "\n";
}

}  // namespace scene
