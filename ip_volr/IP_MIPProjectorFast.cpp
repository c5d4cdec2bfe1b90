// The fast path: prepared slices at nearest voxels.
#include "ip_volr/IP_MIPProjector.h"
#include "ip_volr/IP_MIPProjectorFrame.h"
#include "ip_volr/IP_MultiVolDataInc.h"
#include "ip_volr/IP_VOLR_Trace.h"
#include "ip_volr/IP_VolDataProj.h"
#include "ip_volr/IP_VolRClipManager.h"

#include "host/matrix_math.h"

#include <algorithm>
#include <cmath>
#include <limits>

using ip_volr::MipFrame;
using ip_volr::MipLineBounds;
using ip_volr::MipPlacement;

namespace {

constexpr const char* kSource = "ip_volr/IP_MIPProjector";
constexpr float kBatchMegabytes = 250.0F;
constexpr float kMegabytesPerByte = 9.536743e-7F;
constexpr float kPictureMargin = 2.5F;
// Beyond this a picture serves nobody; its eight blocks would take gigabytes.
constexpr double kMaxPicturePixels = 134217728.0;
constexpr int kSubtasksPerServer = 4;
constexpr double kNearWeight = 1023.0 / 1024.0;
constexpr double kWeightUnit = 2147483648.0;

// Composites one line of voxels of a sheet into a picture row.
void composite_line(const MipFrame& f, int sheet, int row, const std::int16_t* voxels, MipLineBounds bounds) {
    if (bounds.first > bounds.last) {
        return;
    }
    const MipPlacement& place = f.sheets[static_cast<std::size_t>(sheet)];
    std::int16_t* const pixels = f.picture_pixel(place.y + row, place.x() + bounds.first);
    const int count = bounds.last - bounds.first + 1;
    if (f.weighted) {
        f.kernels->max_row_weighted(pixels, voxels + bounds.first, static_cast<std::size_t>(count),
                                    f.weight.ramp(bounds.first, row, sheet, count));
    } else {
        f.kernels->max_row(pixels, voxels + bounds.first, static_cast<std::size_t>(count));
    }
}

// Draws the rows [first_row, last_row) of the picture from one sheet that is a stored slice.
void composite_sheet(const MipFrame& f, int sheet, int first_row, int last_row) {
    const MipPlacement& place = f.sheets[static_cast<std::size_t>(sheet)];
    const int last = std::min(f.sheet_height, last_row - place.y);
    for (int row = std::max(0, first_row - place.y); row < last; row++) {
        composite_line(f, sheet, row, f.stored_row(place.stored_slice, row), f.line_bounds(place.stored_slice, row));
    }
}

// Draws the rows [first_row, last_row) of the picture from one stored slice whose rows belong to successive sheets.
void composite_across(const MipFrame& f, int stored_slice, int first_row, int last_row) {
    int first = 0;
    int last = 0;
    f.sheets_in_rows(stored_slice, first_row, last_row, first, last);
    for (int sheet = first; sheet < last; sheet++) {
        composite_line(f, sheet, stored_slice, f.stored_row(stored_slice, sheet), f.line_bounds(stored_slice, sheet));
    }
}

}  // namespace

void IP_MIPProjector::ProjectBoxes(IP_VolRParamsMIP* p, IP_VolRBoxParamsMIP* a, IP_VolRBoxParamsMIP* b, int k) {
    auto* const volume =
        p->m_AltVolData != nullptr ? dynamic_cast<IP_VolDataProj*>(p->m_AltVolData->GetVolData(k)) : nullptr;
    if (volume == nullptr || b == nullptr) {
        return;
    }
    IP_VolDataProj* const not_transposed = p->m_AltVolData->GetNTransVolRData(k);
    IP_VolDataProj* const transposed = p->m_AltVolData->GetTransVolRData(k);
    if (!RebuildVolRDatas(volume, not_transposed, transposed,
                          calc_angle(volume->GetCurrentBox(), a->m_PhysToVirtual))) {
        // Slices that lie the wrong way round must not be drawn.
        a->m_Box = IP_Box(0, 0, 0);
        b->m_Box = IP_Box(0, 0, 0);
        m_IsComplete = false;
        return;
    }
    ProjectBox(p, a, not_transposed, a->m_PhysToVirtual, false);
    ProjectBox(p, b, transposed, a->m_PhysToVirtual, true);
}

