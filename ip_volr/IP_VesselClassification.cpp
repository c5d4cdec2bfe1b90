#include "ip_volr/IP_VesselClassification.h"

#include "ip_volr/IP_VesselTrace.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <cstddef>
#include <limits>

namespace {

using ip_volr::vessel_trace;

constexpr char kFunction[] = "is_vessel_internal_voxel";

// Limits of the classes, in Hounsfield units, inclusive.
constexpr int kBackgroundBelow = 50;
constexpr int kCalcificationAbove = 750;
constexpr int kThinLow = 50;
constexpr int kThinHigh = 350;
constexpr int kMediumLow = 100;
constexpr int kMediumHigh = 450;
constexpr int kHighLow = 300;
constexpr int kHighHigh = 750;

constexpr int kNumSamples = 7;
constexpr int kUntouchedTissueTable = 15;

int truncate_to_int(double value) {
    if (std::isnan(value)) {
        return 0;
    }
    constexpr double lowest = std::numeric_limits<int>::min();
    constexpr double highest = std::numeric_limits<int>::max();
    return static_cast<int>(std::clamp(value, lowest, highest));
}

// One axis of an interpolation: the two voxels around a coordinate and the weight of the second.
struct AxisCell {
    int i0;
    int i1;
    double fraction;
};

AxisCell axis_cell(double coordinate, int size) {
    // The comparison is written so that a coordinate that is not a number becomes 0.
    const double inside = coordinate > 0.0 ? std::min(coordinate, static_cast<double>(size - 1)) : 0.0;
    const int i0 = static_cast<int>(inside);
    return {i0, std::min(i0 + 1, size - 1), inside - i0};
}

int nearest_voxel(double coordinate, int size) {
    return std::clamp(truncate_to_int(coordinate + 0.5), 0, size - 1);
}

double interpolate_slice(const short* pixels, int width, const AxisCell& cx, const AxisCell& cy) {
    const short* const row0 = pixels + static_cast<std::ptrdiff_t>(cy.i0) * width;
    const short* const row1 = pixels + static_cast<std::ptrdiff_t>(cy.i1) * width;
    const double r0 = row0[cx.i0] * (1.0 - cx.fraction) + row0[cx.i1] * cx.fraction;
    const double r1 = row1[cx.i0] * (1.0 - cx.fraction) + row1[cx.i1] * cx.fraction;
    return r1 * cy.fraction + r0 * (1.0 - cy.fraction);
}

double opacity_of_entry(const unsigned* table, short stored, double scale) {
    return table != nullptr ? (table[stored] & 0xFFU) * scale / 255.0 : 0.0;
}

bool has_inner_neighbourhood(const voldata_manager& data, const double point[3]) {
    const int size[3] = {data.width(), data.height(), data.depth()};
    for (int axis = 0; axis < 3; ++axis) {
        if (!(point[axis] >= 1.0 && point[axis] <= size[axis] - 2)) {
            return false;
        }
    }
    return true;
}

// The point, then x + 1, x - 1, y + 1, y - 1, z + 1, z - 1.
std::array<int, kNumSamples> sample_neighbourhood(voldata_manager& data, const double point[3], double slope,
                                                  double intercept) {
    std::array<int, kNumSamples> values{};
    values[0] = vessel_rescaled_sample(data, point, slope, intercept);
    for (int i = 1; i < kNumSamples; ++i) {
        double neighbour[3] = {point[0], point[1], point[2]};
        neighbour[(i - 1) / 2] += i % 2 != 0 ? 1.0 : -1.0;
        values[static_cast<std::size_t>(i)] = vessel_rescaled_sample(data, neighbour, slope, intercept);
    }
    return values;
}

template <class Values>
int count_within(const Values& values, int low, int high) {
    return static_cast<int>(std::count_if(values.begin(), values.end(), [=](int v) { return v >= low && v <= high; }));
}

}  // namespace

void RunningStatistics::Add(double value) {
    count += 1.0;
    sum += value;
    sum_of_squares += value * value;
}

VesselStatistics RunningStatistics::Statistics() const {
    if (count < 1.0) {
        return {};
    }
    // Rounding can leave a tiny negative variance for equal values.
    const double variance = count > 1.0 ? (sum_of_squares - sum * sum / count) / (count - 1.0) : 0.0;
    return {sum / count, std::sqrt(std::max(0.0, variance))};
}

RunningStatistics vessel_running_statistics(const short* first, const short* last, const RunningStatistics& initial) {
    RunningStatistics statistics = initial;
    std::for_each(first, last, [&](short value) { statistics.Add(value); });
    return statistics;
}

