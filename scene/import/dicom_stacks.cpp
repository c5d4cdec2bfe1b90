#include "scene/import/dicom_stacks.h"

#include <algorithm>
#include <functional>
#include <map>
#include <set>
#include <tuple>

#include "scene/import/import_context.h"
#include "scene/import/stack_plan.h"

namespace scene::import {

namespace {

constexpr double kSameDirection = 1e-3;  // largest difference of unit vectors within a stack
constexpr double kSameSpacing = 1e-3;    // largest relative difference of pixel spacings within a stack

using Frames = std::vector<DicomFrame>;

bool IsClose(const Vec3& a, const Vec3& b) {
    return Length(AddScaled(a, b, -1.0)) < kSameDirection;
}
bool IsCloseRatio(double a, double b) {
    return std::abs(a - b) < kSameSpacing * std::max(a, b);
}

bool FitTogether(const DicomFrame& a, const DicomFrame& b) {
    const auto identity = [](const DicomFile& file) {
        return std::tie(file.series_uid, file.rows, file.columns, file.modality, file.is_inverted);
    };
    return identity(*a.file) == identity(*b.file) && IsClose(a.along_row, b.along_row) &&
           IsClose(a.along_column, b.along_column) && IsCloseRatio(a.row_step_mm, b.row_step_mm) &&
           IsCloseRatio(a.column_step_mm, b.column_step_mm);
}

std::vector<Frames> GroupByFit(Frames frames) {
    std::vector<Frames> groups;
    for (DicomFrame& frame : frames) {
        const auto home = std::find_if(groups.rbegin(), groups.rend(),
                                       [&](const Frames& group) { return FitTogether(group.front(), frame); });
        if (home != groups.rend()) {
            home->push_back(std::move(frame));
        } else {
            groups.push_back({std::move(frame)});
        }
    }
    return groups;
}

double PositionAlongNormal(const DicomFrame& frame, const DicomFrame& reference) {
    return Dot(frame.position_mm, Cross(reference.along_row, reference.along_column));
}

// Ties fall to path and frame, so that the outcome never depends on the order of the folder.
void SortByPosition(Frames& frames) {
    const DicomFrame reference = frames.front();
    std::sort(frames.begin(), frames.end(), [&](const DicomFrame& a, const DicomFrame& b) {
        const double position_a = PositionAlongNormal(a, reference), position_b = PositionAlongNormal(b, reference);
        return std::tie(position_a, a.file->path, a.index) < std::tie(position_b, b.file->path, b.index);
    });
}

bool HasEqualPositions(const Frames& sorted) {
    for (std::size_t i = 1; i < sorted.size(); ++i) {
        const double step = PositionAlongNormal(sorted[i], sorted[0]) - PositionAlongNormal(sorted[i - 1], sorted[0]);
        if (step < kEqualPositionMm) {
            return true;
        }
    }
    return false;
}

// A way to part the frames of a group, and how to name the parts.
struct Criterion {
    const char* name;
    std::function<std::string(const DicomFrame&)> value;
};

std::string NumberText(const std::optional<int>& number) {
    return number ? std::to_string(*number) : std::string();
}

// A part of a group with the notes that set it apart.
struct Part {
    Frames frames;
    std::string note;
    int time_index = 0, num_times = 1;
};

std::vector<Part> PartBy(const Part& part, const Criterion& criterion) {
    std::map<std::pair<std::size_t, std::string>, Part> by_value;  // numbers in order of their length, then digits
    for (const DicomFrame& frame : part.frames) {
        const std::string value = criterion.value(frame);
        Part& target = by_value[{value.size(), value}];
        target.frames.push_back(frame);
        target.time_index = part.time_index;
        target.num_times = part.num_times;
        target.note = part.note + (part.note.empty() ? "" : ", ") + criterion.name + " " + value;
    }
    std::vector<Part> parts;
    parts.reserve(by_value.size());
    for (auto& [value, own] : by_value) {
        parts.push_back(std::move(own));
    }
    return parts;
}

// Whether several acquisitions of a group lie over one another or far apart, so that they are separate volumes. Those
// that continue each other with the group's step are one volume, taken piece by piece.
bool AreSeparateAcquisitions(const Frames& sorted) {
    struct Interval {
        double low, high;
        int count;
    };
    std::map<int, Interval> intervals;
    for (const DicomFrame& frame : sorted) {
        const double position = PositionAlongNormal(frame, sorted[0]);
        const auto [entry, is_new] =
            intervals.try_emplace(frame.file->acquisition.value_or(0), Interval{position, position, 0});
        entry->second.high = position;
        ++entry->second.count;
    }
    if (intervals.size() < 2) {
        return false;
    }
    std::vector<Interval> ordered;
    ordered.reserve(intervals.size());
    for (const auto& [acquisition, interval] : intervals) {
        ordered.push_back(interval);
    }
    std::sort(ordered.begin(), ordered.end(), [](const auto& a, const auto& b) { return a.low < b.low; });
    for (std::size_t i = 1; i < ordered.size(); ++i) {
        const Interval &before = ordered[i - 1], &after = ordered[i];
        if (after.low < before.high + kEqualPositionMm) {
            return true;
        }
        const int num_steps = before.count + after.count - 2;
        const double mean_step = (before.high - before.low + after.high - after.low) / std::max(num_steps, 1);
        if (before.count > 2 && after.count > 2 && after.low - before.high > 3.0 * mean_step) {
            return true;
        }
    }
    return false;
}

// Parts a group until no part has two images at one place, by what usually sets them apart; a part that nothing sets
// apart stays as it is and is refused when chosen.
std::vector<Part> PartGroup(Frames frames) {
    static const Criterion kAcquisition = {"acquisition",
                                           [](const DicomFrame& f) { return NumberText(f.file->acquisition); }};
    static const Criterion kTime = {"time", [](const DicomFrame& f) { return NumberText(f.time); }};
    static const Criterion kKind = {"kind", [](const DicomFrame& f) { return f.kind; }};

    // Last, because anonymised series may have a frame of reference for each slice.
    static const Criterion kSpace = {"frame of reference",
                                     [](const DicomFrame& f) { return f.file->frame_of_reference_uid; }};

    SortByPosition(frames);
    std::vector<Part> parts = {{std::move(frames), "", 0, 1}};
    for (const Criterion* criterion : {&kAcquisition, &kKind, &kTime, &kSpace}) {
        std::vector<Part> next;
        for (Part& part : parts) {
            const bool is_apart =
                criterion == &kAcquisition ? AreSeparateAcquisitions(part.frames) : HasEqualPositions(part.frames);
            std::vector<Part> finer = is_apart ? PartBy(part, *criterion) : std::vector<Part>();
            if (finer.size() < 2) {
                next.push_back(std::move(part));
                continue;
            }
            for (std::size_t i = 0; criterion == &kTime && i < finer.size(); ++i) {
                finer[i].time_index = static_cast<int>(i);
                finer[i].num_times = static_cast<int>(finer.size());
            }
            std::move(finer.begin(), finer.end(), std::back_inserter(next));
        }
        parts = std::move(next);
    }
    return parts;
}

DicomStack MakeStack(Part part) {
    DicomStack stack;
    const DicomFile& file = *part.frames.front().file;
    stack.info.uid = file.series_uid;
    stack.info.modality = file.modality;
    stack.info.description = file.description;
    stack.info.dims = {file.columns, file.rows, static_cast<int>(part.frames.size())};
    stack.info.note = OneLine(part.note);
    stack.time_index = part.time_index;
    stack.num_times = part.num_times;
    stack.frames = std::move(part.frames);
    return stack;
}

double NumVoxels(const DicomStack& stack) {
    return double(stack.info.dims[0]) * stack.info.dims[1] * stack.info.dims[2];
}

// Numbers are the scanner's series numbers where these are unique: the largest stack of a number keeps it, and of equal
// ones the first. Others get the numbers above.
void NumberStacks(std::vector<DicomStack>& stacks) {
    std::vector<DicomStack*> by_size;
    int highest = 0;
    for (DicomStack& stack : stacks) {
        by_size.push_back(&stack);
        stack.info.number = -1;
        highest = std::max(highest, std::min(stack.frames.front().file->series_number.value_or(0), 1 << 30));
    }
    std::stable_sort(by_size.begin(), by_size.end(),
                     [](const DicomStack* a, const DicomStack* b) { return NumVoxels(*a) > NumVoxels(*b); });
    std::set<int> taken;
    for (DicomStack* const stack : by_size) {
        const auto number = stack->frames.front().file->series_number;
        if (number && *number >= 0 && *number <= (1 << 30) && taken.insert(*number).second) {
            stack->info.number = *number;
        }
    }
    for (DicomStack& stack : stacks) {
        if (stack.info.number < 0) {
            stack.info.number = ++highest;
        }
    }
    by_size.front()->info.is_default = true;
}

}  // namespace

std::vector<DicomStack> SortIntoStacks(std::vector<DicomFrame> frames) {
    std::vector<DicomStack> stacks;
    for (Frames& group : GroupByFit(std::move(frames))) {
        for (Part& part : PartGroup(std::move(group))) {
            stacks.push_back(MakeStack(std::move(part)));
        }
    }
    if (!stacks.empty()) {
        NumberStacks(stacks);
    }
    std::stable_sort(stacks.begin(), stacks.end(),
                     [](const DicomStack& a, const DicomStack& b) { return a.info.number < b.info.number; });
    return stacks;
}

const DicomStack& ChooseStack(const std::vector<DicomStack>& stacks, const ImportOptions& options,
                              const std::string& what) {
    // Find the series: the largest stack that answers to the name, or the default.
    const DicomStack* chosen = nullptr;
    for (const DicomStack& stack : stacks) {
        const bool is_meant = options.series.empty() ? stack.info.is_default
                                                     : options.series == stack.info.uid ||
                                                           options.series == std::to_string(stack.info.number);
        if (is_meant && (!chosen || NumVoxels(stack) > NumVoxels(*chosen))) {
            chosen = &stack;
        }
    }
    if (!chosen) {
        std::string numbers;
        for (const DicomStack& stack : stacks) {
            numbers += (numbers.empty() ? "" : ", ") + std::to_string(stack.info.number);
        }
        Refuse(what, "no series " + options.series, "it holds " + numbers);
    }

    // Find the time within it.
    if (options.time_index < 0) {
        return *chosen;
    }
    for (const DicomStack& stack : stacks) {
        if (stack.info.uid == chosen->info.uid && stack.num_times == chosen->num_times &&
            stack.time_index == options.time_index) {
            return stack;
        }
    }
    Refuse(what, "no time point " + std::to_string(options.time_index),
           "it has " + std::to_string(chosen->num_times) + ", numbered from 0");
}

std::vector<SeriesInfo> Describe(const std::vector<DicomStack>& stacks) {
    std::vector<SeriesInfo> series(stacks.size());
    std::transform(stacks.begin(), stacks.end(), series.begin(), [](const DicomStack& stack) { return stack.info; });
    return series;
}

}  // namespace scene::import
