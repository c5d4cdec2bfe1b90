// Picking on volume renderings: from a pixel of the picture to the patient.
#pragma once

#include "ip_volr/IP_ShearWarpProjector.h"

class IP_VolDataVolR;

// Works on a request (IP_VolRParamsVolR) whose m_AltVolData is an IP_MultiVolDataIncVolR, prepared from the biggest
// volume of m_VolData, and whose view box was set by Reset. Positions are physical mm; pixels count from the middle of
// the top-left one.
//
// Depth buffer of a box: m_Width x m_Height floats, row by row. With depth d at pixel (x, y) the picture shows the
// point (x, y, d) * m_ScreenToPhysical; where it shows nothing, d is not finite. The flag m_DepthBufferValid says that
// it belongs to the request.
class IP_VOLR_EXPORT IP_VolRProjector : public IP_ShearWarpProjector {
public:
    IP_VolRProjector() : IP_ShearWarpProjector(0.0F) {}
    IP_VolRProjector(const IP_VolRProjector&) = default;
    IP_VolRProjector& operator=(const IP_VolRProjector&) = default;
    ~IP_VolRProjector() override = default;

    // The first opaque point on the ray of a pixel, inside all clipping planes: where the ray enters an opaque voxel,
    // or the plane that cuts it open. False, with the point unchanged, when there is none or the volume cannot be read.
    bool Screen2Physical(IP_VolRParamsVolR* params, double pixel_x, double pixel_y, float point[3]);

    // Pixel of a point (x, y) and its distance from the picture plane in mm, away from the viewer (z). False when the
    // view has no inverse.
    bool Physical2Screen(IP_VolRParamsVolR* params, const float point[3], float screen[3]);

    // What the picture shows at the pixel that a point falls on: from the box's depth buffer (nearest pixel) when the
    // request allows it (m_UseDepthPicking) and the box's is valid, else the first opaque point of that pixel's ray.
    // False, with `picked` unchanged, when that pixel lies outside the picture or shows nothing. The box may be null.
    bool Physical2Screen2Physical(IP_VolRParamsVolR* params, IP_VolRBoxParamsVolR* box, const float point[3],
                                  float picked[3]);

protected:
    void TransposeSharedSlice(IP_VolDataProj* src, IP_VolDataProj* dst, int i, int j, int k) override;
};
