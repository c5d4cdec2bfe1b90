#include "scene/clipping.h"

namespace scene {

std::vector<ClipPlane> PlanesOf(const ClipBox& box, const VolumeSource& source) {
    std::vector<ClipPlane> planes;
    const ImportedVolume& info = source.Info();
    for (std::size_t axis = 0; axis < 3; ++axis) {
        const std::array<double, 12>& m = info.index_to_patient;
        const Vec3 along = Normalised({m[axis], m[4 + axis], m[8 + axis]});
        for (const bool upper : {false, true}) {
            const double fraction = box.fractions[2 * axis + (upper ? 1 : 0)];
            if (upper ? fraction >= 1.0 : fraction <= 0.0) {
                continue;
            }
            std::array<double, 3> index = {0.0, 0.0, 0.0};
            index[axis] = fraction * info.dims[axis] - 0.5;
            const Vec3 normal = upper ? -along : along;
            planes.push_back({normal.x, normal.y, normal.z, -Dot(normal, source.PatientPosition(FromArray(index)))});
        }
    }
    return planes;
}

IP_ClipManager ToClipManager(const std::vector<ClipPlane>& planes) {
    IP_ClipManager manager;
    int id = 0;
    for (const ClipPlane& p : planes) {
        // The engines keep what is not positive.
        const float equation[4] = {static_cast<float>(-p.a), static_cast<float>(-p.b), static_cast<float>(-p.c),
                                   static_cast<float>(-p.d)};
        IP_ClippingPlane* const plane = manager.NewClipPlane(id);
        plane->SetPlaneEq(equation);
        plane->SetID(id++);
    }
    return manager;
}

}  // namespace scene
