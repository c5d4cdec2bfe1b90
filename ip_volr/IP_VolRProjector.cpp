#include "ip_volr/IP_VolRProjector.h"

#include "host/matrix_math.h"
#include "ip_volr/IP_MIPProjector.h"
#include "ip_volr/IP_MultiVolDataInc.h"
#include "ip_volr/IP_VolDataVolR.h"

#include <cmath>
#include <limits>

namespace {

// The ray of a pixel through the biggest volume, cut by the planes; false when nothing is left of it.
bool viewing_ray(const IP_VolRParamsVolR& params, double pixel_x, double pixel_y, IP_MIPRay& ray) {
    IP_VolRParamsMIP request;
    std::copy(&params.m_ViewMatrix[0][0], &params.m_ViewMatrix[0][0] + 16, &request.m_ViewMatrix[0][0]);
    request.m_ClipManager = params.m_ClipManager;
    request.m_Width = params.m_Width;
    request.m_Height = params.m_Height;
    request.m_VolData = params.m_VolData;
    request.m_Zoom = params.m_Zoom;
    request.m_PanX = params.m_PanX;
    request.m_PanY = params.m_PanY;
    request.m_ViewBox = params.m_ViewBox;
    int index = -1;
    params.m_VolData->GetBiggestVolData(index);
    return IP_MIPProjector::ScreenRay(&request, index, pixel_x, pixel_y, &ray);
}

// A walk along a ray from voxel to voxel of the prepared data, each of which reaches half a voxel around its index.
class VoxelWalk {
public:
    VoxelWalk(const IP_MIPRay& ray, int factor) {
        for (int i = 0; i < 3; i++) {
            const double scale = i < 2 ? 1.0 / factor : 1.0;
            // Reduced voxels begin where the first of their voxels begins.
            const double from_corner = (ray.start[i] + 0.5) * scale;
            const double step = ray.direction[i] * scale;
            m_Voxel[i] = static_cast<int>(std::floor(from_corner));
            m_Sign[i] = step > 0.0 ? 1 : -1;
            m_Spacing[i] = step != 0.0 ? 1.0 / std::fabs(step) : std::numeric_limits<double>::infinity();
            const double to_border = step > 0.0 ? m_Voxel[i] + 1 - from_corner : from_corner - m_Voxel[i];
            m_Next[i] = step != 0.0 ? to_border * m_Spacing[i] : std::numeric_limits<double>::infinity();
        }
    }

    const int* voxel() const { return m_Voxel; }
    double entered_at() const { return m_EnteredAt; }  // parameter of the ray, 0 in the first voxel

    void advance() {
        int axis = m_Next[0] <= m_Next[1] ? 0 : 1;
        axis = m_Next[axis] <= m_Next[2] ? axis : 2;
        m_EnteredAt = m_Next[axis];
        m_Voxel[axis] += m_Sign[axis];
        m_Next[axis] += m_Spacing[axis];
    }

private:
    int m_Voxel[3];
    int m_Sign[3];
    double m_Spacing[3];  // of the borders across each axis, along the ray
    double m_Next[3];     // the next border across each axis
    double m_EnteredAt = 0.0;
};

// Depth of a pixel in a box's buffer; not finite when there is none.
float buffered_depth(const IP_VolRParamsVolR& params, IP_VolRBoxParamsVolR& box, int x, int y) {
    float depth = std::numeric_limits<float>::infinity();
    if (box.m_DepthBuffer.Map() == 0) {
        const auto i =
            static_cast<std::size_t>(y) * static_cast<std::size_t>(params.m_Width) + static_cast<std::size_t>(x);
        depth = static_cast<const float*>(box.m_DepthBuffer.Ptr())[i];
        box.m_DepthBuffer.Unmap();
    }
    return depth;
}

bool is_usable(const IP_VolRParamsVolR* params) {
    return params != nullptr && params->m_VolData != nullptr && params->m_VolData->GetNVolData() > 0;
}

}  // namespace

