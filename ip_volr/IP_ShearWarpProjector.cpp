// Geometry of a shear-warp frame.
#include "ip_volr/IP_ShearWarpProjector.h"

#include "host/clipping.h"
#include "host/matrix_math.h"
#include "ip_volr/IP_MultiVolDataInc.h"
#include "ip_volr/IP_PortableMath.h"
#include "ip_volr/IP_VolDataProj.h"
#include "ip_volr/IP_VolRClipManager.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <new>

namespace {

constexpr float kAxisTolerance = 1e-5F;
constexpr float kLeastDeterminant = 1e-6F;
constexpr float kMaxShear = 100.0F;
constexpr float kDegreesPerRadian = 180.0F / 3.1415927F;
constexpr int kMinSlicesForBand = 10;

// |z| of the normal of the faces across an axis, seen by the viewer.
float facing(const IP_Box& box, const float m[4][4], int axis) {
    float normal[3];
    box.GetOrthoVec(normal, axis);
    IP_normalize(normal);
    float seen[3];
    IP_vectrans_no_translation(normal, m, seen);
    return std::fabs(seen[2]);
}

IP_MultiVolData* selected_data(const IP_VolRParams& params, int selector) {
    return selector != 0 ? params.m_VolData.get() : params.m_AltVolData.get();
}

void set_picture_dims(IP_Box& box, const IP_VolRParams& params) {
    const int dims[3] = {std::max(params.m_Width, 0), std::max(params.m_Height, 0), 1};
    box.SetDims(dims);
}

float finite_or(float v, float otherwise) {
    return std::isfinite(v) ? v : otherwise;
}

}  // namespace

IP_ShearWarpProjector::IP_ShearWarpProjector(float transp_margin_degrees) : m_TranspMargin(transp_margin_degrees) {}

IP_ShearWarpProjector::IP_ShearWarpProjector(const IP_ShearWarpProjector& o)
    : m_Params(o.m_Params), m_Dir(o.m_Dir), m_ZScale(o.m_ZScale), m_Pass(o.m_Pass), m_TranspMargin(o.m_TranspMargin) {}

IP_ShearWarpProjector& IP_ShearWarpProjector::operator=(const IP_ShearWarpProjector& o) {
    if (this != &o) {
        free_requests();
        m_Params = o.m_Params;
        m_Dir = o.m_Dir;
        m_ZScale = o.m_ZScale;
        m_Pass = o.m_Pass;
        m_TranspMargin = o.m_TranspMargin;
    }
    return *this;
}

IP_ShearWarpProjector::~IP_ShearWarpProjector() {
    free_requests();
}

void IP_ShearWarpProjector::PhysicalToVirtual(IP_BoxParams* bp, const float m[4][4], float out[4][4]) {
    float middle[3];
    bp->GetMiddle(middle);
    float centred[4][4];
    IP_Midnt(centred);
    IP_Mtranslate(centred, -middle[0], -middle[1], -middle[2]);
    IP_Mmul(centred, m, out);
}

void IP_ShearWarpProjector::PhysicalToScreen(IP_BoxParams* bp, const float m[4][4], IP_Box* screen, float out[4][4]) {
    float to_virtual[4][4];
    PhysicalToVirtual(bp, m, to_virtual);
    float to_index[4][4];
    screen->GetPhysicalToIndexTrans(to_index);
    IP_Mmul(to_virtual, to_index, out);
}

void IP_ShearWarpProjector::calc_screen_box(IP_VolRParams* params) {
    set_picture_dims(params->m_ViewBox, *params);
    params->m_ScreenBox = params->m_ViewBox;
    const float scale = 1.0F / params->m_Zoom;
    if (std::isfinite(scale) && scale != 0.0F) {
        params->m_ScreenBox.Scale(scale);
    }
    params->m_ScreenBox.Translate(finite_or(params->m_PanX * params->m_ScreenBox.GetWidth(), 0.0F),
                                  finite_or(params->m_PanY * params->m_ScreenBox.GetHeight(), 0.0F), 0.0F);
}

bool IP_ShearWarpProjector::clip_points(IP_VolRParams* params, float points[][3]) {
    IP_VolRClipManager* const clip = params->m_ClipManager;
    if (clip == nullptr) {
        return true;
    }

    // Cut the segment's parameter range plane by plane; inside is where the equation is not positive.
    double first = 0.0;
    double last = 1.0;
    clip->ResetIterator();
    for (IP_ClippingPlane* plane = clip->GetNextPlane(); plane != nullptr; plane = clip->GetNextPlane()) {
        if (!plane->IsActive() || plane->IsReference()) {
            continue;
        }
        double eq[4];
        plane->GetPlaneEq(eq);
        const auto value = [&eq](const float* p) { return eq[0] * p[0] + eq[1] * p[1] + eq[2] * p[2] + eq[3]; };
        const double at_start = value(points[0]);
        const double at_end = value(points[1]);
        if (at_start > 0.0 && at_end > 0.0) {
            return false;
        }
        if (at_start > 0.0) {
            first = std::max(first, at_start / (at_start - at_end));
        } else if (at_end > 0.0) {
            last = std::min(last, at_start / (at_start - at_end));
        }
    }
    if (first > last) {
        return false;
    }

    for (int i = 0; i < 3; i++) {
        const double start = points[0][i];
        const double step = points[1][i] - start;
        points[0][i] = static_cast<float>(start + first * step);
        points[1][i] = static_cast<float>(start + last * step);
    }
    return true;
}

