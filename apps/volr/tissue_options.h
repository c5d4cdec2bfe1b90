// Options of label maps: which, and how each label looks.
#pragma once

#include "apps/volr/options.h"
#include "apps/volr/session.h"
#include "scene/projection.h"
#include "scene/tissues.h"
#include "scene/volume_rendering.h"

#include <CLI/CLI.hpp>

#include <optional>
#include <string>
#include <vector>

namespace volr {

struct TissueOptions {
    std::vector<std::string> paths;  // label maps and label tables
    std::vector<std::string> looks;
    bool resample = false;

    void AddTo(CLI::App& verb);
    void Check() const;  // what can be checked before the volume is there
};

// The labels of one run. Without --labels there are none, and nothing is passed on.
class Tissues {
public:
    // Reads tables and maps; `look` moves and scales the tissues' presets as it does the volume's.
    Tissues(Session& session, const TissueOptions& options, const LookOptions& look, scene::VolumeSource& source);

    // Pass the labels on, once: the picture holds all that it needs of them, and their memory is given back.
    void Apply(scene::VolumeRendering& rendering);
    void Apply(scene::Projection& projection);

private:
    scene::VolumeSource& m_Source;
    std::optional<scene::LabelVolume> m_Labels;
    scene::TissuePlan m_Plan;
};

}  // namespace volr
