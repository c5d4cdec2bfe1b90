#include "apps/serve/opened_series.h"

#include <algorithm>

namespace serve {

namespace {

// What suits a picture of the whole volume from the front.
scene::DisplayWindow WindowFor(scene::VolumeSource& source) {
    constexpr int kSize = 256;
    scene::View view;
    view.width = kSize;
    view.height = kSize;
    scene::Projection projection(source, true);
    projection.SetView(scene::MakeCamera(view, source.GetSubject()), view);
    return scene::DefaultWindow(source, projection.Draw());
}

// What suits a volume of which only the headers are known.
scene::DisplayWindow WindowBeforehand(const scene::VolumeSource& source) {
    const scene::ImportedVolume& info = source.Info();
    if (info.window_centre && info.window_width && *info.window_width > 0.0) {
        return {*info.window_centre, *info.window_width};
    }
    const double low = source.Rescaled(info.min_value);
    const double high = source.Rescaled(info.max_value);
    return {0.5 * (low + high), std::max(high - low, 1.0)};
}

}  // namespace

OpenedSeries::OpenedSeries(std::string id, std::unique_ptr<scene::VolumeSource> source,
                           std::optional<SeriesLabels>&& labels)
    : m_Id(std::move(id)), m_Source(std::move(source)), m_Labels(std::move(labels)), m_Window(WindowFor(*m_Source)) {
    m_Source->Histogram();  // counted now, so that clients share it
}

OpenedSeries::OpenedSeries(std::string id, std::unique_ptr<scene::GrowingSource> source)
    : m_Id(std::move(id)),
      m_Growing(source.get()),
      m_Source(std::move(source)),
      m_Window(WindowBeforehand(*m_Source)) {}

std::string OpenedSeries::DefaultPreset() const {
    const scene::ImportedVolume& info = m_Source->Info();
    return std::string(scene::DefaultPreset(info.modality, m_Source->Rescaled(info.min_value)));
}

scene::TransferFunction OpenedSeries::Function(const std::string& preset, double shift, double opacity) {
    scene::TransferFunction function = *scene::FindPreset(preset.empty() ? DefaultPreset() : preset);
    if (function.relative) {
        const std::array<double, 2> window = m_Source->RelativeWindow();
        function = scene::Resolved(std::move(function), window[0], window[1]);
    }
    return scene::Adjusted(std::move(function), shift, opacity);
}

}  // namespace serve