void IP_ShearWarpProjector::Reset(IP_VolRParams* params, int selector) {
    IP_MultiVolData* const data = selected_data(*params, selector);
    int biggest_index = -1;
    IP_VolData* const biggest = data != nullptr ? data->GetBiggestVolData(biggest_index) : nullptr;
    if (biggest == nullptr) {
        return;
    }

    // A picture without pixels counts as square.
    float aspect =
        params->m_Width != 0 ? static_cast<float>(params->m_Height) / static_cast<float>(params->m_Width) : 1.0F;
    if (!(aspect > 0.0F)) {
        aspect = 1.0F;
    }
    params->m_VolumeBox = *data->GetBoundingBox();
    const float length = params->m_VolumeBox.GetLength();
    int dims[3];
    biggest->GetBox()->GetDims(dims);
    const float num_slices = static_cast<float>(std::max(dims[2], 1));
    const float side = length * (num_slices + 1.0F) / num_slices;

    IP_Box view;
    view.Translate(-0.5F, -0.5F, -0.5F);
    if (aspect < 1.0F) {
        view.Scale(side / aspect, side, 1.0F);
    } else {
        view.Scale(side, side * aspect, 1.0F);
    }
    if (params->m_ViewMode == 2 && length > 0.0F) {
        const float fit =
            ip_volr::portable_length(params->m_VolumeBox.GetWidth(), params->m_VolumeBox.GetDepth()) / length;
        view.Scale(fit, fit, 1.0F);
    }
    params->m_ViewBox = view;
}

void IP_ShearWarpProjector::prepare2project(IP_VolRParams* params, IP_VolRBoxParams* a, IP_VolRBoxParams* b, int,
                                            int selector) {
    set_picture_dims(params->m_ViewBox, *params);
    calc_screen_box(params);
    IP_MultiVolData* const data = selected_data(*params, selector);
    IP_Box nowhere;
    IP_BoxParams* const box = data != nullptr ? data->GetBoundingBox() : &nowhere;
    for (IP_VolRBoxParams* target : {a, b}) {
        if (target != nullptr) {
            PhysicalToVirtual(box, params->m_ViewMatrix, target->m_PhysToVirtual);
        }
    }
}

int IP_ShearWarpProjector::calc_dir(IP_Box* box, const float m[4][4], IP_Box* out) {
    float best = 0.0F;
    int best_axis = 0;
    for (int axis = 0; axis < 3; axis++) {
        const float value = facing(*box, m, axis);
        if (value > best + kAxisTolerance || (best < kAxisTolerance && value > 0.0F)) {
            best = value;
            best_axis = axis;
        }
    }
    *out = *box;
    return best_axis;
}

int IP_ShearWarpProjector::calc_min_dir(IP_Box* box, const float m[4][4]) {
    float best = 1e8F;
    int best_axis = 0;
    for (int axis = 0; axis < 3; axis++) {
        const float value = facing(*box, m, axis);
        if (value < best) {
            best = value;
            best_axis = axis;
        }
    }
    return best_axis;
}

float IP_ShearWarpProjector::calc_angle(IP_Box* box, const float m[4][4]) {
    float side[3];
    box->GetSideVec(side, 0);
    IP_normalize(side);
    float seen[3];
    IP_vectrans_no_translation(side, m, seen);
    const float angle = ip_volr::portable_arc_cosine(std::min(1.0F, std::fabs(seen[2]))) * kDegreesPerRadian;
    return angle > 90.0F ? 180.0F - angle : angle;
}

int IP_ShearWarpProjector::calc_transp_z(float angle_degrees, int n) {
    const float margin = n < kMinSlicesForBand ? 0.0F : m_TranspMargin;
    if (angle_degrees >= 0.0F && angle_degrees < 45.0F - margin) {
        return n;
    }
    if (angle_degrees >= 45.0F - margin && angle_degrees < 45.0F + margin) {
        return static_cast<int>((margin + 45.0F - angle_degrees) * static_cast<float>(n) / (2.0F * margin));
    }
    return 0;
}

int IP_ShearWarpProjector::set_trans_dir(int dir, int min_dir) {
    return dir == 2 && min_dir == 0 ? 2 : 1;
}

int IP_ShearWarpProjector::set_not_trans_dir(int dir, int min_dir) {
    if (dir != 0) {
        return dir;
    }
    return min_dir == 1 ? 2 : 1;
}

