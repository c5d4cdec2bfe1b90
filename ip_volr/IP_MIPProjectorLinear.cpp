// The linear path: source slices at full size, resampled bilinearly inside the slices across the viewing direction.
#include "ip_volr/IP_ClipCalculator.h"
#include "ip_volr/IP_MIPProjector.h"
#include "ip_volr/IP_MIPProjectorFrame.h"
#include "ip_volr/IP_MultiVolDataInc.h"
#include "ip_volr/IP_SliceChunk.h"
#include "ip_volr/IP_VOLR_Trace.h"
#include "ip_volr/IP_VolDataMIP.h"
#include "ip_volr/IP_VolRClipManager.h"

#include <algorithm>
#include <cmath>

using ip_volr::MipFrame;
using ip_volr::MipLineBounds;
using ip_volr::MipPlacement;
using ip_volr::MipResampling;
using ip_volr::kernels::MipBilinear;

namespace {

constexpr const char* kSource = "ip_volr/IP_MIPProjector";
constexpr unsigned kQuotaSlices = 200;
constexpr double kMostPoolVoxels = 4096.0 * 4096.0;  // of a slice that the pool holds
constexpr float kBytesPerVoxel = 2.0F;
constexpr int kStripBytes = 262144;
constexpr int kWeightOne = 32768;

// Splits a position into the nearest pixel and the rest, in [-0.5, 0.5).
int nearest(double position, double& fraction) {
    const double pixel = std::floor(position + 0.5);
    fraction = position - pixel;
    return static_cast<int>(pixel);
}

// A sheet shifted by (fx, fy) shows at its pixel (c, r) the point (c - fx, r - fy): the neighbours lie on that side.
MipResampling resampling(double fx, double fy) {
    const double wx = std::fabs(fx);
    const double wy = std::fabs(fy);
    const auto quantise = [](double w) { return static_cast<int>(w * kWeightOne + 0.5); };
    const int a1 = quantise(wx * (1.0 - wy));
    const int b0 = quantise((1.0 - wx) * wy);
    const int b1 = quantise(wx * wy);
    const int a0 = kWeightOne - a1 - b0 - b1;
    const bool is_on_grid = a0 == kWeightOne;
    MipResampling r;
    r.weights = {static_cast<std::int16_t>(is_on_grid ? 0 : a0), static_cast<std::int16_t>(a1),
                 static_cast<std::int16_t>(b0), static_cast<std::int16_t>(b1), fx > 0.0 ? -1 : 1};
    r.row_step = fy > 0.0 ? -1 : 1;
    r.is_on_grid = is_on_grid;
    return r;
}

// The lines that make one picture row of a sheet: the voxels' own line and its neighbour (null where there is none).
struct LinePair {
    const std::int16_t* near_line;
    const std::int16_t* far_line;
    MipLineBounds near_bounds;
    MipLineBounds far_bounds;
};

// Blends into `out`, by maximum or not. Voxels outside the bounds do not exist: the nearest one that does takes the
// place of a missing neighbour, first in the column, then in the row.
class LineResampler {
public:
    LineResampler(const MipFrame& f, const LinePair& lines, const MipBilinear& weights, std::int16_t* out,
                  bool keep_maximum)
        : m_Frame(f), m_Lines(lines), m_Weights(weights), m_Out(out), m_KeepMaximum(keep_maximum) {}

