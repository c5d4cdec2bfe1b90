#include "apps/volr/tissue_options.h"

#include "scene/error.h"
#include "scene/output_file.h"
#include "scene/presets.h"

#include <algorithm>
#include <charconv>
#include <cstdio>
#include <filesystem>

namespace volr {

namespace {

constexpr std::size_t kLargestTable = 16U << 20;

// A text in small letters.
std::string Lower(std::string text) {
    std::transform(text.begin(), text.end(), text.begin(),
                   [](unsigned char c) { return static_cast<char>(c >= 'A' && c <= 'Z' ? c - 'A' + 'a' : c); });
    return text;
}

bool IsTable(const std::string& path) {
    const std::string ending = Lower(std::filesystem::path(path).extension().string());
    return ending == ".txt" || ending == ".label" || ending == ".lbl";
}

// One --tissue: its label and what stands behind the equals sign.
struct Wanted {
    int label;
    std::string look;
};

Wanted Split(const std::string& text) {
    const std::size_t equals = text.find('=');
    int label = -1;
    const char* const end = text.data() + std::min(equals, text.size());
    const auto [stop, error] = std::from_chars(text.data(), end, label);
    if (equals == std::string::npos || stop != end || error != std::errc() || label < 0 || label > 65535) {
        Misuse("--tissue", "\"" + text + "\" names no label",
               "write it as 3=ct-bone, 3=#FF8000:0.5, 3=hidden or 3=only");
    }
    return {label, text.substr(equals + 1)};
}

// #RRGGBB[:OPACITY]
scene::TissueLook ParseColourLook(const std::string& text) {
    const std::size_t colon = text.find(':');
    const std::uint32_t rgb = ParseColour("--tissue", text.substr(0, colon));
    double opacity = 1.0;
    if (colon != std::string::npos) {
        opacity = ParseNumbers("--tissue", text.substr(colon + 1), 1)[0];
        if (opacity < 0.0 || opacity > 1.0) {
            Misuse("--tissue", "\"" + text + "\" has no such opacity", "give what 1 mm hides, 0 to 1");
        }
    }
    return scene::TissueLook::Colour(rgb, opacity);
}

scene::TissueWish Parse(const std::string& text) {
    const Wanted wanted = Split(text);
    scene::TissueWish wish;
    wish.label = wanted.label;
    if (wanted.look == "only") {
        wish.only = true;
    } else if (wanted.look == "hidden") {
        wish.look = scene::TissueLook::Hidden();
    } else if (!wanted.look.empty() && wanted.look[0] == '#') {
        wish.look = ParseColourLook(wanted.look);
    } else if (const scene::TransferFunction* const preset = scene::FindPreset(wanted.look)) {
        wish.look = scene::TissueLook{scene::TissueLook::Kind::kOwn, preset->name, *preset};
    } else {
        Misuse("--tissue", "there is no preset \"" + wanted.look + "\"",
               "volr presets lists them; or give #RRGGBB[:OPACITY], hidden or only");
    }
    return wish;
}

// Fits a tissue's function to the volume, as the volume's own is.
void Fit(scene::TissueLook& look, const LookOptions& options, scene::VolumeSource& source) {
    scene::TransferFunction& function = look.function;
    if (function.relative) {
        const std::array<double, 2> window = source.RelativeWindow();
        function = scene::Resolved(std::move(function), window[0], window[1]);
    }
    function = scene::Adjusted(std::move(function), options.shift, options.opacity);
}

// A label map, with progress and warnings.
scene::ImportedVolume ReadLabels(const std::string& path, Session& session) {
    Progress progress("reading labels", session.Quiet());
    scene::ImportOptions options;
    options.num_threads = session.NumThreads();
    options.progress = [&](double fraction) { progress.Show(fraction); };
    options.is_cancelled = [&] { return session.IsCancelled(); };
    scene::ImportedVolume map = scene::ImportLabels(path, options);
    for (const std::string& warning : map.warnings) {
        if (!session.Quiet()) {
            std::fprintf(stderr, "volr: warning: %s\n", warning.c_str());
        }
    }
    return map;
}

}  // namespace

void TissueOptions::AddTo(CLI::App& verb) {
    const auto group = "Tissues";
    verb.add_option("--labels", paths,
                    "label map of the volume, or a table of labels' colours (.txt, .label); repeatable")
        ->allow_extra_args(false)
        ->group(group);
    verb.add_option("--tissue", looks,
                    "how label N looks, as N=PRESET, N=#RRGGBB[:OPACITY], N=hidden or N=only; repeatable")
        ->allow_extra_args(false)
        ->group(group);
    verb.add_flag("--resample-labels", resample, "brings label maps of another grid to the volume's")->group(group);
}

void TissueOptions::Check() const {
    std::for_each(looks.begin(), looks.end(), Parse);
    const bool has_map = std::any_of(paths.begin(), paths.end(), [](const std::string& p) { return !IsTable(p); });
    if (!has_map && (!looks.empty() || !paths.empty() || resample)) {
        Misuse(!looks.empty()   ? "--tissue"
               : !paths.empty() ? "--labels"
                                : "--resample-labels",
               "there is no label map", "give one with --labels");
    }
    for (const std::string& path : paths) {
        if (IsTable(path)) {
            scene::ParseLabelTable(scene::ReadFile(path, kLargestTable), path);
        }
    }
}

Tissues::Tissues(Session& session, const TissueOptions& options, const LookOptions& look, scene::VolumeSource& source)
    : m_Source(source) {
    if (options.paths.empty()) {
        return;
    }
    std::vector<scene::LabelTableEntry> table;
    m_Labels.emplace(source.Info());
    for (const std::string& path : options.paths) {
        if (IsTable(path)) {
            const auto entries = scene::ParseLabelTable(scene::ReadFile(path, kLargestTable), path);
            table.insert(table.end(), entries.begin(), entries.end());
        } else {
            m_Labels->Add(ReadLabels(path, session), options.resample, path);
        }
    }

    std::vector<scene::TissueWish> wishes;
    std::transform(options.looks.begin(), options.looks.end(), std::back_inserter(wishes), Parse);
    m_Plan = scene::PlanTissues(m_Labels->Present(), wishes, table);
    if (m_Plan.shares_rest && !session.Quiet()) {
        std::fprintf(stderr,
                     "volr: warning: labels: there are more than 15; those without --tissue look like the volume\n");
    }
    for (scene::TissueLook& l : m_Plan.looks) {
        Fit(l, look, source);
    }
    Fit(m_Plan.rest, look, source);
}

void Tissues::Apply(scene::VolumeRendering& rendering) {
    if (m_Labels) {
        rendering.SetTissues(scene::MakeTissueVolume(*m_Labels, m_Plan, m_Source), m_Plan);
        m_Labels.reset();
    }
}

void Tissues::Apply(scene::Projection& projection) {
    if (m_Labels) {
        projection.SetMask(scene::MakeHiddenMask(*m_Labels, m_Plan, m_Source));
        m_Labels.reset();
    }
}

}  // namespace volr
