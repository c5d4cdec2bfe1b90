// Working state of a maximum-intensity projection while its frame is drawn. Internal to the library.
#pragma once

#include "host/images.h"
#include "host/memory_pager.h"
#include "ip_volr/kernels/mip_kernels.h"

#include <cstddef>
#include <vector>

namespace ip_volr {

// How many sheets draw `count` stored slices, by the z (mm) of their first slice: one for each, more when that
// exceeds 1.2.
int thick_slice_count(int count, float first_slice_z);

// First pixel of a mapped picture block: the first boundary of 64 bytes in it.
short* picture_pixels(MEM_PagerInfo& mapped);

// Keeps a block mapped.
class MappedBlock {
public:
    explicit MappedBlock(MEM_PagerInfo& info) : m_Info(info), m_IsMapped(info.Map() == 0) {}
    ~MappedBlock() {
        if (m_IsMapped) {
            m_Info.Unmap();
        }
    }
    MappedBlock(const MappedBlock&) = delete;
    MappedBlock& operator=(const MappedBlock&) = delete;

    bool is_mapped() const { return m_IsMapped; }

private:
    MEM_PagerInfo& m_Info;
    const bool m_IsMapped;
};

// A slice of the working box, one sheet of voxels across the viewing direction, and its place in the picture. Voxel (0,
// 0) stands at picture pixel (x, y).
struct MipPlacement {
    int x_aligned;     // column rounded down to a group of eight pixels
    int x_in_group;    // 0 to 7
    int y;             // row
    int stored_slice;  // direction 2: index in the stored slices that the sheet shows

    int x() const { return x_aligned + x_in_group; }
};

// Weight of a voxel by its depth: linear in its column, its row and its sheet, in units of 2^-31.
struct MipDepthWeight {
    double at_origin = 0.0;
    double per_column = 0.0;
    double per_row = 0.0;
    double per_sheet = 0.0;

    // The ramp along a row of `count` voxels from `column` on, limited to weights from 0 to below 1.
    kernels::MipWeightRamp ramp(int column, int row, int sheet, int count) const;
};

// How the linear path samples a sheet: each pixel blends the voxel it is nearest to with a neighbour column and a
// neighbour row. A sheet that stands exactly on the picture's grid is not blended.
struct MipResampling {
    kernels::MipBilinear weights;
    int row_step;  // -1 or 1: the neighbour row
    bool is_on_grid;
};

// Inclusive bounds of the voxels of a line that count; first > last when none do.
struct MipLineBounds {
    int first;
    int last;
};

struct MipFrame {
    // The picture: width x height pixels without gaps.
    std::int16_t* pixels = nullptr;
    int width = 0;
    int height = 0;

    // The sheets of the working box.
    int sheet_width = 0;
    int sheet_height = 0;
    std::vector<MipPlacement> sheets;
    std::vector<MipResampling> resampling;  // of each sheet, on the linear path
    bool weighted = false;
    MipDepthWeight weight;

    // The stored slices. Direction 2: a sheet is a stored slice. Otherwise row r of sheet s is row s of stored slice r.
    int stored_width = 0;
    int stored_rows = 0;
    std::vector<const std::int16_t*> stored;  // mapped voxels by position in the data, null when not there
    int batch_first = 0;                      // stored slices of the batch, [first, last)
    int batch_last = 0;
    int batch_margin = 0;  // slices needed beyond each end of the batch

    // Clipping bounds of the stored lines, or null: pairs, line l of stored slice s at 2 * ((first_slice + s) *
    // stored_rows + l), in 32 or in 16 bits.
    const int* bounds = nullptr;
    const short* bounds_lin = nullptr;
    int first_slice = 0;
    std::vector<short> own_bounds_lin;

    // Rows of the picture that each subtask of a pass draws: subtask i has [tile_rows[i], tile_rows[i + 1]).
    std::vector<int> tile_rows;

    // Linear path with transposed slices: two blocks for each subtask, in the pool (mapped) or, where it is too small,
    // in own memory.
    std::vector<std::int16_t*> transposed;
    std::vector<MEM_PagerInfo*> pool_blocks;
    std::vector<std::int16_t> own_transposed;
    // Linear path: the source's slices, null where one is missing, and their size before transposition.
    std::vector<IP_Slice*> source_slices;
    int source_width = 0;
    int source_rows = 0;

    const kernels::MipKernels* kernels = nullptr;

    MipLineBounds line_bounds(int stored_slice, int line) const {
        const std::size_t pair =
            2 * (static_cast<std::size_t>(first_slice + stored_slice) * static_cast<std::size_t>(stored_rows) +
                 static_cast<std::size_t>(line));
        if (bounds != nullptr) {
            return {bounds[pair], bounds[pair + 1]};
        }
        if (bounds_lin != nullptr) {
            return {bounds_lin[pair], bounds_lin[pair + 1]};
        }
        return {0, stored_width - 1};
    }
    bool is_clipped() const { return bounds != nullptr || bounds_lin != nullptr; }
    // Whether any line of a stored slice is left by the clipping planes.
    bool is_visible(int stored_slice) const;

    const std::int16_t* stored_row(int stored_slice, int row) const {
        return stored[static_cast<std::size_t>(stored_slice)] +
               static_cast<std::size_t>(row) * static_cast<std::size_t>(stored_width);
    }
    std::int16_t* picture_pixel(int row, int column) const {
        return pixels + static_cast<std::size_t>(row) * static_cast<std::size_t>(width) + column;
    }

    // The sheets [first, last) of which row `row` lies in the picture rows [first_row, last_row).
    void sheets_in_rows(int row, int first_row, int last_row, int& first, int& last) const;

    // Cuts the picture's rows into `tiles` parts on which about the same number of the batch's voxel rows land. A sheet
    // is a stored slice, or else a row of each.
    void make_tiles(int tiles, bool sheets_are_slices);
};

// Unmaps the pool's blocks of a frame at the end of its life.
class TransposedBlocks {
public:
    explicit TransposedBlocks(MipFrame& f) : m_Frame(f) {}
    ~TransposedBlocks() {
        for (MEM_PagerInfo* block : m_Frame.pool_blocks) {
            block->Unmap();
        }
        m_Frame.pool_blocks.clear();
        m_Frame.transposed.clear();
    }
    TransposedBlocks(const TransposedBlocks&) = delete;
    TransposedBlocks& operator=(const TransposedBlocks&) = delete;

private:
    MipFrame& m_Frame;
};

}  // namespace ip_volr
