// What one client looks at, as the engines draw it.
#pragma once

#include "apps/serve/frame_pacing.h"
#include "apps/serve/opened_series.h"
#include "apps/serve/protocol.h"
#include "scene/picking.h"
#include "scene/picture.h"
#include "scene/projection.h"
#include "scene/tissues.h"
#include "scene/vessel_search.h"
#include "scene/volume_rendering.h"

#include <array>
#include <memory>
#include <optional>
#include <vector>

namespace serve {

// A picture, and what it shows.
struct DrawnPicture {
    scene::Picture picture;                      // smaller than the pane when the effort says so
    scene::PictureGeometry geometry;             // of the pane
    std::optional<scene::DisplayWindow> window;  // of projections
};

// What a pixel shows.
struct PickResult {
    scene::PickedPoint point;
    std::optional<scene::VesselPick> vessel;  // when asked for
};

// Engines of one client over a series that it shares with others. For the drawing thread alone. Everything throws Error
// and the host's cancellation; after either the next picture is right.
class ClientScene {
public:
    explicit ClientScene(std::shared_ptr<OpenedSeries> series);

    OpenedSeries& Series() { return *m_Series; }

    DrawnPicture Draw(const SceneState& state, const Pane& pane, const FrameEffort& effort);
    // After an interactive rendering: its time over the time that it may take. The next one is drawn finer or coarser.
    void AdjustRendering(double ratio);
    PickResult Pick(const SceneState& state, const Pane& pane, double x, double y, bool vessel);
    // The camera of a pane of a state.
    scene::Camera CameraOf(const SceneState& state, const Pane& pane) const;

private:
    scene::Projection& ProjectionFor(const SceneState& state, const Pane& pane, bool linear);
    scene::VolumeRendering& RenderingFor(const SceneState& state, const scene::Camera& camera,
                                         scene::RenderQuality quality);
    std::vector<scene::ClipPlane> PlanesOf(const SceneState& state) const;
    void PlanTissues(const SceneState& state);
    void PassTissues(scene::VolumeRendering& rendering);
    void PassTissues(scene::Projection& projection, std::size_t which);

    std::shared_ptr<OpenedSeries> m_Series;
    std::array<std::unique_ptr<scene::Projection>, 2> m_Projections;  // fast, linear
    std::unique_ptr<scene::VolumeRendering> m_Rendering;

    // What the rendering draws with now.
    struct Look {
        std::string preset;
        double shift = 0.0;
        double opacity = 1.0;
        bool lit = true;

        bool operator==(const Look&) const = default;
    };
    std::optional<Look> m_Look;

    // How the labels look now; versions say whom it was passed on to.
    std::optional<std::vector<TissueChoice>> m_TissueChoices;
    std::optional<Look> m_TissueLook;
    std::unique_ptr<scene::TissuePlan> m_Plan;
    std::shared_ptr<IP_MultiVolData> m_Indices;
    std::shared_ptr<IP_RealListVol> m_Hidden;
    int m_PlanVersion = 0;
    int m_RenderingPlan = 0;
    std::array<int, 2> m_ProjectionPlans{};
};

}  // namespace serve
