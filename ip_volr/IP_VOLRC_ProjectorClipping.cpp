// Where rays enter and leave the visible part of the volume, pixel by pixel, and what a frame shows of a point.
#include "ip_volr/IP_VOLRC_ListRay.h"
#include "ip_volr/IP_VOLRC_Matrix.h"
#include "ip_volr/IP_VOLRC_Projector.h"
#include "ip_volr/IP_VOLRC_ProjectorInternal.h"

#include <algorithm>
#include <cmath>

namespace affine = ip_volr::affine;
using ip_volr::kDepthClamp;
using ip_volr::kFixedOne;
using ip_volr::kNoDepth;
using ip_volr::kNoFarDepth;

namespace {

// A plane whose unit normal makes less than this with the view is parallel to the rays.
constexpr double kParallel = 1e-6;
// Pixels of a row that are worked out together.
constexpr int kBlock = 256;

// Plane in raster space (physical = raster * r2p), about the volume's middle.
void plane_to_raster(const double plane[4], const double r2p[4][4], double result[4]) {
    for (int i = 0; i < 4; i++) {
        result[i] = r2p[i][0] * plane[0] + r2p[i][1] * plane[1] + r2p[i][2] * plane[2];
    }
    result[3] += plane[3];
}

// Truncates depths (in 1/65536 already) towards zero. What is not a number becomes the lowest depth.
int fixed_depth(double depth) {
    return affine::truncate_clamped(depth, -kDepthClamp, kDepthClamp);
}

}  // namespace

// The convex region's depths follow from its planes, pixel by pixel, so no footprint of bricks has to be drawn: what is
// left for the two sides is the greatest depth of the box, which bounds the far side, and the host's wish to stop.
void IP_VOLRC_Projector::CalcZVisBuffer(PROJECTION_SIDE side) {
    const TCO_RunnableSelf self;
    self.Service();
    if (side == PROJECTION_SIDE_NEAR) {
        double physical_to_raster[4][4];
        affine::invert(m_FrameR2P, physical_to_raster);
        double greatest = 0.0;
        for (int i = 0; i < 8; i++) {
            float vertex[3];
            m_Box.GetVertex(i, vertex);
            const double corner_mm[3] = {vertex[0], vertex[1], vertex[2]};
            double corner[3];
            affine::transform_point(corner_mm, physical_to_raster, corner);
            greatest = std::max(greatest, std::abs(corner[2]));
        }
        // Twice this must fit a depth.
        m_DepthLimit = affine::truncate_clamped(greatest * kFixedOne, 0, kDepthClamp / 2);
    }
    self.Service();
}

void IP_VOLRC_Projector::ClipRasters() {
    m_NearPlanes.clear();
    m_FarPlanes.clear();
    m_ParallelPlanes.clear();
    constexpr double kOrigin[3] = {0.0, 0.0, 0.0};
    GroupPlanes(*m_BoxClipManager, kOrigin);
    GroupPlanes(*m_UserClipManager, m_Middle_mm);
    RunOnAllServers(&IP_VOLRC_Projector::ClipPartialRaster);
}

// Sorts planes, which stand in a space whose point `middle_mm` is the volume's middle, by the side on which rays cross
// them: inside is where the equation is not positive, so rays enter where it falls along the view.
void IP_VOLRC_Projector::GroupPlanes(IP_ClipManager& planes, const double middle_mm[3]) {
    planes.ResetIterator();
    for (int i = 0; i < planes.GetNPlanes(); i++) {
        const IP_ClippingPlane* const plane = planes.GetNextPlane();
        if (plane == nullptr || !plane->IsActive()) {
            continue;
        }
        double equation[4];
        plane->GetPlaneEq(equation);
        const double len = affine::length(equation);
        if (len > 0.0 && std::isfinite(len)) {
            for (double& coefficient : equation) {
                coefficient /= len;
            }
        }
        equation[3] += equation[0] * middle_mm[0] + equation[1] * middle_mm[1] + equation[2] * middle_mm[2];
        const double along_view =
            equation[0] * m_ViewVector[0] + equation[1] * m_ViewVector[1] + equation[2] * m_ViewVector[2];
        double raster[4];
        plane_to_raster(equation, m_FrameR2P, raster);
        if (!(std::abs(along_view) > kParallel)) {
            m_ParallelPlanes.push_back({raster[3], -raster[0], -raster[1]});
            continue;
        }
        const double scale = kFixedOne / raster[2];
        const PlaneDepth depth = {-raster[3] * scale, raster[0] * scale, raster[1] * scale};
        (along_view < 0.0 ? m_NearPlanes : m_FarPlanes).push_back(depth);
    }
}