void IP_MIPProjector::ProjectBox(IP_VolRParamsMIP* p, IP_VolRBoxParamsMIP* box, IP_VolDataProj* data, float (&m)[4][4],
                                 bool transposed) {
    int dims[3];
    data->GetBox()->GetDims(dims);
    box->m_Box = IP_Box(0, 0, 0);
    if (dims[0] <= 0 || dims[1] <= 0 || dims[2] <= 0) {
        return;
    }

    // Take the data as its slices are stored.
    MipFrame& f = *m_Frame;
    m_SliceCount = dims[2];
    m_SliceW = dims[transposed ? 1 : 0];
    m_SliceH = dims[transposed ? 0 : 1];
    m_Slices = data->GetSlices();
    m_FirstSlice = data->GetFirstSliceInd();
    f.stored_width = m_SliceW;
    f.stored_rows = m_SliceH;
    f.first_slice = m_FirstSlice;

    // Turn the box to the viewer and place the slices.
    IP_Box working_box;
    m_Dir = CalcDirSetDBox4Fast(data, m, transposed, &working_box);
    scale_thick_slices(working_box);
    if (!place_slices(p, box, working_box, m)) {
        m_IsComplete = false;
        return;
    }
    m_ClipBounds = m_ActiveClipPlanes == 0 ? nullptr : transposed ? data->GetYXCBounds() : data->GetXYCBounds();
    f.bounds = m_ClipBounds;
    f.bounds_lin = nullptr;
    if (m_ActiveClipPlanes != 0 && m_ClipBounds == nullptr) {
        m_IsComplete = false;
        return;
    }

    // Composite batch by batch.
    const ip_volr::MappedBlock picture(box->m_Picture);
    if (!picture.is_mapped()) {
        m_IsComplete = false;
        return;
    }
    clear_picture(*box, working_box);
    const int per_batch = slices_per_batch();
    m_NumBatches = m_SliceCount / per_batch + 1;
    for (m_Batch = 0; m_Batch < m_NumBatches; m_Batch++) {
        const int first = m_Batch * per_batch;
        if (!run_batch(&IP_MIPProjector::subtask_project_slices, first, std::min(m_SliceCount, first + per_batch), 0)) {
            m_IsComplete = false;
            break;
        }
    }
}

void IP_MIPProjector::scale_thick_slices(IP_Box& working_box) {
    constexpr float kBelowLast = 0.01F;
    float index_scale = 0.9999F;
    if (m_Dir == 2) {
        // Draw a thick slice as often as its thickness asks for. What tells is the first slice of the whole volume,
        // also when this part of it begins later.
        int dims[3];
        working_box.GetDims(dims);
        float vecs[3][3];
        working_box.GetVecs(vecs);
        const float slice_distance_z = vecs[2][2] / static_cast<float>(dims[2]);
        const float first_slice_z = working_box.GetSliceZf() - static_cast<float>(m_FirstSlice) * slice_distance_z;
        const int scaled = ip_volr::thick_slice_count(dims[2], first_slice_z);
        index_scale = static_cast<float>(scaled - 1) / (static_cast<float>(dims[2]) - kBelowLast);
        dims[2] = scaled;
        working_box.SetDims(dims);
    }
    // A single slice that is drawn once has no next index: every index is its own.
    m_ZScale = index_scale > 0.0F ? 1.0F / index_scale : 0.0F;
}