void IP_ShearWarpProjector::switch_dirs_x(IP_Box* box, int a, int b) {
    IP_VolDataProj::switch_dirs(box, a, b);
}

int IP_ShearWarpProjector::CalcDirSetDBox4Fast(IP_VolDataProj* data, float (&m)[4][4], bool transposed, IP_Box* out) {
    IP_Box* const box = transposed ? data->GetTransposedBox() : data->GetBox();
    const int dir = calc_dir(box, m, out);
    const int min_dir = calc_min_dir(box, m);
    const int used = transposed ? set_trans_dir(dir, min_dir) : set_not_trans_dir(dir, min_dir);
    if (used == 1) {
        switch_dirs_x(out, 1, 2);
    }
    return used;
}

int IP_ShearWarpProjector::CalcDirSetDBox4Slow(IP_VolDataProj* data, float (&m)[4][4], IP_Box* out, bool flag) {
    int dir = calc_dir(data->GetCurrentBox(), m, out);
    if (dir == 0) {
        if (flag) {
            int dims[3];
            data->GetBox()->GetDims(dims);
            data->Transpose(0, dims[2]);
        }
        data->FlipCurrentDir();
        calc_dir(data->GetCurrentBox(), m, out);
        dir = 1;
    }
    if (dir == 1) {
        switch_dirs_x(out, 1, 2);
    }
    return dir;
}

int IP_ShearWarpProjector::calc_zvec(float zvec[3], IP_Box* box, const float m[4][4], int) {
    float to_physical[4][4];
    box->GetIndexToPhysicalTrans(to_physical);
    float to_virtual[4][4];
    IP_Mmul(to_physical, m, to_virtual);

    // The picture plane's axes as seen by the viewer, and the step to the next slice.
    const float(&v)[4][4] = to_virtual;
    const double det = static_cast<double>(v[0][0]) * v[1][1] - static_cast<double>(v[0][1]) * v[1][0];
    const double size =
        static_cast<double>(std::hypot(v[0][0], v[0][1], v[0][2]) * std::hypot(v[1][0], v[1][1], v[1][2]));
    zvec[0] = zvec[1] = zvec[2] = 0.0F;

    int result = 0;
    if (std::fabs(det) >= kLeastDeterminant) {
        float plane[4][4];
        IP_Midnt(plane);
        for (int row = 0; row < 2; row++) {
            std::copy(v[row], v[row] + 4, plane[row]);
        }
        float inverse[4][4];
        IP_Minv(plane, inverse);
        const float step[3] = {v[2][0], v[2][1], 0.0F};
        IP_vectrans(step, inverse, zvec);
    } else if (std::fabs(det) > 1e-7 * size && size > 0.0) {
        // Tiny voxels make a small determinant too: solve the same equations by Cramer's rule.
        zvec[0] =
            static_cast<float>((static_cast<double>(v[2][0]) * v[1][1] - static_cast<double>(v[2][1]) * v[1][0]) / det);
        zvec[1] =
            static_cast<float>((static_cast<double>(v[0][0]) * v[2][1] - static_cast<double>(v[0][1]) * v[2][0]) / det);
    } else {
        result = -1;
    }

    // QUIRK(shear-limit): a reader expects the limit to keep the sign, but a shear beyond 100 in either direction
    // becomes +100; kept: callers rely on it.
    for (int i = 0; i < 3; i++) {
        zvec[i] = std::isfinite(zvec[i]) ? zvec[i] : 0.0F;
        zvec[i] = std::fabs(zvec[i]) > kMaxShear ? kMaxShear : zvec[i];
    }
    return result;
}

bool IP_ShearWarpProjector::RebuildVolRDatas(IP_VolDataProj* volume, IP_VolDataProj* not_transposed,
                                             IP_VolDataProj* transposed, float angle_degrees) try {
    if (volume == nullptr || not_transposed == nullptr || transposed == nullptr) {
        return false;
    }
    int dims[3];
    volume->GetBox()->GetDims(dims);
    const int num_slices = dims[2];
    const int split = std::clamp(calc_transp_z(angle_degrees, num_slices), 0, num_slices);

    volume->CheckAndTransposed(0, split, true);
    volume->CheckAndTransposed(split, num_slices, false);
    if (!volume->AreSlicesTransposed(0, split, true) || !volume->AreSlicesTransposed(split, num_slices, false)) {
        return false;
    }

    not_transposed->ShowSlices(*volume, split, num_slices);
    const bool both = split > 0 && split < num_slices;
    transposed->ShowSlices(*volume, 0, both ? split + 1 : split);
    if (both) {
        TransposeSharedSlice(volume, transposed, -1, split, 0);
        return transposed->GetSlice(split) != volume->GetSlice(split);
    }
    return true;
} catch (const std::bad_alloc&) {
    return false;
}
