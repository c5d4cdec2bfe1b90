// A series in memory, shared by all clients that look at it.
#pragma once

#include "scene/growing_source.h"
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

// What every client of a series needs. Nothing of a whole series changes after its making but what the host's pager
// moves; of one that is still being read, slices arrive on the drawing thread.
class OpenedSeries {
public:
    // Throws Error and the host's cancellation.
    OpenedSeries(std::string id, std::unique_ptr<scene::VolumeSource> source, std::optional<SeriesLabels>&& labels);
    // A series that is being read: its slices come later.
    OpenedSeries(std::string id, std::unique_ptr<scene::GrowingSource> source);

    // The source when slices still arrive, else null. For the drawing thread.
    scene::GrowingSource* Growing() { return m_Growing; }
    bool IsWhole() const { return m_Growing == nullptr; }
    // A series that grew is of no use once it is whole: `next` stands for it then, null when it came to nothing.
    void Retire(std::shared_ptr<OpenedSeries> next) {
        m_IsRetired = true;
        m_Next = std::move(next);
    }
    bool IsRetired() const { return m_IsRetired; }
    const std::shared_ptr<OpenedSeries>& Next() const { return m_Next; }
    const std::string& Id() const { return m_Id; }
    scene::VolumeSource& Source() { return *m_Source; }
    const std::optional<SeriesLabels>& Labels() const { return m_Labels; }
    // Of pictures that no window is asked for: what suits a view from the front.
    const scene::DisplayWindow& DefaultWindow() const { return m_Window; }
    std::string DefaultPreset() const;
    // A preset's function over this series' values; the default one for an empty name.
    scene::TransferFunction Function(const std::string& preset, double shift, double opacity);

private:
    std::string m_Id;
    scene::GrowingSource* m_Growing = nullptr;
    std::unique_ptr<scene::VolumeSource> m_Source;
    bool m_IsRetired = false;
    std::shared_ptr<OpenedSeries> m_Next;
    std::optional<SeriesLabels> m_Labels;
    scene::DisplayWindow m_Window;
};

}  // namespace serve
