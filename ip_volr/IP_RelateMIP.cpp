// The search on a maximum-intensity projection: the vessel may lie on either side of the brightest voxel of the ray, so
// both are searched and the brighter vessel is taken.
#include "ip_volr/IP_Relate.h"
#include "ip_volr/IP_VesselRay.h"
#include "ip_volr/IP_VesselTrace.h"

namespace {

using namespace ip_volr;

constexpr char kFunction[] = "find_vessel_center_mip";

constexpr int kNothingQualified = 2;
constexpr int kCentreWritten = 1;

// What one ray direction found.
struct DirectionResult {
    VesselSearchOutcome outcome = kVesselSearchNoVessel;
    VesselCandidate vessel;
    int lower_wall_index = -1;
    int upper_wall_index = -1;

    bool Found() const { return outcome == kVesselSearchFound; }
};

// The brightest sample that is no calcification and above the running maximum, or -1.
int find_brightest_sample(VesselRaySampler& sampler, int& running_maximum) {
    int first = 0;
    int last = 0;
    sampler.SamplesInside(first, last);

    int brightest = -1;
    for (int i = first; i < last; ++i) {
        if (!sampler.Counts(i)) {
            continue;
        }
        const int value = sampler.Value(i);
        if (value > running_maximum && value <= kVesselCalcificationAbove) {
            running_maximum = value;
            brightest = i;
        }
    }
    return brightest;
}

// Walks from the brightest sample to the first point inside a vessel; the class stays 0 when there is none.
VesselCandidate find_internal_point(VesselRaySampler& sampler, int brightest, int direction, bool& calcified) {
    vessel_trace(kFunction, "Searching for internal vessel point, direction = %d\n", direction);
    VesselCandidate candidate;
    calcified = false;
    for (int j = brightest; j >= 0 && j < sampler.Ray().NumSamples(); j += direction) {
        if (!sampler.Counts(j)) {
            vessel_trace(kFunction, "T");
            break;
        }
        const int value = sampler.Value(j);
        if (calcified && value < kVesselBackgroundBelow) {
            break;
        }
        if (sampler.IsWall(j, value)) {
            vessel_trace(kFunction, "+");
            continue;
        }
        const VesselClass found = sampler.Classify(j, candidate.statistics);
        if (found == kVesselNone) {
            calcified = calcified || value > kVesselCalcificationAbove;
            vessel_trace(kFunction, "-");
            continue;
        }
        if (found == kVesselThin && (value < sampler.Value(j - 1) || value < sampler.Value(j + 1))) {
            vessel_trace(kFunction, "t");
            continue;
        }
        candidate.vessel_class = found;
        candidate.internal_index = j;
        break;
    }
    return candidate;
}

// Whether the walls are those of a vessel of its class.
VesselSearchOutcome check_width(const VesselRay& ray, const DirectionResult& result, int direction) {
    const int width = result.upper_wall_index - result.lower_wall_index;
    const bool thin = result.vessel.vessel_class == kVesselThin;
    if (thin && width >= kThinVesselBelow) {
        vessel_trace(kFunction,
                     "find_vessel_center_mip() direction=%d FAILED: Thin vessel not very thin: steps = %d...\n",
                     direction, width);
        return kVesselSearchThinTooThick;
    }
    if (!thin && width <= kThickVesselAbove) {
        vessel_trace(kFunction,
                     "find_vessel_center_mip() direction=%d FAILED: Thick vessel not very thick: steps = %d...\n",
                     direction, width);
        return kVesselSearchThickTooThin;
    }
    vessel_trace(kFunction, "find_vessel_center_mip() direction=%d SUCCESS: vessel length = %f mm\n", direction,
                 width * ray.StepMm());
    return kVesselSearchFound;
}

DirectionResult search_direction(VesselRaySampler& sampler, int brightest, int direction) {
    DirectionResult result;
    bool calcified = false;
    result.vessel = find_internal_point(sampler, brightest, direction, calcified);
    if (result.vessel.vessel_class == kVesselNone) {
        vessel_trace(kFunction, "find_vessel_center_mip(): direction=%d failed Vessel not found!\n", direction);
        return result;
    }
    if (calcified) {
        vessel_trace(kFunction, "Calcification detected in first stage\n");
    }
    // QUIRK(vessel-mip-calcification-direction): a reader expects the check to follow the direction of the search; it
    // always steps towards the end of the ray. Kept: callers rely on it.
    if (result.vessel.vessel_class == kVesselHigh) {
        check_for_calcification(sampler, kFunction, result.vessel);
    }
    trace_vessel_class(kFunction, result.vessel.vessel_class);

    vessel_trace(kFunction, "Searching for vessel bounds\n");
    switch (find_vessel_walls(sampler, kFunction, result.vessel, result.lower_wall_index, result.upper_wall_index)) {
        case WallSearchResult::kNoBounds:
            vessel_trace(kFunction, "find_vessel_center_mip() direction=%d FAILED: unable to detect vessel bounds!\n",
                         direction);
            result.outcome = kVesselSearchNoBounds;
            break;
        case WallSearchResult::kTooManyPasses:
            vessel_trace(kFunction, "find_vessel_center_mip() direction=%d FAILED: Max iterations exceeded!\n",
                         direction);
            result.outcome = kVesselSearchUnstable;
            break;
        case WallSearchResult::kFound:
            result.outcome = check_width(sampler.Ray(), result, direction);
            break;
    }
    return result;
}

// The direction to report, with its line in the log. When neither found a vessel, the one that came further.
const DirectionResult& choose_direction(const DirectionResult& forward, const DirectionResult& backward) {
    if (forward.Found() && backward.Found()) {
        const bool backward_brighter = forward.vessel.statistics.mean < backward.vessel.statistics.mean;
        vessel_trace(kFunction,
                     backward_brighter
                         ? "find_vessel_center_mip(): Vessel found in both directions! Taking direction -1.\n"
                         : "find_vessel_center_mip(): Vessel found in both directions! Taking direction +1.\n");
        return backward_brighter ? backward : forward;
    }
    if (forward.Found()) {
        vessel_trace(kFunction, "find_vessel_center_mip(): Vessel found in direction +1!\n");
        return forward;
    }
    if (backward.Found()) {
        vessel_trace(kFunction, "find_vessel_center_mip(): Vessel found in direction -1!\n");
        return backward;
    }
    vessel_trace(kFunction, "find_vessel_center_mip(): Vessel not found!\n");
    return forward.outcome == kVesselSearchNoVessel ? backward : forward;
}

}  // namespace

