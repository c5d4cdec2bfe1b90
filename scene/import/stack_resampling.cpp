#include "scene/import/stack_resampling.h"

#include <algorithm>
#include <cmath>
#include <limits>
#include <vector>

namespace scene::import {

namespace {

constexpr double kOnSliceVox = 0.05;  // a grid slice so near to a slice of the stack is that slice
constexpr float kNothing = std::numeric_limits<float>::quiet_NaN();

// The slices of a stack as they are read.
struct SourceSlices {
    const std::int16_t* values;
    int columns, rows;
    bool is_signed;

    float At(const std::int16_t* slice, int column, int row) const {
        const std::int16_t value = slice[std::size_t(row) * columns + column];
        return is_signed ? value : static_cast<std::uint16_t>(value);
    }
    const std::int16_t* Slice(std::size_t index) const { return values + index * columns * rows; }
};

// The two slices around a place and the weight of the second.
struct Neighbours {
    std::size_t first, second;
    float weight;
};

Neighbours FindNeighbours(const std::vector<StackPlan::SlicePlace>& places, double slice_vox) {
    const auto above = std::upper_bound(places.begin(), places.end(), slice_vox,
                                        [](double value, const auto& place) { return value < place.slice_vox; });
    const auto second = static_cast<std::size_t>(above - places.begin());
    if (second == 0 || second == places.size()) {
        const std::size_t end = second == 0 ? 0 : places.size() - 1;
        return {end, end, 0.0f};
    }
    const double low = places[second - 1].slice_vox, high = places[second].slice_vox;
    if (slice_vox - low < kOnSliceVox) {
        return {second - 1, second - 1, 0.0f};
    }
    if (high - slice_vox < kOnSliceVox) {
        return {second, second, 0.0f};
    }
    return {second - 1, second, static_cast<float>((slice_vox - low) / (high - low))};
}

// One row of the grid out of one shifted slice; kNothing where the slice does not reach.
void SampleRow(const SourceSlices& source, std::size_t index, const StackPlan::SlicePlace& place, int row,
               std::vector<float>& out) {
    // Split the shift into whole and part.
    const double row_vox = row - place.row_vox;
    const int row0 = static_cast<int>(std::floor(row_vox)), row1 = std::min(row0 + 1, source.rows - 1);
    const auto row_weight = static_cast<float>(row_vox - row0);
    std::fill(out.begin(), out.end(), kNothing);
    if (row0 < 0 || row0 >= source.rows || (row0 == source.rows - 1 && row_weight > kOnSliceVox)) {
        return;
    }
    const double start_vox = -place.column_vox;
    const int whole = static_cast<int>(std::floor(start_vox));
    const auto weight = static_cast<float>(start_vox - whole);

    // Walk along the row.
    const std::int16_t* const slice = source.Slice(index);
    for (int i = 0; i < static_cast<int>(out.size()); ++i) {
        const int column0 = i + whole;
        if (column0 < 0 || column0 >= source.columns || (column0 == source.columns - 1 && weight > kOnSliceVox)) {
            continue;
        }
        const int column1 = std::min(column0 + 1, source.columns - 1);
        const float top = source.At(slice, column0, row0) * (1.0f - weight) + source.At(slice, column1, row0) * weight;
        const float low = source.At(slice, column0, row1) * (1.0f - weight) + source.At(slice, column1, row1) * weight;
        out[static_cast<std::size_t>(i)] = top * (1.0f - row_weight) + low * row_weight;
    }
}

}  // namespace

void ResampleSlice(const StackPlan& plan, int slice, const std::int16_t* stack, int columns, int rows, bool is_signed,
                   int outside, std::int16_t* out) {
    const SourceSlices source = {stack, columns, rows, is_signed};
    const Neighbours near = FindNeighbours(plan.places, slice);
    std::vector<float> first(static_cast<std::size_t>(plan.dims[0])), second(first.size());
    for (int row = 0; row < plan.dims[1]; ++row) {
        SampleRow(source, near.first, plan.places[near.first], row, first);
        if (near.weight > 0.0f) {
            SampleRow(source, near.second, plan.places[near.second], row, second);
        }
        for (std::size_t column = 0; column < first.size(); ++column) {
            const float value = near.weight > 0.0f ? first[column] * (1.0f - near.weight) + second[column] * near.weight
                                                   : first[column];
            const int rounded = std::isnan(value) ? outside : static_cast<int>(std::lrint(value));
            *out++ = static_cast<std::int16_t>(rounded);
        }
    }
}

}  // namespace scene::import