    // `out` stands for column near_bounds.first.
    void run() const {
        const MipLineBounds& line = m_Lines.near_bounds;
        MipLineBounds both{line.last + 1, line.last};
        if (m_Lines.far_line != nullptr) {
            both.first = std::max(line.first, m_Lines.far_bounds.first);
            both.last = std::min(line.last, m_Lines.far_bounds.last);
        }
        if (both.first > both.last) {
            segment(line, m_Lines.near_line);
            return;
        }
        segment({line.first, both.first - 1}, m_Lines.near_line);
        segment(both, m_Lines.far_line);
        segment({both.last + 1, line.last}, m_Lines.near_line);
    }

private:
    // Columns that share one far line: all but the end whose neighbour column lies beyond go through the kernel.
    void segment(MipLineBounds columns, const std::int16_t* far_line) const {
        if (columns.first > columns.last) {
            return;
        }
        const int end = m_Weights.step < 0 ? columns.first : columns.last;
        single(end);
        if (m_Weights.step < 0) {
            columns.first++;
        } else {
            columns.last--;
        }
        const std::size_t count = static_cast<std::size_t>(columns.last - columns.first + 1);
        const auto kernel = m_KeepMaximum ? m_Frame.kernels->max_row_bilinear : m_Frame.kernels->row_bilinear;
        kernel(m_Out + (columns.first - m_Lines.near_bounds.first), m_Lines.near_line + columns.first,
               far_line + columns.first, count, m_Weights);
    }

    int far_value(int column) const {
        const bool exists =
            m_Lines.far_line != nullptr && column >= m_Lines.far_bounds.first && column <= m_Lines.far_bounds.last;
        return exists ? m_Lines.far_line[column] : m_Lines.near_line[column];
    }

    void single(int column) const {
        const MipLineBounds& line = m_Lines.near_bounds;
        const int neighbour = std::clamp(column + m_Weights.step, line.first, line.last);
        const int sum = m_Weights.a0 * m_Lines.near_line[column] + m_Weights.a1 * m_Lines.near_line[neighbour] +
                        m_Weights.b0 * far_value(column) + m_Weights.b1 * far_value(neighbour);
        const auto value = static_cast<std::int16_t>((sum + kWeightOne / 2) >> 15);
        std::int16_t& pixel = m_Out[column - line.first];
        pixel = m_KeepMaximum ? std::max(pixel, value) : value;
    }

    const MipFrame& m_Frame;
    const LinePair& m_Lines;
    const MipBilinear& m_Weights;
    std::int16_t* const m_Out;
    const bool m_KeepMaximum;
};

// Composites row `row` of a sheet. `scratch` holds a line of voxels.
void composite_lines(const MipFrame& f, int sheet, int row, const LinePair& lines, std::vector<std::int16_t>& scratch) {
    const MipLineBounds& b = lines.near_bounds;
    if (b.first > b.last) {
        return;
    }
    const MipPlacement& place = f.sheets[static_cast<std::size_t>(sheet)];
    const MipResampling& how = f.resampling[static_cast<std::size_t>(sheet)];
    std::int16_t* const pixels = f.picture_pixel(place.y + row, place.x() + b.first);
    const int columns = b.last - b.first + 1;
    const std::size_t count = static_cast<std::size_t>(columns);
    if (f.weighted) {
        const std::int16_t* voxels = lines.near_line + b.first;
        if (!how.is_on_grid) {
            LineResampler(f, lines, how.weights, scratch.data(), false).run();
            voxels = scratch.data();
        }
        f.kernels->max_row_weighted(pixels, voxels, count, f.weight.ramp(b.first, row, sheet, columns));
    } else if (how.is_on_grid) {
        f.kernels->max_row(pixels, lines.near_line + b.first, count);
    } else {
        LineResampler(f, lines, how.weights, pixels, true).run();
    }
}

// The pair of line `line` of two stored slices; the far one may be missing.
LinePair line_pair(const MipFrame& f, const std::int16_t* near_slice, int near_index, const std::int16_t* far_slice,
                   int far_index, int line) {
    const std::size_t offset = static_cast<std::size_t>(line) * static_cast<std::size_t>(f.stored_width);
    LinePair pair{near_slice + offset, nullptr, f.line_bounds(near_index, line), {0, -1}};
    if (far_slice != nullptr) {
        pair.far_line = far_slice + offset;
        pair.far_bounds = f.line_bounds(far_index, line);
    }
    return pair;
}

}  // namespace

