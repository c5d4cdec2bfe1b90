#include "apps/serve/client_scene.h"

#include <algorithm>
#include <cmath>

namespace serve {

namespace {

// A pane at a share of its size, still showing the same.
Pane Scaled(const Pane& pane, double scale) {
    const auto pixels = [&](int whole) { return std::max(8, static_cast<int>(std::lround(whole * scale))); };
    return {pane.mode, pixels(pane.width), pixels(pane.height)};
}

scene::View ViewOf(const SceneState& state, const Pane& pane) {
    scene::View view;
    view.zoom = state.camera.zoom;
    view.pan_x = state.camera.pan_x;
    view.pan_y = state.camera.pan_y;
    view.width = pane.width;
    view.height = pane.height;
    return view;
}

// How a label looks by the page's choice.
scene::TissueLook LookOf(const TissueChoice& choice, const scene::TransferFunction& volume) {
    if (!choice.visible || choice.opacity <= 0.0) {
        return scene::TissueLook::Hidden();
    }
    if (choice.colour) {
        return scene::TissueLook::Colour(*choice.colour, choice.opacity);
    }
    if (choice.opacity >= 1.0) {
        return scene::TissueLook::AsVolume();
    }
    return {scene::TissueLook::Kind::kOwn, "volume at " + std::to_string(choice.opacity),
            scene::Adjusted(volume, 0.0, choice.opacity)};
}

}  // namespace

ClientScene::ClientScene(std::shared_ptr<OpenedSeries> series) : m_Series(std::move(series)) {}

scene::Camera ClientScene::CameraOf(const SceneState& state, const Pane& pane) const {
    const auto camera =
        scene::MakeCamera(state.camera.right, state.camera.down, ViewOf(state, pane), m_Series->Source().GetSubject());
    return camera.value();
}

DrawnPicture ClientScene::Draw(const SceneState& state, const Pane& pane, const FrameEffort& effort) {
    const Pane drawn = Scaled(pane, effort.scale);
    DrawnPicture result;
    result.geometry = scene::GeometryOf(CameraOf(state, pane));
    if (pane.mode == PaneMode::kRender) {
        scene::VolumeRendering& rendering = RenderingFor(state, CameraOf(state, drawn), effort.quality);
        result.picture = rendering.Draw({false, state.background});
        return result;
    }
    scene::VolumeSource& source = m_Series->Source();
    const scene::ProjectedPicture projected = ProjectionFor(state, drawn, effort.linear).Draw();
    result.window = state.window          ? *state.window
                    : m_Series->IsWhole() ? scene::DefaultWindow(source, projected)
                                          : m_Series->DefaultWindow();
    result.picture = scene::Windowed(projected, source, *result.window);
    return result;
}

void ClientScene::AdjustRendering(double ratio) {
    if (m_Rendering != nullptr) {
        m_Rendering->AdjustInteractiveFrames(ratio);
    }
}

PickResult ClientScene::Pick(const SceneState& state, const Pane& pane, double x, double y, bool vessel) {
    scene::VolumeSource& source = m_Series->Source();
    PickResult result;
    if (pane.mode != PaneMode::kRender) {
        scene::Projection& projection = ProjectionFor(state, pane, true);
        result.point = scene::PickOnProjection(projection, source, x, y);
        if (vessel) {
            std::optional<IP_ListVol> shown;
            if (projection.Mask() != nullptr) {
                shown.emplace(*projection.Mask());
                shown->Negate();
            }
            result.vessel = scene::FindVesselOnProjection(source, shown ? &*shown : nullptr,
                                                          scene::RayOfProjection(projection, x, y));
        }
        return result;
    }
    const scene::Camera camera = CameraOf(state, pane);
    scene::VolumeRendering& rendering = RenderingFor(state, camera, scene::RenderQuality::kEnhanced);
    const scene::OpacityTables opacities(rendering.ColourTables(), source.Stored());
    const std::optional<scene::ViewingRay> ray = scene::RayOfRendering(source, camera, PlanesOf(state), x, y);
    result.point = scene::PickOnRendering(source, rendering.TissueIndices(), opacities, ray);
    if (vessel) {
        result.vessel = scene::FindVesselOnRendering(source, rendering.TissueIndices(), opacities, ray);
    }
    return result;
}

std::vector<scene::ClipPlane> ClientScene::PlanesOf(const SceneState& state) const {
    std::vector<scene::ClipPlane> planes = state.planes;
    const std::vector<scene::ClipPlane> sides = scene::PlanesOf(state.box, m_Series->Source());
    planes.insert(planes.end(), sides.begin(), sides.end());
    return planes;
}

scene::Projection& ClientScene::ProjectionFor(const SceneState& state, const Pane& pane, bool linear) {
    std::unique_ptr<scene::Projection>& projection = m_Projections[linear ? 1 : 0];
    if (projection == nullptr) {
        projection = std::make_unique<scene::Projection>(m_Series->Source(), linear);
    }
    PlanTissues(state);
    PassTissues(*projection, linear ? 1 : 0);
    projection->SetSlab(pane.mode == PaneMode::kSlab ? state.slab : std::nullopt);
    projection->SetDepthCue(state.depth_cue);
    projection->SetClipping(PlanesOf(state));
    projection->SetView(CameraOf(state, pane), ViewOf(state, pane));
    return *projection;
}

scene::VolumeRendering& ClientScene::RenderingFor(const SceneState& state, const scene::Camera& camera,
                                                  scene::RenderQuality quality) {
    if (m_Rendering == nullptr) {
        m_Rendering = std::make_unique<scene::VolumeRendering>(m_Series->Source());
        m_Look.reset();
        m_RenderingPlan = 0;
    }
    const Look look = {state.preset, state.shift, state.opacity, state.lit};
    if (m_Look != look) {
        m_Rendering->SetTransfer(m_Series->Function(state.preset, state.shift, state.opacity), state.lit);
        m_Look = look;
    }
    PlanTissues(state);
    PassTissues(*m_Rendering);
    m_Rendering->SetQuality(quality);
    m_Rendering->SetClipping(PlanesOf(state));
    m_Rendering->SetView(camera, {state.light_azimuth_deg, state.light_elevation_deg});
    return *m_Rendering;
}

void ClientScene::PlanTissues(const SceneState& state) {
    if (!m_Series->Labels()) {
        return;
    }
    const Look look = {state.preset, state.shift, state.opacity, state.lit};
    if (m_Plan != nullptr && m_TissueChoices == state.tissues && m_TissueLook == look) {
        return;
    }
    const scene::LabelVolume& labels = m_Series->Labels()->labels;
    const scene::TransferFunction volume = m_Series->Function(state.preset, state.shift, state.opacity);
    std::vector<scene::TissueWish> wishes;
    for (const TissueChoice& choice : state.tissues) {
        // Labels that no voxel bears look like nothing.
        const std::vector<int>& present = labels.Present();
        if (choice.label == 0 || std::binary_search(present.begin(), present.end(), choice.label)) {
            wishes.push_back({choice.label, LookOf(choice, volume), false});
        }
    }
    auto plan =
        std::make_unique<scene::TissuePlan>(scene::PlanTissues(labels.Present(), wishes, m_Series->Labels()->table));

    // Other colours of the same tissues need no new indices.
    const bool same_indices = m_Plan != nullptr && m_Plan->index_of_label == plan->index_of_label;
    bool same_hidden = m_Plan != nullptr;
    for (std::size_t i = 0; i <= labels.Present().size() && same_hidden; ++i) {
        const int label = i == 0 ? 0 : labels.Present()[i - 1];
        same_hidden = m_Plan->IsHidden(label) == plan->IsHidden(label);
    }
    if (!same_indices) {
        m_Indices.reset();
    }
    if (!same_hidden) {
        m_Hidden = scene::MakeHiddenMask(labels, *plan, m_Series->Source());
        m_ProjectionPlans.fill(0);
    }
    m_Plan = std::move(plan);
    m_TissueChoices = state.tissues;
    m_TissueLook = look;
    ++m_PlanVersion;
}

void ClientScene::PassTissues(scene::VolumeRendering& rendering) {
    if (m_Plan == nullptr || m_RenderingPlan == m_PlanVersion) {
        return;
    }
    if (m_Indices == nullptr) {
        m_Indices = scene::MakeTissueVolume(m_Series->Labels()->labels, *m_Plan, m_Series->Source());
    }
    rendering.SetTissues(m_Indices, *m_Plan);
    m_RenderingPlan = m_PlanVersion;
}

void ClientScene::PassTissues(scene::Projection& projection, std::size_t which) {
    if (m_Plan == nullptr || m_ProjectionPlans[which] != 0) {
        return;
    }
    projection.SetMask(m_Hidden);
    m_ProjectionPlans[which] = 1;
}

}  // namespace serve
