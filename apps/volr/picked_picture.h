// The picture that a pick looks at: the same options as for drawing it, and the pixels.
#pragma once

#include "apps/volr/options.h"
#include "apps/volr/projection_options.h"
#include "apps/volr/session.h"
#include "apps/volr/tissue_options.h"
#include "scene/picking.h"
#include "scene/picture.h"
#include "scene/vessel_search.h"

#include <array>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace volr {

using Pixel = std::array<double, 2>;  // x, y; whole numbers are pixel centres

struct PickedPictureOptions {
    InputOptions input;
    std::string on = "mip";
    std::vector<std::string> pixels;
    bool json = false;
    ViewOptions view;
    LookOptions look;
    TissueOptions tissues;
    ClipOptions clip;
    ProjectionOptions projection;
    RunOptions running;

    void AddTo(CLI::App& verb);
    // Everything that can be checked before the volume is there. Misuse throws.
    void Check() const;
    std::vector<Pixel> ParsePixels() const;
};

// The picture, set up but not drawn: picks need no frame.
class PickedPicture {
public:
    PickedPicture(Session& session, const PickedPictureOptions& options, scene::VolumeSource& source);

    const scene::Camera& Camera() const { return m_Camera; }
    scene::PickedPoint PickAt(const Pixel& pixel);
    scene::VesselPick VesselAt(const Pixel& pixel);
    // As volr mip and volr render draw it.
    scene::Picture Draw(Session& session, const scene::Background& background);

private:
    std::optional<scene::ViewingRay> Ray(const Pixel& pixel);

    const PickedPictureOptions& m_Options;
    scene::VolumeSource& m_Source;
    Tissues m_Tissues;
    scene::Camera m_Camera;
    std::vector<scene::ClipPlane> m_Planes;
    std::optional<IP_ListVol> m_Shown;              // voxels that a projection does not leave out; empty: all
    std::optional<scene::Projection> m_Projection;  // one of the two
    std::optional<scene::VolumeRendering> m_Rendering;
    std::optional<scene::OpacityTables> m_Opacities;
};

// [x, y, z], and [x, y] without a fraction where there is none.
nlohmann::ordered_json Array(const scene::Vec3& v);
nlohmann::ordered_json Array(const Pixel& pixel);
// The three numbers with two decimals and a blank between.
std::string Numbers(const scene::Vec3& v);
std::string Name(const Pixel& pixel);  // "x,y"

}  // namespace volr