bool IP_MIPProjector::place_slices(IP_VolRParamsMIP* p, IP_VolRBoxParamsMIP* box, IP_Box& working_box,
                                   float (&m)[4][4]) {
    MipFrame& f = *m_Frame;
    int dims[3];
    working_box.GetDims(dims);
    float shift[3];
    calc_zvec(shift, &working_box, m, m_Dir);

    // Size of the picture: the slice and its whole path, in whole groups of 16 pixels with a margin of at least six.
    const float depth = static_cast<float>(dims[2] - 1);
    const double width = static_cast<double>(dims[0]) + std::fabs(depth * shift[0]) + 21.0;
    const double height = std::fabs(depth * shift[1]) + 5.0 + static_cast<double>(dims[1]);
    if (!(width * height <= kMaxPicturePixels)) {
        return false;
    }
    f.width = static_cast<int>(width) & ~15;
    f.height = static_cast<int>(height);
    f.sheet_width = dims[0];
    f.sheet_height = dims[1];
    box->m_OriginX = shift[0] > 0.0F ? kPictureMargin : static_cast<float>(f.width - dims[0]) - kPictureMargin;
    box->m_OriginY = shift[1] > 0.0F ? kPictureMargin : static_cast<float>(f.height - dims[1]) - kPictureMargin;

    // Each slice stands at the voxel grid's nearest place: the origin lies half a pixel beyond the first voxel's
    // centre.
    f.sheets.resize(static_cast<std::size_t>(dims[2]));
    float x = box->m_OriginX;
    float y = box->m_OriginY;
    for (int s = 0; s < dims[2]; s++) {
        const int column = std::clamp(static_cast<int>(x), 0, f.width - dims[0]);
        const int row = std::clamp(static_cast<int>(y), 0, f.height - dims[1]);
        const int stored = std::min(static_cast<int>(static_cast<float>(s) * m_ZScale), m_SliceCount - 1);
        f.sheets[static_cast<std::size_t>(s)] = {column & ~7, column & 7, row, m_Dir == 2 ? stored : -1};
        x += shift[0];
        y += shift[1];
    }
    f.weighted = m_DepthCue == 1;
    if (f.weighted) {
        set_depth_weights(p, working_box, m);
    }
    return tpict_alloc(p, box, f.width * f.height);
}

void IP_MIPProjector::set_depth_weights(IP_VolRParamsMIP* p, const IP_Box& working_box, const float (&m)[4][4]) {
    // Depth range of the source volume's outermost voxel centres: the same for all parts and both paths.
    const IP_Box& source = *p->m_VolData->GetVolData(m_Volume)->GetBox();
    float source_to_physical[4][4];
    source.GetIndexToPhysicalTrans(source_to_physical);
    float source_to_virtual[4][4];
    IP_Mmul(source_to_physical, m, source_to_virtual);
    int dims[3];
    source.GetDims(dims);
    double nearest = source_to_virtual[3][2];
    double farthest = nearest;
    for (int axis = 0; axis < 3; axis++) {
        const double extent = static_cast<double>(std::max(dims[axis] - 1, 0)) * source_to_virtual[axis][2];
        nearest += std::min(extent, 0.0);
        farthest += std::max(extent, 0.0);
    }

    // Weight of voxel (column, row, sheet) of the working box.
    float to_physical[4][4];
    working_box.GetIndexToPhysicalTrans(to_physical);
    float to_virtual[4][4];
    IP_Mmul(to_physical, m, to_virtual);
    const double floor =
        std::isfinite(m_DepthCueFloor) ? std::clamp(static_cast<double>(m_DepthCueFloor), 0.0, 1.0) : 1.0;
    const double range = farthest - nearest;
    const double per_mm = range > 0.0 ? (floor - kNearWeight) / range : 0.0;
    ip_volr::MipDepthWeight& w = m_Frame->weight;
    w.at_origin = kWeightUnit * (kNearWeight + per_mm * (to_virtual[3][2] - nearest));
    w.per_column = kWeightUnit * per_mm * to_virtual[0][2];
    w.per_row = kWeightUnit * per_mm * to_virtual[1][2];
    w.per_sheet = kWeightUnit * per_mm * to_virtual[2][2];
    // A view that is no view has no depths either.
    constexpr double kMost = 1e30;
    const auto is_usable = [](double v) { return std::fabs(v) < kMost; };
    if (!is_usable(w.at_origin) || !is_usable(w.per_column) || !is_usable(w.per_row) || !is_usable(w.per_sheet)) {
        w = {kWeightUnit * kNearWeight, 0.0, 0.0, 0.0};
    }
}

int IP_MIPProjector::slices_per_batch() const {
    const float megabytes = static_cast<float>(m_SliceW) * static_cast<float>(m_SliceH) * 2.0F * kMegabytesPerByte;
    return std::max(static_cast<int>(kBatchMegabytes / megabytes), 1);
}