void IP_MIPProjector::LinProjectBox(IP_VolRParamsMIP* p, IP_VolRBoxParamsMIP* box, int k) {
    IP_VolData* const volume = p->m_VolData->GetVolData(k);
    int dims[3];
    volume->GetBox()->GetDims(dims);
    if (dims[0] <= 0 || dims[1] <= 0 || dims[2] <= 0) {
        return;
    }

    // Turn the volume's lattice to the viewer. Only the geometry is needed: the slices stay where they are.
    MipFrame& f = *m_Frame;
    IP_VolDataMIP lattice(volume->GetBox());
    lattice.Reset();
    IP_Box working_box;
    m_Dir = CalcDirSetDBox4Slow(&lattice, box->m_PhysToVirtual, &working_box, false);
    const bool transposed = lattice.GetCurrentDir();
    m_SliceCount = dims[2];
    m_SliceW = dims[transposed ? 1 : 0];
    m_SliceH = dims[transposed ? 0 : 1];
    f.source_slices.resize(static_cast<std::size_t>(dims[2]));
    for (int i = 0; i < dims[2]; i++) {
        // A slice of another size than the lattice holds nothing that could be placed.
        IP_Slice* const slice = volume->GetSlice(i);
        const bool fits =
            slice != nullptr && slice->GetAttributes().width == dims[0] && slice->GetAttributes().height == dims[1];
        f.source_slices[static_cast<std::size_t>(i)] = fits ? slice : nullptr;
    }
    m_Slices = f.source_slices.data();
    m_FirstSlice = 0;
    m_FirstWithData = volume->GetFirstSliceInd();
    f.stored_width = m_SliceW;
    f.stored_rows = m_SliceH;
    f.first_slice = 0;
    f.source_width = dims[0];
    f.source_rows = dims[1];
    scale_thick_slices(working_box);
    if (!place_slices(p, box, working_box, box->m_PhysToVirtual)) {
        m_IsComplete = false;
        return;
    }
    place_between_pixels(*box, working_box, box->m_PhysToVirtual);
    take_linear_bounds(p, k, transposed);

    // Composite.
    const ip_volr::MappedBlock picture(box->m_Picture);
    if (!picture.is_mapped()) {
        m_IsComplete = false;
        return;
    }
    clear_picture(*box, working_box);
    if (m_Dir == 2) {
        LinProjectXYSlices();
    } else {
        LinProjectXZSlices(p, transposed);
    }
}

void IP_MIPProjector::place_between_pixels(const IP_VolRBoxParamsMIP& box, IP_Box& working_box, float (&m)[4][4]) {
    MipFrame& f = *m_Frame;
    float shift[3];
    calc_zvec(shift, &working_box, m, m_Dir);
    f.resampling.resize(f.sheets.size());
    for (std::size_t s = 0; s < f.sheets.size(); s++) {
        double fx = 0.0;
        double fy = 0.0;
        const double steps = static_cast<double>(s);
        const int column =
            nearest(static_cast<double>(box.m_OriginX) - 0.5 + steps * static_cast<double>(shift[0]), fx);
        const int row = nearest(static_cast<double>(box.m_OriginY) - 0.5 + steps * static_cast<double>(shift[1]), fy);
        const int x = std::clamp(column, 0, f.width - f.sheet_width);
        f.sheets[s].x_aligned = x & ~7;
        f.sheets[s].x_in_group = x & 7;
        f.sheets[s].y = std::clamp(row, 0, f.height - f.sheet_height);
        f.resampling[s] = resampling(fx, fy);
    }
}

