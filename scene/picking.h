// What a pixel of a picture shows, and the viewing ray through it.
#pragma once

#include "scene/clipping.h"
#include "scene/projection.h"
#include "scene/vector3.h"
#include "scene/views.h"
#include "scene/volume_source.h"

#include <array>
#include <cstdint>
#include <functional>
#include <optional>
#include <string_view>
#include <vector>

namespace scene {

// The part of a pixel's line of sight that lies in what the picture shows of the volume. Voxel indices are whole at
// voxel centres.
struct ViewingRay {
    Vec3 start;             // where it enters, voxel indices
    Vec3 direction;         // away from the viewer, one voxel long: of length 1 in voxel indices
    double length = 0.0;    // to where it leaves, in voxels
    double voxel_mm = 1.0;  // length of one such voxel in the patient

    Vec3 At(double voxels) const { return start + direction * voxels; }
};

// The ray of a pixel (whole numbers are pixel centres) of a volume rendering: inside the box that the ray caster
// draws, which lacks two voxels at each face along columns and rows, and on the side of every plane that is kept. Empty
// when it misses.
std::optional<ViewingRay> RayOfRendering(const VolumeSource& source, const Camera& camera,
                                         const std::vector<ClipPlane>& planes, double pixel_x, double pixel_y);

// The same of a projection: inside the volume, its planes and its slab.
std::optional<ViewingRay> RayOfProjection(Projection& projection, double pixel_x, double pixel_y);

// Opacities in the form that searches along rays read: in the first byte of an entry, where the ray caster's tables
// have blue and keep the opacity in the fourth.
class OpacityTables {
public:
    // The ray caster's 16 tables, each pointing at the entry of stored value 0. They need not outlive the call.
    OpacityTables(const std::array<const std::uint32_t*, 16>& colours, const StoredValues& values);
    OpacityTables(const OpacityTables&) = delete;
    OpacityTables& operator=(const OpacityTables&) = delete;

    // 16 tables, each pointing at the entry of stored value 0.
    const unsigned* const* Tables() const { return m_Tables.data(); }

private:
    std::vector<std::vector<unsigned>> m_Entries;  // tables that are the same are held once
    std::array<const unsigned*, 16> m_Tables{};
};

enum class PickOutcome {
    kShown,           // the pixel shows this point
    kMissesVolume,    // its line of sight does not meet the volume, or what the planes leave of it
    kNothingVisible,  // it meets nothing that the picture shows
};

// One sentence, without a full stop.
std::string_view Text(PickOutcome outcome);

struct PickedPoint {
    PickOutcome outcome = PickOutcome::kMissesVolume;
    // Only when shown:
    Vec3 position_mm;                      // patient LPS
    double value = 0.0;                    // rescaled, as the picture sampled it there: mostly between voxels
    std::array<int, 3> voxel = {0, 0, 0};  // nearest voxel, column, row and slice from 0
    double voxel_value = 0.0;              // its rescaled value
};

// The brightest voxel of the ray, as the projection draws it. Throws Error when slices cannot be read.
PickedPoint PickOnProjection(Projection& projection, VolumeSource& source, double pixel_x, double pixel_y);

// The point of the ray that contributes most to the pixel's colour: the first opaque one, or of several half
// transparent layers the one that shows most. `tissues` is the tissue-index volume of the rendering, null without
// tissues. Throws Error when slices cannot be read.
PickedPoint PickOnRendering(VolumeSource& source, IP_VolData* tissues, const OpacityTables& opacities,
                            const std::optional<ViewingRay>& ray);

// Calls `read`, which reads voxels through the library's sliding range, and turns its access errors into Error.
void ReadVoxels(const std::function<void()>& read);

}  // namespace scene
