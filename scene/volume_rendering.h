// Shaded volume rendering of a source: settings in, finished pictures out.
#pragma once

#include "ip_volr/IP_VOLRC_VolumeRenderingRC.h"
#include "scene/clipping.h"
#include "scene/picture.h"
#include "scene/tissues.h"
#include "scene/transfer_function.h"
#include "scene/views.h"
#include "scene/volume_source.h"

#include <array>
#include <list>
#include <memory>
#include <optional>
#include <string_view>
#include <vector>

namespace scene {

// What lies behind the volume.
struct Background {
    bool transparent = false;
    std::uint32_t rgb = 0x000000;
};

enum class RenderQuality { kEnhanced, kStandard, kInteractive0, kInteractive1, kInteractive2 };

// By name ("enhanced", "standard", "interactive0", ...); empty for any other.
std::optional<RenderQuality> QualityByName(std::string_view name);

// Where the light comes from, in degrees as the viewer sees it: right of and above his head.
struct Light {
    double azimuth_deg = -25.0;
    double elevation_deg = 30.0;
};

// Draws one source. Not for several threads at once. The source must outlive it. Everything may throw std::bad_alloc;
// settings then stay as they were, and a frame may be asked for again.
class VolumeRendering {
public:
    // Throws Error when there is no memory for the engine.
    explicit VolumeRendering(VolumeSource& source);

    // One transfer function (not relative) for all voxels. Unlit: colours as they stand in the table.
    void SetTransfer(const TransferFunction& function, bool lit);
    // Tissues with looks of their own; null indices remove them. `indices` are those of MakeTissueVolume for the plan.
    void SetTissues(std::shared_ptr<IP_MultiVolData> indices, const TissuePlan& plan);
    IP_VolData* TissueIndices() const { return m_Tissues != nullptr ? m_Tissues->GetVolData(0) : nullptr; }
    void SetClipping(const std::vector<ClipPlane>& planes);
    void SetQuality(RenderQuality quality);
    void SetView(const Camera& camera, const Light& light);
    // After an interactive frame: its time over the time that it may take. Those to come are drawn more coarsely or
    // finely, within the bounds of their level. Other qualities do not change.
    void AdjustInteractiveFrames(double ratio) { m_Engine.AdjustRenderingTime(ratio); }

    // Draws a frame. Throws Error when the engine cannot draw, and the host's cancellation.
    Picture Draw(const Background& background);
    // The tables that it draws with, by tissue (15 is "no tissue"), each pointing at stored value 0. Valid until the
    // transfer function or the tissues change.
    std::array<const std::uint32_t*, 16> ColourTables() const;
    // Whether a position is in front of what the last frame shows, or at most `tolerance_mm` behind.
    bool IsVisible(const Vec3& position_mm, double tolerance_mm);

private:
    void PassTables();
    void PassArrivals();
    const TransferTables& TablesOf(std::size_t tissue) const;

    VolumeSource& m_Source;
    IP_VOLRC_VolumeRenderingRC m_Engine{0, 0};
    std::size_t m_NumSeen = 0;       // of the source's arrivals
    std::list<int> m_ChangedSlices;  // which the engine reads with the next frame
    std::unique_ptr<TransferTables> m_Tables;
    // Tables of index 0, 1, ...; null where the tissue looks like the volume.
    std::array<std::unique_ptr<TransferTables>, TissuePlan::kRest + 1> m_TissueTables;
    std::shared_ptr<IP_MultiVolData> m_Tissues;
    bool m_Lit = true;
    RenderQuality m_Quality = RenderQuality::kEnhanced;
    int m_Width = 0;
    int m_Height = 0;
    std::vector<std::uint32_t> m_Raw;
};

// Turns what the engine leaves (colour premultiplied, at most half bright; remaining transparency in the top byte) into
// a picture: full brightness, and what the engine stopped following because hardly anything shone through is opaque.
// `stop_transparency` is the engine's threshold for that, 0 to 65535.
Picture Developed(const std::vector<std::uint32_t>& raw, int width, int height, const Background& background,
                  int stop_transparency);

}  // namespace scene
