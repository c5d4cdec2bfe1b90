// Small pictures of a series with each preset, drawn when nobody waits for anything else.
#pragma once

#include "apps/serve/drawing_thread.h"
#include "apps/serve/opened_series.h"
#include "apps/serve/series_store.h"

#include <map>
#include <memory>
#include <string>
#include <utility>

namespace serve {

// For one thread, that of the executor.
class PresetPictures {
public:
    PresetPictures(DrawingThread& drawing, Executor executor);

    // A PNG file of 128 x 128 pixels; null as long as it is not drawn: asking has it drawn.
    std::shared_ptr<const std::string> Find(const std::shared_ptr<OpenedSeries>& series, const std::string& preset);
    // Lets go of the pictures of series that are not in memory any more.
    void Sweep();

private:
    using Picture = std::shared_ptr<const std::string>;
    struct OfSeries {
        std::weak_ptr<OpenedSeries> series;
        std::map<std::string, Picture> pictures;  // null: asked for
    };
    using All = std::map<std::string, OfSeries>;

    DrawingThread& m_Drawing;
    Executor m_Executor;
    std::shared_ptr<All> m_All = std::make_shared<All>();  // jobs that outlive this find it gone
};

}  // namespace serve