void IP_VOLRC_Projector::ClipPartialRaster() {
    const int rows = RowsPerStrip();
    const long long first = static_cast<long long>(TCO_RunnableSelf().GetSubtaskIndex()) * rows;
    const int last = static_cast<int>(std::min<long long>(first + rows, m_RenderHeight));
    for (int y = static_cast<int>(std::min<long long>(first, last)); y < last; y++) {
        ClipRow(y);
    }
}

// The inclusive span of a row that lies inside all planes parallel to the rays.
void IP_VOLRC_Projector::RowSpan(int y, int& first, int& last) const {
    first = 0;
    last = m_RenderWidth - 1;
    for (const PlaneDepth& plane : m_ParallelPlanes) {
        IP_update_clip_bounds(plane.at_origin - y * plane.per_row, -plane.per_column, first, last);
    }
}

void IP_VOLRC_Projector::ClipRow(int y) {
    const std::size_t row = static_cast<std::size_t>(y) * static_cast<std::size_t>(m_RenderWidth);
    int* const near_depths = m_RenderRaster + row;
    int* const far_depths = m_ClipRaster + row;
    std::fill(near_depths, near_depths + m_RenderWidth, kNoDepth);
    std::fill(far_depths, far_depths + m_RenderWidth, kNoFarDepth);
    int first = 0;
    int last = 0;
    RowSpan(y, first, last);

    for (int x0 = first; x0 <= last; x0 += kBlock) {
        // The greatest depth of the near planes, the smallest of the far planes.
        const int count = std::min(kBlock, last + 1 - x0);
        double entry[kBlock];
        double exit[kBlock];
        std::fill(entry, entry + count, static_cast<double>(-kDepthClamp));
        std::fill(exit, exit + count, 2.0 * m_DepthLimit);
        for (const PlaneDepth& plane : m_NearPlanes) {
            const double at_row = plane.at_origin - y * plane.per_row;
            for (int i = 0; i < count; i++) {
                const double depth = at_row - (x0 + i) * plane.per_column;
                entry[i] = depth > entry[i] ? depth : entry[i];
            }
        }
        for (const PlaneDepth& plane : m_FarPlanes) {
            const double at_row = plane.at_origin - y * plane.per_row;
            for (int i = 0; i < count; i++) {
                const double depth = at_row - (x0 + i) * plane.per_column;
                exit[i] = depth < exit[i] ? depth : exit[i];
            }
        }
        // Pixels whose ray passes nothing keep their marks.
        for (int i = 0; i < count; i++) {
            if (entry[i] < exit[i]) {
                near_depths[x0 + i] = fixed_depth(entry[i]);
                far_depths[x0 + i] = fixed_depth(exit[i]);
            }
        }
    }
}

// ---- Depth image and visibility

void IP_VOLRC_Projector::DrawDepthImage() {
    const std::size_t num_pixels = static_cast<std::size_t>(m_RenderWidth) * static_cast<std::size_t>(m_RenderHeight);
    const double limit = m_DepthLimit;
    for (std::size_t i = 0; i < num_pixels; i++) {
        const double depth = s_DepthFromFront ? limit - m_RenderRaster[i] : static_cast<double>(m_ClipRaster[i]);
        const bool covered = m_RenderRaster[i] != kNoDepth && limit > 0.0;
        const int grey = covered ? affine::truncate_clamped(depth * 255.0 / (2.0 * limit), 0, 255) : 0;
        m_RenderRaster[i] = grey * 0x010101;
    }
}

bool IP_VOLRC_Projector::IsVisible(IP_3Coord point, float tolerance) {
    if (!m_Valid[kRaysValid] || m_RayPages == nullptr) {
        return false;
    }
    const double from_middle_mm[3] = {point.x - m_Middle_mm[0], point.y - m_Middle_mm[1], point.z - m_Middle_mm[2]};
    double physical_to_raster[4][4];
    affine::invert(m_FrameR2P, physical_to_raster);
    double raster[3];
    affine::transform_point(from_middle_mm, physical_to_raster, raster);

    // The pixel's ray.
    const double x = std::trunc(raster[0] + 0.5);
    const double y = std::trunc(raster[1] + 0.5);
    if (!(x >= 0.0 && x < m_RenderWidth && y >= 0.0 && y < m_RenderHeight)) {
        return false;
    }
    const _listRay& ray = RayRow(static_cast<int>(y))[static_cast<int>(x)];
    const double stopped_at = ray.step_count / m_IndexPerDepth / kFixedOne;
    return stopped_at + tolerance > raster[2];
}
