// A series in memory, shared by all clients that look at it.
#pragma once

#include "scene/labels.h"
#include "scene/presets.h"
#include "scene/projection.h"
#include "scene/volume_source.h"

#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace serve {

// Labels that belong to a series and what is known of how they look.
struct SeriesLabels {
    scene::LabelVolume labels;
    std::vector<scene::LabelTableEntry> table;
};

// What every client of a series needs. Nothing changes after its making but what the host's pager moves.
class OpenedSeries {
public:
    // Throws Error and the host's cancellation.
    OpenedSeries(std::string id, scene::ImportedVolume&& imported, std::optional<SeriesLabels>&& labels);

    const std::string& Id() const { return m_Id; }
    scene::VolumeSource& Source() { return m_Source; }
    const std::optional<SeriesLabels>& Labels() const { return m_Labels; }
    // Of pictures that no window is asked for: what suits a view from the front.
    const scene::DisplayWindow& DefaultWindow() const { return m_Window; }
    std::string DefaultPreset() const;
    // A preset's function over this series' values; the default one for an empty name.
    scene::TransferFunction Function(const std::string& preset, double shift, double opacity);

private:
    std::string m_Id;
    scene::VolumeSource m_Source;
    std::optional<SeriesLabels> m_Labels;
    scene::DisplayWindow m_Window;
};

}  // namespace serve