void IP_MIPProjector::request_slices(int margin) {
    const MipFrame& f = *m_Frame;
    const int last = std::min(f.batch_last + margin, m_SliceCount);
    for (int i = std::max(f.batch_first - margin, 0); i < last; i++) {
        const int index = m_FirstSlice + i;
        if (index < m_FirstWithData || (f.is_clipped() && !f.is_visible(i))) {
            continue;
        }
        if (m_Slices[index] == nullptr || m_Slices[index]->GetData() == nullptr) {
            IP_VOLR_TRACE(ip_volr::kTraceWarning, kSource, "IP_MIPProjector::request_slices", "Slice data is NULL\n");
            continue;
        }
        m_Requested[index] = 1;
    }
}

void IP_MIPProjector::take_mapped_slices(int margin) {
    MipFrame& f = *m_Frame;
    f.stored.assign(static_cast<std::size_t>(m_SliceCount), nullptr);
    const int last = std::min(f.batch_last + margin, m_SliceCount);
    for (int i = std::max(f.batch_first - margin, 0); i < last; i++) {
        const int index = m_FirstSlice + i;
        if (m_Requested[index] == 0) {
            continue;
        }
        const auto* const slice = dynamic_cast<const IP_ShortSlice*>(m_Slices[index]);
        f.stored[static_cast<std::size_t>(i)] = slice != nullptr ? slice->GetMappedSlice() : nullptr;
        if (f.stored[static_cast<std::size_t>(i)] == nullptr) {
            IP_VOLR_TRACE(ip_volr::kTraceWarning, kSource, "IP_MIPProjector::take_mapped_slices",
                          "slice data pointer is NULL\n");
        }
    }
}

void IP_MIPProjector::run_pass(int pass, void (IP_MIPProjector::*method)(), int subtasks) {
    m_Pass = pass;
    TCO_CompoundRunnable<IP_MIPProjector> runnable(this, method);
    TCO_CompoundTaskManager::GetHandle()->ExecuteCompoundTask(&runnable, true, subtasks, false);
}

bool IP_MIPProjector::run_batch(void (IP_MIPProjector::*method)(), int first, int last, int margin) {
    if (first >= last) {
        return true;
    }
    // Find out which slices the batch needs, and map them at once.
    MipFrame& f = *m_Frame;
    f.batch_first = first;
    f.batch_last = last;
    f.batch_margin = margin;
    if (!reset_RequestedSlice(m_SliceCount + m_FirstSlice)) {
        return false;
    }
    run_pass(1, method, 1);
    if (map_fast_pre_requested_slices(m_Slices) != 0) {
        return false;
    }
    const struct Unmap {
        IP_MIPProjector& projector;
        ~Unmap() { projector.unmap_fast_pre_requested_slices(); }
    } unmap{*this};
    take_mapped_slices(margin);

    // Draw; each subtask has rows of the picture to itself. Where slices are transposed fewer and larger parts are
    // faster: each transposes only the columns that land on its rows, in longer runs of memory.
    const int per_server = f.transposed.empty() ? kSubtasksPerServer : 1;
    const int subtasks = TCO_CompoundTaskManager::GetNumberOfServers() * per_server;
    f.make_tiles(subtasks, m_Dir == 2);
    run_pass(2, method, subtasks);
    return true;
}

void IP_MIPProjector::subtask_project_slices() {
    if (m_Pass == 1) {
        request_slices(m_Frame->batch_margin);
        return;
    }
    const MipFrame& f = *m_Frame;
    const TCO_RunnableSelf self;
    const std::size_t tile = static_cast<std::size_t>(self.GetSubtaskIndex());
    const int first_row = f.tile_rows[tile];
    const int last_row = f.tile_rows[tile + 1];

    if (m_Dir == 2) {
        for (int sheet = 0; sheet < static_cast<int>(f.sheets.size()); sheet++) {
            const int stored = f.sheets[static_cast<std::size_t>(sheet)].stored_slice;
            if (stored >= f.batch_first && stored < f.batch_last &&
                f.stored[static_cast<std::size_t>(stored)] != nullptr) {
                self.Service();
                composite_sheet(f, sheet, first_row, last_row);
            }
        }
    } else if (m_Dir == 1) {
        for (int stored = f.batch_first; stored < f.batch_last; stored++) {
            if (f.stored[static_cast<std::size_t>(stored)] != nullptr) {
                self.Service();
                composite_across(f, stored, first_row, last_row);
            }
        }
    } else {
        IP_VOLR_TRACE(ip_volr::kTraceError, kSource, "IP_MIPProjector::subtask_project_slices",
                      "Wrong slice direction %d\n", m_Dir);
    }
}
