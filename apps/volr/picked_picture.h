// The picture that picks are made on: drawn from the same options as the verbs that write it.
#pragma once

#include "apps/volr/options.h"
#include "apps/volr/projection_options.h"
#include "apps/volr/session.h"
#include "scene/projection.h"
#include "scene/viewing_ray.h"
#include "scene/volume_rendering.h"

#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace volr {

struct PickOptions {
    InputOptions input;
    std::string on = "mip";
    std::vector<std::string> pixels;
    bool json = false;
    ViewOptions view;
    LookOptions look;
    ProjectionOptions projection;
    ClipOptions clip;
    RunOptions running;

    void AddTo(CLI::App& verb);
    bool OnRendering() const { return on == "render"; }
    std::vector<std::array<double, 2>> Pixels() const;  // checked against the picture's size
    void Check() const;
};

// The volume and the picture of it.
class PickedPicture {
public:
    PickedPicture(Session& session, const PickOptions& options);

    // Draws it; picks on renderings need it, on projections only who looks at it.
    scene::Picture Draw();
    // Empty outside of the volume.
    std::optional<scene::ViewingRay> Ray(double x, double y) const;
    // The position that a pixel shows.
    std::optional<scene::Vec3> Position(double x, double y);

    scene::VolumeSource& Source() { return *m_Source; }
    const scene::Camera& GetCamera() const { return m_Camera; }
    const scene::TransferTables& Tables() const { return *m_Rendering->Tables(); }

private:
    PickOptions m_Options;
    std::unique_ptr<scene::VolumeSource> m_Source;
    scene::Camera m_Camera;
    std::vector<scene::ClipPlane> m_Planes;
    std::optional<scene::VolumeRendering> m_Rendering;
    std::optional<scene::Projection> m_Projection;
};

}  // namespace volr
