#include "scene/import/stack_plan.h"

#include <algorithm>
#include <cmath>

#include "scene/import/import_context.h"

namespace scene::import {

namespace {

constexpr double kEvenPart = 0.05;      // of a slice step that a slice of an even stack may be off its place
constexpr double kEvenMm = 0.1;         // and in mm
constexpr double kStraightPart = 0.05;  // of a pixel that slices may be shifted sideways without resampling
constexpr double kGapRatio = 1.5;       // a step so many times as long as its neighbours has lost slices
constexpr int kNeighbours = 5;          // steps on either side that say what is usual
constexpr double kMostMissing = 0.1;    // part of the slices that may be missing
constexpr int kMostGrowth = 4;          // times as many slices may come out as went in
constexpr double kSteepestTilt = 1.2;   // sideways shift over distance: about 50 degrees
constexpr std::size_t kGapsNamed = 3;   // others are only counted

// A place where slices are missing.
struct Gap {
    std::size_t after = 0;  // index of the slice before it
    double step_mm = 0.0, usual_mm = 0.0;
    int num_missing = 0;
};

Vec3 NormalOf(const StackGeometry& geometry) {
    return Cross(geometry.along_row, geometry.along_column);
}

// Distance of each slice from the first along the normal.
std::vector<double> DistancesAlongNormal(const StackGeometry& geometry) {
    const Vec3 normal = NormalOf(geometry);
    std::vector<double> distances;
    for (const Vec3& position : geometry.positions_mm) {
        distances.push_back(Dot(AddScaled(position, geometry.positions_mm.front(), -1.0), normal));
    }
    return distances;
}

// "z = -550.8" where slices are axial, else the distance along the normal.
std::string PlaceText(const StackGeometry& geometry, std::size_t slice) {
    const Vec3 normal = NormalOf(geometry);
    const int axis = std::abs(normal[0]) > 0.9 ? 0 : std::abs(normal[1]) > 0.9 ? 1 : std::abs(normal[2]) > 0.9 ? 2 : -1;
    const Vec3& position = geometry.positions_mm[slice];
    return axis < 0 ? Text(Dot(position, normal)) + " mm along the normal"
                    : std::string(1, "xyz"[axis]) + " = " + Text(position[axis]) + " mm";
}

std::vector<double> StepsOf(const std::vector<double>& distances) {
    std::vector<double> steps;
    for (std::size_t i = 1; i < distances.size(); ++i) {
        steps.push_back(distances[i] - distances[i - 1]);
    }
    return steps;
}

// The element at a part of the sorted list; of two middle ones the smaller.
double Quantile(std::vector<double> values, double part) {
    std::sort(values.begin(), values.end());
    return values[static_cast<std::size_t>(part * static_cast<double>(values.size() - 1))];
}

// Steps much longer than the steps around them. Zones of different steps have no gap where they meet.
std::vector<Gap> FindGaps(const std::vector<double>& steps) {
    std::vector<Gap> gaps;
    const auto count = static_cast<int>(steps.size());
    for (int i = 0; i < count; ++i) {
        const auto first = steps.begin() + std::max(i - kNeighbours, 0);
        const auto last = steps.begin() + std::min(i + kNeighbours + 1, count);
        const double usual = Quantile({first, last}, 0.5), step = steps[static_cast<std::size_t>(i)];
        if (step > kGapRatio * usual) {
            const double num_missing = std::min(std::round(step / usual) - 1.0, 1e6);
            gaps.push_back({static_cast<std::size_t>(i), step, usual, static_cast<int>(num_missing)});
        }
    }
    return gaps;
}

std::string GapText(const StackGeometry& geometry, const Gap& gap) {
    return "between " + PlaceText(geometry, gap.after) + " and " + PlaceText(geometry, gap.after + 1) + " (" +
           Text(gap.step_mm) + " mm where " + Text(gap.usual_mm) + " mm is usual)";
}

void RefuseEqualPositions(const StackGeometry& geometry, const std::vector<double>& steps, const std::string& what) {
    for (std::size_t i = 0; i < steps.size(); ++i) {
        if (steps[i] < kEqualPositionMm) {
            Refuse(what, "several slices lie at " + PlaceText(geometry, i) + " and nothing tells them apart",
                   "keep the images of one acquisition only");
        }
    }
}

// Refuses when too much is missing; warns otherwise.
void JudgeGaps(const StackGeometry& geometry, const std::vector<Gap>& gaps, const std::string& what,
               std::vector<std::string>& warnings) {
    int num_missing = 0;
    for (const Gap& gap : gaps) {
        num_missing += gap.num_missing;
    }
    num_missing = std::max(num_missing, geometry.num_lost);
    const auto num_slices = static_cast<int>(geometry.positions_mm.size());
    if (num_missing > kMostMissing * (num_slices + num_missing)) {
        const auto widest = std::max_element(gaps.begin(), gaps.end(),
                                             [](const Gap& a, const Gap& b) { return a.num_missing < b.num_missing; });
        Refuse(what,
               std::to_string(num_missing) + " of " + std::to_string(num_slices + num_missing) + " slices are missing" +
                   (gaps.empty() ? ", their files are damaged" : ", " + GapText(geometry, *widest)),
               "get the whole series");
    }
    for (std::size_t i = 0; i < std::min(gaps.size(), kGapsNamed); ++i) {
        warnings.push_back(std::to_string(gaps[i].num_missing) +
                           (gaps[i].num_missing == 1 ? " slice is" : " slices are") + " missing " +
                           GapText(geometry, gaps[i]) + ": filled by interpolation");
    }
    if (gaps.size() > kGapsNamed) {
        warnings.push_back(std::to_string(gaps.size() - kGapsNamed) + " more gaps are filled by interpolation");
    }
}

bool IsEven(const std::vector<double>& distances, double step) {
    const double tolerance = std::min(kEvenPart * step, kEvenMm);
    for (std::size_t i = 0; i < distances.size(); ++i) {
        if (std::abs(distances[i] - static_cast<double>(i) * step) > tolerance) {
            return false;
        }
    }
    return true;
}

// Step and number of slices of an even grid over all distances. The step is the shortest that is usual, so that nothing
// is lost; the last slice of the grid lies on the last slice of the stack.
std::pair<double, int> EvenSteps(const std::vector<double>& distances, const std::vector<double>& steps) {
    const double extent = distances.back();
    const double finest = extent / (kMostGrowth * static_cast<double>(steps.size()));
    const double wanted = std::max(Quantile(steps, 0.1), finest);
    const double num_steps = std::ceil(extent / wanted - kEvenPart);
    return {extent / num_steps, static_cast<int>(num_steps) + 1};
}

// Chooses the grid along the normal.
void PlanSlices(const StackGeometry& geometry, const std::vector<double>& distances, const std::string& what,
                StackPlan& plan, double& step_mm) {
    const std::vector<double> steps = StepsOf(distances);
    RefuseEqualPositions(geometry, steps, what);
    const auto num_slices = static_cast<int>(distances.size());
    plan.dims[2] = num_slices;
    if (num_slices == 1) {
        JudgeGaps(geometry, {}, what, plan.warnings);
        step_mm = geometry.single_step_mm;
        plan.warnings.push_back("a single slice, taken to be " + Text(step_mm) + " mm thick");
        return;
    }

    // Even as it is.
    step_mm = distances.back() / (num_slices - 1);
    if (IsEven(distances, step_mm)) {
        JudgeGaps(geometry, {}, what, plan.warnings);
        return;
    }

    // Uneven: name the gaps, or say between what the steps vary.
    const std::vector<Gap> gaps = FindGaps(steps);
    JudgeGaps(geometry, gaps, what, plan.warnings);
    std::tie(step_mm, plan.dims[2]) = EvenSteps(distances, steps);
    plan.is_resampled = true;
    if (gaps.empty()) {
        const auto [least, most] = std::minmax_element(steps.begin(), steps.end());
        plan.warnings.push_back("slices are unevenly spaced, " + Text(*least) + " to " + Text(*most) +
                                " mm: resampled to " + std::to_string(plan.dims[2]) + " slices " + Text(step_mm) +
                                " mm apart");
    }
}

// Sideways shift of each slice against the first, in mm along rows and columns.
struct Shifts {
    std::vector<double> along_row, along_column;
};

Shifts ShiftsOf(const StackGeometry& geometry) {
    Shifts shifts;
    for (const Vec3& position : geometry.positions_mm) {
        const Vec3 offset = AddScaled(position, geometry.positions_mm.front(), -1.0);
        shifts.along_row.push_back(Dot(offset, geometry.along_row));
        shifts.along_column.push_back(Dot(offset, geometry.along_column));
    }
    return shifts;
}

// Refuses shifts that do not grow evenly with the distance: such slices are no stack.
void RefuseRandomShifts(const std::vector<double>& shifts, const std::vector<double>& distances, double pixel_mm,
                        const std::string& what) {
    const double slope = shifts.back() / distances.back();
    for (std::size_t i = 0; i < shifts.size(); ++i) {
        if (std::abs(shifts[i] - slope * distances[i]) > 2.0 * pixel_mm) {
            Refuse(what, "its slices do not lie one behind the other", "choose another series");
        }
    }
    if (std::abs(slope) > kSteepestTilt) {
        Refuse(what, "its slices are shifted sideways more than they are apart", "choose another series");
    }
}

// Widens the grid along one axis so that it covers all shifted slices; the least shift, where it starts.
double CoverShifts(const std::vector<double>& shifts, double pixel_mm, int& num_pixels) {
    const auto [least, most] = std::minmax_element(shifts.begin(), shifts.end());
    num_pixels += static_cast<int>(std::ceil((*most - *least) / pixel_mm - kStraightPart));
    return *least;
}

void PlanTilt(const StackGeometry& geometry, const std::vector<double>& distances, const std::string& what,
              StackPlan& plan, Vec3& origin_mm) {
    plan.dims[0] = geometry.columns;
    plan.dims[1] = geometry.rows;
    Shifts shifts = ShiftsOf(geometry);
    const auto is_shifted = [](const std::vector<double>& values, double pixel_mm) {
        return std::any_of(values.begin(), values.end(),
                           [=](double v) { return std::abs(v) > kStraightPart * pixel_mm; });
    };
    if (!is_shifted(shifts.along_row, geometry.column_step_mm) &&
        !is_shifted(shifts.along_column, geometry.row_step_mm)) {
        plan.places.resize(distances.size());
        return;
    }

    // Shear the slices back.
    RefuseRandomShifts(shifts.along_row, distances, geometry.column_step_mm, what);
    RefuseRandomShifts(shifts.along_column, distances, geometry.row_step_mm, what);
    const double tilt = std::hypot(shifts.along_row.back(), shifts.along_column.back()) / distances.back();
    const double first_row_shift = CoverShifts(shifts.along_row, geometry.column_step_mm, plan.dims[0]);
    const double first_column_shift = CoverShifts(shifts.along_column, geometry.row_step_mm, plan.dims[1]);
    for (std::size_t i = 0; i < distances.size(); ++i) {
        plan.places.push_back({0.0, (shifts.along_row[i] - first_row_shift) / geometry.column_step_mm,
                               (shifts.along_column[i] - first_column_shift) / geometry.row_step_mm});
    }
    origin_mm = AddScaled(origin_mm, geometry.along_row, first_row_shift);
    origin_mm = AddScaled(origin_mm, geometry.along_column, first_column_shift);
    plan.is_resampled = true;
    plan.warnings.push_back("slices are shifted sideways, a gantry tilt of " +
                            Text(std::round(std::atan(tilt) * 1800.0 / M_PI) / 10.0) +
                            " degrees: resampled to a straight grid");
}

}  // namespace

StackPlan PlanStack(const StackGeometry& geometry, const std::string& what) {
    // Plan along the normal, then within the planes.
    StackPlan plan;
    const std::vector<double> distances = DistancesAlongNormal(geometry);
    double step_mm = 1.0;
    PlanSlices(geometry, distances, what, plan, step_mm);
    Vec3 origin_mm = geometry.positions_mm.front();
    PlanTilt(geometry, distances, what, plan, origin_mm);
    for (std::size_t i = 0; i < distances.size(); ++i) {
        plan.places[i].slice_vox = distances[i] / step_mm;
    }

    // Write down the grid.
    SetColumn(plan.index_to_patient, 0, AddScaled({}, geometry.along_row, geometry.column_step_mm));
    SetColumn(plan.index_to_patient, 1, AddScaled({}, geometry.along_column, geometry.row_step_mm));
    SetColumn(plan.index_to_patient, 2, AddScaled({}, NormalOf(geometry), step_mm));
    SetColumn(plan.index_to_patient, 3, origin_mm);
    return plan;
}

}  // namespace scene::import
