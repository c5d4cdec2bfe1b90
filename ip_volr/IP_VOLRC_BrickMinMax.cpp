// Minimum and maximum values of all leaves.
#include "host/images.h"
#include "host/tasks.h"
#include "ip_volr/IP_VOLRC_BrickMinMaxScratch.h"
#include "ip_volr/IP_VOLRC_BrickSlices.h"
#include "ip_volr/IP_VOLRC_BrickStructure.h"

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <utility>
#include <vector>

namespace {

using RowBuffers = IP_VOLRC_MinMaxScratch::RowBuffers;

constexpr int kLeafEdge = 4;
constexpr int kLeavesPerBrick = 8;  // along an axis
constexpr int kLayersPerGroup = 9;  // layers whose slices are mapped at once
constexpr int kSlicesPerLayer = IP_VOLRC_BrickData::kEdge;

// The lowest value that slices of this volume can store: what voxels without pixel data count as.
std::uint16_t lowest_stored_value(const IP_VolData& volume, int depth, bool is_signed) {
    if (!is_signed) {
        return 0;
    }
    // Slices with pixels know their bits best; empty ones may carry defaults.
    int bits = 16;
    bool found_any = false;
    for (int z = 0; z < depth; ++z) {
        const IP_Slice* const slice = volume.GetSlice(z);
        if (slice == nullptr || slice->GetAttributes().bits_stored < 1 || slice->GetAttributes().bits_stored > 16) {
            continue;
        }
        const bool has_pixels = slice->GetData() != nullptr;
        if (has_pixels || !found_any) {
            bits = slice->GetAttributes().bits_stored;
            found_any = true;
        }
        if (has_pixels) {
            break;
        }
    }
    return static_cast<std::uint16_t>(-(1 << (bits - 1)));
}

// Reduces the image rows [first_row, last_row] of slices [z0, z1] into the buffers; accumulates or starts afresh.
void reduce_image_rows(const IP_VOLRC_MinMaxScratch& scratch, int z0, int z1, int first_row, int last_row,
                       bool accumulate, RowBuffers& buffers) {
    const std::uint16_t* rows[(kLeafEdge + 1) * kLeafEdge];
    int num_rows = 0;
    for (int z = z0; z <= z1; ++z) {
        const std::uint16_t* const pixels = scratch.m_Pixels[z];
        for (int y = first_row; y <= std::min(last_row, scratch.m_Height - 1); ++y) {
            rows[num_rows++] = pixels == nullptr ? scratch.m_EmptyRow.data()
                                                 : pixels + static_cast<std::ptrdiff_t>(y) * scratch.m_Width;
        }
    }
    scratch.m_Kernels.reduce_rows(rows, num_rows, scratch.m_Width, accumulate, buffers.minimum.data(),
                                  buffers.maximum.data());
}

// One plane of leaves, from slices [z0, z1], into the worker's leaf table.
void compute_leaf_plane(const IP_VOLRC_MinMaxScratch& scratch, int z0, int z1, IP_VOLRC_MinMaxScratch::Worker& worker) {
    // Each leaf row begins with the row in which the one before it ended.
    reduce_image_rows(scratch, z0, z1, 0, 0, false, worker.overlap);
    for (int leaf_row = 0; leaf_row < scratch.m_NumLeavesY; ++leaf_row) {
        std::swap(worker.rows, worker.overlap);
        const int y0 = kLeafEdge * leaf_row;
        reduce_image_rows(scratch, z0, z1, y0 + 1, y0 + 3, true, worker.rows);
        reduce_image_rows(scratch, z0, z1, y0 + 4, y0 + 4, false, worker.overlap);

        auto* const leaves = reinterpret_cast<std::uint32_t*>(
            worker.leaves.data() + static_cast<std::ptrdiff_t>(leaf_row) * scratch.m_NumLeavesX);
        scratch.m_Kernels.reduce_columns(worker.rows.minimum.data(), worker.rows.maximum.data(),
                                         worker.overlap.minimum.data(), worker.overlap.maximum.data(),
                                         scratch.m_NumLeavesX, leaves);
    }
}

// Copies the 8 by 8 leaves of one brick in leaf plane r (0 to 7) from the plane's table into its octants.
void scatter_leaves(const sMinMax* leaves, int leaves_per_row, int r, IP_VOLRC_BrickData& brick) {
    for (int b = 0; b < kLeavesPerBrick; ++b) {
        // Position of the row inside an octant: y bits 0 and 1 are index bits 1 and 4, z bits are index bits 2 and 5.
        const int row_index = (b & 1) << 1 | (b & 2) << 3 | (r & 1) << 2 | (r & 2) << 4;
        const sMinMax* const row = leaves + static_cast<std::ptrdiff_t>(b) * leaves_per_row;
        for (int half = 0; half < 2; ++half) {
            const int octant = half + 2 * (b / 4) + 4 * (r / 4);
            sMinMax* const table = brick.GetOD(octant)->GetData() + row_index;
            // Two neighbours along x are contiguous, the next two are in the next node.
            std::memcpy(table, row + 4 * half, 2 * sizeof(sMinMax));
            std::memcpy(table + 8, row + 4 * half + 2, 2 * sizeof(sMinMax));
        }
    }
}

}  // namespace

