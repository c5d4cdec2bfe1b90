#include "ip_volr/IP_VesselRay.h"

#include "ip_volr/IP_VesselTrace.h"

#include <algorithm>
#include <cmath>
#include <limits>

namespace ip_volr {

namespace {

constexpr int kMaxWallPasses = 16;
constexpr double kCalcificationReachMm = 6.0;
constexpr double kBackgroundMean = 100.0;

// No ray through a volume is this long; a caller's mistake ends here instead of stepping for minutes.
constexpr double kMostSamples = 1 << 22;

int number_of_samples(const double start[3], const double direction[3], double voxel_size_mm, double length) {
    bool finite = std::isfinite(voxel_size_mm) && std::isfinite(length);
    for (int axis = 0; axis < 3; ++axis) {
        finite = finite && std::isfinite(start[axis]) && std::isfinite(direction[axis]);
    }
    const bool moves = direction[0] != 0.0 || direction[1] != 0.0 || direction[2] != 0.0;
    return finite && moves && length > 0.0 ? static_cast<int>(std::min(2.0 * length, kMostSamples)) : 0;
}

}  // namespace

VesselRay::VesselRay(const double start[3], const double direction[3], double voxel_size_mm, double length)
    : m_Start{start[0], start[1], start[2]},
      m_Direction{direction[0], direction[1], direction[2]},
      m_VoxelSizeMm(voxel_size_mm),
      m_NumSamples(number_of_samples(start, direction, voxel_size_mm, length)) {}

void VesselRay::Point(int i, double point[3]) const {
    for (int axis = 0; axis < 3; ++axis) {
        point[axis] = m_Start[axis] + i / 2.0 * m_Direction[axis];
    }
}

void VesselRay::ClampToVolume(const int size[3], int& first, int& last) const {
    double lowest = first;
    double highest = last;
    for (int axis = 0; axis < 3; ++axis) {
        if (size[axis] <= 0) {
            last = first;
            return;
        }
        const double step = m_Direction[axis] / 2.0;
        const double to_low = -0.5 - m_Start[axis];
        const double to_high = size[axis] - 0.5 - m_Start[axis];
        if (step == 0.0) {
            // The ray runs along the axis' faces: all of it is inside, or nothing.
            if (to_low > 0.0 || to_high < 0.0) {
                highest = lowest;
            }
            continue;
        }
        lowest = std::max(lowest, std::min(to_low / step, to_high / step));
        highest = std::min(highest, std::max(to_low / step, to_high / step) + 1.0);
    }
    const double begin = std::min(std::ceil(lowest), static_cast<double>(last));
    const double end = std::clamp(std::floor(highest), begin, static_cast<double>(last));
    first = static_cast<int>(begin);
    last = static_cast<int>(end);
}

VesselRaySampler::VesselRaySampler(IP_VolData* data, const VesselRay& ray) : m_Ray(ray) {
    m_Data.attach(data);
    if (data != nullptr) {
        data->GetRescaleTrans(m_Slope, m_Intercept);
    }
}

void VesselRaySampler::UseOpacity(IP_VolData* tissues, const unsigned* const* colour_tables) {
    m_ColourTables = colour_tables;
    m_Tissues.attach(tissues);
    // A tissue volume of another size would be read beyond its end.
    m_HasTissues = tissues != nullptr && m_Tissues.width() == m_Data.width() && m_Tissues.height() == m_Data.height() &&
                   m_Tissues.depth() == m_Data.depth();
}

void VesselRaySampler::DataSize(int size[3]) const {
    size[0] = m_Data.width();
    size[1] = m_Data.height();
    size[2] = m_Data.depth();
}

void VesselRaySampler::SamplesInside(int& first, int& last) const {
    int size[3];
    DataSize(size);
    first = 0;
    last = m_Ray.NumSamples();
    m_Ray.ClampToVolume(size, first, last);
}

bool VesselRaySampler::InsideVolume(const double point[3]) const {
    int size[3];
    DataSize(size);
    bool inside = true;
    for (int axis = 0; axis < 3; ++axis) {
        inside = inside && point[axis] >= -0.5 && point[axis] <= size[axis] - 0.5;
    }
    return inside;
}

bool VesselRaySampler::InsideMask(const double point[3]) const {
    int size[3];
    int voxel[3];
    DataSize(size);
    for (int axis = 0; axis < 3; ++axis) {
        const double highest = std::max(0, size[axis] - 1);
        voxel[axis] = static_cast<int>(std::clamp(std::trunc(point[axis] + 0.5), 0.0, highest));
    }
    return m_Mask->GetPixel(voxel[0], voxel[1], voxel[2]) != 0;
}

int VesselRaySampler::Value(int i) {
    double point[3];
    m_Ray.Point(i, point);
    return vessel_rescaled_sample(m_Data, point, m_Slope, m_Intercept);
}

double VesselRaySampler::Opacity(int i, double scale) {
    double point[3];
    m_Ray.Point(i, point);
    if (!InsideVolume(point)) {
        return 0.0;
    }
    return m_HasTissues ? vessel_opacity_sample(m_Data, m_Tissues, m_ColourTables, point, scale)
                        : vessel_opacity_sample(m_Data, m_ColourTables, point, scale);
}

bool VesselRaySampler::Counts(int i) {
    if (m_ColourTables != nullptr) {
        return Opacity(i, 1.0) > kTransparentOpacity;
    }
    double point[3];
    m_Ray.Point(i, point);
    return m_Mask == nullptr || InsideMask(point);
}

bool VesselRaySampler::IsWall(int i, int value) {
    const int previous = Value(i - 1);
    const int next = Value(i + 1);
    return (previous < value && value < next) || (next < value && value < previous);
}

VesselClass VesselRaySampler::Classify(int i, VesselStatistics& statistics) {
    double point[3];
    m_Ray.Point(i, point);
    return is_vessel_internal_voxel(m_Data, point, m_Slope, m_Intercept, statistics);
}

void check_for_calcification(VesselRaySampler& sampler, const char* function, VesselCandidate& candidate) {
    vessel_trace(function, "Searching for calcifications\n");
    const double reach = kCalcificationReachMm / sampler.Ray().StepMm() + 3.0;
    const double end =
        std::min(std::trunc(reach) + candidate.internal_index, static_cast<double>(sampler.Ray().NumSamples()));

    VesselStatistics statistics = candidate.statistics;
    int num_medium = 0;
    for (int k = candidate.internal_index; k < end; ++k) {
        vessel_trace(function, ".");
        const int value = sampler.Value(k);
        if (value < kVesselBackgroundBelow || !sampler.Counts(k)) {
            return;
        }
        if (num_medium == 0 && sampler.IsWall(k, value)) {
            vessel_trace(function, "+");
            continue;
        }
        const VesselClass found = sampler.Classify(k, statistics);
        if (found == kVesselMedium && ++num_medium == 3) {
            candidate = {kVesselMedium, k, statistics};
            vessel_trace(function, "Calcification detected\n");
            return;
        }
        if (found == kVesselHigh) {
            num_medium = 0;
        } else if (found != kVesselMedium && statistics.mean < kBackgroundMean) {
            return;
        }
    }
}

void trace_vessel_class(const char* function, VesselClass vessel_class) {
    vessel_trace(function, vessel_class == kVesselThin     ? "Thin vessel found\n"
                           : vessel_class == kVesselMedium ? "Medium intensity vessel found\n"
                                                           : "High intensity vessel found\n");
}

WallSearchResult find_vessel_walls(VesselRaySampler& sampler, const char* function, VesselCandidate& candidate,
                                   int& lower_wall_index, int& upper_wall_index) {
    const int n = sampler.Ray().NumSamples();
    const int internal_value = sampler.Value(candidate.internal_index);
    const auto member = [&](int i, RunningStatistics& running) {
        if (!sampler.Counts(i)) {
            return false;
        }
        const int value = sampler.Value(i);
        if (!vessel_value_is_member(value, candidate.vessel_class, candidate.statistics)) {
            return false;
        }
        running.Add(value);
        return true;
    };

    int previous_lower = std::numeric_limits<int>::min();
    int previous_upper = std::numeric_limits<int>::min();
    for (int num_passes = 0; num_passes <= kMaxWallPasses;) {
        // The internal point counts twice, so that a vessel of one sample has a deviation.
        RunningStatistics running;
        running.Add(internal_value);
        running.Add(internal_value);

        // Walk to both walls.
        int lower = candidate.internal_index - 1;
        while (lower > 0 && member(lower, running)) {
            --lower;
        }
        int upper = candidate.internal_index + 1;
        while (upper < n && member(upper, running)) {
            ++upper;
        }
        if (lower <= 0 || upper >= n) {
            return WallSearchResult::kNoBounds;
        }
        if (lower == previous_lower && upper == previous_upper) {
            lower_wall_index = lower;
            upper_wall_index = upper;
            return WallSearchResult::kFound;
        }

        // Go again with the statistics of what lies between them.
        candidate.statistics = running.Statistics();
        previous_lower = lower;
        previous_upper = upper;
        vessel_trace(function, "Updating vessel values: mean=%f std=%f\n", candidate.statistics.mean,
                     candidate.statistics.std);
        ++num_passes;
    }
    return WallSearchResult::kTooManyPasses;
}

void midpoint_of_samples(const VesselRay& ray, int i, int j, double point[3]) {
    double a[3];
    double b[3];
    ray.Point(i, a);
    ray.Point(j, b);
    for (int axis = 0; axis < 3; ++axis) {
        point[axis] = (a[axis] + b[axis]) / 2.0;
    }
}

}  // namespace ip_volr
