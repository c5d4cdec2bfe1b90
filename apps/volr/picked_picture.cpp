#include "apps/volr/picked_picture.h"

#include <cmath>
#include <cstdio>

namespace volr {

namespace {

// Whole numbers print without a fraction.
std::string Number(double value) {
    char text[32];
    std::snprintf(text, sizeof text, "%.10g", value);
    return text;
}

}  // namespace

void PickedPictureOptions::AddTo(CLI::App& verb) {
    input.AddTo(verb);
    verb.add_option("--pixel", pixels, "pixel of the picture, from 0,0 at the top left, as X,Y; repeatable")
        ->allow_extra_args(false)
        ->required();
    verb.add_option("--on", on, "picture that is picked on; it takes the options of the verb of that name")
        ->check(CLI::IsMember({"mip", "render"}))
        ->capture_default_str();
    verb.add_flag("--json", json, "prints JSON, one object for each pixel");
    view.AddTo(verb);
    projection.AddTo(verb);
    look.AddTo(verb);
    tissues.AddTo(verb);
    clip.AddTo(verb);
    running.AddTo(verb, false);
}

void PickedPictureOptions::Check() const {
    ParsePixels();
    projection.Check();
    look.Function();
    look.ParseLight();
    tissues.Check();
    clip.Check();
}

std::vector<Pixel> PickedPictureOptions::ParsePixels() const {
    const scene::View shape = view.Parse();
    std::vector<Pixel> parsed;
    for (const std::string& text : pixels) {
        const std::vector<double> xy = ParseNumbers("--pixel", text, 2);
        const bool inside = xy[0] >= -0.5 && xy[0] < shape.width - 0.5 && xy[1] >= -0.5 && xy[1] < shape.height - 0.5;
        if (!inside) {
            Misuse("--pixel", "\"" + text + "\" lies outside the picture",
                   "give 0,0 to " + std::to_string(shape.width - 1) + "," + std::to_string(shape.height - 1));
        }
        parsed.push_back({xy[0], xy[1]});
    }
    return parsed;
}

PickedPicture::PickedPicture(Session& session, const PickedPictureOptions& options, scene::VolumeSource& source)
    : m_Options(options), m_Source(source), m_Tissues(session, options.tissues, options.look, source) {
    const scene::View view = options.view.Parse();
    m_Camera = scene::MakeCamera(view, source.GetSubject());
    m_Planes = options.clip.Parse(source);
    if (options.on == "mip") {
        m_Projection.emplace(source, options.projection.Linear());
        options.projection.Apply(*m_Projection);
        m_Tissues.Apply(*m_Projection);
        if (m_Projection->Mask() != nullptr) {
            m_Shown.emplace(*m_Projection->Mask());
            m_Shown->Negate();
        }
        m_Projection->SetClipping(m_Planes);
        m_Projection->SetView(m_Camera, view);
        return;
    }
    m_Rendering.emplace(source);
    m_Rendering->SetTransfer(options.look.FunctionFor(source), options.look.Lit());
    m_Tissues.Apply(*m_Rendering);
    m_Rendering->SetQuality(options.look.ParseQuality());
    m_Rendering->SetClipping(m_Planes);
    m_Rendering->SetView(m_Camera, options.look.ParseLight());
    m_Opacities.emplace(m_Rendering->ColourTables(), source.Stored());
}

std::optional<scene::ViewingRay> PickedPicture::Ray(const Pixel& pixel) {
    return m_Projection ? scene::RayOfProjection(*m_Projection, pixel[0], pixel[1])
                        : scene::RayOfRendering(m_Source, m_Camera, m_Planes, pixel[0], pixel[1]);
}

scene::PickedPoint PickedPicture::PickAt(const Pixel& pixel) {
    return m_Projection ? scene::PickOnProjection(*m_Projection, m_Source, pixel[0], pixel[1])
                        : scene::PickOnRendering(m_Source, m_Rendering->TissueIndices(), *m_Opacities, Ray(pixel));
}

scene::VesselPick PickedPicture::VesselAt(const Pixel& pixel) {
    return m_Projection
               ? scene::FindVesselOnProjection(m_Source, m_Shown ? &*m_Shown : nullptr, Ray(pixel))
               : scene::FindVesselOnRendering(m_Source, m_Rendering->TissueIndices(), *m_Opacities, Ray(pixel));
}

scene::Picture PickedPicture::Draw(Session& session, const scene::Background& background) {
    scene::Picture picture;
    if (m_Rendering) {
        session.DrawFrames([&] { picture = m_Rendering->Draw(background); });
        return picture;
    }
    scene::ProjectedPicture projected;
    session.DrawFrames([&] { projected = m_Projection->Draw(); });
    const std::optional<scene::DisplayWindow> named = m_Options.projection.ParseWindow();
    return scene::Windowed(projected, m_Source, named ? *named : scene::DefaultWindow(m_Source, projected));
}

nlohmann::ordered_json Array(const scene::Vec3& v) {
    return scene::ToArray(v);
}

nlohmann::ordered_json Array(const Pixel& pixel) {
    nlohmann::ordered_json xy = nlohmann::ordered_json::array();
    for (const double v : pixel) {
        if (v == std::floor(v)) {
            xy.push_back(static_cast<int>(v));
        } else {
            xy.push_back(v);
        }
    }
    return xy;
}

std::string Numbers(const scene::Vec3& v) {
    char text[96];
    std::snprintf(text, sizeof text, "%.2f %.2f %.2f", v.x, v.y, v.z);
    return text;
}

std::string Name(const Pixel& pixel) {
    return Number(pixel[0]) + "," + Number(pixel[1]);
}

}  // namespace volr
