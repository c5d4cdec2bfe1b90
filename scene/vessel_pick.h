// The centre of the vessel under a pixel.
#pragma once

#include "ip_volr/IP_Relate.h"
#include "scene/transfer_function.h"
#include "scene/viewing_ray.h"
#include "scene/volume_source.h"

#include <optional>
#include <string>
#include <vector>

namespace scene {

struct VesselPick {
    std::string vessel_class;       // "none", "thin", "medium" or "high"
    std::string reason;             // how the search ended, one sentence
    bool found = false;             // a vessel with both walls
    std::optional<Vec3> centre_mm;  // patient LPS; the picked voxel's when no vessel was recognised
    std::optional<Vec3> centre_voxel;
    std::optional<Vec3> picked_mm;  // what the pixel shows
    double length_mm = 0.0;         // between the walls, along the ray
};

// On a maximum-intensity projection.
VesselPick FindVesselOnProjection(VolumeSource& source, const ViewingRay& ray);
// On a volume rendering with these tables. The vessel search reads the opacity from an entry's first byte.
VesselPick FindVesselOnRendering(VolumeSource& source, const TransferTables& tables, const ViewingRay& ray);

// Points as a markups list that other viewers open (.mrk.json, LPS).
std::string MarkupsJson(const std::vector<VesselPick>& picks);

}  // namespace scene