short vessel_trilinear_sample(voldata_manager& data, const double point[3]) {
    const AxisCell cx = axis_cell(point[0], data.width());
    const AxisCell cy = axis_cell(point[1], data.height());
    const AxisCell cz = axis_cell(point[2], data.depth());

    // The range around slice z1 still holds slice z0, so the first slice's value is taken before the second is fetched.
    const double lower = interpolate_slice(data.get_short_ptr(cz.i0), data.width(), cx, cy);
    const double upper = interpolate_slice(data.get_short_ptr(cz.i1), data.width(), cx, cy);
    return static_cast<short>(truncate_to_int(lower * (1.0 - cz.fraction) + upper * cz.fraction));
}

int vessel_rescaled_sample(voldata_manager& data, const double point[3], double slope, double intercept) {
    return truncate_to_int(vessel_trilinear_sample(data, point) * slope + intercept);
}

double vessel_opacity_sample(voldata_manager& data, const unsigned* const* colour_tables, const double point[3],
                             double scale) {
    return opacity_of_entry(colour_tables[kUntouchedTissueTable], vessel_trilinear_sample(data, point), scale);
}

double vessel_opacity_sample(voldata_manager& data, voldata_manager& tissues, const unsigned* const* colour_tables,
                             const double point[3], double scale) {
    const int xi = nearest_voxel(point[0], data.width());
    const int yi = nearest_voxel(point[1], data.height());
    const int zi = nearest_voxel(point[2], data.depth());

    // QUIRK(vessel-tissue-nibble): a reader expects the nibble of voxel y * width + x; the parity of x alone chooses
    // it, which is another voxel's in every second row of an odd width. Kept: callers rely on it.
    const auto byte_index =
        static_cast<std::size_t>(yi) * static_cast<std::size_t>(data.width()) / 2 + static_cast<std::size_t>(xi) / 2;
    const unsigned char pair = tissues.get_tisind_ptr(zi)[byte_index];
    const int tissue = xi % 2 != 0 ? pair >> 4 : pair & 0x0F;
    return opacity_of_entry(colour_tables[tissue], vessel_trilinear_sample(data, point), scale);
}

VesselClass is_vessel_internal_voxel(voldata_manager& data, const double point[3], double slope, double intercept,
                                     VesselStatistics& statistics) {
    if (!has_inner_neighbourhood(data, point)) {
        return kVesselNone;
    }
    const std::array<int, kNumSamples> values = sample_neighbourhood(data, point, slope, intercept);
    const int centre = values[0];
    const int maximum = *std::max_element(values.begin(), values.end());

    // Reject background, calcifications and their neighbours.
    const char* const rejected = centre < kBackgroundBelow       ? "c"
                                 : centre > kCalcificationAbove  ? "C"
                                 : maximum > kCalcificationAbove ? "M"
                                                                 : nullptr;
    if (rejected != nullptr) {
        vessel_trace(kFunction, rejected);
        return kVesselNone;
    }

    RunningStatistics running;
    std::for_each(values.begin(), values.end(), [&](int value) { running.Add(value); });
    statistics = running.Statistics();

    // Medium before high before thin: where several hold, the first one wins.
    if (count_within(values, kMediumLow, kMediumHigh) >= 6) {
        vessel_trace(kFunction, "Medium intensity vessel (m=%f std=%f)\n", statistics.mean, statistics.std);
        return kVesselMedium;
    }
    if (count_within(values, kHighLow, kHighHigh) == kNumSamples) {
        vessel_trace(kFunction, "High intensity vessel (m=%f std=%f)\n", statistics.mean, statistics.std);
        return kVesselHigh;
    }
    if (centre > kThinHigh || maximum > kThinHigh) {
        return kVesselNone;
    }
    if (count_within(values, kThinLow, kThinHigh) >= 3) {
        vessel_trace(kFunction, "Thin vessel (m=%f  std=%f)\n", statistics.mean, statistics.std);
        return kVesselThin;
    }
    vessel_trace(kFunction, ".");
    return kVesselNone;
}

bool vessel_value_is_member(int value, VesselClass vessel_class, const VesselStatistics& statistics) {
    const auto within = [&](int low, int high, double num_deviations) {
        const double reach = num_deviations * statistics.std;
        return value > std::max(low, truncate_to_int(statistics.mean - reach)) &&
               value < std::min(high, truncate_to_int(statistics.mean + reach));
    };
    switch (vessel_class) {
        case kVesselThin:
            return within(kThinLow, kThinHigh, 1.0);
        case kVesselMedium:
            return within(kMediumLow, kMediumHigh, 3.0);
        case kVesselHigh:
            return within(kHighLow, kHighHigh, 4.0);
        default:
            return value > kBackgroundBelow && value < kCalcificationAbove;
    }
}

bool vessel_contains(voldata_manager& data, const double point[3], double slope, double intercept,
                     VesselClass vessel_class, const VesselStatistics& statistics) {
    return vessel_value_is_member(vessel_rescaled_sample(data, point, slope, intercept), vessel_class, statistics);
}
