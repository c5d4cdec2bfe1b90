// Which tissues occur in each brick.
#include "host/images.h"
#include "host/tasks.h"
#include "ip_volr/IP_VOLRC_BrickSlices.h"
#include "ip_volr/IP_VOLRC_BrickStorage.h"
#include "ip_volr/IP_VOLRC_BrickStructure.h"

#include <algorithm>
#include <bit>
#include <cstdint>
#include <cstring>
#include <new>
#include <utility>
#include <vector>

namespace {

constexpr int kLayersPerGroup = 36;  // layers whose slices are mapped at once
constexpr int kEdge = IP_VOLRC_BrickData::kEdge;
constexpr unsigned int kNoTissue = 15;

// The tissues of a scan. Bytes hold two voxels; which bytes occurred is noted first and taken apart once.
struct SeenTissues {
    bool bytes[256] = {};
    unsigned int tissues = 0;  // bit t for tissue t, from single voxels
    std::uint64_t last_eight = 0;
    bool has_last_eight = false;

    unsigned int all() const {
        unsigned int mask = tissues;
        for (unsigned int byte = 0; byte < 256; ++byte) {
            mask |= bytes[byte] ? 1U << (byte & 15U) | 1U << (byte >> 4) : 0U;
        }
        return mask;
    }
};

void note_bytes(const unsigned char* bytes, std::size_t count, SeenTissues& seen) {
    // Tissues come in large uniform regions: eight bytes like the eight before them say nothing new.
    std::size_t i = 0;
    for (; i + 8 <= count; i += 8) {
        std::uint64_t eight;
        std::memcpy(&eight, bytes + i, sizeof(eight));
        if (eight == seen.last_eight && seen.has_last_eight) {
            continue;
        }
        seen.last_eight = eight;
        seen.has_last_eight = true;
        for (std::size_t k = 0; k < 8; ++k) {
            seen.bytes[bytes[i + k]] = true;
        }
    }
    for (; i < count; ++i) {
        seen.bytes[bytes[i]] = true;
    }
}

// Notes the voxels [first, end) of a slice, counted in row-major order.
void note_voxels(const unsigned char* slice, std::int64_t first, std::int64_t end, SeenTissues& seen) {
    if (first % 2 != 0 && first < end) {
        seen.tissues |= 1U << (slice[first / 2] >> 4);
        ++first;
    }
    if (end % 2 != 0 && first < end) {
        seen.tissues |= 1U << (slice[end / 2] & 15U);
        --end;
    }
    if (first < end) {
        note_bytes(slice + first / 2, static_cast<std::size_t>((end - first) / 2), seen);
    }
}

// Notes the tissues of the bricks of row `by` of a layer, one entry for each brick, in the layer's slices of width x
// height voxels. Image rows are read from end to end, in the order in which they lie in memory.
void note_brick_row(const std::vector<const unsigned char*>& slices, int width, int height, int by,
                    std::vector<SeenTissues>& bricks) {
    std::fill(bricks.begin(), bricks.end(), SeenTissues{});
    const int num_bricks = std::min(static_cast<int>(bricks.size()), (width + kEdge - 1) / kEdge);
    const int y0 = by * kEdge;
    const int y1 = std::min(y0 + kEdge, height);
    for (const unsigned char* const slice : slices) {
        for (int y = y0; y < y1; ++y) {
            const std::int64_t row = static_cast<std::int64_t>(y) * width;
            for (int bx = 0; bx < num_bricks; ++bx) {
                if (slice == nullptr) {
                    bricks[bx].tissues |= 1U << kNoTissue;
                } else {
                    note_voxels(slice, row + bx * kEdge, row + std::min((bx + 1) * kEdge, width), bricks[bx]);
                }
            }
        }
    }
}

void store_tissues(unsigned int tissues, IP_VOLRC_BrickData& brick) {
    brick.SetNumTissues(std::popcount(tissues));
    for (int tissue = 0; tissue < IP_VOLRC_BrickData::kNumTissues; ++tissue) {
        const bool is_active = ((tissues >> tissue) & 1U) != 0;
        brick.SetActiveTissues(tissue, is_active);
        for (int octant = 0; octant < IP_VOLRC_BrickData::kNumOctants; ++octant) {
            brick.GetOD(octant)->GetTissueFlages()[tissue] = is_active;
        }
    }
}

}  // namespace

bool IP_VOLRC_BrickStructure::UpdateTissue(IP_VolData* tissues) {
    m_TissueVolData = tissues;
    if (m_Storage == nullptr) {
        return true;  // no bricks to update
    }
    const IP_VOLRC_ScopedBrickMapping mapping(m_Storage.get());
    if (!mapping.IsMapped()) {
        return false;
    }
    if (tissues == nullptr) {
        ClearTissues();
        return true;
    }

    try {
        return FindTissues(*tissues);
    } catch (const std::bad_alloc&) {
        return false;
    }
}

// The tissues of all bricks, group after group of layers.
bool IP_VOLRC_BrickStructure::FindTissues(const IP_VolData& tissues) {
    int dims[3];
    tissues.GetBox()->GetDims(dims);
    for (int layer = 0; layer < m_NumBricksZ; layer += kLayersPerGroup) {
        const int first = std::max(0, layer * kEdge - 1);
        const int last = static_cast<int>(
            std::min<std::int64_t>((static_cast<std::int64_t>(layer) + kLayersPerGroup) * kEdge, dims[2] - 1));
        std::vector<IP_Slice*> slices;
        ip_volr::append_slices(tissues, first, last, slices);
        const ip_volr::MappedSlices mapped(std::move(slices));
        if (!mapped.IsMapped()) {
            return false;
        }
        m_CurrentGroup = layer;
        RunOnWorkers(&IP_VOLRC_BrickStructure::UpdateTissuesInParrallel);
    }
    return true;
}

// No tissues: every voxel is "no tissue".
void IP_VOLRC_BrickStructure::ClearTissues() {
    const int per_layer = m_NumBricksX * m_NumBricksY;
    for (int z = 0; z < m_NumBricksZ; ++z) {
        for (int i = 0; i < per_layer; ++i) {
            store_tissues(1U << kNoTissue, m_Layers[z][i]);
        }
    }
}

// Subtask: every n-th layer, for n subtasks, of the current group.
void IP_VOLRC_BrickStructure::UpdateTissuesInParrallel() {
    const TCO_RunnableSelf self;
    int dims[3];
    m_TissueVolData->GetBox()->GetDims(dims);
    const int end_layer = std::min(m_CurrentGroup + kLayersPerGroup, m_NumBricksZ);
    std::vector<const unsigned char*> pixels;
    std::vector<SeenTissues> seen(m_NumBricksX);
    for (int layer = m_CurrentGroup + self.GetSubtaskIndex(); layer < end_layer; layer += self.GetNumberOfSubtasks()) {
        self.Service();
        const int z0 = layer * kEdge;
        const int z1 = std::min(z0 + kEdge, dims[2]);
        pixels.clear();
        for (int z = z0; z < z1; ++z) {
            pixels.push_back(ip_volr::mapped_pixels<IP_TisIndSlice>(m_TissueVolData->GetSlice(z), dims[0], dims[1]));
        }
        IP_VOLRC_BrickData* brick = m_Layers[layer];
        for (int y = 0; y < m_NumBricksY; ++y) {
            note_brick_row(pixels, dims[0], dims[1], y, seen);
            for (int x = 0; x < m_NumBricksX; ++x, ++brick) {
                store_tissues(seen[x].all(), *brick);
            }
        }
    }
}
