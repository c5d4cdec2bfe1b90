// The search on a volume rendering: from the voxel that dominates the pixel's colour into the vessel behind it.
#include "ip_volr/IP_Relate.h"
#include "ip_volr/IP_VesselRay.h"
#include "ip_volr/IP_VesselTrace.h"

#include <algorithm>

namespace {

using namespace ip_volr;

constexpr char kFunction[] = "find_vessel_center_volr";

constexpr int kNothingVisible = 2;
constexpr int kCentreWritten = 1;

// The vessel may begin this many half-steps in front of the dominant voxel, and this far behind it.
constexpr int kEntryReach = 10;
constexpr double kLongestCalcificationMm = 12.0;

// The sample with the greatest contribution to the colour, or -1. Stops once no later sample can exceed it.
int find_dominant_sample(VesselRaySampler& sampler, double opacity_state[2]) {
    double& accumulated = opacity_state[0];
    double& greatest = opacity_state[1];
    const double scale = sampler.Ray().StepMm();

    // Samples outside the volume contribute nothing.
    int first = 0;
    int last = 0;
    sampler.SamplesInside(first, last);

    int dominant = -1;
    for (int i = first; i < last; ++i) {
        const double contribution = std::min(1.0, (1.0 - accumulated) * sampler.Opacity(i, scale));
        if (contribution > greatest) {
            greatest = contribution;
            dominant = i;
        }
        accumulated += contribution;
        if (greatest > 1.0 - accumulated) {
            break;
        }
    }
    return dominant;
}

// Steps from just in front of the dominant sample to the first point inside a vessel. The class stays 0 when there is
// none; `calcified` tells whether the way led through a calcification.
VesselCandidate find_internal_point(VesselRaySampler& sampler, int dominant, bool& calcified) {
    vessel_trace(kFunction, "Searching for internal vessel point\n");
    VesselCandidate candidate;
    calcified = false;
    for (int j = dominant - 2; j < sampler.Ray().NumSamples(); ++j) {
        const int value = sampler.Value(j);
        if (calcified && value < kVesselBackgroundBelow) {
            break;
        }
        if (sampler.IsWall(j, value)) {
            vessel_trace(kFunction, "+");
            continue;
        }
        if (!sampler.Counts(j)) {
            if (calcified) {
                break;
            }
            vessel_trace(kFunction, "o");
            continue;
        }
        const VesselClass found = sampler.Classify(j, candidate.statistics);
        if (found == kVesselThin && (value < sampler.Value(j - 1) || value < sampler.Value(j + 1))) {
            vessel_trace(kFunction, "t");
            continue;
        }
        if (found == kVesselNone) {
            calcified = calcified || value > kVesselCalcificationAbove;
            vessel_trace(kFunction, "-");
            continue;
        }
        candidate.vessel_class = found;
        candidate.internal_index = j;
        break;
    }
    if (calcified) {
        vessel_trace(kFunction, "Calcification detected in first stage\n");
    }
    return candidate;
}

// Whether a vessel with these walls is one, seen from the dominant sample.
VesselSearchOutcome check_vessel(const VesselRay& ray, VesselClass vessel_class, int dominant, int lower, int upper) {
    const int width = upper - lower;
    const int offset = lower - dominant;
    const double offset_mm = offset * ray.StepMm();
    if (vessel_class == kVesselThin && width >= kThinVesselBelow) {
        vessel_trace(kFunction, "find_vessel_center_volr() failed: Thin vessel not very thin: steps = %d...\n", width);
        return kVesselSearchThinTooThick;
    }
    if (vessel_class != kVesselThin && width <= kThickVesselAbove) {
        vessel_trace(kFunction, "find_vessel_center_volr() failed: Thick vessel not very thick: steps = %d...\n",
                     width);
        return kVesselSearchThickTooThin;
    }
    if (offset < -kEntryReach) {
        vessel_trace(kFunction,
                     "find_vessel_center_volr() failed: Inconsistent entry point! Distance to dominant voxel = %f mm\n",
                     offset_mm);
        return kVesselSearchEntryTooFar;
    }
    if (offset_mm > kLongestCalcificationMm) {
        vessel_trace(kFunction, "find_vessel_center_volr() failed: Calcification longer than bound! Length = %f mm\n",
                     offset_mm);
        return kVesselSearchCalcificationTooLong;
    }
    if (offset > 0) {
        vessel_trace(kFunction, "Calcification length = %f mm\n", offset_mm);
    }
    vessel_trace(kFunction, "find_vessel_center_volr() success: vessel length = %f mm\n", width * ray.StepMm());
    vessel_trace(kFunction, "\n");
    return kVesselSearchFound;
}

// From the dominant sample to the vessel's walls; fills the record.
void search_from_dominant_sample(VesselRaySampler& sampler, VesselSearchRecord& record) {
    bool calcified = false;
    VesselCandidate candidate = find_internal_point(sampler, record.picked_index, calcified);
    if (candidate.vessel_class == kVesselNone) {
        vessel_trace(kFunction, "find_vessel_center_volr(): Vessel not found!\n");
        record.outcome = kVesselSearchNoVessel;
        return;
    }
    if (candidate.vessel_class == kVesselHigh) {
        check_for_calcification(sampler, kFunction, candidate);
    }
    trace_vessel_class(kFunction, candidate.vessel_class);

    vessel_trace(kFunction, "Searching for vessel bounds\n");
    const WallSearchResult walls =
        find_vessel_walls(sampler, kFunction, candidate, record.lower_wall_index, record.upper_wall_index);
    record.vessel_class = candidate.vessel_class;
    record.statistics = candidate.statistics;
    record.internal_index = candidate.internal_index;
    if (walls == WallSearchResult::kNoBounds) {
        vessel_trace(kFunction, "find_vessel_center_volr() failed: unable to detect vessel bounds!\n");
        record.outcome = kVesselSearchNoBounds;
        return;
    }
    if (walls == WallSearchResult::kTooManyPasses) {
        vessel_trace(kFunction, "find_vessel_center_volr() failed: Max iterations exceeded!\n");
        record.outcome = kVesselSearchUnstable;
        return;
    }
    record.length_mm = (record.upper_wall_index - record.lower_wall_index) * sampler.Ray().StepMm();
    record.outcome = check_vessel(sampler.Ray(), record.vessel_class, record.picked_index, record.lower_wall_index,
                                  record.upper_wall_index);
}

}  // namespace

