#include "ip_volr/IP_MIPProjectorFrame.h"

#include <algorithm>
#include <cmath>

namespace ip_volr {

int thick_slice_count(int count, float first_slice_z) {
    constexpr float kThickSlice = 1.2F;
    // Without a limit a volume far from the origin would ask for millions.
    constexpr float kMaxScale = 16.0F;
    const float scale = first_slice_z > kThickSlice ? std::min(first_slice_z / kThickSlice, kMaxScale) : 1.0F;
    return static_cast<int>(static_cast<float>(count) * scale);
}

kernels::MipWeightRamp MipDepthWeight::ramp(int column, int row, int sheet, int count) const {
    // Margins around the voxels may lie beyond both ends of the depth range.
    constexpr double kMost = 2147483647.0;
    const double start = at_origin + per_column * column + per_row * row + per_sheet * sheet;
    const double end = start + per_column * (count - 1);
    const double first = std::clamp(start, 0.0, kMost);
    const double last = std::clamp(end, 0.0, kMost);
    const double step = count > 1 ? (last - first) / (count - 1) : 0.0;
    return {static_cast<std::int32_t>(first), static_cast<std::int32_t>(step)};
}

bool MipFrame::is_visible(int stored_slice) const {
    for (int line = 0; line < stored_rows; line++) {
        const MipLineBounds b = line_bounds(stored_slice, line);
        if (b.first <= b.last) {
            return true;
        }
    }
    return false;
}

void MipFrame::sheets_in_rows(int row, int first_row, int last_row, int& first, int& last) const {
    // Rows of successive sheets only grow or only fall.
    const auto begin = sheets.begin();
    const auto end = sheets.end();
    const bool grows = sheets.empty() || sheets.front().y <= sheets.back().y;
    if (grows) {
        const auto is_before = [row](const MipPlacement& s, int limit) { return s.y + row < limit; };
        first = static_cast<int>(std::lower_bound(begin, end, first_row, is_before) - begin);
        last = static_cast<int>(std::lower_bound(begin, end, last_row, is_before) - begin);
    } else {
        const auto is_beyond = [row](const MipPlacement& s, int limit) { return s.y + row >= limit; };
        first = static_cast<int>(std::lower_bound(begin, end, last_row, is_beyond) - begin);
        last = static_cast<int>(std::lower_bound(begin, end, first_row, is_beyond) - begin);
    }
}

void MipFrame::make_tiles(int tiles, bool sheets_are_slices) {
    // Which stored slices of the batch there are.
    const auto is_there = [this](int slice) {
        return slice >= batch_first && slice < batch_last && stored[static_cast<std::size_t>(slice)] != nullptr;
    };
    int first = batch_first;
    int last = batch_last;
    while (first < last && !is_there(first)) {
        first++;
    }
    while (first < last && !is_there(last - 1)) {
        last--;
    }

    // Count the voxel rows of the batch that land on each picture row.
    std::vector<long long> rows(static_cast<std::size_t>(height) + 1, 0);
    for (const MipPlacement& sheet : sheets) {
        if (!sheets_are_slices) {
            rows[static_cast<std::size_t>(sheet.y + first)]++;
            rows[static_cast<std::size_t>(sheet.y + last)]--;
        } else if (is_there(sheet.stored_slice)) {
            rows[static_cast<std::size_t>(sheet.y)]++;
            rows[static_cast<std::size_t>(sheet.y + sheet_height)]--;
        }
    }
    long long total = 0;
    for (long long current = 0; long long& row : rows) {
        current += row;
        row = current;
        total += current;
    }

    tile_rows.assign(static_cast<std::size_t>(tiles) + 1, height);
    tile_rows[0] = 0;
    long long done = 0;
    int tile = 1;
    for (int y = 0; y < height && tile < tiles; y++) {
        done += rows[static_cast<std::size_t>(y)];
        while (tile < tiles && done * tiles >= total * tile) {
            tile_rows[static_cast<std::size_t>(tile++)] = y + 1;
        }
    }
}

}  // namespace ip_volr
