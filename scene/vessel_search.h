// The centre of the vessel under a pixel.
#pragma once

#include "host/masks.h"
#include "ip_volr/IP_Relate.h"
#include "scene/picking.h"

#include <optional>
#include <string_view>

namespace scene {

struct VesselPick {
    bool found = false;
    VesselClass vessel_class = kVesselNone;  // none unless found
    std::string_view reason;                 // why none was found; empty when one was
    // Only when a vessel was found:
    Vec3 centre_mm;  // middle between its walls along the line of sight, patient LPS
    Vec3 centre_voxel;
    double length_mm = 0.0;  // between its walls along the line of sight
    // The voxel that the search started from: the one that the pixel shows. Also when no vessel is there.
    std::optional<Vec3> picked_mm;
    VesselSearchRecord record;
};

// Centre of the vessel that a pixel of a projection shows, along the pixel's ray; an empty ray misses the volume. Only
// voxels of `mask` count, all with null. Throws Error when slices cannot be read.
VesselPick FindVesselOnProjection(VolumeSource& source, const IP_ListVol* mask, const std::optional<ViewingRay>& ray);

// The same of a volume rendering. `tissues` is the tissue-index volume of the rendering, null without tissues.
VesselPick FindVesselOnRendering(VolumeSource& source, IP_VolData* tissues, const OpacityTables& opacities,
                                 const std::optional<ViewingRay>& ray);

// "none", "thin", "medium" or "high".
std::string_view Name(VesselClass vessel_class);

}  // namespace scene
