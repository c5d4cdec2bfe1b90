#include "scene/volume_rendering.h"

#include "scene/error.h"
#include "scene/parallel.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <numbers>

namespace scene {

namespace {

constexpr std::size_t kTissueTables = 16;
constexpr int kFullWhite = 127;  // what an opaque white surface without shading ends at in the engine's pictures

struct NamedQuality {
    std::string_view name;
    RenderQuality quality;
    bool enhanced;
    int interactive_level;  // -1 for final frames
    int stop_transparency;
};

constexpr std::array<NamedQuality, 5> kQualities = {{
    {"enhanced", RenderQuality::kEnhanced, true, -1, 3276},
    {"standard", RenderQuality::kStandard, false, -1, 3276},
    {"interactive0", RenderQuality::kInteractive0, true, 0, 3276},
    {"interactive1", RenderQuality::kInteractive1, true, 1, 6552},
    {"interactive2", RenderQuality::kInteractive2, true, 2, 13104},
}};

const NamedQuality& Entry(RenderQuality quality) {
    return kQualities[static_cast<std::size_t>(quality)];
}

// Rotation of patient axes about the volume's middle to the screen: right, down, away from the viewer.
void ProjectionMatrix(const Camera& camera, float m[4][4]) {
    const std::array<std::array<double, 3>, 3> screen = {ToArray(camera.right), ToArray(camera.down),
                                                         ToArray(camera.into)};
    for (std::size_t i = 0; i < 4; ++i) {
        for (std::size_t j = 0; j < 4; ++j) {
            m[i][j] = i < 3 && j < 3 ? static_cast<float>(screen[j][i]) : (i == j ? 1.0F : 0.0F);
        }
    }
}

// From mm on the screen to pixels.
void ScreenMatrix(const Camera& camera, float m[4][4]) {
    const auto scale = static_cast<float>(camera.pixels_per_mm);
    const float rows[4][4] = {{scale, 0, 0, 0},
                              {0, scale, 0, 0},
                              {0, 0, 1, 0},
                              {static_cast<float>(camera.centre_x), static_cast<float>(camera.centre_y), 0, 1}};
    std::memcpy(m, rows, sizeof(rows));
}

// An engine without memory for its projector takes no volume and does nothing that it is asked for.
bool HasProjector(IP_VOLRC_VolumeRenderingRC& engine) {
    double view[3] = {std::nan(""), 0.0, 0.0};
    engine.GetViewVector(view);
    return !std::isnan(view[0]);
}

int Layers(int slices) {
    return (slices + 4 + 31) / 32;
}  // of 32 slices, two more slices at each end

}  // namespace

std::optional<RenderQuality> QualityByName(std::string_view name) {
    const auto found =
        std::find_if(kQualities.begin(), kQualities.end(), [&](const NamedQuality& q) { return q.name == name; });
    return found != kQualities.end() ? std::optional(found->quality) : std::nullopt;
}

VolumeRendering::VolumeRendering(VolumeSource& source) : m_Source(source) {
    m_Engine.SetVolumeData(source.Volumes(), source.Info().is_signed);
    if (!HasProjector(m_Engine)) {
        throw Error(ErrorKind::kFailed, "render", "no memory for the engine", "free memory and try again");
    }
    m_Engine.SetMaxLayerLoaded(Layers(source.Info().dims[2]));
    m_NumSeen = source.Arrived().size();
    SetQuality(RenderQuality::kEnhanced);
}

void VolumeRendering::SetTransfer(const TransferFunction& function, bool lit) {
    m_Tables = std::make_unique<TransferTables>(function, m_Source.Stored());
    m_Lit = lit;
    PassTables();
}

void VolumeRendering::SetTissues(std::shared_ptr<IP_MultiVolData> indices, const TissuePlan& plan) {
    // The engine goes on reading the earlier tables until it has others.
    decltype(m_TissueTables) tables;
    const auto make_tables = [&](std::size_t index, const TissueLook& look) {
        if (look.kind != TissueLook::Kind::kAsVolume) {
            tables[index] = std::make_unique<TransferTables>(look.function, m_Source.Stored());
        }
    };
    if (indices != nullptr) {
        make_tables(TissuePlan::kRest, plan.rest);
        for (std::size_t i = 0; i < plan.looks.size(); ++i) {
            make_tables(i, plan.looks[i]);
        }
    }
    // The engine lets go of the indices before they end.
    m_Engine.SetVolumeTissues(indices.get());
    m_Tissues = std::move(indices);
    m_TissueTables.swap(tables);
    if (m_Tables != nullptr) {
        PassTables();
    }
}

void VolumeRendering::PassTables() {
    const unsigned int* colours[kTissueTables];
    const unsigned long long* weights[kTissueTables];
    for (std::size_t i = 0; i < kTissueTables; ++i) {
        const TransferTables& tables = TablesOf(i);
        colours[i] = tables.Colours();
        weights[i] = m_Lit ? tables.Weights() : nullptr;
    }
    m_Engine.SetColorTables(colours, weights, m_Source.Stored().bits, false);
    m_Engine.SetLightingMode(m_Lit ? IP_VOLRC_VolumeRenderingRC::LIGHTING_ON
                                   : IP_VOLRC_VolumeRenderingRC::LIGHTING_OFF);
}

const TransferTables& VolumeRendering::TablesOf(std::size_t tissue) const {
    return m_TissueTables[tissue] != nullptr ? *m_TissueTables[tissue] : *m_Tables;
}

std::array<const std::uint32_t*, 16> VolumeRendering::ColourTables() const {
    std::array<const std::uint32_t*, kTissueTables> tables{};
    for (std::size_t i = 0; i < kTissueTables; ++i) {
        tables[i] = TablesOf(i).Colours();
    }
    return tables;
}

void VolumeRendering::SetClipping(const std::vector<ClipPlane>& planes) {
    IP_ClipManager manager = ToClipManager(planes);
    m_Engine.SetClippingPlanes(&manager);
}

void VolumeRendering::SetQuality(RenderQuality quality) {
    m_Quality = quality;
    const NamedQuality& q = Entry(quality);
    using Engine = IP_VOLRC_VolumeRenderingRC;
    m_Engine.SetVolrQuality(q.enhanced ? Engine::RENDER_QUALITY_ENHANCED : Engine::RENDER_QUALITY_STANDARD);
    if (q.interactive_level >= 0) {
        m_Engine.SetInteractiveQuality(static_cast<Engine::IntercativeQuality>(q.interactive_level));
    }
    m_Engine.SetRenderMode(q.interactive_level >= 0 ? Engine::RENDER_MODE_INTERACTIVE : Engine::RENDER_MODE_FINAL);
}

void VolumeRendering::SetView(const Camera& camera, const Light& light) {
    m_Width = camera.width;
    m_Height = camera.height;
    float projection[4][4];
    float screen[4][4];
    ProjectionMatrix(camera, projection);
    ScreenMatrix(camera, screen);
    m_Engine.SetProjection(projection);
    m_Engine.Set2DTransform(screen);
    // The direction in which the light travels, on the screen.
    const double azimuth = light.azimuth_deg * std::numbers::pi / 180.0;
    const double elevation = light.elevation_deg * std::numbers::pi / 180.0;
    double direction[3] = {-std::sin(azimuth) * std::cos(elevation), std::sin(elevation),
                           std::cos(azimuth) * std::cos(elevation)};
    m_Engine.SetLightDirection(direction);
}

// Tells the engine which slices have come. It looks anew at the layer of bricks that each belongs to; the slice before
// names the layer below, of which a slice at the boundary is the last, too.
void VolumeRendering::PassArrivals() {
    const std::vector<int>& arrived = m_Source.Arrived();
    for (; m_NumSeen < arrived.size(); ++m_NumSeen) {
        const int iz = arrived[m_NumSeen];
        m_ChangedSlices.insert(m_ChangedSlices.end(), {std::max(iz - 1, 0), iz});
    }
    m_Engine.SetUpdatedSliceIndexList(m_ChangedSlices.empty() ? nullptr : &m_ChangedSlices);
}

Picture VolumeRendering::Draw(const Background& background) {
    // Alpha starts at 0, so that what the engine leaves in it is the rays' remaining transparency.
    PassArrivals();
    m_Raw.assign(static_cast<std::size_t>(m_Width) * static_cast<std::size_t>(m_Height), 0U);
    if (!m_Engine.Render(m_Raw.data(), m_Width, m_Height)) {
        throw Error(ErrorKind::kFailed, "render", "the engine could not draw this volume",
                    "it needs at least 5 voxels along rows and columns, and memory for one frame");
    }
    m_ChangedSlices.clear();
    return Developed(m_Raw, m_Width, m_Height, background, Entry(m_Quality).stop_transparency);
}

bool VolumeRendering::IsVisible(const Vec3& position_mm, double tolerance_mm) {
    const IP_3Coord point(static_cast<float>(position_mm.x), static_cast<float>(position_mm.y),
                          static_cast<float>(position_mm.z));
    return m_Engine.IsVisible(point, static_cast<float>(tolerance_mm));
}

Picture Developed(const std::vector<std::uint32_t>& raw, int width, int height, const Background& background,
                  int stop_transparency) {
    // A stopped ray leaves at most the threshold, brightened like its colour. From there to twice as much, transparency
    // comes back linearly, so that no edge shows where rays are stopped.
    const double stop = stop_transparency / 65535.0;
    const int hidden = static_cast<int>(255.0 * stop * (1.0 + stop + stop * stop)) + 1;
    std::array<std::uint32_t, 256> see_through{};
    for (int t = 0; t < 256; ++t) {
        see_through[static_cast<std::size_t>(t)] = static_cast<std::uint32_t>(t <= hidden      ? 0
                                                                              : t < 2 * hidden ? 2 * (t - hidden)
                                                                                               : t);
    }
    std::array<std::uint32_t, 256> exposed{};
    for (std::uint32_t c = 0; c < 256; ++c) {
        exposed[c] = std::min<std::uint32_t>(255, (c * 255 + kFullWhite / 2) / kFullWhite);
    }

    // An opaque background's part of each channel, by transparency.
    std::array<std::array<std::uint32_t, 3>, 256> behind{};
    for (std::size_t t = 0; t < 256; ++t) {
        for (std::size_t channel = 0; channel < 3; ++channel) {
            behind[t][channel] = ((background.rgb >> (8 * channel) & 255) * see_through[t] + 127) / 255;
        }
    }

    Picture picture(width, height);
    ForEachIndex(height, [&](int y) {
        const std::size_t first = static_cast<std::size_t>(y) * static_cast<std::size_t>(width);
        for (std::size_t i = first; i < first + static_cast<std::size_t>(width); ++i) {
            const std::uint32_t t = see_through[raw[i] >> 24];
            const std::uint32_t alpha = background.transparent ? 255 - t : 255;
            std::uint32_t pixel = alpha << 24;
            for (std::size_t channel = 0; channel < 3 && alpha > 0; ++channel) {
                const std::uint32_t colour = exposed[raw[i] >> (8 * channel) & 255];
                const std::uint32_t value = background.transparent ? (colour * 255 + alpha / 2) / alpha
                                                                   : colour + behind[raw[i] >> 24][channel];
                pixel |= std::min<std::uint32_t>(255, value) << (8 * channel);
            }
            picture.pixels[i] = pixel;
        }
    });
    return picture;
}

}  // namespace scene