void IP_MIPProjector::take_linear_bounds(IP_VolRParamsMIP* p, int k, bool transposed) {
    MipFrame& f = *m_Frame;
    f.bounds = nullptr;
    f.bounds_lin = nullptr;
    if (m_ActiveClipPlanes == 0) {
        return;
    }
    const auto* const data =
        p->m_AltVolData != nullptr ? dynamic_cast<IP_VolDataProj*>(p->m_AltVolData->GetVolData(k)) : nullptr;
    if (data != nullptr) {
        f.bounds_lin = transposed ? data->GetYXCBoundsLin() : data->GetXYCBoundsLin();
    }
    if (f.bounds_lin == nullptr) {
        // Without prepared data that could keep them the bounds live as long as the frame.
        const IP_Box& lattice = *p->m_VolData->GetVolData(k)->GetBox();
        f.own_bounds_lin.resize(IP_ClipCalculator::NumberOfEntries(lattice, transposed));
        IP_ClipCalculator calculator(p->m_ClipManager);
        if (transposed) {
            calculator.CalculateYX(lattice, f.own_bounds_lin.data());
        } else {
            calculator.CalculateXY(lattice, f.own_bounds_lin.data());
        }
        f.bounds_lin = f.own_bounds_lin.data();
    }
}

void IP_MIPProjector::LinProjectXYSlices() {
    try {
        const int per_batch = slices_per_batch();
        m_NumBatches = m_SliceCount / per_batch + 1;
        for (m_Batch = 0; m_Batch < m_NumBatches; m_Batch++) {
            const int first = m_Batch * per_batch;
            const int last = std::min(m_SliceCount, first + per_batch);
            if (!run_batch(&IP_MIPProjector::subtask_lin_project_slices_xy, first, last, 0)) {
                IP_VOLR_TRACE(ip_volr::kTraceError, kSource, "IP_MIPProjector::LinProjectXYSlices",
                              "LinProjectXYSlices: Memory mapping failure!\n");
                m_IsComplete = false;
                return;
            }
        }
    } catch (const TCO_CANCEL_EXCEPTION&) {
        IP_VOLR_TRACE(ip_volr::kTraceInformation, kSource, "IP_MIPProjector::LinProjectXYSlices",
                      "LinProjectXYSlices: Cancelled\n");
        m_IsComplete = false;
    }
}

void IP_MIPProjector::LinProjectXZSlices(IP_VolRParamsMIP* p, bool transposed) {
    try {
        const ip_volr::TransposedBlocks blocks(*m_Frame);
        int per_batch = slices_per_batch();
        if (transposed) {
            take_transposed_blocks(p);
            const int quota = static_cast<int>(calc_slice_quota(static_cast<int>(kQuotaSlices), m_SliceCount));
            per_batch = std::min(per_batch, std::max(quota, 1));
        }
        m_NumBatches = m_SliceCount / per_batch + 1;
        for (m_Batch = 0; m_Batch < m_NumBatches; m_Batch++) {
            // Rows between two slices need both: one slice more at each end of the batch.
            const int first = m_Batch * per_batch;
            const int last = std::min(m_SliceCount, first + per_batch);
            if (!run_batch(&IP_MIPProjector::subtask_lin_project_slices_xz, first, last, 1)) {
                IP_VOLR_TRACE(ip_volr::kTraceError, kSource, "IP_MIPProjector::LinProjectXZSlices",
                              "LinProjectXZSlices: Memory mapping failure!\n");
                m_IsComplete = false;
                return;
            }
        }
    } catch (const TCO_CANCEL_EXCEPTION&) {
        IP_VOLR_TRACE(ip_volr::kTraceInformation, kSource, "IP_MIPProjector::LinProjectXZSlices",
                      "LinProjectXZSlices: Cancelled\n");
        m_IsComplete = false;
    }
}

