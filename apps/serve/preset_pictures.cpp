#include "apps/serve/preset_pictures.h"

#include "apps/serve/picture_encoding.h"

namespace serve {

namespace {

constexpr int kEdge = 128;

std::string DrawPreset(const std::shared_ptr<OpenedSeries>& series, const std::string& preset) {
    SceneState state;
    state.preset = preset;
    ClientScene scene(series);
    FrameEffort effort = FinalEffort();
    effort.quality = scene::RenderQuality::kStandard;
    return EncodePngQuickly(scene.Draw(state, {PaneMode::kRender, kEdge, kEdge}, effort).picture);
}

}  // namespace

PresetPictures::PresetPictures(DrawingThread& drawing, Executor executor)
    : m_Drawing(drawing), m_Executor(std::move(executor)) {}

std::shared_ptr<const std::string> PresetPictures::Find(const std::shared_ptr<OpenedSeries>& series,
                                                        const std::string& preset) {
    OfSeries& known = (*m_All)[series->Id()];
    known.series = series;
    const auto [picture, is_new] = known.pictures.try_emplace(preset);
    if (is_new) {
        m_Drawing.RunWhenIdle(
            [all = std::weak_ptr<All>(m_All), post = m_Executor, preset, drawn = std::weak_ptr<OpenedSeries>(series)] {
                const std::shared_ptr<OpenedSeries> there = drawn.lock();
                if (there == nullptr) {
                    return;
                }
                const auto file = std::make_shared<const std::string>(DrawPreset(there, preset));
                post([all, file, preset, id = there->Id()] {
                    if (const auto still = all.lock()) {
                        (*still)[id].pictures[preset] = file;
                    }
                });
            });
    }
    return picture->second;
}

void PresetPictures::Sweep() {
    std::erase_if(*m_All, [](const auto& entry) { return entry.second.series.expired(); });
}

}  // namespace serve
