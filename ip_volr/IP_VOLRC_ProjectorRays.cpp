// Rays of a frame: where each one starts, and which brick it starts in.
#include "ip_volr/IP_VOLRC_BrickStructure.h"
#include "ip_volr/IP_VOLRC_ListRay.h"
#include "ip_volr/IP_VOLRC_Matrix.h"
#include "ip_volr/IP_VOLRC_Projector.h"
#include "ip_volr/IP_VOLRC_ProjectorInternal.h"

#include <algorithm>
#include <cmath>

namespace affine = ip_volr::affine;
using ip_volr::kBrickShiftFixed;
using ip_volr::kDepthClamp;
using ip_volr::kFixedOne;

namespace {

constexpr unsigned short kNoBrick = 65535;
constexpr unsigned short kFullyTransparent = 65535;
// Half a voxel in 16.16: from the voxel's corner to its centre.
constexpr int kHalfVoxel = 32768;
// Voxels per axis that 16.16 coordinates can name.
constexpr double kMostVoxels = 65535.0;

// Index coordinate from the corner to 16.16 about voxel centres; false when it is not a cell of the volume.
bool cell_coordinate(double index_vox, int num_voxels, unsigned& fixed) {
    if (!(index_vox >= 0.5 && index_vox < kMostVoxels)) {
        return false;
    }
    fixed = static_cast<unsigned>(static_cast<long long>(index_vox * kFixedOne) - kHalfVoxel);
    return static_cast<int>(fixed >> 16) < num_voxels - 1;
}

void reset_ray(_listRay& ray) {
    ray.step_count = 0;
    ray.transparency = kFullyTransparent;
    ray.colour[0] = 0;
    ray.colour[1] = 0;
    ray.colour[2] = 0;
    ray.end = 0;
}

}  // namespace

int IP_VOLRC_Projector::RowsPerStrip() const {
    return (m_RenderHeight - 1) / m_TaskCount + 1;
}

void IP_VOLRC_Projector::AttachRays() {
    RunOnAllServers(&IP_VOLRC_Projector::GetBrickCoords);
    if (m_FrameIsEmpty) {
        return;
    }

    // Pixel by pixel, each ray to the front of its brick's list: whole runs of pixels, which are linked already.
    m_ListsDirty = true;
    for (int y = 0; y < m_RenderHeight; y++) {
        const PixelBrick* const pixels =
            m_PixelBricks + static_cast<std::size_t>(y) * static_cast<std::size_t>(m_RenderWidth);
        _listRay* const rays = RayRow(y);
        for (int first = 0; first < m_RenderWidth;) {
            const PixelBrick at = pixels[first];
            int last = first + 1;
            while (last < m_RenderWidth && pixels[last] == at) {
                last++;
            }
            if (at.x != kNoBrick) {
                IP_VOLRC_BrickData* const brick = m_BrickStructure->GetBrick(at.x, at.y, at.z);
                rays[first].next = brick->GetRayListHeader(0);
                brick->SetRayListHeader(0, &rays[last - 1]);
                brick->IncrementNumRays(last - first);
            }
            first = last;
        }
    }
}