int find_vessel_center_mip(IP_VolData* data, const IP_ListVol* mask, const double start[3], const double direction[3],
                           double voxel_size_mm, double length, double centre[3], int& running_maximum,
                           VesselSearchRecord* record) {
    VesselSearchRecord own_record;
    VesselSearchRecord& result = record != nullptr ? *record : own_record;
    result = VesselSearchRecord();

    const VesselRay ray(start, direction, voxel_size_mm, length);
    VesselRaySampler sampler(data, ray);
    sampler.UseMask(mask);

    // Find the voxel that the user sees.
    result.picked_index = find_brightest_sample(sampler, running_maximum);
    if (result.picked_index < 0) {
        vessel_trace(kFunction, "find_vessel_center_mip(): No voxels found!\n");
        return kNothingQualified;
    }
    vessel_trace(kFunction, "\n");
    ray.Point(result.picked_index, result.picked_point);

    // Search on both sides of it and choose.
    const DirectionResult forward = search_direction(sampler, result.picked_index, +1);
    const DirectionResult backward = search_direction(sampler, result.picked_index, -1);
    const DirectionResult& chosen = choose_direction(forward, backward);
    vessel_trace(kFunction, "\n");

    result.outcome = chosen.outcome;
    result.vessel_class = chosen.vessel.vessel_class;
    result.statistics = chosen.vessel.statistics;
    result.internal_index = chosen.vessel.internal_index;
    result.lower_wall_index = chosen.lower_wall_index;
    result.upper_wall_index = chosen.upper_wall_index;
    if (chosen.Found()) {
        result.length_mm = (chosen.upper_wall_index - chosen.lower_wall_index) * ray.StepMm();
        midpoint_of_samples(ray, chosen.lower_wall_index, chosen.upper_wall_index, centre);
    } else {
        ray.Point(result.picked_index, centre);
    }
    return kCentreWritten;
}