int find_vessel_center_volr(IP_VolData* data, IP_VolData* tissues, const unsigned* const* colour_tables,
                            const double start[3], const double direction[3], double voxel_size_mm, double length,
                            double centre[3], double opacity_state[2], VesselSearchRecord* record) {
    VesselSearchRecord own_record;
    VesselSearchRecord& result = record != nullptr ? *record : own_record;
    result = VesselSearchRecord();

    // Without tables nothing is visible.
    static const unsigned* const no_tables[16] = {};
    const VesselRay ray(start, direction, voxel_size_mm, length);
    VesselRaySampler sampler(data, ray);
    sampler.UseOpacity(tissues, colour_tables != nullptr ? colour_tables : no_tables);

    // Find the voxel that the user sees.
    result.picked_index = find_dominant_sample(sampler, opacity_state);
    vessel_trace(kFunction, "\n");
    if (result.picked_index < 0) {
        vessel_trace(kFunction, "find_vessel_center_volr(): Non-transparent voxel not found!\n");
        return kNothingVisible;
    }
    ray.Point(result.picked_index, result.picked_point);

    // Find the vessel; every failure leaves the centre at the visible voxel.
    if (result.picked_index < 2) {
        result.outcome = kVesselSearchStartsInside;
    } else {
        search_from_dominant_sample(sampler, result);
    }
    if (result.outcome == kVesselSearchFound) {
        midpoint_of_samples(ray, result.lower_wall_index, result.upper_wall_index, centre);
    } else {
        ray.Point(result.picked_index, centre);
    }
    return kCentreWritten;
}