void IP_VOLRC_Projector::GetBrickCoords() {
    // Raster of the frame to index coordinates from the volume's corner.
    double raster_to_index[4][4];
    affine::multiply(m_FrameR2P, m_PhysicalToIndex, raster_to_index);
    int dims[3];
    m_Box.GetDims(dims);
    for (int j = 0; j < 3; j++) {
        raster_to_index[3][j] += 0.5 * dims[j];
    }

    const int rows = RowsPerStrip();
    const long long first = static_cast<long long>(TCO_RunnableSelf().GetSubtaskIndex()) * rows;
    const int last = static_cast<int>(std::min<long long>(first + rows, m_RenderHeight));
    for (int y = static_cast<int>(std::min<long long>(first, last)); y < last; y++) {
        const std::size_t row = static_cast<std::size_t>(y) * static_cast<std::size_t>(m_RenderWidth);
        const int* const near_depths = m_RenderRaster + row;
        const int* const far_depths = m_ClipRaster + row;
        PixelBrick* const bricks = m_PixelBricks + row;
        _listRay* const rays = RayRow(y);
        for (int x = 0; x < m_RenderWidth; x++) {
            _listRay& ray = rays[x];
            reset_ray(ray);
            bricks[x] = {kNoBrick, kNoBrick, kNoBrick, 0};
            if (far_depths[x] <= near_depths[x] || m_FrameIsEmpty) {
                continue;
            }

            // The ray waits in the first brick on its way that shows anything, behind its neighbour in the row.
            if (PlaceRay(x, y, raster_to_index, near_depths[x], far_depths[x], ray) && m_Cast->empty_space.leap(ray)) {
                bricks[x] = {static_cast<unsigned short>(ray.position[0] >> kBrickShiftFixed),
                             static_cast<unsigned short>(ray.position[1] >> kBrickShiftFixed),
                             static_cast<unsigned short>(ray.position[2] >> kBrickShiftFixed), 0};
                ray.next = x > 0 && bricks[x] == bricks[x - 1] ? &rays[x - 1] : nullptr;
            }
        }
    }
}

// Sets a ray to where it enters the visible part of the volume; false when that is no cell of the volume.
bool IP_VOLRC_Projector::PlaceRay(int x, int y, const double raster_to_index[4][4], int near_depth, int far_depth,
                                  _listRay& ray) const {
    const double index_per_depth = m_IndexPerDepth / kFixedOne;
    const double along_vox = near_depth * index_per_depth;
    int dims[3];
    m_Box.GetDims(dims);
    for (int j = 0; j < 3; j++) {
        const double pixel_vox = raster_to_index[3][j] + y * raster_to_index[1][j] + x * raster_to_index[0][j];
        if (!cell_coordinate(pixel_vox + along_vox * m_ViewIndex[j], dims[j], ray.position[j])) {
            return false;
        }
        ray.entry[j] = ray.position[j];
    }
    ray.step_count = affine::truncate_clamped(along_vox * kFixedOne, -kDepthClamp, kDepthClamp);
    ray.end = affine::truncate_clamped(far_depth * index_per_depth * kFixedOne, -kDepthClamp, kDepthClamp);
    return true;
}

void IP_VOLRC_Projector::ResetListHeaders() {
    if (m_ListsDirty) {
        RunOnAllServers(&IP_VOLRC_Projector::ResetListHeadersOfLayers);
        m_ListsDirty = false;
    }
}

// Empties every list of every brick, layer by layer.
void IP_VOLRC_Projector::ResetListHeadersOfLayers() {
    int bricks[3];
    m_BrickStructure->GetDims(bricks);
    for (int z = TCO_RunnableSelf().GetSubtaskIndex(); z < bricks[2]; z += m_TaskCount) {
        for (int y = 0; y < bricks[1]; y++) {
            for (int x = 0; x < bricks[0]; x++) {
                IP_VOLRC_BrickData* const brick = m_BrickStructure->GetBrick(x, y, z);
                for (int list = 0; list < IP_VOLRC_BrickData::kNumRayLists; list++) {
                    brick->SetRayListHeader(list, nullptr);
                    brick->SetFinishedRayLists(list, nullptr);
                }
                std::fill_n(brick->GetTempRayLists(), IP_VOLRC_BrickData::kNumNeighbours, nullptr);
                std::fill_n(brick->GetTempRayListEnds(), IP_VOLRC_BrickData::kNumNeighbours, nullptr);
                std::fill_n(brick->GetTempRayNumbers(), IP_VOLRC_BrickData::kNumNeighbours, 0);
                brick->DecrementNumRays(brick->GetNumRays());
            }
        }
    }
}