void IP_MIPProjector::take_transposed_blocks(IP_VolRParamsMIP* p) {
    // A host that has not called Reset has no volume box yet; the pool takes its slice size from it.
    int dims[3];
    p->m_VolumeBox.GetDims(dims);
    if (dims[0] <= 0 || dims[1] <= 0 || dims[2] <= 0) {
        p->m_VolumeBox = *p->m_VolData->GetBoundingBox();
        p->m_VolumeBox.GetDims(dims);
    }
    // Volumes far from each other span a box of slices that fill the memory: the frame uses memory of its own then.
    if (static_cast<double>(dims[0]) * dims[1] <= kMostPoolVoxels) {
        allocate_quota_slice_chunk(p, kQuotaSlices, kBytesPerVoxel);
    }

    // Two blocks for each subtask: they stay in the cache from the transposition to the projection.
    MipFrame& f = *m_Frame;
    const std::size_t voxels = static_cast<std::size_t>(f.stored_width) * static_cast<std::size_t>(f.stored_rows);
    const std::size_t wanted = 2 * static_cast<std::size_t>(TCO_CompoundTaskManager::GetNumberOfServers());
    f.pool_blocks.reserve(wanted);
    f.transposed.reserve(wanted);
    for (const IP_SliceChunk* chunk : p->m_SliceChunks) {
        for (unsigned i = 0; i < chunk->GetNumbSlices() && f.transposed.size() < wanted; i++) {
            MEM_PagerInfo* const block = chunk->GetMemInfo(i);
            if (chunk->GetSliceSize() >= voxels * sizeof(std::int16_t) && block->Map() == 0) {
                f.pool_blocks.push_back(block);
                f.transposed.push_back(static_cast<std::int16_t*>(block->Ptr()));
            }
        }
    }
    // Where the pool is too small the frame has blocks of its own.
    if (f.transposed.size() < wanted) {
        f.own_transposed.resize((wanted - f.transposed.size()) * voxels);
        for (std::size_t i = 0; f.transposed.size() < wanted; i++) {
            f.transposed.push_back(f.own_transposed.data() + i * voxels);
        }
    }
}

void IP_MIPProjector::subtask_lin_project_slices_xy() {
    if (m_Pass == 1) {
        request_slices(m_Frame->batch_margin);
        return;
    }
    const MipFrame& f = *m_Frame;
    const TCO_RunnableSelf self;
    const std::size_t tile = static_cast<std::size_t>(self.GetSubtaskIndex());
    std::vector<std::int16_t> scratch(static_cast<std::size_t>(f.weighted ? f.stored_width : 0));
    for (int sheet = 0; sheet < static_cast<int>(f.sheets.size()); sheet++) {
        const MipPlacement& place = f.sheets[static_cast<std::size_t>(sheet)];
        const int stored = place.stored_slice;
        if (stored < f.batch_first || stored >= f.batch_last || f.stored[static_cast<std::size_t>(stored)] == nullptr) {
            continue;
        }
        self.Service();
        const int row_step = f.resampling[static_cast<std::size_t>(sheet)].row_step;
        const int last = std::min(f.sheet_height, f.tile_rows[tile + 1] - place.y);
        for (int row = std::max(0, f.tile_rows[tile] - place.y); row < last; row++) {
            LinePair lines{f.stored_row(stored, row), nullptr, f.line_bounds(stored, row), {0, -1}};
            const int neighbour = row + row_step;
            if (neighbour >= 0 && neighbour < f.sheet_height) {
                lines.far_line = f.stored_row(stored, neighbour);
                lines.far_bounds = f.line_bounds(stored, neighbour);
            }
            composite_lines(f, sheet, row, lines, scratch);
        }
    }
}

void IP_MIPProjector::subtask_lin_project_slices_xz() {
    if (m_Pass == 1) {
        request_slices(m_Frame->batch_margin);
        return;
    }
    const MipFrame& f = *m_Frame;
    const TCO_RunnableSelf self;
    if (!f.transposed.empty()) {
        transpose_and_project(self);
        return;
    }
    const std::size_t tile = static_cast<std::size_t>(self.GetSubtaskIndex());
    std::vector<std::int16_t> scratch(static_cast<std::size_t>(f.weighted ? f.stored_width : 0));
    for (int stored = f.batch_first; stored < f.batch_last; stored++) {
        const std::int16_t* const slice = f.stored[static_cast<std::size_t>(stored)];
        if (slice == nullptr) {
            continue;
        }
        self.Service();
        const std::int16_t* const before = stored > 0 ? f.stored[static_cast<std::size_t>(stored) - 1] : nullptr;
        const std::int16_t* const after =
            stored + 1 < m_SliceCount ? f.stored[static_cast<std::size_t>(stored) + 1] : nullptr;
        int first = 0;
        int last = 0;
        f.sheets_in_rows(stored, f.tile_rows[tile], f.tile_rows[tile + 1], first, last);
        for (int sheet = first; sheet < last; sheet++) {
            const int step = f.resampling[static_cast<std::size_t>(sheet)].row_step;
            composite_lines(f, sheet, stored,
                            line_pair(f, slice, stored, step < 0 ? before : after, stored + step, sheet), scratch);
        }
    }
}