bool IP_VolRProjector::Screen2Physical(IP_VolRParamsVolR* params, double pixel_x, double pixel_y, float point[3]) {
    IP_MIPRay ray;
    const auto* const data = is_usable(params) && params->m_AltVolData != nullptr
                                 ? dynamic_cast<const IP_VolDataVolR*>(params->m_AltVolData->GetVolData(0))
                                 : nullptr;
    if (data == nullptr || data->GetFactor() < 1 || !viewing_ray(*params, pixel_x, pixel_y, ray)) {
        return false;
    }
    IP_VolDataVolR::Reader reader(*data);
    for (VoxelWalk walk(ray, data->GetFactor()); walk.entered_at() <= ray.length; walk.advance()) {
        const int* const voxel = walk.voxel();
        const bool is_opaque = reader.IsOpaque(voxel[0], voxel[1], voxel[2]);
        if (reader.HasFailed()) {
            return false;
        }
        if (is_opaque) {
            for (int i = 0; i < 3; i++) {
                point[i] =
                    static_cast<float>(ray.start_mm[i] + ray.direction_mm[i] * ray.voxel_size * walk.entered_at());
            }
            return true;
        }
    }
    return false;
}

bool IP_VolRProjector::Physical2Screen(IP_VolRParamsVolR* params, const float point[3], float screen[3]) {
    if (!is_usable(params)) {
        return false;
    }
    calc_screen_box(params);
    float to_virtual[4][4];
    float to_index[4][4];
    PhysicalToVirtual(params->m_VolData->GetBoundingBox(), params->m_ViewMatrix, to_virtual);
    params->m_ScreenBox.GetPhysicalToIndexTrans(to_index);
    float on_plane[3];
    IP_vectrans(point, to_virtual, on_plane);
    const float depth_mm = on_plane[2];
    float pixel[3];
    IP_vectrans(on_plane, to_index, pixel);
    if (!std::isfinite(pixel[0]) || !std::isfinite(pixel[1]) || !std::isfinite(depth_mm)) {
        return false;
    }
    screen[0] = pixel[0];
    screen[1] = pixel[1];
    screen[2] = depth_mm;
    return true;
}

bool IP_VolRProjector::Physical2Screen2Physical(IP_VolRParamsVolR* params, IP_VolRBoxParamsVolR* box,
                                                const float point[3], float picked[3]) {
    float screen[3];
    if (!Physical2Screen(params, point, screen)) {
        return false;
    }
    const float x = std::floor(screen[0] + 0.5F);
    const float y = std::floor(screen[1] + 0.5F);
    if (!(x >= 0.0F && y >= 0.0F && x < static_cast<float>(params->m_Width) &&
          y < static_cast<float>(params->m_Height))) {
        return false;
    }
    if (params->m_UseDepthPicking == 0 || box == nullptr || !box->m_DepthBufferValid) {
        return Screen2Physical(params, screen[0], screen[1], picked);
    }

    const float depth = buffered_depth(*params, *box, static_cast<int>(x), static_cast<int>(y));
    if (!std::isfinite(depth)) {
        return false;
    }
    const float shown[3] = {x, y, depth};
    IP_vectrans(shown, box->m_ScreenToPhysical, picked);
    return true;
}

void IP_VolRProjector::TransposeSharedSlice(IP_VolDataProj* src, IP_VolDataProj* dst, int i, int j, int k) {
    if (src == nullptr || dst == nullptr) {
        return;
    }
    const int num_slices = src->GetNumberSlices();
    if (i >= 0 && i < num_slices) {
        dst->SetSlice(src->GetSlice(i), i);
    }
    if (j >= 0 && j < num_slices && src->Transpose2WorkSlice(j, k)) {
        dst->SetSlice(src->GetSlice(num_slices + k), j);
    }
}
