// Maximum-intensity projection of a source: settings in, 16-bit pictures out.
#pragma once

#include "ip_volr/IP_MIPProjector.h"
#include "ip_volr/IP_MultiVolDataIncMIP.h"
#include "ip_volr/IP_VolRClipManager.h"
#include "ip_volr/IP_VolRParams.h"
#include "scene/clipping.h"
#include "scene/picture.h"
#include "scene/tissues.h"
#include "scene/views.h"
#include "scene/volume_source.h"

#include <memory>
#include <optional>
#include <vector>

namespace scene {

// Stored values, rows top to bottom without gaps. Pixels that show nothing hold the volume's lowest value.
struct ProjectedPicture {
    int width = 0;
    int height = 0;
    std::vector<std::int16_t> stored;
};

// Which rescaled values become black and white.
struct DisplayWindow {
    double centre = 0.0;
    double width = 1.0;
};

// A layer of the volume, parallel to the picture.
struct Slab {
    double thickness_mm = 0.0;
    double offset_mm = 0.0;  // of its middle beyond the volume's middle, away from the viewer
};

// The two faces of a slab as planes that keep it.
std::vector<ClipPlane> PlanesOf(const Slab& slab, const Camera& camera);

// Draws one source. Not for several threads at once. The source must outlive it. Everything may throw std::bad_alloc;
// settings then stay as they were, and a frame or pick may be asked for again.
class Projection {
public:
    // Linear draws the source's slices with bilinear resampling; else prepared slices of half the width and height are
    // drawn, which is faster and coarser.
    Projection(VolumeSource& source, bool linear);
    ~Projection();
    Projection(const Projection&) = delete;
    Projection& operator=(const Projection&) = delete;

    // Makes what the fast path draws; a frame would make it otherwise. Throws Error and the host's cancellation.
    void Prepare();
    void SetClipping(const std::vector<ClipPlane>& planes);
    // Leaves out the voxels of a mask (of the source's size); null leaves out nothing. Throws as Prepare does; the
    // earlier mask then stays.
    void SetMask(std::shared_ptr<IP_RealListVol> mask);
    const IP_RealListVol* Mask() const { return m_Mask.get(); }
    void SetSlab(const std::optional<Slab>& slab);
    // Weight of the far end of the volume, 0 to 1; the near end counts fully.
    void SetDepthCue(const std::optional<double>& floor);
    void SetView(const Camera& camera, const View& view);

    // Throws Error when memory is refused, and the host's cancellation.
    ProjectedPicture Draw();

    // The brightest voxel under a pixel of the last frame; empty where the ray misses. Throws Error when slices cannot
    // be read.
    std::optional<IP_MIPPick> Pick(double pixel_x, double pixel_y);
    // The viewing ray, in voxel indices of the source; empty where it misses the volume.
    std::optional<IP_MIPRay> Ray(double pixel_x, double pixel_y);

private:
    std::unique_ptr<IP_VolRClipManager> MakeClip(std::vector<ClipPlane> planes, const std::optional<Slab>& slab,
                                                 const Camera& camera);
    void PassMask();
    void TakeArrivals();

    VolumeSource& m_Source;
    bool m_Linear;
    std::shared_ptr<IP_VolData> m_Volume;  // the source's slices in a frame of the projection's own
    std::shared_ptr<IP_RealListVol> m_Mask;
    std::unique_ptr<MaskedVolume> m_Masked;  // the source without the mask, for the linear path
    int m_MaskVersion = 1;
    std::shared_ptr<IP_MultiVolDataIncMIP> m_Prepared;
    std::size_t m_NumSeen = 0;  // of the source's arrivals
    IP_VolRParamsMIP m_Params;
    IP_VolRBoxParamsMIP m_BoxA;
    IP_VolRBoxParamsMIP m_BoxB;
    std::unique_ptr<IP_VolRClipManager> m_Clip;
    IP_MIPProjector m_Projector;
    Camera m_Camera;
    std::vector<ClipPlane> m_Planes;
    std::optional<Slab> m_Slab;
    ProjectedPicture m_Picture;
};

// The window to show a picture with: the file's own, unless it would make more than half of what is not black
// white; else from the 0.1 to the 99.9 percentile of the volume.
DisplayWindow DefaultWindow(VolumeSource& source, const ProjectedPicture& picture);

// Grey pictures of a projection. Values are rescaled before the window applies.
Picture Windowed(const ProjectedPicture& picture, const VolumeSource& source, const DisplayWindow& window);
GreyPicture Windowed16(const ProjectedPicture& picture, const VolumeSource& source, const DisplayWindow& window);

}  // namespace scene