void IP_MIPProjector::transpose_and_project(const TCO_RunnableSelf& self) {
    // Strips of columns, so that two slices' worth of a strip stays in the second cache.
    const int num_sheets = static_cast<int>(m_Frame->sheets.size());
    const int strip = std::max(kStripBytes / (2 * m_Frame->stored_width), 32) & ~7;
    for (int first = 0; first < num_sheets; first += strip) {
        project_strip(self, first, std::min(first + strip, num_sheets));
    }
}

void IP_MIPProjector::project_strip(const TCO_RunnableSelf& self, int first_sheet, int last_sheet) {
    const MipFrame& f = *m_Frame;
    const std::size_t tile = static_cast<std::size_t>(self.GetSubtaskIndex());
    const int first_row = f.tile_rows[tile];
    const int last_row = f.tile_rows[tile + 1];
    std::vector<std::int16_t> scratch(static_cast<std::size_t>(f.weighted ? f.stored_width : 0));
    const auto sheets_of = [&](int stored, int margin, int& first, int& last) {
        f.sheets_in_rows(stored, first_row - margin, last_row + margin, first, last);
        first = std::max(first, first_sheet);
        last = std::min(last, last_sheet);
    };

    // Draws the sheets of a transposed slice whose neighbour is the slice before (-1) or after it (1).
    const auto project = [&](int stored, const std::int16_t* slice, const std::int16_t* neighbour, int step) {
        if (stored < f.batch_first || stored >= f.batch_last || slice == nullptr) {
            return;
        }
        int first = 0;
        int last = 0;
        sheets_of(stored, 0, first, last);
        for (int sheet = first; sheet < last; sheet++) {
            if (f.resampling[static_cast<std::size_t>(sheet)].row_step == step) {
                composite_lines(f, sheet, stored, line_pair(f, slice, stored, neighbour, stored + step, sheet),
                                scratch);
            }
        }
    };

    // Transposes the columns that this tile needs, in whole groups of eight, which is fastest.
    const auto transpose = [&](int stored, std::int16_t* block) {
        int first = 0;
        int last = 0;
        sheets_of(stored, 1, first, last);
        first = first & ~7;
        last = std::min((last + 7) & ~7, f.source_width);
        if (first < last) {
            const std::size_t width = static_cast<std::size_t>(f.stored_width);
            const std::int16_t* const next =
                stored + 1 < m_SliceCount ? f.stored[static_cast<std::size_t>(stored) + 1] : nullptr;
            f.kernels->transpose(block + static_cast<std::size_t>(first) * width, width,
                                 f.stored[static_cast<std::size_t>(stored)] + first,
                                 static_cast<std::size_t>(f.source_width), width,
                                 static_cast<std::size_t>(last - first), next != nullptr ? next + first : nullptr);
        }
    };

    // Draw with the last two slices: what has its neighbour before at once, the rest a step later.
    const std::int16_t* before = nullptr;
    const int end = std::min(f.batch_last, m_SliceCount - 1);
    for (int stored = std::max(f.batch_first - 1, 0); stored <= end + 1; stored++) {
        const std::int16_t* current = nullptr;
        if (stored <= end && f.stored[static_cast<std::size_t>(stored)] != nullptr) {
            self.Service();
            std::int16_t* const block = f.transposed[2 * tile + static_cast<std::size_t>(stored & 1)];
            transpose(stored, block);
            current = block;
        }
        project(stored, current, before, -1);
        project(stored - 1, before, current, 1);
        before = current;
    }
}