IP_VOLRC_MinMaxScratch::IP_VOLRC_MinMaxScratch(const IP_VolData& volume, int bricks_x, int bricks_y, int num_workers,
                                               bool is_signed)
    : m_NumLeavesX(bricks_x * kLeavesPerBrick),
      m_NumLeavesY(bricks_y * kLeavesPerBrick),
      m_Kernels(is_signed ? ip_volr::kernels::min_max_kernels().of_signed
                          : ip_volr::kernels::min_max_kernels().of_unsigned),
      m_Workers(num_workers) {
    int dims[3];
    volume.GetBox()->GetDims(dims);
    m_Width = dims[0];
    m_Height = dims[1];
    m_Depth = dims[2];
    m_Pixels.assign(m_Depth, nullptr);
    m_EmptyRow.assign(m_Width, lowest_stored_value(volume, m_Depth, is_signed));

    // The columns beyond the volume are never written: leaves there stay empty.
    const std::size_t buffer_size = static_cast<std::size_t>(m_NumLeavesX) * kLeafEdge + 2 * kLeafEdge;
    const std::uint16_t empty_minimum = (is_signed ? kEmptyMinMaxSigned : kEmptyMinMaxUnsigned) & 0xFFFFU;
    const std::uint16_t empty_maximum = (is_signed ? kEmptyMinMaxSigned : kEmptyMinMaxUnsigned) >> 16;
    for (Worker& worker : m_Workers) {
        for (RowBuffers* const buffers : {&worker.rows, &worker.overlap}) {
            buffers->minimum.assign(buffer_size, empty_minimum);
            buffers->maximum.assign(buffer_size, empty_maximum);
        }
        worker.leaves.resize(static_cast<std::size_t>(m_NumLeavesX) * m_NumLeavesY);
    }
}

void IP_VOLRC_MinMaxScratch::FindPixels(const IP_VolData& volume, int first, int last) {
    for (int z = first; z <= last; ++z) {
        const short* const pixels = ip_volr::mapped_pixels<IP_ShortSlice>(volume.GetSlice(z), m_Width, m_Height);
        m_Pixels[z] = reinterpret_cast<const std::uint16_t*>(pixels);
    }
}

// Fills all tables, group after group of layers. The records are there already: on failure they keep what they have.
bool IP_VOLRC_BrickStructure::ComputeAllMinMax() {
    IP_VOLRC_MinMaxScratch scratch(*m_VolData, m_NumBricksX, m_NumBricksY, m_NumWorkers, m_IsSigned);
    const ip_volr::ScopedPointer lent(m_MinMaxScratch, scratch);
    for (int layer = 0; layer < m_NumBricksZ; layer += kLayersPerGroup) {
        // The group reaches one slice below its first layer and one beyond its last.
        const int first = std::max(0, layer * kSlicesPerLayer - 1);
        const int last = static_cast<int>(std::min<std::int64_t>(
            (static_cast<std::int64_t>(layer) + kLayersPerGroup) * kSlicesPerLayer, scratch.m_Depth - 1));
        std::vector<IP_Slice*> slices;
        ip_volr::append_slices(*m_VolData, first, last, slices);
        const ip_volr::MappedSlices mapped(std::move(slices));
        if (!mapped.IsMapped()) {
            return false;
        }
        scratch.FindPixels(*m_VolData, first, last);
        m_CurrentGroup = layer;
        RunOnWorkers(&IP_VOLRC_BrickStructure::InitLeavesMinMax);
    }
    return true;
}

// Subtask: every n-th layer, for n subtasks, of the current group.
void IP_VOLRC_BrickStructure::InitLeavesMinMax() {
    const TCO_RunnableSelf self;
    const int end = std::min(m_CurrentGroup + kLayersPerGroup, m_NumBricksZ);
    for (int layer = m_CurrentGroup + self.GetSubtaskIndex(); layer < end; layer += self.GetNumberOfSubtasks()) {
        self.Service();
        InitSingleBrickLayerMinMax(layer, self.GetSubtaskIndex());
    }
}

// The tables of all bricks of one layer, with the buffers of one worker.
void IP_VOLRC_BrickStructure::InitSingleBrickLayerMinMax(int layer, int worker_index) {
    const IP_VOLRC_MinMaxScratch& scratch = *m_MinMaxScratch;
    IP_VOLRC_MinMaxScratch::Worker& worker = m_MinMaxScratch->m_Workers[worker_index];
    for (int r = 0; r < kLeavesPerBrick; ++r) {
        const int z0 = kSlicesPerLayer * layer + kLeafEdge * r;
        if (z0 >= scratch.m_Depth) {
            return;
        }
        compute_leaf_plane(scratch, z0, std::min(z0 + kLeafEdge, scratch.m_Depth - 1), worker);

        IP_VOLRC_BrickData* brick = m_Layers[layer];
        for (int y = 0; y < m_NumBricksY; ++y) {
            const sMinMax* const leaf_rows =
                worker.leaves.data() + static_cast<std::ptrdiff_t>(y) * kLeavesPerBrick * scratch.m_NumLeavesX;
            for (int x = 0; x < m_NumBricksX; ++x, ++brick) {
                scatter_leaves(leaf_rows + x * kLeavesPerBrick, scratch.m_NumLeavesX, r, *brick);
            }
        }
    }
}
