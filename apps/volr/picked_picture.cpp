#include "apps/volr/picked_picture.h"

#include <cmath>

namespace volr {

void PickOptions::AddTo(CLI::App& verb) {
    input.AddTo(verb);
    verb.add_option("--pixel", pixels, "pixel of the picture, as X,Y from the top left; repeatable")
        ->required()
        ->allow_extra_args(false);
    verb.add_option("--on", on, "kind of picture")->check(CLI::IsMember({"mip", "render"}))->capture_default_str();
    verb.add_flag("--json", json, "prints JSON");
    view.AddTo(verb);
    look.AddTo(verb);
    projection.AddTo(verb);
    clip.AddTo(verb);
    running.AddTo(verb, false);
}

std::vector<std::array<double, 2>> PickOptions::Pixels() const {
    const scene::View parsed = view.Parse();
    std::vector<std::array<double, 2>> all;
    for (const std::string& text : pixels) {
        const std::vector<double> xy = ParseNumbers("--pixel", text, 2);
        if (xy[0] < 0.0 || xy[1] < 0.0 || xy[0] > parsed.width - 1.0 || xy[1] > parsed.height - 1.0) {
            Misuse("--pixel", "\"" + text + "\" lies outside the picture",
                   "give X from 0 to " + std::to_string(parsed.width - 1) + " and Y from 0 to " +
                       std::to_string(parsed.height - 1));
        }
        all.push_back({xy[0], xy[1]});
    }
    return all;
}

void PickOptions::Check() const {
    Pixels();
    look.Function();
    look.ParseLight();
    projection.Check();
    clip.Check();
}

PickedPicture::PickedPicture(Session& session, const PickOptions& options)
    : m_Options(options), m_Source(session.Open(options.input)) {
    const scene::View view = options.view.Parse();
    m_Camera = scene::MakeCamera(view, m_Source->GetSubject());
    m_Planes = options.clip.Parse(*m_Source);
    if (options.OnRendering()) {
        m_Rendering.emplace(*m_Source);
        m_Rendering->SetTransfer(options.look.FunctionFor(*m_Source), options.look.Lit());
        m_Rendering->SetQuality(options.look.ParseQuality());
        m_Rendering->SetClipping(m_Planes);
        m_Rendering->SetView(m_Camera, options.look.ParseLight());
    } else {
        m_Projection.emplace(*m_Source, options.projection.Linear());
        options.projection.Apply(*m_Projection);
        m_Projection->SetClipping(m_Planes);
        m_Projection->SetView(m_Camera, view);
    }
    session.NotePicture(scene::GeometryOf(m_Camera));
}

scene::Picture PickedPicture::Draw() {
    if (m_Rendering) {
        return m_Rendering->Draw({});
    }
    const scene::ProjectedPicture picture = m_Projection->Draw();
    const std::optional<scene::DisplayWindow> window = m_Options.projection.ParseWindow();
    return scene::Windowed(picture, *m_Source, window ? *window : scene::DefaultWindow(*m_Source, picture));
}

std::optional<scene::ViewingRay> PickedPicture::Ray(double x, double y) const {
    std::vector<scene::ClipPlane> planes = m_Planes;
    if (!m_Rendering && !m_Options.projection.slab.empty()) {
        const std::vector<scene::ClipPlane> slab = scene::PlanesOf(*m_Options.projection.ParseSlab(), m_Camera);
        planes.insert(planes.end(), slab.begin(), slab.end());
    }
    return scene::RayThrough(m_Camera, *m_Source, planes, x, y);
}

std::optional<scene::Vec3> PickedPicture::Position(double x, double y) {
    if (m_Rendering) {
        const std::optional<scene::ViewingRay> ray = Ray(x, y);
        return ray ? m_Rendering->PickSurface(*ray, static_cast<int>(std::lround(x)), static_cast<int>(std::lround(y)))
                   : std::nullopt;
    }
    const std::optional<IP_MIPPick> pick = m_Projection->Pick(x, y);
    return pick ? std::optional(m_Source->PatientPosition({pick->voxel[0], pick->voxel[1], pick->voxel[2]}))
                : std::nullopt;
}

}  // namespace volr
